#include "dlog.h"

#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>

#include "DlogConfig.h"
#include "LogFile.h"

// Everything here is plain data without destructors, so that an entry may be written while the
// process ends; no lock is held while writing, so that the child of a fork may write too. (The lock
// of the configuration is plain data as well, and only the first entries take it.)

namespace zorhost {
namespace {

/// Most entries fit the first; threads with small stacks pay for the second only when they must.
constexpr size_t SHORT_LINE_SIZE = 2 * 1024;
constexpr size_t LONG_LINE_SIZE = 16 * 1024;

constexpr char CUT_MARK[] = " ...[cut]";
constexpr char COLOUR_END[] = "\033[0m";
constexpr size_t TAIL_SIZE = sizeof(CUT_MARK) + sizeof(COLOUR_END) + sizeof('\n');

constexpr int TAG_MAX = 64;
constexpr int FULL_PIPE_WAIT_MSEC = 1000;
constexpr long SEC_PER_DAY = 24 * 60 * 60;

struct TSPriorityLook
{
    char letter;
    int syslog;
    const char* colour;
};

/// From DLOG_VERBOSE to DLOG_FATAL.
constexpr TSPriorityLook LOOKS[] = {
    {'V', 7, "\033[2m"},  {'D', 7, "\033[36m"}, {'I', 6, "\033[32m"},
    {'W', 4, "\033[33m"}, {'E', 3, "\033[31m"}, {'F', 2, "\033[1;31m"},
};

constexpr int NOT_READ = INT_MIN;

/// Taken by the first entries and around a fork: no child starts with a half-read configuration.
std::mutex g_configLock;

TSDlogConfig g_config;

/// Published (release) after g_config was written: who reads (acquire) a priority here may read
/// g_config without the lock.
std::atomic<int> g_leastPriority{NOT_READ};

void LockConfig()
{
    g_configLock.lock();
}

void UnlockConfig()
{
    g_configLock.unlock();
}

[[maybe_unused]] const int g_forkHandlers = pthread_atfork(LockConfig, UnlockConfig, UnlockConfig);

__attribute__((noinline)) int ReadLeastPriority()
{
    const int error = errno;
    const std::lock_guard<std::mutex> lock(g_configLock);
    if (g_leastPriority.load(std::memory_order_relaxed) == NOT_READ) {
        g_config = ReadDlogConfig();
        g_leastPriority.store(g_config.leastPriority, std::memory_order_release);
    }
    errno = error;
    return g_config.leastPriority;
}

int LeastPriority()
{
    const int least = g_leastPriority.load(std::memory_order_acquire);
    return least != NOT_READ ? least : ReadLeastPriority();
}

/// One entry on its way into a line: what the caller passed.
struct TSEntry
{
    const TSPriorityLook& look;
    const char* tag;
    const char* fmt;
    int error; ///< the caller's errno, for %m
};

/// A line in a caller's buffer: head, text, tail. Text beyond the buffer is cut off.
class TCLine
{
 public:
    TCLine(char* buffer, size_t size) : m_buffer(buffer), m_size(size) {}

    /// Makes the whole line. Returns false if text had to be cut.
    bool Make(const TSEntry& entry, va_list args)
    {
        Head(entry);
        const size_t textBegin = m_length;
        bool cut = !Text(entry, args);
        cut = !IndentContinuations(entry, textBegin) || cut;
        if (cut) {
            DropPartOfCharacter(textBegin);
        }
        Tail(cut);
        return !cut;
    }

    const char* Data() const { return m_buffer; }
    size_t Length() const { return m_length; }

 private:
    /// Room for text; the tail always fits behind it.
    size_t Room() const { return m_size - TAIL_SIZE - m_length; }

    void Append(const char* text, size_t length)
    {
        memcpy(m_buffer + m_length, text, length);
        m_length += length;
    }

    void Head(const TSEntry& entry)
    {
        char time[256] = "";
        if (g_config.style != EDlogStyle::JOURNAL) {
            FormatTime(time, sizeof(time));
        }
        char prefix[16] = "";
        if (g_config.style == EDlogStyle::JOURNAL) {
            snprintf(prefix, sizeof(prefix), "<%d>", entry.look.syslog);
        } else if (g_config.style == EDlogStyle::COLOUR) {
            snprintf(prefix, sizeof(prefix), "%s", entry.look.colour);
        }
        m_length = snprintf(m_buffer, Room(), "%s%s%c %.*s(%d): ", prefix, time, entry.look.letter,
                            TAG_MAX, entry.tag, static_cast<int>(gettid()));
        for (size_t i = 0; i < m_length; ++i) {
            if (m_buffer[i] == '\n') {
                m_buffer[i] = ' ';
            }
        }
    }

    /// Local time without the C library, whose conversion takes a lock.
    static void FormatTime(char* text, size_t size)
    {
        struct timespec now = {};
        clock_gettime(CLOCK_REALTIME, &now);
        const long local = now.tv_sec + g_config.utcOffsetSec;
        const long second = (local % SEC_PER_DAY + SEC_PER_DAY) % SEC_PER_DAY;
        char date[96] = "";
        char offset[32] = "";
        if (g_config.style == EDlogStyle::DATED) {
            FormatDate((local - second) / SEC_PER_DAY, date, sizeof(date));
            const long minutes = labs(g_config.utcOffsetSec) / 60;
            snprintf(offset, sizeof(offset), "%c%02ld:%02ld", g_config.utcOffsetSec < 0 ? '-' : '+',
                     minutes / 60, minutes % 60);
        }
        snprintf(text, size, "%s%02ld:%02ld:%02ld.%03ld%s ", date, second / 3600, second / 60 % 60,
                 second % 60, now.tv_nsec / 1000000, offset);
    }

    /// The date of a day since 1970, in a calendar whose years begin in March: a leap day is a
    /// year's last. Its months have 153 days in five.
    static void FormatDate(long day, char* text, size_t size)
    {
        constexpr long DAYS_TO_1970 = 719468; // from the first of March of the year 0
        constexpr long DAYS_OF_400_YEARS = 146097;

        const long days = day + DAYS_TO_1970;
        const long era = days / DAYS_OF_400_YEARS;
        const long inEra = days % DAYS_OF_400_YEARS;
        const long yearInEra = (inEra - inEra / 1460 + inEra / 36524 - inEra / 146096) / 365;
        const long inYear = inEra - (365 * yearInEra + yearInEra / 4 - yearInEra / 100);
        const long fromMarch = (5 * inYear + 2) / 153;
        const long month = fromMarch < 10 ? fromMarch + 3 : fromMarch - 9;
        const long year = era * 400 + yearInEra + (month <= 2 ? 1 : 0);
        snprintf(text, size, "%04ld-%02ld-%02ldT", year, month,
                 inYear - (153 * fromMarch + 2) / 5 + 1);
    }

    /// Appends the text without its trailing newline. Returns false if it was cut.
    bool Text(const TSEntry& entry, va_list args)
    {
        const size_t room = Room();
        errno = entry.error;
        int wanted = vsnprintf(m_buffer + m_length, room + 1, entry.fmt, args);
        // A text that cannot be encoded is shown as it was passed.
        if (wanted < 0) {
            wanted = snprintf(m_buffer + m_length, room + 1, "%s", entry.fmt);
        }
        const size_t length = static_cast<size_t>(wanted);
        if (length > room) {
            m_length += room;
            return false;
        }
        m_length += length;
        if (length > 0 && m_buffer[m_length - 1] == '\n') {
            --m_length;
        }
        return true;
    }

    /// Puts a lead behind each newline of the text. Returns false if the text had to be cut.
    bool IndentContinuations(const TSEntry& entry, size_t textBegin)
    {
        if (memchr(m_buffer + textBegin, '\n', m_length - textBegin) == nullptr) {
            return true;
        }
        char lead[16];
        const char* indent = "    ";
        // To the journal each line is an entry of its own.
        const size_t leadLength =
            g_config.style == EDlogStyle::JOURNAL
                ? snprintf(lead, sizeof(lead), "<%d>%s", entry.look.syslog, indent)
                : snprintf(lead, sizeof(lead), "%s", indent);

        size_t from = textBegin;
        size_t to = textBegin;
        for (; from < m_length; ++from) {
            const size_t grown = m_buffer[from] == '\n' ? 1 + leadLength : 1;
            if (to + grown > m_size - TAIL_SIZE) {
                break;
            }
            to += grown;
        }
        const bool fits = from == m_length;
        m_length = to;
        // From the back, so that nothing is overwritten before it was moved.
        while (from > textBegin) {
            const char c = m_buffer[--from];
            if (c == '\n') {
                to -= leadLength;
                memcpy(m_buffer + to, lead, leadLength);
            }
            m_buffer[--to] = c;
        }
        return fits;
    }

    /// Cut text ends with a whole UTF-8 character.
    void DropPartOfCharacter(size_t textBegin)
    {
        size_t last = m_length;
        while (last > textBegin && (m_buffer[last - 1] & 0xC0) == 0x80) {
            --last;
        }
        if (last > textBegin && (m_buffer[last - 1] & 0xC0) == 0xC0) {
            m_length = last - 1;
        }
    }

    void Tail(bool cut)
    {
        if (cut) {
            Append(CUT_MARK, sizeof(CUT_MARK) - 1);
        }
        if (g_config.style == EDlogStyle::COLOUR) {
            Append(COLOUR_END, sizeof(COLOUR_END) - 1);
        }
        Append("\n", 1);
    }

    char* m_buffer;
    size_t m_size;
    size_t m_length = 0;
};

/// How long a full pipe is waited for. A FIFO in the place of the log's file has a reader who may
/// have better to do, and the daemon does not wait for him: such lines are lost.
int FullPipeWaitMsec()
{
    return g_config.path[0] == '\0' ? FULL_PIPE_WAIT_MSEC : 0;
}

/// The second in which the log's file is to be looked after next.
std::atomic<long> g_nextLookSec{0};

/// Looks after the log's file, about once a second. Relaxed: of the threads that find it due one
/// does it, and nothing hangs on which.
void LookAfterFile()
{
    struct timespec now = {};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    long next = g_nextLookSec.load(std::memory_order_relaxed);
    if (now.tv_sec >= next &&
        g_nextLookSec.compare_exchange_strong(next, now.tv_sec + 1, std::memory_order_relaxed)) {
        LookAfterLogFile(g_config.fd, g_config.path, g_config.maxBytes);
    }
}

/// Writes a line with one write(2) if the system takes it whole. A full pipe that does not block is
/// waited for, but not for ever.
int WriteLine(const TCLine& line)
{
    size_t done = 0;
    while (done < line.Length()) {
        const ssize_t written = write(g_config.fd, line.Data() + done, line.Length() - done);
        if (written > 0) {
            done += written;
            continue;
        }
        struct pollfd ready = {g_config.fd, POLLOUT, 0};
        if (written < 0 &&
            (errno == EINTR || (errno == EAGAIN && poll(&ready, 1, FullPipeWaitMsec()) > 0))) {
            continue;
        }
        return done > 0 || written == 0 ? static_cast<int>(done) : -errno;
    }
    return static_cast<int>(done);
}

/// Never inlined: its buffer must not be on the stack of the entries that do not need it.
__attribute__((noinline)) int PrintLong(const TSEntry& entry, va_list args)
{
    char buffer[LONG_LINE_SIZE];
    TCLine line(buffer, sizeof(buffer));
    line.Make(entry, args);
    return WriteLine(line);
}

/// Returns false, having written nothing, if the entry is too long for a short line.
__attribute__((noinline)) bool PrintShort(const TSEntry& entry, va_list args, int* result)
{
    char buffer[SHORT_LINE_SIZE];
    TCLine line(buffer, sizeof(buffer));
    if (!line.Make(entry, args)) {
        return false;
    }
    *result = WriteLine(line);
    return true;
}

int Print(int priority, const char* tag, const char* fmt, va_list args)
{
    const int error = errno;
    const TSEntry entry = {LOOKS[priority - DLOG_VERBOSE], tag == nullptr ? "" : tag,
                           fmt == nullptr ? "" : fmt, error};
    if (g_config.path[0] != '\0') {
        LookAfterFile();
    }
    va_list again;
    va_copy(again, args);
    int result = 0;
    if (!PrintShort(entry, args, &result)) {
        result = PrintLong(entry, again);
    }
    va_end(again);
    errno = error;
    return result;
}

} // namespace

bool LogShowsOnStandardError(int priority)
{
    const int least = LeastPriority();
    return g_config.fd == STDERR_FILENO && priority >= least;
}

} // namespace zorhost

int __dlog_print(log_id_t /*id*/, int priority, const char* tag, const char* fmt, ...)
{
    if (priority < DLOG_VERBOSE || priority > DLOG_SILENT) {
        priority = DLOG_INFO;
    }
    if (priority < zorhost::LeastPriority() || priority == DLOG_SILENT) {
        return 0;
    }
    va_list args;
    va_start(args, fmt);
    const int result = zorhost::Print(priority, tag, fmt, args);
    va_end(args);
    return result;
}
