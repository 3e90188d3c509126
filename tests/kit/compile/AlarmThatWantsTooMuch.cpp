// expected: the lambda of a timer or alarm takes nothing or a const zor::Firing&
#include "Tuner.h"

void Use(Tuner& tuner)
{
    auto alarm = tuner.AlarmEvery(20ms, [](int) {});
}
