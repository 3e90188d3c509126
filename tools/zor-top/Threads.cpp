#include "Threads.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <set>
#include <utility>

namespace zortop {
namespace {

/// The whole of a small file that stays open. Empty if the thread has ended.
std::string Again(int file)
{
    std::array<char, 4096> text;
    const ssize_t size = file < 0 ? -1 : pread(file, text.data(), text.size(), 0);
    return size > 0 ? std::string(text.data(), static_cast<std::size_t>(size)) : std::string();
}

std::int64_t Nsec(clockid_t clock)
{
    timespec now{};
    clock_gettime(clock, &now);
    return now.tv_sec * INT64_C(1000000000) + now.tv_nsec;
}

} // namespace

Threads::~Threads()
{
    for (const auto& [thread, files] : m_files) {
        Close(files);
    }
}

void Threads::Close(const Files& files)
{
    for (const int file : {files.schedule, files.stat, files.status, files.call, files.name}) {
        if (file >= 0) {
            close(file);
        }
    }
}

std::vector<pid_t> Threads::Ids() const
{
    const std::string path = "/proc/" + std::to_string(m_pid) + "/task";
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir(path.c_str()), closedir);
    std::vector<pid_t> ids;
    for (const dirent* entry; folder != nullptr && (entry = readdir(folder.get())) != nullptr;) {
        const auto id = static_cast<pid_t>(std::strtol(entry->d_name, nullptr, 10));
        if (id > 0) {
            ids.push_back(id);
        }
    }
    return ids;
}

Threads::Files& Threads::FilesOf(pid_t thread)
{
    Files& files = m_files[thread];
    if (files.name < 0) {
        const std::string folder =
            "/proc/" + std::to_string(m_pid) + "/task/" + std::to_string(thread) + "/";
        const auto opened = [&](const char* name) {
            return open((folder + name).c_str(), O_RDONLY | O_CLOEXEC);
        };
        files.name = opened("comm");
        files.schedule = opened("schedstat");
        if (files.schedule < 0) {
            files.stat = opened("stat");
            files.status = opened("status");
        }
        files.call = opened("syscall");
        m_tellsCalls = files.call >= 0 || files.name < 0; // or it has just ended
    }
    return files;
}

bool Threads::ReadTimes(const Files& files, KernelFacts* facts)
{
    return files.schedule >= 0 ? ParseSchedule(Again(files.schedule), facts)
                               : ParseStat(Again(files.stat), Again(files.status), facts);
}

std::map<pid_t, KernelFacts> Threads::Read()
{
    std::map<pid_t, KernelFacts> found;
    for (const pid_t thread : Ids()) {
        const Files& files = FilesOf(thread);
        KernelFacts facts;
        if (!ReadTimes(files, &facts)) {
            continue; // it has just ended
        }
        facts.sleeps = ParsedCall(Again(files.call));
        facts.name = Again(files.name);
        if (!facts.name.empty() && facts.name.back() == '\n') {
            facts.name.pop_back();
        }
        found.emplace(thread, std::move(facts));
    }
    for (auto at = m_files.begin(); at != m_files.end();) {
        if (found.count(at->first) != 0) {
            ++at;
        } else {
            Close(at->second);
            at = m_files.erase(at);
        }
    }
    return found;
}

bool ParseSchedule(const std::string& schedule, KernelFacts* facts)
{
    long long cpu = 0;
    long long waited = 0;
    unsigned long long turns = 0;
    if (sscanf(schedule.c_str(), "%lld %lld %llu", &cpu, &waited, &turns) != 3) {
        return false;
    }
    facts->cpuNsec = cpu;
    facts->turns = turns;
    return true;
}

bool ParseStat(const std::string& stat, const std::string& status, KernelFacts* facts)
{
    constexpr const char* BEHIND_NAME = // state, ten numbers, then time of its own and the system's
        ") %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %llu %llu";
    constexpr char OF_ITS_OWN[] = "\nvoluntary_ctxt_switches:";
    constexpr char OF_OTHERS[] = "\nnonvoluntary_ctxt_switches:";
    const std::size_t name = stat.rfind(')');
    const std::size_t own = status.find(OF_ITS_OWN);
    const std::size_t others = status.find(OF_OTHERS);
    unsigned long long user = 0;
    unsigned long long system = 0;
    if (name == std::string::npos || own == std::string::npos || others == std::string::npos ||
        sscanf(stat.c_str() + name, BEHIND_NAME, &user, &system) != 2) {
        return false;
    }
    const auto ticks = static_cast<std::int64_t>(user + system);
    facts->cpuNsec = ticks * (INT64_C(1000000000) / sysconf(_SC_CLK_TCK));
    facts->turns = std::strtoull(status.c_str() + own + sizeof(OF_ITS_OWN) - 1, nullptr, 10) +
                   std::strtoull(status.c_str() + others + sizeof(OF_OTHERS) - 1, nullptr, 10);
    return true;
}

std::optional<SleepingCall> ParsedCall(const std::string& text)
{
    SleepingCall call;
    unsigned long long arguments[6] = {};
    const int count =
        sscanf(text.c_str(), "%ld %llx %llx %llx %llx %llx %llx", &call.number, &arguments[0],
               &arguments[1], &arguments[2], &arguments[3], &arguments[4], &arguments[5]);
    if (count < 1) {
        return std::nullopt; // "running", or the file may not be read
    }
    if (count < 7) {
        call.number = -1;
    }
    for (int i = 0; i < 6; ++i) {
        call.arguments[i] = arguments[i];
    }
    return call;
}

/// Whether seconds and nanoseconds may be those of a deadline: the thread may have gone on, and its
/// stack have other things in that place.
static bool IsTime(const std::int64_t (&time)[2])
{
    constexpr std::int64_t LONGEST_SEC = INT64_C(1) << 33;
    return time[0] >= 0 && time[0] < LONGEST_SEC && time[1] >= 0 && time[1] < INT64_C(1000000000);
}

std::optional<FutexWait> FutexWaitOf(const SleepingCall& call, const Memory& memory)
{
    if (call.number != SYS_futex) {
        return std::nullopt;
    }
    const auto operation = static_cast<int>(call.arguments[1]);
    const int command = operation & FUTEX_CMD_MASK;
    if (command != FUTEX_WAIT && command != FUTEX_WAIT_BITSET && command != FUTEX_LOCK_PI) {
        return std::nullopt;
    }
    FutexWait wait;
    wait.word = call.arguments[0];
    wait.expected = static_cast<std::uint32_t>(call.arguments[2]);
    std::int64_t until[2] = {};
    if (command == FUTEX_WAIT_BITSET && call.arguments[3] != 0 &&
        memory.Read(call.arguments[3], &until) && IsTime(until)) {
        wait.untilNsec = until[0] * INT64_C(1000000000) + until[1];
        if ((operation & FUTEX_CLOCK_REALTIME) != 0) {
            *wait.untilNsec += Nsec(CLOCK_MONOTONIC) - Nsec(CLOCK_REALTIME);
        }
    }
    return wait;
}

} // namespace zortop
