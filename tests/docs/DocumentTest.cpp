#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "Markdown.h"

namespace {

using ::testing::Contains;
using ::testing::Ge;
using ::testing::HasSubstr;
using ::testing::SizeIs;
using zortest::Block;
using zortest::FindAll;

/// The documents, by their names below the source tree.
std::vector<std::string> Documents()
{
    std::vector<std::string> names = {"README.md", "CONTRIBUTING.md"};
    for (const std::string& name : zortest::SourceFiles("docs", ".md")) {
        names.push_back("docs/" + name);
    }
    return names;
}

/// All sources of the runtime, one behind the other.
std::string RuntimeSources()
{
    std::string text;
    for (const auto& [directory, extension] :
         {std::pair<const char*, const char*>("src", ".cpp"), {"inc", ".h"}}) {
        for (const std::string& name : zortest::SourceFiles(directory, extension)) {
            text += zortest::SourceText(std::string(directory) + '/' + name);
        }
    }
    return text;
}

/// The sources of the tests that have a fixture for each component, one behind the other.
std::string TestSources()
{
    std::string text;
    for (const char* directory : {"tests/unit", "tests/process", "tests/faults"}) {
        for (const std::string& name : zortest::SourceFiles(directory, ".cpp")) {
            text += zortest::SourceText(std::string(directory) + '/' + name);
        }
    }
    return text;
}

TEST(DocumentTest, TutorialShowsEachStepToTheLetter)
{
    const std::vector<Block> blocks =
        zortest::BlocksOf(zortest::SourceText("docs/writing-a-daemon.md"));
    const std::vector<std::string> steps = zortest::SourceFiles("docs/tutorial", ".cpp");
    ASSERT_THAT(steps, SizeIs(9));
    for (const std::string& step : steps) {
        std::string shown;
        for (const Block& block : blocks) {
            if (block.note == "tutorial/" + step) {
                shown += (shown.empty() ? "" : "\n") + block.text;
            }
        }
        EXPECT_EQ(shown, zortest::SourceText("docs/tutorial/" + step)) << step;
    }
}

TEST(DocumentTest, NoCodeOfTheTutorialIsOutsideItsSteps)
{
    const std::vector<std::string> steps = zortest::SourceFiles("docs/tutorial", ".cpp");
    for (const Block& block : zortest::BlocksOf(zortest::SourceText("docs/writing-a-daemon.md"))) {
        if (block.language == "cpp") {
            ASSERT_THAT(block.note, HasSubstr("tutorial/")) << block.text;
            EXPECT_THAT(steps, Contains(block.note.substr(sizeof("tutorial/") - 1)));
        }
    }
}

TEST(DocumentTest, SecondFormsAreShownToTheLetter)
{
    const std::vector<Block> blocks =
        zortest::BlocksOf(zortest::SourceText("docs/events-to-messages.md"));
    const std::vector<std::string> steps = zortest::SourceFiles("docs/tutorial/kit", ".cpp");
    EXPECT_THAT(steps, SizeIs(Ge(5U)));
    for (const std::string& step : steps) {
        std::string shown;
        for (const Block& block : blocks) {
            if (block.note == "tutorial/kit/" + step) {
                shown += (shown.empty() ? "" : "\n") + block.text;
            }
        }
        EXPECT_EQ(shown, zortest::SourceText("docs/tutorial/kit/" + step)) << step;
    }
}

TEST(DocumentTest, FirstFormsBesideThemAreTheTutorials)
{
    const std::string excerpt = "excerpt of ";
    int excerpts = 0;
    for (const Block& block :
         zortest::BlocksOf(zortest::SourceText("docs/events-to-messages.md"))) {
        if (block.note.rfind(excerpt, 0) == 0) {
            ++excerpts;
            EXPECT_THAT(zortest::SourceText("docs/" + block.note.substr(excerpt.size())),
                        HasSubstr(block.text));
        } else if (block.language == "cpp") {
            EXPECT_THAT(block.note, HasSubstr("tutorial/kit/")) << block.text;
        }
    }
    EXPECT_GE(excerpts, 4);
}

TEST(DocumentTest, ReadmeShowsTheSmallestDaemonToTheLetter)
{
    const std::vector<Block> blocks = zortest::BlocksOf(zortest::SourceText("README.md"));
    const auto code = std::find_if(blocks.begin(), blocks.end(),
                                   [](const Block& block) { return block.language == "cpp"; });
    ASSERT_NE(code, blocks.end());
    EXPECT_EQ(code->text, zortest::SourceText("examples/hello/hello.cpp"));
}

TEST(DocumentTest, ReadmeQuotesWhatOtherSystemsAreTold)
{
    const std::vector<std::string> told =
        FindAll(zortest::SourceText("inc/ZorExport.h"), "#error[^\"]*\"([^\"]*)\"");
    ASSERT_THAT(told, SizeIs(1U));
    EXPECT_THAT(zortest::SourceText("README.md"), HasSubstr("\n> " + told[0] + '\n'));
}

TEST(DocumentTest, EveryLinkLeadsSomewhere)
{
    for (const std::string& document : Documents()) {
        const std::string directory = document.substr(0, document.rfind('/') + 1);
        const std::string prose = zortest::ProseOf(zortest::SourceText(document));
        for (const std::string& link : FindAll(prose, R"(\]\(([^)#]+)\))")) {
            const bool elsewhere = link.find("://") != std::string::npos;
            EXPECT_TRUE(elsewhere || zortest::SourceExists(directory + link))
                << document << " links to " << link;
        }
    }
}

TEST(DocumentTest, ReadmeLinksEveryDocument)
{
    const std::string readme = zortest::SourceText("README.md");
    const std::vector<std::string> documents = zortest::SourceFiles("docs", ".md");
    EXPECT_THAT(documents, SizeIs(Ge(4U)));
    for (const std::string& name : documents) {
        EXPECT_THAT(readme, HasSubstr("(docs/" + name + ")"));
    }
}

TEST(DocumentTest, QuotedAssertionsAreTheRuntimes)
{
    const std::string sources = RuntimeSources();
    const std::vector<std::string> quoted =
        FindAll(zortest::SourceText("docs/debugging.md"), "\n\\| `([^`]*)` \\| asserted \\|");
    ASSERT_THAT(quoted, SizeIs(Ge(10U)));
    for (const std::string& text : quoted) {
        EXPECT_THAT(sources, HasSubstr("TCASSERT(" + text + ");"));
    }
}

TEST(DocumentTest, QuotedLogLinesAreTheRuntimes)
{
    const std::string sources = RuntimeSources();
    const std::vector<std::string> quoted =
        FindAll(zortest::SourceText("docs/debugging.md"), "\n\\| `([^`]*)` \\| logged \\|");
    ASSERT_THAT(quoted, SizeIs(Ge(5U)));
    for (const std::string& text : quoted) {
        EXPECT_THAT(sources, HasSubstr(text));
    }
}

/// What must not be repaired is in the source that the page names, and there is a test that holds
/// it.
TEST(DocumentTest, FixedBehaviourIsWhereThePageSaysAndHeldByTests)
{
    const std::string tests = TestSources();
    const std::vector<std::string> rows =
        FindAll(zortest::SourceText("docs/fixed.md"), "\n(\\| [^\n]*`(src|inc)/[^\n]*)");
    ASSERT_THAT(rows, SizeIs(Ge(35U)));
    for (const std::string& row : rows) {
        std::string sources;
        for (const std::string& name : FindAll(row, "`((src|inc)/[A-Za-z]+\\.(cpp|h))`")) {
            sources += zortest::SourceText(name);
        }
        for (const std::string& text : FindAll(row, "`\"([^`]*)\"`")) {
            EXPECT_THAT(sources, HasSubstr(text)) << row;
        }
        const std::vector<std::string> holders = FindAll(row, "`([A-Za-z]+Test\\.[A-Za-z0-9]+)`");
        EXPECT_THAT(holders, SizeIs(Ge(1U))) << row;
        for (const std::string& holder : holders) {
            const std::size_t dot = holder.find('.');
            EXPECT_THAT(
                tests, HasSubstr('(' + holder.substr(0, dot) + ", " + holder.substr(dot + 1) + ')'))
                << row;
        }
    }
}

/// What a document calls by a name that stands in backquotes and has the shape of a source file is
/// one.
TEST(DocumentTest, EveryFileThatIsNamedExists)
{
    for (const std::string& document : Documents()) {
        const std::string prose = zortest::ProseOf(zortest::SourceText(document));
        for (const std::string& name : FindAll(prose,
                                               "`((src|inc|platform|tests|docs|scripts|examples)/"
                                               "[A-Za-z0-9_/.-]+\\.(cpp|h|md|sh|txt))`")) {
            if (name != "inc/Name.h" && name != "src/Name.cpp" &&
                name != "tests/unit/NameTest.cpp") { // CONTRIBUTING's pattern for a new component
                EXPECT_TRUE(zortest::SourceExists(name)) << document << " names " << name;
            }
        }
    }
}

} // namespace
