// Prints the help of zor-tsmon for its manual page, without being a daemon: no pid file is made.
#include <cstdio>

#include "Main.h"
#include "Options.h"

/// What the runtime imports, which the options come with. Nobody calls it.
int Main()
{
    return 1;
}

int main()
{
    const char* const arguments[] = {"zor-tsmon", "--help"};
    const tsmon::CommandLine help = tsmon::ReadCommandLine(2, arguments);
    return std::fputs(help.output.c_str(), stdout) < 0 || std::fflush(stdout) != 0 ? 1 : 0;
}
