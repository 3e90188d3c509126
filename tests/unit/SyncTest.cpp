#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "AllocationSeam.h"
#include "ConsoleSeam.h"
#include "LogSeam.h"
#include "Sync.h"
#include "Task.h"
#include "TestThread.h"
#include "TimesSeams.h"
#include "Wait.h"

namespace zortest {

/// What PR_GET_NAME answers to this thread; null asks the system.
thread_local std::function<int(char*)> tGetName;

} // namespace zortest

extern "C" int prctl(int option, ...) noexcept
{
    using Function = int(int, unsigned long, unsigned long, unsigned long, unsigned long);
    static auto* const real = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, "prctl"));
    unsigned long arguments[4];
    va_list list;
    va_start(list, option);
    for (unsigned long& argument : arguments) {
        argument = va_arg(list, unsigned long);
    }
    va_end(list);
    if (option == PR_GET_NAME && zortest::tGetName) {
        const std::function<int(char*)> answer = std::move(zortest::tGetName);
        zortest::tGetName = nullptr; // the assertion that may follow asks for the name as well
        return answer(reinterpret_cast<char*>(arguments[0]));
    }
    return real(option, arguments[0], arguments[1], arguments[2], arguments[3]);
}

namespace {

using namespace zortest;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::IsEmpty;

constexpr int ENTRIES = 64;
constexpr char TABLE_IS_FULL[] = "### TCSyncDet::Add() failed\n";
constexpr char INDEX_ASSERTION[] = "callerArryIndex >= 0 && callerArryIndex < MAX_SYNC_TASKS";
constexpr char VALID_ASSERTION[] = "(m_arrPCSyncDet[callerArryIndex].bValid)";

/// The table of synchronous calls, created.
class SyncTest : public ::testing::Test
{
 protected:
    SyncTest()
    {
        EXPECT_FALSE(TCSyncDet::FlagCreate());
        EXPECT_TRUE(TCSyncDet::Create());
        ClearLog();
    }

    ~SyncTest() override
    {
        if (TCSyncDet::FlagCreate()) {
            TCSyncDet::Destroy();
        }
    }

    static const PTSyncDetInfo& Entry(int index) { return TCSyncDet::m_arrPCSyncDet[index]; }

    static int EntriesInUse()
    {
        int used = 0;
        for (int i = 0; i < ENTRIES; ++i) {
            used += Entry(i).bValid ? 1 : 0;
        }
        return used;
    }

    /// Enters calls until there is no free entry.
    void Fill()
    {
        PTSyncDetInfo info;
        while (TCSyncDet::Add(&info) >= 0) {
        }
        ASSERT_EQ(EntriesInUse(), ENTRIES);
    }
};

TEST(SyncLayoutTest, FieldsAreInOrder)
{
    EXPECT_EQ(sizeof(PTSyncDetInfo), 56u);
    EXPECT_EQ(offsetof(PTSyncDetInfo, bValid), 0u);
    EXPECT_EQ(offsetof(PTSyncDetInfo, startTick), 4u);
    EXPECT_EQ(offsetof(PTSyncDetInfo, callerId), 8u);
    EXPECT_EQ(offsetof(PTSyncDetInfo, callerTid), 12u);
    EXPECT_EQ(offsetof(PTSyncDetInfo, callerName), 16u);
    EXPECT_EQ(offsetof(PTSyncDetInfo, receiverThread), 32u);
    EXPECT_EQ(offsetof(PTSyncDetInfo, reserved), 36u);
    EXPECT_EQ(offsetof(PTSyncDetInfo, receiverName), 40u);
}

TEST(SyncLayoutTest, FieldsHaveTheirTypes)
{
    EXPECT_TRUE((std::is_same_v<decltype(PTSyncDetInfo::bValid), bool>));
    EXPECT_TRUE((std::is_same_v<decltype(PTSyncDetInfo::startTick), std::uint32_t>));
    EXPECT_TRUE((std::is_same_v<decltype(PTSyncDetInfo::callerId), std::int32_t>));
    EXPECT_TRUE((std::is_same_v<decltype(PTSyncDetInfo::callerTid), std::int32_t>));
    EXPECT_TRUE((std::is_same_v<decltype(PTSyncDetInfo::callerName), char[16]>));
    EXPECT_TRUE((std::is_same_v<decltype(PTSyncDetInfo::receiverThread), std::uint32_t>));
    EXPECT_TRUE((std::is_same_v<decltype(PTSyncDetInfo::receiverName), char[16]>));
    EXPECT_EQ(TCSyncDet::MAX_SYNC_TASKS, ENTRIES);
}

TEST_F(SyncTest, IsCreatedWhileTheArrayExists)
{
    EXPECT_TRUE(TCSyncDet::FlagCreate());
    EXPECT_NE(TCSyncDet::m_arrPCSyncDet, nullptr);
    EXPECT_TRUE(TCSyncDet::Destroy());
    EXPECT_FALSE(TCSyncDet::FlagCreate());
    EXPECT_EQ(TCSyncDet::m_arrPCSyncDet, nullptr);
}

TEST_F(SyncTest, EntriesAreFreeAfterCreate)
{
    EXPECT_EQ(EntriesInUse(), 0);
}

TEST_F(SyncTest, DestroyWaitsForThoseWhoUseTheTable)
{
    for (int round = 0; round < 20; ++round) {
        std::atomic<int> calls{0};
        std::atomic<bool> gone{false};
        AssertionsOf([&] { // that the table is gone
            std::vector<std::thread> users;
            for (int i = 0; i < 3; ++i) {
                users.emplace_back([&] {
                    PTSyncDetInfo info;
                    while (!gone) {
                        const int index = TCSyncDet::Add(&info);
                        if (index >= 0) {
                            TCSyncDet::Remove(index);
                        }
                        ++calls;
                        std::this_thread::yield(); // a refusal waits for nothing
                    }
                });
            }
            EXPECT_TRUE(Eventually([&] { return calls >= 100; }));
            EXPECT_TRUE(TCSyncDet::Destroy());
            gone = true;
            for (std::thread& user : users) {
                user.join();
            }
        });
        EXPECT_EQ(TCSyncDet::m_arrPCSyncDet, nullptr);
        ASSERT_TRUE(TCSyncDet::Create());
    }
}

TEST_F(SyncTest, CreateAfterDestroyStartsWithFreeEntries)
{
    Fill();
    EXPECT_TRUE(TCSyncDet::Destroy());
    EXPECT_TRUE(TCSyncDet::Create());
    EXPECT_EQ(EntriesInUse(), 0);
}

TEST_F(SyncTest, SecondCreateAssertsBothAndReturnsTrueWithTheTableAsItWas)
{
    PTSyncDetInfo info;
    EXPECT_EQ(TCSyncDet::Add(&info), 0);
    const PTSyncDetInfo* const table = TCSyncDet::m_arrPCSyncDet;
    EXPECT_THAT(AssertionsOf([] { EXPECT_TRUE(TCSyncDet::Create()); }),
                ElementsAre("!FlagCreate()", "!m_pLock"));
    EXPECT_EQ(TCSyncDet::m_arrPCSyncDet, table);
    EXPECT_EQ(TCSyncDet::Add(&info), 1);
}

TEST_F(SyncTest, WithoutTheLocksSemaphoreCreateFailsAndLeavesTheLockAllocated)
{
    EXPECT_TRUE(TCSyncDet::Destroy());
    {
        const FailingAllocation noMemory(0);
        EXPECT_FALSE(TCSyncDet::Create());
    }
    EXPECT_FALSE(TCSyncDet::FlagCreate());
    EXPECT_EQ(TCSyncDet::m_arrPCSyncDet, nullptr);
    EXPECT_ASSERT_DEATH(TCSyncDet::Create(), "!m_pLock");
    // What is left is freed; only the array is missed.
    const std::vector<std::string> assertions = AssertionsOf([] { TCSyncDet::Destroy(); });
    ASSERT_FALSE(assertions.empty());
    EXPECT_EQ(assertions[0], "FlagCreate()");
    EXPECT_TRUE(TCSyncDet::Create());
}

TEST_F(SyncTest, AddCopiesTheRecord)
{
    PTSyncDetInfo info;
    info.callerId = -2;
    info.callerTid = 3;
    strcpy(info.callerName, "fifteen letters");
    info.receiverThread = 0xFFFFFFFE;
    strcpy(info.receiverName, "receiver");
    EXPECT_EQ(TCSyncDet::Add(&info), 0);
    EXPECT_TRUE(Entry(0).bValid);
    EXPECT_EQ(Entry(0).callerId, -2);
    EXPECT_EQ(Entry(0).callerTid, 3);
    EXPECT_STREQ(Entry(0).callerName, "fifteen letters");
    EXPECT_EQ(Entry(0).receiverThread, 0xFFFFFFFEu);
    EXPECT_EQ(Entry(0).reserved, 0u);
    EXPECT_STREQ(Entry(0).receiverName, "receiver");
    EXPECT_FALSE(info.bValid); // the caller's record stays as it was
    EXPECT_EQ(info.startTick, 0u);
}

TEST_F(SyncTest, AddStoresTheTickOfTheEntryNotThatOfTheRecord)
{
    PTSyncDetInfo info;
    info.startTick = 99;
    const Takeover times(timesSeam, [](tms*) { return clock_t{123}; });
    const Takeover sysconf(sysconfSeam, [](int) { return 100L; });
    EXPECT_EQ(TCSyncDet::Add(&info), 0);
    EXPECT_EQ(Entry(0).startTick, 1230u);
}

TEST_F(SyncTest, TickIsCutTo32Bits)
{
    PTSyncDetInfo info;
    const Takeover times(timesSeam, [](tms*) { return clock_t{0x100000007}; });
    const Takeover sysconf(sysconfSeam, [](int) { return 1000L; });
    EXPECT_EQ(TCSyncDet::Add(&info), 0);
    EXPECT_EQ(Entry(0).startTick, 7u);
}

TEST_F(SyncTest, IndicesAreGivenAndReusedLowestFirst)
{
    PTSyncDetInfo info;
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(TCSyncDet::Add(&info), i);
    }
    EXPECT_EQ(TCSyncDet::Remove(3), 0);
    EXPECT_EQ(TCSyncDet::Remove(1), 0);
    EXPECT_EQ(TCSyncDet::Add(&info), 1);
    EXPECT_EQ(TCSyncDet::Add(&info), 3);
    EXPECT_EQ(TCSyncDet::Add(&info), 5);
}

TEST_F(SyncTest, RemoveOnlyClearsValid)
{
    PTSyncDetInfo info;
    info.callerId = 5;
    strcpy(info.receiverName, "receiver");
    EXPECT_EQ(TCSyncDet::Add(&info), 0);
    EXPECT_EQ(TCSyncDet::Remove(0), 0);
    EXPECT_FALSE(Entry(0).bValid);
    EXPECT_EQ(Entry(0).callerId, 5);
    EXPECT_STREQ(Entry(0).receiverName, "receiver");
}

TEST_F(SyncTest, AddToAFullTableReturnsMinusOneAndChangesNothing)
{
    Fill();
    const std::vector<PTSyncDetInfo> before(TCSyncDet::m_arrPCSyncDet,
                                            TCSyncDet::m_arrPCSyncDet + ENTRIES);
    PTSyncDetInfo info;
    info.callerId = 1234;
    EXPECT_EQ(TCSyncDet::Add(&info), -1);
    for (int i = 0; i < ENTRIES; ++i) {
        EXPECT_TRUE(Entry(i).bValid);
        EXPECT_EQ(Entry(i).callerId, before[i].callerId);
        EXPECT_EQ(Entry(i).startTick, before[i].startTick);
    }
    EXPECT_EQ(TCSyncDet::Remove(ENTRIES - 1), 0);
    EXPECT_EQ(TCSyncDet::Add(&info), ENTRIES - 1);
}

TEST_F(SyncTest, AddDoesNotReportAFullTable)
{
    Fill();
    ClearLog();
    PTSyncDetInfo info;
    EXPECT_THAT(AssertionsOf([&] { EXPECT_EQ(TCSyncDet::Add(&info), -1); }), IsEmpty());
    EXPECT_THAT(LogLines(), IsEmpty());
}

TEST_F(SyncTest, RemoveTwiceAssertsAndReturnsZero)
{
    PTSyncDetInfo info;
    EXPECT_EQ(TCSyncDet::Add(&info), 0);
    EXPECT_EQ(TCSyncDet::Remove(0), 0);
    EXPECT_THAT(AssertionsOf([] { EXPECT_EQ(TCSyncDet::Remove(0), 0); }),
                ElementsAre(VALID_ASSERTION));
    EXPECT_FALSE(Entry(0).bValid);
    EXPECT_EQ(TCSyncDet::Add(&info), 0); // the lock has been released
}

using SyncDeathTest = SyncTest;

TEST_F(SyncDeathTest, SecondCreateAsserts)
{
    EXPECT_ASSERT_DEATH(TCSyncDet::Create(), "!FlagCreate()");
}

TEST_F(SyncDeathTest, OperationsOnATableThatIsNotThereAssert)
{
    EXPECT_TRUE(TCSyncDet::Destroy());
    PTSyncDetInfo info;
    EXPECT_ASSERT_DEATH(TCSyncDet::Destroy(), "m_pLock");
    EXPECT_ASSERT_DEATH(TCSyncDet::Add(&info), "m_arrPCSyncDet");
    EXPECT_ASSERT_DEATH(TCSyncDet::Remove(0), "m_arrPCSyncDet");
}

TEST_F(SyncDeathTest, AddWithoutARecordAsserts)
{
    EXPECT_ASSERT_DEATH(TCSyncDet::Add(nullptr), "pData");
}

TEST_F(SyncDeathTest, RemoveOfWhatWasNeverAddedAsserts)
{
    EXPECT_ASSERT_DEATH(TCSyncDet::Remove(0), VALID_ASSERTION);
}

TEST_F(SyncDeathTest, RemoveOutsideOfTheTableAsserts)
{
    EXPECT_ASSERT_DEATH(TCSyncDet::Remove(-1), INDEX_ASSERTION);
    EXPECT_ASSERT_DEATH(TCSyncDet::Remove(ENTRIES), INDEX_ASSERTION);
}

TEST_F(SyncTest, AddWithoutARecordOrATableReturnsMinusOneInARelease)
{
    PTSyncDetInfo info;
    int added = 0;
    EXPECT_THAT(AssertionsOf([&] { added = TCSyncDet::Add(nullptr); }), ElementsAre("pData"));
    EXPECT_EQ(added, -1);
    EXPECT_TRUE(TCSyncDet::Destroy());
    added = 0;
    EXPECT_THAT(AssertionsOf([&] { added = TCSyncDet::Add(&info); }),
                ElementsAre("m_arrPCSyncDet"));
    EXPECT_EQ(added, -1);
}

TEST_F(SyncTest, RemoveOutsideOfTheTableOrWithoutOneReturnsMinusOneInARelease)
{
    for (const int index : {-1, ENTRIES}) {
        int removed = 0;
        EXPECT_THAT(AssertionsOf([&] { removed = TCSyncDet::Remove(index); }),
                    ElementsAre(INDEX_ASSERTION));
        EXPECT_EQ(removed, -1);
    }
    EXPECT_TRUE(TCSyncDet::Destroy());
    int removed = 0;
    EXPECT_THAT(AssertionsOf([&] { removed = TCSyncDet::Remove(0); }),
                ElementsAre("m_arrPCSyncDet"));
    EXPECT_EQ(removed, -1);
}

TEST_F(SyncTest, DestroyOfATableThatIsNotThereAssertsBothInARelease)
{
    EXPECT_TRUE(TCSyncDet::Destroy());
    EXPECT_THAT(AssertionsOf([] { TCSyncDet::Destroy(); }), ElementsAre("m_pLock", "FlagCreate()"));
}

TEST_F(SyncTest, ManyThreadsNeverShareAnEntry)
{
    constexpr int THREADS = 8;
    constexpr int ROUNDS = 2000;
    std::atomic<int> owners[ENTRIES]{};
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([&, i] {
            PTSyncDetInfo info;
            info.callerId = i;
            for (int round = 0; round < ROUNDS; ++round) {
                const int index = TCSyncDet::Add(&info);
                ASSERT_GE(index, 0);
                ASSERT_LT(index, THREADS); // lowest first
                ASSERT_EQ(owners[index]++, 0);
                ASSERT_EQ(Entry(index).callerId, i);
                ASSERT_TRUE(Entry(index).bValid);
                --owners[index];
                ASSERT_EQ(TCSyncDet::Remove(index), 0);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(EntriesInUse(), 0);
}

TEST_F(SyncTest, ManyThreadsShareTheLastEntryOneAfterTheOther)
{
    Fill();
    EXPECT_EQ(TCSyncDet::Remove(40), 0);
    constexpr int THREADS = 4;
    constexpr int WANTED = 300;
    std::atomic<int> holders{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([&holders] {
            PTSyncDetInfo info;
            for (int had = 0; had < WANTED;) {
                const int index = TCSyncDet::Add(&info);
                if (index < 0) {
                    std::this_thread::yield();
                    continue;
                }
                ASSERT_EQ(index, 40);
                ASSERT_EQ(holders++, 0);
                --holders;
                ASSERT_EQ(TCSyncDet::Remove(index), 0);
                ++had;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(EntriesInUse(), ENTRIES - 1);
}

/// A handler whose handling lasts until the test lets it end.
class SlowHandler : public TCHandler
{
 public:
    bool t_OnEvent(const TSEvent* /*event*/) override
    {
        ++m_handled;
        return m_end.Wait();
    }

    void End() { m_end.Pass(); }
    int Handled() const { return m_handled; }

 private:
    std::atomic<int> m_handled{0};
    Gate m_end;
};

/// A task to wait for, and a handler on it.
class SyncCallTest : public SyncTest
{
 protected:
    static constexpr char TASK_NAME[] = "a task of the 64"; // one character more than is kept
    static constexpr char TASK_NAME_KEPT[] = "a task of the 6";

    SyncCallTest()
    {
        if (!TCTaskList::FlagInitialize()) {
            EXPECT_TRUE(TCTaskList::m_mutex.Create());
        }
        EXPECT_TRUE(m_task.Create(TASK_NAME, 10000, TEST_STACK_SIZE, 0));
        EXPECT_TRUE(m_handler.Create(&m_task));
        m_event.receiver = &m_handler;
    }

    ~SyncCallTest() override
    {
        m_handler.End();
        TSEvent exit;
        exit.receiver = &m_task;
        exit.type = TCTask::EVENT_EXIT;
        // The queue may be full until the events in it have been handled.
        EXPECT_TRUE(Eventually([&] { return TCTask::Send(&exit, false, false); }));
        for (std::thread& sender : m_senders) {
            sender.join();
        }
        // What was sent before is handled when the exit event has been taken.
        EXPECT_TRUE(Eventually([this] { return static_cast<TCQueue&>(m_task).Size() == 0; }));
        m_handler.Destroy();
        m_task.Destroy();
    }

    /// Starts a thread that waits for the handling of an event.
    void StartSender(const std::string& name = "sender")
    {
        m_senders.emplace_back([this, name] {
            pthread_setname_np(pthread_self(), name.c_str());
            TSEvent event;
            event.receiver = &m_handler;
            m_sent += TCTask::Send(&event, true, false) ? 1 : 0;
            ++m_returned;
        });
    }

    /// The entry that the calling thread makes for itself.
    PTSyncDetInfo Monitored(int callerId = 0)
    {
        const int index = TCSyncDet::PCTaskSyncMonitoring(callerId, &m_event);
        EXPECT_EQ(index, 0);
        return index < 0 ? PTSyncDetInfo() : Entry(index);
    }

    /// The entry that a thread of the name @p name makes for itself.
    PTSyncDetInfo MonitoredBy(const char* name)
    {
        PTSyncDetInfo info;
        std::thread([&] {
            prctl(PR_SET_NAME, name);
            info = Monitored();
        }).join();
        return info;
    }

    TCTask m_task;
    SlowHandler m_handler;
    TSEvent m_event;
    std::vector<std::thread> m_senders;
    std::atomic<int> m_sent{0};
    std::atomic<int> m_returned{0};
};

constexpr char SyncCallTest::TASK_NAME[];
constexpr char SyncCallTest::TASK_NAME_KEPT[];

TEST_F(SyncCallTest, EntryTellsWhoWaitsForWhomSinceWhen)
{
    const auto before = static_cast<std::uint32_t>(TCTimeWrapper::Tick());
    const PTSyncDetInfo info = Monitored(-77);
    const auto after = static_cast<std::uint32_t>(TCTimeWrapper::Tick());
    EXPECT_TRUE(info.bValid);
    EXPECT_LE(info.startTick - before, after - before);
    EXPECT_EQ(info.callerId, -77);
    EXPECT_EQ(info.callerTid, static_cast<int>(syscall(SYS_gettid)));
    EXPECT_EQ(info.receiverThread, static_cast<std::uint32_t>(m_task.Id()));
    EXPECT_EQ(info.reserved, 0u);
    EXPECT_STREQ(info.receiverName, TASK_NAME_KEPT);
}

TEST_F(SyncCallTest, NameOf15CharactersIsStoredWhole)
{
    EXPECT_STREQ(MonitoredBy("exactly 15 char").callerName, "exactly 15 char");
}

TEST_F(SyncCallTest, LongerNameIsCutTo15CharactersByTheSystem)
{
    EXPECT_STREQ(MonitoredBy("twenty characters 20").callerName, "twenty characte");
}

TEST_F(SyncCallTest, ShortNameIsFollowedByZeros)
{
    const PTSyncDetInfo info = MonitoredBy("ab");
    EXPECT_EQ(std::string(info.callerName, sizeof(info.callerName)),
              std::string("ab") + std::string(14, '\0'));
}

TEST_F(SyncCallTest, NameThatCannotBeReadAssertsAndIsTwoQuestionMarks)
{
    PTSyncDetInfo info;
    EXPECT_THAT(AssertionsOf([&] {
                    tGetName = [](char*) { return -1; };
                    info = Monitored();
                }),
                ElementsAre("!iRet"));
    EXPECT_STREQ(info.callerName, "??");
}

TEST_F(SyncCallTest, NameThatIsTooLongAssertsAndIsCut)
{
    PTSyncDetInfo info;
    for (int at = 16; at < 20; ++at) {
        EXPECT_THAT(AssertionsOf([&] {
                        tGetName = [at](char* name) {
                            strcpy(name, "0123456789abcde");
                            name[at] = 'x';
                            return 0;
                        };
                        info = Monitored();
                    }),
                    ElementsAre("!name[16] && !name[17] && !name[18] && !name[19]"));
        EXPECT_STREQ(info.callerName, "0123456789abcde");
        EXPECT_EQ(TCSyncDet::Remove(0), 0);
    }
}

TEST_F(SyncCallTest, NameWithoutAnEndIsEndedInItsLastByte)
{
    tGetName = [](char* name) {
        memset(name, 'n', 16);
        return 0;
    };
    EXPECT_STREQ(Monitored().callerName, "nnnnnnnnnnnnnnn");
}

TEST_F(SyncCallTest, FullTableIsPrinted)
{
    Fill();
    ClearLog();
    EXPECT_EQ(TCSyncDet::PCTaskSyncMonitoring(1, &m_event), -1);
    const std::vector<LogLine> lines = LogLinesWith(TABLE_IS_FULL);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].tag, "ZOR");
    EXPECT_THAT(lines[0].text, EndsWith(std::string("> ") + TABLE_IS_FULL + "\n"));
}

TEST_F(SyncCallTest, WithoutATableNothingIsLookedAt)
{
    EXPECT_TRUE(TCSyncDet::Destroy());
    EXPECT_EQ(TCSyncDet::PCTaskSyncMonitoring(1, nullptr), -1);
    EXPECT_THAT(LogLines(), IsEmpty());
}

TEST_F(SyncCallTest, WithoutATableSendsGoOnUnlisted)
{
    EXPECT_TRUE(TCSyncDet::Destroy());
    m_handler.End();
    EXPECT_THAT(AssertionsOf([this] { EXPECT_TRUE(TCTask::Send(&m_event, true, false)); }),
                IsEmpty());
    EXPECT_EQ(m_handler.Handled(), 1);
    EXPECT_FALSE(TCSyncDet::FlagCreate());
}

TEST_F(SyncCallTest, SynchronousSendIsListedWhileItWaits)
{
    StartSender("the sender");
    ASSERT_TRUE(Eventually([this] { return m_handler.Handled() == 1; }));
    EXPECT_EQ(EntriesInUse(), 1);
    EXPECT_TRUE(Entry(0).bValid);
    EXPECT_STREQ(Entry(0).callerName, "the sender");
    EXPECT_STREQ(Entry(0).receiverName, TASK_NAME_KEPT);
    EXPECT_EQ(Entry(0).callerId, static_cast<std::int32_t>(m_senders[0].native_handle()));
    EXPECT_EQ(m_returned, 0);
    m_handler.End();
    ASSERT_TRUE(Eventually([this] { return m_returned == 1; }));
    EXPECT_EQ(EntriesInUse(), 0);
}

TEST_F(SyncCallTest, AsynchronousSendIsNotListed)
{
    EXPECT_TRUE(TCTask::Send(&m_event, false, false));
    EXPECT_EQ(EntriesInUse(), 0);
    ASSERT_TRUE(Eventually([this] { return m_handler.Handled() == 1; }));
    EXPECT_EQ(EntriesInUse(), 0);
}

TEST_F(SyncCallTest, RefusedSendIsListedNoMore)
{
    EXPECT_TRUE(TCTask::Send(&m_event, false, false));
    ASSERT_TRUE(Eventually([this] { return m_handler.Handled() == 1; }));
    while (TCTask::Send(&m_event, false, false)) {
    }
    EXPECT_FALSE(TCTask::Send(&m_event, true, false));
    EXPECT_EQ(EntriesInUse(), 0);
}

TEST_F(SyncCallTest, The65thSendIsPrintedAndWorksAllTheSame)
{
    constexpr int SENDERS = 65;
    for (int i = 0; i < SENDERS; ++i) {
        StartSender();
    }
    // One event is being handled, and the others are queued.
    ASSERT_TRUE(Eventually([this] {
        return m_handler.Handled() == 1 && static_cast<TCQueue&>(m_task).Size() == SENDERS - 1;
    }));
    EXPECT_EQ(EntriesInUse(), ENTRIES);
    EXPECT_EQ(CountLogLines(TABLE_IS_FULL), 1u);
    m_handler.End();
    ASSERT_TRUE(Eventually([this] { return m_returned == SENDERS; }));
    EXPECT_EQ(m_sent, SENDERS);
    EXPECT_EQ(m_handler.Handled(), SENDERS);
    EXPECT_EQ(EntriesInUse(), 0);
}

using SyncCallDeathTest = SyncCallTest;

TEST_F(SyncCallDeathTest, ReceiverThatIsNotCreatedAsserts)
{
    SlowHandler handler;
    TSEvent event;
    event.receiver = &handler;
    EXPECT_ASSERT_DEATH(TCSyncDet::PCTaskSyncMonitoring(1, &event), "FlagCreate() == true");
}

TEST_F(SyncCallDeathTest, TaskThatIsNotCreatedAsserts)
{
    EXPECT_ASSERT_DEATH(
        {
            TCTask task;
            SlowHandler handler;
            handler.Create(&task);
            TSEvent event;
            event.receiver = &handler;
            TCSyncDet::PCTaskSyncMonitoring(1, &event);
        },
        "FlagCreate() == true");
}

} // namespace
