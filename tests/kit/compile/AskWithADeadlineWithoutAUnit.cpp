// expected: a deadline has a unit: Ask.message, 500ms.
#include "Tuner.h"

void Use(Tuner& tuner)
{
    zor::Result<Tuned> answer = tuner.Ask(Tune{7}, 500);
}
