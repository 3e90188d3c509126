// expected: zor::TaskDoesNotTake<Tuner, Unknown>
#include "Tuner.h"

void Use(Tuner& tuner)
{
    tuner.AskAsync(Unknown{}, [](zor::Result<Tuned>) {});
}
