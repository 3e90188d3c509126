#include <cstdio>

#include "Main.h"
#include "zor/Task.h"

struct Count
{
    int number;
};

class Counter : public zor::Task<Counter, Count>
{
 public:
    int On(const Count& count) { return count.number + 1; }
};

int Main()
{
    Counter counter;
    if (!counter.Start("Counter")) {
        return 1;
    }
    const zor::Result<int> next = counter.Ask(Count{6}, std::chrono::seconds(60));
    counter.End();
    std::printf("counted %d\n", next ? *next : -1);
    return 0;
}
