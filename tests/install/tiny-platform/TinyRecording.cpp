// Recording and trap patterns for a port that has neither: off, and every operation does nothing.
#include <cstdlib>

#include "ht.h"

std::atomic<bool> TIStorageManagerState::enabled{false};

TIStorageManager* TIStorageManager::Instance()
{
    std::abort(); // asked for only while recording is on
}

namespace ht {

TCCallLocation::TCCallLocation(const char* name, const char* path, int number)
    : function(name), file(path), line(number)
{}

TCCallLocation::~TCCallLocation() = default;

std::string TSDemangler::Demangle(const char* name)
{
    return name;
}

TSCallItemHelper::TSCallItemHelper(TCStorage*, int, unsigned int) : m_record{}, m_size(0) {}

void TSCallItemHelper::Store(const void*, std::size_t) {}
void TSCallItemHelper::StoreFixed(bool) {}
void TSCallItemHelper::StoreFixed(unsigned int) {}
void TSCallItemHelper::StoreFixed(std::uint64_t) {}
void TSCallItemHelper::AddNull(const void*) {}

unsigned int TCStorage::SaveLocation(const TCCallLocation&)
{
    return 0;
}

void TCStorage::Commit(TSCallItemHelper&) {}

void TSCPUStatisticHelper::Start() {}
void TSCPUStatisticHelper::Stop() {}

void TCDirection::Reset()
{
    m_next = 0;
}

bool TCDirection::GetNext()
{
    return m_next < m_count && (m_inputs >> m_next++ & 1U) != 0;
}

TSTrapItem::TSTrapItem(std::shared_ptr<const TSTrapCondition> found) : condition(std::move(found))
{}

void TSTrapItem::EvaluateResult(bool) {}

void TCTrapArgumentHelper::EvaluateTrapItem(unsigned int, bool) {}
void TCTrapArgumentHelper::EvaluateSigned(const TSTrapTest&, std::int64_t) {}
void TCTrapArgumentHelper::EvaluateUnsigned(const TSTrapTest&, std::uint64_t) {}
void TCTrapArgumentHelper::EvaluateBytes(const TSTrapTest&, const std::string&) {}

bool TSTrapCondition::ItemExists(unsigned int) const
{
    return false;
}

const std::vector<TSTrapTest>& TSTrapCondition::GetItemsByIndex(unsigned int) const
{
    return m_tests[0];
}

TCTrapPattern TCTrapPattern::s_instance;

TCTrapPattern* TCTrapPattern::Instance()
{
    return &s_instance;
}

bool TCTrapPattern::IsEnabled() const
{
    return false;
}

void TCTrapPattern::NormalizeCodeLocation(TCTrapKey*) const {}

std::shared_ptr<const TSTrapCondition> TCTrapPattern::FindTrapCondition(const TCTrapKey&) const
{
    return nullptr;
}

void TCTrapPattern::AddItemToQueue(const TSTrapItem&) {}

} // namespace ht
