// expected: zor::TaskHasNoHandlerOf<Secretive, Scan>
#include "Tuner.h"

class Secretive : public zor::Task<Secretive, Scan>
{
    void On(const Scan& scan);
};

Secretive secretive;
