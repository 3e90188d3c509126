#include "Options.h"

#include <CLI/CLI.hpp>
#include <charconv>
#include <cstdlib>
#include <sstream>

namespace tsmon {

namespace {

constexpr const char* DESCRIPTION =
    "Reads an MPEG transport stream file to its end, finds the services that its PAT, PMTs and "
    "SDT\n"
    "announce, and prints them as a table: service id, name, provider, PMT PID and elementary\n"
    "streams, with packets, bit rates and continuity errors. PIDs are hexadecimal. Bit rates are\n"
    "averages by the stream's own clock (its PCR), 1 kbit being 1000 bits. A service's figures "
    "are\n"
    "those of its PMT, its PCR and its elementary streams. Packets are of 188 bytes, or of 192 "
    "with\n"
    "a time stamp or 204 with error correction, which are left out. The log goes to standard\n"
    "error, and on a terminal so does a line that shows the progress.\n";

constexpr const char* FOOTER =
    "\n"
    "Exit codes:\n"
    "  0  the file was read without damage to its end, or to a signal to stop, and its services\n"
    "     were printed. Continuity errors and lost input are no damage\n"
    "  1  anything else: bad options; a file that cannot be read, is empty, is no transport "
    "stream\n"
    "     or announces no services; a damaged file, of which what could be read is printed; no\n"
    "     descriptors left; or standard output that is closed, full or read by nobody any more.\n"
    "     A file without a packet in its first 4 MiB is read no further; of a pipe's the log says\n"
    "     so. With --format json the document says why, as 'failure', unless it is an option or\n"
    "     standard output\n"
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
    "  COLUMNS   how wide a table may be that does not go to a terminal (default: 100 columns)\n"
    "\n"
    "Files:\n"
    "  /tmp/.zor-daemon.pid  holds the daemon's process id and stays behind at the end. While it\n"
    "                        exists, a start ends at once with exit code 0, having done nothing;\n"
    "                        remove it once no daemon runs. The same becomes of a start that "
    "cannot\n"
    "                        make it: because /tmp is full, say, or read-only. The log gives the\n"
    "                        system's error number.\n"
    "\n"
    "Examples:\n"
    "  zor-tsmon recording.ts\n"
    "  zor-tsmon --realtime --every 10 recording.ts\n"
    "  zor-tsmon --format json recording.ts | python3 -m json.tool\n"
    "  receive-stream | zor-tsmon --input-timeout 30 -\n"
    "  ZOR_DLOG=none zor-tsmon recording.ts\n"
    "  ZOR_DLOG=file:tsmon.log:W zor-tsmon recording.ts\n";

/// What cannot be had together.
void CheckTogether(const Options& options)
{
    if (options.format == Format::JSON && options.every.count() > 0) {
        throw CLI::ValidationError("--every",
                                   "cannot be had with --format json, which prints one "
                                   "document at the end");
    }
}

CommandLine ReadWith(CLI::App& app, const Options& options, int argc, const char* const* argv)
{
    CommandLine result;
    try {
        app.parse(argc, argv);
        CheckTogether(options);
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

/// Whole seconds between @p least and @p most.
CLI::Validator Seconds(int least, int most)
{
    const std::string range = std::to_string(least) + " to " + std::to_string(most);
    return CLI::Validator(
        [=](std::string& text) {
            int value = 0;
            const char* end = text.data() + text.size();
            const auto [parsed, error] = std::from_chars(text.data(), end, value);
            const bool isGood =
                error == std::errc() && parsed == end && value >= least && value <= most;
            return isGood ? std::string()
                          : "'" + text + "' is not a number of seconds from " + range;
        },
        "");
}

CLI::Validator KnownFormat()
{
    return CLI::Validator(
        [](std::string& text) {
            const bool isGood = text == "text" || text == "json";
            return isGood ? std::string() : "'" + text + "' is no format; there are text and json";
        },
        "");
}

void AddShowingOptions(CLI::App& app, Options& options)
{
    app.add_option_function<std::string>(
           "--format",
           [&options](const std::string& name) {
               options.format = name == "json" ? Format::JSON : Format::TEXT;
           },
           "What to print: a table, or one JSON document at the end\n"
           "(bit rates in bits per second, times in seconds), with\n"
           "'ok' and the 'failure' if there was one")
        ->check(KnownFormat())
        ->option_text("text|json (default: text)");
    app.add_option_function<int>(
           "--every", [&options](int seconds) { options.every = std::chrono::seconds(seconds); },
           "Print the table of what has been read so far every N\n"
           "seconds, 1 to 86400; with --realtime also the rates of\n"
           "the last second (NOW)")
        ->check(Seconds(1, 86400))
        ->type_name("number of seconds")
        ->option_text("N (default: at the end only)");
}

} // namespace

CommandLine ReadCommandLine(int argc, const char* const* argv)
{
    Options options;
    CLI::App app(DESCRIPTION, "zor-tsmon");
    app.footer(FOOTER);
    app.set_help_flag("-h,--help", "Print this help and exit");
    app.set_version_flag("--version", "zor-tsmon " TSMON_VERSION, "Print the version and exit");
    app.add_option("FILE", options.file, "The transport stream file to read; - for standard input")
        ->required()
        ->option_text("(required)");
    app.add_flag("--realtime", options.realtime,
                 "Play the file at its own clock (its PCR) instead of as\n"
                 "fast as possible");
    app.add_option_function<int>(
           "--input-timeout",
           [&options](int seconds) { options.inputTimeout = std::chrono::seconds(seconds); },
           "Log a loss of input when a pipe has brought no packet for\n"
           "N seconds, 1 to 86400, or that it has brought data without\n"
           "packets; and log when packets come again")
        ->check(Seconds(1, 86400))
        ->type_name("number of seconds")
        ->option_text("N (default: " + std::to_string(DEFAULT_INPUT_TIMEOUT.count()) + ")");
    AddShowingOptions(app, options);
    app.failure_message([](const CLI::App* /*app*/, const CLI::Error& error) {
        return std::string("zor-tsmon: ") + error.what() +
               "\nRun 'zor-tsmon --help' for more information.\n";
    });
    return ReadWith(app, options, argc, argv);
}

} // namespace tsmon
