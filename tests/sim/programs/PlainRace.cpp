/// Two threads add to a plain number, without any lock.
#include <thread>

namespace {

int g_number;

void Add()
{
    ++g_number;
}

} // namespace

int main()
{
    std::thread other(Add);
    Add();
    other.join();
    return g_number == 2 ? 0 : 1;
}
