#include "KnownThread.h"

#include <fcntl.h>
#include <unistd.h>

namespace zor::testing::internal {
namespace {

constexpr char SLEEPS[] = "\nState:\tS";
constexpr char SWITCHES[] = "\nvoluntary_ctxt_switches:";
constexpr char NAME[] = "Name:\t";

/// Not by a stream: the caller holds the lock that stands behind every condition variable.
std::string StatusOf(pid_t kernelId)
{
    const std::string path = "/proc/self/task/" + std::to_string(kernelId) + "/status";
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (file < 0) {
        return "";
    }
    char text[4096];
    const ssize_t size = read(file, text, sizeof(text));
    close(file);
    return size > 0 ? std::string(text, static_cast<std::size_t>(size)) : "";
}

} // namespace

bool KnownThread::IsStuckElsewhere()
{
    if (kernelId == 0) {
        return false;
    }
    const std::string status = StatusOf(kernelId);
    const std::size_t found = status.find(SWITCHES);
    const std::string now = found == std::string::npos ? "" : status.substr(found);
    if (status.find(SLEEPS) == std::string::npos || now != switches) {
        looksAsleep = 0;
        switches = now;
        return false;
    }
    ++looksAsleep;
    return SeemedStuck();
}

std::string KnownThread::Name() const
{
    const std::string status = StatusOf(kernelId);
    const std::size_t end = status.find('\n');
    constexpr std::size_t BEGIN = sizeof(NAME) - 1;
    return end == std::string::npos || end < BEGIN ? "a thread that has not begun"
                                                   : status.substr(BEGIN, end - BEGIN);
}

} // namespace zor::testing::internal
