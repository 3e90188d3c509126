// mutex_sections operations | handover | calls CALLS | hops PAIRS HOPS HANDLER_NSEC |
// recorded PAIRS HOPS HANDLER_NSEC
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "Held.h"
#include "Main.h"
#include "Workloads.h"

namespace {

int Usage(const char* program)
{
    std::fprintf(stderr,
                 "usage: %s operations | handover | calls CALLS | hops PAIRS HOPS HANDLER_NSEC |"
                 " recorded PAIRS HOPS HANDLER_NSEC\n",
                 program);
    return 2;
}

} // namespace

/// The program has its own main(), so that no pid file is made; the library's refers to this.
__attribute__((visibility("default"))) int Main()
{
    return 0;
}

int main(int argc, char** argv)
{
    setenv("ZOR_DLOG", "none", 1);
    const auto is = [&](const char* what, int arguments) {
        return argc == 2 + arguments && std::strcmp(argv[1], what) == 0;
    };
    std::vector<long> numbers;
    for (int i = 2; i < argc; ++i) {
        char* end = nullptr;
        numbers.push_back(std::strtol(argv[i], &end, 10));
        if (*end != '\0' || numbers.back() < (i == 4 ? 0 : 1)) {
            return Usage(argv[0]);
        }
    }
    held::Prepare();
    if (is("operations", 0)) {
        workloads::MeasureOperations();
    } else if (is("handover", 0)) {
        workloads::MeasureHandover();
    } else if (is("calls", 1)) {
        workloads::MeasureCalls(numbers[0]);
    } else if (is("hops", 3) || is("recorded", 3)) {
        workloads::MeasurePairs(numbers[0], numbers[1], numbers[2], is("recorded", 3));
    } else {
        return Usage(argv[0]);
    }
    return 0;
}
