#include <unistd.h>

#include <csignal>

#include "AllocationFault.h"
#include "ConsoleSeam.h"
#include "EntrySeams.h"

// Allocations that fail while the process entry brings the runtime up.

namespace {

using namespace zortest;
using ::testing::ExitedWithCode;
using ::testing::KilledBySignal;

constexpr int RETURNED = 42;

/// The allocations of the start, in their order.
enum Allocation
{
    TABLES_LOCK,
    TABLES_LOCKS_SEMAPHORE,
    TABLE,
    REGISTRYS_LOCK,
    NOTIFIER,
    NOTIFIERS_START_GATE,
    NOTIFIERS_EXIT_GATE,
    NOTIFIERS_PID_SYNC,
};

/// Each test runs the entry in a process of its own.
class EntryMemoryFaultsDeathTest : public ::testing::Test
{
 protected:
    /// The process of a death test.
    [[noreturn]] static void RunWithout(Allocation number)
    {
        // The notifier's thread looks for its end after each of its sleeps.
        const Takeover sleep(sleepMsSeam, [](unsigned long) { sleepMsSeam.Real(1); });
        const AllocationFault noMemory(number);
        const int result = RunEntry();
        _exit(result == 0 ? RETURNED : 1);
    }

    const OwnPidFile m_pidFile;
};

TEST_F(EntryMemoryFaultsDeathTest, ExceptionOfTheStartLeavesTheRestOut)
{
    const FaultCase fault("operator new", "main (start of the runtime)",
                          "the exception is dropped, the rest of the start is left out and "
                          "`Main()` runs; behind it the stop asserts \"m_pInstance != __null\"");
    for (const Allocation number : {TABLES_LOCK, TABLE, NOTIFIER}) {
        EXPECT_FAULT_EXIT(RunWithout(number), KilledBySignal(SIGABRT),
                          HasAssertionReport("m_pInstance != __null"));
    }
}

TEST_F(EntryMemoryFaultsDeathTest, RuntimeRunsWithoutItsTable)
{
    const FaultCase fault("operator new (nothrow)", "main (table of synchronous calls)",
                          "there is no table; everything else is started and stopped");
    EXPECT_FAULT_EXIT(RunWithout(TABLES_LOCKS_SEMAPHORE), ExitedWithCode(RETURNED), ::testing::_);
}

TEST_F(EntryMemoryFaultsDeathTest, RegistryWithoutItsLockIsAsserted)
{
    const FaultCase fault("operator new (nothrow)", "main (registry's lock)",
                          "the first use of the registry asserts \"FlagCreate() == true\"");
    EXPECT_FAULT_EXIT(RunWithout(REGISTRYS_LOCK), KilledBySignal(SIGABRT),
                      HasAssertionReport("FlagCreate() == true"));
}

TEST_F(EntryMemoryFaultsDeathTest, RuntimeRunsWithoutItsNotifiersThread)
{
    const FaultCase fault("operator new (nothrow)", "main (watchdog notifier)",
                          "there is a notifier without a thread; everything is stopped as always");
    for (const Allocation number :
         {NOTIFIERS_START_GATE, NOTIFIERS_EXIT_GATE, NOTIFIERS_PID_SYNC}) {
        EXPECT_FAULT_EXIT(RunWithout(number), ExitedWithCode(RETURNED), ::testing::_);
    }
}

} // namespace
