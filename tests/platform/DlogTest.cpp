#include "dlog.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "AllocationCount.h"
#include "ChildProcess.h"

namespace {

std::atomic<int> g_writes{0};

/// How the next writes to standard error go wrong; each fault is used up by one write.
std::atomic<int> g_interruptions{0};
std::atomic<size_t> g_longestWrite{0}; // 0: no limit

bool TakeOne(std::atomic<int>* faults)
{
    int left = faults->load();
    while (left > 0 && !faults->compare_exchange_weak(left, left - 1)) {
    }
    return left > 0;
}

} // namespace

/// Stands in for the C library's: counts, and fails as the test wants.
extern "C" ssize_t write(int fd, const void* data, size_t size)
{
    if (fd == STDERR_FILENO) {
        ++g_writes;
        if (TakeOne(&g_interruptions)) {
            errno = EINTR;
            return -1;
        }
        const size_t longest = g_longestWrite;
        if (longest != 0 && size > longest) {
            size = longest;
        }
    }
    return syscall(SYS_write, fd, data, size);
}

namespace {

std::atomic<bool> g_readsSlowly{false};
std::atomic<bool> g_reads{false};

} // namespace

/// Stands in for the C library's, which is called once while the configuration is read: makes that
/// take a while when a test wants it to.
extern "C" struct tm* localtime_r(const time_t* time, struct tm* local) noexcept
{
    using TLocalTime = struct tm* (*)(const time_t*, struct tm*);
    static const auto real = reinterpret_cast<TLocalTime>(dlsym(RTLD_NEXT, "localtime_r"));
    if (g_readsSlowly) {
        g_reads = true;
        const struct timespec pause = {0, 100 * 1000 * 1000};
        nanosleep(&pause, nullptr);
    }
    return real(time, local);
}

namespace {

constexpr size_t LONGEST_LINE = 16 * 1024;

/// A line without its time, which is the same number of characters in each.
std::string AfterTime(const std::string& line)
{
    return line.size() < 13 ? line : line.substr(13);
}

std::string Head(char letter, const std::string& tag, pid_t tid)
{
    return std::string(1, letter) + " " + tag + "(" + std::to_string(tid) + "): ";
}

TEST(DlogTest, LineHoldsTimePriorityTagThreadAndText)
{
    const TSChildResult result = TCChildProcess().Run([] {
        const int written = __dlog_print(LOG_ID_MAIN, DLOG_INFO, "TUNER", "channel %d %s", 7, "on");
        return written == 13 + static_cast<int>(Head('I', "TUNER", getpid()).size()) + 13 ? 0 : 1;
    });
    EXPECT_EQ(result.ExitCode(), 0) << "the number of bytes is not the one returned";
    ASSERT_EQ(result.Lines().size(), 1u) << result.err;
    const std::string line = result.Lines()[0];
    EXPECT_THAT(line.substr(0, 13),
                ::testing::MatchesRegex("[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} "));
    EXPECT_EQ(AfterTime(line), Head('I', "TUNER", result.pid) + "channel 7 on");
    EXPECT_EQ(result.err.back(), '\n');
}

TEST(DlogTest, TimeIsLocal)
{
    constexpr long DAY_MSEC = 24L * 3600 * 1000;
    constexpr long OFFSET_MSEC = (5 * 60 + 30) * 60 * 1000;
    const auto now = [] {
        struct timespec time;
        clock_gettime(CLOCK_REALTIME, &time);
        return time.tv_sec * 1000 + time.tv_nsec / 1000000 + OFFSET_MSEC;
    };
    const long before = now();
    const TSChildResult result = TCChildProcess().Env("TZ", "ZOR-05:30").Run([] {
        return __dlog_print(LOG_ID_MAIN, DLOG_INFO, "T", "x") > 0 ? 0 : 1;
    });
    const long after = now();
    int hour = -1;
    int minute = -1;
    int second = -1;
    int msec = -1;
    ASSERT_EQ(sscanf(result.err.c_str(), "%d:%d:%d.%d", &hour, &minute, &second, &msec), 4);
    const long printed = ((hour * 60L + minute) * 60 + second) * 1000 + msec;
    // In milliseconds since `before`, so that midnight makes no difference.
    EXPECT_LE((printed - before % DAY_MSEC + DAY_MSEC) % DAY_MSEC, after - before) << result.err;
}

TEST(DlogTest, EveryPriorityHasItsLetter)
{
    const TSChildResult result = TCChildProcess().Env("ZOR_DLOG", "stderr:V").Run([] {
        for (int priority = DLOG_VERBOSE; priority <= DLOG_FATAL; ++priority) {
            __dlog_print(LOG_ID_MAIN, priority, "T", "x");
        }
        return 0;
    });
    std::string letters;
    for (const std::string& line : result.Lines()) {
        letters += AfterTime(line)[0];
    }
    EXPECT_EQ(letters, "VDIWEF");
}

TEST(DlogTest, PriorityOutsideTheScaleCountsAsInfoAndSilentIsNotWritten)
{
    const TSChildResult result = TCChildProcess().Run([] {
        for (int priority : {DLOG_UNKNOWN + 0, DLOG_DEFAULT + 0, -5, 9}) {
            __dlog_print(LOG_ID_MAIN, priority, "T", "x");
        }
        return __dlog_print(LOG_ID_MAIN, DLOG_SILENT, "T", "silent");
    });
    EXPECT_EQ(result.ExitCode(), 0);
    ASSERT_EQ(result.Lines().size(), 4u) << result.err;
    for (const std::string& line : result.Lines()) {
        EXPECT_EQ(AfterTime(line)[0], 'I') << line;
    }
}

TEST(DlogTest, NullTagAndStrangeTagKeepTheLineWhole)
{
    const TSChildResult result = TCChildProcess().Run([] {
        __dlog_print(LOG_ID_MAIN, DLOG_WARN, nullptr, "one");
        __dlog_print(LOG_ID_MAIN, DLOG_WARN, "A\nB", "two");
        __dlog_print(LOG_ID_MAIN, DLOG_WARN, std::string(5000, 'T').c_str(), "three");
        return 0;
    });
    const std::vector<std::string> lines = result.Lines();
    ASSERT_EQ(lines.size(), 3u) << result.err;
    EXPECT_EQ(AfterTime(lines[0]), Head('W', "", result.pid) + "one");
    EXPECT_EQ(AfterTime(lines[1]), Head('W', "A B", result.pid) + "two");
    EXPECT_EQ(AfterTime(lines[2]), Head('W', std::string(64, 'T'), result.pid) + "three");
}

TEST(DlogTest, EmbeddedNewlinesContinueIndentedInOneWrite)
{
    const TSChildResult result = TCChildProcess().Run([] {
        __dlog_print(LOG_ID_MAIN, DLOG_INFO, "T", "first\nsecond\n\nfourth");
        return g_writes.load();
    });
    EXPECT_EQ(result.ExitCode(), 1) << "writes";
    EXPECT_EQ(AfterTime(result.err),
              Head('I', "T", result.pid) + "first\n    second\n    \n    fourth\n");
}

TEST(DlogTest, TrailingNewlineIsNotDoubled)
{
    const TSChildResult result = TCChildProcess().Run([] {
        __dlog_print(LOG_ID_MAIN, DLOG_INFO, "T", "text\n");
        __dlog_print(LOG_ID_MAIN, DLOG_INFO, "T", "\n");
        return g_writes.load();
    });
    EXPECT_EQ(result.ExitCode(), 2) << "writes";
    const std::vector<std::string> lines = result.Lines();
    ASSERT_EQ(lines.size(), 2u) << result.err;
    EXPECT_EQ(AfterTime(lines[0]), Head('I', "T", result.pid) + "text");
    EXPECT_EQ(AfterTime(lines[1]), Head('I', "T", result.pid));
}

TEST(DlogTest, TextOfAnyLengthUpToTheLimitIsWholeAndOneWrite)
{
    const std::string longest(15 * 1024, 'z');
    const TSChildResult result = TCChildProcess().Run([&longest] {
        for (size_t length = 1900; length < 2100; ++length) {
            __dlog_print(LOG_ID_MAIN, DLOG_INFO, "T", "%.*s", static_cast<int>(length),
                         longest.c_str());
        }
        __dlog_print(LOG_ID_MAIN, DLOG_INFO, "T", "%s", longest.c_str());
        return g_writes == 201 ? 0 : 1;
    });
    EXPECT_EQ(result.ExitCode(), 0) << "not one write for each line";
    const std::vector<std::string> lines = result.Lines();
    ASSERT_EQ(lines.size(), 201u);
    const size_t head = 13 + Head('I', "T", result.pid).size();
    for (size_t i = 0; i < 200; ++i) {
        EXPECT_EQ(lines[i].size(), head + 1900 + i);
    }
    EXPECT_EQ(lines[200].substr(head), longest);
}

TEST(DlogTest, LongTextIsCutWithAMark)
{
    const TSChildResult result = TCChildProcess().Run([] {
        const std::string text(100 * 1000, 'x');
        const int written = __dlog_print(LOG_ID_MAIN, DLOG_INFO, "T", "%s", text.c_str());
        return g_writes == 1 && written > 0 && written <= static_cast<int>(LONGEST_LINE) ? 0 : 1;
    });
    EXPECT_EQ(result.ExitCode(), 0);
    ASSERT_EQ(result.Lines().size(), 1u);
    EXPECT_GT(result.err.size(), LONGEST_LINE - 64);
    EXPECT_TRUE(result.err.find("xxx ...[cut]\n") != std::string::npos);
}

TEST(DlogTest, CutNeverSplitsACharacter)
{
    // Each of the four starts puts the cut at another byte of a four-byte character.
    for (int start = 0; start < 4; ++start) {
        const TSChildResult result = TCChildProcess().Run([start] {
            std::string text(start, 'a');
            for (int i = 0; i < 10000; ++i) {
                text += "\xF0\x9F\x93\xBA";
            }
            return __dlog_print(LOG_ID_MAIN, DLOG_INFO, "T", "%s", text.c_str()) > 0 ? 0 : 1;
        });
        const std::string mark = " ...[cut]\n";
        ASSERT_GT(result.err.size(), LONGEST_LINE - 64);
        EXPECT_EQ(result.err.substr(result.err.size() - mark.size() - 4),
                  "\xF0\x9F\x93\xBA" + mark);
    }
}

TEST(DlogTest, CutTextOfNewlinesStaysWithinTheLimit)
{
    const TSChildResult result = TCChildProcess().Run([] {
        __dlog_print(LOG_ID_MAIN, DLOG_INFO, "T", "%s", std::string(20000, '\n').c_str());
        __dlog_print(LOG_ID_MAIN, DLOG_INFO, "T", "after");
        return 0;
    });
    const std::vector<std::string> lines = result.Lines();
    ASSERT_GT(lines.size(), LONGEST_LINE / 5 - 20);
    EXPECT_LT(lines.size(), LONGEST_LINE / 5 + 1);
    for (size_t i = 1; i + 2 < lines.size(); ++i) {
        ASSERT_EQ(lines[i], "    ") << i;
    }
    EXPECT_TRUE(lines[lines.size() - 2].find(" ...[cut]") != std::string::npos);
    EXPECT_EQ(AfterTime(lines.back()), Head('I', "T", result.pid) + "after");
}

TEST(DlogTest, InterruptedAndShortWritesLoseNothing)
{
    const std::string text = "0123456789\nabcdefghijklmnopqrstuvwxyz";
    const TSChildResult result = TCChildProcess().Run([&text] {
        g_interruptions = 3;
        g_longestWrite = 7;
        const int written = __dlog_print(LOG_ID_MAIN, DLOG_INFO, "T", "%s", text.c_str());
        const int line = 13 + static_cast<int>(Head('I', "T", getpid()).size() + text.size()) + 5;
        return written == line && g_writes == 3 + (line + 6) / 7 ? 0 : 1;
    });
    EXPECT_EQ(result.ExitCode(), 0);
    EXPECT_EQ(AfterTime(result.err),
              Head('I', "T", result.pid) + "0123456789\n    abcdefghijklmnopqrstuvwxyz\n");
}

TEST(DlogTest, FullPipeThatDoesNotBlockIsWaitedFor)
{
    // Far more than a pipe holds; the reader drains it meanwhile.
    const TSChildResult result = TCChildProcess().Run([] {
        fcntl(STDERR_FILENO, F_SETFL, O_NONBLOCK);
        const std::string text(10000, 'p');
        for (int i = 0; i < 100; ++i) {
            if (__dlog_print(LOG_ID_MAIN, DLOG_INFO, "T", "%s", text.c_str()) < 10000) {
                return 1;
            }
        }
        return 0;
    });
    EXPECT_EQ(result.ExitCode(), 0);
    EXPECT_EQ(result.Lines().size(), 100u);
}

TEST(DlogTest, ClosedStandardErrorIsANegativeResult)
{
    const TSChildResult result = TCChildProcess().Run([] {
        close(STDERR_FILENO);
        return __dlog_print(LOG_ID_MAIN, DLOG_ERROR, "T", "nobody reads this") == -EBADF ? 0 : 1;
    });
    EXPECT_EQ(result.ExitCode(), 0);
    EXPECT_EQ(result.err, "");
}

TEST(DlogTest, ErrnoIsKeptAndShownByItsConversion)
{
    const TSChildResult result = TCChildProcess().Run([] {
        // Not a literal: the conversion is the C library's own and strict compilers refuse it.
        const std::string format = "%s failed: %m";
        errno = ENOENT;
        __dlog_print(LOG_ID_MAIN, DLOG_INFO, "T", format.c_str(), "open");
        const bool afterFirst = errno == ENOENT;
        errno = EACCES;
        g_interruptions = 1;
        __dlog_print(LOG_ID_MAIN, DLOG_INFO, "T", "%s", std::string(5000, 'e').c_str());
        const bool afterLong = errno == EACCES;
        close(STDERR_FILENO);
        errno = EXDEV;
        __dlog_print(LOG_ID_MAIN, DLOG_INFO, "T", "not written");
        return afterFirst && afterLong && errno == EXDEV ? 0 : 1;
    });
    EXPECT_EQ(result.ExitCode(), 0);
    ASSERT_EQ(result.Lines().size(), 2u);
    EXPECT_EQ(AfterTime(result.Lines()[0]),
              Head('I', "T", result.pid) + "open failed: No such file or directory");
}

TEST(DlogTest, WritingAllocatesNothing)
{
    const TSChildResult result = TCChildProcess().Run([] {
        const std::string text(50 * 1000, 'm');
        const unsigned long begin = AllocationCount();
        ::operator delete(::operator new(1)); // a call that is never optimised away
        if (AllocationCount() == begin) {
            return 2;
        }
        __dlog_print(LOG_ID_MAIN, DLOG_INFO, "T", "the first one reads the configuration");
        const unsigned long before = AllocationCount();
        __dlog_print(LOG_ID_MAIN, DLOG_INFO, "T", "%d %s %5.2f", 1, "two", 3.0);
        __dlog_print(LOG_ID_MAIN, DLOG_INFO, "T", "a\nb\nc\n");
        __dlog_print(LOG_ID_MAIN, DLOG_INFO, "T", "%s", text.c_str());
        __dlog_print(LOG_ID_MAIN, DLOG_VERBOSE, "T", "filtered %s", text.c_str());
        return AllocationCount() == before ? 0 : 1;
    });
    EXPECT_EQ(result.ExitCode(), 0);
    EXPECT_EQ(result.Lines().size(), 6u);
}

constexpr int WRITERS = 4;
constexpr int LINES_PER_WRITER = 1000;

/// Writes from several threads at once; lines of one writer differ in length, not in letter.
int WriteFromManyThreads()
{
    std::vector<std::thread> threads;
    for (int writer = 0; writer < WRITERS; ++writer) {
        threads.emplace_back([writer] {
            const std::string text(900, static_cast<char>('a' + writer));
            for (int i = 0; i < LINES_PER_WRITER; ++i) {
                __dlog_print(LOG_ID_MAIN, DLOG_INFO, "MANY", "%d %.*s!", i, 1 + i * 7 % 900,
                             text.c_str());
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    return 0;
}

void ExpectWholeLinesInOrder(const std::vector<std::string>& lines)
{
    ASSERT_EQ(lines.size(), static_cast<size_t>(WRITERS * LINES_PER_WRITER));
    std::map<char, int> next;
    for (const std::string& line : lines) {
        const size_t textBegin = line.find("): ");
        ASSERT_NE(textBegin, std::string::npos) << line;
        const std::string text = line.substr(textBegin + 3);
        const int number = atoi(text.c_str());
        const std::string start = std::to_string(number) + " ";
        const char letter = text[start.size()];
        ASSERT_EQ(text, start + std::string(1 + number * 7 % 900, letter) + "!");
        ASSERT_EQ(number, next[letter]++) << letter;
    }
    EXPECT_EQ(next.size(), static_cast<size_t>(WRITERS));
}

TEST(DlogTest, LinesOfConcurrentThreadsAreNeverMixed)
{
    ExpectWholeLinesInOrder(TCChildProcess().Run(WriteFromManyThreads).Lines());
}

TEST(DlogTest, EachThreadShowsItsOwnId)
{
    const TSChildResult result = TCChildProcess().Run([] {
        std::thread([] {
            __dlog_print(LOG_ID_MAIN, DLOG_INFO, "T", "%d", static_cast<int>(gettid()));
        }).join();
        return 0;
    });
    const int tid = atoi(result.err.substr(result.err.find("): ") + 3).c_str());
    EXPECT_NE(tid, result.pid);
    EXPECT_EQ(AfterTime(result.err), Head('I', "T", tid) + std::to_string(tid) + "\n");
}

TEST(DlogTest, ChildOfABusyProcessCanWrite)
{
    constexpr int FORKS = 30;
    const TSChildResult result = TCChildProcess().Run([] {
        std::atomic<bool> ends{false};
        std::thread busy([&ends] {
            while (!ends) {
                __dlog_print(LOG_ID_MAIN, DLOG_INFO, "BUSY", "parent");
            }
        });
        int failed = 0;
        for (int i = 0; i < FORKS; ++i) {
            const pid_t child = fork();
            if (child == 0) {
                alarm(60); // not inherited; a child that finds a lock taken must not stay
                __dlog_print(LOG_ID_MAIN, DLOG_INFO, "FORKED", "%d", static_cast<int>(getpid()));
                _exit(0);
            }
            int status = -1;
            waitpid(child, &status, 0);
            failed += status != 0;
        }
        ends = true;
        busy.join();
        return failed;
    });
    EXPECT_EQ(result.ExitCode(), 0);
    int fromChildren = 0;
    for (const std::string& line : result.Lines()) {
        int shown = -1;
        int own = -1;
        if (sscanf(AfterTime(line).c_str(), "I FORKED(%d): %d", &shown, &own) == 2 &&
            shown == own) {
            ++fromChildren;
        }
    }
    EXPECT_EQ(fromChildren, FORKS);
}

TEST(DlogTest, ForkDuringTheFirstEntryLeavesAChildThatCanWrite)
{
    const TSChildResult result = TCChildProcess().Run([] {
        g_readsSlowly = true;
        std::atomic<bool> ends{false};
        std::thread first([&ends] {
            __dlog_print(LOG_ID_MAIN, DLOG_INFO, "FIRST", "x");
            // Alive during the fork: the child cannot join a thread that it does not have.
            while (!ends) {
                std::this_thread::yield();
            }
        });
        while (!g_reads) {
            std::this_thread::yield();
        }
        const pid_t child = fork();
        if (child == 0) {
            alarm(60);
            _exit(__dlog_print(LOG_ID_MAIN, DLOG_INFO, "FORKED", "x") > 0 ? 0 : 1);
        }
        int status = -1;
        waitpid(child, &status, 0);
        ends = true;
        first.join();
        return status == 0 ? 0 : 1;
    });
    EXPECT_EQ(result.ExitCode(), 0);
    EXPECT_EQ(result.Lines().size(), 2u) << result.err;
}

bool g_writesAtExit = false;

struct TSWriterAtExit
{
    ~TSWriterAtExit()
    {
        if (g_writesAtExit) {
            __dlog_print(LOG_ID_MAIN, DLOG_INFO, "T", "static object ends");
        }
    }
};

TSWriterAtExit g_writerAtExit;

TEST(DlogTest, StaticDestructorsCanWrite)
{
    const TSChildResult result = TCChildProcess().Run([] {
        __dlog_print(LOG_ID_MAIN, DLOG_INFO, "T", "before");
        g_writesAtExit = true;
        return 0;
    });
    ASSERT_EQ(result.Lines().size(), 2u) << result.err;
    EXPECT_EQ(AfterTime(result.Lines()[1]), Head('I', "T", result.pid) + "static object ends");
}

} // namespace
