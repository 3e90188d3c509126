// Preloaded into a daemon whose memory is looked at when it has ended: a thread that nobody joins
// may be at its last instructions when the process exits, and has then not freed its thread-local
// block. The process waits for such threads, behind all exit handlers. A thread that never ends is
// not waited for without limit, so that what it keeps is found.

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

namespace {

namespace fs = std::filesystem;

constexpr std::chrono::seconds DEADLINE{60};

/// The supervisor of the host's platform, which runs as long as the process.
constexpr const char* STAYS = "zor-watchdog";

bool AreAllGone()
{
    int left = 0;
    for (const auto& thread : fs::directory_iterator("/proc/self/task")) {
        std::ifstream file(thread.path() / "comm");
        std::string name;
        left += std::getline(file, name) && name != STAYS ? 1 : 0;
    }
    return left <= 1; // this one
}

void WaitForTheEndOfThreads(int /*status*/, void* /*unused*/)
{
    const auto deadline = std::chrono::steady_clock::now() + DEADLINE;
    while (!AreAllGone() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

// Exit handlers run from the last to the first. One that is set before main() and belongs to no
// library comes behind the destructors of all libraries' objects, of which some end threads.
__attribute__((constructor)) void SetLastExitHandler()
{
    on_exit(WaitForTheEndOfThreads, nullptr);
}

} // namespace
