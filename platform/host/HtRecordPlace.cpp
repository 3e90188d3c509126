#include "HtRecordPlace.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "HtRecordFormat.h"
#include "OutputFile.h"

namespace zorhost {
namespace {

/// Each further one means that another process has moved the file meanwhile.
constexpr int MOST_ATTEMPTS = 8;

enum class EPlace
{
    READY,
    MOVED, ///< the name leads elsewhere by now, perhaps nowhere
    REFUSED,
};

/// A descriptor that is closed on every way out: texts may find no memory.
class TCDescriptor
{
 public:
    explicit TCDescriptor(int fd) : m_fd(fd) {}
    ~TCDescriptor()
    {
        if (m_fd >= 0) {
            close(m_fd);
        }
    }

    TCDescriptor(const TCDescriptor&) = delete;
    TCDescriptor& operator=(const TCDescriptor&) = delete;

    int Get() const { return m_fd; }

    int Release()
    {
        const int fd = m_fd;
        m_fd = -1;
        return fd;
    }

 private:
    int m_fd;
};

EPlace Refuse(std::string* why, std::string text)
{
    *why = std::move(text);
    return EPlace::REFUSED;
}

bool BeginsLikeARecording(int fd)
{
    std::uint64_t magic = 0;
    return pread(fd, &magic, sizeof(magic), 0) == static_cast<ssize_t>(sizeof(magic)) &&
           magic == format::FILE_MAGIC;
}

/// Whether the file at @p path may be replaced: there is none, or it is empty or a recording.
bool MayBeReplaced(const char* path)
{
    const TCDescriptor file(open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
    if (file.Get() < 0) {
        return errno == ENOENT;
    }
    struct stat info = {};
    return fstat(file.Get(), &info) == 0 && S_ISREG(info.st_mode) &&
           (info.st_size == 0 || BeginsLikeARecording(file.Get()));
}

/// Moves the recording at @p path away.
EPlace MoveAway(const char* path, std::string* why)
{
    const std::string old = std::string(path) + OLD_RECORDING_SUFFIX;
    if (!MayBeReplaced(old.c_str())) {
        return Refuse(why, "a recording is there, and '" + old +
                               "', where it would be moved to, is none and would be lost");
    }
    if (rename(path, old.c_str()) != 0) {
        return Refuse(why, std::string(strerror(errno)) +
                               ": the recording that is there cannot be moved to '" + old + "'");
    }
    return EPlace::MOVED;
}

/// Looks at the open file, and takes it if it is free.
EPlace Take(int fd, const std::string& path, std::string* why)
{
    struct stat info = {};
    if (fstat(fd, &info) != 0) {
        return Refuse(why, strerror(errno));
    }
    if (!S_ISREG(info.st_mode)) {
        return Refuse(why, "it is no regular file");
    }
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        return Refuse(
            why, errno == EWOULDBLOCK ? "another process is recording into it" : strerror(errno));
    }
    // Only who holds a file's lock moves it: once this is the file that the name leads to it stays
    // so. The size counts from here on as well.
    char real[PATH_MAX];
    struct stat there = {};
    if (realpath(path.c_str(), real) == nullptr || stat(real, &there) != 0) {
        return errno == ENOENT ? EPlace::MOVED : Refuse(why, strerror(errno));
    }
    if (there.st_dev != info.st_dev || there.st_ino != info.st_ino) {
        return EPlace::MOVED;
    }
    if (there.st_size == 0) {
        return EPlace::READY;
    }
    if (!BeginsLikeARecording(fd)) {
        return Refuse(why, "there is a file that is no recording and would be lost");
    }
    return MoveAway(real, why);
}

} // namespace

int OpenRecordPlace(const std::string& path, std::string* why)
{
    for (int attempt = 0; attempt < MOST_ATTEMPTS; ++attempt) {
        TCDescriptor file(OpenOutputFile(path.c_str(), O_RDWR, 0600));
        if (file.Get() < 0) {
            *why = strerror(errno);
            return -1;
        }
        switch (Take(file.Get(), path, why)) {
            case EPlace::READY:
                return file.Release();
            case EPlace::REFUSED:
                return -1;
            case EPlace::MOVED:
                break;
        }
    }
    *why = "others keep moving it";
    return -1;
}

} // namespace zorhost
