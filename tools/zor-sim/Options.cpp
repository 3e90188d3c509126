#include "Options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <iostream>
#include <sstream>

#include "Tool.h"

namespace zorsim {

namespace {

constexpr const char* DESCRIPTION =
    "Runs an unmodified program with threads so that one thread runs at a time, a seed decides "
    "which\n"
    "one at every operation that synchronises, and time is virtual: when all wait, the clock jumps "
    "to\n"
    "the earliest deadline. What a seed finds, the same seed finds again.\n";

constexpr const char* FOOTER =
    "\n"
    "What is found: a status that is not 0 (a failed test), an assertion or abort, a crash, a "
    "deadlock,\n"
    "a wait that does not end, a thread that spins, and a run beyond its limits.\n"
    "\n"
    "Exit codes:\n"
    "  0  nothing was found\n"
    "  1  something was found; the seed, what it is and the line that repeats it are printed\n"
    "  2  bad options, or a program that does what is not simulated\n"
    "\n"
    "Examples:\n"
    "  zor-sim --seeds 1..1000 -- ./my-test\n"
    "  zor-sim --seed 17 --gdb -- ./my-test\n"
    "  zor-sim --shrink 17 --trace - -- ./my-test\n";

constexpr const char* STRATEGIES[] = {"random", "sticky", "pct"};

/// Options as they are written.
struct Texts
{
    std::string seeds;
    std::string seed;
    std::string shrink;
    double stallMsec = 0;
    double spurious = 0;
    double endlessSec = 3600;
    std::uint64_t steps = 50000000;
    std::uint64_t length = 0;
    std::uint32_t changePoints = 3;
    std::uint64_t traceSteps = 200000;
};

std::uint64_t Number(const std::string& text)
{
    std::size_t end = 0;
    std::uint64_t number = 0;
    if (!text.empty() && text.find_first_not_of("0123456789") == std::string::npos) {
        number = std::stoull(text, &end);
    }
    if (end == 0) {
        throw CLI::ValidationError("'" + text + "' is not a seed; seeds are numbers");
    }
    return number;
}

void ReadSeeds(const Texts& texts, Options* options)
{
    const std::string& one = !texts.shrink.empty() ? texts.shrink : texts.seed;
    options->shrink = !texts.shrink.empty();
    options->isOneSeed = !one.empty() || !options->replayFile.empty();
    if (!one.empty()) {
        options->firstSeed = options->lastSeed = Number(one);
    } else if (!texts.seeds.empty()) {
        const std::size_t dots = texts.seeds.find("..");
        if (dots == std::string::npos) {
            throw CLI::ValidationError("--seeds is written A..B, like 1..1000");
        }
        options->firstSeed = Number(texts.seeds.substr(0, dots));
        options->lastSeed = Number(texts.seeds.substr(dots + 2));
        if (options->lastSeed < options->firstSeed) {
            throw CLI::ValidationError("--seeds A..B: the last seed is before the first");
        }
    } else if (options->replayFile.empty()) {
        options->lastSeed = 100;
    }
}

void AddSeeds(CLI::App& app, Options* options, Texts* texts)
{
    CLI::Option* const seeds =
        app.add_option("--seeds", texts->seeds, "The seeds to run (1..100 unless given)");
    CLI::Option* const seed = app.add_option("--seed", texts->seed, "Run this one, and show it");
    CLI::Option* const shrink =
        app.add_option("--shrink", texts->shrink,
                       "Find the fewest decisions that still make this seed's run fail");
    CLI::Option* const replay =
        app.add_option("--replay", options->replayFile, "Run with the decisions of this file");
    seeds->option_text("A..B")->excludes(seed)->excludes(shrink)->excludes(replay);
    seed->option_text("N")->excludes(shrink);
    shrink->option_text("SEED")->excludes(replay);
    replay->option_text("FILE");
    app.add_option("--decisions", options->decisionsFile,
                   "Write the decisions of the run here, for --replay")
        ->option_text("FILE");
    app.add_option("--strategy", options->strategy, "Who goes first (default mixed)")
        ->check(CLI::IsMember({"random", "sticky", "pct", "mixed"}))
        ->option_text("random|sticky|pct|mixed");
    app.add_option("--depth", texts->changePoints, "Changes of priority with pct (default 3)")
        ->check(CLI::Range(1, 16))
        ->option_text("D");
    app.add_option("--length", texts->length, "Decisions of a run with pct (measured unless given)")
        ->option_text("N");
}

void AddBehaviour(CLI::App& app, Options* options, Texts* texts)
{
    app.add_option("--stall", texts->stallMsec,
                   "Now and then let a deadline up to MS milliseconds away come first")
        ->check(CLI::NonNegativeNumber)
        ->option_text("MS");
    app.add_option("--spurious", texts->spurious,
                   "Let waits end for no reason with this probability")
        ->check(CLI::Range(0.0, 0.5))
        ->option_text("P");
    app.add_option(
           "--endless", texts->endlessSec,
           "Find waits without a deadline of so many virtual seconds (default 3600; 0: none)")
        ->check(CLI::NonNegativeNumber)
        ->option_text("S");
    app.add_option("--limit", options->run.limitSec,
                   "Real seconds that a run may take (default 60)")
        ->check(CLI::PositiveNumber)
        ->option_text("S");
    app.add_option(
           "--spin", options->run.spinSec,
           "Seconds of processor time without a step after which a thread spins (default 5)")
        ->check(CLI::PositiveNumber)
        ->option_text("S");
    app.add_option("--steps", texts->steps, "Steps that a run may take (default 50000000)")
        ->check(CLI::PositiveNumber)
        ->option_text("N");
    app.add_option(
           "--remove", options->run.filesToRemove,
           "Remove this file before every run, such as the pid file of a daemon; repeatable")
        ->allow_extra_args(false)
        ->option_text("FILE");
    app.add_option("--jobs", options->jobs, "Runs at a time (default 1)")
        ->check(CLI::Range(1, 256))
        ->option_text("N");
    app.add_flag("--keep-going", options->keepGoing, "Run all seeds, and count what is found");
    app.add_flag("--verify", options->verify, "Run every seed twice; find runs that differ");
    app.add_flag("--random-addresses", options->run.randomAddresses,
                 "Leave the addresses of the program to chance");
}

void AddShow(CLI::App& app, Options* options, Texts* texts)
{
    app.add_flag("--gdb", options->run.gdb,
                 "Run the seed under gdb, which stops where it is found");
    app.add_option("--trace", options->traceFile,
                   "Write what every thread does as text ('-': here)")
        ->option_text("FILE");
    app.add_option("--trace-json", options->traceJsonFile,
                   "Write the same as trace events, for a viewer of them")
        ->option_text("FILE");
    app.add_option("--trace-steps", texts->traceSteps,
                   "Steps that a trace has room for (default 200000)")
        ->check(CLI::PositiveNumber)
        ->option_text("N");
    app.add_option("COMMAND", options->run.command, "The program and its arguments, after '--'")
        ->required()
        ->option_text("(required)");
}

void Check(const Options& options)
{
    const bool shows = !options.traceFile.empty() || !options.traceJsonFile.empty() ||
                       !options.decisionsFile.empty() || options.run.gdb;
    if (shows && !options.isOneSeed) {
        throw CLI::ValidationError(
            "--gdb, --trace, --trace-json and --decisions look at one run: "
            "name it with --seed, --shrink or --replay");
    }
}

} // namespace

std::optional<int> ParseOptions(int argc, const char* const* argv, Options* options,
                                std::ostream& out, std::ostream& err)
{
    Texts texts;
    CLI::App app(DESCRIPTION, "zor-sim");
    app.footer(FOOTER);
    app.set_help_flag("-h,--help", "Print this help and exit");
    app.set_version_flag("--version", "zor-sim " ZOR_SIM_VERSION, "Print the version and exit");
    app.prefix_command(false);
    app.positionals_at_end();
    app.failure_message([](const CLI::App* /*app*/, const CLI::Error& error) {
        return std::string("zor-sim: ") + error.what() +
               "\nRun 'zor-sim --help' for more information.\n";
    });
    AddSeeds(app, options, &texts);
    AddBehaviour(app, options, &texts);
    AddShow(app, options, &texts);
    try {
        app.parse(argc, argv);
        ReadSeeds(texts, options);
        Check(*options);
    } catch (const CLI::ParseError& error) {
        return app.exit(error, out, err) == 0 ? EXIT_NOTHING_FOUND : EXIT_UNABLE;
    }
    Settings& settings = options->run.settings;
    settings.stallNsec = std::llround(texts.stallMsec * 1e6);
    settings.spuriousPerMillion = static_cast<std::uint32_t>(std::lround(texts.spurious * 1e6));
    settings.endlessNsec = std::llround(texts.endlessSec * 1e9);
    settings.maxSteps = texts.steps;
    settings.length = texts.length;
    settings.changePoints = texts.changePoints;
    settings.trap = options->run.gdb ? 1 : 0;
    const bool traces = !options->traceFile.empty() || !options->traceJsonFile.empty();
    settings.records = traces ? texts.traceSteps : 0;
    return std::nullopt;
}

StrategyKind StrategyOf(const Options& options, std::uint64_t seed)
{
    if (!options.replayFile.empty()) {
        return StrategyKind::REPLAY;
    }
    for (std::uint32_t i = 0; i < std::size(STRATEGIES); ++i) {
        if (options.strategy == STRATEGIES[i]) {
            return static_cast<StrategyKind>(i);
        }
    }
    return static_cast<StrategyKind>(seed % std::size(STRATEGIES));
}

std::string RepeatLine(const Options& options, const Settings& settings)
{
    std::ostringstream line;
    line << "zor-sim --seed " << settings.seed;
    const std::string& decisions =
        options.replayFile.empty() ? options.decisionsFile : options.replayFile;
    StrategyKind strategy = settings.strategy;
    if (strategy == StrategyKind::REPLAY && decisions.empty()) {
        strategy = StrategyOf(options, settings.seed); // shrunk: the whole run fails likewise
    }
    if (strategy == StrategyKind::REPLAY) {
        line.str("");
        line << "zor-sim --replay " << decisions;
    } else {
        line << " --strategy " << STRATEGIES[static_cast<int>(strategy)];
    }
    if (strategy == StrategyKind::PCT) {
        line << " --depth " << settings.changePoints << " --length " << settings.length;
    }
    if (settings.stallNsec != 0) {
        line << " --stall " << static_cast<double>(settings.stallNsec) / 1e6;
    }
    if (settings.spuriousPerMillion != 0) {
        line << " --spurious " << settings.spuriousPerMillion / 1e6;
    }
    if (settings.endlessNsec != 3600 * NSEC_PER_SEC) {
        line << " --endless " << static_cast<double>(settings.endlessNsec) / 1e9;
    }
    for (const std::string& file : options.run.filesToRemove) {
        line << " --remove " << file;
    }
    line << (options.run.randomAddresses ? " --random-addresses --" : " --");
    for (const std::string& argument : options.run.command) {
        const bool isPlain = argument.find_first_not_of(
                                 "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789"
                                 "-_./=:,+@%") == std::string::npos;
        line << ' ' << (isPlain && !argument.empty() ? argument : "'" + argument + "'");
    }
    return line.str();
}

} // namespace zorsim
