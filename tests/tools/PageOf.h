#pragma once

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "ProgramRun.h"

namespace zortest {

/// Runs the recorded program, recording into @p path.
inline void RecordInto(const std::string& path, const std::vector<std::string>& arguments)
{
    const ProgramResult result =
        RunProgram(RECORDED_PROGRAM, arguments,
                   {{"ZOR_RECORD", path}, {"ZOR_RECORD_SIZE", "64M"}, {"ZOR_DLOG", "none"}});
    EXPECT_EQ(result.exitCode, 0) << result.err;
}

/// What zor-record prints.
inline std::string ToolOutput(const std::vector<std::string>& arguments)
{
    const ProgramResult result = RunProgram(RECORD_TOOL, arguments);
    EXPECT_EQ(result.exitCode, 0) << result.err;
    return result.out;
}

/// The data in a page, as a browser would find it: up to the first text that ends its element.
inline nlohmann::json DataIn(const std::string& page)
{
    const std::string begin = "<script id=\"data\" type=\"application/json\">";
    const std::size_t from = page.find(begin);
    EXPECT_NE(from, std::string::npos);
    const std::size_t to = page.find("</script", from);
    return nlohmann::json::parse(page.substr(from + begin.size(), to - from - begin.size()));
}

} // namespace zortest
