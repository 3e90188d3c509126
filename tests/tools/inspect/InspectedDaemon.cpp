// What the tests inspect: a program with tasks, brought into the state that its argument names.
//
// It writes a line "task NAME THREAD" for each task, then "ready" once the state is reached and
// cannot change by itself any more. From then on every line of standard input asks for a sign of
// life; the end of the input ends the program, so that no test can leave one behind.

#include <dlfcn.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Alarm.h"
#include "StateAlarm.h"
#include "Sync.h"
#include "TCDebugPrint.h"
#include "Task.h"
#include "Timer.h"
#include "Wait.h"

/// The runtime imports the application's Main(); its own main() is not the one that runs here.
__attribute__((visibility("default"))) int Main()
{
    return 0;
}

namespace {

using zortest::Eventually;

/// How a thread waits on a condition variable.
enum class Wait
{
    NONE,
    ENDLESS,
    TIMED
};

/// How the threads wait, by kernel id. A thread enters itself with the mutex of the condition
/// variable held, when it has decided to wait: what it waits for cannot be there yet.
class Waits
{
 public:
    /// Never destroyed: threads wait until the process is gone.
    static Waits& Instance()
    {
        static Waits& instance = *new Waits;
        return instance;
    }

    void Set(Wait wait)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_waits[static_cast<pid_t>(syscall(SYS_gettid))] = wait;
    }

    Wait Get(pid_t thread)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_waits[thread];
    }

 private:
    std::mutex m_mutex;
    std::map<pid_t, Wait> m_waits; ///< guarded by m_mutex
};

} // namespace

extern "C" int pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex)
{
    static const auto real =
        reinterpret_cast<decltype(&pthread_cond_wait)>(dlsym(RTLD_NEXT, "pthread_cond_wait"));
    Waits::Instance().Set(Wait::ENDLESS);
    const int result = real(condition, mutex);
    Waits::Instance().Set(Wait::NONE);
    return result;
}

extern "C" int pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                      const timespec* deadline)
{
    static const auto real = reinterpret_cast<decltype(&pthread_cond_timedwait)>(
        dlsym(RTLD_NEXT, "pthread_cond_timedwait"));
    Waits::Instance().Set(Wait::TIMED);
    const int result = real(condition, mutex, deadline);
    Waits::Instance().Set(Wait::NONE);
    return result;
}

namespace {

constexpr unsigned int LONG_WAIT_MSEC = 600 * 1000;
constexpr unsigned long LONG_INTERVAL_MSEC = 500 * 1000;
constexpr unsigned long STACK_SIZE = 256 * 1024;
constexpr int QUEUE_CAPACITY = 256;
constexpr int NORMAL_CAPACITY = 240;

[[noreturn]] void Fail(const char* what)
{
    std::fprintf(stderr, "inspected daemon: %s\n", what);
    std::_Exit(EXIT_FAILURE);
}

void Require(bool condition, const char* what)
{
    if (!condition) {
        Fail(what);
    }
}

/// What a worker does with a user event, by the event's param1.
enum Order : std::uint32_t
{
    ORDER_NOTHING = 0,
    ORDER_HANG = 1,       ///< for ever
    ORDER_CALL = 2,       ///< a synchronous send to m_next
    ORDER_LOCK = 3,       ///< take the registry's lock
    ORDER_LOCK_CALL = 4,  ///< the same, then a synchronous send to m_next
    ORDER_CALL_QUEUE = 5, ///< a synchronous send to queue 1 of m_next
    ORDER_DESTROY = 6,    ///< the end of m_next
    ORDER_CALL_HANG = 7,  ///< a synchronous send to m_next, which then hangs
    ORDER_OWN_QUEUE = 8,  ///< a synchronous put into a queue that is no task's
};

TSEvent EventTo(TCHandler* receiver, std::uint32_t order)
{
    TSEvent event;
    event.type = TCTask::EVENT_USER;
    event.receiver = receiver;
    event.param1 = order;
    return event;
}

std::atomic<int> g_callers{0}; ///< workers that are about to make their calls

/// The behaviour of both kinds of task. They end with the process, never before.
template <typename Base>
class Worker : public Base
{
 public:
    /// Whom ORDER_CALL calls. The call is made once @p calls threads are about to make theirs.
    void SetNext(TCTask* next, int calls)
    {
        m_next = next;
        m_calls = calls;
    }

    bool t_Create() override
    {
        m_kernelId = static_cast<pid_t>(syscall(SYS_gettid));
        return true;
    }

    bool t_OnUser(const TSEvent* event) override
    {
        m_entered = true;
        switch (event->param1) {
            case ORDER_HANG:
                for (;;) {
                    pause();
                }
            case ORDER_LOCK:
                Meet();
                m_calling = true;
                TCTaskList::m_mutex.Lock();
                break;
            case ORDER_LOCK_CALL:
                TCTaskList::m_mutex.Lock();
                [[fallthrough]];
            case ORDER_CALL:
            case ORDER_CALL_QUEUE:
            case ORDER_DESTROY:
            case ORDER_CALL_HANG:
            case ORDER_OWN_QUEUE:
                Meet();
                m_calling = true;
                Call(event->param1);
                break;
            default:
                break;
        }
        return true;
    }

    bool IsIn() const { return m_entered; }

    /// Waits until the thread runs, and tells its kernel id.
    void Introduce() const
    {
        Require(Eventually([&] { return m_kernelId != 0; }), "a task does not start");
        std::printf("task %s %d\n", this->Name(), static_cast<int>(m_kernelId));
    }

    bool IsGone() const
    {
        const std::string path = "/proc/self/task/" + std::to_string(m_kernelId);
        return access(path.c_str(), F_OK) != 0;
    }

    /// Whether the thread waits for an event.
    bool IsIdle() const { return Waits::Instance().Get(m_kernelId) == Wait::TIMED; }

    /// Whether the thread waits in its order. In a call it may do so more than once; see Awaits().
    bool IsBlocked() const
    {
        return m_calling && Waits::Instance().Get(m_kernelId) == Wait::ENDLESS;
    }

 private:
    void Meet() const
    {
        ++g_callers;
        while (g_callers < m_calls) {
            std::this_thread::yield();
        }
    }

    void Call(std::uint32_t order)
    {
        TSEvent call = EventTo(m_next, order == ORDER_CALL_HANG ? ORDER_HANG : ORDER_NOTHING);
        if (order == ORDER_CALL_QUEUE) {
            TCMultiQTask::Send(&call, true, false, 1);
        } else if (order == ORDER_DESTROY) {
            m_next->Destroy();
        } else if (order == ORDER_OWN_QUEUE) {
            auto* const queue = new TCQueue;
            Require(queue->Create(), "no queue");
            queue->PutSync(&call, true, false);
        } else {
            TCTask::Send(&call, true, false);
        }
    }

    TCTask* m_next = nullptr; ///< fixed before the first event
    int m_calls = 1;          ///< likewise
    std::atomic<pid_t> m_kernelId{0};
    std::atomic<bool> m_entered{false};
    std::atomic<bool> m_calling{false};
};

using Single = Worker<TCTask>;
using Multi = Worker<TCMultiQTask>;

Single* StartTask(const char* name)
{
    auto* const task = new Single;
    Require(task->Create(name, LONG_WAIT_MSEC, STACK_SIZE, 0), "no task");
    task->Introduce();
    return task;
}

Multi* StartMultiTask(const char* name, unsigned int queues)
{
    auto* const task = new Multi;
    Require(task->Create(name, LONG_WAIT_MSEC, STACK_SIZE, queues, 0), "no multi-queue task");
    task->Introduce();
    return task;
}

void Post(TCTask* task, std::uint32_t order)
{
    TSEvent event = EventTo(task, order);
    Require(TCTask::Send(&event, false, false), "a post is refused");
}

/// Whether @p caller waits for the reply to what it has put into @p queue, the only event there. On
/// its way to the queue it may have waited for locks, but no wait that is seen after the event is
/// there is one of these.
template <typename Caller>
bool Awaits(const Caller* caller, TCQueue* queue)
{
    return queue->Size() == 1 && caller->IsBlocked();
}

/// @p names tasks, each of which calls the next one and the last one the first.
void Deadlock(const std::vector<const char*>& names)
{
    std::vector<Single*> tasks;
    for (const char* name : names) {
        tasks.push_back(StartTask(name));
    }
    for (std::size_t i = 0; i < tasks.size(); ++i) {
        tasks[i]->SetNext(tasks[(i + 1) % tasks.size()], static_cast<int>(tasks.size()));
        Post(tasks[i], ORDER_CALL);
    }
    for (std::size_t i = 0; i < tasks.size(); ++i) {
        Single* const next = tasks[(i + 1) % tasks.size()];
        Require(Eventually([&] { return Awaits(tasks[i], next); }), "a caller does not block");
    }
}

/// A takes the registry's lock and calls B, which wants the lock.
void LockDeadlock()
{
    Single* const a = StartTask("A");
    Single* const b = StartTask("B");
    a->SetNext(b, 2);
    b->SetNext(a, 2);
    Post(a, ORDER_LOCK_CALL);
    Post(b, ORDER_LOCK); // B asks for the lock when A has it: they meet in between
    Require(Eventually([&] { return Awaits(a, b) && b->IsBlocked(); }), "no deadlock");
}

/// A calls a task of several queues, into its queue 1, and is called by it.
void MultiDeadlock()
{
    Single* const a = StartTask("A");
    Multi* const m = StartMultiTask("Many", 2);
    a->SetNext(m, 2);
    m->SetNext(a, 2);
    Post(a, ORDER_CALL_QUEUE);
    Post(m, ORDER_CALL);
    Require(
        Eventually([&] { return m->TCMultiQTask::Size(1) == 1 && a->IsBlocked() && Awaits(m, a); }),
        "no deadlock");
}

/// A waits for the end of B, which calls A.
void DestroyDeadlock()
{
    Single* const a = StartTask("A");
    Single* const b = StartTask("B");
    a->SetNext(b, 2);
    b->SetNext(a, 2);
    Post(a, ORDER_DESTROY);
    Post(b, ORDER_CALL);
    Require(Eventually([&] { return a->IsBlocked() && Awaits(b, a); }), "no deadlock");
}

/// A call whose event is being handled.
void HandledCall()
{
    Single* const hung = StartTask("Hung");
    Single* const caller = StartTask("Caller");
    caller->SetNext(hung, 1);
    Post(caller, ORDER_CALL_HANG);
    Require(Eventually([&] { return hung->IsIn() && caller->IsBlocked(); }), "nobody hangs");
}

void OwnQueue()
{
    Single* const caller = StartTask("Caller");
    caller->SetNext(caller, 1);
    Post(caller, ORDER_OWN_QUEUE);
    Require(Eventually([&] { return caller->IsBlocked(); }), "the caller does not block");
}

/// Three handled events that are recorded if ZOR_RECORD says so.
void Recorded()
{
    Single* const task = StartTask("Noted");
    for (std::uint32_t i = 0; i < 3; ++i) {
        TSEvent event = EventTo(task, ORDER_NOTHING);
        event.param2 = i;
        event.flag = true;
        Require(TCTask::Send(&event, true, false), "a send fails");
    }
}

void FullQueue()
{
    Single* const task = StartTask("Full");
    Post(task, ORDER_HANG);
    Require(Eventually([&] { return task->IsIn(); }), "the task does not begin");
    for (int i = 0; i < QUEUE_CAPACITY; ++i) {
        TSEvent event = EventTo(task, ORDER_NOTHING);
        event.param2 = static_cast<std::uint32_t>(i);
        const bool priority = i >= NORMAL_CAPACITY;
        Require(TCTask::Send(&event, false, priority), "the queue is full too early");
    }
    TSEvent event = EventTo(task, ORDER_NOTHING);
    Require(!TCTask::Send(&event, false, true), "the queue is not full");
}

void Paused()
{
    Single* const task = StartTask("Sleeper");
    Require(task->Pause(), "no pause");
    Post(task, ORDER_NOTHING);
}

/// A task that has ended its loop and is not destroyed.
void Ended()
{
    Single* const task = StartTask("Gone");
    TSEvent event = EventTo(task, ORDER_NOTHING);
    event.type = TCTask::EVENT_EXIT;
    Require(TCTask::Send(&event, false, false), "a send fails");
    Require(Eventually([&] { return task->IsGone(); }), "the thread does not end");
}

void Hung()
{
    Single* const task = StartTask("Hung");
    Single* const idle = StartTask("Idle");
    TSEvent event = EventTo(task, ORDER_HANG);
    event.param2 = 22;
    Require(TCTask::Send(&event, false, false), "a post is refused");
    Require(Eventually([&] { return task->IsIn() && idle->IsIdle(); }), "the tasks do not settle");
}

/// A call to a task that hangs: the caller waits, but nobody waits for the caller.
void CallToHung()
{
    Single* const hung = StartTask("Hung");
    Single* const caller = StartTask("Caller");
    Post(hung, ORDER_HANG);
    Require(Eventually([&] { return hung->IsIn(); }), "the task does not begin");
    caller->SetNext(hung, 1);
    Post(caller, ORDER_CALL);
    Require(Eventually([&] { return Awaits(caller, hung); }), "the caller does not block");
}

void MultiQueue()
{
    Multi* const task = StartMultiTask("Many", 3);
    Post(task, ORDER_HANG);
    Require(Eventually([&] { return task->IsIn(); }), "the task does not begin");
    TCDebugPrintZOR::GetInstance()->SetAppData("browser", 3);
    for (unsigned int queue = 0; queue < 3; ++queue) {
        for (unsigned int i = 0; i < queue; ++i) {
            TSEvent event = EventTo(task, 100 * queue + i);
            event.param5 = 55;
            Require(TCMultiQTask::Send(&event, false, false, queue), "a post is refused");
        }
    }
}

class Listener : public ITimerListener
{
 public:
    bool OnTimer(const TSEvent* /*event*/, void* /*userData*/) override { return true; }
};

void Timers()
{
    using std::chrono::milliseconds;

    ITimer::TimerHandlerParams params;
    params.task = StartTask("Clock");
    params.listener = std::make_shared<Listener>();
    auto* const running = new TCTimer(params);
    auto* const paused = new TCTimer(params);
    auto* const expired = new TCTimer(params);
    Require(running->Restart(milliseconds(LONG_INTERVAL_MSEC), 3), "no timer");
    Require(paused->Restart(milliseconds(LONG_INTERVAL_MSEC), ITimer::INFINITE_FIRE), "no timer");
    Require(paused->Pause(), "no pause");
    Require(expired->Restart(milliseconds(20), 0), "no timer");
}

/// The kernel id of the alarm's thread, which takes its name just before it begins.
template <typename Alarm>
class OpenAlarm : public Alarm
{
 public:
    bool IsWaiting(Wait wait) const { return Waits::Instance().Get(m_kernelId) == wait; }

 protected:
    void t_Main() override
    {
        m_kernelId = static_cast<pid_t>(syscall(SYS_gettid));
        Alarm::t_Main();
    }

 private:
    std::atomic<pid_t> m_kernelId{0};
};

void Alarms()
{
    Single* const task = StartTask("Clock");
    auto* const running = new OpenAlarm<TCAlarm>;
    auto* const idle = new OpenAlarm<TCAlarm>;
    auto* const stopped = new OpenAlarm<TCStateAlarm>;
    Require(running->Create(task, LONG_INTERVAL_MSEC, 7), "no alarm");
    Require(idle->Create(task, LONG_INTERVAL_MSEC, 0), "no alarm");
    Require(stopped->Create(task, 9, 4000, -1), "no alarm");
    stopped->Stop();
    Require(Eventually([&] {
                return running->IsWaiting(Wait::TIMED) && idle->IsWaiting(Wait::ENDLESS) &&
                       stopped->IsWaiting(Wait::ENDLESS);
            }),
            "the alarms do not settle");
}

/// A child that this process traces: nobody else can.
void Traced()
{
    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        for (;;) {
            pause();
        }
    }
    Require(child > 0, "no child");
    Require(ptrace(PTRACE_SEIZE, child, nullptr, nullptr) == 0, "the child cannot be traced");
    std::printf("child %d\n", static_cast<int>(child));
}

void Idle()
{
    Single* const task = StartTask("Idle");
    Multi* const many = StartMultiTask("Many", 2);
    Require(Eventually([&] { return task->IsIdle() && many->IsIdle(); }),
            "the tasks do not settle");
}

const std::map<std::string, std::function<void()>> MODES = {
    {"deadlock2",
     [] {
         Deadlock({"A", "B"});
     }},
    {"deadlock3",
     [] {
         Deadlock({"A", "B", "C"});
     }},
    {"lock", LockDeadlock},
    {"multi-deadlock", MultiDeadlock},
    {"destroy-deadlock", DestroyDeadlock},
    {"handled-call", HandledCall},
    {"own-queue", OwnQueue},
    {"recorded", Recorded},
    {"full", FullQueue},
    {"paused", Paused},
    {"ended", Ended},
    {"hung", Hung},
    {"call-to-hung", CallToHung},
    {"multi-queue", MultiQueue},
    {"timers", Timers},
    {"alarms", Alarms},
    {"traced", Traced},
    {"idle", Idle},
    {"no-runtime", [] {}},
};

/// Has a task handle an event for every line of input, until its end.
void Answer()
{
    std::unique_ptr<Single> task;
    for (int c = std::getchar(); c != EOF; c = std::getchar()) {
        if (c != '\n') {
            continue;
        }
        if (task == nullptr) {
            task = std::make_unique<Single>();
            Require(task->Create("Answer", LONG_WAIT_MSEC, STACK_SIZE, 0), "no task");
        }
        TSEvent event = EventTo(task.get(), ORDER_NOTHING);
        const bool handled = TCTask::Send(&event, true, false);
        std::printf("%s\n", handled ? "alive" : "refused");
        std::fflush(stdout);
    }
}

} // namespace

int main(int argc, char** argv)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    // Where the kernel lets only ancestors trace a process, this one lets everybody.
    prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY, 0, 0, 0);
    const auto mode = MODES.find(argc > 1 ? argv[1] : "");
    if (mode == MODES.end()) {
        Fail("unknown mode");
    }
    if (mode->first != "no-runtime") {
        Require(TCSyncDet::Create() && TCTaskList::m_mutex.Create(), "no runtime");
    }
    mode->second();
    std::printf("ready\n");
    std::fflush(stdout);
    Answer();
    // Tasks are still there, and some can never end: nothing is taken down.
    std::_Exit(EXIT_SUCCESS);
}
