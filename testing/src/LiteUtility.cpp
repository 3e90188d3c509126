#include <pthread.h>

#include <atomic>
#include <chrono>
#include <cstring>

#include "AssertionReport.h"
#include "ProcessTime.h"
#include "ZorApiLite.h"
#include "zor/testing/Platform.h"
#include "zor/testing/Runtime.h"

namespace zor::testing {
namespace {

std::atomic<bool> gIsRelease{false};

/// The notifier sleeps 2 seconds at a time and does not look up when it is to end.
constexpr char NOTIFIER_THREAD[] = "WatchdogNotifier";

std::atomic<bool> gHurry{false};

void HurryNotifier(bool hurries)
{
    gHurry.store(hurries);
    internal::EndSleeps(&gHurry);
}

const bool gHurriesNotifier = [] {
    Runtime::hurryNotifier = HurryNotifier;
    return true;
}();

bool IsNotifier()
{
    char name[16] = "";
    pthread_getname_np(pthread_self(), name, sizeof(name));
    return strncmp(name, NOTIFIER_THREAD, sizeof(name) - 1) == 0;
}

} // namespace

void BuildKind::AnswerIsRelease(bool isRelease)
{
    gIsRelease.store(isRelease);
}

} // namespace zor::testing

bool ZorApiLite::LiteUtility::IsRelease()
{
    bool goesOn = false;
    return zor::testing::internal::AnswersAssertion(&goesOn) ? goesOn
                                                             : zor::testing::gIsRelease.load();
}

bool ZorApiLite::LiteUtility::IsDebug()
{
    return !zor::testing::gIsRelease.load();
}

void ZorApiLite::LiteUtility::SleepMs(unsigned long msec)
{
    using namespace zor::testing;
    constexpr unsigned long LONGEST_MSEC = 100UL * 365 * 24 * 3600 * 1000;

    if (internal::PausesForAssertion()) {
        return;
    }
    const bool isNotifier = IsNotifier();
    internal::Sleep(std::chrono::milliseconds(msec < LONGEST_MSEC ? msec : LONGEST_MSEC),
                    isNotifier ? &gHurry : nullptr);
}
