#include <cstdio>

#include "Main.h"

int Main()
{
    std::puts("Main: up");
    return 0;
}
