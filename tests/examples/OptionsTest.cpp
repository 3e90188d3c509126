#include "Options.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

namespace {

using testing::HasSubstr;
using testing::StartsWith;
using tsmon::CommandLine;

CommandLine Read(std::vector<const char*> arguments)
{
    arguments.insert(arguments.begin(), "zor-tsmon");
    return tsmon::ReadCommandLine(static_cast<int>(arguments.size()), arguments.data());
}

void ExpectRefused(const CommandLine& line)
{
    EXPECT_FALSE(line.options.has_value());
    EXPECT_EQ(line.exitCode, 1);
    EXPECT_EQ(line.output, "");
    EXPECT_THAT(line.error, StartsWith("zor-tsmon: "));
    EXPECT_THAT(line.error, HasSubstr("--help"));
}

TEST(OptionsTest, FileIsTaken)
{
    const CommandLine line = Read({"some file.ts"});
    ASSERT_TRUE(line.options.has_value());
    EXPECT_EQ(line.options->file, "some file.ts");
    EXPECT_EQ(line.output, "");
    EXPECT_EQ(line.error, "");
}

TEST(OptionsTest, RealtimeIsOffUnlessAskedFor)
{
    const CommandLine plain = Read({"a.ts"});
    ASSERT_TRUE(plain.options.has_value());
    EXPECT_FALSE(plain.options->realtime);
    const CommandLine realtime = Read({"--realtime", "a.ts"});
    ASSERT_TRUE(realtime.options.has_value());
    EXPECT_TRUE(realtime.options->realtime);
    EXPECT_EQ(realtime.options->file, "a.ts");
}

TEST(OptionsTest, FileMayLookLikeAnOptionBehindTwoDashes)
{
    const CommandLine line = Read({"--", "-x.ts"});
    ASSERT_TRUE(line.options.has_value());
    EXPECT_EQ(line.options->file, "-x.ts");
}

TEST(OptionsTest, FileIsRequired)
{
    const CommandLine line = Read({});
    ExpectRefused(line);
    EXPECT_THAT(line.error, HasSubstr("FILE is required"));
}

TEST(OptionsTest, UnknownOptionIsNamed)
{
    const CommandLine line = Read({"--bogus", "a.ts"});
    ExpectRefused(line);
    EXPECT_THAT(line.error, HasSubstr("--bogus"));
}

TEST(OptionsTest, SecondFileIsRefused)
{
    const CommandLine line = Read({"a.ts", "b.ts"});
    ExpectRefused(line);
    EXPECT_THAT(line.error, HasSubstr("b.ts"));
}

TEST(OptionsTest, HelpExplainsTheProgram)
{
    for (const char* option : {"--help", "-h"}) {
        const CommandLine line = Read({option});
        EXPECT_FALSE(line.options.has_value());
        EXPECT_EQ(line.exitCode, 0);
        EXPECT_EQ(line.error, "");
        for (const char* text : {"Usage: zor-tsmon [OPTIONS] FILE", "--version", "--realtime",
                                 "Exit codes:", "Signals:", "SIGINT", "SIGTERM", "SIGUSR1",
                                 "SIGUSR2", "Examples:", "ZOR_DLOG", "/tmp/.zor-daemon.pid"}) {
            EXPECT_THAT(line.output, HasSubstr(text));
        }
    }
}

TEST(OptionsTest, VersionIsOneLine)
{
    const CommandLine line = Read({"--version"});
    EXPECT_FALSE(line.options.has_value());
    EXPECT_EQ(line.exitCode, 0);
    EXPECT_THAT(line.output, testing::MatchesRegex("zor-tsmon [0-9]+\\.[0-9]+\\.[0-9]+\n"));
}

} // namespace
