#include "ThreadUtil.h"

#include <pthread.h>

#include "ZorServiceDebugOverlay.h"

void TCThreadUtil::SetCurrentThreadName(const char* name)
{
    const long result = pthread_setname_np(pthread_self(), name);
    if (result != 0) {
        // Deliberate: the text stands where the tag belongs, the name where the format belongs.
        ZOR_LOG_TAGGED("\"failed to set %s name, result:%ld\"", true, DLOG_INFO, name, result);
    }
}
