#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "Process.h"
#include "Snapshot.h"

namespace zortop {

/// A system call that a thread sleeps in.
struct SleepingCall
{
    long number = -1; ///< negative if it sleeps, but in none
    std::uint64_t arguments[6] = {};
};

/// What the kernel says of a thread.
struct KernelFacts
{
    std::string name;
    std::int64_t cpuNsec = 0;
    std::uint64_t turns = 0;
    std::optional<SleepingCall> sleeps; ///< nothing if it runs, or is ready to
};

/// A wait of a thread for a word of memory to change, as the C library's locks and condition
/// variables do.
struct FutexWait
{
    Address word = 0;
    std::uint32_t expected = 0;
    std::optional<std::int64_t> untilNsec; ///< of the monotonic clock, if it ends by itself
};

/// The threads of a process, by what /proc says of them. Their files stay open from one look to the
/// next: opening them would cost more than all the rest.
class Threads
{
 public:
    explicit Threads(pid_t pid) : m_pid(pid) {}
    ~Threads();

    Threads(const Threads&) = delete;
    Threads& operator=(const Threads&) = delete;

    /// Looks at all threads that there are now.
    std::map<pid_t, KernelFacts> Read();

    /// Whether the kernel tells in which system calls threads sleep; some are built without.
    bool TellsCalls() const { return m_tellsCalls; }

 private:
    struct Files
    {
        int schedule = -1; ///< "schedstat", which some kernels are built without
        int stat = -1;     ///< opened in its place
        int status = -1;   ///< likewise
        int call = -1;
        int name = -1;
    };

    static void Close(const Files& files);
    static bool ReadTimes(const Files& files, KernelFacts* facts);
    std::vector<pid_t> Ids() const;
    Files& FilesOf(pid_t thread);

    const pid_t m_pid;
    std::map<pid_t, Files> m_files;
    bool m_tellsCalls = true;
};

/// Processor time and turns of a thread by the text of its "schedstat".
///
/// @return whether it has them
bool ParseSchedule(const std::string& schedule, KernelFacts* facts);

/// The same by its "stat", in steps of a clock tick, and its "status".
bool ParseStat(const std::string& stat, const std::string& status, KernelFacts* facts);

/// What @p call waits for, if it is such a wait.
std::optional<FutexWait> FutexWaitOf(const SleepingCall& call, const Memory& memory);

/// The text of /proc/PID/task/TID/syscall.
std::optional<SleepingCall> ParsedCall(const std::string& text);

} // namespace zortop
