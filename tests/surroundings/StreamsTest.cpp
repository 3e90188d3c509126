#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <utility>

#include "Surroundings.h"

namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using zortest::Command;
using zortest::DaemonResult;
using zortest::IsTableOfSample;
using zortest::ProgramResult;
using zortest::RunDaemonIn;

constexpr const char* LOST_OUTPUT = "zor-tsmon: standard output could not be written\n";

/// Makes standard output a pipe that nobody reads any more.
constexpr const char* CLOSE_PIPE = R"(
    pipe=$(mktemp -u) && mkfifo "$pipe" && exec 8<>"$pipe" && exec >"$pipe" 8<&- && rm "$pipe" &&
)";

const Command MONITOR = {TSMON_PROGRAM, TSMON_SAMPLE};

class StreamsTest : public testing::Test
{
 protected:
    /// What only log lines may be in, the process entry's among them.
    static void ExpectLog(const std::string& text)
    {
        EXPECT_THAT(text, HasSubstr("ZOR_CORE: write_pid(62) > pid written ("));
        EXPECT_THAT(text, HasSubstr("6610 packets, 0 damaged, 3 services\n"));
        EXPECT_THAT(text, Not(HasSubstr("SERVICE  NAME")));
    }

    /// That the record is whole and nothing but a record.
    void ExpectRecord() const
    {
        const ProgramResult record = zortest::RunProgram(RECORD_TOOL, {"print", m_recordPath});
        EXPECT_EQ(record.exitCode, 0);
        EXPECT_EQ(record.err, "");
        EXPECT_THAT(record.out, HasSubstr("TCHandler::OnEvent"));
    }

    zortest::ScratchDirectory m_directory;
    const std::string m_recordPath = m_directory.Path("calls.zor");
    const std::string m_logPath = m_directory.Path("log");
};

/// The parameter has a bit for each of the standard streams that are closed.
class ClosedStreamsTest : public StreamsTest, public testing::WithParamInterface<int>
{
 protected:
    static bool IsClosed(int stream) { return (GetParam() >> stream & 1) != 0; }

    /// A script that becomes its command without these streams.
    static std::string Script()
    {
        std::string closing;
        for (const int stream : {0, 1, 2}) {
            closing += IsClosed(stream) ? " " + std::to_string(stream) + ">&-" : "";
        }
        return "exec \"$@\"" + closing;
    }
};

TEST_P(ClosedStreamsTest, NothingGetsIntoAFileThatIsOpenedInTheirPlaces)
{
    const DaemonResult result =
        RunDaemonIn(Script(), MONITOR, {{"ZOR_RECORD", m_recordPath}, {"ZOR_RECORD_SIZE", "4M"}});
    EXPECT_EQ(result.pidFile, std::to_string(result.pid));
    ExpectRecord();
    EXPECT_EQ(result.exitCode, IsClosed(1) ? 1 : 0);
    if (!IsClosed(1)) {
        EXPECT_THAT(result.out, IsTableOfSample());
    }
    if (!IsClosed(2)) {
        ExpectLog(result.err);
        EXPECT_EQ(result.err.find(LOST_OUTPUT) != std::string::npos, IsClosed(1));
    }
}

INSTANTIATE_TEST_SUITE_P(Every, ClosedStreamsTest, testing::Range(1, 8),
                         [](const testing::TestParamInfo<int>& info) {
                             std::string name = "Without";
                             for (const int stream : {0, 1, 2}) {
                                 name +=
                                     (info.param >> stream & 1) != 0 ? std::to_string(stream) : "";
                             }
                             return name;
                         });

TEST_F(StreamsTest, LogFileGetsTheLogAloneWhateverIsClosed)
{
    for (const char* script : {"exec \"$@\" 1>&-", "exec \"$@\" 0>&- 1>&- 2>&-"}) {
        const DaemonResult result =
            RunDaemonIn(script, MONITOR, {{"ZOR_DLOG", "file:" + m_logPath}});
        EXPECT_EQ(result.exitCode, 1);
        EXPECT_EQ(result.pidFile, std::to_string(result.pid));
        const std::string log = zortest::ReadText(m_logPath);
        ExpectLog(log);
        EXPECT_THAT(log, Not(HasSubstr("zor-tsmon: ")));
    }
}

TEST_F(StreamsTest, ClosedStandardInputCannotBeMonitored)
{
    for (const char* script : {"exec \"$@\" 0<&-", "exec \"$@\" 0>/dev/null"}) {
        const DaemonResult result =
            RunDaemonIn(script, {TSMON_PROGRAM, "-"}, {{"ZOR_DLOG", "none"}});
        EXPECT_EQ(result.exitCode, 1);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err, "zor-tsmon: standard input: is closed\n");
    }
}

TEST_F(StreamsTest, OutputThatCannotBeWrittenIsNamedAndTheExitCodeTells)
{
    const std::string closed = "exec >&-;";
    const std::string full = "exec >/dev/full;";
    const std::pair<std::string, Command> runs[] = {
        {closed, MONITOR},
        {closed, {TSMON_PROGRAM, "--help"}},
        {full, {TSMON_PROGRAM, "--format", "json", TSMON_SAMPLE}},
        {CLOSE_PIPE, MONITOR},
    };
    for (const auto& [output, command] : runs) {
        SCOPED_TRACE(output + command[1]);
        const DaemonResult result =
            RunDaemonIn(output + " exec \"$@\"", command, {{"ZOR_DLOG", "none"}});
        EXPECT_EQ(result.exitCode, 1);
        EXPECT_EQ(result.signal, 0);
        EXPECT_EQ(result.err, LOST_OUTPUT);
    }
}

TEST_F(StreamsTest, EndlessInputIsLeftWhenTheTablesCannotBeWritten)
{
    const std::string input = m_directory.Path("input");
    ASSERT_EQ(mkfifo(input.c_str(), 0600), 0);
    for (const std::string& output : {std::string("exec >/dev/full;"), std::string(CLOSE_PIPE)}) {
        // Open for both directions in the daemon itself, the pipe never comes to an end.
        const DaemonResult result =
            RunDaemonIn(output + " exec \"$@\" 9<>\"$4\"", {TSMON_PROGRAM, "--every", "1", input},
                        {{"ZOR_DLOG", "stderr:W"}});
        EXPECT_EQ(result.exitCode, 1);
        EXPECT_THAT(result.err, HasSubstr("standard output could not be written: reads no more\n"));
        EXPECT_THAT(result.err, EndsWith(LOST_OUTPUT));
    }
}

TEST_F(StreamsTest, LogThatNobodyCanReadDoesNotEndTheDaemon)
{
    // Standard output goes to the descriptor 7 while the pipe of standard error is made.
    for (const std::string& errors :
         {std::string("exec 7>&1;") + CLOSE_PIPE + " exec 2>&1 >&7 7>&-;",
          std::string("exec 2>/dev/full;")}) {
        const DaemonResult result = RunDaemonIn(errors + " exec \"$@\"", MONITOR);
        EXPECT_EQ(result.exitCode, 0);
        EXPECT_EQ(result.signal, 0);
        EXPECT_THAT(result.out, IsTableOfSample());
    }
}

TEST_F(StreamsTest, GreetingThatCannotBeWrittenIsNamedAndTheExitCodeTells)
{
    const DaemonResult closed =
        RunDaemonIn("exec \"$@\" >&-", {HELLO_PROGRAM}, {{"ZOR_DLOG", "none"}});
    EXPECT_EQ(closed.exitCode, 1);
    EXPECT_EQ(closed.err, "hello: standard output: Bad file descriptor\n");
    EXPECT_EQ(closed.pidFile, std::to_string(closed.pid));
    const DaemonResult full =
        RunDaemonIn("exec \"$@\" >/dev/full", {HELLO_PROGRAM}, {{"ZOR_DLOG", "none"}});
    EXPECT_EQ(full.exitCode, 1);
    EXPECT_EQ(full.err, "hello: standard output: No space left on device\n");
}

} // namespace
