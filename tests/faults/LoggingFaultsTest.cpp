#include <cerrno>
#include <memory>
#include <string>
#include <system_error>

#include "FaultCase.h"
#include "LogRecord.h"
#include "LogSeam.h"
#include "RWLockSeams.h"
#include "ZorServiceDebugOverlay.h"

namespace {

using namespace zortest;

/// A plug-in that counts those of its kind.
class CountedLogger : public IZORLogger
{
 public:
    explicit CountedLogger(int* alive) : m_alive(alive) { ++*m_alive; }
    ~CountedLogger() override { --*m_alive; }

    void ZORLog(bool, log_priority, const char*, const char*, const char*, const char*, int, int,
                int, int, int, int, const char*, va_list*) override
    {}

    const std::string& GetLoggerId() const override { return m_id; }

 private:
    const std::string m_id = "counted";
    int* m_alive;
};

class LoggingFaultsTest : public ::testing::Test
{
 protected:
    LoggingFaultsTest() { ClearLog(); }

    /// The error that @p function throws.
    template <typename Function>
    static int ErrorOf(const Function& function)
    {
        try {
            function();
        } catch (const std::system_error& error) {
            return error.code().value();
        }
        return 0;
    }

    /// The plug-ins' lock is free: every thread can read and write them.
    void ExpectFree()
    {
        OnAnotherThread([] {
            const LogRecord record;
            ZOR_LOG(false, DLOG_INFO, "afterwards");
            EXPECT_EQ(record.Get().size(), 1u);
        });
    }

    ZORLogs* const m_front = ZORLogs::getInstance();
};

TEST_F(LoggingFaultsTest, LockThatAsksToTryAgainIsTriedAgain)
{
    const FaultCase fault("pthread_rwlock_rdlock", "ZORLogs::ZORLog (EAGAIN)",
                          "tried again until it is there; the entry reaches the plug-ins");
    const LogRecord record;
    const FailingCall busy(rdlockSeam, EAGAIN);
    ZOR_LOG(false, DLOG_INFO, "an entry");
    EXPECT_EQ(record.Get().size(), 1u);
    EXPECT_EQ(busy.Calls(), 2);
}

TEST_F(LoggingFaultsTest, DeadlockIsThrownBehindTheCurrentLogger)
{
    const FaultCase fault("pthread_rwlock_rdlock", "ZORLogs::ZORLog (EDEADLK)",
                          "std::system_error; the current logger has had the entry, the plug-ins "
                          "have not");
    {
        const LogRecord record;
        const FailingCall deadlock(rdlockSeam, EDEADLK);
        EXPECT_EQ(ErrorOf([] { ZOR_LOG(false, DLOG_INFO, "an entry"); }), EDEADLK);
        EXPECT_EQ(record.Get().size(), 0u);
    }
    EXPECT_EQ(CountLogLines("an entry"), 1u);
    ExpectFree();
}

TEST_F(LoggingFaultsTest, PluginThatCannotBeAddedIsDestroyed)
{
    const FaultCase fault("pthread_rwlock_wrlock", "ZORLogs::AddPlugin",
                          "std::system_error; the plug-in is destroyed");
    int alive = 0;
    {
        const FailingCall deadlock(wrlockSeam, EDEADLK);
        EXPECT_EQ(ErrorOf([&] { m_front->AddPlugin(std::make_unique<CountedLogger>(&alive)); }),
                  EDEADLK);
    }
    EXPECT_EQ(alive, 0);
    ExpectFree();
}

TEST_F(LoggingFaultsTest, PluginThatCannotBeRemovedStays)
{
    const FaultCase fault("pthread_rwlock_wrlock", "ZORLogs::RemovePlugin",
                          "std::system_error; the plug-in stays and can be removed later");
    int alive = 0;
    m_front->AddPlugin(std::make_unique<CountedLogger>(&alive));
    {
        const FailingCall deadlock(wrlockSeam, EDEADLK);
        EXPECT_EQ(ErrorOf([&] { m_front->RemovePlugin("counted"); }), EDEADLK);
    }
    EXPECT_EQ(alive, 1);
    ExpectFree();
    m_front->RemovePlugin("counted");
    EXPECT_EQ(alive, 0);
}

} // namespace
