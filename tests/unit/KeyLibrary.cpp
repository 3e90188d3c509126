#include "KeyLibraryCalls.h"

// A key-combination library that reports what it is asked for. It has a second set of functions
// under other names, and can be built without any.

namespace {

struct TSLoadReporter
{
    TSLoadReporter() { KeyLibraryLoaded(true); }
    ~TSLoadReporter() { KeyLibraryLoaded(false); }
};

const TSLoadReporter gReporter;

} // namespace

#ifndef WITHOUT_FUNCTIONS

#define EXPORTED extern "C" __attribute__((visibility("default")))

void KeyCombination_Initialize()
{
    KeyLibraryCalled("Initialize", {}, nullptr);
}

void KeyCombination_Finalize()
{
    KeyLibraryCalled("Finalize", {}, nullptr);
}

void KeyCombination_Add_Handler(KeyComb combination, KeyCombHandler handler)
{
    KeyLibraryCalled("Add_Handler", combination, handler);
}

void KeyCombination_Remove_Handler(KeyComb combination, KeyCombHandler handler)
{
    KeyLibraryCalled("Remove_Handler", combination, handler);
}

EXPORTED void OtherInitialize()
{
    KeyLibraryCalled("OtherInitialize", {}, nullptr);
}

EXPORTED void OtherFinalize()
{
    KeyLibraryCalled("OtherFinalize", {}, nullptr);
}

EXPORTED void OtherAdd(KeyComb combination, KeyCombHandler handler)
{
    KeyLibraryCalled("OtherAdd", combination, handler);
}

EXPORTED void OtherRemove(KeyComb combination, KeyCombHandler handler)
{
    KeyLibraryCalled("OtherRemove", combination, handler);
}

#endif
