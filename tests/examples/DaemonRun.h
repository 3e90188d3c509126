#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "PidFile.h"
#include "TempDirectory.h"

namespace made {

/// How a daemon has ended.
struct Ended
{
    int exitCode = -1; ///< -1 if it was killed by a signal or never started
    std::string output;
    std::string error;
};

/// One run of zor-tsmon.
///
/// Other tests that run daemons, of this build or another, wait while it lives. The pid file is
/// removed before and after, once no daemon lives that could own it.
class Daemon
{
 public:
    /// Starts it.
    ///
    /// @param arguments    behind the program's name
    /// @param log          the value of ZOR_DLOG
    /// @param standardOut  a file to write standard output to instead of returning it; empty for
    ///                     none
    explicit Daemon(const std::vector<std::string>& arguments, const std::string& log = "none",
                    const std::string& standardOut = "");

    /// Kills it if it has not ended.
    ~Daemon();

    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    void Send(int signal) const;

    /// Waits until @p text has been written to standard error, where a log of "stderr" goes.
    ///
    /// @return false if it has not within a minute, or if the daemon has ended without it
    bool AwaitError(const std::string& text) const;

    bool IsRunning() const;

    /// What has been written to standard error so far.
    std::string Error() const;

    /// Waits for its end, which is a test failure after a minute.
    Ended End();

 private:
    TempDirectory m_directory;
    zortest::PidFileGuard m_guard;
    std::string m_standardOut;
    pid_t m_process = 0; ///< 0 if there is none to wait for
};

/// Runs zor-tsmon to its end. See Daemon.
Ended RunDaemon(const std::vector<std::string>& arguments, const std::string& log = "none",
                const std::string& standardOut = "");

} // namespace made
