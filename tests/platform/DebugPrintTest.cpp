#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "AllocationCount.h"
#include "PlatformLog.h"
#include "TCDebugPrint.h"
#include "ZorApiLite.h"
#include "dlog.h"

namespace {

const std::string LONG_NAME(200, 'n');

class DebugPrintTest : public ::testing::Test
{
 protected:
    void SetUp() override
    {
        m_log.Clear();
        m_print->SetAppData("", 0);
        m_print->SetCallbackName("");
    }

    void Print(bool flag, int module, EDebugLevel level, const char* fmt, ...)
        __attribute__((format(printf, 5, 6)))
    {
        va_list args;
        va_start(args, fmt);
        m_print->PrintVALIST(flag, "Queue.cpp", "bool TCQueue::Put(int)", "Put", -1, 5, 12, 14, 17,
                             321, module, level, fmt, &args);
        va_end(args);
    }

    TCPlatformLog& m_log = TCPlatformLog::Instance();
    TCDebugPrintZOR* m_print = TCDebugPrintZOR::GetInstance();
};

TEST_F(DebugPrintTest, InstanceIsOne)
{
    EXPECT_EQ(m_print, TCDebugPrintZOR::GetInstance());
}

TEST_F(DebugPrintTest, AppDataIsWhatWasSet)
{
    m_print->SetAppData("org.app.guide", -3);
    EXPECT_EQ(m_print->GetAppData().name, "org.app.guide");
    EXPECT_EQ(m_print->GetAppData().value, -3);
}

TEST_F(DebugPrintTest, SetAppNameLeavesTheValue)
{
    m_print->SetAppData("one", 42);
    m_print->SetAppName("two");
    EXPECT_EQ(m_print->GetAppData().name, "two");
    EXPECT_EQ(m_print->GetAppData().value, 42);
    m_print->SetAppName("");
    EXPECT_EQ(m_print->GetAppData().name, "");
    EXPECT_EQ(m_print->GetAppData().value, 42);
}

TEST_F(DebugPrintTest, NullNameClears)
{
    m_print->SetAppData("one", 1);
    m_print->SetAppName(nullptr);
    EXPECT_EQ(m_print->GetAppData().name, "");
    EXPECT_EQ(m_print->GetAppData().value, 1);
    m_print->SetAppData("one", 1);
    m_print->SetAppData(nullptr, 2);
    EXPECT_EQ(m_print->GetAppData().name, "");
    EXPECT_EQ(m_print->GetAppData().value, 2);
}

TEST_F(DebugPrintTest, OwnNameCanBeSetAgain)
{
    m_print->SetAppData(LONG_NAME.c_str(), 5);
    m_print->SetAppName(m_print->GetAppData().name.c_str());
    EXPECT_EQ(m_print->GetAppData().name, LONG_NAME);
    m_print->SetAppName(m_print->GetAppData().name.c_str() + 150);
    EXPECT_EQ(m_print->GetAppData().name, std::string(50, 'n'));
}

TEST_F(DebugPrintTest, AppDataAndCallbackNameBelongToTheThread)
{
    m_print->SetAppData("main", 1);
    m_print->SetCallbackName("OnMain");
    std::thread([this] {
        EXPECT_EQ(m_print->GetAppData().name, "");
        EXPECT_EQ(m_print->GetAppData().value, 0);
        EXPECT_EQ(m_print->GetCallbackName(), "");
        m_print->SetAppData("other", 2);
        m_print->SetCallbackName("OnOther");
        EXPECT_EQ(m_print->GetAppData().name, "other");
        EXPECT_EQ(m_print->GetCallbackName(), "OnOther");
    }).join();
    EXPECT_EQ(m_print->GetAppData().name, "main");
    EXPECT_EQ(m_print->GetAppData().value, 1);
    EXPECT_EQ(m_print->GetCallbackName(), "OnMain");
}

TEST_F(DebugPrintTest, HotPathAllocatesNothing)
{
    // On a thread of its own, whose names have no memory yet.
    std::thread([this] {
        const std::string empty;
        const unsigned long begin = AllocationCount();
        m_print->SetAppData(LONG_NAME.c_str(), 1);
        m_print->SetCallbackName(LONG_NAME);
        const unsigned long before = AllocationCount();
        EXPECT_GT(before, begin) << "the count does not count";
        size_t length = 0;
        for (int i = 0; i < 100; ++i) {
            m_print->SetAppName("");
            length += m_print->GetAppData().name.size();
            m_print->SetAppData(LONG_NAME.c_str(), 1);
            length += m_print->GetAppData().name.size();
            m_print->SetCallbackName(empty);
            m_print->SetCallbackName(LONG_NAME);
            TCDebugPrintZOR::GetInstance()->SetAppName(nullptr);
        }
        EXPECT_EQ(AllocationCount(), before);
        EXPECT_EQ(length, 100 * LONG_NAME.size());
    }).join();
}

struct TSUserAtEnd
{
    std::string* seen = nullptr;

    ~TSUserAtEnd()
    {
        TCDebugPrintZOR* print = TCDebugPrintZOR::GetInstance();
        *seen = print->GetAppData().name + "|" + print->GetCallbackName();
        print->SetAppData("late", 1);
        *seen += "|" + print->GetAppData().name;
    }
};

TEST_F(DebugPrintTest, DataIsGoodInLaterDestructorsOfTheThread)
{
    std::string seen;
    std::thread([this, &seen] {
        // Made before the thread's data, so destroyed after it.
        thread_local TSUserAtEnd atEnd;
        atEnd.seen = &seen;
        m_print->SetAppData(LONG_NAME.c_str(), 1);
        m_print->SetCallbackName(LONG_NAME);
    }).join();
    EXPECT_EQ(seen, "||late");
}

struct TSUserAtExit
{
    bool active = false;

    ~TSUserAtExit()
    {
        if (!active) {
            return;
        }
        TCDebugPrintZOR* print = TCDebugPrintZOR::GetInstance();
        const std::string before = print->GetAppData().name;
        print->SetAppData("at exit", 9);
        fprintf(stderr, "exit [%s] [%s] %d\n", before.c_str(), print->GetAppData().name.c_str(),
                print->GetAppData().value);
    }
};

TSUserAtExit g_userAtExit;

TEST_F(DebugPrintTest, DataIsGoodInStaticDestructors)
{
    EXPECT_EXIT(
        {
            m_print->SetAppData(LONG_NAME.c_str(), 1);
            g_userAtExit.active = true;
            exit(0);
        },
        ::testing::ExitedWithCode(0), "exit \\[\\] \\[at exit\\] 9");
}

TEST_F(DebugPrintTest, EntryHoldsModuleFileLineFunctionAndText)
{
    Print(false, 28, DEBUG_LEVEL_4, "event %d of %s", 5, "task");
    const std::vector<TSLogEntry> entries = m_log.Entries();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].text, "[28] Queue.cpp:321 Put: event 5 of task");
    EXPECT_EQ(entries[0].priority, DLOG_INFO);
}

TEST_F(DebugPrintTest, LevelsBecomePriorities)
{
    for (int level = DEBUG_LEVEL_0; level <= DEBUG_LEVEL_7; ++level) {
        Print(false, 0, static_cast<EDebugLevel>(level), "x");
    }
    std::vector<int> priorities;
    for (const TSLogEntry& entry : m_log.Entries()) {
        priorities.push_back(entry.priority);
    }
    EXPECT_EQ(priorities, (std::vector<int>{DLOG_FATAL, DLOG_FATAL, DLOG_ERROR, DLOG_WARN,
                                            DLOG_INFO, DLOG_DEBUG, DLOG_DEBUG, DLOG_DEBUG}));
}

TEST_F(DebugPrintTest, FlagPromotesToErrorAndLeavesFatal)
{
    Print(true, 0, DEBUG_LEVEL_4, "x");
    Print(true, 0, DEBUG_LEVEL_1, "x");
    const std::vector<TSLogEntry> entries = m_log.Entries();
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[0].priority, DLOG_ERROR);
    EXPECT_EQ(entries[1].priority, DLOG_FATAL);
}

TEST_F(DebugPrintTest, LongTextIsCutWithAMark)
{
    Print(false, 1, DEBUG_LEVEL_4, "%s", std::string(10000, 'x').c_str());
    const std::vector<TSLogEntry> entries = m_log.Entries();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].text,
              "[1] Queue.cpp:321 Put: " + std::string(4095 - 9, 'x') + " ...[cut]");
}

TEST_F(DebugPrintTest, ScopeTraceWritesAtBeginAndEnd)
{
    {
        TCScopeTrace trace("TCTask::%s type[%d]", "m_Send", 17);
        ASSERT_EQ(m_log.Entries().size(), 1u);
        EXPECT_EQ(m_log.Entries()[0].text, "+ TCTask::m_Send type[17]");
        ZorApiLite::LiteUtility::SleepMs(20);
    }
    const std::vector<TSLogEntry> entries = m_log.Entries();
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[0].priority, DLOG_INFO);
    EXPECT_EQ(entries[1].priority, DLOG_INFO);
    long usec = -1;
    ASSERT_EQ(sscanf(entries[1].text.c_str(), "- TCTask::m_Send type[17] (%ld us)", &usec), 1)
        << entries[1].text;
    EXPECT_GE(usec, 20000);
}

TEST_F(DebugPrintTest, ScopeTraceCutsALongText)
{
    {
        TCScopeTrace trace("%s", std::string(1000, 't').c_str());
    }
    const std::vector<TSLogEntry> entries = m_log.Entries();
    ASSERT_EQ(entries.size(), 2u);
    const std::string text = std::string(255 - 9, 't') + " ...[cut]";
    EXPECT_EQ(entries[0].text, "+ " + text);
    EXPECT_EQ(entries[1].text.substr(0, 2 + text.size()), "- " + text);
}

} // namespace
