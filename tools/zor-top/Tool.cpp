#include "Tool.h"

#include <time.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ostream>
#include <string>
#include <vector>

#include "Json.h"
#include "Problem.h"
#include "Sampler.h"
#include "Screen.h"
#include "Table.h"
#include "Words.h"

namespace zortop {
namespace {

constexpr const char* DESCRIPTION =
    "Shows what the tasks of a running zor-core daemon do, again and again: a line for each task,\n"
    "the synchronous calls in progress, and first what deserves a look. The daemon is not stopped\n"
    "and does not notice; neither it nor its library needs debug information.\n";

constexpr const char* FOOTER =
    "\n"
    "Exit codes:\n"
    "  0  the tasks were shown\n"
    "  1  bad options\n"
    "  2  there is no such process, it has ended, or it is not the only daemon\n"
    "  3  the process may not be looked into\n"
    "  4  it has no zor-core runtime, or one of a version that cannot be read\n"
    "  7  there is no terminal, or the output cannot be written\n"
    "\n"
    "Examples:\n"
    "  zor-top                                    (the only daemon there is)\n"
    "  zor-top $(cat /tmp/.zor-daemon.pid)\n"
    "  zor-top --sort busy --filter scan 1234\n"
    "  zor-top --batch 60 --interval 1000 --json 1234 | jq .notices\n";

struct Options
{
    int pid = 0;
    int batch = 0; ///< how many reports to print; 0 shows the screen
    int intervalMsec = 1000;
    bool asJson = false;
    std::string sort;
    std::string filter;
    std::string types;
};

/// A table of the daemons there are.
std::string Listed(const std::vector<Daemon>& daemons)
{
    std::string text = "    PID   RUNS FOR  THREADS  COMMAND\n";
    for (const Daemon& daemon : daemons) {
        char numbers[64];
        snprintf(numbers, sizeof(numbers), "%7d %10s %8ld  ", daemon.pid,
                 Duration(daemon.ageSec).c_str(), daemon.threads);
        text += numbers + daemon.command + "\n";
    }
    return text;
}

/// The only daemon there is; throws Problem unless there is one.
pid_t OnlyDaemon(std::ostream& out)
{
    int refused = 0;
    const std::vector<Daemon> daemons = FindDaemons(&refused);
    const std::string others = refused != 0
                                   ? "; there are " + std::to_string(refused) +
                                         " processes that only their user, or root, may look into"
                                   : "";
    if (daemons.empty()) {
        throw Problem(NO_TARGET, "no process runs libzor-core.so" + others);
    }
    if (daemons.size() > 1) {
        out << Listed(daemons);
        throw Problem(NO_TARGET, "several processes run libzor-core.so: name one" + others);
    }
    return daemons.front().pid;
}

Order OrderOf(const Options& options)
{
    Order order;
    order.filter = options.filter;
    if (!options.sort.empty()) {
        order.isSorted = true;
        if (!FindColumn(options.sort, &order.column)) {
            throw Problem(USAGE, "there is no column '" + options.sort + "' to sort by");
        }
    }
    return order;
}

bool Sleep(int msec)
{
    timespec left{msec / 1000, msec % 1000 * 1000000};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
    return false;
}

void PrintBatch(Sampler* sampler, const Options& options, const std::string& title,
                std::ostream& out)
{
    const Order order = OrderOf(options);
    sampler->Look(); // rates begin with the next one
    for (int i = 0; i < options.batch; ++i) {
        sampler->Wait(options.intervalMsec, Sleep);
        Report report = sampler->Look();
        if (options.asJson) {
            report.tasks = Selected(report, order);
            out << Json(report, {options.pid, sampler->Version()}) << '\n';
        } else {
            for (const Line& line : Lines(report, order, title)) {
                out << line.text << '\n';
            }
            out << '\n';
        }
        out.flush();
        if (!out) {
            throw Problem(FAILED, "the output cannot be written");
        }
    }
}

void Run(Options options, std::ostream& out)
{
    if (options.asJson && options.batch == 0) {
        options.batch = 1;
    }
    const Order order = OrderOf(options);
    auto names = options.types.empty() ? std::map<std::uint64_t, std::string>()
                                       : ReadTypeNames(options.types);
    if (options.pid == 0) {
        options.pid = OnlyDaemon(out);
    }
    Sampler sampler(options.pid);
    sampler.NameTypes(std::move(names));
    const std::string title =
        "process " + std::to_string(options.pid) + ", library " + sampler.Version();
    if (options.batch != 0) {
        PrintBatch(&sampler, options, title, out);
    } else {
        RunScreen(&sampler, title, options.intervalMsec, order);
    }
}

void AddOptions(CLI::App* app, Options* options)
{
    app->add_option("PID", options->pid, "The process (default: the only daemon there is)")
        ->check(CLI::PositiveNumber)
        ->option_text(" ");
    app->add_option("--batch", options->batch, "Print so many reports instead of showing a screen")
        ->check(CLI::PositiveNumber)
        ->option_text("N");
    app->add_option("--interval", options->intervalMsec,
                    "Milliseconds from one look to the next (default: 1000)")
        ->check(CLI::Range(10, 3600000))
        ->option_text("MS");
    app->add_flag("--json", options->asJson,
                  "Print JSON, one report a line (zor-top.schema.json describes it)");
    app->add_option(
           "--sort", options->sort,
           "Sort by a column: task, thread, cpu, busy, queued, peak, events, refused, state")
        ->option_text("COLUMN");
    app->add_option("--filter", options->filter, "Show tasks with this in their names")
        ->option_text("TEXT");
    app->add_option("--types", options->types,
                    "Names of event types, in lines such as '101 EV_ASK'")
        ->option_text("FILE");
}

} // namespace

int RunTool(int argc, const char* const* argv, std::ostream& out, std::ostream& err)
{
    Options options;
    CLI::App app(DESCRIPTION, "zor-top");
    app.footer(FOOTER);
    app.set_help_flag("-h,--help", "Print this help and exit");
    app.set_version_flag("--version", "zor-top " ZOR_TOP_VERSION, "Print the version and exit");
    app.failure_message([](const CLI::App* /*app*/, const CLI::Error& error) {
        return std::string("zor-top: ") + error.what() +
               "\nRun 'zor-top --help' for more information.\n";
    });
    AddOptions(&app, &options);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error, out, err) == 0 ? SUCCESS : USAGE;
    }
    try {
        Run(options, out);
    } catch (const Problem& problem) {
        err << "zor-top: " << problem.what() << '\n';
        return problem.Code();
    }
    return SUCCESS;
}

} // namespace zortop
