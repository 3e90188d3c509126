#pragma once

#include <cstddef>
#include <cstdint>

/// @file
/// The layout of a record file, shared by who writes it and who reads it.
///
/// Three areas follow each other: the header, the descriptions of call sites, and the ring of
/// records. Numbers are in the byte order of the recording machine. Descriptions and records begin
/// at multiples of 8 and carry their own size and checksum, so that a reader finds its way again
/// behind one that is damaged. Descriptions are only ever appended. A record's offset counts all
/// bytes that were ever reserved in the ring; its place is the offset modulo the ring's size, and a
/// record may run over the ring's end to its beginning.
///
/// Checksums are XXH3 (64 bits), taken with the checksum field as 0.

namespace zorhost::format {

constexpr std::uint64_t FILE_MAGIC = 0x3144524352525A89; ///< "\x89ZRRCRD1"
constexpr std::uint32_t LOCATION_MAGIC = 0x434F4C5A;     ///< "ZLOC"
constexpr std::uint32_t RECORD_MAGIC = 0x4345525A;       ///< "ZREC"
constexpr std::uint32_t VERSION = 1;

constexpr std::uint64_t HEADER_SIZE = 4096;
constexpr std::uint64_t LOCATIONS_SIZE = UINT64_C(28) * 1024;
constexpr std::uint64_t ALIGNMENT = 8;
constexpr std::size_t NAME_SIZE = 16; ///< of threads and processes, with the NUL

/// No description and no record is longer: a reader need not believe a greater size.
constexpr std::uint64_t LONGEST_LOCATION = UINT64_C(16) * 1024;
constexpr std::uint64_t LONGEST_RECORD = 1024;

struct TSFileHeader
{
    // Fixed, and covered by the checksum.
    std::uint64_t magic;
    std::uint32_t version;
    std::uint32_t session; ///< id of the process that made the file
    std::uint64_t locationsBegin;
    std::uint64_t locationsSize;
    std::uint64_t ringBegin;
    std::uint64_t ringSize;
    std::uint64_t startMonotonicNsec; ///< on the clock that stamps the records
    std::uint64_t startRealtimeNsec;  ///< the same moment since 1970
    char process[NAME_SIZE];
    std::uint64_t checksum; ///< of all before

    // Change while recording goes on. A reader does well without them.
    std::uint64_t locationCount; ///< ids given out
    std::uint64_t locationsUsed; ///< bytes reserved
    std::uint64_t ringUsed;      ///< bytes ever reserved: the offset of the next record

    /// When the process that made the file ended, on the clock that stamps the records; 0 until
    /// then, and for ever if it was killed. What was under way lasted until then.
    std::uint64_t endMonotonicNsec;
};
static_assert(sizeof(TSFileHeader) == 120);

/// Begins a description; the texts of function, file and result type follow without terminators,
/// then for each argument a TSArgument and the text of its type.
struct TSLocationHeader
{
    std::uint32_t magic;
    std::uint32_t size; ///< of the whole description, a multiple of 8
    std::uint64_t checksum;
    std::uint32_t id;
    std::int32_t line;
    std::uint16_t functionSize;
    std::uint16_t fileSize;
    std::uint16_t resultSize;
    std::uint16_t argumentCount;
};
static_assert(sizeof(TSLocationHeader) == 32);

struct TSArgument
{
    std::uint16_t size; ///< marker, as the call site gave it
    std::uint8_t input;
    std::uint8_t typeSize;
};
static_assert(sizeof(TSArgument) == 4);

/// The greatest CPU time that a record can tell; about three days.
constexpr std::uint64_t LONGEST_CPU_NSEC = (UINT64_C(1) << 48) - 1;

/// Set if items found no room in the record.
constexpr std::uint8_t RECORD_TRUNCATED = 1;

/// Begins a record; `payload` bytes of items follow.
struct TSRecordHeader
{
    std::uint32_t magic;
    std::uint16_t size; ///< of the whole record, a multiple of 8
    std::uint16_t payload;
    std::uint64_t offset;
    std::uint64_t checksum;
    std::uint64_t timeNsec; ///< monotonic
    std::uint8_t kind;
    std::uint8_t flags;
    std::uint16_t cpuNsecHigh; ///< CPU time of the call, bits 32 to 47, in a record after it
    std::uint32_t location;
    std::uint32_t session;
    std::uint32_t thread;       ///< the kernel's id
    std::uint32_t threadHandle; ///< low 32 bits of the pthread_t: what events name as their sender
    std::uint32_t cpuNsecLow;   ///< the lower 32 bits
    char threadName[NAME_SIZE];
};
static_assert(sizeof(TSRecordHeader) == 72);

enum EItem : std::uint8_t
{
    ITEM_NULL = 1,  ///< a null pointer; no bytes
    ITEM_BLOCK = 2, ///< 8 bytes of address, then what was there
    ITEM_FIXED = 3, ///< a value
};

/// Begins an item; `size` bytes follow, and the next item right behind them.
struct TSItemHeader
{
    std::uint8_t type;
    std::uint8_t reserved;
    std::uint16_t size;
};
static_assert(sizeof(TSItemHeader) == 4);

constexpr std::uint64_t RoundUp(std::uint64_t size, std::uint64_t unit)
{
    return (size + unit - 1) / unit * unit;
}

} // namespace zorhost::format
