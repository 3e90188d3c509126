#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <nlohmann/json.hpp>

#include "DaemonRun.h"
#include "Pipe.h"
#include "StreamBuilder.h"
#include "TempDirectory.h"
#include "Wait.h"

namespace {

using made::Bytes;
using made::Daemon;
using made::Ended;
using made::Pipe;
using made::RunDaemon;
using testing::HasSubstr;
using zortest::Eventually;
using made::operator+;

std::size_t CountIn(const std::string& text, const std::string& part)
{
    std::size_t count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

std::string FileText(const std::string& path)
{
    const Bytes bytes = made::ReadFile(path);
    return std::string(bytes.begin(), bytes.end());
}

/// A stream with one service.
Bytes SmallStream()
{
    made::TableBuilder builder;
    return builder.Sdt(7, {{1, "One", "Maker"}}) + builder.Pat(7, {{1, 0x100}}) +
           builder.Pmt(0x100, 1, 0x101, {{0x101, 0x1B}}) + made::ElementaryPackets(0x101, 30);
}

/// Daemons that read a pipe, and what they print of it.
class TsmonInputTest : public testing::Test
{
 protected:
    made::TempDirectory m_directory;
    const std::string m_path = m_directory.Path("pipe");
};

TEST_F(TsmonInputTest, LossOfInputAndItsReturnAreReported)
{
    Pipe pipe(m_path);
    Daemon daemon({"--input-timeout", "1", m_path}, "stderr:W");
    ASSERT_TRUE(daemon.AwaitError("input lost: no packet for 1.0 s"));
    EXPECT_EQ(CountIn(daemon.Error(), "input is back"), 0U);
    pipe.Write(SmallStream());
    ASSERT_TRUE(daemon.AwaitError("input is back after "));
    ASSERT_TRUE(Eventually([&] { return CountIn(daemon.Error(), "input lost: ") == 2; }))
        << "the next silence is another loss";
    pipe.Close();
    const Ended ended = daemon.End();
    EXPECT_EQ(ended.exitCode, 0) << ended.error;
    EXPECT_EQ(CountIn(ended.error, "input lost: "), 2U);
    EXPECT_EQ(CountIn(ended.error, "input is back"), 1U);
    EXPECT_THAT(ended.output, HasSubstr("input lost 2 times\n"));
    EXPECT_THAT(ended.output, HasSubstr("H.264 video (0x1b)"));
}

TEST_F(TsmonInputTest, DataWithoutPacketsIsNotCalledALossOfInput)
{
    Pipe pipe(m_path);
    pipe.Write(Bytes(20000, 0x11));
    Daemon daemon({"--input-timeout", "1", m_path}, "stderr:W");
    ASSERT_TRUE(daemon.AwaitError("data, but no packets: none in 20000 bytes"));
    pipe.Write(SmallStream());
    ASSERT_TRUE(daemon.AwaitError("packets are back"));
    pipe.Close();
    const Ended ended = daemon.End();
    EXPECT_EQ(CountIn(ended.error, "input lost"), 0U);
    EXPECT_EQ(CountIn(ended.error, "data, but no packets"), 1U);
    EXPECT_THAT(ended.output, HasSubstr("data without packets 1 time\n"));
    EXPECT_THAT(ended.output, HasSubstr("H.264 video (0x1b)"));
}

TEST_F(TsmonInputTest, JsonTellsWhyEmptyRandomAndDamagedFilesFail)
{
    Bytes cut = SmallStream();
    cut.pop_back();
    const std::pair<Bytes, const char*> files[] = {
        {{}, "is empty"},
        {Bytes(5000, 0x11), "is not a transport stream: no 188-byte packets in 5000 bytes"},
        {cut, "is damaged: 1 damaged packet (1 cut off at the end), 32 packets read"}};
    for (const auto& [contents, reason] : files) {
        const Ended ended = RunDaemon({"--format", "json", m_directory.Write("a.ts", contents)});
        EXPECT_EQ(ended.exitCode, 1);
        const auto document = nlohmann::json::parse(ended.output);
        EXPECT_EQ(document["ok"], false);
        EXPECT_EQ(document["failure"], reason);
        EXPECT_THAT(ended.error, HasSubstr(reason));
    }
}

TEST_F(TsmonInputTest, PacketsOfOtherSizesAreReadAndTheirSizeIsShown)
{
    for (const std::size_t size : {192, 204}) {
        const std::string path = m_directory.Write("a.ts", made::Repacked(SmallStream(), size));
        const Ended table = RunDaemon({path});
        EXPECT_EQ(table.exitCode, 0) << table.error;
        EXPECT_THAT(table.output,
                    HasSubstr("1 service in 33 packets of " + std::to_string(size) + " bytes\n"));
        const auto document = nlohmann::json::parse(RunDaemon({"--format", "json", path}).output);
        EXPECT_EQ(document["packetSize"], size);
        EXPECT_EQ(document["ok"], true);
        EXPECT_EQ(document["failure"], nullptr);
    }
}

TEST_F(TsmonInputTest, TableIsRepeatedWhileItIsRead)
{
    const std::string out = m_directory.Path("out");
    Pipe pipe(m_path);
    Daemon daemon({"--every", "1", m_path}, "none", out);
    pipe.Write(SmallStream());
    EXPECT_TRUE(Eventually([&] { return CountIn(FileText(out), "H.264 video (0x1b)") >= 2; }));
    daemon.Send(SIGTERM);
    const Ended ended = daemon.End();
    EXPECT_EQ(ended.exitCode, 0) << ended.error;
    const std::string text = FileText(out);
    EXPECT_GE(CountIn(text, "SERVICE  NAME"), 3U) << "two on the way and one at the end";
    EXPECT_EQ(CountIn(text, "stopped by a signal"), 1U) << "at the end only";
}

TEST_F(TsmonInputTest, JsonIsAllThatStandardOutputGets)
{
    const Ended ended = RunDaemon({"--format", "json", TSMON_SAMPLE}, "stderr:I");
    EXPECT_EQ(ended.exitCode, 0) << ended.error;
    const auto document = nlohmann::json::parse(ended.output);
    EXPECT_EQ(document["packets"], 6610);
    EXPECT_EQ(document["continuityErrors"], 0);
    EXPECT_DOUBLE_EQ(document["seconds"], 9.92);
    ASSERT_EQ(document["services"].size(), 3U);
    EXPECT_EQ(document["services"][0]["name"], "North News");
    EXPECT_NEAR(document["services"][0]["bitRate"], 421900, 100);
    EXPECT_EQ(document["services"][2]["streams"][0]["pid"], 0x104);
    EXPECT_THAT(ended.error, HasSubstr("ZOR_TSMON"));
}

TEST_F(TsmonInputTest, SigtermGivesTheJsonOfWhatWasRead)
{
    Pipe pipe(m_path);
    Daemon daemon({"--format", "json", m_path}, "stderr:I");
    pipe.Write(SmallStream());
    ASSERT_TRUE(daemon.AwaitError("PMT version 0"));
    daemon.Send(SIGTERM);
    const Ended ended = daemon.End();
    EXPECT_EQ(ended.exitCode, 0) << ended.error;
    const auto document = nlohmann::json::parse(ended.output);
    EXPECT_EQ(document["stopped"], true);
    EXPECT_EQ(document["services"][0]["name"], "One");
}

TEST_F(TsmonInputTest, JsonOfAFileThatCannotBeReadTellsWhy)
{
    const Ended ended = RunDaemon({"--format", "json", m_directory.Path("missing.ts")});
    EXPECT_EQ(ended.exitCode, 1);
    EXPECT_EQ(nlohmann::json::parse(ended.output)["failure"],
              "cannot be opened: No such file or directory");
    EXPECT_THAT(ended.error, HasSubstr("missing.ts: cannot be opened"));
}

TEST_F(TsmonInputTest, BadValueOfAnOptionIsAnErrorThatNamesBoth)
{
    const Ended ended = RunDaemon({"--every", "often", TSMON_SAMPLE});
    EXPECT_EQ(ended.exitCode, 1);
    EXPECT_EQ(ended.output, "");
    EXPECT_THAT(ended.error, HasSubstr("zor-tsmon: --every: 'often' is not a number of seconds"));
}

} // namespace
