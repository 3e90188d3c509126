#include <gtest/gtest.h>

#include "Main.h"

TEST(Counter, IsNeverTested) {}

int Main()
{
    return 0;
}
