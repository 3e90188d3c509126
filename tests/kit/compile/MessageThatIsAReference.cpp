// expected: a message is a type of its own, which can be moved: no reference, no pointer, not const
#include "Tuner.h"

class Careless : public zor::Task<Careless, const Tune&>
{
 public:
    void On(const Tune& tune);
};

Careless careless;
