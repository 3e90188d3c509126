// expected: (could not convert|no viable conversion) .*milliseconds
#include "Tuner.h"

void Use(Tuner& tuner)
{
    tuner.Post(Tune{7}, zor::WaitAtMost(50));
}
