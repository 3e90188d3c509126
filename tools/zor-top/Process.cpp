#include "Process.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iterator>
#include <memory>
#include <sstream>

#include "Problem.h"

namespace zortop {
namespace {

constexpr char LIBRARY[] = "libzor-core.so";

std::string ProcPath(pid_t pid, const char* file)
{
    return "/proc/" + std::to_string(pid) + "/" + file;
}

/// The value behind @p name in the text of a status file.
std::string Field(const std::string& status, const std::string& name)
{
    std::istringstream lines(status);
    for (std::string line; std::getline(lines, line);) {
        if (line.compare(0, name.size() + 1, name + ":") == 0) {
            const std::size_t begin = line.find_first_not_of(" \t", name.size() + 1);
            return begin == std::string::npos ? "" : line.substr(begin);
        }
    }
    return "";
}

Mapping ParsedMapping(const std::string& line)
{
    Mapping mapping;
    std::istringstream fields(line);
    std::string range;
    std::string rights;
    std::string device;
    std::string inode;
    fields >> range >> rights >> std::hex >> mapping.offset >> device >> inode >> std::ws;
    std::getline(fields, mapping.path);
    char* end = nullptr;
    mapping.begin = std::strtoull(range.c_str(), &end, 16);
    mapping.end = *end == '-' ? std::strtoull(end + 1, nullptr, 16) : 0;
    mapping.isExecutable = rights.find('x') != std::string::npos;
    return mapping;
}

std::vector<Mapping> Parsed(const std::string& maps)
{
    std::vector<Mapping> mappings;
    std::istringstream lines(maps);
    for (std::string line; std::getline(lines, line);) {
        mappings.push_back(ParsedMapping(line));
    }
    return mappings;
}

bool RunsTheLibrary(const std::string& maps)
{
    const std::vector<Mapping> mappings = Parsed(maps);
    return std::any_of(mappings.begin(), mappings.end(), [](const Mapping& mapping) {
        return mapping.isExecutable && IsLibrary(mapping.path);
    });
}

/// Of a process that has just ended what can be said is nothing.
Daemon Described(pid_t pid)
{
    Daemon daemon;
    daemon.pid = pid;
    const std::string stat = ReadProc(ProcPath(pid, "stat"));
    const std::size_t name = stat.rfind(')');
    if (name != std::string::npos) {
        std::istringstream fields(stat.substr(name + 1));
        const std::vector<std::string> words{std::istream_iterator<std::string>(fields), {}};
        constexpr std::size_t THREADS = 17;
        constexpr std::size_t STARTED = 19;
        if (words.size() > STARTED) {
            timespec now{};
            clock_gettime(CLOCK_BOOTTIME, &now);
            daemon.threads = std::atol(words[THREADS].c_str());
            daemon.ageSec = static_cast<double>(now.tv_sec) -
                            static_cast<double>(std::atoll(words[STARTED].c_str())) /
                                static_cast<double>(sysconf(_SC_CLK_TCK));
        }
    }
    daemon.command = ReadProc(ProcPath(pid, "cmdline"));
    std::replace(daemon.command.begin(), daemon.command.end(), '\0', ' ');
    while (!daemon.command.empty() && daemon.command.back() == ' ') {
        daemon.command.pop_back();
    }
    return daemon;
}

} // namespace

bool Memory::Read(const std::vector<Piece>& pieces) const
{
    std::size_t at = 0;
    while (at < pieces.size()) {
        std::array<iovec, IOV_MAX> local;
        std::array<iovec, IOV_MAX> remote;
        const std::size_t count = std::min(pieces.size() - at, local.size());
        ssize_t wanted = 0;
        for (std::size_t i = 0; i < count; ++i) {
            const Piece& piece = pieces[at + i];
            local[i] = {piece.to, piece.size};
            remote[i] = {reinterpret_cast<void*>(piece.from), piece.size};
            wanted += static_cast<ssize_t>(piece.size);
        }
        if (process_vm_readv(m_pid, local.data(), count, remote.data(), count, 0) != wanted) {
            return false;
        }
        at += count;
    }
    return true;
}

bool Memory::ReadText(Address from, std::size_t longest, std::string* to) const
{
    constexpr Address CHUNK = 64; // what follows the text may be memory that nobody has
    std::string text;
    while (text.size() < longest) {
        std::array<char, CHUNK> chunk{};
        const std::size_t size = CHUNK - (from + text.size()) % CHUNK;
        if (!Read(from + text.size(), chunk.data(), size)) {
            return false;
        }
        for (std::size_t i = 0; i < size; ++i) {
            if (chunk[i] == '\0') {
                *to = text.substr(0, longest);
                return text.size() <= longest;
            }
            if (!isprint(static_cast<unsigned char>(chunk[i]))) {
                return false;
            }
            text += chunk[i];
        }
    }
    return false;
}

std::string ReadProc(const std::string& path)
{
    std::string text;
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (file < 0) {
        return text;
    }
    std::array<char, 16384> part;
    for (ssize_t got; (got = read(file, part.data(), part.size())) > 0;) {
        text.append(part.data(), static_cast<std::size_t>(got));
    }
    close(file);
    return text;
}

bool IsLibrary(const std::string& path)
{
    const std::size_t slash = path.rfind('/');
    return slash != std::string::npos && path.compare(slash + 1, sizeof(LIBRARY) - 1, LIBRARY) == 0;
}

void CheckProcess(pid_t pid)
{
    const std::string name = "process " + std::to_string(pid);
    const std::string status = ReadProc(ProcPath(pid, "status"));
    if (status.empty()) {
        throw Problem(NO_TARGET, "there is no " + name);
    }
    const std::string group = Field(status, "Tgid");
    if (group != std::to_string(pid)) {
        throw Problem(NO_TARGET, std::to_string(pid) + " is a thread of process " + group +
                                     "; name the process");
    }
    const std::string state = Field(status, "State");
    if (!state.empty() && (state[0] == 'Z' || state[0] == 'X')) {
        throw Problem(NO_TARGET, name + " has ended; only its parent has not noticed yet");
    }
}

std::vector<Mapping> MappingsOf(pid_t pid)
{
    errno = 0;
    const std::string maps = ReadProc(ProcPath(pid, "maps"));
    if (!maps.empty()) {
        return Parsed(maps);
    }
    if (errno == EACCES || errno == EPERM) {
        throw Problem(NO_PERMISSION, RefusedText(pid));
    }
    throw Problem(NO_TARGET, "process " + std::to_string(pid) + " has just ended");
}

std::string RefusedText(pid_t pid)
{
    std::string text =
        "permission denied: process " + std::to_string(pid) + " may not be looked into";
    if (geteuid() != 0) {
        text += "; run zor-top as its user, or as root";
    }
    const std::string scope = ReadProc("/proc/sys/kernel/yama/ptrace_scope").substr(0, 1);
    if (!scope.empty() && scope != "0") {
        text += "; /proc/sys/kernel/yama/ptrace_scope is " + scope +
                ": only root may look into processes that it has not started itself";
    }
    return text + "; in a container the capability SYS_PTRACE may be missing";
}

std::vector<Daemon> FindDaemons(int* refused)
{
    std::vector<Daemon> daemons;
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir("/proc"), closedir);
    *refused = 0;
    for (const dirent* entry; folder != nullptr && (entry = readdir(folder.get())) != nullptr;) {
        const auto pid = static_cast<pid_t>(std::strtol(entry->d_name, nullptr, 10));
        if (pid <= 0) {
            continue;
        }
        errno = 0;
        const std::string maps = ReadProc(ProcPath(pid, "maps"));
        if (maps.empty() && (errno == EACCES || errno == EPERM)) {
            ++*refused;
        } else if (RunsTheLibrary(maps)) {
            daemons.push_back(Described(pid));
        }
    }
    std::sort(daemons.begin(), daemons.end(),
              [](const Daemon& a, const Daemon& b) { return a.ageSec > b.ageSec; });
    return daemons;
}

std::int64_t MonotonicNsec()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * INT64_C(1000000000) + now.tv_nsec;
}

} // namespace zortop
