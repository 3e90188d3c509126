#include "Tool.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "ProgramRun.h"
#include "TextPrint.h"

namespace {

using testing::Contains;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

class ToolTest : public testing::Test
{
 protected:
    /// Records a program.
    void Record(const std::vector<std::string>& arguments)
    {
        const auto result = zortest::RunProgram(RECORDED_PROGRAM, arguments,
                                                {{"ZOR_RECORD", path}, {"ZOR_RECORD_SIZE", "64K"}});
        ASSERT_EQ(result.exitCode, 0) << result.err;
        printed = result.out;
    }

    int Run(const std::vector<std::string>& arguments)
    {
        std::vector<const char*> argv = {"zor-record"};
        for (const std::string& argument : arguments) {
            argv.push_back(argument.c_str());
        }
        std::ostringstream outStream;
        std::ostringstream errStream;
        const int code =
            zorrecord::RunTool(static_cast<int>(argv.size()), argv.data(), outStream, errStream);
        out = outStream.str();
        err = errStream.str();
        return code;
    }

    std::vector<std::string> Lines() const
    {
        std::vector<std::string> lines;
        std::istringstream stream(out);
        for (std::string line; std::getline(stream, line);) {
            lines.push_back(line);
        }
        return lines;
    }

    zortest::ScratchDirectory directory;
    const std::string path = directory.Path("calls.zor");
    std::string printed;
    std::string out;
    std::string err;
};

TEST_F(ToolTest, HelpTellsOfCommandsAndExitCodes)
{
    EXPECT_EQ(Run({"--help"}), 0);
    for (const char* part :
         {"print", "export", "page", "top", "path", "info", "ZOR_RECORD", "Exit codes:"}) {
        EXPECT_THAT(out, HasSubstr(part));
    }
    EXPECT_EQ(err, "");
    EXPECT_EQ(Run({"export", "--help"}), 0);
    EXPECT_THAT(out, HasSubstr("--output"));
}

TEST_F(ToolTest, VersionIsPrinted)
{
    EXPECT_EQ(Run({"--version"}), 0);
    EXPECT_THAT(out, StartsWith("zor-record "));
}

TEST_F(ToolTest, BadOptionsAreRefused)
{
    for (const std::vector<std::string>& arguments :
         std::vector<std::vector<std::string>>{{}, {"print"}, {"show", "x"}, {"print", "a", "b"}}) {
        EXPECT_EQ(Run(arguments), 1);
        EXPECT_EQ(out, "");
        EXPECT_THAT(err, StartsWith("zor-record: "));
        EXPECT_THAT(err, HasSubstr("--help"));
    }
}

TEST_F(ToolTest, MissingFileIsSaid)
{
    EXPECT_EQ(Run({"print", path}), 1);
    EXPECT_EQ(err, "zor-record: " + path +
                       ": No such file or directory; a recording begins with the first event that "
                       "has its flag set\n");
    EXPECT_EQ(Run({"info", directory.Path("")}), 1);
    EXPECT_THAT(err, HasSubstr("Is a directory"));
}

TEST_F(ToolTest, OtherFilesAreRefused)
{
    zortest::WriteText(path, "something else entirely");
    EXPECT_EQ(Run({"print", path}), 1);
    EXPECT_EQ(err, "zor-record: " + path + ": this is no record of calls\n");
    zortest::WriteText(path, "");
    EXPECT_EQ(Run({"export", path}), 1);
    EXPECT_EQ(err, "zor-record: " + path + ": the file is empty\n");
    EXPECT_EQ(out, "");
}

TEST_F(ToolTest, PrintWritesALineARecord)
{
    Record({"tasks"});
    EXPECT_EQ(Run({"print", path}), 0);
    EXPECT_EQ(err, "");
    const std::vector<std::string> lines = Lines();
    ASSERT_EQ(lines.size(), 40U);
    const std::string receiver =
        printed.substr(printed.find("first ") + 6,
                       printed.find('\n', printed.find("first ")) - printed.find("first ") - 6);
    const std::string send =
        R"([0-9]+\.[0-9]{9} zor-recorded-pr\([0-9]+\) > static bool TCTask::Send\(TSEvent\*, bool, )"
        R"(bool\) \[src/Task\.cpp:168\] event=\{address=0x[0-9a-f]+ sync=0x0 receiver=)" +
        receiver +
        R"(\(alpha\) sender=0x0 type=100 param1=1 param2=22 param3=0x21 param4=0x2c param5=0x37 param6=66 )"
        R"(flag=true appName="" appFlag=0 wrappedData=0x[0-9a-f]+\} sync=false priority=false)";
    EXPECT_THAT(lines[0], MatchesRegex(send));
    const std::string handling =
        R"([0-9]+\.[0-9]{9} alpha\([0-9]+\) > bool TCHandler::OnEvent\(const TSEvent\*\) )"
        R"(\[inc/Task\.h:102\] event=\{address=0x[0-9a-f]+ sync=0x[0-9a-f]+ receiver=)" +
        receiver +
        R"(\(alpha\) sender=0x[0-9a-f]+ type=200 .* appName="tuner" appFlag=7 wrappedData=0x0\})";
    const std::string after =
        R"([0-9]+\.[0-9]{9} beta\([0-9]+\) < bool TCHandler::OnEvent\(const TSEvent\*\) )"
        R"(\[inc/Task\.h:102\] result=false cpu_ns=[0-9]+)";
    EXPECT_THAT(lines, Contains(MatchesRegex(handling)).Times(1));
    EXPECT_THAT(lines, Contains(MatchesRegex(after)).Times(1));
}

TEST_F(ToolTest, PathWithoutAWantedCallIsSaid)
{
    Record({"tasks"});
    EXPECT_EQ(Run({"path", "--type", "4711", path}), 1);
    EXPECT_EQ(out, "");
    EXPECT_EQ(err,
              "zor-record: " + path + ": no handling and no synchronous send is as asked for\n");
    EXPECT_EQ(Run({"path", "--type", "200", path}), 0);
    EXPECT_THAT(out, HasSubstr(" type 200 for "));
    EXPECT_EQ(Run({"top", "--task", "beta", path}), 0);
    EXPECT_THAT(out, HasSubstr("\nbeta "));
    EXPECT_EQ(Run({"print", "--last", "-1", path}), 1);
    EXPECT_THAT(err, HasSubstr("--last"));
}

TEST_F(ToolTest, NullEventIsPrintedAsNull)
{
    Record({"throw"});
    EXPECT_EQ(Run({"print", path}), 0);
    ASSERT_EQ(Lines().size(), 3U);
    EXPECT_THAT(Lines()[0], HasSubstr("[RecordedProgram.cpp:2] event=null"));
}

TEST_F(ToolTest, InfoTellsWhatThereIs)
{
    Record({"threads", "10"});
    EXPECT_EQ(Run({"info", path}), 0);
    for (const char* part :
         {"process:    zor-recorded-pr (", "ring:       65536 bytes\n", "records:    80\n",
          "overwritten: 0 bytes", "gaps:       0 (0 bytes)\n", "threads:    4\n", "caller-0(",
          "caller-3(", "): 20 records\n", "call sites: 1\n",
          "bool Call(TSEvent*, bool, bool) [RecordedProgram.cpp:1]: 40 calls, "}) {
        EXPECT_THAT(out, HasSubstr(part));
    }
}

TEST_F(ToolTest, ExportGoesToTheFileAskedFor)
{
    Record({"tasks"});
    const std::string json = directory.Path("calls.json");
    EXPECT_EQ(Run({"export", path, "-o", json}), 0);
    EXPECT_EQ(out, "");
    const std::string written = zortest::ReadText(json);
    EXPECT_EQ(Run({"export", path}), 0);
    EXPECT_EQ(out, written);
    EXPECT_EQ(nlohmann::json::parse(written).at("displayTimeUnit"), "ns");
}

TEST_F(ToolTest, OutputThatCannotBeWrittenIsSaid)
{
    Record({"calls", "1"});
    const std::string json = directory.Path("missing/calls.json");
    EXPECT_EQ(Run({"export", path, "--output", json}), 1);
    EXPECT_EQ(err, "zor-record: " + json + " cannot be written: No such file or directory\n");
    EXPECT_EQ(Run({"export", path, "--output", "/dev/full"}), 1);
    EXPECT_EQ(err, "zor-record: /dev/full cannot be written: No space left on device\n");
}

TEST_F(ToolTest, StandardOutputThatCannotBeWrittenIsSaid)
{
    Record({"calls", "1"});
    const char* const argv[] = {"zor-record", "print", path.c_str()};
    std::ofstream full("/dev/full");
    std::ostringstream errStream;
    EXPECT_EQ(zorrecord::RunTool(3, argv, full, errStream), 1);
    EXPECT_EQ(errStream.str(), "zor-record: standard output cannot be written\n");
}

TEST_F(ToolTest, GapsAreTold)
{
    Record({"calls", "4"});
    std::string bytes = zortest::ReadText(path);
    bytes.at(4096 + 28 * 1024 + 300) ^= 1;
    zortest::WriteText(path, bytes);
    EXPECT_EQ(Run({"print", path}), 0);
    EXPECT_THAT(err, StartsWith("zor-record: " + path + " has 1 gap of together "));
    EXPECT_EQ(Lines().size(), 7U);
}

TEST_F(ToolTest, ProgramItselfDoesNotRecordOverWhatItReads)
{
    Record({"calls", "4"});
    const auto result = zortest::RunProgram(RECORD_TOOL, {"print", path}, {{"ZOR_RECORD", path}});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(std::count(result.out.begin(), result.out.end(), '\n'), 8);
    EXPECT_EQ(result.err, "");
}

TEST(TextPrintTest, TimesHaveNineDecimals)
{
    EXPECT_EQ(zorrecord::Seconds(0), "0.000000000");
    EXPECT_EQ(zorrecord::Seconds(1234567890123), "1234.567890123");
    EXPECT_EQ(zorrecord::Seconds(-1), "-0.000000001");
}

TEST(TextPrintTest, UnprintableTextIsEscaped)
{
    EXPECT_EQ(zorrecord::Escaped("a b\n\"\\\xFF"), "a b\\x0a\\x22\\x5c\\xff");
}

} // namespace
