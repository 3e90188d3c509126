// expected: the lambda of a timer or alarm takes nothing or a const zor::Firing&
#include "Tuner.h"

void Use(Tuner& tuner)
{
    auto timer = tuner.Every(20ms, [](int) {});
}
