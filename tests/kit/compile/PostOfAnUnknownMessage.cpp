// expected: zor::TaskDoesNotTake<Tuner, Unknown>
#include "Tuner.h"

void Use(Tuner& tuner)
{
    tuner.Post(Unknown{});
}
