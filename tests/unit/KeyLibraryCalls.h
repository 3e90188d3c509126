#pragma once

#include "KeyCombination.h"

/// @file
/// What the key-combination library of the tests reports to the test program that loads it.

/// A call of one of its functions.
///
/// @param function  its name
/// @param handler   null for a function without arguments
extern "C" void KeyLibraryCalled(const char* function, KeyComb combination, KeyCombHandler handler);

/// It has been loaded, or is about to be unloaded.
extern "C" void KeyLibraryLoaded(bool loaded);
