#include "Tool.h"

#include <sched.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>
#include <iomanip>
#include <iostream>
#include <map>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "Options.h"
#include "Shrink.h"
#include "TraceShow.h"

namespace zorsim {

namespace {

constexpr std::size_t SHOWN_OUTPUT = 4000;
constexpr std::uint64_t MOST_EXPLAINED_STEPS = 200000;

std::vector<unsigned int> Processors()
{
    cpu_set_t set;
    CPU_ZERO(&set);
    sched_getaffinity(0, sizeof(set), &set);
    std::vector<unsigned int> processors;
    for (unsigned int i = 0; i < CPU_SETSIZE; ++i) {
        if (CPU_ISSET(i, &set)) {
            processors.push_back(i);
        }
    }
    // Beginning at this one, or all tools of a test run would share the first.
    const auto own = std::find(processors.begin(), processors.end(),
                               static_cast<unsigned int>(std::max(sched_getcpu(), 0)));
    std::rotate(processors.begin(), own == processors.end() ? processors.begin() : own,
                processors.end());
    return processors;
}

void PrintNotes(const Report& report, std::ostream& err)
{
    const std::string notes = report.notes;
    for (std::size_t begin = 0, end; (end = notes.find('\n', begin)) != std::string::npos;
         begin = end + 1) {
        err << "zor-sim: does not simulate " << notes.substr(begin, end - begin) << '\n';
    }
}

std::string LastPart(const std::string& output)
{
    if (output.size() <= SHOWN_OUTPUT) {
        return output;
    }
    const std::size_t line = output.find('\n', output.size() - SHOWN_OUTPUT);
    return "[...]\n" +
           output.substr(line == std::string::npos ? output.size() - SHOWN_OUTPUT : line + 1);
}

/// Threads that wait are shown with their stacks: those of another run, which is traced.
std::vector<Record> Explained(const Options& options, const RunResult& result)
{
    const Report& report = *result.report;
    if (report.shownCount == 0 || report.steps > MOST_EXPLAINED_STEPS) {
        return {};
    }
    RunOptions run = options.run;
    run.settings = report.settings;
    run.settings.records = 2 * report.steps + 1;
    run.settings.trap = 0;
    run.gdb = false;
    run.ownOutput = false;
    run.decisions = result.decisions;
    RunResult again = RunProgram(run);
    return again.report->hash == report.hash ? std::move(again.records) : std::vector<Record>();
}

void PrintFinding(const Options& options, const RunResult& result, std::ostream& err)
{
    const Report& report = *result.report;
    if (!result.output.empty()) {
        err << LastPart(result.output) << (result.output.back() == '\n' ? "" : "\n");
    }
    if (result.outcome == Outcome::NOT_SIMULATED) {
        err << "zor-sim: " << (report.finding == Finding::UNSUPPORTED ? "does not simulate " : "")
            << result.what << '\n';
        return;
    }
    err << "zor-sim: seed " << report.settings.seed << ": " << NameOf(result.outcome) << ": "
        << result.what << ", after " << report.steps << " steps at " << TimeText(report.nowNsec)
        << '\n';
    PrintThreads(report, Explained(options, result), err);
    err << "repeat: " << RepeatLine(options, report.settings) << '\n';
}

/// Runs seeds on several processors.
class Search
{
 public:
    Search(const Options& options, std::ostream& out, std::ostream& err)
        : m_options(options), m_out(out), m_err(err), m_next(options.firstSeed)
    {}

    int Run()
    {
        const auto begin = std::chrono::steady_clock::now();
        MeasureLength();
        std::vector<std::thread> workers;
        for (unsigned int i = 1; i < m_options.jobs; ++i) {
            workers.emplace_back([this, i] { Work(i); });
        }
        Work(0);
        for (std::thread& worker : workers) {
            worker.join();
        }
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
        if (!m_error.empty()) {
            m_err << "zor-sim: " << m_error << '\n';
            return EXIT_UNABLE;
        }
        Summarise(took.count());
        return m_unable ? EXIT_UNABLE : m_found.empty() ? EXIT_NOTHING_FOUND : EXIT_FOUND;
    }

 private:
    /// Priorities change at moments that are spread over the run.
    void MeasureLength()
    {
        m_length = m_options.run.settings.length;
        bool usesLength = false;
        const std::uint64_t last = std::min(m_options.lastSeed, m_options.firstSeed + 2);
        for (std::uint64_t seed = m_options.firstSeed; seed <= last; ++seed) {
            usesLength = usesLength || StrategyOf(m_options, seed) == StrategyKind::PCT;
        }
        if (m_length == 0 && usesLength) {
            RunOptions run = m_options.run;
            run.settings.seed = m_options.firstSeed;
            run.settings.strategy = StrategyKind::RANDOM;
            run.processor = m_processors.front();
            m_length = std::max<std::uint64_t>(RunProgram(run).report->choices, 1);
        }
    }

    void Work(unsigned int worker)
    {
        try {
            for (std::uint64_t seed; !m_stop && (seed = m_next++) <= m_options.lastSeed;) {
                RunOptions run = m_options.run;
                run.settings.seed = seed;
                run.settings.strategy = StrategyOf(m_options, seed);
                run.settings.length = m_length;
                run.processor = m_processors[worker % m_processors.size()];
                RunResult result = RunProgram(run);
                if (m_options.verify && result.outcome != Outcome::NOT_SIMULATED) {
                    Verify(run, &result);
                }
                Take(seed, result);
            }
        } catch (const std::exception& error) {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_error = error.what();
            m_stop = true;
        }
    }

    static void Verify(const RunOptions& run, RunResult* result)
    {
        const RunResult again = RunProgram(run);
        if (again.report->hash != result->report->hash ||
            again.report->steps != result->report->steps || again.outcome != result->outcome) {
            result->outcome = Outcome::FAILED;
            result->what = "two runs of the same seed differ (" +
                           std::to_string(result->report->steps) + " and " +
                           std::to_string(again.report->steps) +
                           " steps): the program depends on more than its threads and the time";
        }
    }

    void Take(std::uint64_t seed, const RunResult& result)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        ++m_runs;
        m_steps += result.report->steps;
        if (m_notes.empty()) {
            m_notes = result.report->notes;
            PrintNotes(*result.report, m_err);
        }
        if (result.outcome == Outcome::PASSED) {
            return;
        }
        ++m_found[result.outcome];
        m_unable = m_unable || result.outcome == Outcome::NOT_SIMULATED;
        m_stop = m_stop || !m_options.keepGoing || m_unable;
        if (m_options.keepGoing && !m_unable) {
            m_err << "zor-sim: seed " << seed << ": " << NameOf(result.outcome) << ": "
                  << result.what << '\n';
        } else {
            PrintFinding(m_options, result, m_err);
        }
    }

    void Summarise(double seconds)
    {
        m_out << "zor-sim: " << m_runs << (m_runs == 1 ? " run, " : " runs, ") << m_steps
              << " steps, " << std::fixed << std::setprecision(1) << seconds << " s: ";
        if (m_found.empty()) {
            m_out << "nothing found\n";
            return;
        }
        const char* separator = "";
        for (const auto& [outcome, count] : m_found) {
            m_out << separator << count << ' ' << NameOf(outcome);
            separator = ", ";
        }
        m_out << '\n';
    }

    const Options& m_options;
    std::ostream& m_out;
    std::ostream& m_err;
    const std::vector<unsigned int> m_processors = Processors();
    std::atomic<std::uint64_t> m_next;
    std::atomic<bool> m_stop{false};
    std::uint64_t m_length = 0;
    std::mutex m_mutex; ///< guards what follows
    std::map<Outcome, std::uint64_t> m_found;
    std::uint64_t m_runs = 0;
    std::uint64_t m_steps = 0;
    std::string m_notes;
    std::string m_error;
    bool m_unable = false;
};

bool WritesTo(const std::string& name, std::ostream& out, std::ostream& err,
              const std::function<void(std::ostream&)>& write)
{
    if (name.empty()) {
        return true;
    }
    if (name == "-") {
        write(out);
        return true;
    }
    std::ofstream file(name);
    write(file);
    file.close();
    if (!file) {
        err << "zor-sim: " << name << " cannot be written\n";
    }
    return static_cast<bool>(file);
}

bool WriteTraces(const Options& options, const RunResult& result, std::ostream& out,
                 std::ostream& err)
{
    if (result.report->recordCount == options.run.settings.records && !result.records.empty()) {
        err << "zor-sim: the trace ends after " << result.records.size()
            << " steps; --trace-steps makes it longer\n";
    }
    return WritesTo(options.decisionsFile, out, err,
                    [&](std::ostream& to) { WriteDecisions(result, to); }) &&
           WritesTo(options.traceFile, out, err,
                    [&](std::ostream& to) { PrintTrace(result, to); }) &&
           WritesTo(options.traceJsonFile, out, err,
                    [&](std::ostream& to) { ExportTrace(result, to); });
}

/// One run, looked at.
int RunOne(const Options& options, std::ostream& out, std::ostream& err)
{
    RunOptions run = options.run;
    run.processor = Processors().front();
    run.settings.seed = options.firstSeed;
    run.settings.strategy = StrategyOf(options, options.firstSeed);
    if (run.settings.strategy == StrategyKind::PCT && run.settings.length == 0) {
        RunOptions measure = run;
        measure.gdb = false;
        measure.settings.strategy = StrategyKind::RANDOM;
        run.settings.length = std::max<std::uint64_t>(RunProgram(measure).report->choices, 1);
    }
    if (!options.replayFile.empty()) {
        ReadDecisions(options.replayFile, &run);
    }
    run.ownOutput = !options.shrink;
    RunResult result = options.shrink ? Shrink(run, err) : RunProgram(run);
    PrintNotes(*result.report, err);
    if (run.gdb) {
        return EXIT_NOTHING_FOUND;
    }
    if (!WriteTraces(options, result, out, err)) {
        return EXIT_UNABLE;
    }
    if (result.outcome == Outcome::PASSED) {
        out << "zor-sim: seed " << result.report->settings.seed << ": nothing found in "
            << result.report->steps << " steps, hash " << std::hex << result.report->hash
            << std::dec << '\n';
        return EXIT_NOTHING_FOUND;
    }
    PrintFinding(options, result, err);
    return result.outcome == Outcome::NOT_SIMULATED ? EXIT_UNABLE : EXIT_FOUND;
}

} // namespace

int RunTool(int argc, const char* const* argv, std::ostream& out, std::ostream& err)
{
    Options options;
    if (const std::optional<int> code = ParseOptions(argc, argv, &options, out, err)) {
        return *code;
    }
    if (LibraryPath().empty()) {
        err << "zor-sim: libzor-sim.so is not beside this program; ZOR_SIM_LIBRARY may name it\n";
        return EXIT_UNABLE;
    }
    try {
        return options.isOneSeed ? RunOne(options, out, err) : Search(options, out, err).Run();
    } catch (const std::exception& error) {
        err << "zor-sim: " << error.what() << '\n';
        return EXIT_UNABLE;
    }
}

} // namespace zorsim
