#include "Reader.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "LayoutTable.h"
#include "Problem.h"
#include "TaskList.h"
#include "Threads.h"
#include "Wait.h"

// What is read of a process, here of this one: it has the runtime.

namespace {

using namespace zortop;
using zortest::Eventually;

/// What the process that a test makes fails with.
std::string ProblemOf(pid_t pid, ExitCode code)
{
    try {
        Reader reader(pid);
        return "none";
    } catch (const Problem& problem) {
        EXPECT_EQ(problem.Code(), code) << problem.what();
        return problem.what();
    }
}

TEST(LayoutTest, TheTableIsFoundThroughTheMappingsAndTheSymbolsOfTheFile)
{
    ASSERT_FALSE(TCTaskList::FlagInitialize()); // the program needs the library
    EXPECT_EQ(FindTable(getpid()),
              reinterpret_cast<Address>(dlsym(RTLD_DEFAULT, zor::LAYOUT_SYMBOL)));
}

TEST(LayoutTest, AFileWithoutTheSymbolHasNone)
{
    EXPECT_FALSE(FindSymbol("/proc/self/exe", "zor_core_layout_of_nobody"));
    EXPECT_FALSE(FindSymbol("/etc/passwd", zor::LAYOUT_SYMBOL));
    EXPECT_FALSE(FindSymbol("/nowhere", zor::LAYOUT_SYMBOL));
}

TEST(LayoutTest, NamesThatTheLibraryDoesNotKnowAreAProblem)
{
    const Memory memory(getpid());
    const Layout layout(memory, FindTable(getpid()));
    EXPECT_EQ(layout.Size("TSEvent"), 128u);
    EXPECT_THROW(layout.Offset("TCTask.m_unheardOf"), Problem);
    EXPECT_THROW(layout.Object("TCUnheardOf::m_list"), Problem);
}

TEST(LayoutTest, WhatIsNoTableIsRefused)
{
    const Memory memory(getpid());
    static zor::LayoutHead head = {};
    EXPECT_THROW(Layout(memory, reinterpret_cast<Address>(&head)), Problem);
    EXPECT_THROW(Layout(memory, 0), Problem);
}

TEST(LayoutTest, ALaterFormatIsNamed)
{
    const Memory memory(getpid());
    static zor::LayoutHead head = {};
    memcpy(head.magic, zor::LAYOUT_MAGIC, sizeof(head.magic));
    head.format = 2;
    memcpy(head.version, "9.8.7", 6);
    try {
        const Layout layout(memory, reinterpret_cast<Address>(&head));
        ADD_FAILURE() << "it was read";
    } catch (const Problem& problem) {
        EXPECT_EQ(problem.Code(), NOT_ZOR_CORE);
        EXPECT_EQ(
            std::string(problem.what()),
            "the library, version 9.8.7, has a table of layouts of format 2, and this zor-top "
            "reads 1: take the one that came with the library");
    }
}

TEST(LayoutTest, ADamagedTableIsRefused)
{
    const Memory memory(getpid());
    static zor::LayoutHead head = {};
    memcpy(head.magic, zor::LAYOUT_MAGIC, sizeof(head.magic));
    head.format = zor::LAYOUT_FORMAT;
    head.entrySize = sizeof(zor::LayoutEntry);
    head.objectSize = sizeof(zor::LayoutObject);
    head.entryCount = 0xFFFFFFFF;
    EXPECT_THROW(Layout(memory, reinterpret_cast<Address>(&head)), Problem);
    head.entryCount = 1;
    head.entrySize = 1;
    EXPECT_THROW(Layout(memory, reinterpret_cast<Address>(&head)), Problem);
}

/// Whoever reads divides by sizes.
TEST(LayoutTest, WhatHasNoSizeIsNotThere)
{
    static struct
    {
        zor::LayoutHead head;
        zor::LayoutEntry entries[2];
    } table = {};
    memcpy(table.head.magic, zor::LAYOUT_MAGIC, sizeof(table.head.magic));
    table.head.format = zor::LAYOUT_FORMAT;
    table.head.entriesAt = offsetof(decltype(table), entries);
    table.head.entrySize = sizeof(zor::LayoutEntry);
    table.head.objectSize = sizeof(zor::LayoutObject);
    table.head.entryCount = 2;
    strcpy(table.entries[0].name, "Some");
    table.entries[0].size = 8;
    strcpy(table.entries[1].name, "None");
    const Layout layout(Memory(getpid()), reinterpret_cast<Address>(&table));
    EXPECT_EQ(layout.Size("Some"), 8u);
    EXPECT_THROW(static_cast<void>(layout.Size("None")), Problem);
}

TEST(MemoryTest, WhatCannotBeReadSaysSo)
{
    const Memory memory(getpid());
    const int here = 7;
    int found = 0;
    EXPECT_TRUE(memory.Read(reinterpret_cast<Address>(&here), &found));
    EXPECT_EQ(found, 7);
    EXPECT_FALSE(memory.Read(Address{16}, &found));
    EXPECT_FALSE(memory.Read(
        {{reinterpret_cast<Address>(&here), &found, sizeof(found)}, {16, &found, sizeof(found)}}));
}

TEST(MemoryTest, MorePiecesThanTheSystemTakesAtOnceAreRead)
{
    const Memory memory(getpid());
    std::vector<int> from(5000);
    std::vector<int> to(from.size());
    std::vector<Piece> pieces;
    for (std::size_t i = 0; i < from.size(); ++i) {
        from[i] = static_cast<int>(i) + 1;
        pieces.push_back({reinterpret_cast<Address>(&from[i]), &to[i], sizeof(int)});
    }
    EXPECT_TRUE(memory.Read(pieces));
    EXPECT_EQ(to, from);
}

TEST(MemoryTest, TextsEndWithAZeroAndCanBePrinted)
{
    const Memory memory(getpid());
    std::string text;
    const std::string whole(200, 'x');
    EXPECT_TRUE(memory.ReadText(reinterpret_cast<Address>(whole.c_str()), 200, &text));
    EXPECT_EQ(text, whole);
    EXPECT_FALSE(memory.ReadText(reinterpret_cast<Address>(whole.c_str()), 199, &text));
    EXPECT_FALSE(memory.ReadText(reinterpret_cast<Address>("a\x01"), 200, &text));
}

TEST(ThreadsTest, ASystemCallIsParsedAndARunningThreadIsInNone)
{
    const auto call = ParsedCall("202 0x7f01 0x189 0x0 0x7ffe 0x0 0xffffffff 0x7 0x8\n");
    ASSERT_TRUE(call);
    EXPECT_EQ(call->number, 202);
    EXPECT_EQ(call->arguments[1], 0x189u);
    EXPECT_FALSE(ParsedCall("running\n"));
    EXPECT_FALSE(ParsedCall(""));
    EXPECT_EQ(ParsedCall("-1 0x7ffe 0x7f00\n")->number, -1);
}

TEST(ThreadsTest, TimesAreThoseOfTheSchedule)
{
    KernelFacts facts;
    EXPECT_TRUE(ParseSchedule("1500000 20 7\n", &facts));
    EXPECT_EQ(facts.cpuNsec, 1500000);
    EXPECT_EQ(facts.turns, 7u);
    EXPECT_FALSE(ParseSchedule("", &facts));
}

/// The thread may have gone on since, and its stack have other things there.
TEST(ThreadsTest, WhatIsNoTimeIsNoDeadline)
{
    const Memory memory(getpid());
    std::int64_t until[2] = {7, 5};
    SleepingCall call;
    call.number = 202;
    call.arguments[1] = 0x189;
    call.arguments[3] = reinterpret_cast<std::uint64_t>(until);
    ASSERT_TRUE(FutexWaitOf(call, memory));
    EXPECT_TRUE(FutexWaitOf(call, memory)->untilNsec);
    for (const std::int64_t wrong : {INT64_C(139995335251904), INT64_C(-1)}) {
        until[0] = wrong;
        ASSERT_TRUE(FutexWaitOf(call, memory));
        EXPECT_FALSE(FutexWaitOf(call, memory)->untilNsec);
    }
    until[0] = 7;
    until[1] = INT64_C(1000000000);
    EXPECT_FALSE(FutexWaitOf(call, memory)->untilNsec);
}

TEST(ThreadsTest, WithoutAScheduleTheyAreOfTheStatus)
{
    const std::string tick = std::to_string(sysconf(_SC_CLK_TCK));
    const std::string stat = "12 (a) b (c) S 1 2 3 4 5 6 7 8 9 10 " + tick + " " + tick + " 0 0";
    const std::string status =
        "Name:\ta\nvoluntary_ctxt_switches:\t5\n"
        "nonvoluntary_ctxt_switches:\t2\n";
    KernelFacts facts;
    EXPECT_TRUE(ParseStat(stat, status, &facts));
    EXPECT_EQ(facts.cpuNsec, 2000000000);
    EXPECT_EQ(facts.turns, 7u);
    EXPECT_FALSE(ParseStat("", status, &facts));
    EXPECT_FALSE(ParseStat(stat, "", &facts));
    const std::string own = "/proc/self/task/" + std::to_string(getpid()) + "/";
    EXPECT_TRUE(ParseStat(ReadProc(own + "stat"), ReadProc(own + "status"), &facts));
}

TEST(ThreadsTest, ThreadsComeAndGo)
{
    Threads threads(getpid());
    EXPECT_EQ(threads.Read().count(getpid()), 1u);
    std::atomic<pid_t> id{0};
    std::atomic<bool> end{false};
    std::thread other([&] {
        pthread_setname_np(pthread_self(), "the other");
        id = gettid();
        while (!end) {
            std::this_thread::yield();
        }
    });
    while (id == 0) {
        std::this_thread::yield();
    }
    EXPECT_EQ(threads.Read().at(id).name, "the other");
    end = true;
    other.join();
    // The kernel lists it for a while.
    EXPECT_TRUE(Eventually([&] { return threads.Read().count(id) == 0; }));
}

TEST(ReaderTest, AProcessThatThereIsNotIsNamed)
{
    const pid_t child = fork();
    if (child == 0) {
        _exit(0);
    }
    siginfo_t info{};
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT), 0);
    const std::string name = "process " + std::to_string(child);
    EXPECT_EQ(ProblemOf(child, NO_TARGET),
              name + " has ended; only its parent has not noticed yet");
    ASSERT_EQ(waitpid(child, nullptr, 0), child);
    EXPECT_EQ(ProblemOf(child, NO_TARGET), "there is no " + name);
}

TEST(ReaderTest, AProcessWithoutTheRuntimeIsNone)
{
    int pipes[2];
    ASSERT_EQ(pipe(pipes), 0);
    const pid_t child = fork();
    if (child == 0) {
        dup2(pipes[0], STDIN_FILENO);
        close(pipes[1]);
        execlp("cat", "cat", nullptr);
        _exit(1);
    }
    for (std::string maps; maps.find("/cat") == std::string::npos;) {
        maps = ReadProc("/proc/" + std::to_string(child) + "/maps");
    }
    EXPECT_EQ(ProblemOf(child, NOT_ZOR_CORE), "process " + std::to_string(child) +
                                                  " is no zor-core process: it has no "
                                                  "libzor-core.so");
    close(pipes[1]);
    close(pipes[0]);
    waitpid(child, nullptr, 0);
}

} // namespace
