#include "PidFile.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "Wait.h"

namespace zortest {
namespace {

constexpr char LOCK_FILE[] = "/tmp/.zor-daemon.pid.test-lock";

bool OwnerIsAlive()
{
    const pid_t owner = static_cast<pid_t>(atol(PidFileText().c_str()));
    return owner > 0 && (kill(owner, 0) == 0 || errno == EPERM);
}

/// A daemon of somebody else may be about to end.
void RemovePidFile()
{
    if (Eventually([] { return !OwnerIsAlive(); })) {
        remove(PID_FILE);
    } else {
        ADD_FAILURE() << PID_FILE << " belongs to the live process " << PidFileText();
    }
}

} // namespace

PidFileGuard::PidFileGuard() : m_lock(open(LOCK_FILE, O_RDWR | O_CREAT | O_CLOEXEC, 0666))
{
    EXPECT_GE(m_lock, 0) << LOCK_FILE;
    EXPECT_EQ(flock(m_lock, LOCK_EX), 0);
    RemovePidFile();
}

PidFileGuard::~PidFileGuard()
{
    RemovePidFile();
    close(m_lock);
}

bool PidFileExists()
{
    struct stat info;
    return lstat(PID_FILE, &info) == 0;
}

std::string PidFileText()
{
    std::ifstream file(PID_FILE);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

unsigned PidFileMode()
{
    struct stat info;
    return lstat(PID_FILE, &info) == 0 ? info.st_mode & 07777 : 0;
}

void LeavePidFile(const std::string& text)
{
    std::ofstream(PID_FILE) << text;
}

} // namespace zortest
