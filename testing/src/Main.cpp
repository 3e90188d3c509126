#include "Main.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "ProcessTimeSeams.h"
#include "ZorApiLite.h"
#include "brisk_deadlock.h"
#include "dlog.h"
#include "zor/testing/Platform.h"
#include "zor/testing/Runtime.h"

extern "C" __attribute__((visibility("default"))) void
zor_testing_is_not_linked_link_with_zor_testing()
{}

namespace zor::testing {
namespace {

constexpr int STATUS_UNUSABLE = 1;

bool gMainRan = false;

/// Ends a program with a failure that has this library in it but ran another `main()`: it has ended
/// well without having run a test.
struct OwnMainWatch
{
    ~OwnMainWatch()
    {
        if (!gMainRan) {
            fputs(
                "zor::testing: its main() has not run, and so no test; another library's was "
                "taken. Link zor::testing into the program itself.\n",
                stderr);
            fflush(nullptr);
            _exit(STATUS_UNUSABLE);
        }
    }
};

const OwnMainWatch gOwnMainWatch;

template <typename Function>
internal::TakenFunction Taken(const char* symbol, Function* function)
{
    return {symbol, reinterpret_cast<void*>(function)};
}

/// Whether the dynamic linker gives libraries the functions that this program defines; says so if
/// not.
bool TakesOver()
{
    using ZorApiLite::LiteUtility;

    std::vector<internal::TakenFunction> functions = internal::TakenFunctionsOfTime();
    functions.push_back(Taken("__dlog_print", &__dlog_print));
    functions.push_back(Taken("brisk_deadlock_register_watchdog_service",
                              &brisk_deadlock_register_watchdog_service));
    functions.push_back(Taken("brisk_deadlock_watchdog_notify", &brisk_deadlock_watchdog_notify));
    functions.push_back(Taken("_ZN10ZorApiLite11LiteUtility9IsReleaseEv", &LiteUtility::IsRelease));
    functions.push_back(Taken("_ZN10ZorApiLite11LiteUtility7IsDebugEv", &LiteUtility::IsDebug));
    functions.push_back(Taken("_ZN10ZorApiLite11LiteUtility7SleepMsEm", &LiteUtility::SleepMs));
    functions.push_back(Taken("fopen", &fopen));
    bool takesOver = true;
    for (const internal::TakenFunction& function : functions) {
        if (dlsym(RTLD_DEFAULT, function.symbol) != function.function) {
            fprintf(stderr,
                    "zor::testing: libraries do not see this program's %s. Link it dynamically, "
                    "with -rdynamic, and hide no symbols of libzor-testing.a.\n",
                    function.symbol);
            takesOver = false;
        }
    }
    return takesOver;
}

/// Begins each test with empty records, counts the tests, and shows the log of those that fail.
class Listener : public ::testing::EmptyTestEventListener
{
 public:
    bool HasRunTests() const { return m_hasRunTests; }

    void OnTestStart(const ::testing::TestInfo& /*test*/) override
    {
        m_hasRunTests = true;
        PlatformLog::Clear();
        Watchdog::Reset();
        BuildKind::AnswerIsRelease(false);
    }

    void OnTestEnd(const ::testing::TestInfo& test) override
    {
        if (!test.result()->Failed()) {
            return;
        }
        for (const PlatformLog::Line& line : PlatformLog::Lines()) {
            printf("[ PLATFORM ] %d %s(%s): %s\n", line.priority, line.tag.c_str(),
                   line.threadName.c_str(), line.text.c_str());
        }
        fflush(stdout);
    }

 private:
    bool m_hasRunTests = false;
};

bool AsksForHelp(int argc, char** argv)
{
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument == "--help" || argument == "-h" || argument == "-?") {
            return true;
        }
    }
    return false;
}

/// Whether it is right that no test has run: a list was wanted, or this is one of several shards.
bool MayRunNone()
{
    return GTEST_FLAG_GET(list_tests) || ::testing::internal::InDeathTestChild() ||
           (getenv("GTEST_TOTAL_SHARDS") != nullptr &&
            ::testing::UnitTest::GetInstance()->total_test_count() > 0);
}

/// Tasks that are left over would work on without a runtime, so nothing is taken down then.
void EndIfTasksAreLeft()
{
    const std::vector<std::string> tasks = Runtime::Tasks();
    if (tasks.empty()) {
        return;
    }
    fputs("zor::testing: these tasks have not been destroyed:", stderr);
    for (const std::string& task : tasks) {
        fprintf(stderr, " %s", task.c_str());
    }
    fputs("\n", stderr);
    fflush(nullptr);
    _exit(STATUS_UNUSABLE);
}

int RunTests(const Listener& listener)
{
    int status = STATUS_UNUSABLE;
    {
        const Runtime runtime(Runtime::Services::ALL);
        status = RUN_ALL_TESTS();
        EndIfTasksAreLeft();
    }
    // What goes wrong outside of the tests, last of all when the runtime goes down.
    if (::testing::UnitTest::GetInstance()->ad_hoc_test_result().Failed()) {
        status = STATUS_UNUSABLE;
    }
    if (!listener.HasRunTests() && !MayRunNone()) {
        fprintf(stderr, "zor::testing: no test has run; %d are linked.\n",
                ::testing::UnitTest::GetInstance()->total_test_count());
        status = STATUS_UNUSABLE;
    }
    return status;
}

} // namespace
} // namespace zor::testing

/// The runtime imports the application's. A test program may link its own along.
__attribute__((weak, visibility("default"))) int Main()
{
    return 0;
}

__attribute__((visibility("default"))) int main(int argc, char** argv)
{
    using namespace zor::testing;

    gMainRan = true;
    // The program has threads: a death test starts it anew instead of forking it.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const bool asksForHelp = AsksForHelp(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    gArgc = argc;
    gArgv = argv;
    if (!TakesOver()) {
        return STATUS_UNUSABLE;
    }
    if (asksForHelp) {
        return RUN_ALL_TESTS();
    }
    auto* const listener = new Listener; // GoogleTest's from here on
    ::testing::UnitTest::GetInstance()->listeners().Append(listener);
    return RunTests(*listener);
}
