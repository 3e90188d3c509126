#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "ConsoleSeam.h"
#include "LogSeam.h"
#include "RWLockSeams.h"
#include "RecordingLogger.h"
#include "Wait.h"
#include "ZorServiceDebugOverlay.h"

namespace {

/// The front's current logger. The front itself refuses to lose it.
std::atomic<IZORLogger*>& CurrentLoggerOf(ZORLogs& front);

template <std::atomic<IZORLogger*> ZORLogs::*Member>
struct Reach
{
    friend std::atomic<IZORLogger*>& CurrentLoggerOf(ZORLogs& front) { return front.*Member; }
};

template struct Reach<&ZORLogs::m_logger>;

using testing::ElementsAre;
using testing::IsEmpty;
using zortest::Gate;
using zortest::RecordingLogger;
using zortest::Takeover;

/// Logs an entry of its own before it reads the arguments of the one that it gets.
class NestingLogger : public IZORLogger
{
 public:
    void ZORLog(bool /*flag*/, log_priority /*priority*/, const char* /*tag*/, const char* /*file*/,
                const char* /*prettyFunction*/, const char* /*function*/, int /*scope*/,
                int /*classBegin*/, int /*classEnd*/, int /*functionBegin*/, int /*functionEnd*/,
                int /*line*/, const char* fmt, va_list* args) override
    {
        if (strncmp(fmt, "outer", strlen("outer")) == 0) {
            ZOR_LOG(false, DLOG_INFO, "inner %d %s", 4, "five");
        }
        char message[256];
        vsnprintf(message, sizeof(message), fmt, *args);
        messages.emplace_back(message);
    }

    const std::string& GetLoggerId() const override { return m_id; }

    std::vector<std::string> messages;

 private:
    const std::string m_id = "nesting";
};

class LoggingFrontTest : public ::testing::Test
{
 protected:
    LoggingFrontTest()
    {
        m_front->SetLoggingSystem(&m_logger);
        zortest::ClearLog();
    }

    ~LoggingFrontTest() override
    {
        for (const char* id : {"a", "b", "c", "B", "aa", "\xff"}) {
            m_front->RemovePlugin(id);
        }
        m_front->SetLoggingSystem(ZORLoggerDLOG::Instance());
    }

    /// Adds a plug-in that writes "id:message" into @p order.
    static void AddOrderedPlugin(const std::string& id, std::vector<std::string>* order)
    {
        ZORLogs::getInstance()->AddPlugin(std::make_unique<RecordingLogger>(
            id, [id, order](const std::string& message) { order->push_back(id + ":" + message); }));
    }

    static std::unique_ptr<RecordingLogger> PluginWithFlag(const char* id,
                                                           std::atomic<bool>* destroyed)
    {
        return std::make_unique<RecordingLogger>(id, nullptr, destroyed);
    }

    ZORLogs* m_front = ZORLogs::getInstance();
    RecordingLogger m_logger{"recording"};

    // Outlive the plug-ins of a test, which the destructor removes.
    std::atomic<bool> m_firstDestroyed{false};
    std::atomic<bool> m_secondDestroyed{false};
};

// The one front.

TEST(LoggingFrontInstanceTest, AllThreadsGetTheSameFront)
{
    constexpr int THREADS = 16;
    Gate gate(THREADS);
    std::array<ZORLogs*, THREADS> found{};
    std::vector<std::thread> threads;
    for (ZORLogs*& one : found) {
        threads.emplace_back([&one, &gate] {
            gate.Pass();
            gate.Wait();
            one = ZORLogs::getInstance();
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_NE(found[0], nullptr);
    EXPECT_EQ(std::set<ZORLogs*>(found.begin(), found.end()).size(), 1u);
}

TEST(LoggingFrontInstanceTest, DefaultLoggerIsTheDlogLogger)
{
    EXPECT_EQ(ZORLogs::getInstance()->getLogger(), ZORLoggerDLOG::Instance());
    EXPECT_EQ(&ZORLogs::getInstance()->GetLoggerId(), &ZORLoggerDLOG::m_id);
}

// The current logger.

TEST_F(LoggingFrontTest, SetLoggerIsTheCurrentOne)
{
    EXPECT_EQ(m_front->getLogger(), &m_logger);
    EXPECT_EQ(m_front->GetLoggerId(), "recording");
}

TEST_F(LoggingFrontTest, NewLoggerIsAnnouncedThroughItselfAtFatal)
{
    ASSERT_EQ(m_logger.Entries().size(), 1u);
    const RecordingLogger::TSEntry entry = m_logger.Entries()[0];
    EXPECT_EQ(entry.message, "Setting-up ZOR Logger: [recording]");
    EXPECT_FALSE(entry.flag);
    EXPECT_EQ(entry.priority, DLOG_FATAL);
    EXPECT_EQ(entry.tag, "ZOR_CORE");
    EXPECT_EQ(entry.file, "ZorServiceDebugOverlay.cpp");
    EXPECT_EQ(entry.function, "SetLoggingSystem");
    EXPECT_EQ(entry.prettyFunction.substr(0, 41), "void ZORLogs::SetLoggingSystem(IZORLogger");
    EXPECT_EQ(entry.indices.scope, -1);
    EXPECT_EQ(entry.indices.classBegin, 5);
    EXPECT_EQ(entry.indices.classEnd, 11);
    EXPECT_EQ(entry.indices.functionBegin, 14);
    EXPECT_EQ(entry.indices.functionEnd, 29);
    EXPECT_GT(entry.line, 0);
}

TEST_F(LoggingFrontTest, AnnouncementReachesThePlatformLogToo)
{
    m_front->SetLoggingSystem(ZORLoggerDLOG::Instance());
    const auto lines = zortest::LogLinesWith("Setting-up ZOR Logger: [ZOR DLOG logger]");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].priority, DLOG_FATAL);
    EXPECT_THAT(lines[0].text, testing::ContainsRegex(
                                   "^\\([0-9]{3}\\) -> \\[ZorServiceDebugOverlay.cpp:[0-9]+ \\| "
                                   "ZORLogs::SetLoggingSystem\\] >> Setting-up"));
}

TEST_F(LoggingFrontTest, ReplacedLoggerGetsNothingMoreAndIsNotDeleted)
{
    std::atomic<bool> destroyed{false};
    RecordingLogger second("second", nullptr, &destroyed);
    m_front->SetLoggingSystem(&second);
    m_front->SetLoggingSystem(&m_logger);
    ZOR_LOG(false, DLOG_INFO, "x");
    EXPECT_FALSE(destroyed);
    EXPECT_THAT(second.Messages(), ElementsAre("Setting-up ZOR Logger: [second]"));
    EXPECT_EQ(m_logger.Messages().back(), "x");
}

TEST_F(LoggingFrontTest, NullLoggerIsAssertedAndNotSet)
{
    EXPECT_THAT(zortest::AssertionsOf([this] { m_front->SetLoggingSystem(nullptr); }),
                ElementsAre("logger"));
    EXPECT_EQ(m_front->getLogger(), &m_logger);
    EXPECT_EQ(m_logger.Messages().size(), 1u);
}

TEST_F(LoggingFrontTest, NullLoggerAbortsADebugBuild)
{
    EXPECT_ASSERT_DEATH(m_front->SetLoggingSystem(nullptr), "logger");
}

TEST_F(LoggingFrontTest, MissingLoggerIsAssertedWhenItsIdIsAskedFor)
{
    EXPECT_ASSERT_DEATH(
        {
            CurrentLoggerOf(*m_front) = nullptr;
            m_front->GetLoggerId();
        },
        "lgr");
}

TEST_F(LoggingFrontTest, MissingLoggerIsAssertedWhenAnEntryIsLogged)
{
    EXPECT_ASSERT_DEATH(
        {
            CurrentLoggerOf(*m_front) = nullptr;
            ZOR_LOG(false, DLOG_INFO, "x");
        },
        "getLogger()");
}

TEST_F(LoggingFrontTest, EntryReachesTheLoggerUnchanged)
{
    m_front->ZORLog(true, DLOG_VERBOSE, "TAG", "F.cpp", "pretty", "bare", 1, 2, 3, 4, 5, 6, "%d %s",
                    7, "eight");
    const RecordingLogger::TSEntry entry = m_logger.Entries().back();
    EXPECT_TRUE(entry.flag);
    EXPECT_EQ(entry.priority, DLOG_VERBOSE);
    EXPECT_EQ(entry.tag, "TAG");
    EXPECT_EQ(entry.file, "F.cpp");
    EXPECT_EQ(entry.prettyFunction, "pretty");
    EXPECT_EQ(entry.function, "bare");
    EXPECT_EQ(entry.indices.scope, 1);
    EXPECT_EQ(entry.indices.classBegin, 2);
    EXPECT_EQ(entry.indices.classEnd, 3);
    EXPECT_EQ(entry.indices.functionBegin, 4);
    EXPECT_EQ(entry.indices.functionEnd, 5);
    EXPECT_EQ(entry.line, 6);
    EXPECT_EQ(entry.message, "7 eight");
}

// Plug-ins.

TEST_F(LoggingFrontTest, PluginsAreCalledAfterTheLoggerInByteOrderOfTheirIds)
{
    std::vector<std::string> order;
    RecordingLogger current(
        "current", [&order](const std::string& message) { order.push_back("current:" + message); });
    m_front->SetLoggingSystem(&current);
    order.clear();
    for (const char* id : {"b", "\xff", "a", "B", "aa"}) {
        AddOrderedPlugin(id, &order);
    }
    ZOR_LOG(false, DLOG_INFO, "x");
    EXPECT_THAT(order, ElementsAre("current:x", "B:x", "a:x", "aa:x", "b:x", "\xff:x"));
    m_front->SetLoggingSystem(&m_logger);
}

TEST_F(LoggingFrontTest, EveryLoggerGetsAFreshArgumentList)
{
    std::vector<std::string> order;
    AddOrderedPlugin("a", &order);
    AddOrderedPlugin("b", &order);
    ZOR_LOG(false, DLOG_INFO, "%s %d %.2f %s", "one", 2, 3.25, "four");
    EXPECT_EQ(m_logger.Messages().back(), "one 2 3.25 four");
    EXPECT_THAT(order, ElementsAre("a:one 2 3.25 four", "b:one 2 3.25 four"));
}

TEST_F(LoggingFrontTest, LoggerThatLogsStillHasTheArgumentsOfTheEntryAround)
{
    NestingLogger nesting;
    m_front->SetLoggingSystem(&nesting);
    nesting.messages.clear();
    ZOR_LOG(false, DLOG_INFO, "outer %s %d %.2f", "one", 2, 3.25);
    m_front->SetLoggingSystem(&m_logger);
    EXPECT_THAT(nesting.messages, ElementsAre("inner 4 five", "outer one 2 3.25"));
}

TEST_F(LoggingFrontTest, NullPluginIsAssertedAndNotAdded)
{
    EXPECT_THAT(zortest::AssertionsOf([this] { m_front->AddPlugin(nullptr); }),
                ElementsAre("plugin"));
    ZOR_LOG(false, DLOG_INFO, "x");
    EXPECT_EQ(m_logger.Messages().back(), "x");
}

TEST_F(LoggingFrontTest, PluginWithATakenIdIsDestroyedAndTheFirstStays)
{
    auto first = PluginWithFlag("a", &m_firstDestroyed);
    RecordingLogger* const kept = first.get();
    m_front->AddPlugin(std::move(first));
    m_front->AddPlugin(PluginWithFlag("a", &m_secondDestroyed));
    EXPECT_TRUE(m_secondDestroyed);
    EXPECT_FALSE(m_firstDestroyed);
    ZOR_LOG(false, DLOG_INFO, "x");
    EXPECT_THAT(kept->Messages(), ElementsAre("x"));
}

TEST_F(LoggingFrontTest, RemovedPluginIsDestroyedAndGetsNothingMore)
{
    std::vector<std::string> order;
    m_front->AddPlugin(PluginWithFlag("a", &m_firstDestroyed));
    AddOrderedPlugin("b", &order);
    m_front->RemovePlugin("b");
    EXPECT_FALSE(m_firstDestroyed);
    ZOR_LOG(false, DLOG_INFO, "x");
    EXPECT_THAT(order, IsEmpty());
    m_front->RemovePlugin("a");
    EXPECT_TRUE(m_firstDestroyed);
}

TEST_F(LoggingFrontTest, RemovingAnUnknownIdDoesNothing)
{
    std::vector<std::string> order;
    AddOrderedPlugin("a", &order);
    m_front->RemovePlugin("c");
    m_front->RemovePlugin("A");
    ZOR_LOG(false, DLOG_INFO, "x");
    EXPECT_THAT(order, ElementsAre("a:x"));
}

TEST_F(LoggingFrontTest, RemovingTheEmptyIdDoesNothing)
{
    // In a process of its own: a plug-in with an empty id is there to stay.
    EXPECT_EXIT(
        {
            std::atomic<bool> destroyed{false};
            m_front->AddPlugin(PluginWithFlag("", &destroyed));
            m_front->RemovePlugin("");
            _exit(destroyed ? 1 : 0);
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(LoggingFrontTest, IdIsFreeAgainAfterRemoval)
{
    std::vector<std::string> order;
    AddOrderedPlugin("a", &order);
    m_front->RemovePlugin("a");
    AddOrderedPlugin("a", &order);
    ZOR_LOG(false, DLOG_INFO, "x");
    EXPECT_THAT(order, ElementsAre("a:x"));
}

TEST_F(LoggingFrontTest, RemovalWaitsForTheEntryThatIsBeingLogged)
{
    Gate logging;
    Gate removing;
    std::atomic<bool> destroyed{false};
    std::atomic<bool> destroyedMeanwhile{false};
    m_front->AddPlugin(std::make_unique<RecordingLogger>(
        "a",
        [&](const std::string&) {
            logging.Pass();
            removing.Wait();
            destroyedMeanwhile = destroyed.load();
        },
        &destroyed));
    const Takeover wrlock(zortest::wrlockSeam, [&removing](pthread_rwlock_t* lock) {
        removing.Pass();
        return zortest::wrlockSeam.Real(lock);
    });
    std::thread logger([] { ZOR_LOG(false, DLOG_INFO, "x"); });
    ASSERT_TRUE(logging.Wait());
    m_front->RemovePlugin("a");
    EXPECT_TRUE(destroyed);
    logger.join();
    EXPECT_FALSE(destroyedMeanwhile);
}

// The plug-ins' lock.

TEST_F(LoggingFrontTest, PluginMayRemoveItselfAndAddAnotherWhileItTakesAnEntry)
{
    std::vector<std::string> order;
    bool asked = false;
    m_front->AddPlugin(std::make_unique<RecordingLogger>(
        "b",
        [&](const std::string& message) {
            if (std::exchange(asked, true)) {
                order.push_back("b:" + message);
                return;
            }
            m_front->RemovePlugin("b");
            AddOrderedPlugin("a", &order);
            m_front->RemovePlugin("c");
            ZOR_LOG(false, DLOG_DEBUG, "inner");
            order.push_back("b:" + message);
        },
        &m_firstDestroyed));
    AddOrderedPlugin("c", &order);
    ZOR_LOG(false, DLOG_DEBUG, "first");
    EXPECT_TRUE(m_firstDestroyed);
    ZOR_LOG(false, DLOG_DEBUG, "second");
    EXPECT_THAT(order, ElementsAre("b:inner", "c:inner", "b:first", "c:first", "a:second"));
}

TEST_F(LoggingFrontTest, ChangesThatAPluginAskedForAreMadeThoughALaterOneThrows)
{
    std::vector<std::string> order;
    m_front->AddPlugin(std::make_unique<RecordingLogger>("a", [&](const std::string&) {
        m_front->RemovePlugin("c");
        AddOrderedPlugin("aa", &order);
    }));
    m_front->AddPlugin(std::make_unique<RecordingLogger>(
        "b", [](const std::string& message) { throw std::runtime_error(message); }));
    m_front->AddPlugin(PluginWithFlag("c", &m_firstDestroyed));
    EXPECT_THROW(ZOR_LOG(false, DLOG_DEBUG, "x"), std::runtime_error);
    EXPECT_TRUE(m_firstDestroyed);
    m_front->RemovePlugin("a");
    m_front->RemovePlugin("b");
    ZOR_LOG(false, DLOG_DEBUG, "y");
    EXPECT_THAT(order, ElementsAre("aa:y"));
}

TEST_F(LoggingFrontTest, CurrentLoggerIsCalledBeforeTheLockIsTaken)
{
    std::vector<std::string> order;
    RecordingLogger current("current", [&order](const std::string&) { order.push_back("logger"); });
    const Takeover rdlock(zortest::rdlockSeam, [&order](pthread_rwlock_t* lock) {
        order.push_back("lock");
        return zortest::rdlockSeam.Real(lock);
    });
    const Takeover unlock(zortest::rwlockUnlockSeam, [&order](pthread_rwlock_t* lock) {
        order.push_back("unlock");
        return zortest::rwlockUnlockSeam.Real(lock);
    });
    AddOrderedPlugin("a", &order);
    CurrentLoggerOf(*m_front) = &current;
    order.clear();
    ZOR_LOG(false, DLOG_INFO, "x");
    CurrentLoggerOf(*m_front) = &m_logger;
    EXPECT_THAT(order, ElementsAre("logger", "lock", "a:x", "unlock"));
}

TEST_F(LoggingFrontTest, LockThatAsksToTryAgainIsTriedAgain)
{
    int tries = 0;
    const Takeover rdlock(zortest::rdlockSeam, [&tries](pthread_rwlock_t* lock) {
        return ++tries < 4 ? EAGAIN : zortest::rdlockSeam.Real(lock);
    });
    std::vector<std::string> order;
    AddOrderedPlugin("a", &order);
    ZOR_LOG(false, DLOG_INFO, "x");
    EXPECT_EQ(tries, 4);
    EXPECT_THAT(order, ElementsAre("a:x"));
}

TEST_F(LoggingFrontTest, DeadlockOfTheLockIsThrownAfterTheLoggerHasHadTheEntry)
{
    std::vector<std::string> order;
    AddOrderedPlugin("a", &order);
    {
        const Takeover rdlock(zortest::rdlockSeam, [](pthread_rwlock_t*) { return EDEADLK; });
        try {
            ZOR_LOG(false, DLOG_INFO, "x");
            ADD_FAILURE() << "nothing thrown";
        } catch (const std::system_error& error) {
            EXPECT_EQ(error.code(), std::errc::resource_deadlock_would_occur);
        }
    }
    EXPECT_EQ(m_logger.Messages().back(), "x");
    EXPECT_THAT(order, IsEmpty());
    ZOR_LOG(false, DLOG_INFO, "y");
    EXPECT_THAT(order, ElementsAre("a:y"));
}

TEST_F(LoggingFrontTest, BothDlogLoggersOnOneEntryAdvanceTheSequenceTwice)
{
    /// Hands its entries on, because the runtime's own loggers cannot be owned by the front.
    class Forwarder : public RecordingLogger
    {
     public:
        using RecordingLogger::RecordingLogger;

        void ZORLog(bool flag, log_priority priority, const char* tag, const char* file,
                    const char* prettyFunction, const char* function, int scope, int classBegin,
                    int classEnd, int functionBegin, int functionEnd, int line, const char* fmt,
                    va_list* args) override
        {
            ZORLoggerDLOG2023::Instance()->ZORLog(flag, priority, tag, file, prettyFunction,
                                                  function, scope, classBegin, classEnd,
                                                  functionBegin, functionEnd, line, fmt, args);
        }
    };
    m_front->SetLoggingSystem(ZORLoggerDLOG::Instance());
    m_front->AddPlugin(std::make_unique<Forwarder>("a"));
    zortest::ClearLog();
    std::thread([] {
        ZOR_LOG(false, DLOG_INFO, "x");
        ZOR_LOG(false, DLOG_INFO, "y");
    }).join();
    const auto lines = zortest::LogLines();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_THAT(lines[0].text, testing::StartsWith("(001) -> "));
    EXPECT_THAT(lines[1].text, testing::HasSubstr(" > 002 | x"));
    EXPECT_THAT(lines[2].text, testing::StartsWith("(003) -> "));
    EXPECT_THAT(lines[3].text, testing::HasSubstr(" > 004 | y"));
}

// Threads.

TEST_F(LoggingFrontTest, ThreadsLogWhilePluginsComeAndGo)
{
    constexpr int THREADS = 3;
    constexpr int ENTRIES = 300;
    auto plugin = std::make_unique<RecordingLogger>("b");
    RecordingLogger* const stays = plugin.get();
    m_front->AddPlugin(std::move(plugin));

    Gate gate(THREADS + 1);
    std::atomic<int> running{THREADS};
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([&gate, &running, i] {
            gate.Pass();
            gate.Wait();
            for (int entry = 0; entry < ENTRIES; ++entry) {
                ZOR_LOG(false, DLOG_INFO, "thread %d entry %d", i, entry);
            }
            --running;
        });
    }
    gate.Pass();
    gate.Wait();
    int rounds = 0;
    for (; running > 0 || rounds < 10; ++rounds) {
        m_front->AddPlugin(std::make_unique<RecordingLogger>("a"));
        m_front->AddPlugin(std::make_unique<RecordingLogger>("c"));
        m_front->RemovePlugin("a");
        m_front->RemovePlugin("c");
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    const auto messages = stays->Messages();
    EXPECT_EQ(messages.size(), static_cast<size_t>(THREADS * ENTRIES));
    EXPECT_EQ(std::set<std::string>(messages.begin(), messages.end()).size(), messages.size());
    EXPECT_EQ(m_logger.Messages().size(), 1u + THREADS * ENTRIES);
}

TEST_F(LoggingFrontTest, ThreadsLogWhileTheLoggerIsReplaced)
{
    constexpr int THREADS = 3;
    constexpr int ENTRIES = 300;
    RecordingLogger other("other");
    Gate gate(THREADS);
    std::atomic<int> running{THREADS};
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([&gate, &running] {
            gate.Pass();
            gate.Wait();
            for (int entry = 0; entry < ENTRIES; ++entry) {
                ZOR_LOG(false, DLOG_INFO, "entry");
            }
            --running;
        });
    }
    size_t announcements = 1; // of the fixture
    while (running > 0) {
        m_front->SetLoggingSystem(&other);
        m_front->SetLoggingSystem(&m_logger);
        announcements += 2;
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(m_logger.Entries().size() + other.Entries().size(),
              announcements + THREADS * ENTRIES);
}

} // namespace
