#include "Run.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/personality.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <system_error>

namespace zorsim {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int NOT_EXECUTED_STATUS = 127;
constexpr int POLL_MSEC = 50;
constexpr double LEAST_SHARE = 0.02; ///< of a processor; who has less does not run but waits

std::system_error Error(const char* what)
{
    return {errno, std::generic_category(), what};
}

class File
{
 public:
    explicit File(int file) : m_file(file) {}
    ~File()
    {
        if (m_file >= 0) {
            close(m_file);
        }
    }
    File(const File&) = delete;
    File& operator=(const File&) = delete;
    int Get() const { return m_file; }

 private:
    int m_file;
};

/// The report's file in memory, mapped.
class SharedReport
{
 public:
    explicit SharedReport(const RunOptions& options)
        : m_file(memfd_create("zor-sim", MFD_CLOEXEC)), m_size(ReportSize(options.settings.records))
    {
        if (m_file.Get() < 0 || ftruncate(m_file.Get(), static_cast<off_t>(m_size)) != 0) {
            throw Error("the report cannot be made");
        }
        m_map = mmap(nullptr, m_size, PROT_READ | PROT_WRITE, MAP_SHARED, m_file.Get(), 0);
        if (m_map == MAP_FAILED) {
            throw Error("the report cannot be mapped");
        }
        Get()->magic = REPORT_MAGIC;
        Get()->version = REPORT_VERSION;
        Get()->settings = options.settings;
        const std::size_t count = std::min<std::size_t>(options.decisions.size(), MAX_DECISIONS);
        Get()->settings.decisions = count;
        std::copy_n(options.decisions.begin(), count, DecisionsToReplay(Get()));
    }
    ~SharedReport() { munmap(m_map, m_size); }
    SharedReport(const SharedReport&) = delete;
    SharedReport& operator=(const SharedReport&) = delete;

    Report* Get() const { return static_cast<Report*>(m_map); }
    std::string Path() const
    {
        return "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(m_file.Get());
    }

 private:
    File m_file;
    std::size_t m_size;
    void* m_map = nullptr;
};

/// All that the child needs; between fork and exec nothing can be allocated.
struct Image
{
    std::vector<std::string> environment;
    std::vector<char*> environmentPointers;
    std::vector<char*> arguments;
    std::size_t processVariable = 0;
};

void AddPointers(std::vector<std::string>& texts, std::vector<char*>* pointers)
{
    for (std::string& text : texts) {
        pointers->push_back(text.data());
    }
    pointers->push_back(nullptr);
}

bool StartsWith(const char* text, const std::string& name)
{
    return std::strncmp(text, (name + '=').c_str(), name.size() + 1) == 0;
}

std::string Preload()
{
    const char* const others = std::getenv("LD_PRELOAD");
    return LibraryPath() + (others != nullptr ? std::string(":") + others : std::string());
}

/// The debugger itself is not simulated: it sets the variables for the program.
std::vector<std::string> Command(const RunOptions& options, const SharedReport& report)
{
    if (!options.gdb) {
        return options.command;
    }
    const std::string set = "set environment ";
    std::vector<std::string> command = {"gdb",   "-q",
                                        "-ex",   "set startup-with-shell off",
                                        "-ex",   set + "LD_PRELOAD " + Preload(),
                                        "-ex",   set + REPORT_VARIABLE + ' ' + report.Path(),
                                        "-ex",   set + PROCESS_VARIABLE + ' ' + ANY_PROCESS,
                                        "--args"};
    command.insert(command.end(), options.command.begin(), options.command.end());
    return command;
}

void MakeEnvironment(const RunOptions& options, const SharedReport& report, Image* image)
{
    for (char** variable = environ; *variable != nullptr; ++variable) {
        if (options.gdb ||
            (!StartsWith(*variable, "LD_PRELOAD") && !StartsWith(*variable, REPORT_VARIABLE) &&
             !StartsWith(*variable, PROCESS_VARIABLE))) {
            image->environment.emplace_back(*variable);
        }
    }
    if (!options.gdb) {
        image->environment.push_back("LD_PRELOAD=" + Preload());
        image->environment.push_back(std::string(REPORT_VARIABLE) + '=' + report.Path());
        image->processVariable = image->environment.size();
        image->environment.push_back(std::string(PROCESS_VARIABLE) + "=0000000000");
    }
    AddPointers(image->environment, &image->environmentPointers);
}

/// Writes the number of this process over the zeros.
void WriteProcess(char* variable)
{
    char* at = variable + std::strlen(variable);
    for (pid_t number = getpid(); number > 0; number /= 10) {
        *--at = static_cast<char>('0' + number % 10);
    }
}

[[noreturn]] void Execute(const RunOptions& options, Image* image, int output, pid_t parent)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) {
        _exit(NOT_EXECUTED_STATUS);
    }
    if (!options.gdb) {
        setpgid(0, 0);
        WriteProcess(image->environmentPointers[image->processVariable]);
    }
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(options.processor, &set);
    sched_setaffinity(0, sizeof(set), &set);
    if (!options.randomAddresses) {
        personality(ADDR_NO_RANDOMIZE);
    }
    if (output >= 0) {
        dup2(output, STDOUT_FILENO);
        dup2(output, STDERR_FILENO);
    }
    execvpe(image->arguments[0], image->arguments.data(), image->environmentPointers.data());
    _exit(NOT_EXECUTED_STATUS);
}

double SecondsSince(Clock::time_point begin)
{
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

/// Processor time of the process so far, in seconds.
double ProcessorTimeOf(pid_t process)
{
    std::ifstream file("/proc/" + std::to_string(process) + "/stat");
    const std::string text((std::istreambuf_iterator<char>(file)),
                           std::istreambuf_iterator<char>());
    const std::size_t end = text.rfind(')'); // of the name, which may contain anything
    std::istringstream fields(end != std::string::npos ? text.substr(end + 1) : std::string());
    std::string skipped;
    for (int field = 3; field < 14; ++field) {
        fields >> skipped;
    }
    long user = 0;
    long system = 0;
    fields >> user >> system;
    return static_cast<double>(user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

/// Whether one of the process's threads runs, or would if it had a processor.
bool WantsToRun(pid_t process)
{
    std::error_code ignored;
    const std::string tasks = "/proc/" + std::to_string(process) + "/task";
    for (const auto& task : std::filesystem::directory_iterator(tasks, ignored)) {
        std::ifstream file(task.path() / "stat");
        std::string text;
        std::getline(file, text);
        const std::size_t end = text.rfind(')');
        if (end != std::string::npos && text.compare(end, 3, ") R") == 0) {
            return true;
        }
    }
    return false;
}

/// Watches a program until it ends or has to be ended.
class Watch
{
 public:
    Watch(const RunOptions& options, pid_t process, const volatile Report* report)
        : m_options(options), m_process(process), m_report(report)
    {}

    /// @return the outcome if it was ended, else PASSED and the status
    Outcome Await(int* status)
    {
        const File handle(static_cast<int>(syscall(SYS_pidfd_open, m_process, 0)));
        Outcome outcome = Outcome::PASSED;
        pollfd ended = {handle.Get(), POLLIN, 0};
        while (waitpid(m_process, status, WNOHANG) == 0) {
            poll(&ended, handle.Get() >= 0 ? 1 : 0, POLL_MSEC);
            if (outcome == Outcome::PASSED && !m_options.gdb) {
                outcome = Look();
                if (outcome != Outcome::PASSED) {
                    kill(m_process, SIGKILL);
                }
            }
        }
        kill(-m_process, SIGKILL); // what it has left behind
        return outcome;
    }

 private:
    Outcome Look()
    {
        if (SecondsSince(m_begin) > m_options.limitSec) {
            return Outcome::LIMIT;
        }
        if (m_report->steps != m_steps || m_report->outside != 0) {
            m_steps = m_report->steps;
            m_since = Clock::now();
            m_processorTime = ProcessorTimeOf(m_process);
            return Outcome::PASSED;
        }
        const double real = SecondsSince(m_since);
        if (m_report->started == 0 || real < m_options.spinSec) {
            return Outcome::PASSED;
        }
        // A busy machine leaves little of the real time to a thread that spins.
        const double spent = ProcessorTimeOf(m_process) - m_processorTime;
        if (spent >= m_options.spinSec) {
            return Outcome::SPIN;
        }
        return spent < real * LEAST_SHARE && !WantsToRun(m_process) ? Outcome::STUCK
                                                                    : Outcome::PASSED;
    }

    const RunOptions& m_options;
    const pid_t m_process;
    const volatile Report* const m_report;
    const Clock::time_point m_begin = Clock::now();
    Clock::time_point m_since = Clock::now();
    std::uint64_t m_steps = 0;
    double m_processorTime = 0; ///< at m_since
};

Outcome OutcomeOf(Finding finding)
{
    switch (finding) {
        case Finding::DEADLOCK:
            return Outcome::DEADLOCK;
        case Finding::ENDLESS_WAIT:
            return Outcome::ENDLESS_WAIT;
        case Finding::NO_PROGRESS:
            return Outcome::NO_PROGRESS;
        case Finding::STEPS:
            return Outcome::LIMIT;
        default:
            return Outcome::NOT_SIMULATED;
    }
}

std::string ThreadName(const Report& report)
{
    return "thread " + std::string(report.currentName) + " (" + std::to_string(report.current) +
           ")";
}

void Judge(const RunOptions& options, int status, RunResult* result)
{
    const Report& report = *result->report;
    if (result->outcome == Outcome::SPIN) {
        result->what = ThreadName(report) + " has run for " + std::to_string(int(options.spinSec)) +
                       " s without doing anything that could wait";
    } else if (result->outcome == Outcome::STUCK) {
        result->what = ThreadName(report) + " waits for something that is not simulated";
    } else if (result->outcome == Outcome::LIMIT) {
        result->what = "the run takes longer than --limit allows";
    } else if (report.finding != Finding::NONE) {
        result->outcome = OutcomeOf(report.finding);
        result->what = report.text;
    } else if (WIFEXITED(status) && WEXITSTATUS(status) == NOT_EXECUTED_STATUS &&
               report.started == 0) {
        result->outcome = Outcome::NOT_SIMULATED;
        result->what = "'" + options.command.front() + "' cannot be executed";
    } else if (report.started == 0 && !options.gdb) {
        result->outcome = Outcome::NOT_SIMULATED;
        result->what = "'" + options.command.front() +
                       "' did not load the simulation; it must be dynamically linked and must not "
                       "have more rights than its user";
    } else if (WIFSIGNALED(status)) {
        const int signal = WTERMSIG(status);
        result->outcome = signal == SIGABRT ? Outcome::ABORTED : Outcome::CRASHED;
        result->what =
            "ended by SIG" + std::string(sigabbrev_np(signal)) + " in " + ThreadName(report);
    } else if (WEXITSTATUS(status) != 0) {
        result->outcome = Outcome::FAILED;
        result->what = "ended with status " + std::to_string(WEXITSTATUS(status));
    }
}

std::string ReadAll(int file)
{
    std::string text;
    lseek(file, 0, SEEK_SET);
    char buffer[65536];
    for (ssize_t count; file >= 0 && (count = read(file, buffer, sizeof(buffer))) > 0;) {
        text.append(buffer, static_cast<std::size_t>(count));
    }
    return text;
}

} // namespace

const char* NameOf(Outcome outcome)
{
    static constexpr const char* NAMES[] = {"passed",      "failed",       "assertion or abort",
                                            "crash",       "deadlock",     "endless wait",
                                            "no progress", "spin",         "stuck",
                                            "limit",       "not simulated"};
    return NAMES[static_cast<int>(outcome)];
}

std::string LibraryPath()
{
    if (const char* const named = std::getenv("ZOR_SIM_LIBRARY")) {
        return named;
    }
    char self[4096];
    const ssize_t size = readlink("/proc/self/exe", self, sizeof(self));
    const std::string path(self, size > 0 ? static_cast<std::size_t>(size) : 0);
    const std::string prefix = path.substr(0, path.rfind('/') + 1);
    for (const char* const place : {"../lib/libzor-sim.so", ZOR_SIM_LIBRARY_FROM_BIN}) {
        if (access((prefix + place).c_str(), R_OK) == 0) {
            return prefix + place;
        }
    }
    return {};
}

RunResult RunProgram(const RunOptions& options)
{
    const SharedReport shared(options);
    const File output(options.ownOutput ? -1 : memfd_create("zor-sim-output", MFD_CLOEXEC));
    Image image;
    MakeEnvironment(options, shared, &image);
    std::vector<std::string> command = Command(options, shared);
    AddPointers(command, &image.arguments);
    for (const std::string& file : options.filesToRemove) {
        if (unlink(file.c_str()) != 0 && errno != ENOENT) {
            throw std::system_error(errno, std::generic_category(), file + " cannot be removed");
        }
    }
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child < 0) {
        throw Error("no process can be made");
    }
    if (child == 0) {
        Execute(options, &image, output.Get(), parent);
    }
    RunResult result;
    int status = 0;
    result.outcome = Watch(options, child, shared.Get()).Await(&status);
    Report* const report = shared.Get();
    result.report = std::make_unique<Report>(*report);
    result.decisions.assign(
        DecisionsMade(report),
        DecisionsMade(report) + std::min<std::uint64_t>(report->decisionCount, MAX_DECISIONS));
    result.records.assign(Records(report), Records(report) + report->recordCount);
    result.output = ReadAll(output.Get());
    Judge(options, status, &result);
    return result;
}

} // namespace zorsim
