// expected: what On.. returns must be movable, for it is an answer
#include "Tuner.h"

struct Fixed
{
    Fixed() = default;
    Fixed(Fixed&&) = delete;
};

class Giving : public zor::Task<Giving, Scan>
{
 public:
    Fixed On(const Scan& scan);
};

Giving giving;
