// expected: the lambda of Run takes nothing or a reference to the task.s class
#include "Tuner.h"

void Use(Tuner& tuner)
{
    tuner.Run([](int) {}, 500ms);
}
