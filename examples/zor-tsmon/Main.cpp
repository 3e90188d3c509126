#include "Main.h"

#include <cstdlib>
#include <iostream>

#include "Monitor.h"
#include "Options.h"
#include "Report.h"
#include "Signals.h"

namespace {

/// Before Main() there are threads of the runtime's already, which must not be hit either.
const bool g_signalsBlocked = tsmon::Signals::Block();

} // namespace

int Main()
{
    const tsmon::CommandLine commandLine = tsmon::ReadCommandLine(gArgc, gArgv);
    if (!commandLine.options) {
        std::cerr << commandLine.error;
        std::cout << commandLine.output;
        return std::cout.flush() ? commandLine.exitCode : EXIT_FAILURE;
    }
    if (!g_signalsBlocked) {
        std::cerr << "zor-tsmon: signals cannot be taken\n";
        return EXIT_FAILURE;
    }
    const tsmon::Options& options = *commandLine.options;
    tsmon::Signals signals;
    return tsmon::Report(options.file, tsmon::MonitorFile(options, signals), std::cout, std::cerr);
}
