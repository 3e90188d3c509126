#include <atomic>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <vector>

#include "Census.h"
#include "Debug.h"
#include "Options.h"
#include "Round.h"
#include "Sync.h"
#include "TaskList.h"
#include "WatchdogNotifier.h"

// The program "zor-storm".

namespace {

std::atomic<bool> g_end{false};
std::atomic<const storm::Round*> g_round{nullptr};

void OnSignal(int /*number*/)
{
    g_end = true;
}

/// What the process entry makes.
class Runtime
{
 public:
    Runtime()
    {
        TCSyncDet::Create();
        TCTaskList::m_mutex.Create();
        TCWatchdogNotifier::Init();
    }

    ~Runtime()
    {
        TCWatchdogNotifier::Exit();
        TCTaskList::Finalize();
        TCSyncDet::Destroy();
    }

    Runtime(const Runtime&) = delete;
    Runtime& operator=(const Runtime&) = delete;
};

void OnAssertion(const char* file, unsigned long line)
{
    fprintf(stderr, "zor-storm: an assertion failed: %s:%lu\n", file, line);
    if (const storm::Round* const round = g_round.load(); round != nullptr) {
        round->PrintThreads();
    }
    abort();
}

/// @return how many things are wrong
std::size_t RunRound(const storm::Options& options, std::chrono::seconds length, bool prints)
{
    storm::Round round(options);
    g_round = &round;
    round.Run(length, g_end);
    g_round = nullptr;
    const std::vector<std::string> wrongs = round.Wrongs();
    if (prints || !wrongs.empty()) {
        round.PrintBalance();
    }
    for (const std::string& wrong : wrongs) {
        fprintf(stderr, "zor-storm: does not balance: %s\n", wrong.c_str());
    }
    return wrongs.size();
}

void PrintCensus(const char* what, std::size_t before, std::size_t after, bool isGood)
{
    printf("%-24s %12zu   %12zu  %-28s %s\n", what, before, after, "", isGood ? "" : "WRONG");
}

/// Whether the round has left anything behind.
bool CheckCensus(const storm::Census& before)
{
    storm::Census after;
    const bool isGood = storm::WaitForCensus(before, &after);
    printf("\n%-24s %12s   %12s\n", "left behind", "before", "after");
    PrintCensus("threads", before.threads, after.threads, before.threads == after.threads);
    PrintCensus("descriptors", before.descriptors, after.descriptors,
                before.descriptors == after.descriptors);
    PrintCensus("bytes of heap in use", before.heap, after.heap,
                after.heap <= before.heap + storm::HEAP_TOLERANCE);
    PrintCensus("bytes resident", before.resident, after.resident, true);
    if (!isGood) {
        fprintf(stderr, "zor-storm: something is left behind (see the table)\n");
    }
    return isGood;
}

/// A first round brings what stays until the end of the process: the timers' thread and the
/// platform's, caches, the room that containers keep.
int RunStorm(const storm::Options& options)
{
    constexpr std::chrono::seconds FIRST(1);

    printf("zor-storm: seed %" PRIu64 ", %u threads, %u tasks, %lld s\n", options.seed,
           options.threads, options.tasks, static_cast<long long>(options.length.count()));
    fflush(stdout);
    std::size_t wrongs = RunRound(options, FIRST, false);
    if (wrongs == 0) {
        const std::optional<storm::Census> before = storm::TakeCensusBetweenRounds();
        if (before.has_value()) {
            wrongs = RunRound(options, options.length, true);
            wrongs += CheckCensus(*before) ? 0 : 1;
        } else {
            fprintf(stderr, "zor-storm: the first round has left threads behind\n");
            wrongs = 1;
        }
    }
    printf("\n%s\n", wrongs == 0 ? "everything balances" : "IT DOES NOT BALANCE");
    if (wrongs != 0) {
        fprintf(stderr,
                "zor-storm: try again with: zor-storm --seed %" PRIu64
                " --threads %u --tasks %u --seconds %lld\n",
                options.seed, options.threads, options.tasks,
                static_cast<long long>(options.length.count()));
    }
    return wrongs == 0 ? storm::EXIT_BALANCED : storm::EXIT_UNBALANCED;
}

} // namespace

/// The runtime imports the application's Main(); its own main() is not the one that runs here.
__attribute__((visibility("default"))) int Main()
{
    return 0;
}

int main(int argc, char** argv)
{
    const storm::CommandLine line = storm::ReadCommandLine(argc, argv);
    fputs(line.output.c_str(), stdout);
    fputs(line.error.c_str(), stderr);
    if (!line.options.has_value()) {
        return line.exitCode;
    }
    setenv("ZOR_DLOG", "none", 0); // the storm pauses thousands of times, and each one is logged
    signal(SIGINT, &OnSignal);
    signal(SIGTERM, &OnSignal);
    test::TSCustomAssert::callback = &OnAssertion;
    const Runtime runtime;
    return RunStorm(*line.options);
}
