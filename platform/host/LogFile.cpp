#include "LogFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdio>

#include "OutputFile.h"

namespace zorhost {
namespace {

bool IsRegular(int fd, struct stat* info)
{
    return fstat(fd, info) == 0 && S_ISREG(info->st_mode);
}

/// Whether the name still leads to that file.
bool IsThere(const char* path, const struct stat& file)
{
    struct stat info = {};
    return stat(path, &info) == 0 && info.st_dev == file.st_dev && info.st_ino == file.st_ino;
}

bool MoveAway(const char* path)
{
    char old[PATH_MAX];
    const int length = snprintf(old, sizeof(old), "%s%s", path, OLD_LOG_SUFFIX);
    return length < static_cast<int>(sizeof(old)) && rename(path, old) == 0;
}

} // namespace

void LookAfterLogFile(int fd, const char* path, std::uint64_t maxBytes)
{
    struct stat file = {};
    if (!IsRegular(fd, &file)) {
        return;
    }
    if (IsThere(path, file)) {
        const bool tooLong = maxBytes != 0 && static_cast<std::uint64_t>(file.st_size) >= maxBytes;
        if (!tooLong || !MoveAway(path)) {
            return;
        }
    }
    const int next = OpenOutputFile(path, O_WRONLY | O_APPEND, 0666);
    if (next < 0) {
        return;
    }
    if (IsRegular(next, &file)) {
        dup3(next, fd, O_CLOEXEC);
    }
    close(next);
}

} // namespace zorhost
