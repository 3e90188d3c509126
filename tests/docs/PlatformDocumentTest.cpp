#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <set>
#include <string>
#include <vector>

#include "Markdown.h"

namespace {

using ::testing::Ge;
using ::testing::HasSubstr;
using ::testing::SizeIs;

/// The dynamic symbols of a library, readable.
///
/// @param which    which of them, as an option of nm
/// @param pattern  how nm prints one of them; its first group is the name
std::set<std::string> Symbols(const std::string& library, const std::string& which,
                              const std::string& pattern)
{
    const std::string command = NM_PROGRAM " -D -C --format=posix " + which + " " + library;
    FILE* const output = popen(command.c_str(), "r");
    if (output == nullptr) {
        ADD_FAILURE() << command;
        return {};
    }
    std::string text;
    char part[4096];
    while (std::fgets(part, sizeof(part), output) != nullptr) {
        text += part;
    }
    EXPECT_EQ(pclose(output), 0) << command;
    const std::vector<std::string> names = zortest::FindAll(text, pattern);
    return {names.begin(), names.end()};
}

/// The bare name of a function or variable: the last component, without parameters.
std::string BareName(const std::string& symbol)
{
    std::string name = symbol.substr(0, symbol.find('('));
    name = name.substr(0, name.find("[abi:"));
    const std::size_t scope = name.rfind("::");
    name = scope == std::string::npos ? name : name.substr(scope + 2);
    return name[0] == '~' ? name.substr(1) : name;
}

TEST(PlatformDocumentTest, NamesAllThatTheRuntimeImportsFromThePlatform)
{
    const std::set<std::string> wanted =
        Symbols(RUNTIME_LIBRARY, "--undefined-only", "([^\n]*) U[ 0]*\n");
    const std::set<std::string> supplied =
        Symbols(PLATFORM_LIBRARY, "--defined-only", "([^\n]*) [A-Z] [0-9a-f]+ [0-9a-f]+ *\n");
    std::set<std::string> imported;
    std::set_intersection(wanted.begin(), wanted.end(), supplied.begin(), supplied.end(),
                          std::inserter(imported, imported.end()));
    ASSERT_THAT(imported, SizeIs(Ge(40U)));
    const std::string document = zortest::SourceText("docs/platform.md");
    for (const std::string& symbol : imported) {
        EXPECT_THAT(document, HasSubstr(BareName(symbol))) << symbol;
    }
}

} // namespace
