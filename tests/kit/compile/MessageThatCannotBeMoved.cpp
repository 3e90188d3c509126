// expected: a message is a type of its own, which can be moved: no reference, no pointer, not const
#include "Tuner.h"

struct Fixed
{
    Fixed() = default;
    Fixed(Fixed&&) = delete;
};

class Careless : public zor::Task<Careless, Fixed>
{
 public:
    void On(const Fixed& fixed);
};

Careless careless;
