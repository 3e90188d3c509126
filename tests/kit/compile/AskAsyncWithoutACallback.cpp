// expected: the callback of AskAsync takes a zor::Result of what On.. returns
#include "Tuner.h"

void Use(Tuner& tuner)
{
    tuner.AskAsync(Tune{7}, 500ms);
}
