// expected: a deadline has a unit: Run.function, 500ms.
#include "Tuner.h"

void Use(Tuner& tuner)
{
    zor::Result<int> answer = tuner.Run([] { return 7; }, 500);
}
