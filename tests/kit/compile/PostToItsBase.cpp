// expected: no member named .Post|has no member named .Post
#include "Tuner.h"

void Use(zor::TaskBase& task)
{
    task.Post(Tune{7});
}
