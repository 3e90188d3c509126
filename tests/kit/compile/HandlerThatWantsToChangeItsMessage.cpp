// expected: zor::TaskHasNoHandlerOf<Changing, Scan>
#include "Tuner.h"

class Changing : public zor::Task<Changing, Scan>
{
 public:
    void On(Scan& scan);
};

Changing changing;
