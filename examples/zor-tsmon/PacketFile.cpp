#include "PacketFile.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace tsmon {

namespace {

constexpr std::size_t PACKETS_PER_READ = 64;

InputError SystemError(const char* action)
{
    return InputError(std::string(action) + ": " + std::generic_category().message(errno));
}

bool IsDirectory(int file)
{
    struct stat status = {};
    return fstat(file, &status) == 0 && S_ISDIR(status.st_mode);
}

/// Nothing can be read from it in a process that was started without it.
bool IsStandardInputOpen()
{
    const int flags = fcntl(STDIN_FILENO, F_GETFL);
    return flags >= 0 && (flags & O_PATH) == 0 && (flags & O_ACCMODE) != O_WRONLY;
}

/// Standard input is opened anew: whoever else has it must not find that it does not wait any more.
const char* OpenedPath(const std::string& path)
{
    return path == STANDARD_INPUT ? "/dev/stdin" : path.c_str();
}

} // namespace

std::optional<std::uint64_t> SizeOf(const std::string& path)
{
    struct stat status = {};
    const bool isFile = stat(OpenedPath(path), &status) == 0 && S_ISREG(status.st_mode);
    return isFile ? std::optional(static_cast<std::uint64_t>(status.st_size)) : std::nullopt;
}

PacketFile::PacketFile(const std::string& path) : m_chunk(PACKETS_PER_READ * PACKET_SIZE)
{
    if (path == STANDARD_INPUT && !IsStandardInputOpen()) {
        throw InputError("is closed");
    }
    // Neither the opening of a pipe nor its reading may wait for whoever writes to it.
    m_file = open(OpenedPath(path), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (m_file < 0) {
        throw SystemError("cannot be opened");
    }
    if (IsDirectory(m_file)) {
        close(m_file);
        throw InputError("is a directory, not a transport stream file");
    }
}

PacketFile::~PacketFile()
{
    close(m_file);
}

bool PacketFile::HasInput() const
{
    pollfd file = {m_file, POLLIN, 0};
    return poll(&file, 1, 0) != 0; // what is wrong with it shows when it is read
}

bool PacketFile::Read(PacketBlock& block)
{
    block.Clear();
    ssize_t size = 0;
    do {
        size = read(m_file, m_chunk.data(), m_chunk.size());
    } while (size < 0 && errno == EINTR);
    if (size < 0 && errno == EAGAIN) {
        return true; // somebody else has read from the pipe meanwhile
    }
    if (size < 0) {
        throw SystemError("cannot be read");
    }
    if (size == 0) {
        m_packetiser.Finish(block);
        return false;
    }
    m_packetiser.Push(m_chunk.data(), static_cast<std::size_t>(size), block);
    return true;
}

void PacketFile::Stop(PacketBlock& block)
{
    block.Clear();
    m_packetiser.Stop(block);
}

} // namespace tsmon
