#include "Options.h"

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <sstream>

namespace tsmon {

namespace {

constexpr const char* DESCRIPTION =
    "Reads an MPEG transport stream file (packets of 188 bytes) to its end, finds the services "
    "that\n"
    "its PAT, PMTs and SDT announce, and prints them as a table: service id, name, provider, PMT "
    "PID\n"
    "and elementary streams. PIDs are hexadecimal. The log goes to standard error.\n";

constexpr const char* FOOTER =
    "\n"
    "Exit codes:\n"
    "  0  the file was read without damage to its end, or to a signal to stop, and its services\n"
    "     were printed\n"
    "  1  anything else: bad options; a file that cannot be read, is empty, is no transport "
    "stream\n"
    "     or announces no services; a damaged file, of which what could be read is printed; or\n"
    "     standard output could not be written\n"
    "\n"
    "Signals:\n"
    "  SIGINT, SIGTERM  read no more; what has been read is handled and printed\n"
    "  SIGUSR1          pause reading\n"
    "  SIGUSR2          go on reading\n"
    "\n"
    "Environment:\n"
    "  ZOR_DLOG  where the log goes: 'stderr' (default), 'file:PATH' or 'none'. With ':LEVEL' "
    "behind\n"
    "            it, nothing below LEVEL is logged: V, D, I, W, E or F.\n"
    "\n"
    "Files:\n"
    "  /tmp/.zor-daemon.pid  holds the daemon's process id and stays behind at the end. While it\n"
    "                        exists, a start ends at once with exit code 0, having done nothing;\n"
    "                        remove it once no daemon runs.\n"
    "\n"
    "Examples:\n"
    "  zor-tsmon recording.ts\n"
    "  zor-tsmon --realtime recording.ts\n"
    "  ZOR_DLOG=none zor-tsmon recording.ts\n"
    "  ZOR_DLOG=file:tsmon.log:W zor-tsmon recording.ts\n";

CommandLine ReadWith(CLI::App& app, const Options& options, int argc, const char* const* argv)
{
    CommandLine result;
    try {
        app.parse(argc, argv);
        result.options = options;
    } catch (const CLI::ParseError& error) {
        std::ostringstream output;
        std::ostringstream complaint;
        const int code = app.exit(error, output, complaint);
        result.output = output.str();
        result.error = complaint.str();
        result.exitCode = code == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
    }
    return result;
}

} // namespace

CommandLine ReadCommandLine(int argc, const char* const* argv)
{
    Options options;
    CLI::App app(DESCRIPTION, "zor-tsmon");
    app.footer(FOOTER);
    app.set_help_flag("-h,--help", "Print this help and exit");
    app.set_version_flag("--version", "zor-tsmon " TSMON_VERSION, "Print the version and exit");
    app.add_option("FILE", options.file, "The transport stream file to read")
        ->required()
        ->option_text("(required)");
    app.add_flag("--realtime", options.realtime,
                 "Play the file at its own clock (its PCR) instead of as fast as possible");
    app.failure_message([](const CLI::App* /*app*/, const CLI::Error& error) {
        return std::string("zor-tsmon: ") + error.what() +
               "\nRun 'zor-tsmon --help' for more information.\n";
    });
    return ReadWith(app, options, argc, argv);
}

} // namespace tsmon
