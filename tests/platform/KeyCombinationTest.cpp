#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <thread>

#include "../unit/ThreadNames.h"
#include "CapturedErrors.h"
#include "KeyLibrary.h"

namespace {

using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using zortest::CapturedErrors;
using zortest::Eventually;
using zortest::Gate;

constexpr KeyComb KEY_5 = static_cast<KeyComb>(5);
constexpr KeyComb KEY_113 = static_cast<KeyComb>(113);

constexpr char THREAD[] = "zor-keys";
constexpr char FIRST_THREAD[] = "first-thread";

zortest::Presses gPresses;
std::function<void()> gAction; ///< of HandlerWithAction()

void Record(const char* handler, KeyComb combination, void* data)
{
    gPresses.Add(std::string(handler) + " " + std::to_string(combination) + " " +
                 static_cast<const char*>(data));
}

void HandlerA(KeyComb combination, void* data)
{
    Record("A", combination, data);
}

void HandlerB(KeyComb combination, void* data)
{
    Record("B", combination, data);
}

/// For threads that add and remove it without end.
void HandlerOfManyThreads(KeyComb, void*) {}

void HandlerWithAction(KeyComb combination, void* data)
{
    gAction();
    Record("action", combination, data);
}

class KeyLibraryTest : public ::testing::Test
{
 protected:
    KeyLibraryTest()
    {
        gPresses.Clear();
        // A sanitizer starts its own thread together with the first of the program.
        std::thread([] { pthread_setname_np(pthread_self(), FIRST_THREAD); }).join();
        // A thread that has been joined may be listed for a moment still.
        EXPECT_TRUE(Eventually([] {
            return zortest::CountThreadsNamed(FIRST_THREAD) + zortest::CountThreadsNamed(THREAD) ==
                   0;
        }));
        m_othersThreads = CountThreads();
    }
    ~KeyLibraryTest() override { m_library.finalize(); }

    static std::ptrdiff_t CountThreads()
    {
        namespace fs = std::filesystem;
        return std::distance(fs::directory_iterator("/proc/self/task"), fs::directory_iterator());
    }

    /// How many threads the library has now; a new one may not have its name yet.
    std::ptrdiff_t Threads() const { return CountThreads() - m_othersThreads; }

    bool ThreadEnds() const
    {
        return Eventually([this] { return Threads() == 0; });
    }

    std::ptrdiff_t m_othersThreads = 0;
    zortest::KeyFifo m_fifo;
    zortest::KeyLibrary m_library;
};

// Lines and handlers.

TEST_F(KeyLibraryTest, LineCallsTheHandlerOfItsCombinationWithTheText)
{
    m_library.add(KEY_113, HandlerA);
    m_library.add(KEY_5, HandlerB);
    m_library.initialize();
    m_fifo.Write("113 some text\n5 another\n");
    EXPECT_THAT(gPresses.WaitFor(2), ElementsAre("A 113 some text", "B 5 another"));
}

TEST_F(KeyLibraryTest, HandlerMayBeAddedAfterTheStart)
{
    m_library.initialize();
    m_library.add(KEY_113, HandlerA);
    m_fifo.Write("113 late\n");
    EXPECT_THAT(gPresses.WaitFor(1), ElementsAre("A 113 late"));
}

TEST_F(KeyLibraryTest, HandlersOfOneCombinationAreCalledInTheOrderOfTheirAdding)
{
    m_library.add(KEY_113, HandlerB);
    m_library.add(KEY_113, HandlerA);
    m_library.add(KEY_113, HandlerB);
    m_library.initialize();
    m_fifo.Write("113 x\n");
    EXPECT_THAT(gPresses.WaitFor(3), ElementsAre("B 113 x", "A 113 x", "B 113 x"));
}

TEST_F(KeyLibraryTest, HandlersRunOnTheLibrarysOwnThread)
{
    char name[16] = "";
    gAction = [&name] { pthread_getname_np(pthread_self(), name, sizeof(name)); };
    m_library.add(KEY_113, HandlerWithAction);
    m_library.initialize();
    m_fifo.Write("113 x\n");
    EXPECT_THAT(gPresses.WaitFor(1), SizeIs(1));
    EXPECT_STREQ(name, THREAD);
}

TEST_F(KeyLibraryTest, EverythingBehindTheFirstBlankIsText)
{
    m_library.add(KEY_113, HandlerA);
    m_library.initialize();
    m_fifo.Write("113\n113 \n113  two blanks \n113 \xc3\xa4 113 x\n0113 y\n");
    EXPECT_THAT(gPresses.WaitFor(5), ElementsAre("A 113 ", "A 113 ", "A 113  two blanks ",
                                                 "A 113 \xc3\xa4 113 x", "A 113 y"));
}

TEST_F(KeyLibraryTest, CombinationWithoutAHandlerIsToldAndTheNextLineArrives)
{
    m_library.add(KEY_113, HandlerA);
    m_library.initialize();
    const CapturedErrors errors;
    m_fifo.Write("5 nobody's\n113 x\n");
    EXPECT_THAT(gPresses.WaitFor(1), ElementsAre("A 113 x"));
    EXPECT_EQ(errors.Text(), "ZOR_KEYS: nothing handles combination 5 ('nobody's')\n");
}

TEST_F(KeyLibraryTest, NullHandlerIsNotAdded)
{
    m_library.add(KEY_113, nullptr);
    m_library.add(KEY_113, HandlerA);
    m_library.initialize();
    m_fifo.Write("113 x\n");
    EXPECT_THAT(gPresses.WaitFor(1), ElementsAre("A 113 x"));
}

// Writers.

TEST_F(KeyLibraryTest, WritersMayComeAndGo)
{
    m_library.add(KEY_113, HandlerA);
    m_library.initialize();
    for (int i = 1; i <= 100; ++i) {
        m_fifo.Write("113 " + std::to_string(i) + "\n");
    }
    const std::vector<std::string> presses = gPresses.WaitFor(100);
    ASSERT_THAT(presses, SizeIs(100));
    for (size_t i = 0; i < presses.size(); ++i) {
        EXPECT_EQ(presses[i], "A 113 " + std::to_string(i + 1));
    }
}

TEST_F(KeyLibraryTest, LastLineOfAWriterNeedsNoLineEnd)
{
    m_library.add(KEY_113, HandlerA);
    m_library.initialize();
    for (const char* text : {"113 first", "113 second", "113 third\n113 fourth"}) {
        m_fifo.Write(text);
        // The next writer comes when this one is gone, or the two lines would be one.
        ASSERT_TRUE(Eventually([&] {
            const std::vector<std::string> presses = gPresses.Get();
            const std::string line = text;
            return !presses.empty() && presses.back() == "A " + line.substr(line.rfind('\n') + 1);
        }));
    }
    EXPECT_THAT(gPresses.Get(),
                ElementsAre("A 113 first", "A 113 second", "A 113 third", "A 113 fourth"));
}

TEST_F(KeyLibraryTest, LineMayComeInPieces)
{
    m_library.add(KEY_113, HandlerA);
    m_library.initialize();
    const int writer = open(m_fifo.Path().c_str(), O_WRONLY);
    for (const char piece : std::string("113 x\n113 y\n")) {
        ASSERT_EQ(write(writer, &piece, 1), 1);
        ASSERT_TRUE(Eventually([writer] {
            int waiting = 1;
            ioctl(writer, FIONREAD, &waiting);
            return waiting == 0;
        }));
    }
    EXPECT_THAT(gPresses.WaitFor(2), ElementsAre("A 113 x", "A 113 y"));
    close(writer);
}

TEST_F(KeyLibraryTest, SeveralWritersAtOnceLoseNothing)
{
    constexpr size_t LINES = 200;
    m_library.add(KEY_113, HandlerA);
    m_library.initialize();
    std::vector<std::thread> writers;
    for (int i = 0; i < 4; ++i) {
        writers.emplace_back([this] {
            for (size_t line = 0; line < LINES; ++line) {
                m_fifo.Write("113 x\n");
            }
        });
    }
    for (std::thread& writer : writers) {
        writer.join();
    }
    EXPECT_THAT(gPresses.WaitFor(4 * LINES), AllOf(SizeIs(4 * LINES), Each("A 113 x")));
}

// Lines that are none.

TEST_F(KeyLibraryTest, BadLineIsNamedAndTheOthersArrive)
{
    m_library.add(KEY_113, HandlerA);
    m_library.initialize();
    for (const char* line : {"", " ", "text", "113x", " 113 x", "-1 x", "+113 x", "0x71 x",
                             "99999999999 x", "113\tx"}) {
        SCOPED_TRACE(line);
        gPresses.Clear();
        const CapturedErrors errors;
        m_fifo.Write("113 before\n" + std::string(line) + "\n113 behind\n");
        EXPECT_THAT(gPresses.WaitFor(2), ElementsAre("A 113 before", "A 113 behind"));
        std::string shown = line;
        std::replace(shown.begin(), shown.end(), '\t', '?');
        EXPECT_EQ(errors.Text(), "ZOR_KEYS: the line '" + shown +
                                     "' is no key combination (a number, a blank and a text, as in "
                                     "'113 text')\n");
    }
}

TEST_F(KeyLibraryTest, WhatATerminalWouldActUponIsNotShown)
{
    m_library.initialize();
    const CapturedErrors errors;
    m_fifo.Write("\033[2J\x7f\n");
    EXPECT_TRUE(errors.WaitFor("the line '?[2J?' is no key combination"));
}

TEST_F(KeyLibraryTest, LineWithANulIsNone)
{
    m_library.add(KEY_113, HandlerA);
    m_library.initialize();
    const CapturedErrors errors;
    m_fifo.Write(std::string("113 a\0b\n113 x\n", 14));
    EXPECT_THAT(gPresses.WaitFor(1), ElementsAre("A 113 x"));
    EXPECT_THAT(errors.Text(), HasSubstr("the line '113 a?b' is no key combination"));
}

TEST_F(KeyLibraryTest, LineOf4096BytesIsWholeAndALongerOneLeftOut)
{
    m_library.add(KEY_113, HandlerA);
    m_library.initialize();
    const std::string longest = "113 " + std::string(4092, 'x');
    const CapturedErrors errors;
    m_fifo.Write(longest + "\n" + longest + "y\n" + std::string(50000, 'z') + "\n113 behind\n");
    EXPECT_THAT(gPresses.WaitFor(2), ElementsAre("A " + longest, "A 113 behind"));
    EXPECT_EQ(errors.Text(), "ZOR_KEYS: the line '" + longest.substr(0, 100) +
                                 "...' is longer than 4096 bytes; it is left out\n"
                                 "ZOR_KEYS: the line '" +
                                 std::string(100, 'z') +
                                 "...' is longer than 4096 bytes; it is left out\n");
}

// The setting.

TEST_F(KeyLibraryTest, WithoutTheSettingTheLibraryIsInactive)
{
    const CapturedErrors errors;
    for (const bool empty : {false, true}) {
        empty ? setenv("ZOR_KEYS", "", 1) : unsetenv("ZOR_KEYS");
        m_library.initialize();
        m_library.add(KEY_113, HandlerA);
        EXPECT_EQ(Threads(), 0);
        m_library.remove(KEY_113, HandlerA);
        m_library.finalize();
    }
    EXPECT_EQ(errors.Text(), "");
}

TEST_F(KeyLibraryTest, PathThatIsNoFifoIsToldAndTheLibraryIsInactive)
{
    const std::string file = m_fifo.PathOf("file");
    std::ofstream(file) << "113 x\n";
    for (const std::string& path : {file, m_fifo.PathOf(""), std::string("/dev/null")}) {
        const CapturedErrors errors;
        setenv("ZOR_KEYS", path.c_str(), 1);
        m_library.initialize();
        EXPECT_EQ(errors.Text(), "ZOR_KEYS: '" + path +
                                     "' is no FIFO; make one with mkfifo(1). No keys will come\n");
        EXPECT_EQ(Threads(), 0);
    }
}

TEST_F(KeyLibraryTest, MissingPathIsToldAndTheLibraryIsInactive)
{
    const CapturedErrors errors;
    const std::string path = m_fifo.PathOf("missing");
    setenv("ZOR_KEYS", path.c_str(), 1);
    m_library.initialize();
    EXPECT_EQ(errors.Text(), "ZOR_KEYS: '" + path +
                                 "': No such file or directory; make it with mkfifo(1). No keys "
                                 "will come\n");
    EXPECT_EQ(Threads(), 0);
}

// Start and stop.

TEST_F(KeyLibraryTest, NoHandlerIsCalledBeforeInitialize)
{
    m_library.add(KEY_113, HandlerA);
    EXPECT_EQ(Threads(), 0);
    EXPECT_FALSE(m_fifo.HasReader());
}

TEST_F(KeyLibraryTest, FinalizeEndsTheThreadAndLeavesTheFifo)
{
    m_library.initialize();
    EXPECT_TRUE(m_fifo.HasReader());
    m_library.finalize();
    EXPECT_FALSE(m_fifo.HasReader());
    EXPECT_TRUE(ThreadEnds());
}

TEST_F(KeyLibraryTest, FinalizeWaitsForTheHandlerThatIsRunning)
{
    Gate entered;
    Gate leave;
    std::atomic<bool> ended{false};
    gAction = [&] {
        entered.Pass();
        EXPECT_TRUE(leave.Wait());
        ended = true;
    };
    m_library.add(KEY_113, HandlerWithAction);
    m_library.initialize();
    m_fifo.Write("113 x\n");
    ASSERT_TRUE(entered.Wait());
    std::thread opener([&leave] { leave.Pass(); });
    m_library.finalize();
    EXPECT_TRUE(ended);
    opener.join();
}

TEST_F(KeyLibraryTest, LibraryCanBeStartedAgainAndKeepsItsHandlers)
{
    m_library.add(KEY_113, HandlerA);
    for (size_t i = 1; i <= 20; ++i) {
        m_library.initialize();
        m_fifo.Write("113 x\n");
        EXPECT_THAT(gPresses.WaitFor(i), SizeIs(i));
        m_library.finalize();
    }
    EXPECT_TRUE(ThreadEnds());
}

TEST_F(KeyLibraryTest, FurtherInitializeAndFinalizeDoNothing)
{
    m_library.finalize();
    m_library.initialize();
    m_library.initialize();
    EXPECT_EQ(Threads(), 1);
    m_library.finalize();
    m_library.finalize();
    EXPECT_TRUE(ThreadEnds());
}

TEST_F(KeyLibraryTest, HandlerThatFinalizesIsToldSoAndTheLibraryGoesOn)
{
    gAction = [this] { m_library.finalize(); };
    m_library.add(KEY_113, HandlerWithAction);
    m_library.initialize();
    const CapturedErrors errors;
    m_fifo.Write("113 x\n113 y\n");
    EXPECT_THAT(gPresses.WaitFor(2), ElementsAre("action 113 x", "action 113 y"));
    EXPECT_THAT(errors.Text(), HasSubstr("ZOR_KEYS: a handler cannot stop the listener that calls "
                                         "it; it goes on\n"));
}

TEST_F(KeyLibraryTest, FloodOfLinesDoesNotKeepFinalizeWaiting)
{
    m_library.add(KEY_113, HandlerA);
    m_library.initialize();
    std::atomic<bool> ends{false};
    signal(SIGPIPE, SIG_IGN);
    std::thread flood([&] {
        const int writer = open(m_fifo.Path().c_str(), O_WRONLY | O_CLOEXEC);
        while (!ends && write(writer, "113 x\n", 6) == 6) {
        }
        close(writer);
    });
    gPresses.WaitFor(1000);
    m_library.finalize();
    const size_t handled = gPresses.Get().size();
    ends = true;
    flood.join();
    EXPECT_GE(handled, 1000u);
    EXPECT_THAT(gPresses.Get(), SizeIs(handled));
    signal(SIGPIPE, SIG_DFL);
}

// Removing handlers.

TEST_F(KeyLibraryTest, RemovedHandlerIsNotCalled)
{
    m_library.add(KEY_113, HandlerA);
    m_library.add(KEY_113, HandlerB);
    m_library.initialize();
    m_library.remove(KEY_113, HandlerA);
    m_fifo.Write("113 x\n");
    EXPECT_THAT(gPresses.WaitFor(1), ElementsAre("B 113 x"));
}

TEST_F(KeyLibraryTest, RemovalUndoesOneAddingOfThatHandlerForThatCombination)
{
    m_library.remove(KEY_113, HandlerA); // has not been added
    m_library.add(KEY_113, HandlerA);
    m_library.add(KEY_113, HandlerA);
    m_library.add(KEY_5, HandlerA);
    m_library.remove(KEY_113, HandlerA);
    m_library.remove(KEY_113, HandlerB);
    m_library.initialize();
    m_fifo.Write("113 x\n5 y\n");
    EXPECT_THAT(gPresses.WaitFor(2), ElementsAre("A 113 x", "A 5 y"));
}

TEST_F(KeyLibraryTest, RemovalWaitsForTheHandlerThatIsRunning)
{
    Gate entered;
    Gate leave;
    std::atomic<bool> ended{false};
    gAction = [&] {
        entered.Pass();
        EXPECT_TRUE(leave.Wait());
        ended = true;
    };
    m_library.add(KEY_113, HandlerWithAction);
    m_library.add(KEY_113, HandlerA);
    m_library.initialize();
    m_fifo.Write("113 x\n");
    ASSERT_TRUE(entered.Wait());
    m_library.remove(KEY_113, HandlerA); // which does not run, and is not waited for
    std::thread opener([&leave] { leave.Pass(); });
    m_library.remove(KEY_113, HandlerWithAction);
    EXPECT_TRUE(ended);
    opener.join();
    m_library.finalize();
    // Removed before its turn had come.
    EXPECT_THAT(gPresses.Get(), ElementsAre("action 113 x"));
}

TEST_F(KeyLibraryTest, HandlerMayRemoveItselfAndAddAnother)
{
    gAction = [this] {
        m_library.remove(KEY_113, HandlerWithAction);
        m_library.add(KEY_113, HandlerA);
    };
    m_library.add(KEY_113, HandlerWithAction);
    m_library.initialize();
    m_fifo.Write("113 x\n113 y\n");
    EXPECT_THAT(gPresses.WaitFor(2), ElementsAre("action 113 x", "A 113 y"));
}

TEST_F(KeyLibraryTest, ThreadsMayAddAndRemoveWhileKeysArePressed)
{
    constexpr size_t LINES = 300;
    m_library.add(KEY_113, HandlerA);
    m_library.initialize();
    std::atomic<bool> ends{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([&] {
            while (!ends) {
                m_library.add(KEY_113, HandlerOfManyThreads);
                m_library.remove(KEY_113, HandlerOfManyThreads);
            }
        });
    }
    for (size_t i = 0; i < LINES; ++i) {
        m_fifo.Write("113 x\n");
    }
    EXPECT_THAT(gPresses.WaitFor(LINES), AllOf(SizeIs(LINES), Each("A 113 x")));
    ends = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
}

// Unloading, forks.

bool IsLoaded()
{
    void* const library = dlopen(KEY_LIBRARY, RTLD_NOW | RTLD_NOLOAD);
    if (library != nullptr) {
        dlclose(library);
    }
    return library != nullptr;
}

TEST(KeyLibraryUnloadTest, LibraryIsUnloadedWithItsThreadEvenWithoutFinalize)
{
    const zortest::KeyFifo fifo;
    for (const bool finalizes : {true, false}) {
        {
            zortest::KeyLibrary library;
            library.initialize();
            EXPECT_TRUE(IsLoaded());
            if (finalizes) {
                library.finalize();
            }
        }
        EXPECT_FALSE(IsLoaded());
        EXPECT_FALSE(fifo.HasReader());
    }
}

TEST_F(KeyLibraryTest, ChildThatComesBackFromItsHandlerIsEndedAndTheParentGoesOn)
{
    std::atomic<pid_t> child{0};
    gAction = [&child] { child = fork(); };
    m_library.add(KEY_113, HandlerWithAction);
    m_library.initialize();
    const CapturedErrors errors;
    m_fifo.Write("113 x\n");
    EXPECT_THAT(gPresses.WaitFor(1), ElementsAre("action 113 x"));
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 127);
    EXPECT_EQ(errors.Text(),
              "ZOR_KEYS: the handler of combination 113 has returned in a child that it forked (is "
              "the program missing that it starts?); the child ends\n");
    gAction = [] {};
    m_fifo.Write("113 y\n");
    EXPECT_THAT(gPresses.WaitFor(2), ElementsAre("action 113 x", "action 113 y"));
}

TEST_F(KeyLibraryTest, ChildOfAForkElsewhereHasNothingToStop)
{
    m_library.initialize();
    const pid_t child = fork();
    if (child == 0) {
        alarm(60); // it would wait for a thread that it does not have
        m_library.finalize();
        _exit(0);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(m_fifo.HasReader());
}

} // namespace
