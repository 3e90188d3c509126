// expected: zor::TaskHasNoHandlerOf<Silent, Scan>
#include "Tuner.h"

class Silent : public zor::Task<Silent, Scan>
{};

void Use(Silent& silent)
{
    silent.Ask(Scan{}, 500ms);
}
