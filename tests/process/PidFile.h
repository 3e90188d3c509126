#pragma once

#include <string>

namespace zortest {

/// The one pid file of all daemons.
constexpr char PID_FILE[] = "/tmp/.zor-daemon.pid";

/// Keeps the pid file to this process while it lives: other runs of the tests on the machine, say
/// of another build, wait. The file is removed when it is made and when it goes, but not from a
/// process that is alive: that fails the test.
class PidFileGuard
{
 public:
    PidFileGuard();
    ~PidFileGuard();

    PidFileGuard(const PidFileGuard&) = delete;
    PidFileGuard& operator=(const PidFileGuard&) = delete;

 private:
    int m_lock;
};

bool PidFileExists();

/// The contents of the pid file; empty if there is none.
std::string PidFileText();

/// The permissions of the pid file; 0 if there is none.
unsigned PidFileMode();

/// Makes a pid file as an earlier run would have left it.
void LeavePidFile(const std::string& text);

} // namespace zortest
