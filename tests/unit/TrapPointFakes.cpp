#include "TrapPointFakes.h"

#include <atomic>
#include <cinttypes>
#include <cstdio>
#include <utility>

#include "Seam.h"

namespace zortest {

namespace {

thread_local std::vector<std::string> tNotes;

std::atomic<bool> gFakes{false};
std::atomic<unsigned int> gSession{1000};
std::atomic<int> gLocations{0};
std::atomic<bool> gHasStorage{true};

class FakeStorage final : public ht::TCStorage
{};

FakeStorage gStorage;

class FakeManager final : public TIStorageManager
{
 public:
    ht::TCStorage* CurrentStorage() override
    {
        Note("CurrentStorage");
        return gHasStorage ? &gStorage : nullptr;
    }

    unsigned int SessionId() override
    {
        Note("SessionId");
        return gSession;
    }
};

FakeManager gManager;

std::string Hex(const std::string& bytes)
{
    std::string text;
    for (const char c : bytes) {
        char code[4];
        snprintf(code, sizeof(code), "%02x", static_cast<unsigned char>(c));
        text += code;
    }
    return text;
}

std::string KeyText(const ht::TCTrapKey& key)
{
    return key.second + ":" + std::to_string(key.first);
}

Seam<std::string(const char*)> demangleSeam("_ZN2ht11TSDemangler8DemangleB5cxx11EPKc");
Seam<bool(const ht::TCTrapPattern*)> isEnabledSeam("_ZNK2ht13TCTrapPattern9IsEnabledEv");
Seam<void(const ht::TCTrapPattern*, ht::TCTrapKey*)> normalizeSeam(
    "_ZNK2ht13TCTrapPattern21NormalizeCodeLocationEPSt4pairIiNSt7__cxx1112basic_string"
    "IcSt11char_traitsIcESaIcEEEE");
Seam<std::shared_ptr<const ht::TSTrapCondition>(const ht::TCTrapPattern*, const ht::TCTrapKey&)>
    findSeam(
        "_ZNK2ht13TCTrapPattern17FindTrapConditionERKSt4pairIiNSt7__cxx1112basic_string"
        "IcSt11char_traitsIcESaIcEEEE");
Seam<void(ht::TCTrapPattern*, const ht::TSTrapItem&)> addItemSeam(
    "_ZN2ht13TCTrapPattern14AddItemToQueueERKNS_10TSTrapItemE");
Seam<void(ht::TSTrapItem*, bool)> evaluateResultSeam("_ZN2ht10TSTrapItem14EvaluateResultEb");
Seam<void(ht::TCTrapArgumentHelper*, unsigned int, bool)> evaluateItemSeam(
    "_ZN2ht20TCTrapArgumentHelper16EvaluateTrapItemEjb");
Seam<void(ht::TCTrapArgumentHelper*, const ht::TSTrapTest&, std::int64_t)> evaluateSignedSeam(
    "_ZN2ht20TCTrapArgumentHelper14EvaluateSignedERKNS_10TSTrapTestEl");
Seam<void(ht::TCTrapArgumentHelper*, const ht::TSTrapTest&, std::uint64_t)> evaluateUnsignedSeam(
    "_ZN2ht20TCTrapArgumentHelper16EvaluateUnsignedERKNS_10TSTrapTestEm");
Seam<void(ht::TCTrapArgumentHelper*, const ht::TSTrapTest&, const std::string&)> evaluateBytesSeam(
    "_ZN2ht20TCTrapArgumentHelper13EvaluateBytesERKNS_10TSTrapTestERKNSt7__cxx1112basic_string"
    "IcSt11char_traitsIcESaIcEEE");

} // namespace

FakeRecorder::FakeRecorder()
{
    gFakes = true;
    gHasStorage = true;
    gLocations = 0;
    NewSession();
    tNotes.clear();
}

FakeRecorder::~FakeRecorder()
{
    TIStorageManagerState::enabled = false;
    gFakes = false;
}

void FakeRecorder::NewSession()
{
    ++gSession;
}

void FakeRecorder::RemoveStorage()
{
    gHasStorage = false;
}

int FakeRecorder::Locations() const
{
    return gLocations;
}

std::vector<std::string> FakeRecorder::Take()
{
    return std::exchange(tNotes, {});
}

void Note(const std::string& what)
{
    if (gFakes) {
        tNotes.push_back(what);
    }
}

std::string AddressText(const void* address)
{
    char text[32];
    snprintf(text, sizeof(text), "0x%" PRIxPTR, reinterpret_cast<std::uintptr_t>(address));
    return text;
}

} // namespace zortest

using namespace zortest;

TIStorageManager* TIStorageManager::Instance()
{
    Note("Instance");
    return &gManager;
}

namespace ht {

TCCallLocation::TCCallLocation(const char* function, const char* file, int line)
    : function(function), file(file), line(line)
{
    Note("TCCallLocation(" + this->function + ", " + this->file + ", " + std::to_string(line) +
         ")");
}

TCCallLocation::~TCCallLocation()
{
    Note("~TCCallLocation");
}

std::string TSDemangler::Demangle(const char* name)
{
    std::string text = demangleSeam(name);
    Note("Demangle(" + text + ")");
    return text;
}

unsigned int TCStorage::SaveLocation(const TCCallLocation& location)
{
    std::string text = "SaveLocation(";
    for (std::size_t i = 0; i < location.argumentTypes.size(); ++i) {
        text += location.argumentTypes.at(i) + (location.inputs.at(i) ? " in " : " out ") +
                std::to_string(location.sizes.at(i)) + ", ";
    }
    Note(text + location.resultType + ")");
    return static_cast<unsigned int>(++gLocations);
}

void TCStorage::Commit(TSCallItemHelper& /*record*/)
{
    Note("Commit");
}

TSCallItemHelper::TSCallItemHelper(TCStorage* storage, int kind, unsigned int location) : m_size(0)
{
    Note("Record(" + std::string(storage == &gStorage ? "storage, " : "?, ") +
         std::to_string(kind) + ", " + std::to_string(location) + ")");
}

void TSCallItemHelper::Store(const void* pointer, std::size_t size)
{
    Note("Store(" + AddressText(pointer) + ", " + std::to_string(size) + ")");
}

void TSCallItemHelper::StoreFixed(bool value)
{
    Note(value ? "StoreFixed(true)" : "StoreFixed(false)");
}

void TSCallItemHelper::StoreFixed(unsigned int value)
{
    Note("StoreFixed(" + std::to_string(value) + "u)");
}

void TSCallItemHelper::StoreFixed(std::uint64_t value)
{
    Note("StoreFixed(" + std::to_string(value) + "ul)");
}

void TSCallItemHelper::AddNull(const void* pointer)
{
    Note("AddNull(" + AddressText(pointer) + ")");
}

void TSCPUStatisticHelper::Start()
{
    m_started = true;
    m_startNsec = 23;
    Note("Start");
}

void TSCPUStatisticHelper::Stop()
{
    m_statistic->cpuNsec = m_startNsec + 54;
    Note("Stop");
}

void TCDirection::Reset()
{
    m_next = 0;
    Note("Reset");
}

bool TCDirection::GetNext()
{
    Note("GetNext");
    return m_next < m_count && (m_inputs >> m_next++ & 1U) != 0;
}

bool TCTrapPattern::IsEnabled() const
{
    Note("IsEnabled");
    return isEnabledSeam(this);
}

void TCTrapPattern::NormalizeCodeLocation(TCTrapKey* key) const
{
    Note("NormalizeCodeLocation(" + KeyText(*key) + ")");
    normalizeSeam(this, key);
}

std::shared_ptr<const TSTrapCondition> TCTrapPattern::FindTrapCondition(const TCTrapKey& key) const
{
    Note("FindTrapCondition(" + KeyText(key) + ")");
    return findSeam(this, key);
}

void TCTrapPattern::AddItemToQueue(const TSTrapItem& item)
{
    Note(item.matches ? "AddItemToQueue(matching)" : "AddItemToQueue(not matching)");
    addItemSeam(this, item);
}

void TSTrapItem::EvaluateResult(bool value)
{
    Note(value ? "EvaluateResult(true)" : "EvaluateResult(false)");
    evaluateResultSeam(this, value);
}

void TCTrapArgumentHelper::EvaluateTrapItem(unsigned int index, bool value)
{
    Note((m_item != nullptr ? "EvaluateTrapItem(" : "of nothing: EvaluateTrapItem(") +
         std::to_string(index) + (value ? ", true)" : ", false)"));
    evaluateItemSeam(this, index, value);
}

void TCTrapArgumentHelper::EvaluateSigned(const TSTrapTest& test, std::int64_t value)
{
    Note("EvaluateSigned(" + std::to_string(value) + ")");
    evaluateSignedSeam(this, test, value);
}

void TCTrapArgumentHelper::EvaluateUnsigned(const TSTrapTest& test, std::uint64_t value)
{
    Note("EvaluateUnsigned(" + std::to_string(value) + ")");
    evaluateUnsignedSeam(this, test, value);
}

void TCTrapArgumentHelper::EvaluateBytes(const TSTrapTest& test, const std::string& value)
{
    Note("EvaluateBytes(" + Hex(value) + ")");
    evaluateBytesSeam(this, test, value);
}

} // namespace ht
