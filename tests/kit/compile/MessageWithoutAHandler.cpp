// expected: zor::TaskHasNoHandlerOf<Silent, Scan>
#include "Tuner.h"

class Silent : public zor::Task<Silent, Tune, Scan>
{
 public:
    Tuned On(const Tune& tune);
};

Silent silent;
