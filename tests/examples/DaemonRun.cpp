#include "DaemonRun.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <utility>

#include "Wait.h"

namespace made {

namespace {

constexpr int DEADLINE_MS = 60 * 1000;

std::string ReadText(const std::string& path)
{
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

/// Waits until the process is gone.
///
/// @return false if it was still there at the deadline
bool AwaitEnd(pid_t process)
{
    // The C library's header for this function cannot be used from C++.
    const int handle = static_cast<int>(syscall(SYS_pidfd_open, process, 0));
    if (handle < 0) {
        return true;
    }
    pollfd event = {handle, POLLIN, 0};
    const int ready = poll(&event, 1, DEADLINE_MS);
    close(handle);
    return ready > 0;
}

std::vector<char*> Pointers(std::vector<std::string>& texts)
{
    std::vector<char*> pointers;
    for (std::string& text : texts) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

std::vector<std::string> EnvironmentWith(const std::string& log)
{
    std::vector<std::string> environment = {"ZOR_DLOG=" + log};
    for (char** each = environ; *each != nullptr; ++each) {
        const std::string variable = *each;
        if (variable.rfind("ZOR_DLOG=", 0) != 0 && variable.rfind("COLUMNS=", 0) != 0) {
            environment.push_back(variable);
        }
    }
    return environment;
}

/// @return the daemon's process id, 0 if it could not be started
pid_t Start(std::vector<std::string> arguments, const std::string& log, const std::string& out,
            const std::string& err)
{
    arguments.insert(arguments.begin(), TSMON_PROGRAM);
    std::vector<std::string> environment = EnvironmentWith(log);
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    constexpr int FLAGS = O_WRONLY | O_CREAT | O_TRUNC;
    posix_spawn_file_actions_addopen(&files, STDOUT_FILENO, out.c_str(), FLAGS, 0600);
    posix_spawn_file_actions_addopen(&files, STDERR_FILENO, err.c_str(), FLAGS, 0600);
    pid_t process = 0;
    const int result = posix_spawn(&process, TSMON_PROGRAM, &files, nullptr,
                                   Pointers(arguments).data(), Pointers(environment).data());
    posix_spawn_file_actions_destroy(&files);
    EXPECT_EQ(result, 0) << TSMON_PROGRAM;
    return result == 0 ? process : 0;
}

int ExitCodeOf(pid_t process)
{
    if (!AwaitEnd(process)) {
        ADD_FAILURE() << "the daemon did not end";
        kill(process, SIGKILL);
    }
    int status = 0;
    EXPECT_EQ(waitpid(process, &status, 0), process);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

} // namespace

Daemon::Daemon(const std::vector<std::string>& arguments, const std::string& log,
               const std::string& standardOut)
    : m_standardOut(standardOut)
{
    const std::string out = standardOut.empty() ? m_directory.Path("out") : standardOut;
    m_process = Start(arguments, log, out, m_directory.Path("err"));
}

Daemon::~Daemon()
{
    if (m_process != 0) {
        kill(m_process, SIGKILL);
        waitpid(m_process, nullptr, 0);
    }
}

void Daemon::Send(int signal) const
{
    EXPECT_NE(m_process, 0);
    EXPECT_EQ(kill(m_process, signal), 0);
}

bool Daemon::AwaitError(const std::string& text) const
{
    bool found = false;
    const bool settled = zortest::Eventually([&] {
        // Looked at before the text, which may be the last that the daemon writes.
        const bool running = IsRunning();
        found = Error().find(text) != std::string::npos;
        return found || !running;
    });
    return settled && found;
}

bool Daemon::IsRunning() const
{
    siginfo_t info = {};
    return m_process != 0 &&
           waitid(P_PID, static_cast<id_t>(m_process), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           info.si_pid == 0;
}

std::string Daemon::Error() const
{
    return ReadText(m_directory.Path("err"));
}

Ended Daemon::End()
{
    Ended ended;
    if (const pid_t process = std::exchange(m_process, 0)) {
        ended.exitCode = ExitCodeOf(process);
        EXPECT_EQ(zortest::PidFileText(), std::to_string(process))
            << "another daemon was in the way";
    }
    ended.output = m_standardOut.empty() ? ReadText(m_directory.Path("out")) : "";
    ended.error = Error();
    return ended;
}

Ended RunDaemon(const std::vector<std::string>& arguments, const std::string& log,
                const std::string& standardOut)
{
    return Daemon(arguments, log, standardOut).End();
}

} // namespace made
