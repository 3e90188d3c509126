#include "Tool.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <ostream>
#include <stdexcept>
#include <string>
#include <system_error>

#include "Calls.h"
#include "Page.h"
#include "PageData.h"
#include "Path.h"
#include "Reader.h"
#include "Selection.h"
#include "Summary.h"
#include "TaskNames.h"
#include "TextPrint.h"
#include "Top.h"
#include "TraceExport.h"
#include "TypeNames.h"

namespace zorrecord {

namespace {

constexpr const char* DESCRIPTION =
    "Shows the calls that a process has recorded: sends of events and their handling. A process\n"
    "records when ZOR_RECORD names a file; ZOR_RECORD_SIZE says how much of the latest calls the\n"
    "file keeps (16M unless given). The file can be read at any time, also after a crash.\n";

constexpr const char* FOOTER =
    "\n"
    "Exit codes:\n"
    "  0  the file was read and shown\n"
    "  1  bad options, a file that cannot be read or is no record of calls, or output that could\n"
    "     not be written\n"
    "  2  the file is cut; what there is of it was shown\n"
    "\n"
    "Examples:\n"
    "  ZOR_RECORD=calls.zor zor-tsmon recording.ts\n"
    "  zor-record print calls.zor\n"
    "  zor-record print --unfinished calls.zor     (what hangs)\n"
    "  zor-record path --task Scan calls.zor       (where its longest call's time went)\n"
    "  zor-record page calls.zor -o calls.html     (all of it, for a browser)\n"
    "  zor-record export calls.zor -o calls.json   (for a viewer of trace events)\n";

struct Options
{
    std::string file;
    std::string output; ///< standard output if it is empty
    Selection selection;
    std::string typesFile; ///< with names of event types; or empty
    std::string type;      ///< of the selection: a number or a name; or empty
    TypeNames types;
    bool isWallTime = false;
    bool asJson = false;
};

/// Writes what a command shows.
using Show = std::function<void(std::ostream&)>;

/// Looks at the recording for that: what a command cannot show is known before a file is made.
using Prepare = std::function<Show(const Recording&)>;

void Complain(std::ostream& err, const std::string& what)
{
    err << "zor-record: " << what << '\n';
}

std::string Count(std::uint64_t number, const char* what)
{
    return std::to_string(number) + ' ' + what + (number == 1 ? "" : "s");
}

/// Tells what is missing from the recording.
void TellLosses(const Recording& recording, const Options& options, std::ostream& err)
{
    if (recording.cut) {
        const std::string whole =
            recording.wholeSize != 0 ? " of " + std::to_string(recording.wholeSize) : "";
        Complain(err, options.file + " ends after " + Count(recording.records.size(), "record") +
                          "; the file is cut after " + std::to_string(recording.fileSize) + whole +
                          " bytes");
    }
    if (recording.gaps != 0) {
        Complain(err, options.file + " has " + Count(recording.gaps, "gap") + " of together " +
                          Count(recording.gapBytes, "byte") +
                          ": records that were under way when the process ended, or damaged ones");
    }
}

bool Write(const Show& show, const Options& options, std::ostream& out, std::ostream& err)
{
    if (options.output.empty()) {
        show(out);
        out.flush();
        if (!out) {
            Complain(err, "standard output cannot be written");
        }
        return static_cast<bool>(out);
    }
    errno = 0;
    std::ofstream file(options.output, std::ios::binary | std::ios::trunc);
    if (file) {
        show(file);
        file.close();
    }
    if (!file) {
        Complain(err, options.output + " cannot be written: " + std::strerror(errno));
    }
    return static_cast<bool>(file);
}

int Run(const Prepare& prepare, const Options& options, std::ostream& out, std::ostream& err)
{
    try {
        const Recording recording = ReadFile(options.file);
        TellLosses(recording, options, err);
        if (!Write(prepare(recording), options, out, err)) {
            return EXIT_FAILURE;
        }
        return recording.cut ? EXIT_CUT : EXIT_SUCCESS;
    } catch (const std::system_error& error) {
        const bool isMissing = error.code() == std::errc::no_such_file_or_directory;
        Complain(err, options.file + ": " + error.code().message() +
                          (isMissing ? "; a recording begins with the first event that has its "
                                       "flag set"
                                     : ""));
        return EXIT_FAILURE;
    } catch (const std::exception& error) {
        Complain(err, options.file + ": " + error.what());
        return EXIT_FAILURE;
    }
}

void AddSelection(CLI::App* command, Options* options)
{
    Selection* const selection = &options->selection;
    command
        ->add_option("--thread", selection->thread, "Only calls made by this thread (name or id)")
        ->option_text("NAME");
    command
        ->add_option("--task", selection->task,
                     "Only calls made by this task, and sends to its handlers")
        ->option_text("NAME");
    command->add_option("--type", options->type, "Only calls with events of this type")
        ->option_text("NUMBER|NAME");
    command->add_option("--since", selection->since, "Only calls that ended at this time or later")
        ->option_text("SECONDS");
    command
        ->add_option("--until", selection->until, "Only calls that began at this time or earlier")
        ->option_text("SECONDS");
    command->add_option("--last", selection->last, "Only calls of the last seconds")
        ->check(CLI::NonNegativeNumber)
        ->option_text("SECONDS");
    command->add_flag("--unfinished", selection->unfinished, "Only calls that have not finished");
    command
        ->add_option("--types", options->typesFile,
                     "Names of event types, in lines such as '101 EV_ASK'")
        ->option_text("FILE");
}

CLI::App* AddCommand(CLI::App& app, const char* name, const char* description, Options* options)
{
    CLI::App* const command = app.add_subcommand(name, description);
    command->add_option("FILE", options->file, "The record file")
        ->required()
        ->option_text("(required)");
    return command;
}

/// Reads the names of event types, and finds the type that is asked for.
void TakeTypes(Options* options)
{
    if (!options->typesFile.empty()) {
        options->types.ReadFile(options->typesFile);
    }
    if (!options->type.empty()) {
        options->selection.type = options->types.Find(options->type);
        if (!options->selection.type) {
            throw std::runtime_error("'" + options->type +
                                     "' is neither a number nor the name of an event type");
        }
    }
}

/// What a command shows of a recording. What is returned lives as long as that and the options.
Prepare ShowFor(const std::string& command, const Options& options)
{
    if (command == "page") { // which shows all calls, and explains one
        return [&options](const Recording& recording) -> Show {
            const auto data = std::make_shared<nlohmann::json>(
                PageData(recording, options.selection, options.types));
            return [data](std::ostream& out) { PrintPage(*data, out); };
        };
    }
    return [&options, command](const Recording& recording) -> Show {
        return [&options, &recording, command](std::ostream& out) {
            if (command == "info") {
                PrintSummary(recording, out);
                return;
            }
            if (command == "path") { // which looks at all calls to explain one
                PrintPath(recording, options.selection, options.types, options.asJson, out);
                return;
            }
            const Recording selected = Select(recording, options.selection);
            const TaskNames names(CallsOf(recording));
            if (command == "print") {
                PrintRecords(selected, names, options.types, options.isWallTime, out);
            } else if (command == "export") {
                ExportTrace(selected, names, options.types, out);
            } else {
                PrintTop(selected, options.types, options.asJson, out);
            }
        };
    };
}

} // namespace

int RunTool(int argc, const char* const* argv, std::ostream& out, std::ostream& err)
{
    Options options;
    CLI::App app(DESCRIPTION, "zor-record");
    app.footer(FOOTER);
    app.set_help_flag("-h,--help", "Print this help and exit");
    app.set_version_flag("--version", "zor-record " ZOR_RECORD_VERSION,
                         "Print the version and exit");
    app.require_subcommand(1);
    app.failure_message([](const CLI::App* /*app*/, const CLI::Error& error) {
        return std::string("zor-record: ") + error.what() +
               "\nRun 'zor-record --help' for more information.\n";
    });
    CLI::App* const print = AddCommand(app, "print", "Print one line a record", &options);
    print->add_flag("--wall", options.isWallTime,
                    "The time of day, not seconds since the recording began");
    CLI::App* const trace = AddCommand(
        app, "export", "Write trace-event JSON, to standard output unless -o is given", &options);
    CLI::App* const top = AddCommand(
        app, "top", "Print how long events waited and were handled, by task and type", &options);
    CLI::App* const path =
        AddCommand(app, "path", "Print what the time of the longest call went into", &options);
    for (CLI::App* const command : {top, path}) {
        command->add_flag("--json", options.asJson, "JSON, times in nanoseconds");
    }
    CLI::App* const page = AddCommand(
        app, "page",
        "Write a page for a browser, to standard output unless -o is given; of the calls that\n"
        "options ask for it shows the longest one's path",
        &options);
    for (CLI::App* const command : {trace, page}) {
        command->add_option("-o,--output", options.output, "The file to write")->option_text("OUT");
    }
    for (CLI::App* const command : {print, trace, top, path, page}) {
        AddSelection(command, &options);
    }
    AddCommand(app, "info", "Print a summary", &options);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error, out, err) == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
    }
    try {
        TakeTypes(&options);
    } catch (const std::exception& error) {
        Complain(err, error.what());
        return EXIT_FAILURE;
    }
    return Run(ShowFor(app.get_subcommands().front()->get_name(), options), options, out, err);
}

} // namespace zorrecord
