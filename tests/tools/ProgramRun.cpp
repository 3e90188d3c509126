#include "ProgramRun.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>

extern char** environ;

namespace zortest {

namespace {

std::vector<char*> Pointers(std::vector<std::string>* texts)
{
    std::vector<char*> pointers;
    for (std::string& text : *texts) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

std::vector<std::string> Merge(const ProgramRun::Environment& own)
{
    ProgramRun::Environment merged;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text = *entry;
        const std::size_t equals = text.find('=');
        merged[text.substr(0, equals)] = text.substr(equals + 1);
    }
    for (const char* name : {"ZOR_RECORD", "ZOR_RECORD_SIZE", "ZOR_DLOG", "JOURNAL_STREAM"}) {
        merged.erase(name);
    }
    for (const auto& [name, value] : own) {
        merged[name] = value;
    }
    std::vector<std::string> entries;
    for (const auto& [name, value] : merged) {
        entries.push_back(name + "=" + value);
    }
    return entries;
}

std::string MakeTemporary()
{
    std::string name = testing::TempDir() + "zor-run-XXXXXX";
    const int fd = mkstemp(name.data());
    EXPECT_GE(fd, 0) << name;
    close(fd);
    return name;
}

} // namespace

ProgramRun::ProgramRun(const std::string& program, const std::vector<std::string>& arguments,
                       const Environment& environment)
    : m_errorFile(MakeTemporary())
{
    int ends[2];
    EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, m_errorFile.c_str(),
                                     O_WRONLY | O_APPEND, 0);
    std::vector<std::string> words = {program};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<std::string> entries = Merge(environment);
    EXPECT_EQ(posix_spawn(&m_pid, program.c_str(), &actions, nullptr, Pointers(&words).data(),
                          Pointers(&entries).data()),
              0)
        << program;
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    m_out = ends[0];
}

ProgramRun::~ProgramRun()
{
    if (m_pid > 0) {
        kill(m_pid, SIGKILL);
        Wait();
    }
}

std::string ProgramRun::ReadLine()
{
    std::size_t end = 0;
    while ((end = m_output.find('\n')) == std::string::npos) {
        char part[4096];
        const ssize_t length = read(m_out, part, sizeof(part));
        if (length > 0) {
            m_output.append(part, static_cast<std::size_t>(length));
        } else if (length == 0 || errno != EINTR) {
            return "";
        }
    }
    const std::string line = m_output.substr(0, end);
    m_output.erase(0, end + 1);
    return line;
}

void ProgramRun::Kill(int signal)
{
    EXPECT_EQ(kill(m_pid, signal), 0);
}

ProgramResult ProgramRun::Wait()
{
    ProgramResult result;
    char part[4096];
    for (;;) {
        const ssize_t length = read(m_out, part, sizeof(part));
        if (length > 0) {
            m_output.append(part, static_cast<std::size_t>(length));
        } else if (length == 0 || errno != EINTR) {
            break;
        }
    }
    close(m_out);
    result.out = m_output;
    int status = 0;
    while (waitpid(m_pid, &status, 0) < 0 && errno == EINTR) {
    }
    m_pid = -1;
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    result.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    result.err = ReadText(m_errorFile);
    unlink(m_errorFile.c_str());
    return result;
}

ProgramResult RunProgram(const std::string& program, const std::vector<std::string>& arguments,
                         const ProgramRun::Environment& environment)
{
    return ProgramRun(program, arguments, environment).Wait();
}

ScratchDirectory::ScratchDirectory()
{
    std::string name = testing::TempDir() + "zor-record-XXXXXX";
    EXPECT_NE(mkdtemp(name.data()), nullptr) << name;
    m_path = name;
}

ScratchDirectory::~ScratchDirectory()
{
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

std::string ReadText(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void WriteText(const std::string& path, const std::string& text)
{
    std::ofstream file(path, std::ios::binary);
    file << text;
    EXPECT_TRUE(file.flush().good()) << path;
}

} // namespace zortest
