#include "OutputFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace zorhost {
namespace {

/// Nobody else can put another in the place of such a link, unless the directory is his.
bool IsOwnLink(const char* path)
{
    struct stat info = {};
    return lstat(path, &info) == 0 && S_ISLNK(info.st_mode) &&
           (info.st_uid == geteuid() || info.st_uid == 0);
}

} // namespace

int OpenOutputFile(const char* path, int flags, mode_t mode)
{
    flags |= O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
    int fd = open(path, flags | O_NOFOLLOW, mode);
    if (fd < 0 && errno == ELOOP) {
        if (IsOwnLink(path)) {
            fd = open(path, flags, mode);
        } else {
            errno = ELOOP;
        }
    }
    if (fd >= 0 && fd <= STDERR_FILENO) {
        const int low = fd;
        fd = fcntl(low, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
        const int error = errno;
        close(low);
        errno = error;
    }
    return fd;
}

} // namespace zorhost
