#include <gtest/gtest.h> // no tests: what the linker makes of forgotten sources
