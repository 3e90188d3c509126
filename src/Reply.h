#pragma once

#include "Thread.h"

/// The semaphore that a synchronous sender waits on. It lives on the sender's stack and goes with
/// its scope.
class Reply : public TCSemaphore
{
 public:
    ~Reply() override
    {
        if (FlagCreate()) {
            Destroy();
        }
    }
};
