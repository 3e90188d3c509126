// expected: (no match for .operator\*|indirection requires pointer operand)
#include "Tuner.h"

void Use(Tuner& tuner)
{
    const bool done = *tuner.Ask(Scan{}, 500ms);
}
