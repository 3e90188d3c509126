#include "KeyCombination.h"

#include <cstdlib>

#include "KeyListener.h"

namespace {

/// Goes with the library: unloading it, or the end of the process, stops the thread.
zorhost::TCKeyListener& Listener()
{
    static zorhost::TCKeyListener listener;
    return listener;
}

} // namespace

void KeyCombination_Initialize()
{
    Listener().Start(getenv("ZOR_KEYS"));
}

void KeyCombination_Finalize()
{
    Listener().Stop();
}

void KeyCombination_Add_Handler(KeyComb combination, KeyCombHandler handler)
{
    Listener().Add(combination, handler);
}

void KeyCombination_Remove_Handler(KeyComb combination, KeyCombHandler handler)
{
    Listener().Remove(combination, handler);
}
