#include "ThreadUtil.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <thread>
#include <vector>

#include "ConsoleSeam.h"
#include "LogRecord.h"
#include "LogSeam.h"
#include "Thread.h"
#include "ThreadSeams.h"
#include "TimesSeams.h"

namespace {

using namespace zortest;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::IsEmpty;

/// The system's count of clock ticks as the test says, at a rate as the test says.
class TimeWrapperTest : public ::testing::Test
{
 protected:
    TimeWrapperTest()
        : m_times(timesSeam,
                  [this](tms* buffer) {
                      EXPECT_EQ(buffer, nullptr);
                      return m_ticks;
                  }),
          m_sysconf(sysconfSeam, [this](int) { return m_ticksPerSecond; })
    {
        ClearLog();
    }

    clock_t m_ticks = 0;
    long m_ticksPerSecond = 100;

 private:
    Takeover<clock_t(tms*)> m_times;
    Takeover<long(int)> m_sysconf;
};

TEST_F(TimeWrapperTest, TickIsTenMillisecondsATickWith100TicksPerSecond)
{
    for (const clock_t ticks : {0L, 1L, 7L, 1234567L, 429496730L}) {
        m_ticks = ticks;
        EXPECT_EQ(TCTimeWrapper::Tick(), static_cast<unsigned long>(ticks) * 10);
    }
}

TEST_F(TimeWrapperTest, TickDividesBeforeItMultiplies)
{
    m_ticks = 1000;
    m_ticksPerSecond = 300;
    EXPECT_EQ(TCTimeWrapper::Tick(), 3000u);
    m_ticksPerSecond = 1000;
    EXPECT_EQ(TCTimeWrapper::Tick(), 1000u);
    m_ticksPerSecond = 1024;
    EXPECT_EQ(TCTimeWrapper::Tick(), 0u);
}

TEST_F(TimeWrapperTest, TickIsAllOnesAndAPrintedWarningWithoutTimes)
{
    m_ticks = -1;
    EXPECT_EQ(TCTimeWrapper::Tick(), ~0UL);
    const std::vector<LogLine> lines = LogLinesWith("> QLN Warning: times() return error(-1).\n\n");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].tag, "ZOR");
    EXPECT_EQ(lines[0].priority, 4);
}

TEST_F(TimeWrapperTest, TickSaysNothingWhenAllIsWell)
{
    m_ticks = 5;
    TCTimeWrapper::Tick();
    EXPECT_THAT(LogLines(), IsEmpty());
}

TEST(TimeWrapperOfTheSystemTest, TickMovesInWholeTicksAndNeverBack)
{
    constexpr int LOOKS = 1000;
    const auto step = static_cast<unsigned long>(1000 / sysconf(_SC_CLK_TCK));
    unsigned long last = TCTimeWrapper::Tick();
    for (int i = 0; i < LOOKS; ++i) {
        const unsigned long now = TCTimeWrapper::Tick();
        ASSERT_EQ(now % step, 0u);
        ASSERT_GE(now, last);
        last = now;
    }
}

TEST_F(TimeWrapperTest, SleepIsThePlatformsSleep)
{
    std::vector<unsigned long> sleeps;
    const Takeover sleep(sleepMsSeam, [&](unsigned long msec) { sleeps.push_back(msec); });
    TCTimeWrapper::Sleep(1234);
    TCTimeWrapper::Sleep(0);
    TCTimeWrapper::Sleep(~0UL);
    EXPECT_THAT(sleeps, ElementsAre(1234UL, 0UL, ~0UL));
}

TEST(ThreadSelfTest, IdIsTheHandleOfTheCallingThread)
{
    EXPECT_EQ(TCThreadSelf::Id(), pthread_self());
    pthread_t id = 0;
    std::thread other([&] { id = TCThreadSelf::Id(); });
    const pthread_t handle = other.native_handle();
    other.join();
    EXPECT_EQ(id, handle);
}

/// A thread that names itself, and the record of what it says.
class ThreadUtilTest : public ::testing::Test
{
 protected:
    ThreadUtilTest() { ClearLog(); }

    /// Names a thread of its own.
    /// @return the kernel name that it has then
    static std::string NameAThread(const char* name)
    {
        char kernelName[16] = "";
        std::thread([&] {
            TCThreadUtil::SetCurrentThreadName(name);
            prctl(PR_GET_NAME, kernelName);
        }).join();
        return kernelName;
    }

    const LogRecord m_record;
};

TEST_F(ThreadUtilTest, NameIsSetInTheKernel)
{
    EXPECT_EQ(NameAThread("decoder"), "decoder");
    EXPECT_THAT(LogLines(), IsEmpty());
    EXPECT_THAT(m_record.Get(), IsEmpty());
}

TEST_F(ThreadUtilTest, NameIsThatOfTheCallingThread)
{
    std::vector<bool> ofTheCaller;
    const Takeover setname(setnameSeam, [&](pthread_t thread, const char*) {
        ofTheCaller.push_back(pthread_equal(thread, pthread_self()) != 0);
        return 0;
    });
    NameAThread("decoder");
    EXPECT_THAT(ofTheCaller, ElementsAre(true));
}

TEST_F(ThreadUtilTest, NameThatIsTooLongIsRefusedAndLogged)
{
    EXPECT_NE(NameAThread("abcdefghijklmnopqrst"), "abcdefghijklmno");
    ASSERT_EQ(m_record.Get().size(), 1u);
    EXPECT_EQ(m_record.Get()[0].text, "abcdefghijklmnopqrst");
}

TEST_F(ThreadUtilTest, RefusalIsLoggedWithTheTextAsTagAndTheNameAsMessage)
{
    const Takeover setname(setnameSeam, [](pthread_t, const char*) { return ERANGE; });
    NameAThread("decoder");

    const std::vector<LogEntry> entries = m_record.Get();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_TRUE(entries[0].flag);
    EXPECT_EQ(entries[0].priority, 4);
    EXPECT_EQ(entries[0].tag, "\"failed to set %s name, result:%ld\"");
    EXPECT_EQ(entries[0].format, "decoder");

    const std::vector<LogLine> lines = LogLines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].priority, 6); // promoted by the flag
    EXPECT_EQ(lines[0].tag, "\"failed to set %s name, result:%ld\"");
    EXPECT_THAT(lines[0].text, EndsWith("TCThreadUtil::SetCurrentThreadName] >> decoder"));
}

TEST_F(ThreadUtilTest, ResultFollowsTheNameAsALong)
{
    const Takeover setname(setnameSeam, [](pthread_t, const char*) { return ERANGE; });
    NameAThread("is %ld");
    ASSERT_EQ(m_record.Get().size(), 1u);
    EXPECT_EQ(m_record.Get()[0].text, "is 34");
}

} // namespace
