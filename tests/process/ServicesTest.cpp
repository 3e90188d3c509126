#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "DaemonProcess.h"
#include "PidFile.h"

namespace {

using testing::ElementsAre;
using zortest::DaemonProcess;

constexpr char DAEMON[] = "zor-test-services-daemon";

/// Starting and stopping the runtime's services around Main().
class ServicesTest : public ::testing::Test
{
 protected:
    /// Runs a daemon whose Main() returns 3, which must be its exit status whatever its services
    /// do.
    /// @return the calls of services in their order, with "Main" among them
    static std::vector<std::string> Steps(const std::vector<std::string>& environment)
    {
        DaemonProcess daemon(DAEMON, {"3"}, environment);
        EXPECT_TRUE(daemon.WaitForEnd());
        EXPECT_EQ(daemon.ExitStatus(), 3) << daemon.Errors();
        std::vector<std::string> steps;
        for (const std::string& line : daemon.OutputLines()) {
            if (line.compare(0, 8, "service ") == 0) {
                steps.push_back(line.substr(8));
            } else if (line.compare(0, 5, "Main ") == 0) {
                steps.push_back("Main");
            }
        }
        return steps;
    }

    zortest::PidFileGuard m_pidFile;
};

TEST_F(ServicesTest, ServicesStartBeforeMainAndStopAfterItInTheseOrders)
{
    EXPECT_THAT(Steps({}),
                ElementsAre("TCSyncDet::Create", "TCTaskList::FlagInitialize", "registry lock of 1",
                            "TCWatchdogNotifier::Init", "Main", "TCWatchdogNotifier::Exit",
                            "TCSyncDet::Destroy", "TCTaskList::Finalize"));
}

TEST_F(ServicesTest, RegistryLockThatIsThereAlreadyIsNotCreatedAgain)
{
    EXPECT_THAT(Steps({"ZOR_TEST_LOCK=early"}),
                ElementsAre("registry lock of 1", "TCSyncDet::Create", "TCTaskList::FlagInitialize",
                            "TCWatchdogNotifier::Init", "Main", "TCWatchdogNotifier::Exit",
                            "TCSyncDet::Destroy", "TCTaskList::Finalize"));
}

TEST_F(ServicesTest, MissingTableOfSynchronousCallsStopsNothingAndIsNotDestroyed)
{
    EXPECT_THAT(Steps({"ZOR_TEST_NO_SYNC=1"}),
                ElementsAre("TCSyncDet::Create", "TCTaskList::FlagInitialize", "registry lock of 1",
                            "TCWatchdogNotifier::Init", "Main", "TCWatchdogNotifier::Exit",
                            "TCTaskList::Finalize"));
}

// A start that has been cut short is not followed by a stop that fits it; that the stop is given up
// at its first step keeps these to the start.

TEST_F(ServicesTest, ExceptionOfTheFirstStartStepLeavesOutTheOthersAndMainRuns)
{
    EXPECT_THAT(Steps({"ZOR_TEST_THROW=TCSyncDet::Create TCWatchdogNotifier::Exit"}),
                ElementsAre("TCSyncDet::Create", "Main", "TCWatchdogNotifier::Exit"));
}

TEST_F(ServicesTest, ExceptionOfTheRegistryLockLeavesOutTheNotifierAndMainRuns)
{
    EXPECT_THAT(Steps({"ZOR_TEST_THROW=registry lock of 1 TCWatchdogNotifier::Exit"}),
                ElementsAre("TCSyncDet::Create", "TCTaskList::FlagInitialize", "registry lock of 1",
                            "Main", "TCWatchdogNotifier::Exit"));
}

TEST_F(ServicesTest, ExceptionOfTheLastStartStepIsDroppedAndMainRuns)
{
    EXPECT_THAT(Steps({"ZOR_TEST_THROW=TCWatchdogNotifier::Init TCWatchdogNotifier::Exit"}),
                ElementsAre("TCSyncDet::Create", "TCTaskList::FlagInitialize", "registry lock of 1",
                            "TCWatchdogNotifier::Init", "Main", "TCWatchdogNotifier::Exit"));
}

TEST_F(ServicesTest, ExceptionOfTheFirstStopStepLeavesOutTheOthers)
{
    EXPECT_THAT(Steps({"ZOR_TEST_THROW=TCWatchdogNotifier::Exit"}),
                ElementsAre("TCSyncDet::Create", "TCTaskList::FlagInitialize", "registry lock of 1",
                            "TCWatchdogNotifier::Init", "Main", "TCWatchdogNotifier::Exit"));
}

TEST_F(ServicesTest, ExceptionOfTheSecondStopStepLeavesOutTheLast)
{
    EXPECT_THAT(Steps({"ZOR_TEST_THROW=TCSyncDet::Destroy"}),
                ElementsAre("TCSyncDet::Create", "TCTaskList::FlagInitialize", "registry lock of 1",
                            "TCWatchdogNotifier::Init", "Main", "TCWatchdogNotifier::Exit",
                            "TCSyncDet::Destroy"));
}

TEST_F(ServicesTest, ExceptionOfTheLastStopStepIsDropped)
{
    EXPECT_THAT(Steps({"ZOR_TEST_THROW=TCTaskList::Finalize"}),
                ElementsAre("TCSyncDet::Create", "TCTaskList::FlagInitialize", "registry lock of 1",
                            "TCWatchdogNotifier::Init", "Main", "TCWatchdogNotifier::Exit",
                            "TCSyncDet::Destroy", "TCTaskList::Finalize"));
}

} // namespace
