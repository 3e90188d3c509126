#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "RecordFaults.h"
#include "Sync.h"
#include "TCDebugPrint.h"
#include "Task.h"
#include "TrapPoint.h"

// The program whose calls the tests record. What it does is its first argument; see main().

__attribute__((visibility("default"))) int Main()
{
    return 0;
}

namespace {

constexpr unsigned long STACK_SIZE = 1024 * 1024;
constexpr int THREADS = 4;

class Handler : public TCHandler
{
 public:
    Handler(const char* name, TCTask* task, std::function<bool(const TSEvent*)> body)
        : m_body(std::move(body))
    {
        Create(task);
        printf("%s %p\n", name, static_cast<void*>(this));
    }

    ~Handler() override { TCHandler::Destroy(); }

    bool t_OnEvent(const TSEvent* event) override { return m_body(event); }

 private:
    std::function<bool(const TSEvent*)> m_body;
};

TSEvent Flagged(TCHandler* receiver, unsigned long type, std::uint32_t param1 = 0)
{
    TSEvent event;
    event.receiver = receiver;
    event.type = type;
    event.param1 = param1;
    event.flag = true;
    return event;
}

bool Send(TCHandler* receiver, unsigned long type, bool sync, bool priority = false)
{
    TSEvent event = Flagged(receiver, type);
    return TCTask::Send(&event, sync, priority);
}

void Exit(TCTask* task)
{
    TSEvent event;
    event.receiver = task;
    event.type = TCTask::EVENT_EXIT;
    TCTask::Send(&event, false, false);
    task->Destroy();
}

/// Sends of every kind between two tasks; the types tell them apart.
void RunTasks()
{
    TCSyncDet::Create();
    TCTaskList::m_mutex.Create();
    TCTask alpha;
    TCTask beta;
    alpha.Create("alpha", 1000, STACK_SIZE, 0);
    beta.Create("beta", 1000, STACK_SIZE, 0);
    {
        Handler last("last", &beta, [](const TSEvent*) { return false; });
        Handler first("first", &alpha, [&](const TSEvent* event) {
            if (event->type == 200) {
                Send(&last, 201, true);
            } else if (event->type == 300) {
                Send(&first, 301, true, true);
            }
            return true;
        });
        TCDebugPrintZOR::GetInstance()->SetAppData("tuner", 7);
        for (std::uint32_t i = 1; i <= 3; ++i) {
            TSEvent event = Flagged(&first, 100, i);
            event.param2 = 22;
            event.param3 = 33;
            event.param4 = 44;
            event.param5 = 55;
            event.param6 = 66;
            event.setWrappedData(i);
            TCTask::Send(&event, false, false);
        }
        Send(&first, 200, true);
        Send(&first, 300, true);
        alpha.Pause();
        Send(&first, 400, false, true);
        Send(&first, 400, false, true);
        alpha.ResumeAsync();
        Send(&first, 500, true);
    }
    Exit(&alpha);
    Exit(&beta);
    TCTaskList::Finalize();
    TCSyncDet::Destroy();
}

/// Alike events for two queues while the task is busy.
void RunQueues()
{
    TCSyncDet::Create();
    TCTaskList::m_mutex.Create();
    TCMultiQTask gamma;
    gamma.Create("gamma", 1000, STACK_SIZE, 3, 0);
    {
        Handler handler("handler", &gamma, [&](const TSEvent* event) {
            if (event->type == 600) {
                for (const unsigned int queue : {2U, 1U}) {
                    TSEvent alike = Flagged(&handler, 601);
                    TCMultiQTask::Send(&alike, false, false, queue);
                }
            }
            return true;
        });
        TSEvent first = Flagged(&handler, 600);
        TCMultiQTask::Send(&first, true, false, 2);
        TSEvent last = Flagged(&handler, 602);
        TCMultiQTask::Send(&last, true, false, 2);
    }
    TSEvent exit;
    exit.receiver = &gamma;
    exit.type = TCTask::EVENT_EXIT;
    TCMultiQTask::Send(&exit, false, false, 0);
    gamma.Destroy();
    TCTaskList::Finalize();
    TCSyncDet::Destroy();
}

/// Never ends: what a hang holds on to must stay where it is.
struct Hang
{
    Hang() // before the handlers
    {
        TCSyncDet::Create();
        TCTaskList::m_mutex.Create();
        scan.Create("scan", 1000, STACK_SIZE, 0);
        store.Create("store", 1000, STACK_SIZE, 0);
        entered.Create(0);
        never.Create(0);
    }

    TCTask scan;
    TCTask store;
    Handler last{"last", &store, [this](const TSEvent* event) {
                     if (event->type == 900) {
                         entered.Give();
                         never.Take();
                     }
                     return true;
                 }};
    Handler first{"first", &scan, [this](const TSEvent*) { return Send(&last, 901, true); }};
    TCSemaphore entered;
    TCSemaphore never;
};

/// A task waits for another one, which waits for ever: returns when they do.
void RunHang()
{
    auto* const hang = new Hang;
    Send(&hang->first, 800, true); // done, so that the tasks are known
    Send(&hang->last, 900, false);
    hang->entered.Take();
    Send(&hang->first, 801, false);
    while (static_cast<TCQueue&>(hang->store).Size() == 0) { // until the second send is in it
        std::this_thread::yield();
    }
}

void Work(unsigned int microseconds)
{
    std::this_thread::sleep_for(std::chrono::microseconds(microseconds));
}

/// Four tasks that work for a while, until one does not come back and two wait for each other.
/// Names are as bad as names can be. Never ends, as Hang.
struct Circle
{
    explicit Circle(const std::vector<std::string>& names)
    {
        TCSyncDet::Create();
        TCTaskList::m_mutex.Create();
        for (std::size_t i = 0; i < 4; ++i) {
            tasks[i].Create(names[i].c_str(), 1000, STACK_SIZE, 0);
        }
        storing.Create(0);
        entered.Create(0);
        never.Create(0);
    }

    std::array<TCTask, 4> tasks;
    TCSemaphore storing;
    TCSemaphore entered;
    TCSemaphore never;
    Handler tuner{"tuner", &tasks[1], [](const TSEvent* event) {
                      Work(400 + event->param1 % 5 * 700);
                      return true;
                  }};
    Handler guide{"guide", &tasks[3], [this](const TSEvent* event) {
                      Work(900);
                      if (event->type == 402) {
                          entered.Give();
                          never.Take();
                      }
                      return true;
                  }};
    Handler store{"store", &tasks[2], [this](const TSEvent* event) {
                      if (event->type == 303) {
                          storing.Give();
                          return Send(&scan, 103, true);
                      }
                      Work(300);
                      return event->type == 301 ? Send(&guide, 401, false) : true;
                  }};
    Handler scan{"scan", &tasks[0], [this](const TSEvent* event) {
                     if (event->type == 102) {
                         storing.Take();
                         return Send(&store, 302, true);
                     }
                     TSEvent tune = Flagged(&tuner, 201, event->param1);
                     TCTask::Send(&tune, true, false);
                     Work(200);
                     return Send(&store, 301, false);
                 }};
};

void RunCircle(const std::vector<std::string>& names)
{
    auto* const circle = new Circle(names);
    for (std::uint32_t round = 1; round <= 12; ++round) {
        TSEvent event = Flagged(&circle->scan, 101, round);
        TCTask::Send(&event, false, false);
        Work(1500);
    }
    Send(&circle->scan, 101, true);
    Send(&circle->store, 304, true);
    Send(&circle->guide, 402, false);
    circle->entered.Take();
    Send(&circle->scan, 102, false);
    Work(20000);
    Send(&circle->store, 303, false);
    // Until each has its event in the other's queue.
    while (static_cast<TCQueue&>(circle->tasks[0]).Size() == 0 ||
           static_cast<TCQueue&>(circle->tasks[2]).Size() == 0) {
        std::this_thread::yield();
    }
    Work(60000);
}

/// As many events as may be, from one thread to two tasks.
void RunMany(std::uint32_t count)
{
    TCSyncDet::Create();
    TCTaskList::m_mutex.Create();
    TCTask alpha;
    TCTask beta;
    alpha.Create("alpha", 1000, STACK_SIZE, 0);
    beta.Create("beta", 1000, STACK_SIZE, 0);
    {
        Handler first("first", &alpha, [](const TSEvent*) { return true; });
        Handler last("last", &beta, [](const TSEvent*) { return true; });
        for (std::uint32_t i = 0; i < count; ++i) {
            TSEvent event = Flagged(i / 50 % 2 == 0 ? &first : &last, 700 + i % 7, i);
            TCTask::Send(&event, i % 50 == 49, false); // before a queue is full
        }
    }
    Exit(&alpha);
    Exit(&beta);
    TCTaskList::Finalize();
    TCSyncDet::Destroy();
}

bool Call(std::uint32_t caller, std::uint32_t number)
{
    static TSCodeLocation location("bool Call(TSEvent*, bool, bool)", "RecordedProgram.cpp", 1);
    TSEvent event = Flagged(nullptr, 1, number);
    event.param2 = caller;
    event.param6 = ~std::uint64_t{number};
    TSEvent* pointer = &event;
    bool sync = number % 2 != 0;
    bool priority = number % 3 == 0;
    return zor::CallAtTrapPoint<bool>(location,
                                      TCArgList3<TSEvent*&, bool&, bool&>(pointer, sync, priority),
                                      [&] { return number % 5 == 0; });
}

void RunThreads(std::uint32_t calls)
{
    std::vector<std::thread> threads;
    for (std::uint32_t caller = 0; caller < THREADS; ++caller) {
        threads.emplace_back([=] {
            pthread_setname_np(pthread_self(), ("caller-" + std::to_string(caller)).c_str());
            for (std::uint32_t i = 0; i < calls; ++i) {
                Call(caller, i);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

void RunForever()
{
    for (std::uint32_t i = 0;; ++i) {
        Call(0, i);
        if (i % 64 == 63) {
            printf("%u\n", i);
        }
    }
}

void RunFork()
{
    Call(1, 1);
    const pid_t child = fork();
    if (child == 0) {
        Call(2, 2);
        _exit(0);
    }
    waitpid(child, nullptr, 0);
    Call(1, 3);
    printf("%d\n", static_cast<int>(child));
}

/// The child is the first to record; its parent comes while it lives.
void RunForkFirst()
{
    int ends[2][2];
    char byte = 0;
    if (pipe(ends[0]) != 0 || pipe(ends[1]) != 0) {
        return;
    }
    const pid_t child = fork();
    if (child == 0) {
        Call(2, 2);
        const bool told = write(ends[0][1], &byte, 1) == 1 && read(ends[1][0], &byte, 1) == 1;
        _exit(told ? 0 : 1);
    }
    const bool told = read(ends[0][0], &byte, 1) == 1;
    Call(1, 1);
    puts(told && TIStorageManagerState::enabled ? "on" : "off");
    const bool released = write(ends[1][1], &byte, 1) == 1;
    waitpid(child, nullptr, 0);
    printf("%d\n", released ? static_cast<int>(child) : 0);
}

/// Forks while another thread makes the recording's file, and says whether that had to wait.
void RunForkWhileMaking()
{
    std::thread first([] { Call(1, 1); });
    while (!zortest::g_allocates) {
        usleep(1000);
    }
    std::thread patience([] { // of a test that fails
        for (int i = 0; i < 200 && !zortest::g_allocationGoesOn; ++i) {
            usleep(100 * 1000);
        }
        zortest::g_allocationGoesOn = true;
    });
    const pid_t child = fork();
    if (child == 0) {
        alarm(30); // whatever it waits for
        zortest::g_allocationGoesOn = true;
        Call(2, 2);
        _exit(0);
    }
    const bool waited = zortest::g_allocationGoesOn.exchange(true);
    int status = -1;
    waitpid(child, &status, 0);
    first.join();
    patience.join();
    Call(1, 3);
    puts(waited ? "waited" : status == 0 ? "forked" : "the child failed");
}

/// One call is made inside another, which throws; the outer one ends.
void RunThrow()
{
    static TSCodeLocation outer("bool Outer(const TSEvent*)", "RecordedProgram.cpp", 2);
    static TSCodeLocation inner("bool Inner(const TSEvent*)", "RecordedProgram.cpp", 3);
    const TSEvent* none = nullptr;
    const TCArgList1<TSEvent const*&> args(none);
    zor::CallAtTrapPoint<bool>(outer, args, [&] {
        try {
            return zor::CallAtTrapPoint<bool>(inner, args, []() -> bool { throw 1; });
        } catch (int) {
            return true;
        }
    });
}

} // namespace

int main(int argc, char** argv)
{
    setvbuf(stdout, nullptr, _IOLBF, 0);
    const std::string what = argc > 1 ? argv[1] : "";
    const auto count = static_cast<std::uint32_t>(argc > 2 ? atoi(argv[2]) : 0);
    if (what == "state") {
        Call(0, 0);
        puts(TIStorageManagerState::enabled ? "on" : "off");
    } else if (what == "elsewhere") {
        puts(chdir("/") == 0 && Call(0, 0) ? "called" : "failed");
    } else if (what == "tasks") {
        RunTasks();
    } else if (what == "queues") {
        RunQueues();
    } else if (what == "calls") {
        for (std::uint32_t i = 0; i < count; ++i) {
            Call(0, i);
        }
    } else if (what == "threads") {
        RunThreads(count);
    } else if (what == "forever") {
        RunForever();
    } else if (what == "fork") {
        RunFork();
    } else if (what == "hang") {
        RunHang();
        puts("hangs");
        pause();
    } else if (what == "leave") {
        RunHang();
        puts("leaves");
        fflush(stdout);
        exit(0);
    } else if (what == "fork-first") {
        RunForkFirst();
    } else if (what == "fork-while-making") {
        RunForkWhileMaking();
    } else if (what == "many") {
        RunMany(count);
    } else if (what == "circle") {
        RunCircle(std::vector<std::string>(argv + 2, argv + std::min(argc, 6)));
        puts("leaves");
        fflush(stdout);
        exit(0);
    } else if (what == "throw") {
        RunThrow();
    } else {
        fprintf(stderr, "unknown: %s\n", what.c_str());
        return 1;
    }
    return 0;
}
