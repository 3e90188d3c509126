#include "Terminfo.h"

// Behind all others: it calls capabilities by common words, as macros.
#include <curses.h>
#include <term.h>
#include <unistd.h>

namespace zortop {

bool IsKnownTerminal()
{
    int found = 0;
    if (setupterm(nullptr, STDOUT_FILENO, &found) != OK) {
        return false;
    }
    del_curterm(cur_term);
    return true;
}

} // namespace zortop
