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

TEST(OptionsTest, DefaultsAreATableAtTheEnd)
{
    const CommandLine line = Read({"a.ts"});
    ASSERT_TRUE(line.options.has_value());
    EXPECT_EQ(line.options->format, tsmon::Format::TEXT);
    EXPECT_EQ(line.options->every.count(), 0);
    EXPECT_EQ(line.options->inputTimeout, std::chrono::seconds(5));
    EXPECT_EQ(line.options->InputName(), "a.ts");
}

TEST(OptionsTest, ValuesAreTaken)
{
    const CommandLine line = Read({"--every", "86400", "--input-timeout=1", "--format=text", "-"});
    ASSERT_TRUE(line.options.has_value()) << line.error;
    EXPECT_EQ(line.options->every, std::chrono::seconds(86400));
    EXPECT_EQ(line.options->inputTimeout, std::chrono::seconds(1));
    EXPECT_EQ(line.options->format, tsmon::Format::TEXT);
    EXPECT_EQ(line.options->InputName(), "standard input");
    const CommandLine json = Read({"--format", "json", "a.ts"});
    ASSERT_TRUE(json.options.has_value()) << json.error;
    EXPECT_EQ(json.options->format, tsmon::Format::JSON);
}

TEST(OptionsTest, UnknownFormatIsNamedWithThoseThatThereAre)
{
    for (const char* format : {"xml", "JSON", ""}) {
        const CommandLine line = Read({"--format", format, "a.ts"});
        ExpectRefused(line);
        EXPECT_THAT(line.error, HasSubstr("--format: '" + std::string(format) +
                                          "' is no format; there are text and json"));
    }
}

TEST(OptionsTest, SecondsThatAreNoneAreNamedWithTheirRange)
{
    for (const char* option : {"--every", "--input-timeout"}) {
        for (const char* value : {"0", "86401", "1.5", "soon", "", "5s", "99999999999"}) {
            const CommandLine line = Read({option, value, "a.ts"});
            ExpectRefused(line);
            EXPECT_THAT(line.error, HasSubstr(std::string(option) + ": '" + value +
                                              "' is not a number of seconds from 1 to 86400"));
        }
        const std::string negative = std::string(option) + "=-1";
        ExpectRefused(Read({negative.c_str(), "a.ts"}));
    }
}

TEST(OptionsTest, OptionWithoutItsValueIsNamed)
{
    for (const char* option : {"--every", "--input-timeout", "--format"}) {
        const CommandLine line = Read({"a.ts", option});
        ExpectRefused(line);
        EXPECT_THAT(line.error, HasSubstr(option));
    }
}

TEST(OptionsTest, RepeatedTablesAndOneDocumentExcludeEachOther)
{
    const CommandLine line = Read({"--format", "json", "--every", "5", "a.ts"});
    ExpectRefused(line);
    EXPECT_THAT(line.error, HasSubstr("--every: cannot be had with --format json"));
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
        for (const char* text :
             {"Usage: zor-tsmon [OPTIONS] FILE", "--version", "--realtime", "--every N",
              "--format text|json (default: text)", "--input-timeout N (default: 5)", "seconds",
              "kbit", "COLUMNS", "Exit codes:", "Signals:", "SIGINT", "SIGTERM", "SIGUSR1",
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
