#include <dlfcn.h>
#include <execinfo.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "ConsoleSeam.h"
#include "Debug.h"
#include "DiagnosticSeams.h"

namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;
using zortest::Takeover;

constexpr int MAX_FRAMES = 100;

/// A stream in memory.
class MemoryStream
{
 public:
    MemoryStream() : m_stream(open_memstream(&m_text, &m_size)) {}

    ~MemoryStream()
    {
        fclose(m_stream);
        free(m_text);
    }

    MemoryStream(const MemoryStream&) = delete;
    MemoryStream& operator=(const MemoryStream&) = delete;

    FILE* Get() const { return m_stream; }

    /// What has been flushed.
    std::string Flushed() const { return m_text == nullptr ? "" : std::string(m_text, m_size); }

 private:
    char* m_text = nullptr;
    size_t m_size = 0;
    FILE* m_stream;
};

std::string Report(const char* expr = "a == b", const char* file = "src/Some.cpp",
                   unsigned long line = 42)
{
    const MemoryStream stream;
    PrintCallstack(stream.Get(), expr, file, line);
    return stream.Flushed();
}

/// Replaces back traces by @p count times the same frame.
auto FramesOf(int count)
{
    return [count](void** frames, int) {
        std::fill(frames, frames + count, reinterpret_cast<void*>(&abort));
        return count;
    };
}

std::string NameOfFrame(void* frame)
{
    Dl_info info;
    return dladdr(frame, &info) != 0 && info.dli_sname != nullptr ? info.dli_sname : "";
}

/// The system's back trace without the frames of the seam (and of a sanitizer) in front of the
/// library's.
int LibraryBacktrace(std::vector<void*>* kept, void** frames, int size)
{
    void* all[2 * MAX_FRAMES];
    const int count = zortest::backtraceSeam.Real(all, 2 * MAX_FRAMES);
    Dl_info library;
    dladdr(reinterpret_cast<void*>(&PrintProfiling), &library);
    Dl_info info;
    int first = 0;
    while (first < count &&
           (dladdr(all[first], &info) == 0 || info.dli_fbase != library.dli_fbase)) {
        ++first;
    }
    const int wanted = std::min(count - first, size);
    std::copy(all + first, all + first + wanted, frames);
    kept->assign(frames, frames + wanted);
    return wanted;
}

class CallstackTest : public ::testing::Test
{
 protected:
    ~CallstackTest() override { TCDebugPrintZOR::GetInstance()->SetAppName(nullptr); }

    static std::string ThreadLines(const char* name)
    {
        char text[200];
        snprintf(text, sizeof(text), "Posix Thread ID: 0x%08lx\nLinux Thread ID:   %8ld (%s)\n",
                 pthread_self(), static_cast<long>(gettid()), name);
        return text;
    }
};

TEST_F(CallstackTest, ReportHasTheseLinesInThisOrder)
{
    const Takeover oneFrame(zortest::backtraceSeam, FramesOf(1));
    std::thread([] {
        pthread_setname_np(pthread_self(), "zor_reporter");
        EXPECT_EQ(Report("m_size > 0", "src/Queue.cpp", 1234567890123),
                  "This sentence is redirected to a serial output."
                  "Assertion failed: src/Queue.cpp (1234567890123) - m_size > 0\n"
                  "Debug information:\n" +
                      ThreadLines("zor_reporter") + "Callstack:\n");
    }).join();
}

TEST_F(CallstackTest, ApplicationNameComesFirstWithABlankBehindIt)
{
    const Takeover oneFrame(zortest::backtraceSeam, FramesOf(1));
    TCDebugPrintZOR::GetInstance()->SetAppName("Guide");
    EXPECT_THAT(Report(), StartsWith("AppName: Guide \n"
                                     "This sentence is redirected to a serial output."
                                     "Assertion failed: src/Some.cpp (42) - a == b\n"));
}

TEST_F(CallstackTest, NoApplicationNameNoLine)
{
    TCDebugPrintZOR::GetInstance()->SetAppData("", 5);
    EXPECT_THAT(Report(), StartsWith("This sentence is redirected to a serial output."));
}

TEST_F(CallstackTest, ShortIdsArePaddedToEightPlaces)
{
    const Takeover gettid(zortest::syscallSeam, [](long) { return 77L; });
    const Takeover name(zortest::prctlSeam, [](int option, unsigned long text, unsigned long) {
        EXPECT_EQ(option, PR_GET_NAME);
        strcpy(reinterpret_cast<char*>(text), "fifteen_letters");
        return 0;
    });
    EXPECT_THAT(Report(), HasSubstr("\nLinux Thread ID:         77 (fifteen_letters)\n"));
}

TEST_F(CallstackTest, OnlyItsOwnFrameIsLeftOut)
{
    std::vector<void*> frames;
    const Takeover real(zortest::backtraceSeam,
                        [&](void** out, int size) { return LibraryBacktrace(&frames, out, size); });
    const std::string report = Report();

    ASSERT_GE(frames.size(), 2u);
    EXPECT_THAT(NameOfFrame(frames[0]), HasSubstr("PrintCallstack"));
    char** symbols = zortest::backtraceSymbolsSeam.Real(frames.data(), frames.size());
    std::string wanted = "Callstack:\n";
    for (size_t i = 1; i < frames.size(); ++i) {
        wanted += std::string(symbols[i]) + "\n";
    }
    free(symbols);
    EXPECT_THAT(report, EndsWith(wanted));
    EXPECT_THAT(report, Not(HasSubstr("PrintCallstack")));
}

TEST_F(CallstackTest, AssertionIsTheFirstFrameOfItsReport)
{
    std::vector<void*> frames;
    const Takeover real(zortest::backtraceSeam,
                        [&](void** out, int size) { return LibraryBacktrace(&frames, out, size); });
    const zortest::ConsoleCapture console;
    _TCAssert("a == b", "src/Some.cpp", 42);
    ASSERT_GE(frames.size(), 2u);
    EXPECT_THAT(NameOfFrame(frames[1]), HasSubstr("_TCAssert"));
    const std::string text = console.Text();
    const std::string first = text.substr(text.find("Callstack:\n") + strlen("Callstack:\n"));
    EXPECT_THAT(first.substr(0, first.find('\n')), HasSubstr("_TCAssert"));
}

TEST_F(CallstackTest, OneFrameGivesTheHeadingAlone)
{
    const Takeover oneFrame(zortest::backtraceSeam, FramesOf(1));
    EXPECT_THAT(Report(), EndsWith(")\nCallstack:\n"));
}

TEST_F(CallstackTest, AtMost100FramesAreAskedForAndAllButTheFirstPrinted)
{
    int asked = 0;
    const Takeover all(zortest::backtraceSeam, [&asked](void** frames, int size) {
        asked = size;
        return FramesOf(size)(frames, size);
    });
    const std::string report = Report();
    EXPECT_EQ(asked, MAX_FRAMES);
    const std::string frames = report.substr(report.find("Callstack:\n"));
    EXPECT_EQ(std::count(frames.begin(), frames.end(), '\n'), 1 + MAX_FRAMES - 1);
}

TEST_F(CallstackTest, WithoutSymbolTextsTheHeadingIsLeftOut)
{
    const Takeover none(zortest::backtraceSymbolsSeam,
                        [](void* const*, int) { return static_cast<char**>(nullptr); });
    const std::string report = Report();
    EXPECT_THAT(report, Not(HasSubstr("Callstack:")));
    EXPECT_THAT(report,
                EndsWith(std::to_string(gettid()) + " (" + report.substr(report.rfind('(') + 1)));
}

TEST_F(CallstackTest, StreamIsFlushedAndStaysOpen)
{
    const MemoryStream stream;
    PrintCallstack(stream.Get(), "a == b", "src/Some.cpp", 1);
    const std::string flushed = stream.Flushed();
    EXPECT_THAT(flushed, HasSubstr("Callstack:\n"));
    fputs("more", stream.Get());
    fflush(stream.Get());
    EXPECT_EQ(stream.Flushed(), flushed + "more");
}

TEST_F(CallstackTest, NullStreamPrintsNothingThoughTheDataIsFetched)
{
    std::vector<std::string> calls;
    const Takeover appData(zortest::appDataSeam,
                           [&](const TCDebugPrint* print) -> const TSAppData& {
                               calls.push_back("application data");
                               return zortest::appDataSeam.Real(print);
                           });
    const Takeover gettid(zortest::syscallSeam, [&](long number) {
        calls.push_back(number == SYS_gettid ? "thread id" : "other");
        return zortest::syscallSeam.Real(number);
    });
    const Takeover name(zortest::prctlSeam,
                        [&](int option, unsigned long first, unsigned long second) {
                            calls.push_back(option == PR_GET_NAME ? "thread name" : "other");
                            return zortest::prctlSeam.Real(option, first, second);
                        });
    const Takeover frames(zortest::backtraceSeam, [&](void**, int) {
        calls.push_back("back trace");
        return 0;
    });
    PrintCallstack(nullptr, "a == b", "src/Some.cpp", 1);
    EXPECT_THAT(calls,
                testing::UnorderedElementsAre("application data", "thread id", "thread name"));
}

} // namespace
