#include "Census.h"

#include <malloc.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <thread>

namespace storm {

namespace {

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

bool WaitForCensus(const Census& before, Census* after)
{
    constexpr std::chrono::seconds PATIENCE(60);

    const auto deadline = std::chrono::steady_clock::now() + PATIENCE;
    for (;;) {
        *after = TakeCensus();
        if (after->threads == before.threads && after->descriptors == before.descriptors &&
            after->heap <= before.heap + HEAP_TOLERANCE) {
            return true;
        }
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

} // namespace storm
