#include <csignal>
#include <iostream>

#include "Tool.h"

int main(int argc, char** argv)
{
    std::signal(SIGPIPE, SIG_IGN); // `| head` has seen enough; writing then fails
    return zortop::RunTool(argc, argv, std::cout, std::cerr);
}
