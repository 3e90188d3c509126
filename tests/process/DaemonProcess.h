#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

/// @file
/// Daemons started by a test.

namespace zortest {

/// One run of a daemon, from its start to its end. A daemon that is still running when this goes is
/// killed.
class DaemonProcess
{
 public:
    /// Starts the daemon @p name, which lies beside the test program.
    ///
    /// @param arguments    the ones behind its name
    /// @param environment  "NAME=value", besides the test's own
    DaemonProcess(const std::string& name, const std::vector<std::string>& arguments,
                  const std::vector<std::string>& environment = {});
    ~DaemonProcess();

    DaemonProcess(const DaemonProcess&) = delete;
    DaemonProcess& operator=(const DaemonProcess&) = delete;

    pid_t Pid() const { return m_pid; }

    /// The path that it was started by.
    const std::string& Path() const { return m_path; }

    /// Closes its standard input.
    void EndInput();

    /// Waits until it has ended.
    /// @return false if it does not in time; it is killed then
    bool WaitForEnd();

    /// After WaitForEnd(): its exit status, or -1 if it has not exited.
    int ExitStatus() const;

    /// After WaitForEnd(): the signal that ended it, or 0.
    int Signal() const;

    /// What it has written to standard output and to standard error so far.
    std::string Output() const;
    std::string Errors() const;

    /// The lines of Output().
    std::vector<std::string> OutputLines() const;

 private:
    std::string m_path;
    pid_t m_pid = -1;
    int m_status = -1;
    bool m_ended = false;
    int m_input = -1;  ///< our end of its standard input
    int m_output = -1; ///< files without a name: it never waits for a reader
    int m_errors = -1;
};

} // namespace zortest
