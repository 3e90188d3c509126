// The tutorial's step with the simulator: its commands are run, in order, and print what it shows.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "Markdown.h"
#include "PidFile.h"
#include "ZorSim.h"

namespace {

constexpr char PROMPT[] = "$ ";

/// A line without what differs from machine to machine: numbers, directories, and how wide columns
/// are.
std::string Essence(const std::string& line)
{
    std::string essence = std::regex_replace(line, std::regex("[^ (]*/"), "");
    essence = std::regex_replace(essence, std::regex("[0-9]+(\\.[0-9]+)?"), "N");
    return std::regex_replace(essence, std::regex(" +"), " ");
}

std::vector<std::string> Lines(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

/// The test's own directory, as long as it runs.
class TutorialSimTest : public testing::Test
{
 protected:
    TutorialSimTest()
    {
        std::filesystem::create_directory(m_directory);
        setenv("ZOR_DLOG", "none", 1);
    }
    ~TutorialSimTest() override { std::filesystem::remove_all(m_directory); }

    /// Runs a command as it stands in the tutorial, but with the seed that was found here.
    Ran Run(const std::string& shown)
    {
        std::string command =
            std::regex_replace(shown, std::regex("--shrink [0-9]+"), "--shrink " + m_seed);
        command = std::regex_replace(command, std::regex("^zor-sim"), SIM_TOOL);
        command = std::regex_replace(command, std::regex("\\./step"), STEPS "/step");
        Ran ran = RunShell("cd " + m_directory + " && { " + command + "; }");
        const std::string repeat = LineAfter(ran.text, "repeat: zor-sim --seed ");
        m_seed = repeat.empty() ? m_seed : repeat.substr(0, repeat.find(' '));
        return ran;
    }

    /// Each line of @p shown stands in @p printed, in this order; "..." stands for any others.
    static void ExpectShown(const std::vector<std::string>& shown, const std::string& printed)
    {
        const std::vector<std::string> lines = Lines(printed);
        auto at = lines.begin();
        for (std::size_t i = 1; i < shown.size(); ++i) {
            if (shown[i] == "...") {
                continue;
            }
            while (at != lines.end() && Essence(*at) != Essence(shown[i])) {
                ++at;
            }
            ASSERT_NE(at, lines.end())
                << "'" << shown[i] << "' is not behind what comes before it in\n"
                << printed;
            ++at;
        }
    }

    zortest::PidFileGuard m_pidFile;
    const std::string m_directory = testing::TempDir() + "tutorial-sim-" + std::to_string(getpid());
    std::string m_seed = "0";
};

TEST_F(TutorialSimTest, CommandsPrintWhatTheTutorialSays)
{
    int commands = 0;
    for (const zortest::Block& block :
         zortest::BlocksOf(zortest::SourceText("docs/writing-a-daemon.md"))) {
        if (block.note != "run of step8") {
            continue;
        }
        const std::vector<std::string> shown = Lines(block.text);
        ASSERT_GE(shown.size(), 2U) << block.text;
        ASSERT_EQ(shown[0].rfind(PROMPT, 0), 0U) << block.text;
        ExpectShown(shown, Run(shown[0].substr(sizeof(PROMPT) - 1)).text);
        ++commands;
    }
    EXPECT_EQ(commands, 5);
}

} // namespace
