#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace zortop {

using Address = std::uint64_t;

/// A range of a process's memory, as /proc/PID/maps has it.
struct Mapping
{
    Address begin = 0;
    Address end = 0;
    std::uint64_t offset = 0; ///< in the file
    bool isExecutable = false;
    std::string path; ///< empty, a name in brackets, or a file, perhaps with " (deleted)" behind it
};

/// A process that runs the library.
struct Daemon
{
    pid_t pid = 0;
    double ageSec = 0;
    long threads = 0;
    std::string command;
};

/// One piece of memory that is to be read.
struct Piece
{
    Address from = 0;
    void* to = nullptr;
    std::size_t size = 0;
};

/// Reads another process's memory while it runs on. What is read may be changing: every piece is
/// copied from its begin to its end, and pieces one after the other in their order.
class Memory
{
 public:
    explicit Memory(pid_t pid) : m_pid(pid) {}

    /// @return whether all pieces could be read; if not, what is there means nothing
    bool Read(const std::vector<Piece>& pieces) const;

    bool Read(Address from, void* to, std::size_t size) const { return Read({{from, to, size}}); }

    /// A value of plain data.
    template <typename T>
    bool Read(Address from, T* to) const
    {
        return Read(from, to, sizeof(*to));
    }

    /// A text that ends within @p longest characters and has nothing in it that cannot be printed.
    bool ReadText(Address from, std::size_t longest, std::string* to) const;

 private:
    const pid_t m_pid;
};

/// Throws Problem unless there is such a process, which is no thread and no zombie.
void CheckProcess(pid_t pid);

/// The process's memory; throws Problem if it may not be looked into or has just ended.
std::vector<Mapping> MappingsOf(pid_t pid);

/// The processes that run the library, the oldest first.
///
/// @param refused  where to store how many there are that may not be looked into
std::vector<Daemon> FindDaemons(int* refused);

/// Whether the file of a mapping is the runtime's library.
bool IsLibrary(const std::string& path);

/// Why the system does not let this process look into that one.
std::string RefusedText(pid_t pid);

/// Nanoseconds of the monotonic clock.
std::int64_t MonotonicNsec();

/// A whole file of /proc; empty if it cannot be read.
std::string ReadProc(const std::string& path);

} // namespace zortop
