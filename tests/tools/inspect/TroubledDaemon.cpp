// What the tests inspect: a program whose tasks wait for each other in all the ways that there are,
// hang, or die, as its argument says.
//
// It writes a line "task NAME THREAD" for each task, then "ready" once the state is reached and
// cannot change by itself any more. The modes that die do so at the first line of standard input;
// the end of the input ends the program, so that no test can leave one behind.

#include <pthread.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <future>
#include <map>
#include <mutex>
#include <shared_mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include "RWLock.h"
#include "Sync.h"
#include "Task.h"
#include "Wait.h"
#include "WatchdogNotifier.h"
#include "brisk_deadlock.h"

/// The runtime imports the application's Main(); its own main() is not the one that runs here.
__attribute__((visibility("default"))) int Main()
{
    return 0;
}

// Named by what zor-inspect prints of them.
TCMutex g_tuner;
std::mutex g_left;
std::mutex g_right;
std::mutex g_index;
TCRWLock g_table;
std::mutex g_list;
std::shared_mutex g_cache;
std::shared_mutex g_pages;
std::promise<void> g_never;

namespace {

using zortest::Eventually;

constexpr unsigned int LONG_WAIT_MSEC = 600 * 1000;
constexpr unsigned long STACK_SIZE = 256 * 1024;
constexpr unsigned long LONG_WATCHDOG_SEC = 600;

void Require(bool condition, const char* what)
{
    if (!condition) {
        std::fprintf(stderr, "troubled daemon: %s\n", what);
        std::_Exit(EXIT_FAILURE);
    }
}

pid_t KernelId()
{
    return static_cast<pid_t>(syscall(SYS_gettid));
}

/// Whether the kernel has the thread asleep.
bool Sleeps(pid_t thread)
{
    std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
    std::string text;
    std::getline(file, text);
    const std::size_t end = text.rfind(')');
    return end != std::string::npos && text.size() > end + 2 && text[end + 2] == 'S';
}

/// A receiver of jobs with a thread of its own, a task; the jobs are functions.
class Worker : public TCTask
{
 public:
    /// What its events are.
    enum EJob : unsigned long
    {
        EV_RUN = 100,
        EV_ASK = 101,
        EV_LATER = 102,
    };

    explicit Worker(const char* name, unsigned long watchdogSec = 0)
    {
        Require(Create(name, LONG_WAIT_MSEC, STACK_SIZE, watchdogSec), "no task");
        Require(Eventually([&] { return m_thread != 0; }), "a task does not start");
        std::printf("task %s %d\n", Name(), static_cast<int>(m_thread));
    }

    bool t_Create() override
    {
        m_thread = KernelId();
        return true;
    }

    bool t_OnEvent(const TSEvent* event) override
    {
        if (event->type != EV_RUN) {
            return TCTask::t_OnEvent(event);
        }
        m_running = true;
        m_job();
        return true;
    }

    TSEvent EventOf(EJob type)
    {
        TSEvent event;
        event.type = type;
        event.receiver = this;
        return event;
    }

    /// Has the task do the job, in which it blocks.
    void Run(std::function<void()> job)
    {
        m_job = std::move(job);
        Post(EV_RUN);
    }

    void Post(EJob type)
    {
        TSEvent event = EventOf(type);
        Require(Send(&event, false, false), "a post is refused");
    }

    bool Runs() const { return m_running; }
    pid_t Thread() const { return m_thread; }

 private:
    std::atomic<pid_t> m_thread{0};
    std::atomic<bool> m_running{false};
    std::function<void()> m_job; ///< set before its event is sent
};

/// Two tasks that meet before each does what blocks it on the other.
class Pair
{
 public:
    Pair(const char* first, const char* second) : m_first(first), m_second(second) {}

    Worker& First() { return m_first; }
    Worker& Second() { return m_second; }

    /// Each task runs its first part; when both have, each runs its second.
    void Run(const std::function<void()>& first, const std::function<void()>& firstBlocks,
             const std::function<void()>& second, const std::function<void()>& secondBlocks)
    {
        m_first.Run([=] {
            first();
            Meet();
            firstBlocks();
        });
        m_second.Run([=] {
            second();
            Meet();
            secondBlocks();
        });
    }

    /// Whether both sleep, for longer than they do on their way.
    bool IsBlocked() const
    {
        for (int looks = 0; looks < 5; ++looks) {
            if (m_met < 2 || !Sleeps(m_first.Thread()) || !Sleeps(m_second.Thread())) {
                return false;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return true;
    }

 private:
    void Meet()
    {
        ++m_met;
        while (m_met < 2) {
            std::this_thread::yield();
        }
    }

    Worker m_first;
    Worker m_second;
    std::atomic<int> m_met{0};
};

void Nothing() {}

/// Tasks live until the process is gone.
Pair& MakePair(const char* first, const char* second)
{
    return *new Pair(first, second);
}

void AskStore(Worker& store)
{
    TSEvent ask = store.EventOf(Worker::EV_ASK);
    TCTask::Send(&ask, true, false); // EV_ASK waits here
}

/// Scan holds an application's lock and asks Store, which wants that lock.
Pair& ThroughMutex()
{
    Require(g_tuner.Create(), "no mutex");
    Pair& pair = MakePair("Scan", "Store");
    pair.Run([] { g_tuner.Lock(); },
             [&] {
                 pair.Second().Post(Worker::EV_LATER);
                 AskStore(pair.Second());
             },
             Nothing, [] { g_tuner.Lock(); });
    return pair;
}

Pair& ThroughTwoMutexes()
{
    Pair& pair = MakePair("Left", "Right");
    pair.Run([] { g_left.lock(); }, [] { g_right.lock(); }, [] { g_right.lock(); },
             [] { g_left.lock(); });
    return pair;
}

/// Reader reads the table and wants the index, whose holder wants to write the table.
Pair& ThroughReader()
{
    Pair& pair = MakePair("Reader", "Writer");
    pair.Run([] { g_table.RLock(); }, [] { g_index.lock(); }, [] { g_index.lock(); },
             [] { g_table.WLock(); });
    return pair;
}

/// Filler writes the cache and wants the list, whose holder wants to read the cache.
Pair& ThroughWriter()
{
    Pair& pair = MakePair("Filler", "Looker");
    pair.Run([] { g_cache.lock(); }, [] { g_list.lock(); }, [] { g_list.lock(); },
             [] { g_cache.lock_shared(); });
    return pair;
}

/// Joiner waits for the end of a thread that asks Joiner.
Pair& ThroughJoin()
{
    Pair& pair = MakePair("Joiner", "Bystander");
    Worker& joiner = pair.First();
    pair.Run(
        Nothing,
        [&joiner] {
            std::thread([&joiner] {
                pthread_setname_np(pthread_self(), "Joined");
                AskStore(joiner);
            }).join();
        },
        Nothing, [] { std::this_thread::sleep_for(std::chrono::hours(1)); });
    return pair;
}

/// Waits whose other side memory does not name: a future, and a lock that readers hold.
Pair& ThroughTheUnknown()
{
    Pair& pair = MakePair("Hopeful", "Turner");
    pair.Run([] { g_pages.lock_shared(); }, [] { g_never.get_future().wait(); }, Nothing,
             [] { g_pages.lock(); });
    return pair;
}

void Circles()
{
    for (Pair* pair : {&ThroughMutex(), &ThroughTwoMutexes(), &ThroughReader(), &ThroughWriter(),
                       &ThroughJoin(), &ThroughTheUnknown()}) {
        Require(Eventually([&] { return pair->IsBlocked(); }), "two tasks do not block");
    }
}

std::atomic<bool> g_goesOn{true};

void SpinForEver()
{
    while (g_goesOn) { // spins here
    }
}

void WaitForEver()
{
    std::this_thread::sleep_for(std::chrono::hours(1)); // sleeps here
}

/// One that spins under supervision, with pings that wait, and one that sleeps.
void Hung()
{
    auto& spinning = *new Worker("Spinner", LONG_WATCHDOG_SEC);
    auto& sleeping = *new Worker("Sleeper");
    spinning.Run(SpinForEver);
    sleeping.Run(WaitForEver);
    Require(Eventually([&] { return spinning.Runs() && Sleeps(sleeping.Thread()); }),
            "the tasks do not hang");
    TCWatchdogNotifier::Init();
    Require(Eventually([&] { return spinning.Size() >= 2; }), "no pings");
}

// The ways to die, each in a handler of the task Doomed.

void Crash()
{
    volatile int* const nowhere = reinterpret_cast<volatile int*>(0x10);
    *nowhere = 1; // crashes here
}

void Misuse()
{
    TCTask::Send(nullptr, true, false); // misuse
}

void Throw()
{
    throw std::out_of_range("no tuner 7"); // throws here
}

void MissTheWatchdog()
{
    brisk_deadlock_register_watchdog_service(1);
    WaitForEver();
}

Worker& Doomed(const std::function<void()>& way)
{
    auto& doomed = *new Worker("Doomed");
    std::printf("ready\n");
    std::fflush(stdout);
    if (std::getchar() != EOF) {
        doomed.Run(way);
    }
    return doomed;
}

const std::map<std::string, std::function<void()>> MODES = {
    {"circles", Circles},
    {"hung", Hung},
    {"crash", [] { Doomed(Crash); }},
    {"misuse", [] { Doomed(Misuse); }},
    {"throw", [] { Doomed(Throw); }},
    {"silence", [] { Doomed(MissTheWatchdog); }},
};

} // namespace

int main(int argc, char** argv)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    // Where the kernel lets only ancestors trace a process, this one lets everybody.
    prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY, 0, 0, 0);
    const auto mode = MODES.find(argc > 1 ? argv[1] : "");
    Require(mode != MODES.end(), "unknown mode");
    Require(TCSyncDet::Create() && TCTaskList::m_mutex.Create(), "no runtime");
    mode->second();
    std::printf("ready\n");
    std::fflush(stdout);
    while (std::getchar() != EOF) {
    }
    // Tasks are still there, and some can never end: nothing is taken down.
    std::_Exit(EXIT_SUCCESS);
}
