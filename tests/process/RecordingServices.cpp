#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "Seam.h"
#include "Sync.h"
#include "TaskList.h"
#include "Thread.h"
#include "WatchdogNotifier.h"

// Takes over the services' operations that the process entry calls, reports each call of its thread
// on standard output as "service NAME", and passes it on: the notifier's thread asks for the
// registry as well, whenever it gets to it. What else they do is told by the environment:
//
//   ZOR_TEST_THROW      names of operations that throw instead, parted by blanks
//   ZOR_TEST_NO_SYNC    the table of synchronous calls cannot be made
//   ZOR_TEST_LOCK       the registry's lock is created before main() runs

namespace {

using zortest::Seam;

Seam<bool()> syncCreateSeam("_ZN9TCSyncDet6CreateEv");
Seam<bool()> syncDestroySeam("_ZN9TCSyncDet7DestroyEv");
Seam<bool()> flagInitializeSeam("_ZN10TCTaskList14FlagInitializeEv");
Seam<void()> finalizeSeam("_ZN10TCTaskList8FinalizeEv");
Seam<void()> notifierInitSeam("_ZN18TCWatchdogNotifier4InitEv");
Seam<void()> notifierExitSeam("_ZN18TCWatchdogNotifier4ExitEv");
Seam<bool(TCSemaphore*, int)> semaphoreCreateSeam("_ZN11TCSemaphore6CreateEi");

void Enter(const char* name)
{
    if (syscall(SYS_gettid) != getpid()) {
        return;
    }
    dprintf(STDOUT_FILENO, "service %s\n", name);
    const char* thrown = getenv("ZOR_TEST_THROW");
    if (thrown != nullptr && strstr(thrown, name) != nullptr) {
        throw std::runtime_error(name);
    }
}

struct TSEarlyLock
{
    TSEarlyLock()
    {
        if (getenv("ZOR_TEST_LOCK") != nullptr) {
            TCTaskList::m_mutex.Create();
        }
    }
};

const TSEarlyLock gEarlyLock;

} // namespace

bool TCSyncDet::Create()
{
    Enter("TCSyncDet::Create");
    return getenv("ZOR_TEST_NO_SYNC") == nullptr && syncCreateSeam();
}

bool TCSyncDet::Destroy()
{
    Enter("TCSyncDet::Destroy");
    return syncDestroySeam();
}

bool TCTaskList::FlagInitialize()
{
    Enter("TCTaskList::FlagInitialize");
    return flagInitializeSeam();
}

void TCTaskList::Finalize()
{
    Enter("TCTaskList::Finalize");
    finalizeSeam();
}

void TCWatchdogNotifier::Init()
{
    Enter("TCWatchdogNotifier::Init");
    notifierInitSeam();
}

void TCWatchdogNotifier::Exit()
{
    Enter("TCWatchdogNotifier::Exit");
    notifierExitSeam();
}

bool TCSemaphore::Create(int count)
{
    const char* const at = reinterpret_cast<const char*>(this);
    const char* const lock = reinterpret_cast<const char*>(&TCTaskList::m_mutex);
    if (at >= lock && at < lock + sizeof(TCMutex)) {
        Enter(count == 1 ? "registry lock of 1" : "registry lock of another count");
    }
    return semaphoreCreateSeam(this, count);
}
