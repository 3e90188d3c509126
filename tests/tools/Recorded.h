#pragma once

#include <gtest/gtest.h>

#include <string>

#include "ProgramRun.h"
#include "Reader.h"

namespace zortest {

/// What the recorded program records of what it is told to do.
inline zorrecord::Recording Recorded(const std::string& what)
{
    const ScratchDirectory directory;
    const std::string path = directory.Path("calls.zor");
    const ProgramResult result = RunProgram(RECORDED_PROGRAM, {what}, {{"ZOR_RECORD", path}});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    return zorrecord::ReadFile(path);
}

} // namespace zortest
