#include "Main.h"

#include <unistd.h>

#include <cstdlib>
#include <iostream>

#include "Monitor.h"
#include "Options.h"
#include "ProgressLogger.h"
#include "Report.h"
#include "Signals.h"
#include "Terminal.h"

namespace {

/// Before Main() there are threads of the runtime's already, which must not be hit either.
const bool g_signalsBlocked = tsmon::Signals::Block();

/// The line that shows the progress; log entries keep clear of it. Both live as long as anything
/// can log, which is longer than Main().
tsmon::ProgressLine& MakeProgressLine()
{
    static auto* const line = new tsmon::ProgressLine(STDERR_FILENO);
    if (line->IsVisible()) {
        ZORLogs* const logs = ZORLogs::getInstance();
        static auto* const logger = new tsmon::ProgressLogger(*line, *logs->getLogger());
        logs->SetLoggingSystem(logger);
    }
    return *line;
}

tsmon::Outcome Unread(const char* reason)
{
    tsmon::Outcome outcome;
    outcome.failure = std::string("cannot be read: ") + reason;
    return outcome;
}

int Report(const tsmon::Options& options, const tsmon::Outcome& outcome)
{
    const tsmon::ReportStyle style = {options.format, tsmon::WidthOf(STDOUT_FILENO)};
    return tsmon::Report(options.InputName(), outcome, style, std::cout, std::cerr);
}

} // namespace

int Main()
{
    const tsmon::CommandLine commandLine = tsmon::ReadCommandLine(gArgc, gArgv);
    if (!commandLine.options) {
        std::cerr << commandLine.error;
        std::cout << commandLine.output;
        return std::cout.flush() ? commandLine.exitCode : tsmon::FailedOutput(std::cerr);
    }
    if (!g_signalsBlocked) {
        return Report(*commandLine.options, Unread("signals cannot be taken"));
    }
    tsmon::Signals signals;
    return Report(*commandLine.options,
                  tsmon::MonitorFile(*commandLine.options, signals, std::cout, MakeProgressLine()));
}
