#include <iostream>

#include "Tool.h"

int main(int argc, char** argv)
{
    return zorsim::RunTool(argc, argv, std::cout, std::cerr);
}
