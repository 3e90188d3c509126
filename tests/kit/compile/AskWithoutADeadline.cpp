// expected: an ask needs a deadline: Ask.message, 500ms.
#include "Tuner.h"

void Use(Tuner& tuner)
{
    tuner.Ask(Tune{7});
}
