#include "ChildProcess.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <sstream>

namespace {

/// A child that hangs is ended by SIGALRM.
constexpr unsigned DEADLINE_SEC = 60;

/// Reads until the last writer is gone; a terminal's other end then fails with EIO.
std::string ReadAll(int fd)
{
    std::string all;
    char part[4096];
    for (;;) {
        const ssize_t length = read(fd, part, sizeof(part));
        if (length > 0) {
            all.append(part, length);
        } else if (length == 0 || errno != EINTR) {
            return all;
        }
    }
}

} // namespace

int TSChildResult::ExitCode() const
{
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::vector<std::string> TSChildResult::Lines() const
{
    std::vector<std::string> lines;
    std::istringstream stream(err);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

TCChildProcess::TCChildProcess()
{
    // What the tests' own surroundings say about the log is none of theirs.
    for (const char* name : {"ZOR_DLOG", "JOURNAL_STREAM", "NO_COLOR", "TERM"}) {
        Env(name, "");
    }
}

TCChildProcess& TCChildProcess::Env(const std::string& name, const std::string& value)
{
    m_env.emplace_back(name, value);
    return *this;
}

TCChildProcess& TCChildProcess::OnTerminal()
{
    m_onTerminal = true;
    return *this;
}

TCChildProcess& TCChildProcess::OnJournal()
{
    m_onJournal = true;
    return *this;
}

TSChildResult TCChildProcess::Run(const std::function<int()>& body) const
{
    int readEnd = -1;
    int writeEnd = -1;
    OpenStream(&readEnd, &writeEnd);
    fflush(nullptr);
    TSChildResult result;
    result.pid = fork();
    if (result.pid == 0) {
        RunChild(writeEnd, body);
    }
    close(writeEnd);
    result.err = ReadAll(readEnd);
    close(readEnd);
    while (waitpid(result.pid, &result.status, 0) < 0 && errno == EINTR) {
    }
    return result;
}

void TCChildProcess::OpenStream(int* readEnd, int* writeEnd) const
{
    if (!m_onTerminal) {
        int ends[2];
        ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
        *readEnd = ends[0];
        *writeEnd = ends[1];
        return;
    }
    *readEnd = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_GE(*readEnd, 0);
    ASSERT_EQ(grantpt(*readEnd), 0);
    ASSERT_EQ(unlockpt(*readEnd), 0);
    *writeEnd = open(ptsname(*readEnd), O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_GE(*writeEnd, 0);
    struct termios mode;
    ASSERT_EQ(tcgetattr(*writeEnd, &mode), 0);
    cfmakeraw(&mode);
    ASSERT_EQ(tcsetattr(*writeEnd, TCSANOW, &mode), 0);
}

void TCChildProcess::RunChild(int writeEnd, const std::function<int()>& body) const
{
    alarm(DEADLINE_SEC);
    dup2(writeEnd, STDERR_FILENO);
    for (const auto& [name, value] : m_env) {
        if (value.empty()) {
            unsetenv(name.c_str());
        } else {
            setenv(name.c_str(), value.c_str(), 1);
        }
    }
    struct stat info;
    if (m_onJournal && fstat(STDERR_FILENO, &info) == 0) {
        const std::string stream = std::to_string(info.st_dev) + ":" + std::to_string(info.st_ino);
        setenv("JOURNAL_STREAM", stream.c_str(), 1);
    }
    std::exit(body());
}
