#include "FaultCase.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "Wait.h"

namespace zortest {
namespace {

constexpr char MARK[] = "[fault injected]\n";

std::atomic<int> gInjected{0};

} // namespace

FaultCase::FaultCase(const std::string& call, const std::string& place, const std::string& outcome)
{
    gInjected = 0;
    ::testing::Test::RecordProperty("call", call);
    ::testing::Test::RecordProperty("place", place);
    ::testing::Test::RecordProperty("outcome", outcome);
}

FaultCase::~FaultCase()
{
    EXPECT_GT(gInjected, 0) << "no call was made to fail";
}

void FaultCase::Injected()
{
    ++gInjected;
    if (::testing::internal::InDeathTestChild()) {
        const int before = errno;
        EXPECT_EQ(write(STDERR_FILENO, MARK, strlen(MARK)), static_cast<ssize_t>(strlen(MARK)));
        errno = before;
    }
}

::testing::Matcher<const std::string&> HasInjectedFault()
{
    return ::testing::HasSubstr(MARK);
}

void OnAnotherThread(const std::function<void()>& function)
{
    Gate done;
    std::thread thread([&] {
        function();
        done.Pass();
    });
    if (!done.Wait()) {
        fprintf(stderr, "another thread cannot go on: something has stayed locked\n");
        abort();
    }
    thread.join();
}

} // namespace zortest
