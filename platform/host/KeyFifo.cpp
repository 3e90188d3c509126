#include "KeyFifo.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "KeyLine.h"

namespace zorhost {
namespace {

constexpr size_t LINE_MAX_SIZE = 4096;
constexpr size_t PART_SIZE = 4096;

/// Not blocking: a FIFO without a writer is no reason to wait.
constexpr int OPEN_FLAGS = O_RDONLY | O_NONBLOCK | O_CLOEXEC;

} // namespace

bool TCKeyFifo::Open(const char* path)
{
    Close();
    // Looked at before it is opened: opening a device may already do something.
    struct stat info;
    if (stat(path, &info) != 0) {
        ComplainOfKeys("'%s': %s; make it with mkfifo(1). No keys will come", path,
                       strerror(errno));
        return false;
    }
    if (!S_ISFIFO(info.st_mode)) {
        ComplainOfKeys("'%s' is no FIFO; make one with mkfifo(1). No keys will come", path);
        return false;
    }
    m_fd = open(path, OPEN_FLAGS);
    if (m_fd < 0) {
        ComplainOfKeys("'%s' cannot be opened: %s. No keys will come", path, strerror(errno));
        return false;
    }
    return true;
}

void TCKeyFifo::Close()
{
    if (m_fd >= 0) {
        close(m_fd);
        m_fd = -1;
    }
    m_line.clear();
    m_tooLong = false;
}

TCKeyFifo::EResult TCKeyFifo::Read(const LineSink& sink)
{
    char part[PART_SIZE];
    const ssize_t size = read(m_fd, part, sizeof(part));
    if (size > 0) {
        Take({part, static_cast<size_t>(size)}, sink);
        return EResult::DATA;
    }
    if (size == 0) {
        if (!m_line.empty()) {
            EndLine(sink);
        }
        return Reopen() ? EResult::WAITING : EResult::BROKEN;
    }
    if (errno == EAGAIN || errno == EINTR) {
        return EResult::WAITING;
    }
    ComplainOfKeys("the FIFO cannot be read: %s. No more keys will come", strerror(errno));
    return EResult::BROKEN;
}

void TCKeyFifo::Take(std::string_view part, const LineSink& sink)
{
    for (;;) {
        const size_t end = part.find('\n');
        m_line.append(part.substr(0, m_tooLong ? 0 : end));
        if (m_line.size() > LINE_MAX_SIZE) {
            ComplainOfKeys("the line '%s' is longer than %zu bytes; it is left out",
                           Printable(m_line).c_str(), LINE_MAX_SIZE);
            m_line.clear();
            m_tooLong = true;
        }
        if (end == std::string_view::npos) {
            return;
        }
        if (!m_tooLong) {
            EndLine(sink);
        }
        m_tooLong = false;
        part.remove_prefix(end + 1);
    }
}

void TCKeyFifo::EndLine(const LineSink& sink)
{
    const std::string line = std::move(m_line);
    m_line.clear();
    sink(line);
}

/// A FIFO whose last writer has gone stays readable for ever, with nothing in it. Opened anew it
/// waits for the next writer; the former stays open meanwhile, or what such a writer has written
/// would go with the last reader.
bool TCKeyFifo::Reopen()
{
    m_tooLong = false;
    const std::string self = "/proc/self/fd/" + std::to_string(m_fd);
    const int fd = open(self.c_str(), OPEN_FLAGS);
    if (fd < 0) {
        ComplainOfKeys("the FIFO cannot be opened again: %s. No more keys will come",
                       strerror(errno));
        return false;
    }
    close(m_fd);
    m_fd = fd;
    return true;
}

} // namespace zorhost
