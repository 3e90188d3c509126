/// Two threads add to a number; the lock covers the read and the write, but not both together.
#include <mutex>
#include <thread>

namespace {

std::mutex g_lock;
int g_number;

int Get()
{
    const std::lock_guard<std::mutex> lock(g_lock);
    return g_number;
}

void Set(int number)
{
    const std::lock_guard<std::mutex> lock(g_lock);
    g_number = number;
}

void Add()
{
    Set(Get() + 1);
}

} // namespace

int main()
{
    std::thread other(Add);
    Add();
    other.join();
    return Get() == 2 ? 0 : 1;
}
