#include "HtRecordConfig.h"

#include <sys/prctl.h>
#include <unistd.h>

#include <charconv>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "HtRecordFormat.h"
#include "dlog.h"

namespace zorhost {
namespace {

constexpr std::uint64_t PAGE_SIZE = 4096;

/// How far the suffix shifts a number; negative if it is none.
int ShiftOf(std::string_view suffix)
{
    if (suffix.empty()) {
        return 0;
    }
    if (suffix.size() > 1) {
        return -1;
    }
    switch (suffix[0]) {
        case 'k':
        case 'K':
            return 10;
        case 'm':
        case 'M':
            return 20;
        case 'g':
        case 'G':
            return 30;
        default:
            return -1;
    }
}

} // namespace

std::uint64_t ParseRingSize(std::string_view text)
{
    const char* const end = text.data() + text.size();
    std::uint64_t number = 0;
    const auto [rest, error] = std::from_chars(text.data(), end, number);
    const int shift = ShiftOf({rest, static_cast<std::size_t>(end - rest)});
    if (error != std::errc() || shift < 0 || number > GREATEST_RING_SIZE >> shift) {
        return 0;
    }
    const std::uint64_t size = number << shift;
    return size < LEAST_RING_SIZE ? 0 : size;
}

std::string ExpandPath(std::string_view path)
{
    std::string expanded;
    for (;;) {
        const std::size_t mark = path.find("%p");
        expanded += path.substr(0, mark);
        if (mark == std::string_view::npos) {
            return expanded;
        }
        expanded += std::to_string(getpid());
        path.remove_prefix(mark + 2);
    }
}

std::string AbsolutePath(std::string path)
{
    char folder[PATH_MAX];
    if (path[0] == '/' || getcwd(folder, sizeof(folder)) == nullptr) {
        return path;
    }
    return std::string(folder) + '/' + path;
}

TSRecordConfig ReadRecordConfig()
{
    TSRecordConfig config;
    const char* const path = getenv("ZOR_RECORD");
    if (path == nullptr || *path == '\0') {
        return config;
    }
    config.path = AbsolutePath(ExpandPath(path));
    config.ringSize = DEFAULT_RING_SIZE;
    char name[format::NAME_SIZE] = "";
    prctl(PR_GET_NAME, name, 0, 0, 0); // of the first thread, as yet
    config.process.assign(name, strnlen(name, sizeof(name)));
    const char* const size = getenv("ZOR_RECORD_SIZE");
    if (size == nullptr || *size == '\0') {
        return config;
    }
    if (const std::uint64_t bytes = ParseRingSize(size)) {
        config.ringSize = format::RoundUp(bytes, PAGE_SIZE);
    } else {
        __dlog_print(LOG_ID_MAIN, DLOG_ERROR, "ZOR_RECORD",
                     "ZOR_RECORD_SIZE: '%s' is no size from 4K to 64G (a number, and K, M or G); "
                     "the record keeps the last 16M",
                     size);
    }
    return config;
}

} // namespace zorhost
