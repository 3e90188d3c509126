// expected: zor::TaskDoesNotTake<Tuner, Unknown>
#include "Tuner.h"

void Use(Tuner& tuner)
{
    zor::Result<Tuned> answer = tuner.Ask(Unknown{}, 500ms);
}
