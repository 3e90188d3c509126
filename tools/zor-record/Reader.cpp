#include "Reader.h"

#include <sys/stat.h>
#include <xxhash.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <system_error>

#include "HtClock.h"
#include "HtRecordFormat.h"

namespace zorrecord {

namespace {

namespace format = zorhost::format;

/// Far beyond what is ever written; the sums of such sizes do not overflow.
constexpr std::uint64_t GREATEST_AREA = std::uint64_t{1} << 40;

/// Bytes of the file, or of a part of it; never read beyond its end.
class Bytes
{
 public:
    Bytes(const unsigned char* data, std::size_t size) : m_data(data), m_size(size) {}

    std::size_t Size() const { return m_size; }
    const unsigned char* Data() const { return m_data; }

    /// What there is of the @p size bytes from @p begin.
    Bytes Part(std::uint64_t begin, std::uint64_t size) const
    {
        const std::uint64_t from = std::min<std::uint64_t>(begin, m_size);
        return {m_data + from, std::min<std::uint64_t>(size, m_size - from)};
    }

    template <typename Value>
    bool Get(std::size_t at, Value* value) const
    {
        if (at > m_size || sizeof(Value) > m_size - at) {
            return false;
        }
        std::memcpy(value, m_data + at, sizeof(Value));
        return true;
    }

    /// The next place from @p at on, at a multiple of the alignment, where @p magic stands; the end
    /// if there is none.
    std::size_t Find(std::uint32_t magic, std::size_t at) const
    {
        constexpr std::size_t CHUNK = 4096; // a multiple of the alignment: nothing lies across
        std::uint32_t here = 0;
        while (Get(at, &here)) {
            if (here == magic) {
                return at;
            }
            const Bytes chunk = Part(at, CHUNK);
            const void* const found = memmem(chunk.m_data, chunk.m_size, &magic, sizeof(magic));
            at += found == nullptr
                      ? chunk.m_size
                      : format::RoundUp(static_cast<const unsigned char*>(found) - chunk.m_data,
                                        format::ALIGNMENT);
        }
        return m_size;
    }

    std::string Text(std::size_t at, std::size_t size) const
    {
        const Bytes part = Part(at, size);
        return {reinterpret_cast<const char*>(part.m_data), part.m_size};
    }

 private:
    const unsigned char* m_data;
    std::size_t m_size;
};

std::string NameFrom(const char (&name)[format::NAME_SIZE])
{
    return {name, strnlen(name, sizeof(name))};
}

/// Whether @p bytes carry the checksum that stands at @p at in them.
bool ChecksumHolds(const Bytes& bytes, std::size_t at)
{
    std::uint64_t expected = 0;
    if (!bytes.Get(at, &expected)) {
        return false;
    }
    std::vector<unsigned char> copy(bytes.Data(), bytes.Data() + bytes.Size());
    std::memset(copy.data() + at, 0, sizeof(expected));
    return XXH3_64bits(copy.data(), copy.size()) == expected;
}

/// Reads the header. Returns false if the file ends before it does.
bool ReadHeader(const Bytes& file, format::TSFileHeader* header)
{
    const std::uint64_t magic = format::FILE_MAGIC;
    const std::size_t length = std::min(file.Size(), sizeof(magic));
    if (length == 0) {
        throw FormatError("the file is empty");
    }
    if (std::memcmp(file.Data(), &magic, length) != 0) {
        throw FormatError("this is no record of calls");
    }
    if (!file.Get(0, header)) {
        return false;
    }
    if (header->version == 0) { // written with all behind it, after the mark of what the file is
        throw FormatError("no call is recorded: the process ended while it made the file");
    }
    if (header->version != format::VERSION) {
        throw FormatError("the record has version " + std::to_string(header->version) +
                          " of the format; this program reads version " +
                          std::to_string(format::VERSION));
    }
    const bool sane =
        header->checksum == XXH3_64bits(header, offsetof(format::TSFileHeader, checksum)) &&
        header->locationsBegin >= sizeof(*header) && header->locationsBegin <= GREATEST_AREA &&
        header->locationsSize <= GREATEST_AREA && header->ringBegin <= GREATEST_AREA &&
        header->ringBegin >= header->locationsBegin + header->locationsSize &&
        header->ringSize % format::ALIGNMENT == 0 && header->ringSize <= GREATEST_AREA &&
        header->ringSize >= format::LONGEST_RECORD;
    if (!sane) {
        throw FormatError("the header is damaged");
    }
    return true;
}

/// Reads the description that begins at @p at. Returns its size, 0 if there is none.
std::size_t ReadLocation(const Bytes& area, std::size_t at, Location* location)
{
    format::TSLocationHeader header;
    if (!area.Get(at, &header) || header.size < sizeof(header) ||
        header.size > format::LONGEST_LOCATION || header.size > area.Size() - at) {
        return 0;
    }
    const Bytes whole = area.Part(at, header.size);
    if (!ChecksumHolds(whole, offsetof(format::TSLocationHeader, checksum))) {
        return 0;
    }
    location->id = header.id;
    location->line = header.line;
    std::size_t next = sizeof(header);
    const auto take = [&](std::size_t size) {
        std::string text = whole.Text(next, size);
        next += size;
        return text;
    };
    location->function = take(header.functionSize);
    location->file = take(header.fileSize);
    location->resultType = take(header.resultSize);
    format::TSArgument argument;
    for (int i = 0; i < header.argumentCount && whole.Get(next, &argument); ++i) {
        next += sizeof(argument);
        location->arguments.push_back({take(argument.typeSize), argument.input != 0});
    }
    return header.size;
}

void ReadLocations(const Bytes& area, Recording* recording)
{
    const auto next = [&](std::size_t at) { return area.Find(format::LOCATION_MAGIC, at); };
    for (std::size_t at = next(0); at < area.Size();) {
        Location location;
        const std::size_t size = ReadLocation(area, at, &location);
        at = next(at + (size != 0 ? size : format::ALIGNMENT));
        if (size != 0) {
            recording->locations.emplace(location.id, std::move(location));
        }
    }
}

std::vector<Item> ReadItems(const Bytes& payload, bool* truncated)
{
    std::vector<Item> items;
    format::TSItemHeader header;
    for (std::size_t at = 0; payload.Get(at, &header);) {
        at += sizeof(header);
        Item item;
        item.bytes = payload.Text(at, header.size);
        at += header.size;
        if (header.type == format::ITEM_NULL) {
            item.kind = Item::Kind::NULL_POINTER;
        } else if (header.type == format::ITEM_BLOCK && header.size >= sizeof(item.address)) {
            item.kind = Item::Kind::BLOCK;
            std::memcpy(&item.address, item.bytes.data(),
                        std::min(item.bytes.size(), sizeof(item.address)));
            item.bytes.erase(0, sizeof(item.address));
        } else if (header.type != format::ITEM_FIXED) {
            *truncated = true;
            break;
        }
        items.push_back(std::move(item));
    }
    return items;
}

/// The ring, of which the end may be missing.
class Ring
{
 public:
    Ring(const Bytes& bytes, std::uint64_t size) : m_bytes(bytes), m_size(size) {}

    /// All records that are whole, by offset.
    std::vector<Record> Records() const
    {
        std::vector<Record> records;
        const auto next = [&](std::size_t at) { return m_bytes.Find(format::RECORD_MAGIC, at); };
        for (std::size_t at = next(0); at < m_bytes.Size();) {
            Record record;
            const std::uint64_t size = ReadRecord(at, &record);
            at = next(at + (size != 0 ? size : format::ALIGNMENT));
            if (size != 0) {
                records.push_back(std::move(record));
            }
        }
        const auto byOffset = [](const Record& left, const Record& right) {
            return left.offset < right.offset;
        };
        std::sort(records.begin(), records.end(), byOffset);
        return records;
    }

 private:
    /// Reads the record at @p at. Returns its size, 0 if there is none.
    std::uint64_t ReadRecord(std::uint64_t at, Record* record) const
    {
        format::TSRecordHeader header;
        unsigned char bytes[format::LONGEST_RECORD];
        if (!CopyOut(at, sizeof(header), bytes)) {
            return 0;
        }
        std::memcpy(&header, bytes, sizeof(header));
        if (header.size < sizeof(header) || header.size > sizeof(bytes) ||
            header.size % format::ALIGNMENT != 0 || header.offset % m_size != at ||
            header.offset > ~std::uint64_t{0} - header.size ||
            header.payload > header.size - sizeof(header) || !CopyOut(at, header.size, bytes) ||
            !ChecksumHolds({bytes, header.size}, offsetof(format::TSRecordHeader, checksum))) {
            return 0;
        }
        Fill(header, {bytes + sizeof(header), header.payload}, record);
        return header.size;
    }

    /// Copies bytes that may run over the ring's end. Returns false if some are missing.
    bool CopyOut(std::uint64_t at, std::size_t size, unsigned char* to) const
    {
        const std::size_t first = std::min<std::uint64_t>(size, m_size - at);
        const Bytes front = m_bytes.Part(at, first);
        const Bytes rest = m_bytes.Part(0, size - first);
        if (front.Size() + rest.Size() != size) {
            return false;
        }
        std::memcpy(to, front.Data(), front.Size());
        std::memcpy(to + first, rest.Data(), rest.Size());
        return true;
    }

    static void Fill(const format::TSRecordHeader& header, const Bytes& payload, Record* record)
    {
        record->offset = header.offset;
        record->size = header.size;
        record->timeNsec = header.timeNsec;
        record->kind = header.kind;
        record->truncated = (header.flags & format::RECORD_TRUNCATED) != 0;
        record->cpuNsec = std::uint64_t{header.cpuNsecHigh} << 32 | header.cpuNsecLow;
        record->location = header.location;
        record->session = header.session;
        record->thread = header.thread;
        record->threadHandle = header.threadHandle;
        record->threadName = NameFrom(header.threadName);
        record->items = ReadItems(payload, &record->truncated);
    }

    Bytes m_bytes;
    std::uint64_t m_size;
};

/// Drops what a whole turn of the ring should have overwritten: a writer that died left it there.
void DropOverwritten(Recording* recording, std::uint64_t end)
{
    if (end <= recording->ringSize) {
        return;
    }
    recording->overwrittenBytes = end - recording->ringSize;
    std::vector<Record>& records = recording->records;
    const auto kept = std::find_if(records.begin(), records.end(), [&](const Record& record) {
        return record.offset >= recording->overwrittenBytes;
    });
    records.erase(records.begin(), kept);
}

void CountGap(Recording* recording, std::uint64_t from, std::uint64_t to)
{
    if (from < to) {
        ++recording->gaps;
        recording->gapBytes += to - from;
    }
}

/// @param reserved  how far the ring was used, by the header
void CountGaps(Recording* recording, std::uint64_t end, std::uint64_t reserved)
{
    std::uint64_t expected = recording->overwrittenBytes;
    for (const Record& record : recording->records) {
        // The oldest record is overwritten from its beginning: there is always a rest of it.
        const bool isRest = expected != 0 && expected == recording->overwrittenBytes &&
                            record.offset - expected < format::LONGEST_RECORD;
        if (!isRest) {
            CountGap(recording, expected, record.offset);
        }
        expected = record.offset + record.size;
    }
    // Further than one turn ahead of the last record, the number in the header is damaged.
    if (reserved > end && reserved - end <= recording->ringSize) {
        CountGap(recording, end, reserved);
    }
}

void ReadRing(const Bytes& file, const format::TSFileHeader& header, Recording* recording)
{
    const Ring ring(file.Part(header.ringBegin, header.ringSize), header.ringSize);
    recording->records = ring.Records();
    const std::vector<Record>& records = recording->records;
    const std::uint64_t end = records.empty() ? 0 : records.back().offset + records.back().size;
    DropOverwritten(recording, end);
    if (!recording->cut) {
        CountGaps(recording, end, header.ringUsed);
    }
}

/// Whether the process has the file open, as one that records into it has for the sake of its lock.
bool HasOpen(std::uint32_t process, const std::string& path)
{
    struct stat wanted = {};
    if (stat(path.c_str(), &wanted) != 0) {
        return false;
    }
    std::error_code error; // of a process that is gone, or of another user
    const std::string folder = "/proc/" + std::to_string(process) + "/fd";
    for (std::filesystem::directory_iterator at(folder, error), end; !error && at != end;
         at.increment(error)) {
        struct stat open = {};
        if (stat(at->path().c_str(), &open) == 0 && open.st_dev == wanted.st_dev &&
            open.st_ino == wanted.st_ino) {
            return true;
        }
    }
    return false;
}

} // namespace

std::uint64_t Item::Number() const
{
    std::uint64_t number = 0;
    if (bytes.size() <= sizeof(number)) {
        std::memcpy(&number, bytes.data(), bytes.size());
    }
    return number;
}

const Location* Recording::LocationOf(const Record& record) const
{
    const auto found = locations.find(record.location);
    return found != locations.end() ? &found->second : nullptr;
}

Recording Read(const unsigned char* data, std::size_t size)
{
    const Bytes file(data, size);
    Recording recording;
    recording.fileSize = size;
    format::TSFileHeader header;
    if (!ReadHeader(file, &header)) {
        recording.cut = true;
        return recording;
    }
    recording.version = header.version;
    recording.session = header.session;
    recording.process = NameFrom(header.process);
    recording.startMonotonicNsec = header.startMonotonicNsec;
    recording.startRealtimeNsec = header.startRealtimeNsec;
    recording.ringSize = header.ringSize;
    if (header.endMonotonicNsec >= header.startMonotonicNsec) {
        recording.endNsec = header.endMonotonicNsec;
    }
    recording.wholeSize = header.ringBegin + header.ringSize;
    recording.cut = size < recording.wholeSize;
    ReadLocations(file.Part(header.locationsBegin, header.locationsSize), &recording);
    ReadRing(file, header, &recording);
    return recording;
}

Recording ReadFile(const std::string& path)
{
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "rb"),
                                                               &std::fclose);
    if (file == nullptr) {
        throw std::system_error(errno, std::generic_category());
    }
    constexpr std::size_t CHUNK = std::size_t{1} << 20;
    std::vector<unsigned char> bytes;
    for (std::size_t length = CHUNK; length == CHUNK;) {
        const std::size_t before = bytes.size();
        bytes.resize(before + CHUNK);
        length = std::fread(bytes.data() + before, 1, CHUNK, file.get());
        bytes.resize(before + length);
    }
    if (std::ferror(file.get()) != 0) {
        throw std::system_error(errno, std::generic_category());
    }
    Recording recording = Read(bytes.data(), bytes.size());
    if (recording.endNsec == 0 && HasOpen(recording.session, path)) {
        recording.goesOn = true;
        recording.endNsec = zorhost::NowNsec(CLOCK_MONOTONIC);
    }
    return recording;
}

} // namespace zorrecord
