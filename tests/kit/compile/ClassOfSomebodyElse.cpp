// expected: the first argument of zor::Task is the class that derives from it
#include "Tuner.h"

class Copied;

class Original : public zor::Task<Copied, Scan>
{
 public:
    void On(const Scan& scan);
};

class Copied
{
 public:
    void On(const Scan& scan);
};

Original original;
