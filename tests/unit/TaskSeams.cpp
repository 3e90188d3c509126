#include "TaskSeams.h"

#include <pthread.h>

#include "Wait.h"
#include "brisk_deadlock.h"

namespace zortest {

Seam<int(unsigned long)> watchdogRegisterSeam("brisk_deadlock_register_watchdog_service");
Seam<int()> watchdogNotifySeam("brisk_deadlock_watchdog_notify");

namespace {

std::string ThreadName()
{
    char name[16] = "";
    pthread_getname_np(pthread_self(), name, sizeof(name));
    return name;
}

} // namespace

FakeWatchdog::FakeWatchdog()
    : m_register(watchdogRegisterSeam,
                 [this](unsigned long timeOut) {
                     std::lock_guard<std::mutex> lock(m_mutex);
                     m_timeOuts.push_back(timeOut);
                     m_registered.push_back(ThreadName());
                     return registerResult.load();
                 }),
      m_notify(watchdogNotifySeam, [this] {
          std::lock_guard<std::mutex> lock(m_mutex);
          m_notifiers.push_back(ThreadName());
          return notifyResult.load();
      })
{}

std::vector<unsigned long> FakeWatchdog::TimeOuts() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_timeOuts;
}

std::vector<std::string> FakeWatchdog::Registered() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_registered;
}

std::vector<std::string> FakeWatchdog::Notifiers() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_notifiers;
}

bool FakeWatchdog::WaitForNotifications(std::size_t count) const
{
    return Eventually([this, count] { return Notifiers().size() >= count; });
}

} // namespace zortest

extern "C" int brisk_deadlock_register_watchdog_service(unsigned long seconds)
{
    return zortest::watchdogRegisterSeam(seconds);
}

extern "C" int brisk_deadlock_watchdog_notify(void)
{
    return zortest::watchdogNotifySeam();
}
