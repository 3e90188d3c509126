#include "DaemonProcess.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <sstream>

#include "Wait.h"

namespace zortest {
namespace {

std::string BesideThisProgram(const std::string& name)
{
    char path[4096];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof(path));
    if (length <= 0) {
        ADD_FAILURE() << "this program has no path";
        return name;
    }
    const std::string self(path, length);
    return self.substr(0, self.rfind('/') + 1) + name;
}

/// Pointers for exec, into @p texts.
std::vector<char*> Pointers(std::vector<std::string>* texts)
{
    std::vector<char*> pointers;
    for (std::string& text : *texts) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

std::string ReadAll(int file)
{
    std::string text;
    char part[4096];
    off_t at = 0;
    for (ssize_t got = 0; (got = pread(file, part, sizeof(part), at)) > 0; at += got) {
        text.append(part, got);
    }
    return text;
}

} // namespace

DaemonProcess::DaemonProcess(const std::string& name, const std::vector<std::string>& arguments,
                             const std::vector<std::string>& environment)
    : m_path(BesideThisProgram(name)),
      m_output(memfd_create("output", MFD_CLOEXEC)),
      m_errors(memfd_create("errors", MFD_CLOEXEC))
{
    std::vector<std::string> allArguments = arguments;
    allArguments.insert(allArguments.begin(), m_path);
    std::vector<std::string> allEnvironment = environment; // the first of a name counts
    for (char** variable = environ; *variable != nullptr; ++variable) {
        allEnvironment.push_back(*variable);
    }

    int input[2] = {-1, -1};
    EXPECT_EQ(pipe2(input, O_CLOEXEC), 0);
    m_input = input[1];
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, input[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, m_output, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, m_errors, STDERR_FILENO);
    const int error = posix_spawn(&m_pid, m_path.c_str(), &actions, nullptr,
                                  Pointers(&allArguments).data(), Pointers(&allEnvironment).data());
    EXPECT_EQ(error, 0) << m_path;
    m_ended = error != 0;
    posix_spawn_file_actions_destroy(&actions);
    close(input[0]);
}

DaemonProcess::~DaemonProcess()
{
    EndInput();
    if (!m_ended) {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, &m_status, 0);
    }
    close(m_output);
    close(m_errors);
}

void DaemonProcess::EndInput()
{
    if (m_input >= 0) {
        close(m_input);
        m_input = -1;
    }
}

bool DaemonProcess::WaitForEnd()
{
    const bool inTime =
        m_ended || Eventually([this] { return waitpid(m_pid, &m_status, WNOHANG) == m_pid; });
    if (!inTime) {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, &m_status, 0);
    }
    m_ended = true;
    return inTime;
}

int DaemonProcess::ExitStatus() const
{
    return m_ended && WIFEXITED(m_status) ? WEXITSTATUS(m_status) : -1;
}

int DaemonProcess::Signal() const
{
    return m_ended && WIFSIGNALED(m_status) ? WTERMSIG(m_status) : 0;
}

std::string DaemonProcess::Output() const
{
    return ReadAll(m_output);
}

std::string DaemonProcess::Errors() const
{
    return ReadAll(m_errors);
}

std::vector<std::string> DaemonProcess::OutputLines() const
{
    std::istringstream output(Output());
    std::vector<std::string> lines;
    for (std::string line; std::getline(output, line);) {
        lines.push_back(line);
    }
    return lines;
}

} // namespace zortest
