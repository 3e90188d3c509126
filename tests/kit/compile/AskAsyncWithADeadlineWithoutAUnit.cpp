// expected: a deadline has a unit: AskAsync.message, 500ms, callback.
#include "Tuner.h"

void Use(Tuner& tuner)
{
    tuner.AskAsync(Tune{7}, 500, [](zor::Result<Tuned>) {});
}
