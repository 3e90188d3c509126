#include <gtest/gtest.h>

#include "Main.h"
#ifdef WITH_HEADER
#include "zor/testing/Testing.h"
#endif

/// For all orders of linking: a test program that has an empty Main(), as the runtime demands.

TEST(One, Test) {}

#ifndef WITHOUT_MAIN
int Main()
{
    return 0;
}
#endif
