#include "LayoutTable.h"

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <list>
#include <set>
#include <type_traits>
#include <utility>
#include <vector>

#include "Event.h"
#include "FailedAssertion.h"
#include "MultiQTask.h"
#include "ProcessObjects.h"
#include "SemaphoreState.h"
#include "Sync.h"
#include "Task.h"

// These classes have bases and virtual operations, where offsetof is the compiler's to support or
// not. Those that this library is built with do: no class here has a virtual base.
#pragma GCC diagnostic ignored "-Winvalid-offsetof"

// What is measured here are members as they lie in memory: pointers and containers themselves.
// Names of types and members cannot stand in parentheses.
// NOLINTBEGIN(bugprone-sizeof-expression,bugprone-sizeof-container,bugprone-macro-parentheses)

namespace zor {
namespace {

template <typename T>
constexpr bool IS_TEXT = std::is_array_v<T>&& std::is_same_v<std::remove_extent_t<T>, char>;

/// How a member of type T is to be read.
template <typename T, typename = void>
struct KindOf
{
    static constexpr LayoutKind VALUE = IS_TEXT<T>                ? LayoutKind::TEXT
                                        : std::is_same_v<T, bool> ? LayoutKind::BOOL
                                        : std::is_pointer_v<T>    ? LayoutKind::POINTER
                                        : std::is_enum_v<T>       ? LayoutKind::UNSIGNED
                                        : !std::is_integral_v<T>  ? LayoutKind::RECORD
                                        : std::is_unsigned_v<T>   ? LayoutKind::UNSIGNED
                                                                  : LayoutKind::SIGNED;
};

/// Nothing but the value is in an atomic of these.
template <typename T>
struct KindOf<std::atomic<T>> : KindOf<T>
{
    static_assert(sizeof(std::atomic<T>) == sizeof(T));
};

template <typename Rep, typename Period>
struct KindOf<std::chrono::duration<Rep, Period>> : KindOf<Rep>
{};

template <typename Clock, typename Duration>
struct KindOf<std::chrono::time_point<Clock, Duration>> : KindOf<Duration>
{};

/// A name that is too long does not compile.
template <std::size_t SIZE, std::size_t LENGTH>
constexpr void Copy(char (&to)[SIZE], const char (&from)[LENGTH])
{
    static_assert(LENGTH <= SIZE);
    for (std::size_t i = 0; i < LENGTH; ++i) {
        to[i] = from[i];
    }
}

template <std::size_t LENGTH>
constexpr LayoutEntry Entry(const char (&name)[LENGTH], std::size_t offset, std::size_t size,
                            LayoutKind kind)
{
    LayoutEntry entry{};
    Copy(entry.name, name);
    entry.offset = static_cast<std::uint32_t>(offset);
    entry.size = static_cast<std::uint32_t>(size);
    entry.kind = kind;
    return entry;
}

template <std::size_t LENGTH>
constexpr LayoutObject Object(const char (&name)[LENGTH], const void* address)
{
    LayoutObject object{};
    Copy(object.name, name);
    object.address = address;
    return object;
}

} // namespace

#define ZOR_CLASS(TYPE) Entry(#TYPE, 0, sizeof(TYPE), LayoutKind::CLASS)

#define ZOR_NAMED(NAME, TYPE, MEMBER)                                         \
    Entry(NAME, offsetof(TYPE, MEMBER), sizeof(std::declval<TYPE&>().MEMBER), \
          KindOf<std::remove_cv_t<                                            \
              std::remove_reference_t<decltype((std::declval<TYPE&>().MEMBER))>>>::VALUE)

#define ZOR_MEMBER(TYPE, MEMBER) ZOR_NAMED(#TYPE "." #MEMBER, TYPE, MEMBER)

/// A base is where its member lies in the class, but for where that lies in the base.
#define ZOR_BASE(TYPE, PARENT, MEMBER)                                                          \
    Entry(#TYPE ":" #PARENT, offsetof(TYPE, MEMBER) - offsetof(PARENT, MEMBER), sizeof(PARENT), \
          LayoutKind::BASE)

/// What the table is made of, by a friend of the classes that it describes.
class LayoutTable
{
 public:
    static constexpr auto Objects();
    static constexpr auto Entries();
};

constexpr auto LayoutTable::Objects()
{
    return std::array{
        Object("TCTaskList::m_mutex", &g_registryMutex),
        Object("TCTaskList::m_taskList", &g_registryList),
        Object("TCSyncDet::m_arrPCSyncDet", &TCSyncDet::m_arrPCSyncDet),
        Object("TCSyncDet::m_pLock", &TCSyncDet::m_pLock),
        Object("TCTimer::m_scheduler", &g_scheduler),
        Object("zor_core_failed_assertion", &zor_core_failed_assertion),
    };
}

constexpr auto LayoutTable::Entries()
{
    using State = TCSemaphore::State;
    using Schedule = TCTimersScheduler::TimerSchedule;
    using Wakeup = TCTimersScheduler::TimerWakeupData;
    using List = std::list<const TCTask*>;
    using ListNode = std::_List_node<const TCTask*>;
    using TreeNode = std::_Rb_tree_node<Wakeup>;
    using TreeHeader = std::_Rb_tree_header;
    using Vector = std::_Vector_base<Schedule, std::allocator<Schedule>>::_Vector_impl_data;

    return std::array{
        ZOR_CLASS(TCSemaphore),
        ZOR_MEMBER(TCSemaphore, m_state),
        ZOR_NAMED("TCSemaphore::State.owner", State, owner),
        ZOR_NAMED("TCSemaphore::State.condition", State, condition),
        ZOR_NAMED("TCSemaphore::State.count", State, count),
        ZOR_NAMED("TCSemaphore::State.waiters", State, waiters),
        ZOR_CLASS(TCMutex),
        ZOR_MEMBER(TCMutex, m_semaphore),
        ZOR_MEMBER(TCMutex, m_owner),
        ZOR_MEMBER(TCMutex, m_depth),
        ZOR_CLASS(TCThread),
        ZOR_MEMBER(TCThread, m_thread),
        ZOR_MEMBER(TCThread, m_kernelId),
        ZOR_MEMBER(TCThread, m_exitGate),
        ZOR_MEMBER(TCThread, m_name),
        ZOR_CLASS(TSEvent),
        ZOR_MEMBER(TSEvent, sync),
        ZOR_MEMBER(TSEvent, receiver),
        ZOR_MEMBER(TSEvent, sender),
        ZOR_MEMBER(TSEvent, type),
        ZOR_MEMBER(TSEvent, param1),
        ZOR_MEMBER(TSEvent, param2),
        ZOR_MEMBER(TSEvent, param3),
        ZOR_MEMBER(TSEvent, param4),
        ZOR_MEMBER(TSEvent, param5),
        ZOR_MEMBER(TSEvent, param6),
        ZOR_MEMBER(TSEvent, flag),
        ZOR_CLASS(TCQueue),
        ZOR_BASE(TCQueue, TCMutex, m_owner),
        ZOR_MEMBER(TCQueue, m_eventCount),
        ZOR_MEMBER(TCQueue, m_tail),
        ZOR_MEMBER(TCQueue, m_head),
        ZOR_MEMBER(TCQueue, m_count),
        ZOR_MEMBER(TCQueue, m_ring),
        ZOR_MEMBER(TCQueue, m_puts),
        ZOR_MEMBER(TCQueue, m_refused),
        ZOR_MEMBER(TCQueue, m_peak),
        ZOR_CLASS(TCHandler),
        ZOR_MEMBER(TCHandler, m_created),
        ZOR_MEMBER(TCHandler, task),
        ZOR_CLASS(TCTask),
        ZOR_BASE(TCTask, TCThread, m_kernelId),
        ZOR_BASE(TCTask, TCQueue, m_ring),
        ZOR_BASE(TCTask, TCHandler, m_created),
        ZOR_MEMBER(TCTask, m_waitTime),
        ZOR_MEMBER(TCTask, m_exit),
        ZOR_MEMBER(TCTask, m_running),
        ZOR_MEMBER(TCTask, m_watchdogTime),
        ZOR_MEMBER(TCTask, m_paused),
        ZOR_MEMBER(TCTask, m_taskName),
        ZOR_MEMBER(TCTask, m_furtherQueues),
        ZOR_MEMBER(TCTask, m_handledEvents.m_count),
        ZOR_MEMBER(TCTask, m_handledEvents.m_receiver),
        ZOR_MEMBER(TCTask, m_handledEvents.m_type),
        ZOR_CLASS(TCMultiQTask),
        ZOR_BASE(TCMultiQTask, TCTask, m_taskName),
        ZOR_MEMBER(TCMultiQTask, m_notifySemaphore),
        ZOR_MEMBER(TCMultiQTask, m_pQueueArray),
        ZOR_MEMBER(TCMultiQTask, m_queueSize),
        ZOR_CLASS(PTSyncDetInfo),
        ZOR_MEMBER(PTSyncDetInfo, bValid),
        ZOR_MEMBER(PTSyncDetInfo, startTick),
        ZOR_MEMBER(PTSyncDetInfo, callerId),
        ZOR_MEMBER(PTSyncDetInfo, callerTid),
        ZOR_MEMBER(PTSyncDetInfo, callerName),
        ZOR_MEMBER(PTSyncDetInfo, receiverThread),
        ZOR_MEMBER(PTSyncDetInfo, receiverName),
        ZOR_CLASS(TCTimersScheduler),
        ZOR_MEMBER(TCTimersScheduler, m_scheduledTimers),
        ZOR_MEMBER(TCTimersScheduler, m_wakeups),
        ZOR_MEMBER(TCTimersScheduler, m_pausedTimers),
        ZOR_MEMBER(TCTimersScheduler, m_running),
        ZOR_MEMBER(TCTimersScheduler, m_idle),
        Entry("TCTimersScheduler::TimerSchedule", 0, sizeof(Schedule), LayoutKind::CLASS),
        ZOR_NAMED("TCTimersScheduler::TimerSchedule.event", Schedule, event),
        ZOR_NAMED("TCTimersScheduler::TimerSchedule.interval", Schedule, interval),
        ZOR_NAMED("TCTimersScheduler::TimerSchedule.fired", Schedule, fired),
        ZOR_NAMED("TCTimersScheduler::TimerSchedule.count", Schedule, count),
        ZOR_NAMED("TCTimersScheduler::TimerSchedule.state", Schedule, state),
        Entry("TCTimersScheduler::TimerWakeupData", 0, sizeof(Wakeup), LayoutKind::CLASS),
        ZOR_NAMED("TCTimersScheduler::TimerWakeupData.due", Wakeup, due),
        ZOR_NAMED("TCTimersScheduler::TimerWakeupData.id", Wakeup, id),
        ZOR_NAMED("zor::FailedAssertion.state", FailedAssertion, state),
        ZOR_NAMED("zor::FailedAssertion.thread", FailedAssertion, thread),
        ZOR_NAMED("zor::FailedAssertion.line", FailedAssertion, line),
        ZOR_NAMED("zor::FailedAssertion.threadName", FailedAssertion, threadName),
        ZOR_NAMED("zor::FailedAssertion.file", FailedAssertion, file),
        ZOR_NAMED("zor::FailedAssertion.expression", FailedAssertion, expression),
        ZOR_NAMED("std::vector.begin", Vector, _M_start),
        ZOR_NAMED("std::vector.end", Vector, _M_finish),
        ZOR_NAMED("std::list.next", ListNode, _M_next),
        ZOR_NAMED("std::list.size", std::__detail::_List_node_header, _M_size),
        Entry("std::list.value", offsetof(ListNode, _M_storage), sizeof(List::value_type),
              LayoutKind::POINTER),
        Entry("std::set.leftmost",
              sizeof(TCTimersScheduler::Wakeups) - sizeof(TreeHeader) +
                  offsetof(TreeHeader, _M_header._M_left),
              sizeof(void*), LayoutKind::POINTER),
        Entry("std::set.header", sizeof(TCTimersScheduler::Wakeups) - sizeof(TreeHeader),
              sizeof(std::_Rb_tree_node_base), LayoutKind::RECORD),
        Entry("std::set.size",
              sizeof(TCTimersScheduler::Wakeups) - sizeof(TreeHeader) +
                  offsetof(TreeHeader, _M_node_count),
              sizeof(std::size_t), LayoutKind::UNSIGNED),
        ZOR_NAMED("std::set.left", TreeNode, _M_left),
        ZOR_NAMED("std::set.right", TreeNode, _M_right),
        ZOR_NAMED("std::set.parent", TreeNode, _M_parent),
        Entry("std::set.value", offsetof(TreeNode, _M_storage), sizeof(Wakeup), LayoutKind::RECORD),
    };
}

namespace {

/// The whole table, as tools find it.
template <std::size_t OBJECTS, std::size_t ENTRIES>
struct Whole
{
    LayoutHead head;
    std::array<LayoutObject, OBJECTS> objects;
    std::array<LayoutEntry, ENTRIES> entries;
};

constexpr auto Make()
{
    constexpr auto OBJECTS = LayoutTable::Objects();
    constexpr auto ENTRIES = LayoutTable::Entries();
    using Table = Whole<OBJECTS.size(), ENTRIES.size()>;

    Table table{};
    for (std::size_t i = 0; i < sizeof(LAYOUT_MAGIC); ++i) {
        table.head.magic[i] = LAYOUT_MAGIC[i];
    }
    table.head.format = LAYOUT_FORMAT;
    table.head.size = sizeof(Table);
    Copy(table.head.version, ZOR_CORE_VERSION);
    table.head.objectsAt = offsetof(Table, objects);
    table.head.objectSize = sizeof(LayoutObject);
    table.head.objectCount = OBJECTS.size();
    table.head.entriesAt = offsetof(Table, entries);
    table.head.entrySize = sizeof(LayoutEntry);
    table.head.entryCount = ENTRIES.size();
    table.objects = OBJECTS;
    table.entries = ENTRIES;
    return table;
}

} // namespace
} // namespace zor

extern "C" {
using ZorCoreLayout = decltype(zor::Make());
ZOR_CORE_API extern const ZorCoreLayout zor_core_layout;
const ZorCoreLayout zor_core_layout = zor::Make();
}

// NOLINTEND(bugprone-sizeof-expression,bugprone-sizeof-container,bugprone-macro-parentheses)
