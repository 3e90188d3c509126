#include <atomic>
#include <list>
#include <new>
#include <vector>

#include "AllocationFault.h"
#include "TaskSupport.h"
#include "TrapPoint.h"

/// @file
/// Calls that are recorded and held against trap conditions while memory is short. Records go to
/// the storage below, for which each description and each record takes memory.

namespace {

using namespace zortest;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

std::atomic<unsigned int> gSession{1};

/// What the calling thread has recorded: the kinds of its records, and descriptions of call sites.
thread_local std::list<int> tRecords;
thread_local std::list<ht::TCCallLocation> tLocations;
thread_local int tKind = 0; ///< of the record that is being made

class Storage final : public ht::TCStorage
{};

class Manager final : public TIStorageManager
{
 public:
    ht::TCStorage* CurrentStorage() override { return &m_storage; }
    unsigned int SessionId() override { return gSession; }

 private:
    Storage m_storage;
};

} // namespace

TIStorageManager* TIStorageManager::Instance()
{
    static Manager manager;
    return &manager;
}

unsigned int ht::TCStorage::SaveLocation(const TCCallLocation& location)
{
    tLocations.push_back(location);
    return 1;
}

void ht::TCStorage::Commit(TSCallItemHelper& /*record*/)
{
    tRecords.push_back(tKind);
}

ht::TSCallItemHelper::TSCallItemHelper(TCStorage* /*storage*/, int kind, unsigned int /*location*/)
    : m_size(0)
{
    tKind = kind;
}

namespace {

constexpr int BEFORE = ht::TSCallItemHelper::BEFORE_CALL;
constexpr int AFTER = ht::TSCallItemHelper::AFTER_CALL;

class TraceMemoryFaultsTest : public ::testing::Test
{
 protected:
    TraceMemoryFaultsTest() { TIStorageManagerState::enabled = true; }
    ~TraceMemoryFaultsTest() override
    {
        TIStorageManagerState::enabled = false;
        ht::TCTrapPattern::Instance()->Clear();
    }

    /// Lets a session begin in which nothing is recorded or described yet.
    static void BeginSession()
    {
        ++gSession;
        tRecords.clear();
        tLocations.clear();
    }

    /// Runs @p call with @p fault, in a session of its own.
    ///
    /// @return whether memory has been short
    template <typename Call>
    static bool IsShort(int number, AllocationFault::EExtent extent, const Call& call)
    {
        BeginSession();
        const AllocationFault fault(number, extent);
        call();
        return fault.HasHappened();
    }

    /// Runs @p call with each of its allocations failing, one by one, then with all of them
    /// failing, and once with memory.
    ///
    /// @return how often
    template <typename Call>
    static int RunShortOfMemory(const Call& call)
    {
        int number = 0;
        while (IsShort(number, AllocationFault::ONE, call)) {
            if (!tRecords.empty()) { // never one that tells of an end without a beginning
                EXPECT_THAT(tRecords, ElementsAre(BEFORE)) << "allocation " << number;
            }
            ++number;
        }
        EXPECT_THAT(tRecords, ElementsAre(BEFORE, AFTER));
        EXPECT_GT(number, 2) << "records and description take memory";

        EXPECT_TRUE(IsShort(0, AllocationFault::ALL_FOLLOWING, call));
        EXPECT_THAT(tRecords, IsEmpty());
        return number + 2;
    }
};

TEST_F(TraceMemoryFaultsTest, SendIsMadeWithoutItsRecords)
{
    const FaultCase fault("operator new", "TCTask::Send (record of the call, each allocation)",
                          "the record is left out; the event is sent as one that is not recorded");
    const TaskRuntime runtime;
    TestTask task;
    ASSERT_TRUE(task.Start());
    FunctionHandler handler([](const TSEvent*) { return true; }, &task);
    TSEvent event = EventTo(&handler);
    event.flag = true;
    const int sends =
        RunShortOfMemory([&event] { EXPECT_TRUE(TCTask::Send(&event, false, false)); });
    ASSERT_TRUE(Flush(&task));
    EXPECT_EQ(handler.Handled(), sends);
}

TEST_F(TraceMemoryFaultsTest, EventIsHandledWithoutItsRecords)
{
    const FaultCase fault("operator new",
                          "TCHandler::OnEvent (record of the call, each allocation)",
                          "the record is left out; the event is handled, with its result");
    const TaskRuntime runtime;
    TestTask task;
    ASSERT_TRUE(task.Start());
    for (const bool result : {false, true}) {
        FunctionHandler handler([result](const TSEvent*) { return result; }, &task);
        TSEvent event = EventTo(&handler);
        event.flag = true;
        const int calls = RunShortOfMemory([&] { EXPECT_EQ(handler.OnEvent(&event), result); });
        EXPECT_EQ(handler.Handled(), calls);
    }
}

/// A call site in a file with so long a name that the key of its trap has to be allocated.
class TrappedCallFaultsTest : public TraceMemoryFaultsTest
{
 protected:
    static constexpr char FILE_NAME[] = "src/AFileWithALongName.cpp";
    static constexpr int LINE = 40;

    TrappedCallFaultsTest()
    {
        EXPECT_TRUE(ht::TCTrapPattern::Instance()->SetCondition({LINE, FILE_NAME}, {}));
    }

    /// Makes an instrumented call of @p body.
    template <typename Body>
    bool Call(const Body& body)
    {
        TSEvent* event = nullptr;
        const TCArgList1<TSEvent*&> args(event);
        return zor::CallAtTrapPoint<bool>(m_location, args, [&] {
            ++m_calls;
            return body();
        });
    }

    /// How many calls have been held against the condition.
    static std::uint64_t Evaluated()
    {
        return ht::TCTrapPattern::Instance()->Counts({LINE, FILE_NAME}).evaluated;
    }

    TSCodeLocation m_location{"bool Call()", FILE_NAME, LINE};
    int m_calls = 0;
};

TEST_F(TrappedCallFaultsTest, CallWithoutItsTrapHasItsResult)
{
    const FaultCase fault("operator new", "zor::CallAtTrapPoint (trap condition, each allocation)",
                          "the call is made once and returns what it returns; it is not held "
                          "against the condition");
    TIStorageManagerState::enabled = false;
    for (const bool result : {false, true}) {
        m_calls = 0;
        const std::uint64_t before = Evaluated();
        int calls = 0;
        while (IsShort(calls, AllocationFault::ONE,
                       [&] { EXPECT_EQ(Call([result] { return result; }), result); })) {
            EXPECT_EQ(Evaluated(), before) << "allocation " << calls;
            ++calls;
        }
        EXPECT_GT(calls, 0) << "the key takes memory";
        EXPECT_EQ(m_calls, calls + 1);
        EXPECT_EQ(Evaluated(), before + 1);
    }
}

TEST_F(TrappedCallFaultsTest, OwnLackOfMemoryComesOut)
{
    const FaultCase fault("operator new", "zor::CallAtTrapPoint (the call itself)",
                          "std::bad_alloc of the call comes out of it; its result is not recorded");
    BeginSession();
    const auto throws = [] {
        const AllocationFault noMemory(0);
        ::operator delete(::operator new(1));
        return true;
    };
    EXPECT_THROW(Call(throws), std::bad_alloc);
    EXPECT_EQ(m_calls, 1);
    EXPECT_THAT(tRecords, ElementsAre(BEFORE));
    EXPECT_EQ(Evaluated(), 0u);
}

} // namespace
