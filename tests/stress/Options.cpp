#include "Options.h"

#include <CLI/CLI.hpp>
#include <charconv>
#include <random>
#include <sstream>

namespace storm {

namespace {

constexpr const char* DESCRIPTION =
    "A storm of random operations on tasks: threads create and destroy them, send to them in "
    "every\n"
    "way, pause, resume, ping and clear them, and use their timers, alarms and handlers. Every\n"
    "event is accounted for. At the end a table shows whether the account balances.\n";

constexpr const char* FOOTER =
    "\n"
    "SIGINT and SIGTERM end the storm early, with the same account.\n"
    "\n"
    "Exit codes:\n"
    "  0  everything balances\n"
    "  1  something does not; standard error says what\n"
    "  2  bad options\n"
    "When a thread hangs, or an assertion of the library fails, the process aborts after it has\n"
    "shown what every thread of the storm was doing.\n"
    "\n"
    "Environment:\n"
    "  ZOR_STORM_SEED  the seed, if --seed is not given\n"
    "  ZOR_DLOG        where the library's log goes (default here: none)\n";

/// A whole number between @p least and @p most.
CLI::Validator Between(std::uint64_t least, std::uint64_t most)
{
    const std::string range = std::to_string(least) + " to " + std::to_string(most);
    return CLI::Validator(
        [=](std::string& text) {
            std::uint64_t value = 0;
            const char* end = text.data() + text.size();
            const auto [parsed, error] = std::from_chars(text.data(), end, value);
            const bool isGood =
                error == std::errc() && parsed == end && value >= least && value <= most;
            return isGood ? std::string() : "'" + text + "' is not a number from " + range;
        },
        "");
}

/// An option that takes a number of seconds.
void AddSeconds(CLI::App& app, const char* name, std::chrono::seconds* where, std::uint64_t least,
                const char* description)
{
    constexpr std::uint64_t MONTH = 31UL * 24 * 3600;

    app.add_option_function<std::uint64_t>(
           name,
           [where](const std::uint64_t& seconds) {
               *where = std::chrono::seconds(static_cast<std::int64_t>(seconds));
           },
           description)
        ->check(Between(least, MONTH))
        ->type_name("number of seconds")
        ->option_text("N (default: " + std::to_string(where->count()) + ")");
}

void AddOptions(CLI::App& app, Options& options)
{
    constexpr unsigned MOST = 64;

    AddSeconds(app, "--seconds", &options.length, 1, "How long the storm lasts");
    AddSeconds(app, "--report-every", &options.reportEvery, 0,
               "Print rates and resident memory every N seconds; 0: at\nthe end only");
    AddSeconds(app, "--hang-after", &options.hangAfter, 1,
               "Abort when one operation has lasted for N seconds");
    app.add_option("--seed", options.seed,
                   "Where the random numbers start. It is printed, so that a\n"
                   "failure can be tried again (default: a random one)")
        ->check(Between(0, ~UINT64_C(0)))
        ->envname("ZOR_STORM_SEED")
        ->option_text("N");
    app.add_option("--threads", options.threads, "How many threads operate, 1 to 64")
        ->check(Between(1, MOST))
        ->option_text("N (default: " + std::to_string(options.threads) + ")");
    app.add_option("--tasks", options.tasks, "How many tasks there are at most, 1 to 64")
        ->check(Between(1, MOST))
        ->option_text("N (default: " + std::to_string(options.tasks) + ")");
}

} // namespace

CommandLine ReadCommandLine(int argc, const char* const* argv)
{
    Options options;
    options.seed = std::random_device()();
    CLI::App app(DESCRIPTION, "zor-storm");
    app.footer(FOOTER);
    app.set_help_flag("-h,--help", "Print this help and exit");
    AddOptions(app, options);
    app.failure_message([](const CLI::App* /*app*/, const CLI::Error& error) {
        return std::string("zor-storm: ") + error.what() +
               "\nRun 'zor-storm --help' for more information.\n";
    });
    CommandLine result;
    try {
        app.parse(argc, argv);
        result.options = options;
    } catch (const CLI::ParseError& error) {
        std::ostringstream output;
        std::ostringstream complaint;
        result.exitCode = app.exit(error, output, complaint) == 0 ? EXIT_BALANCED : EXIT_USAGE;
        result.output = output.str();
        result.error = complaint.str();
    }
    return result;
}

} // namespace storm
