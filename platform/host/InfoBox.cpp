#include <sys/auxv.h>
#include <unistd.h>

#include <clocale>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "InfoBoxOptions.h"
#include "InfoBoxScreen.h"

// The program "infobox": a box with a text on the screen. Standard input and output may be closed.

namespace {

/// Boxes are ended by a search for the program's path among command lines, while they are started
/// with the bare name: such a box starts itself once more by its path.
void ShowPathInCommandLine(char** argv)
{
    // NOLINTNEXTLINE(performance-no-int-to-ptr): a pointer is how this value is given
    auto* const path = reinterpret_cast<char*>(getauxval(AT_EXECFN));
    if (argv[0] == nullptr || path == nullptr || strchr(argv[0], '/') != nullptr ||
        strchr(path, '/') == nullptr) {
        return;
    }
    char* const name = argv[0];
    argv[0] = path;
    execv(path, argv);
    argv[0] = name; // shown all the same, but not found by its path
}

void SetCharacters()
{
    setlocale(LC_CTYPE, "");
    if (MB_CUR_MAX == 1) {
        setlocale(LC_CTYPE, "C.UTF-8");
    }
}

/// The signals that take a box away. From here on they wait until they are asked for.
sigset_t HoldSignals()
{
    sigset_t ends;
    sigemptyset(&ends);
    for (const int number : {SIGTERM, SIGINT, SIGHUP}) {
        sigaddset(&ends, number);
    }
    sigset_t held = ends;
    // Blocked, it does not stop a process in the background that writes to its terminal.
    sigaddset(&held, SIGTTOU);
    sigprocmask(SIG_BLOCK, &held, nullptr);
    return ends;
}

void Wait(const sigset_t& ends, bool forEver)
{
    if (forEver) {
        while (sigwaitinfo(&ends, nullptr) < 0) {
        }
        return;
    }
    const struct timespec time = {zorhost::TSInfoBoxOptions::SECONDS, 0};
    sigtimedwait(&ends, nullptr, &time);
}

} // namespace

int main(int argc, char** argv)
{
    ShowPathInCommandLine(argv);
    zorhost::TSInfoBoxOptions options;
    int exitCode = EXIT_SUCCESS;
    if (!zorhost::ReadInfoBoxOptions(argc, argv, &options, &exitCode)) {
        return exitCode;
    }
    SetCharacters();
    const sigset_t ends = HoldSignals();
    zorhost::TCInfoBoxScreen screen;
    if (!screen.Show(options)) {
        return EXIT_FAILURE;
    }
    Wait(ends, options.stays);
    return EXIT_SUCCESS;
}
