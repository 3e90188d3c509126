#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "ConsoleSeam.h"
#include "Debug.h"
#include "DiagnosticSeams.h"
#include "FaultCase.h"
#include "LogSeam.h"
#include "ZorServiceDebugOverlay.h"

namespace {

using namespace zortest;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;

/// Text that printf cannot convert: in no locale is this half of a pair a character.
const wchar_t UNPRINTABLE[] = {0xD800, 0};

/// What a report prints, with the stream's name and place known.
std::string ReportOf(const char* expression)
{
    char text[8192] = "";
    FILE* const stream = fmemopen(text, sizeof(text), "w");
    PrintCallstack(stream, expression, "File.cpp", 7);
    fclose(stream);
    return text;
}

/// A stream that takes nothing.
FILE* FullStream()
{
    cookie_io_functions_t functions{};
    functions.write = [](void*, const char*, size_t) -> ssize_t {
        FaultCase::Injected();
        errno = ENOSPC;
        return -1;
    };
    FILE* const stream = fopencookie(nullptr, "w", functions);
    setvbuf(stream, nullptr, _IONBF, 0);
    return stream;
}

/// Makes asking for the thread's name fail.
int RefuseName(int option, unsigned long one, unsigned long two)
{
    if (option != PR_GET_NAME) {
        return prctlSeam.Real(option, one, two);
    }
    FaultCase::Injected();
    errno = EFAULT;
    return -1;
}

class DebugFaultsTest : public ::testing::Test
{
 protected:
    DebugFaultsTest() { ClearLog(); }
    ~DebugFaultsTest() override { SetConsoleMissing(false); }
};

using DebugFaultsDeathTest = DebugFaultsTest;

TEST_F(DebugFaultsTest, MissingConsoleLeavesTheReportOutAndTheReleaseBuildGoesOn)
{
    const FaultCase fault("fopen", "_TCAssert (release build)",
                          "no report; it pauses for 100 ms and goes on");
    const ConsoleCapture capture;
    SetConsoleMissing(true);
    _TCAssert("expression", "File.cpp", 7);
    FaultCase::Injected();
    EXPECT_EQ(capture.Text(), "");
    EXPECT_THAT(capture.Pauses(), ElementsAre(100));
}

TEST_F(DebugFaultsDeathTest, MissingConsoleLeavesTheReportOutAndADebugBuildAborts)
{
    const FaultCase fault("fopen", "_TCAssert (debug build)", "no report; the process aborts");
    EXPECT_FAULT_EXIT(
        {
            SetConsoleMissing(true);
            FaultCase::Injected();
            _TCAssert("expression", "File.cpp", 7);
        },
        ::testing::KilledBySignal(SIGABRT), Not(HasSubstr("Assertion failed")));
}

TEST_F(DebugFaultsTest, FullConsoleIsIgnored)
{
    const FaultCase fault("fprintf, fwrite, fflush", "PrintCallstack",
                          "ignored: the report is lost, and the caller goes on");
    FILE* const stream = FullStream();
    PrintCallstack(stream, "expression", "File.cpp", 7);
    EXPECT_NE(ferror(stream), 0);
    fclose(stream);
    EXPECT_THAT(ReportOf("expression"), HasSubstr("Assertion failed: File.cpp (7) - expression\n"));
}

TEST_F(DebugFaultsTest, ClosedStandardErrorDoesNotKeepTheReportFromTheConsole)
{
    const FaultCase fault("vfprintf", "_TCAssert (with a message)",
                          "ignored: the message is lost, the report is written");
    const int standardError = dup(STDERR_FILENO);
    close(STDERR_FILENO);
    const std::vector<std::string> failed = AssertionsOf([] {
        _TCAssert("expression", "File.cpp", 7, "message %d\n", 7);
        EXPECT_EQ(write(STDERR_FILENO, "", 1), -1);
    });
    dup2(standardError, STDERR_FILENO);
    close(standardError);
    clearerr(stderr);
    FaultCase::Injected();
    EXPECT_THAT(failed, ElementsAre("expression"));
}

TEST_F(DebugFaultsTest, WithoutSymbolTextsThereIsNoCallStack)
{
    const FaultCase fault("backtrace_symbols", "PrintCallstack",
                          "the \"Callstack:\" heading and its lines are left out");
    {
        const FailingCall noMemory(backtraceSymbolsSeam, nullptr, 0, From::HERE, ENOMEM);
        const std::string report = ReportOf("expression");
        EXPECT_THAT(report, HasSubstr("Linux Thread ID:"));
        EXPECT_THAT(report, Not(HasSubstr("Callstack:")));
    }
    EXPECT_THAT(ReportOf("expression"), HasSubstr("Callstack:\n"));
}

TEST_F(DebugFaultsTest, WithoutFramesThereIsTheHeadingOnly)
{
    const FaultCase fault("backtrace", "PrintCallstack", "the \"Callstack:\" heading has no lines");
    const FailingCall noFrames(backtraceSeam, 0);
    EXPECT_THAT(ReportOf("expression"), EndsWith("Callstack:\n"));
}

TEST_F(DebugFaultsTest, UnknownThreadNameIsEmptyInTheReport)
{
    const FaultCase fault("prctl", "PrintCallstack (PR_GET_NAME)",
                          "the report gives the thread an empty name");
    const Takeover refused(prctlSeam, RefuseName);
    EXPECT_THAT(ReportOf("expression"),
                ::testing::ContainsRegex("Linux Thread ID:   +[0-9]+ \\(\\)\n"));
}

TEST_F(DebugFaultsTest, RefusedProfilingMarkIsIgnored)
{
    const FaultCase fault("prctl", "PrintProfiling", "ignored");
    const FailingCall refused(prctlSeam, -1, 0, From::HERE, EINVAL);
    PrintProfiling(666, "mark %d", 7);
    EXPECT_EQ(refused.Failed(), 1);
    EXPECT_THAT(LogLines(), ::testing::IsEmpty());
}

TEST_F(DebugFaultsTest, UnprintableTextIsCutWhereItCannotBePrinted)
{
    const FaultCase fault("vsnprintf", "TCDebug::Print", "the text ends where printing failed");
    TCDebug::Print("before %ls after", UNPRINTABLE);
    TCDebug::Print(0UL, "level %ls after", UNPRINTABLE);
    FaultCase::Injected();
    const std::vector<LogLine> lines = LogLines();
    ASSERT_EQ(lines.size(), 4u); // each print is a heading and a text
    EXPECT_THAT(lines[1].text, EndsWith("> before \n"));
    EXPECT_THAT(lines[3].text, EndsWith("> level "));
}

TEST_F(DebugFaultsTest, UnprintableProfilingMarkIsCutWhereItCannotBePrinted)
{
    const FaultCase fault("vsnprintf", "PrintProfiling", "the mark ends where printing failed");
    std::string mark;
    const Takeover take(prctlSeam, [&mark](int, unsigned long text, unsigned long size) {
        mark.assign(reinterpret_cast<const char*>(text), size);
        return 0;
    });
    PrintProfiling(666, "mark %ls after", UNPRINTABLE);
    FaultCase::Injected();
    EXPECT_EQ(mark, "mark ");
}

TEST_F(DebugFaultsTest, UnprintableEntryIsCutWhereItCannotBePrinted)
{
    const FaultCase fault("vsnprintf", "ZORLoggerDLOG::ZORLog, ZORLoggerDLOG2023::ZORLog",
                          "the text ends where printing failed");
    for (IZORLogger* const logger : std::initializer_list<IZORLogger*>{
             ZORLoggerDLOG::Instance(), ZORLoggerDLOG2023::Instance()}) {
        ZORLogs::getInstance()->SetLoggingSystem(logger);
        ClearLog();
        ZOR_LOG(false, DLOG_INFO, "before %ls after", UNPRINTABLE);
        ASSERT_EQ(LogLines().size(), 1u);
        EXPECT_THAT(LogLines()[0].text, EndsWith("before "));
    }
    ZORLogs::getInstance()->SetLoggingSystem(ZORLoggerDLOG::Instance());
    FaultCase::Injected();
}

} // namespace
