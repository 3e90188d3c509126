#include <algorithm>
#include <array>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <map>
#include <utility>

#include "dlog.h"
#include "ht.h"

namespace ht {
namespace {

constexpr char TAG[] = "ZOR_TRAP";
constexpr unsigned int EVENT_INDEX = 1;

template <typename Value>
bool Holds(TSTrapTest::ERelation relation, const Value& left, const Value& right)
{
    switch (relation) {
        case TSTrapTest::EQUAL:
            return left == right;
        case TSTrapTest::NOT_EQUAL:
            return left != right;
        case TSTrapTest::LESS:
            return left < right;
        case TSTrapTest::LESS_OR_EQUAL:
            return left <= right;
        case TSTrapTest::GREATER:
            return left > right;
        case TSTrapTest::GREATER_OR_EQUAL:
            return left >= right;
    }
    return false;
}

bool IsOrder(TSTrapTest::ERelation relation)
{
    return relation != TSTrapTest::EQUAL && relation != TSTrapTest::NOT_EQUAL;
}

bool IsPossible(const TSTrapTest& test)
{
    return test.index < TSTrapCondition::VALUES && test.index != EVENT_INDEX &&
           (test.kind != TSTrapTest::BYTES || !IsOrder(test.relation));
}

TSTrapTest Number(unsigned int index, TSTrapTest::EKind kind, TSTrapTest::ERelation relation,
                  std::uint64_t number)
{
    TSTrapTest test;
    test.index = index;
    test.kind = kind;
    test.relation = relation;
    test.number = number;
    return test;
}

/// Reduces a file to its base name without extension.
void Normalize(TCTrapKey* key)
{
    std::string& file = key->second;
    const std::size_t slash = file.find_last_of("/\\");
    if (slash != std::string::npos) {
        file.erase(0, slash + 1);
    }
    const std::size_t extension = file.rfind('.');
    if (extension != std::string::npos && extension != 0) {
        file.erase(extension);
    }
}

void Note(TSTrapItem* item, unsigned int index, std::int64_t value)
{
    if (index >= TSTrapCondition::VALUES) {
        return;
    }
    item->values[index] = value;
    item->known |= 1U << index;
}

/// Whether the call had every value that the condition asks for. Of one that it has not, nothing
/// can hold.
bool HasAllValues(const TSTrapItem& item)
{
    for (unsigned int i = 0; i < TSTrapCondition::VALUES; ++i) {
        if (item.condition->ItemExists(i) && (item.known >> i & 1U) == 0) {
            return false;
        }
    }
    return true;
}

void Evaluate(TSTrapItem* item, const TSTrapTest& test, std::int64_t value)
{
    Note(item, test.index, value);
    if (!Holds(test.relation, value, static_cast<std::int64_t>(test.number))) {
        item->matches = false;
    }
}

void Evaluate(TSTrapItem* item, const TSTrapTest& test, std::uint64_t value)
{
    Note(item, test.index, static_cast<std::int64_t>(value));
    if (!Holds(test.relation, value, test.number)) {
        item->matches = false;
    }
}

void Evaluate(TSTrapItem* item, const TSTrapTest& test, const std::string& value)
{
    std::int64_t number = 0;
    memcpy(&number, value.data(), std::min(value.size(), sizeof(number)));
    Note(item, test.index, number);
    if (!Holds(test.relation, value, test.bytes)) {
        item->matches = false;
    }
}

/// Holds a flag against all comparisons of @p index.
void EvaluateFlag(TSTrapItem* item, unsigned int index, bool value)
{
    Note(item, index, value ? 1 : 0);
    for (const TSTrapTest& test : item->condition->GetItemsByIndex(index)) {
        switch (test.kind) {
            case TSTrapTest::SIGNED:
                Evaluate(item, test, std::int64_t{value});
                break;
            case TSTrapTest::UNSIGNED:
                Evaluate(item, test, std::uint64_t{value});
                break;
            case TSTrapTest::BYTES:
                Evaluate(item, test, std::string(1, value ? '\1' : '\0'));
                break;
        }
    }
}

/// Writes the values of @p item as text.
void PrintValues(const TSTrapItem& item, char* text, std::size_t size)
{
    static constexpr std::array<const char*, TSTrapCondition::VALUES> NAMES = {
        "result", "event", "argument 2", "argument 3", "argument 4"};
    std::size_t used = 0;
    text[0] = '\0';
    for (unsigned int i = 0; i < NAMES.size(); ++i) {
        if ((item.known >> i & 1U) == 0) {
            continue;
        }
        const int length = snprintf(text + used, size - used, "%s%s=%" PRId64,
                                    used == 0 ? "" : ", ", NAMES[i], item.values[i]);
        used += static_cast<std::size_t>(length);
        if (used >= size) {
            return;
        }
    }
}

} // namespace

TSTrapTest TSTrapTest::Signed(unsigned int index, ERelation relation, std::int64_t value)
{
    return Number(index, SIGNED, relation, static_cast<std::uint64_t>(value));
}

TSTrapTest TSTrapTest::Unsigned(unsigned int index, ERelation relation, std::uint64_t value)
{
    return Number(index, UNSIGNED, relation, value);
}

TSTrapTest TSTrapTest::Bytes(unsigned int index, ERelation relation, std::string value)
{
    TSTrapTest test = Number(index, BYTES, relation, 0);
    test.bytes = std::move(value);
    return test;
}

TSTrapCondition::TSTrapCondition(TCTrapKey key, const std::vector<TSTrapTest>& tests)
    : m_key(std::move(key))
{
    for (const TSTrapTest& test : tests) {
        if (test.index < VALUES) {
            m_tests[test.index].push_back(test);
        }
    }
}

bool TSTrapCondition::ItemExists(unsigned int index) const
{
    return index < VALUES && !m_tests[index].empty();
}

const std::vector<TSTrapTest>& TSTrapCondition::GetItemsByIndex(unsigned int index) const
{
    static const auto* const none = new std::vector<TSTrapTest>;
    return index < VALUES ? m_tests[index] : *none;
}

TSTrapItem::TSTrapItem(std::shared_ptr<const TSTrapCondition> condition)
    : condition(std::move(condition))
{}

void TSTrapItem::EvaluateResult(bool value)
{
    EvaluateFlag(this, 0, value);
}

void TCTrapArgumentHelper::EvaluateTrapItem(unsigned int index, bool value)
{
    EvaluateFlag(m_item, index, value);
}

void TCTrapArgumentHelper::EvaluateSigned(const TSTrapTest& test, std::int64_t value)
{
    Evaluate(m_item, test, value);
}

void TCTrapArgumentHelper::EvaluateUnsigned(const TSTrapTest& test, std::uint64_t value)
{
    Evaluate(m_item, test, value);
}

void TCTrapArgumentHelper::EvaluateBytes(const TSTrapTest& test, const std::string& value)
{
    Evaluate(m_item, test, value);
}

struct TCTrapPattern::TSConditions
{
    std::map<TCTrapKey, std::shared_ptr<TSTrapCondition>> byKey;
};

TCTrapPattern TCTrapPattern::s_instance;

TCTrapPattern* TCTrapPattern::Instance()
{
    return &s_instance;
}

bool TCTrapPattern::IsEnabled() const
{
    // Relaxed: the conditions themselves are read under the lock.
    return m_enabled.load(std::memory_order_relaxed);
}

bool TCTrapPattern::SetCondition(TCTrapKey key, const std::vector<TSTrapTest>& tests)
{
    for (const TSTrapTest& test : tests) {
        if (!IsPossible(test)) {
            return false;
        }
    }
    Normalize(&key);
    auto condition = std::make_shared<TSTrapCondition>(key, tests);
    const std::lock_guard<std::mutex> lock(m_lock);
    if (m_conditions == nullptr) {
        m_conditions = new TSConditions;
    }
    m_conditions->byKey[std::move(key)] = std::move(condition);
    m_enabled.store(true, std::memory_order_relaxed);
    return true;
}

bool TCTrapPattern::RemoveCondition(TCTrapKey key)
{
    Normalize(&key);
    const std::lock_guard<std::mutex> lock(m_lock);
    if (m_conditions == nullptr || m_conditions->byKey.erase(key) == 0) {
        return false;
    }
    m_enabled.store(!m_conditions->byKey.empty(), std::memory_order_relaxed);
    return true;
}

void TCTrapPattern::Clear()
{
    const std::lock_guard<std::mutex> lock(m_lock);
    if (m_conditions != nullptr) {
        m_conditions->byKey.clear();
    }
    m_enabled.store(false, std::memory_order_relaxed);
}

TSTrapCounts TCTrapPattern::Counts(TCTrapKey key) const
{
    Normalize(&key);
    const std::lock_guard<std::mutex> lock(m_lock);
    const std::shared_ptr<const TSTrapCondition> condition = FindLocked(key);
    if (condition == nullptr) {
        return {};
    }
    return {condition->m_evaluated.load(std::memory_order_relaxed),
            condition->m_matched.load(std::memory_order_relaxed)};
}

void TCTrapPattern::NormalizeCodeLocation(TCTrapKey* key) const
{
    Normalize(key);
}

std::shared_ptr<const TSTrapCondition> TCTrapPattern::FindTrapCondition(const TCTrapKey& key) const
{
    const std::lock_guard<std::mutex> lock(m_lock);
    return FindLocked(key);
}

std::shared_ptr<const TSTrapCondition> TCTrapPattern::FindLocked(const TCTrapKey& key) const
{
    if (m_conditions == nullptr) {
        return nullptr;
    }
    const auto found = m_conditions->byKey.find(key);
    return found != m_conditions->byKey.end() ? found->second : nullptr;
}

void TCTrapPattern::AddItemToQueue(const TSTrapItem& item)
{
    const TSTrapCondition& condition = *item.condition;
    const std::uint64_t evaluated =
        condition.m_evaluated.fetch_add(1, std::memory_order_relaxed) + 1;
    if (!item.matches || !HasAllValues(item)) {
        return;
    }
    const std::uint64_t matched = condition.m_matched.fetch_add(1, std::memory_order_relaxed) + 1;
    char values[256];
    PrintValues(item, values, sizeof(values));
    __dlog_print(LOG_ID_MAIN, DLOG_WARN, TAG,
                 "%s:%d matches (%" PRIu64 " of %" PRIu64 " calls): %s",
                 condition.m_key.second.c_str(), condition.m_key.first, matched, evaluated, values);
}

} // namespace ht
