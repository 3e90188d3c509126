// expected: a message stands twice in a task.s list
#include "Tuner.h"

class Stutterer : public zor::Task<Stutterer, Tune, Scan, Tune>
{
 public:
    void On(const Tune& tune);
    void On(const Scan& scan);
};

Stutterer stutterer;
