#include <pthread.h>

#include <map>
#include <mutex>

#include "brisk_deadlock.h"
#include "zor/testing/Platform.h"

namespace zor::testing {
namespace {

/// Never destroyed: threads may notify until the process is gone.
struct Calls
{
    std::mutex mutex; ///< guards the rest
    std::vector<Watchdog::Registration> registrations;
    std::map<std::string, std::size_t> notifications; ///< by the name of the thread
    int registrationAnswer = 0;
    int notificationAnswer = 0;
};

Calls& TheCalls()
{
    static Calls* const calls = new Calls;
    return *calls;
}

std::string NameOfThisThread()
{
    char name[16] = "";
    pthread_getname_np(pthread_self(), name, sizeof(name));
    return name;
}

} // namespace

std::vector<Watchdog::Registration> Watchdog::Registrations()
{
    std::lock_guard<std::mutex> lock(TheCalls().mutex);
    return TheCalls().registrations;
}

std::size_t Watchdog::Notifications(const std::string& threadName)
{
    std::lock_guard<std::mutex> lock(TheCalls().mutex);
    const auto found = TheCalls().notifications.find(threadName);
    return found == TheCalls().notifications.end() ? 0 : found->second;
}

void Watchdog::Answer(int registration, int notification)
{
    std::lock_guard<std::mutex> lock(TheCalls().mutex);
    TheCalls().registrationAnswer = registration;
    TheCalls().notificationAnswer = notification;
}

void Watchdog::Reset()
{
    std::lock_guard<std::mutex> lock(TheCalls().mutex);
    TheCalls().registrations.clear();
    TheCalls().notifications.clear();
    TheCalls().registrationAnswer = 0;
    TheCalls().notificationAnswer = 0;
}

} // namespace zor::testing

extern "C" {

__attribute__((visibility("default"))) int brisk_deadlock_register_watchdog_service(
    unsigned long seconds)
{
    using namespace zor::testing;
    std::lock_guard<std::mutex> lock(TheCalls().mutex);
    TheCalls().registrations.push_back({NameOfThisThread(), seconds});
    return TheCalls().registrationAnswer;
}

__attribute__((visibility("default"))) int brisk_deadlock_watchdog_notify(void)
{
    using namespace zor::testing;
    std::lock_guard<std::mutex> lock(TheCalls().mutex);
    ++TheCalls().notifications[NameOfThisThread()];
    return TheCalls().notificationAnswer;
}
}
