#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <new>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <utility>

#include "Event.h"
#include "ht.h"

/// @file
/// What stands around a call that can be recorded and trapped: a send or the handling of an event.
///
/// @code
/// static TSCodeLocation location("bool Relay::Pass(TSEvent*, bool, bool)", "src/Relay.cpp", 40);
/// const TCArgList3<TSEvent*&, bool&, bool&> args(event, sync, priority);
/// return zor::CallAtTrapPoint<bool>(location, args, [&] { return m_Pass(event); });
/// @endcode
///
/// With recording and trap patterns off that is the call and two relaxed loads, and what the
/// platform takes for the start of a statistic of processor time. The call is made in
/// any case, exactly once, and what it returns or throws is what comes out: a record for which
/// memory is short is left out, and so is the trap condition of such a call. Any thread may pass
/// any trap point.

/// Where an instrumented call stands: the calling function's signature, its source file and line.
/// There is one static instance for each call site. The texts must be literals.
class TSCodeLocation
{
 public:
    /// The texts and the line by which tools know the call site.
    constexpr TSCodeLocation(const char* function, const char* file, int line)
        : function(function), file(file), line(line)
    {}

    /// The id under which the storage of @p session knows the call site; 0 if it does not.
    unsigned int Id(unsigned int session) const
    {
        // Acquire, for what Save() did: the id is used with the storage that gave it.
        const std::uint64_t saved = m_saved.load(std::memory_order_acquire);
        return saved >> ID_BITS == session ? static_cast<unsigned int>(saved) : 0;
    }

    /// The same; if there is no id yet, @p save is called for one, by one thread only.
    template <typename Save>
    unsigned int Id(unsigned int session, const Save& save)
    {
        if (const unsigned int id = Id(session)) {
            return id;
        }
        const std::lock_guard<std::mutex> lock(m_saving);
        unsigned int id = Id(session);
        if (id == 0) {
            id = save();
            m_saved.store(static_cast<std::uint64_t>(session) << ID_BITS | id,
                          std::memory_order_release);
        }
        return id;
    }

    const char* const function; ///< signature of the calling function
    const char* const file;     ///< source file
    const int line;             ///< line in it

 private:
    static constexpr int ID_BITS = 32;

    std::mutex m_saving; ///< held while the site is being described; nothing is locked under it
    std::atomic<std::uint64_t> m_saved{0}; ///< session and id in one; written under m_saving
};

/// The argument of an instrumented call with one: the event.
template <typename A1>
class TCArgList1
{
 public:
    static constexpr unsigned int COUNT = 1; ///< number of arguments

    explicit TCArgList1(A1 event) : event(event) {} ///< keeps the reference

    /// Calls @p visit with each argument, in order.
    template <typename Visit>
    void ForEach(const Visit& visit) const
    {
        visit(event);
    }

    A1 event; ///< a reference to the pointer
};

/// The arguments of a send: the event, and whether it is synchronous and a priority one.
template <typename A1, typename A2, typename A3>
class TCArgList3
{
 public:
    static constexpr unsigned int COUNT = 3; ///< number of arguments

    /// Keeps the references.
    TCArgList3(A1 event, A2 sync, A3 priority) : event(event), sync(sync), priority(priority) {}

    /// Calls @p visit with each argument, in order.
    template <typename Visit>
    void ForEach(const Visit& visit) const
    {
        visit(event);
        visit(sync);
        visit(priority);
    }

    A1 event;    ///< a reference to the pointer
    A2 sync;     ///< whether the sender waits
    A3 priority; ///< whether the event overtakes the others
};

/// The arguments of a send to one of several queues.
template <typename A1, typename A2, typename A3, typename A4>
class TCArgList4
{
 public:
    static constexpr unsigned int COUNT = 4; ///< number of arguments

    /// Keeps the references.
    TCArgList4(A1 event, A2 sync, A3 priority, A4 queue)
        : event(event), sync(sync), priority(priority), queue(queue)
    {}

    /// Calls @p visit with each argument, in order.
    template <typename Visit>
    void ForEach(const Visit& visit) const
    {
        visit(event);
        visit(sync);
        visit(priority);
        visit(queue);
    }

    A1 event;    ///< a reference to the pointer
    A2 sync;     ///< whether the sender waits
    A3 priority; ///< whether the event overtakes the others
    A4 queue;    ///< index of the queue
};

/// Makes the records of a call. To be used while recording is on.
class TCCallExecutorHelper
{
 public:
    /// Records the arguments before the call; describes the call site if that was not done yet.
    template <typename Result, typename Args>
    static void SaveBeforeCall(TIStorageManager& manager, TSCodeLocation& location,
                               const Args& args, ht::TCDirection& direction)
    {
        ht::TCStorage* const storage = manager.CurrentStorage();
        if (storage == nullptr) {
            return;
        }
        const unsigned int id = location.Id(manager.SessionId(), [&] {
            return storage->SaveLocation(Describe<Result>(location, args, direction));
        });
        ht::TSCallItemHelper record(storage, ht::TSCallItemHelper::BEFORE_CALL, id);
        direction.Reset();
        args.ForEach([&](const auto& argument) {
            if (direction.GetNext()) {
                Store(record, argument);
            }
        });
        storage->Commit(record);
    }

    /// Records the result after the call, if its arguments were recorded before it.
    template <typename Result>
    static void SaveAfterCall(TIStorageManager& manager, const TSCodeLocation& location,
                              Result result)
    {
        ht::TCStorage* const storage = manager.CurrentStorage();
        const unsigned int id = location.Id(manager.SessionId());
        if (storage == nullptr || id == 0) {
            return;
        }
        ht::TSCallItemHelper record(storage, ht::TSCallItemHelper::AFTER_CALL, id);
        record.StoreFixed(result);
        storage->Commit(record);
    }

 private:
    template <typename Result, typename Args>
    static ht::TCCallLocation Describe(const TSCodeLocation& location, const Args& args,
                                       ht::TCDirection& direction)
    {
        ht::TCCallLocation description(location.function, location.file, location.line);
        direction.Reset();
        args.ForEach([&](const auto& argument) {
            using Type = std::remove_pointer_t<std::decay_t<decltype(argument)>>;
            description.argumentTypes.push_back(ht::TSDemangler::Demangle(typeid(Type).name()));
            description.inputs.push_back(direction.GetNext());
            description.sizes.push_back(ht::TCCallLocation::SIZE_IN_RECORD);
        });
        description.resultType = ht::TSDemangler::Demangle(typeid(Result).name());
        return description;
    }

    static void Store(ht::TSCallItemHelper& record, const TSEvent* event)
    {
        if (event != nullptr) {
            record.Store(event, sizeof(*event));
        } else {
            record.AddNull(event);
        }
    }

    static void Store(ht::TSCallItemHelper& record, bool value) { record.StoreFixed(value); }
    static void Store(ht::TSCallItemHelper& record, unsigned int value)
    {
        record.StoreFixed(value);
    }
};

namespace zor {

/// Holds the arguments behind the event against the condition of @p item, by the form of the list.
template <typename A1>
void EvaluateArguments(ht::TSTrapItem& /*item*/, const TCArgList1<A1>& /*args*/)
{}

/// The same for the two flags of a send, which are values 2 and 3 of a condition.
template <typename A1, typename A2, typename A3>
void EvaluateArguments(ht::TSTrapItem& item, const TCArgList3<A1, A2, A3>& args)
{
    ht::TCTrapArgumentHelper helper(&item);
    helper.EvaluateTrapItem(2, args.sync);
    helper.EvaluateTrapItem(3, args.priority);
}

/// The same for the flags and the index of the queue, which is value 4: looked at only if what came
/// before it held.
template <typename A1, typename A2, typename A3, typename A4>
void EvaluateArguments(ht::TSTrapItem& item, const TCArgList4<A1, A2, A3, A4>& args)
{
    constexpr unsigned int QUEUE_INDEX = 4;
    EvaluateArguments(item, TCArgList3<A1, A2, A3>(args.event, args.sync, args.priority));
    if (!item.matches || !item.condition->ItemExists(QUEUE_INDEX)) {
        return;
    }
    const unsigned int value = args.queue;
    ht::TCTrapArgumentHelper helper(&item);
    for (const ht::TSTrapTest& test : item.condition->GetItemsByIndex(QUEUE_INDEX)) {
        switch (test.kind) {
            case ht::TSTrapTest::SIGNED:
                helper.EvaluateSigned(test, static_cast<std::int32_t>(value));
                break;
            case ht::TSTrapTest::UNSIGNED:
                helper.EvaluateUnsigned(test, value);
                break;
            case ht::TSTrapTest::BYTES:
                helper.EvaluateBytes(
                    test, std::string(reinterpret_cast<const char*>(&value), sizeof(value)));
                break;
        }
    }
}

} // namespace zor

/// Holds a call that has been made against the trap condition of its location, if there is one. To
/// be used while trap patterns are set.
template <typename Result, typename Args>
void TrapPoint(ht::TCTrapKey key, const Args& args, Result result)
{
    ht::TCTrapPattern* const patterns = ht::TCTrapPattern::Instance();
    patterns->NormalizeCodeLocation(&key);
    if (auto condition = patterns->FindTrapCondition(key)) {
        ht::TSTrapItem item(std::move(condition));
        item.EvaluateResult(result);
        zor::EvaluateArguments(item, args);
        patterns->AddItemToQueue(item);
    }
}

namespace zor {

/// Runs @p trace, which tells of a call and must not decide how that goes.
///
/// @return false if memory was short for it
template <typename Trace>
bool TraceIfMemory(const Trace& trace)
{
    try {
        trace();
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

/// Makes @p call between its trap points and returns its result.
///
/// @param location  of the calling function, static
/// @param args      the arguments as a list of references; they must outlive the call
template <typename Result, typename Args, typename Call>
Result CallAtTrapPoint(TSCodeLocation& location, const Args& args, const Call& call)
{
    ht::TCDirection direction(Args::COUNT);
    ht::TSCPUStatistic statistic;
    // Relaxed: see TIStorageManagerState. Asked once: no result is recorded without its arguments.
    const bool recorded =
        TIStorageManagerState::enabled.load(std::memory_order_relaxed) && TraceIfMemory([&] {
            TCCallExecutorHelper::SaveBeforeCall<Result>(*TIStorageManager::Instance(), location,
                                                         args, direction);
        });
    const Result result = [&] {
        ht::TSCPUStatisticHelper measurement(&statistic);
        measurement.Start();
        return call();
    }();
    if (recorded) {
        TraceIfMemory([&] {
            TCCallExecutorHelper::SaveAfterCall<Result>(*TIStorageManager::Instance(), location,
                                                        result);
        });
    }
    if (ht::TCTrapPattern::Instance()->IsEnabled()) {
        TraceIfMemory(
            [&] { TrapPoint<Result>(ht::TCTrapKey(location.line, location.file), args, result); });
    }
    return result;
}

} // namespace zor
