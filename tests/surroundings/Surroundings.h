#pragma once

#include <gmock/gmock.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include "ProgramRun.h"

/// @file
/// Programs in surroundings that a shell makes for them. A script finds the command that is tested
/// as "$@" and usually ends with exec "$@".

namespace zortest {

using Command = std::vector<std::string>;

/// What came of a daemon.
struct DaemonResult : ProgramResult
{
    pid_t pid = 0;       ///< the script's, and so the daemon's if the script becomes the daemon
    std::string pidFile; ///< what was in the pid file at the end
};

/// Runs a script of the shell to its end.
DaemonResult RunDaemonIn(const std::string& script, const Command& command,
                         const ProgramRun::Environment& environment = {});

/// The command line of a process in which @p script runs with mounts of its own, as root there. It
/// can use these:
///
///   private_tmp OPTIONS  puts an empty file system with these options of mount(8)'s tmpfs in the
///                        place of /tmp; what was built stays where it was
///   private_dev FILE...  puts a directory with null and empty ordinary files in the place of /dev
///   read_only DIRECTORY  makes one of these places read-only
Command WithOwnMounts(const std::string& script, const Command& command);

/// Why this machine does not let a test have mounts of its own; empty if it does.
const std::string& WhyNoOwnMounts();

/// Matches the table of the sample stream, the whole of it and nothing else.
testing::Matcher<const std::string&> IsTableOfSample();

} // namespace zortest

/// Skips a test that needs mounts of its own.
#define SKIP_WITHOUT_OWN_MOUNTS()                                                               \
    if (!zortest::WhyNoOwnMounts().empty()) {                                                   \
        GTEST_SKIP()                                                                            \
            << "this system gives a test no mounts of its own, which takes the right to mount " \
               "and a root directory that is a mount (not that of a chroot):"                   \
            << zortest::WhyNoOwnMounts();                                                       \
    }                                                                                           \
    static_assert(true)
