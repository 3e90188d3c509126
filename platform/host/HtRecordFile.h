#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

#include "HtRecordConfig.h"
#include "HtRecordFormat.h"
#include "ht.h"

namespace zorhost {

/// A record file while it is written: mapped into memory, so that what was written is in the file
/// whatever becomes of the process. (What becomes of it when the machine goes down is the kernel's
/// affair.)
///
/// Writers take no lock. Each reserves its bytes by advancing a number in the file's header and
/// fills them in. A writer that is overtaken by a whole turn of the ring while it writes spoils
/// records that are newer than its own; their checksums tell. For the sake of such meetings all of
/// the ring is written in relaxed atomic words.
///
/// The numbers are in the file, so the child of a fork goes on in the same ring without disturbing
/// its parent. An exclusive lock on the file keeps other programs from recording into it; it goes
/// with the last of those processes.
class TCRecordFile
{
 public:
    /// Makes the file and maps it; a recording that lies there is moved away first (see
    /// OpenRecordPlace()). All blocks are allocated: a full disk shows here and not as a signal at
    /// some write.
    ///
    /// @param config  with a path
    /// @return the file, which is never destroyed; null, having said why in the platform log and on
    ///         standard error
    /// @throws std::bad_alloc, having made nothing or an empty file
    static TCRecordFile* Create(const TSRecordConfig& config);

    /// Appends the description of a call site and returns its id. Said in the platform log if there
    /// is no room for it.
    unsigned int AddLocation(const ht::TCCallLocation& location);

    /// Appends a record.
    ///
    /// @param record  header and items; completed here with all that the header has to say beyond
    ///                time, kind, flags and call site
    /// @param size    used bytes of it; up to the next multiple of 8 the buffer must be writable
    void AddRecord(unsigned char* record, std::size_t size);

    /// Notes that the process ends now. Does nothing in the child of a fork: the file is its
    /// parent's. Async-signal-safe.
    void NoteEnd();

    /// The id of this process.
    unsigned int Session() const;

    /// Called in the child of a fork, by its only thread.
    void AfterForkInChild();

    TCRecordFile(const TCRecordFile&) = delete;
    TCRecordFile& operator=(const TCRecordFile&) = delete;

 private:
    TCRecordFile(void* mapping, std::uint64_t ringSize);
    ~TCRecordFile() = delete;

    void WriteHeader(const std::string& process);

    // Fixed after creation.
    format::TSFileHeader* m_header;
    std::uint64_t* m_locations;
    std::uint64_t* m_ring;
    std::uint64_t m_ringWords;

    /// Relaxed: changes only while the process has a single thread.
    std::atomic<unsigned int> m_session;
};

} // namespace zorhost
