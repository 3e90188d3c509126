#include "Census.h"

#include <malloc.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "Wait.h"

namespace storm {

namespace {

using zortest::Eventually;

std::size_t EntriesOf(const char* directory)
{
    const std::filesystem::directory_iterator entries(directory);
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

std::size_t ResidentBytes()
{
    std::ifstream file("/proc/self/statm");
    std::size_t total = 0;
    std::size_t resident = 0;
    file >> total >> resident;
    return resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

/// Threads of the storm, of its tasks, of their queues and of their alarms. One that has only just
/// begun has its creator's name, but nobody looks then.
bool HasThreadsOfRounds()
{
    for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream file(thread.path() / "comm");
        std::string name;
        std::getline(file, name); // empty if the thread has gone meanwhile
        for (const char* const prefix : {"storm-", "MQEventNotify", "TCAlarm:"}) {
            if (name.compare(0, strlen(prefix), prefix) == 0) {
                return true;
            }
        }
    }
    return false;
}

} // namespace

Census TakeCensus()
{
    Census census;
    census.threads = EntriesOf("/proc/self/task");
    census.descriptors = EntriesOf("/proc/self/fd");
    census.heap = mallinfo2().uordblks;
    census.resident = ResidentBytes();
    return census;
}

std::optional<Census> TakeCensusBetweenRounds()
{
    if (!Eventually([] { return !HasThreadsOfRounds(); })) {
        return std::nullopt;
    }
    return TakeCensus();
}

bool WaitForCensus(const Census& before, Census* after)
{
    return Eventually([&] {
        *after = TakeCensus();
        return after->threads == before.threads && after->descriptors == before.descriptors &&
               after->heap <= before.heap + HEAP_TOLERANCE;
    });
}

} // namespace storm
