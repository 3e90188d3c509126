// expected: zor::TaskHasNoHandlerOf<Mistaken, Scan>
#include "Tuner.h"

class Mistaken : public zor::Task<Mistaken, Scan>
{
 public:
    void On(const Tune& tune);
};

Mistaken mistaken;
