#pragma once

#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

namespace zortest {

/// What came of a program.
struct ProgramResult
{
    int exitCode = -1; ///< -1 if a signal ended it
    int signal = 0;
    std::string out;
    std::string err;
};

/// A program that runs with an environment of its own on top of the test's, in which nothing is
/// recorded unless it says so.
class ProgramRun
{
 public:
    using Environment = std::map<std::string, std::string>;

    ProgramRun(const std::string& program, const std::vector<std::string>& arguments,
               const Environment& environment = {});

    /// Kills the program if it still runs.
    ~ProgramRun();

    ProgramRun(const ProgramRun&) = delete;
    ProgramRun& operator=(const ProgramRun&) = delete;

    /// The next line of the program's standard output, without the end of line; empty at its end.
    std::string ReadLine();

    void Kill(int signal);

    /// Waits until the program has ended.
    ProgramResult Wait();

    pid_t Pid() const { return m_pid; }

 private:
    pid_t m_pid = -1;
    int m_out = -1;       ///< the reading end of the program's standard output
    std::string m_output; ///< read ahead
    std::string m_errorFile;
};

/// Runs a program to its end.
ProgramResult RunProgram(const std::string& program, const std::vector<std::string>& arguments,
                         const ProgramRun::Environment& environment = {});

/// A directory of one test's own, removed with everything in it at the end.
class ScratchDirectory
{
 public:
    ScratchDirectory();
    ~ScratchDirectory();

    ScratchDirectory(const ScratchDirectory&) = delete;
    ScratchDirectory& operator=(const ScratchDirectory&) = delete;

    std::string Path(const std::string& name) const { return m_path + "/" + name; }

 private:
    std::string m_path;
};

std::string ReadText(const std::string& path);
void WriteText(const std::string& path, const std::string& text);

} // namespace zortest
