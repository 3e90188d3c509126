#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

/// What came of a child process.
struct TSChildResult
{
    pid_t pid = -1;
    int status = -1; ///< as waitpid() gives it
    std::string err; ///< all that was written to its standard error

    /// The exit code; -1 if a signal ended the process.
    int ExitCode() const;

    /// Standard error line by line, without the newlines.
    std::vector<std::string> Lines() const;
};

/// Runs a function in a forked process with an environment and a standard error of its own. The
/// platform log reads its configuration once in a process, so what a test wants to see of it
/// happens in such a child; the test program itself writes no entry and starts no thread.
class TCChildProcess
{
 public:
    TCChildProcess();

    TCChildProcess& Env(const std::string& name, const std::string& value);

    /// Standard error is a terminal instead of a pipe.
    TCChildProcess& OnTerminal();

    /// JOURNAL_STREAM names the child's standard error.
    TCChildProcess& OnJournal();

    /// Runs @p body in the child, which then exits with the code that it returned.
    TSChildResult Run(const std::function<int()>& body) const;

 private:
    void OpenStream(int* readEnd, int* writeEnd) const;
    [[noreturn]] void RunChild(int writeEnd, const std::function<int()>& body) const;

    std::vector<std::pair<std::string, std::string>> m_env;
    bool m_onTerminal = false;
    bool m_onJournal = false;
};
