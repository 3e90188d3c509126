#include "Thread.h"

#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/times.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "ZorApiLite.h"
#include "ZorServiceDebugOverlay.h"

namespace {

/// The handle of a thread whose body has returned: only the low 32 bits are set.
constexpr pthread_t ENDED_THREAD = 0xFFFFFFFF;

int KernelThreadId()
{
    return static_cast<int>(syscall(SYS_gettid));
}

bool SetNiceness(int kernelId, int priority)
{
    constexpr int NICENESS[] = {-10, 0, 10};
    constexpr int CODES = sizeof(NICENESS) / sizeof(NICENESS[0]);

    if (priority < 0 || priority >= CODES) {
        return false;
    }
    return setpriority(PRIO_PROCESS, static_cast<id_t>(kernelId), NICENESS[priority]) == 0;
}

} // namespace

/// The entry of every thread: the body runs between the two gates.
///
///   creator: pthread_create -- store handle -- give start gate
///   thread:      (starts) ------------------------- take start gate -- t_Main -- give exit gate
///   destroyer:                                              take exit gate -----------+-- release
///
/// Without the start gate the body could ask for Id() before the creator has stored the handle.
void* _Process(void* thread)
{
    auto* self = static_cast<TCThread*>(thread);
    self->m_startGate.Take();
    self->m_kernelId.store(KernelThreadId(), std::memory_order_relaxed);
    self->m_pidSync.Give();
    if (self->m_name[0] != '\0') {
        prctl(PR_SET_NAME, self->m_name);
    }
    self->t_Main();
    self->m_thread.store(ENDED_THREAD, std::memory_order_release);
    self->m_exitGate.Give();
    return nullptr;
}

TCThread::~TCThread()
{
    TCASSERT(FlagCreate() == false);
}

bool TCThread::Create(const char* threadname, unsigned long stackSize)
{
    TCASSERT(FlagCreate() == false);
    TCASSERT(threadname != NULL);
    if (!CreateGates()) {
        return false;
    }
    memset(m_name, 0, sizeof(m_name));
    strncpy(m_name, threadname, sizeof(m_name) - 1);
    m_kernelId.store(NO_KERNEL_ID, std::memory_order_relaxed);
    if (!m_pidSync.Create(0)) {
        m_startGate.Destroy();
        m_exitGate.Destroy();
        ZOR_LOG(true, DLOG_FATAL, "[QLN]: ERROR: TCThread::Create() : m_pidSync Create Error");
        return false;
    }
    return Start(stackSize);
}

bool TCThread::CreateGates()
{
    if (!m_startGate.Create(0)) {
        return false;
    }
    if (!m_exitGate.Create(0)) {
        m_startGate.Destroy();
        return false;
    }
    return true;
}

bool TCThread::Start(unsigned long stackSize)
{
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    // A size below the system's minimum is refused here and the thread gets the default.
    pthread_attr_setstacksize(&attributes, stackSize);

    pthread_t handle = 0;
    const int error = pthread_create(&handle, &attributes, _Process, this);
    if (error == 0) {
        m_thread.store(handle, std::memory_order_relaxed);
        pthread_attr_destroy(&attributes);
        m_startGate.Give();
        return true;
    }

    pthread_attr_destroy(&attributes);
    TCASSERT_MSG(0, "TCThread not created: errno = %d\n", error);
    m_startGate.Destroy();
    m_exitGate.Destroy();
    // m_pidSync stays created: whoever destroys this object is told of the thread that never was.
    return false;
}

void TCThread::Destroy()
{
    TCASSERT(FlagCreate() == true);
    TCASSERT(TCThreadSelf::Id() != Id());
    if (TCThreadSelf::Id() == Id()) {
        TCDebug::Print("Assert Error : Current Thread can't destroy itself\n");
        m_pidSync.Destroy();
        return;
    }
    m_exitGate.Take();
    m_startGate.Destroy();
    m_exitGate.Destroy();
    m_pidSync.Destroy();
}

bool TCThread::SetPriority(int priority)
{
    TCASSERT(FlagCreate() == true);
    if (m_kernelId.load(std::memory_order_relaxed) == NO_KERNEL_ID) {
        m_pidSync.Take();
        m_pidSync.Give(); // for the next one who asks before the thread has started
    }
    if (HasEnded()) {
        return false; // the kernel may have given the id to a thread of anybody's by now
    }
    return SetNiceness(m_kernelId.load(std::memory_order_relaxed), priority);
}

bool TCThread::HasEnded() const
{
    // Acquired: what the body did is seen by whoever acts on its end.
    return m_thread.load(std::memory_order_acquire) == ENDED_THREAD;
}

pthread_t TCThread::Id() const
{
    TCASSERT(FlagCreate() == true);
    return m_thread.load(std::memory_order_relaxed);
}

pthread_t TCThreadSelf::Id()
{
    return pthread_self();
}

bool TCThreadSelf::SetPriority(int priority)
{
    return SetNiceness(KernelThreadId(), priority);
}

void TCTimeWrapper::Sleep(unsigned long msec)
{
    ZorApiLite::LiteUtility::SleepMs(msec);
}

unsigned long TCTimeWrapper::Tick()
{
    const clock_t ticks = times(NULL);
    if (ticks == static_cast<clock_t>(-1)) {
        TCDebug::Print("QLN Warning: times() return error(-1).\n");
        return ~0UL;
    }
    // The division comes first, so that the result moves in whole ticks.
    return static_cast<unsigned long>(1000 / sysconf(_SC_CLK_TCK)) *
           static_cast<unsigned long>(ticks);
}
