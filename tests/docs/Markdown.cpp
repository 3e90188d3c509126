#include "Markdown.h"

#include <gtest/gtest.h>
#include <regex.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace zortest {
namespace {

constexpr char FENCE[] = "```";
constexpr char COMMENT_BEGIN[] = "<!-- ";
constexpr char COMMENT_END[] = " -->";

std::filesystem::path InSources(const std::string& name)
{
    return std::filesystem::path(DOCS_SOURCE_DIR) / name;
}

bool StartsWith(const std::string& text, const std::string& what)
{
    return text.compare(0, what.size(), what) == 0;
}

/// The text of a line that is a comment; empty if it is none.
std::string CommentText(const std::string& line)
{
    const std::size_t end = line.rfind(COMMENT_END);
    const std::size_t begin = sizeof(COMMENT_BEGIN) - 1;
    return StartsWith(line, COMMENT_BEGIN) && end != std::string::npos
               ? line.substr(begin, end - begin)
               : std::string();
}

/// Calls @p block with every fenced block and @p prose with every other line.
template <typename OnBlock, typename OnProse>
void Read(const std::string& text, const OnBlock& onBlock, const OnProse& onProse)
{
    std::istringstream lines(text);
    std::string before;
    for (std::string line; std::getline(lines, line);) {
        if (StartsWith(line, FENCE)) {
            Block block;
            block.language = line.substr(sizeof(FENCE) - 1);
            block.note = CommentText(before);
            while (std::getline(lines, line) && line != FENCE) {
                block.text += line + '\n';
            }
            onBlock(block);
        } else {
            onProse(line);
        }
        before = line;
    }
}

} // namespace

std::string SourceText(const std::string& name)
{
    std::ifstream file(InSources(name), std::ios::binary);
    EXPECT_TRUE(file) << name << " cannot be read";
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

std::vector<std::string> SourceFiles(const std::string& directory, const std::string& extension)
{
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(InSources(directory))) {
        if (entry.path().extension() == extension) {
            names.push_back(entry.path().filename().string());
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

bool SourceExists(const std::string& name)
{
    return std::filesystem::exists(InSources(name));
}

std::vector<std::string> FindAll(const std::string& text, const std::string& pattern)
{
    regex_t regex;
    const int error = regcomp(&regex, pattern.c_str(), REG_EXTENDED);
    EXPECT_EQ(error, 0) << pattern;
    if (error != 0) {
        return {};
    }
    std::vector<std::string> found;
    regmatch_t match[2];
    for (const char* at = text.c_str(); regexec(&regex, at, 2, match, 0) == 0;
         at += match[0].rm_eo) {
        found.emplace_back(at + match[1].rm_so, at + match[1].rm_eo);
    }
    regfree(&regex);
    return found;
}

std::vector<Block> BlocksOf(const std::string& text)
{
    std::vector<Block> blocks;
    Read(
        text, [&](const Block& block) { blocks.push_back(block); }, [](const std::string&) {});
    return blocks;
}

std::string ProseOf(const std::string& text)
{
    std::string prose;
    Read(
        text, [](const Block&) {}, [&](const std::string& line) { prose += line + '\n'; });
    return prose;
}

std::string BlockWithNote(const std::vector<Block>& blocks, const std::string& note)
{
    const auto has = [&](const Block& block) { return block.note == note; };
    EXPECT_EQ(std::count_if(blocks.begin(), blocks.end(), has), 1) << note;
    const auto found = std::find_if(blocks.begin(), blocks.end(), has);
    return found != blocks.end() ? found->text : std::string();
}

} // namespace zortest
