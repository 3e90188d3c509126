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
    std::array<char, 512> text;
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
    for (const int file : {files.schedule, files.call, files.name}) {
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
    if (files.schedule < 0) {
        const std::string folder =
            "/proc/" + std::to_string(m_pid) + "/task/" + std::to_string(thread) + "/";
        const auto opened = [&](const char* name) {
            return open((folder + name).c_str(), O_RDONLY | O_CLOEXEC);
        };
        files = {opened("schedstat"), opened("syscall"), opened("comm")};
    }
    return files;
}

std::map<pid_t, KernelFacts> Threads::Read()
{
    std::map<pid_t, KernelFacts> found;
    for (const pid_t thread : Ids()) {
        const Files& files = FilesOf(thread);
        const std::string schedule = Again(files.schedule);
        KernelFacts facts;
        long long cpu = 0;
        long long waited = 0;
        unsigned long long turns = 0;
        if (sscanf(schedule.c_str(), "%lld %lld %llu", &cpu, &waited, &turns) != 3) {
            continue; // it has just ended
        }
        facts.cpuNsec = cpu;
        facts.turns = turns;
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
        memory.Read(call.arguments[3], &until)) {
        wait.untilNsec = until[0] * INT64_C(1000000000) + until[1];
        if ((operation & FUTEX_CLOCK_REALTIME) != 0) {
            *wait.untilNsec += Nsec(CLOCK_MONOTONIC) - Nsec(CLOCK_REALTIME);
        }
    }
    return wait;
}

} // namespace zortop
