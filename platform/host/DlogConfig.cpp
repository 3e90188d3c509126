#include "DlogConfig.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>

#include "HtRecordConfig.h"
#include "OutputFile.h"

namespace zorhost {
namespace {

constexpr int DEFAULT_LEAST_PRIORITY = DLOG_DEBUG;
constexpr int NO_PRIORITY = -1;
constexpr size_t PATH_SIZE = 4096;

constexpr std::string_view NAMES[] = {"VERBOSE", "DEBUG", "INFO",  "WARN",
                                      "ERROR",   "FATAL", "SILENT"};

/// What ZOR_DLOG asks for.
struct TSTarget
{
    std::string_view sink;
    std::string_view path;
    int leastPriority = DEFAULT_LEAST_PRIORITY;
};

void Complain(const char* what, std::string_view value, const char* why)
{
    char text[PATH_SIZE + 256];
    int length = snprintf(text, sizeof(text), "ZOR_DLOG: %s '%.*s' %s; the log goes to stderr:D\n",
                          what, static_cast<int>(value.size()), value.data(), why);
    if (length >= static_cast<int>(sizeof(text))) {
        length = sizeof(text) - 1;
    }
    // The one message there is about a log that cannot be had; nobody is left to hear that it
    // failed.
    if (write(STDERR_FILENO, text, length) < 0) {
        return;
    }
}

int PriorityFromText(std::string_view text)
{
    if (text.size() == 1 && text[0] >= '0' && text[0] <= '0' + DLOG_SILENT) {
        return text[0] - '0';
    }
    for (size_t i = 0; i < sizeof(NAMES) / sizeof(NAMES[0]); ++i) {
        const bool letter = text.size() == 1;
        if ((letter || text.size() == NAMES[i].size()) && !text.empty() &&
            strncasecmp(text.data(), NAMES[i].data(), text.size()) == 0) {
            return DLOG_VERBOSE + static_cast<int>(i);
        }
    }
    return NO_PRIORITY;
}

/// Takes "sink[:path][:level]" apart. Returns false, having said why, if it cannot be followed.
bool Parse(std::string_view value, TSTarget* target)
{
    const size_t sinkEnd = value.find(':');
    target->sink = value.substr(0, sinkEnd);
    if (target->sink != "stderr" && target->sink != "file" && target->sink != "none") {
        Complain("the target", target->sink, "is none of stderr, file:PATH, none");
        return false;
    }
    std::string_view rest;
    bool hasLevel = sinkEnd != std::string_view::npos;
    if (hasLevel) {
        rest = value.substr(sinkEnd + 1);
    }
    if (target->sink == "file") {
        const size_t levelColon = rest.rfind(':');
        hasLevel = levelColon != std::string_view::npos &&
                   rest.find('/', levelColon) == std::string_view::npos;
        target->path = rest.substr(0, hasLevel ? levelColon : rest.size());
        rest = hasLevel ? rest.substr(levelColon + 1) : std::string_view();
    }
    if (!hasLevel) {
        return true;
    }
    target->leastPriority = PriorityFromText(rest);
    if (target->leastPriority != NO_PRIORITY) {
        return true;
    }
    Complain("the level", rest, "is none of V D I W E F S, their names, 0 to 8");
    return false;
}

/// Opens the log file for appending. Returns -1, having said why, if that is impossible.
int OpenLogFile(std::string_view path)
{
    char name[PATH_SIZE];
    if (path.empty() || path.size() >= sizeof(name)) {
        Complain("the path", path, path.empty() ? "is empty" : "is too long");
        return -1;
    }
    memcpy(name, path.data(), path.size());
    name[path.size()] = '\0';
    const int fd = OpenOutputFile(name, O_WRONLY | O_APPEND, 0666);
    if (fd < 0) {
        Complain("the file", path, strerror(errno));
    }
    return fd;
}

/// True if standard error is the stream that systemd connected to the journal, and not something
/// that took its place since.
bool IsJournalStream()
{
    const char* stream = getenv("JOURNAL_STREAM");
    unsigned long device = 0;
    unsigned long inode = 0;
    struct stat info;
    return stream != nullptr && sscanf(stream, "%lu:%lu", &device, &inode) == 2 &&
           fstat(STDERR_FILENO, &info) == 0 && info.st_dev == device && info.st_ino == inode;
}

bool WantsColour()
{
    const char* noColour = getenv("NO_COLOR");
    const char* terminal = getenv("TERM");
    return (noColour == nullptr || *noColour == '\0') &&
           (terminal == nullptr || strcmp(terminal, "dumb") != 0) && isatty(STDERR_FILENO);
}

EDlogStyle StyleOfStandardError()
{
    if (IsJournalStream()) {
        return EDlogStyle::JOURNAL;
    }
    return WantsColour() ? EDlogStyle::COLOUR : EDlogStyle::PLAIN;
}

/// The C library's conversion to local time takes a lock that stays locked in the child of a fork,
/// and may allocate. So it is asked once, and a process that lives through a change of daylight
/// saving goes on in the time that it started with.
long UtcOffset()
{
    const time_t now = time(nullptr);
    struct tm local = {};
    return localtime_r(&now, &local) == nullptr ? 0 : local.tm_gmtoff;
}

/// A daemon may change its folder later. Empty if the path becomes too long.
void MakeAbsolute(std::string_view path, char (*absolute)[PATH_SIZE])
{
    char folder[PATH_SIZE] = "";
    if (path.front() != '/' && getcwd(folder, sizeof(folder)) == nullptr) {
        return;
    }
    const int length =
        snprintf(*absolute, PATH_SIZE, "%s%s%.*s", folder, *folder != '\0' ? "/" : "",
                 static_cast<int>(path.size()), path.data());
    if (length >= static_cast<int>(PATH_SIZE)) {
        (*absolute)[0] = '\0';
    }
}

std::uint64_t ReadMaxBytes()
{
    const char* const text = getenv("ZOR_DLOG_SIZE");
    if (text == nullptr || *text == '\0') {
        return 0;
    }
    const std::uint64_t bytes = ParseRingSize(text);
    if (bytes == 0) {
        char complaint[256];
        const int length =
            snprintf(complaint, sizeof(complaint),
                     "ZOR_DLOG_SIZE: '%.100s' is no size from 4K to 64G (a number, and "
                     "K, M or G); the log's file has no limit\n",
                     text);
        if (write(STDERR_FILENO, complaint, length) < 0) {
            return 0; // nobody is left to hear that
        }
    }
    return bytes;
}

} // namespace

TSDlogConfig ReadDlogConfig()
{
    TSDlogConfig config = {
        STDERR_FILENO, DEFAULT_LEAST_PRIORITY, EDlogStyle::PLAIN, UtcOffset(), "", 0};
    const char* value = getenv("ZOR_DLOG");
    TSTarget target;
    if (value != nullptr && *value != '\0' && Parse(value, &target)) {
        const int fd = target.sink == "file" ? OpenLogFile(target.path) : STDERR_FILENO;
        if (fd >= 0) {
            config.fd = fd;
            config.leastPriority = target.sink == "none" ? DLOG_SILENT : target.leastPriority;
        }
        if (target.sink == "file" && fd >= 0) {
            MakeAbsolute(target.path, &config.path);
            config.maxBytes = ReadMaxBytes();
        }
    }
    config.style = config.fd == STDERR_FILENO ? StyleOfStandardError() : EDlogStyle::DATED;
    return config;
}

} // namespace zorhost
