#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "Layout.h"
#include "LogSeam.h"
#include "RecordingLogger.h"
#include "TCDebugPrint.h"
#include "Wait.h"
#include "ZorServiceDebugOverlay.h"

namespace {

using testing::EndsWith;
using testing::HasSubstr;
using zortest::Gate;
using zortest::LogCall;
using zortest::LogLine;
using zortest::LogLines;
using zortest::LogTo;
using zortest::RecordingLogger;
using zortest::SlotOf;

// What every logger promises, whoever wrote it.

/// A logger of an application, reached as the ones of the runtime are.
class ApplicationLogger : public RecordingLogger
{
 public:
    ApplicationLogger() : RecordingLogger("application") {}

    static ApplicationLogger* Instance()
    {
        static ApplicationLogger instance;
        return &instance;
    }

    static const std::string m_id;
};

const std::string ApplicationLogger::m_id = "application";

template <typename Logger>
class LoggerContractTest : public ::testing::Test
{
 protected:
    LoggerContractTest()
    {
        zortest::ClearLog();
        ApplicationLogger::Instance()->Clear();
    }

    /// The messages that have come out, wherever the logger writes to.
    std::vector<std::string> Outputs() const
    {
        std::vector<std::string> outputs = ApplicationLogger::Instance()->Messages();
        for (const LogLine& line : LogLines()) {
            outputs.push_back(line.text);
        }
        return outputs;
    }

    IZORLogger* m_logger = Logger::Instance();
};

using Loggers =
    ::testing::Types<ZORLoggerDLOG, ZORLoggerDLOG2023, ZORLoggerLegacy, ApplicationLogger>;

struct TSLoggerNames
{
    template <typename Logger>
    static std::string GetName(int index)
    {
        static const char* const names[] = {"Dlog", "Dlog2023", "Legacy", "Application"};
        return names[index];
    }
};

TYPED_TEST_SUITE(LoggerContractTest, Loggers, TSLoggerNames);

TYPED_TEST(LoggerContractTest, ThereIsOneInstance)
{
    constexpr int THREADS = 8;
    Gate gate(THREADS);
    std::array<IZORLogger*, THREADS> found{};
    std::vector<std::thread> threads;
    for (IZORLogger*& one : found) {
        threads.emplace_back([&one, &gate] {
            gate.Pass();
            gate.Wait();
            one = TypeParam::Instance();
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(std::set<IZORLogger*>(found.begin(), found.end()),
              std::set<IZORLogger*>{this->m_logger});
}

TYPED_TEST(LoggerContractTest, IdNeverChanges)
{
    EXPECT_EQ(this->m_logger->GetLoggerId(), TypeParam::m_id);
    EXPECT_EQ(&this->m_logger->GetLoggerId(), &this->m_logger->GetLoggerId());
    EXPECT_FALSE(TypeParam::m_id.empty());
}

TYPED_TEST(LoggerContractTest, OneEntryIsOneOutputWithItsArgumentsPutIn)
{
    LogTo(this->m_logger, LogCall(), "%s %d %.1f %c", "channel", -7, 1.5, 'x');
    ASSERT_EQ(this->Outputs().size(), 1u);
    EXPECT_THAT(this->Outputs()[0], EndsWith("channel -7 1.5 x"));
}

TYPED_TEST(LoggerContractTest, EveryPriorityIsTaken)
{
    LogCall call;
    for (int priority = DLOG_UNKNOWN; priority <= DLOG_SILENT + 1; ++priority) {
        for (const bool flag : {false, true}) {
            call.priority = static_cast<log_priority>(priority);
            call.flag = flag;
            LogTo(this->m_logger, call, "priority %d", priority);
        }
    }
    EXPECT_EQ(this->Outputs().size(), 20u);
}

TYPED_TEST(LoggerContractTest, EntryWithoutRangesIsTaken)
{
    LogCall call;
    call.classBegin = call.classEnd = call.functionBegin = call.functionEnd = -1;
    LogTo(this->m_logger, call, "nameless");
    ASSERT_EQ(this->Outputs().size(), 1u);
    EXPECT_THAT(this->Outputs()[0], EndsWith("nameless"));
}

TYPED_TEST(LoggerContractTest, EmptyMessageIsTaken)
{
    LogTo(this->m_logger, LogCall(), "%s", "");
    EXPECT_EQ(this->Outputs().size(), 1u);
}

TYPED_TEST(LoggerContractTest, VeryLongMessageIsTaken)
{
    LogTo(this->m_logger, LogCall(), "%s", std::string(10000, 'x').c_str());
    ASSERT_EQ(this->Outputs().size(), 1u);
    EXPECT_THAT(this->Outputs()[0], HasSubstr(std::string(800, 'x')));
}

TYPED_TEST(LoggerContractTest, AllThreadsMayLogAtOnce)
{
    constexpr int THREADS = 4;
    constexpr int ENTRIES = 200;
    Gate gate(THREADS);
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([this, &gate, i] {
            gate.Pass();
            gate.Wait();
            for (int entry = 0; entry < ENTRIES; ++entry) {
                LogTo(this->m_logger, LogCall(), "thread %d entry %d.", i, entry);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    std::multiset<std::string> messages;
    for (const std::string& output : this->Outputs()) {
        messages.insert(output.substr(output.find("thread ")));
    }
    ASSERT_EQ(messages.size(), static_cast<size_t>(THREADS * ENTRIES));
    for (int i = 0; i < THREADS; ++i) {
        for (int entry = 0; entry < ENTRIES; ++entry) {
            const std::string message =
                "thread " + std::to_string(i) + " entry " + std::to_string(entry) + ".";
            EXPECT_EQ(messages.count(message), 1u) << message;
        }
    }
}

// The interface's place in compiled applications.

TEST(LoggerInterfaceTest, OperationsKeepTheirSlotsBehindTheTwoDestructors)
{
    EXPECT_EQ(SlotOf(&IZORLogger::ZORLog), 2u);
    EXPECT_EQ(SlotOf(&IZORLogger::GetLoggerId), 3u);
    EXPECT_EQ(sizeof(IZORLogger), sizeof(void*));
}

TEST(LoggerInterfaceTest, LoggersOfTheRuntimeHaveTheseIds)
{
    EXPECT_EQ(ZORLoggerDLOG::Instance()->GetLoggerId(), "ZOR DLOG logger");
    EXPECT_EQ(ZORLoggerDLOG2023::Instance()->GetLoggerId(), "ZOR DLOG logger 2023");
    EXPECT_EQ(ZORLoggerLegacy::Instance()->GetLoggerId(), "ZOR Legacy logger");
}

} // namespace
