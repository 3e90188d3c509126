#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "PlatformExport.h"

/// @file
/// The trap patterns of the trap-point and call-recording library; included by ht.h.

namespace ht {

/// Names a code location for trap patterns: the line and the source file.
using TCTrapKey = std::pair<int, std::string>;

/// One comparison of a trap condition: the value at `index` against the one given here.
struct ZOR_PLATFORM_API TSTrapTest
{
    /// How the value is read.
    enum EKind : int
    {
        SIGNED = 0,   ///< the value as a signed number of its own size
        UNSIGNED = 1, ///< the value as an unsigned number
        BYTES = 2,    ///< the value's bytes as they lie in memory; compared for (in)equality only
    };

    /// What must hold between the call's value and the given one.
    enum ERelation : int
    {
        EQUAL,
        NOT_EQUAL,
        LESS,
        LESS_OR_EQUAL,
        GREATER,
        GREATER_OR_EQUAL,
    };

    /// @param index     0 for the result, n for the n-th argument (from 1); a call that has no such
    ///                  argument does not meet the condition
    /// @param relation  holds between the call's value (left) and the given one (right)
    static TSTrapTest Signed(unsigned int index, ERelation relation, std::int64_t value);

    /// The same for a value that is read as UNSIGNED.
    static TSTrapTest Unsigned(unsigned int index, ERelation relation, std::uint64_t value);

    /// The same for a value that is read as BYTES; @p relation is EQUAL or NOT_EQUAL.
    static TSTrapTest Bytes(unsigned int index, ERelation relation, std::string value);

    unsigned int index = 0;     ///< which value of the call: 0 the result, n the n-th argument
    EKind kind = SIGNED;        ///< how it is read
    ERelation relation = EQUAL; ///< what must hold
    std::uint64_t number = 0;   ///< SIGNED and UNSIGNED: the bits of the number
    std::string bytes;          ///< BYTES
};

/// How often the calls at a location were held against its condition, and how often they met it.
struct TSTrapCounts
{
    std::uint64_t evaluated = 0; ///< calls that were held against the condition
    std::uint64_t matched = 0;   ///< calls that met it
};

/// A trap point: all comparisons for one code location. Fixed once it is set.
class ZOR_PLATFORM_API TSTrapCondition
{
 public:
    static constexpr unsigned int VALUES = 5; ///< the result and at most four arguments

    /// @param key    a normalised location
    /// @param tests  all of them must hold; they are copied
    TSTrapCondition(TCTrapKey key, const std::vector<TSTrapTest>& tests);

    /// Whether there are comparisons of the value at @p index.
    bool ItemExists(unsigned int index) const;

    /// The comparisons of the value at @p index; none if it is out of range.
    const std::vector<TSTrapTest>& GetItemsByIndex(unsigned int index) const;

 private:
    friend class TCTrapPattern;

    const TCTrapKey m_key;
    std::vector<TSTrapTest> m_tests[VALUES];
    /// Relaxed everywhere: the numbers order nothing else.
    mutable std::atomic<std::uint64_t> m_evaluated{0};
    mutable std::atomic<std::uint64_t> m_matched{0};
};

/// One call held against one condition. Belongs to the calling thread.
struct ZOR_PLATFORM_API TSTrapItem
{
    /// An item that matches so far.
    explicit TSTrapItem(std::shared_ptr<const TSTrapCondition> condition);

    /// Holds the call's result against the comparisons of index 0.
    void EvaluateResult(bool value);

    std::shared_ptr<const TSTrapCondition> condition;  ///< shared with the patterns
    bool matches = true;                               ///< whether every comparison held so far
    std::int64_t values[TSTrapCondition::VALUES] = {}; ///< what was evaluated, for the log
    unsigned int known = 0;                            ///< bit n is set if values[n] is
};

/// Holds arguments against the condition of a trap item; the item stays matching only while every
/// comparison holds.
class ZOR_PLATFORM_API TCTrapArgumentHelper
{
 public:
    /// @param item  must outlive this
    explicit TCTrapArgumentHelper(TSTrapItem* item) : m_item(item) {}

    /// Holds a flag against all comparisons of @p index.
    void EvaluateTrapItem(unsigned int index, bool value);

    /// Holds a number against one comparison of kind SIGNED.
    void EvaluateSigned(const TSTrapTest& test, std::int64_t value);

    /// Holds a number against one comparison of kind UNSIGNED.
    void EvaluateUnsigned(const TSTrapTest& test, std::uint64_t value);

    /// Holds the bytes of a value against one comparison of kind BYTES.
    void EvaluateBytes(const TSTrapTest& test, const std::string& value);

 private:
    TSTrapItem* m_item;
};

/// The trap patterns of the process: what a developer waits for at instrumented calls.
///
///     using Test = ht::TSTrapTest;
///     // Tell of every synchronous send that failed.
///     ht::TCTrapPattern::Instance()->SetCondition(
///         {168, "src/Task.cpp"}, {Test::Unsigned(0, Test::EQUAL, 0),
///                                 Test::Unsigned(2, Test::EQUAL, 1)});
///
/// Each match is counted and written to the platform log (WARN, tag "ZOR_TRAP") with the values.
/// The one instance lives as long as the process.
class ZOR_PLATFORM_API TCTrapPattern
{
 public:
    /// The one instance.
    static TCTrapPattern* Instance();

    /// Whether any condition is set: one relaxed load.
    bool IsEnabled() const;

    /// Sets the condition of a location, in place of the one that was there; its counts begin at 0.
    /// A condition without comparisons matches every call.
    ///
    /// @return false, with nothing changed, if a comparison is of a value that there is not or of
    ///         argument 1, the event, which no call evaluates
    bool SetCondition(TCTrapKey key, const std::vector<TSTrapTest>& tests);

    /// @return false if there is no condition for the location
    bool RemoveCondition(TCTrapKey key);

    /// Removes all conditions.
    void Clear();

    /// The counts of the location's condition; zeros if there is none.
    TSTrapCounts Counts(TCTrapKey key) const;

    /// Reduces the file of a key to its base name without extension, so that "Task",
    /// "src/Task.cpp" and an absolute path are the same location. All operations that take a key
    /// but FindTrapCondition() do so by themselves.
    void NormalizeCodeLocation(TCTrapKey* key) const;

    /// The condition of a normalised key; null if there is none.
    std::shared_ptr<const TSTrapCondition> FindTrapCondition(const TCTrapKey& key) const;

    /// Takes a finished item, matching or not: counts it and logs a match. An item whose condition
    /// compares a value that has not been evaluated, because the call has no such argument, is no
    /// match.
    void AddItemToQueue(const TSTrapItem& item);

 private:
    struct TSConditions;

    std::shared_ptr<const TSTrapCondition> FindLocked(const TCTrapKey& key) const; ///< m_lock

    constexpr TCTrapPattern() = default;
    ~TCTrapPattern() = default;

    static TCTrapPattern s_instance;

    std::atomic<bool> m_enabled{false};   ///< written under m_lock
    mutable std::mutex m_lock;            ///< no foreign code runs under it
    TSConditions* m_conditions = nullptr; ///< guarded by m_lock; made by the first use, never freed
};

} // namespace ht
