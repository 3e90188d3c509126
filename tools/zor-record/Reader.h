#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

/// @file
/// Reads record files. Bytes from anywhere are safe to read: what makes no sense is left out.

namespace zorrecord {

/// The bytes are no record of calls, or one that this reader does not know.
class FormatError : public std::runtime_error
{
 public:
    using std::runtime_error::runtime_error;
};

/// One argument of a call site.
struct Argument
{
    std::string type;
    bool input = false; ///< whether records have it
};

/// A call site.
struct Location
{
    std::uint32_t id = 0;
    int line = 0;
    std::string function;
    std::string file;
    std::string resultType;
    std::vector<Argument> arguments;
};

/// One recorded value.
struct Item
{
    enum class Kind
    {
        NULL_POINTER,
        BLOCK, ///< what a pointer pointed to
        FIXED, ///< a number
    };

    /// The number of a FIXED item, 0 if it has more than 8 bytes.
    std::uint64_t Number() const;

    Kind kind = Kind::FIXED;
    std::uint64_t address = 0; ///< of a BLOCK
    std::string bytes;
};

/// One record.
struct Record
{
    static constexpr int BEFORE_CALL = 2;
    static constexpr int AFTER_CALL = 3;

    std::uint64_t offset = 0;   ///< grows in the order in which records were made
    std::uint64_t size = 0;     ///< the next record's offset is this much greater
    std::uint64_t timeNsec = 0; ///< on the machine's monotonic clock
    int kind = 0;
    bool truncated = false;    ///< items found no room
    std::uint64_t cpuNsec = 0; ///< that the call took, in a record after it
    std::uint32_t location = 0;
    std::uint32_t session = 0; ///< id of the process
    std::uint32_t thread = 0;
    std::uint32_t threadHandle = 0; ///< what events name as their sender
    std::string threadName;
    std::vector<Item> items;
};

/// All that a file has.
struct Recording
{
    /// The call site of @p record; null if the file does not describe it.
    const Location* LocationOf(const Record& record) const;

    std::uint32_t version = 0;
    std::uint32_t session = 0; ///< id of the process that made the file
    std::string process;
    std::uint64_t startMonotonicNsec = 0;
    std::uint64_t startRealtimeNsec = 0; ///< the same moment since 1970
    std::uint64_t ringSize = 0;

    /// When what has not finished was still under way, on the records' clock: when the process that
    /// made the file ended, or when the file was read if it records still. 0 if neither is known,
    /// because the process was killed.
    std::uint64_t endNsec = 0;
    bool goesOn = false; ///< the process that made the file recorded into it when it was read

    std::map<std::uint32_t, Location> locations; ///< by id
    std::vector<Record> records;                 ///< by offset

    std::uint64_t overwrittenBytes = 0; ///< of older records, which the ring did not keep

    /// Places where records are missing between others or at the end: they were being written when
    /// the process ended or the file was read, or are damaged. Not counted in a cut file.
    std::uint64_t gaps = 0;
    std::uint64_t gapBytes = 0;

    bool cut = false; ///< the file is shorter than it was made
    std::uint64_t fileSize = 0;
    std::uint64_t wholeSize = 0; ///< what it should be; 0 if the cut is in the header
};

/// Reads a recording from memory, up to the cut if it is one.
///
/// @throws FormatError
Recording Read(const unsigned char* data, std::size_t size);

/// Reads a recording from a file; one that is still being written is read as it is. Whether it is
/// can be seen by who may look into the process that writes it.
///
/// @throws FormatError, and std::system_error if the file cannot be read
Recording ReadFile(const std::string& path);

} // namespace zorrecord
