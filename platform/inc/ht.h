#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "PlatformExport.h"
#include "ht_trap.h"

/// @file
/// The trap-point and call-recording library.
///
/// An instrumented call asks two things: whether recording is on, and after the call whether trap
/// patterns are set. Both answers are one relaxed load. Only if one is yes is more of this used.
/// No operation throws, except for want of memory where a standard container is involved, and none
/// calls back into its user. Unless said otherwise any thread may call any operation.

namespace ht {

/// One description of a call site. A plain value: fill it, store it with TCStorage::SaveLocation().
/// The three lists have an entry for each argument, in the order of the arguments.
struct ZOR_PLATFORM_API TCCallLocation
{
    /// Size of an argument of which every record tells the size by itself.
    static constexpr std::uint16_t SIZE_IN_RECORD = 0x3FFF;

    /// @param function  the calling function's signature
    /// @param file      source file
    /// @param line      line in it
    TCCallLocation(const char* function, const char* file, int line);
    ~TCCallLocation();

    std::string function;                   ///< the calling function's signature
    std::string file;                       ///< source file
    int line;                               ///< line in it
    std::vector<std::string> argumentTypes; ///< readable names of the types
    std::vector<bool> inputs;               ///< whether a record before the call has the argument
    std::vector<std::uint16_t> sizes;       ///< in bytes, or SIZE_IN_RECORD
    std::string resultType;                 ///< readable name
};

/// Makes names of types readable.
struct ZOR_PLATFORM_API TSDemangler
{
    /// @param name  as `typeid(...).name()` gives it
    /// @return the name as it is written in a source; @p name itself if it is no mangled one
    static std::string Demangle(const char* name);
};

class TCStorage;

/// One record of one call while it is being made. It lives on the stack of the call that it is
/// about, belongs to one thread and uses no heap. It is stamped with the time of its construction;
/// one of kind AFTER_CALL also with the CPU time that the thread's last TSCPUStatisticHelper took.
class ZOR_PLATFORM_API TSCallItemHelper
{
 public:
    static constexpr int BEFORE_CALL = 2; ///< kind of a record that has the arguments
    static constexpr int AFTER_CALL = 3;  ///< kind of a record that has the result

    /// Bytes of a whole record; arguments that find no room are left out, and the record says so.
    static constexpr std::size_t RECORD_SIZE = 384;

    /// @param storage   where the record is to go; not owned
    /// @param kind      BEFORE_CALL or AFTER_CALL
    /// @param location  the call site's id
    TSCallItemHelper(TCStorage* storage, int kind, unsigned int location);

    /// Appends @p size bytes at @p pointer, and the pointer itself.
    void Store(const void* pointer, std::size_t size);

    void StoreFixed(bool value);          ///< Appends a value.
    void StoreFixed(unsigned int value);  ///< Appends a value.
    void StoreFixed(std::uint64_t value); ///< Appends a value.

    /// Appends a null pointer.
    void AddNull(const void* pointer);

 private:
    friend class TCStorage;

    void Append(int type, const void* head, std::size_t headSize, const void* data,
                std::size_t size);

    alignas(8) unsigned char m_record[RECORD_SIZE];
    std::size_t m_size; ///< bytes used so far
};

/// Where records go.
class ZOR_PLATFORM_API TCStorage
{
 public:
    /// Stores the description of a call site; do so once for each.
    ///
    /// @return the site's id, not 0. If there is no room for the description, records with this id
    ///         are good but their site stays unknown.
    unsigned int SaveLocation(const TCCallLocation& location);

    /// Stores a finished record, stamped with session and calling thread. Takes no lock.
    void Commit(TSCallItemHelper& record);

 protected:
    TCStorage() = default;
    ~TCStorage() = default;
};

/// The CPU time that a call took on its own thread.
struct TSCPUStatistic
{
    std::uint64_t cpuNsec = 0; ///< nanoseconds
};

/// Measures CPU time from Start() to its own end.
class ZOR_PLATFORM_API TSCPUStatisticHelper
{
 public:
    /// @param statistic  gets the time; must outlive this
    explicit TSCPUStatisticHelper(TSCPUStatistic* statistic) : m_statistic(statistic) {}

    ~TSCPUStatisticHelper()
    {
        if (m_started) {
            Stop();
        }
    }

    TSCPUStatisticHelper(const TSCPUStatisticHelper&) = delete;
    TSCPUStatisticHelper& operator=(const TSCPUStatisticHelper&) = delete;

    /// Begins to measure, if calls are recorded; without it nothing is stored.
    void Start();

 private:
    void Stop();

    TSCPUStatistic* m_statistic;
    std::uint64_t m_startNsec = 0;
    bool m_started = false;
};

/// A cursor over the arguments of a call that tells which of them are inputs to record.
class ZOR_PLATFORM_API TCDirection
{
 public:
    static constexpr unsigned int ALL = ~0U; ///< every argument is an input

    /// @param count   number of arguments, at most 32
    /// @param inputs  bit n is set if argument n (from 0) is an input
    explicit constexpr TCDirection(unsigned int count, unsigned int inputs = ALL)
        : m_count(count), m_inputs(inputs)
    {}

    /// Back to the first argument.
    void Reset();

    /// Whether the argument at the cursor is an input; moves on to the next. False behind the last.
    bool GetNext();

 private:
    unsigned int m_count;
    unsigned int m_inputs;
    unsigned int m_next = 0;
};

} // namespace ht

/// Whether calls are recorded. Read it relaxed: it is set before the process has a second thread,
/// and what a record goes to is asked for with each.
struct ZOR_PLATFORM_API TIStorageManagerState
{
    static std::atomic<bool>
        enabled; ///< set while the process is loaded, cleared if no record can be had
};

/// The recording storage manager. To be used where TIStorageManagerState::enabled was seen set.
class ZOR_PLATFORM_API TIStorageManager
{
 public:
    /// The one instance; it lives as long as the process. Null if recording was never enabled.
    static TIStorageManager* Instance();

    /// Where records go at present; null if nowhere. The first call may make it, and then blocks.
    virtual ht::TCStorage* CurrentStorage() = 0;

    /// Names the recording process: the child of a fork has another one. Ids of call sites are good
    /// within one session. Not 0 where there is a storage.
    virtual unsigned int SessionId() = 0;

 protected:
    TIStorageManager() = default;
    ~TIStorageManager() = default;
};
