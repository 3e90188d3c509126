#include <cxxabi.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <utility>

#include "HtClock.h"
#include "HtRecordConfig.h"
#include "HtRecordFile.h"
#include "HtRecordFormat.h"
#include "ht.h"

using zorhost::TCRecordFile;
using zorhost::format::TSItemHeader;
using zorhost::format::TSRecordHeader;

std::atomic<bool> TIStorageManagerState::enabled{false};

namespace {

/// What the environment asks for. Set before recording is enabled, and never destroyed: threads may
/// record until the process is gone.
const zorhost::TSRecordConfig* g_config = nullptr;

/// Held while the file is made, which takes as long as the file system does. So a fork does not
/// wait for it: whoever forks may hold locks that the whole process needs.
std::mutex g_makingFile;

/// The file, once the first record has made it. Published (release) when it is complete.
std::atomic<TCRecordFile*> g_file{nullptr};

/// Keeps the calling thread from being cancelled: half-way it would leave the file open and locked.
class TCNoCancellation
{
 public:
    TCNoCancellation() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_before); }
    ~TCNoCancellation() { pthread_setcancelstate(m_before, nullptr); }

    TCNoCancellation(const TCNoCancellation&) = delete;
    TCNoCancellation& operator=(const TCNoCancellation&) = delete;

 private:
    int m_before = PTHREAD_CANCEL_ENABLE;
};

__attribute__((noinline)) TCRecordFile* MakeFile()
{
    const TCNoCancellation whole;
    const std::lock_guard<std::mutex> lock(g_makingFile);
    TCRecordFile* file = g_file.load(std::memory_order_relaxed);
    if (file == nullptr && TIStorageManagerState::enabled.load(std::memory_order_relaxed)) {
        file = TCRecordFile::Create(*g_config);
        if (file == nullptr) {
            TIStorageManagerState::enabled.store(false, std::memory_order_relaxed);
        } else {
            g_file.store(file, std::memory_order_release);
        }
    }
    return file;
}

/// The file; made now if there is none yet. Null if it cannot be had.
TCRecordFile* File()
{
    TCRecordFile* const file = g_file.load(std::memory_order_acquire);
    return file != nullptr ? file : MakeFile();
}

class TCHostStorage final : public ht::TCStorage
{};

class TCHostStorageManager final : public TIStorageManager
{
 public:
    ht::TCStorage* CurrentStorage() override { return File() != nullptr ? &m_storage : nullptr; }

    unsigned int SessionId() override
    {
        const TCRecordFile* const file = g_file.load(std::memory_order_acquire);
        return file != nullptr ? file->Session() : 0;
    }

 private:
    TCHostStorage m_storage;
};

TCHostStorageManager g_manager;

/// What the thread's last measurement took: that of the call which is recorded next.
thread_local std::uint64_t t_lastCpuNsec = 0;

void AfterForkInChild()
{
    new (&g_makingFile) std::mutex; // who had it is not here
    if (TCRecordFile* const file = g_file.load(std::memory_order_relaxed)) {
        file->AfterForkInChild();
    }
}

/// Reads the environment while the program is loaded, before it has a second thread. The file is
/// left to the first record: a daemon that steps aside for another one records nothing, and must
/// not take the place of that one's recording.
struct TSStart
{
    TSStart()
    {
        zorhost::TSRecordConfig config = zorhost::ReadRecordConfig();
        if (config.path.empty()) {
            return;
        }
        g_config = new zorhost::TSRecordConfig(std::move(config));
        pthread_atfork(nullptr, nullptr, AfterForkInChild);
        TIStorageManagerState::enabled.store(true, std::memory_order_relaxed);
    }

    /// Other threads may still record; what they were doing ends now too.
    ~TSStart()
    {
        if (TCRecordFile* const file = g_file.load(std::memory_order_acquire)) {
            file->NoteEnd();
        }
    }
};

const TSStart g_start;

} // namespace

TIStorageManager* TIStorageManager::Instance()
{
    return g_config != nullptr ? &g_manager : nullptr;
}

namespace ht {

TCCallLocation::TCCallLocation(const char* function, const char* file, int line)
    : function(function), file(file), line(line)
{}

TCCallLocation::~TCCallLocation() = default;

std::string TSDemangler::Demangle(const char* name)
{
    int status = 0;
    char* const readable = abi::__cxa_demangle(name, nullptr, nullptr, &status);
    std::string text = readable != nullptr ? readable : name;
    free(readable);
    return text;
}

unsigned int TCStorage::SaveLocation(const TCCallLocation& location)
{
    return g_file.load(std::memory_order_acquire)->AddLocation(location);
}

void TCStorage::Commit(TSCallItemHelper& record)
{
    g_file.load(std::memory_order_acquire)->AddRecord(record.m_record, record.m_size);
}

TSCallItemHelper::TSCallItemHelper(TCStorage* /*storage*/, int kind, unsigned int location)
    : m_size(sizeof(TSRecordHeader))
{
    TSRecordHeader header = {};
    header.kind = static_cast<std::uint8_t>(kind);
    header.location = location;
    header.timeNsec = zorhost::NowNsec(CLOCK_MONOTONIC);
    if (kind == AFTER_CALL) {
        const std::uint64_t cpuNsec = std::min(t_lastCpuNsec, zorhost::format::LONGEST_CPU_NSEC);
        header.cpuNsecHigh = static_cast<std::uint16_t>(cpuNsec >> 32);
        header.cpuNsecLow = static_cast<std::uint32_t>(cpuNsec);
    }
    memcpy(m_record, &header, sizeof(header));
}

void TSCallItemHelper::Append(int type, const void* head, std::size_t headSize, const void* data,
                              std::size_t size)
{
    const std::size_t room = RECORD_SIZE - m_size;
    if (size > room || sizeof(TSItemHeader) + headSize + size > room) {
        m_record[offsetof(TSRecordHeader, flags)] |= zorhost::format::RECORD_TRUNCATED;
        return;
    }
    const TSItemHeader item = {static_cast<std::uint8_t>(type), 0,
                               static_cast<std::uint16_t>(headSize + size)};
    for (const auto& [from, bytes] : {std::pair<const void*, std::size_t>(&item, sizeof(item)),
                                      {head, headSize},
                                      {data, size}}) {
        if (bytes != 0) {
            memcpy(m_record + m_size, from, bytes);
        }
        m_size += bytes;
    }
}

void TSCallItemHelper::Store(const void* pointer, std::size_t size)
{
    const std::uint64_t address = reinterpret_cast<std::uintptr_t>(pointer);
    Append(zorhost::format::ITEM_BLOCK, &address, sizeof(address), pointer, size);
}

void TSCallItemHelper::StoreFixed(bool value)
{
    Append(zorhost::format::ITEM_FIXED, nullptr, 0, &value, sizeof(value));
}

void TSCallItemHelper::StoreFixed(unsigned int value)
{
    Append(zorhost::format::ITEM_FIXED, nullptr, 0, &value, sizeof(value));
}

void TSCallItemHelper::StoreFixed(std::uint64_t value)
{
    Append(zorhost::format::ITEM_FIXED, nullptr, 0, &value, sizeof(value));
}

void TSCallItemHelper::AddNull(const void* /*pointer*/)
{
    Append(zorhost::format::ITEM_NULL, nullptr, 0, nullptr, 0);
}

void TSCPUStatisticHelper::Start()
{
    // Relaxed: see TIStorageManagerState. Nobody would read what is measured otherwise.
    if (!TIStorageManagerState::enabled.load(std::memory_order_relaxed)) {
        return;
    }
    m_startNsec = zorhost::NowNsec(CLOCK_THREAD_CPUTIME_ID);
    m_started = true;
}

void TSCPUStatisticHelper::Stop()
{
    m_statistic->cpuNsec = zorhost::NowNsec(CLOCK_THREAD_CPUTIME_ID) - m_startNsec;
    t_lastCpuNsec = m_statistic->cpuNsec;
}

void TCDirection::Reset()
{
    m_next = 0;
}

bool TCDirection::GetNext()
{
    if (m_next >= m_count) {
        return false;
    }
    return (m_inputs >> m_next++ & 1U) != 0;
}

} // namespace ht
