#include <iostream>

#include "Tool.h"

int main(int argc, char** argv)
{
    return zorrecord::RunTool(argc, argv, std::cout, std::cerr);
}
