// A program without the library, to compare the start of one with it.
#include <cstdio>
#include <string>

int main(int argc, char** argv)
{
    const std::string name(argv[argc - 1]); // of the C++ library something is used, as everywhere
    return name.empty() ? std::puts("") : 0;
}
