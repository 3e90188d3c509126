#include "FfmpegRun.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

namespace made {

namespace {

/// A busy machine takes its time, but nothing here takes so much of it.
constexpr const char* DEADLINE_SECONDS = "200";

/// Runs a program that is searched for in PATH.
///
/// @return its exit code; 127 if there is no such program
int Run(std::vector<std::string> arguments, const std::string& out, const std::string& err)
{
    arguments.insert(arguments.begin(), {"timeout", DEADLINE_SECONDS});
    std::vector<char*> pointers;
    for (std::string& argument : arguments) {
        pointers.push_back(argument.data());
    }
    pointers.push_back(nullptr);
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    constexpr int FLAGS = O_WRONLY | O_CREAT | O_TRUNC;
    posix_spawn_file_actions_addopen(&files, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&files, STDOUT_FILENO, out.c_str(), FLAGS, 0600);
    if (!err.empty()) {
        posix_spawn_file_actions_addopen(&files, STDERR_FILENO, err.c_str(), FLAGS, 0600);
    }
    pid_t process = 0;
    const int spawned =
        posix_spawnp(&process, pointers[0], &files, nullptr, pointers.data(), environ);
    posix_spawn_file_actions_destroy(&files);
    int status = 0;
    if (spawned != 0 || waitpid(process, &status, 0) != process) {
        return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

} // namespace

bool HasFfmpeg()
{
    static const bool has = Run({"ffmpeg", "-version"}, "/dev/null", "/dev/null") == 0 &&
                            Run({"ffprobe", "-version"}, "/dev/null", "/dev/null") == 0;
    return has;
}

void RunFfmpeg(const std::vector<std::string>& arguments)
{
    std::vector<std::string> command = {"ffmpeg", "-v", "error", "-y"};
    command.insert(command.end(), arguments.begin(), arguments.end());
    EXPECT_EQ(Run(command, "/dev/null", ""), 0) << testing::PrintToString(command);
}

nlohmann::json RunFfprobe(const std::string& path, const std::string& directory)
{
    const std::string out = directory + "/ffprobe.json";
    // It complains of what is scrambled, cut or joined; how it takes that is what counts.
    const std::string log = directory + "/ffprobe.log";
    const int code = Run({"ffprobe", "-v", "error", "-of", "json", "-count_packets",
                          "-show_programs", "-show_format", path},
                         out, log);
    std::ifstream file(out);
    nlohmann::json report = nlohmann::json::parse(file, nullptr, false);
    if (code != 0 || !report.contains("programs")) {
        ADD_FAILURE() << "ffprobe ended with " << code << ": " << std::ifstream(log).rdbuf();
        return {{"programs", nlohmann::json::array()}, {"format", {{"duration", "0"}}}};
    }
    return report;
}

} // namespace made
