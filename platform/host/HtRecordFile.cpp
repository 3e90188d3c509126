#include "HtRecordFile.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <unistd.h>
#include <xxhash.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <string_view>

#include "DlogConfig.h"
#include "HtClock.h"
#include "HtRecordPlace.h"
#include "Notice.h"
#include "dlog.h"

namespace zorhost {
namespace {

using format::TSRecordHeader;

constexpr char TAG[] = "ZOR_RECORD";
constexpr std::size_t LONGEST_TEXT = 1024;
constexpr std::size_t LONGEST_TYPE = 255;
constexpr std::size_t MOST_ARGUMENTS = 32;
constexpr std::uint64_t WORD = sizeof(std::uint64_t);

static_assert(format::ALIGNMENT == WORD);
static_assert(ht::TSCallItemHelper::RECORD_SIZE % WORD == 0);
static_assert(ht::TSCallItemHelper::RECORD_SIZE <= format::LONGEST_RECORD);
static_assert(sizeof(format::TSLocationHeader) + 3 * LONGEST_TEXT +
                  MOST_ARGUMENTS * (sizeof(format::TSArgument) + LONGEST_TYPE) <
              format::LONGEST_LOCATION);

/// The kernel's id of the calling thread; 0 until it was asked for.
thread_local pid_t t_thread = 0;

void ThreadName(char* name)
{
    memset(name, 0, format::NAME_SIZE);
    prctl(PR_GET_NAME, name, 0, 0, 0);
}

/// Reserves bytes of an area. Relaxed: the number is the whole message.
std::uint64_t Reserve(std::uint64_t* used, std::uint64_t size)
{
    return __atomic_fetch_add(used, size, __ATOMIC_RELAXED);
}

void StoreWord(std::uint64_t* to, const unsigned char* from)
{
    std::uint64_t word;
    memcpy(&word, from, sizeof(word));
    __atomic_store_n(to, word, __ATOMIC_RELAXED);
}

/// Says why nothing is recorded: in the platform log, and where that does not go there, on standard
/// error.
void Refuse(const std::string& path, const char* why)
{
    constexpr char TEXT[] = "ZOR_RECORD: %s: '%s' cannot be recorded into; no calls are recorded";
    __dlog_print(LOG_ID_MAIN, DLOG_ERROR, TAG, TEXT, why, path.c_str());
    if (!LogShowsOnStandardError(DLOG_ERROR)) {
        Notice(TEXT, why, path.c_str());
    }
}

/// Gives the empty file its size and maps it. Returns null, with errno set, if that is impossible.
void* MapFile(int fd, std::uint64_t size)
{
    // First of all: a process that is killed from here on leaves a recording, if an empty one, and
    // not a file that nobody dares to replace.
    if (pwrite(fd, &format::FILE_MAGIC, sizeof(format::FILE_MAGIC), 0) < 0) {
        return nullptr;
    }
    do {
        errno = posix_fallocate(fd, 0, static_cast<off_t>(size));
    } while (errno == EINTR);
    if (errno != 0) {
        return nullptr;
    }
    void* const mapping = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    return mapping == MAP_FAILED ? nullptr : mapping;
}

std::string_view Cut(const std::string& text, std::size_t longest)
{
    return std::string_view(text).substr(0, longest);
}

void AppendBytes(std::string* to, const void* bytes, std::size_t size)
{
    to->append(static_cast<const char*>(bytes), size);
}

/// The description as it stands in the file.
std::string Describe(const ht::TCCallLocation& location, unsigned int id)
{
    const std::string_view function = Cut(location.function, LONGEST_TEXT);
    const std::string_view file = Cut(location.file, LONGEST_TEXT);
    const std::string_view result = Cut(location.resultType, LONGEST_TEXT);
    format::TSLocationHeader header = {};
    header.magic = format::LOCATION_MAGIC;
    header.id = id;
    header.line = location.line;
    header.functionSize = static_cast<std::uint16_t>(function.size());
    header.fileSize = static_cast<std::uint16_t>(file.size());
    header.resultSize = static_cast<std::uint16_t>(result.size());
    const std::size_t lists = std::min(location.inputs.size(), location.sizes.size());
    const std::size_t arguments = std::min({location.argumentTypes.size(), lists, MOST_ARGUMENTS});
    header.argumentCount = static_cast<std::uint16_t>(arguments);

    std::string text(sizeof(header), '\0');
    text.append(function).append(file).append(result);
    for (std::size_t i = 0; i < arguments; ++i) {
        const std::string_view type = Cut(location.argumentTypes[i], LONGEST_TYPE);
        const format::TSArgument argument = {location.sizes[i],
                                             static_cast<std::uint8_t>(location.inputs[i]),
                                             static_cast<std::uint8_t>(type.size())};
        AppendBytes(&text, &argument, sizeof(argument));
        text.append(type);
    }
    text.resize(format::RoundUp(text.size(), WORD));
    header.size = static_cast<std::uint32_t>(text.size());
    memcpy(text.data(), &header, sizeof(header));
    header.checksum = XXH3_64bits(text.data(), text.size());
    memcpy(text.data(), &header, sizeof(header));
    return text;
}

} // namespace

TCRecordFile* TCRecordFile::Create(const TSRecordConfig& config)
{
    const std::string& path = config.path;
    std::string why;
    const int fd = OpenRecordPlace(path, &why);
    if (fd < 0) {
        Refuse(path, why.c_str());
        return nullptr;
    }
    const std::uint64_t size = format::HEADER_SIZE + format::LOCATIONS_SIZE + config.ringSize;
    void* const mapping = MapFile(fd, size);
    if (mapping == nullptr) {
        Refuse(path, strerror(errno));
        if (ftruncate(fd, 0) != 0) {
            __dlog_print(LOG_ID_MAIN, DLOG_WARN, TAG, "'%s' keeps blocks that it does not use: %s",
                         path.c_str(), strerror(errno));
        }
        close(fd);
        return nullptr;
    }
    // The descriptor stays open for the sake of the lock. There is one file in a process.
    alignas(TCRecordFile) static unsigned char storage[sizeof(TCRecordFile)];
    auto* const file = new (storage) TCRecordFile(mapping, config.ringSize);
    file->WriteHeader(config.process);
    return file;
}

TCRecordFile::TCRecordFile(void* mapping, std::uint64_t ringSize)
    : m_header(static_cast<format::TSFileHeader*>(mapping)),
      m_locations(static_cast<std::uint64_t*>(mapping) + format::HEADER_SIZE / WORD),
      m_ring(m_locations + format::LOCATIONS_SIZE / WORD),
      m_ringWords(ringSize / WORD),
      m_session(static_cast<unsigned int>(getpid()))
{}

void TCRecordFile::WriteHeader(const std::string& process)
{
    format::TSFileHeader header = {};
    header.magic = format::FILE_MAGIC;
    header.version = format::VERSION;
    header.session = Session();
    header.locationsBegin = format::HEADER_SIZE;
    header.locationsSize = format::LOCATIONS_SIZE;
    header.ringBegin = format::HEADER_SIZE + format::LOCATIONS_SIZE;
    header.ringSize = m_ringWords * WORD;
    header.startMonotonicNsec = NowNsec(CLOCK_MONOTONIC);
    header.startRealtimeNsec = NowNsec(CLOCK_REALTIME);
    memcpy(header.process, process.data(), std::min(process.size(), sizeof(header.process)));
    header.checksum = XXH3_64bits(&header, offsetof(format::TSFileHeader, checksum));
    *m_header = header;
}

void TCRecordFile::NoteEnd()
{
    if (Session() == m_header->session) {
        __atomic_store_n(&m_header->endMonotonicNsec, NowNsec(CLOCK_MONOTONIC), __ATOMIC_RELAXED);
    }
}

unsigned int TCRecordFile::Session() const
{
    return m_session.load(std::memory_order_relaxed);
}

void TCRecordFile::AfterForkInChild()
{
    m_session.store(static_cast<unsigned int>(getpid()), std::memory_order_relaxed);
    t_thread = 0;
}

unsigned int TCRecordFile::AddLocation(const ht::TCCallLocation& location)
{
    const auto id = static_cast<unsigned int>(Reserve(&m_header->locationCount, 1) + 1);
    const std::string text = Describe(location, id);
    const std::uint64_t begin = Reserve(&m_header->locationsUsed, text.size());
    if (begin + text.size() > format::LOCATIONS_SIZE) {
        __dlog_print(LOG_ID_MAIN, DLOG_WARN, TAG,
                     "no room to describe %s:%d; its calls are recorded as location %u",
                     location.file.c_str(), location.line, id);
        return id;
    }
    const auto* const bytes = reinterpret_cast<const unsigned char*>(text.data());
    for (std::size_t at = 0; at < text.size(); at += WORD) {
        StoreWord(m_locations + (begin + at) / WORD, bytes + at);
    }
    return id;
}

void TCRecordFile::AddRecord(unsigned char* record, std::size_t size)
{
    if (t_thread == 0) {
        t_thread = gettid();
    }
    const std::size_t whole = format::RoundUp(size, WORD);
    memset(record + size, 0, whole - size);

    TSRecordHeader header;
    memcpy(&header, record, sizeof(header));
    header.magic = format::RECORD_MAGIC;
    header.size = static_cast<std::uint16_t>(whole);
    header.payload = static_cast<std::uint16_t>(size - sizeof(header));
    header.checksum = 0;
    header.session = Session();
    header.thread = static_cast<std::uint32_t>(t_thread);
    header.threadHandle = static_cast<std::uint32_t>(pthread_self());
    ThreadName(header.threadName);
    header.offset = Reserve(&m_header->ringUsed, whole);
    memcpy(record, &header, sizeof(header));
    header.checksum = XXH3_64bits(record, whole);
    memcpy(record, &header, sizeof(header));

    const std::uint64_t first = header.offset / WORD % m_ringWords;
    for (std::size_t at = 0; at < whole / WORD; ++at) {
        StoreWord(m_ring + (first + at) % m_ringWords, record + at * WORD);
    }
}

} // namespace zorhost
