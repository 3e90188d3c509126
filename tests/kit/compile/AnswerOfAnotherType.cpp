// expected: (conversion from|no viable conversion from) .*Result<|expected<Tuned
#include "Tuner.h"

void Use(Tuner& tuner)
{
    zor::Result<Scan> answer = tuner.Ask(Tune{7}, 500ms);
}
