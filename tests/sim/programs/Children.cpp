/// A thread that waits for a child, beside one whose time is virtual.
#include <spawn.h>
#include <sys/wait.h>

#include <chrono>
#include <thread>

extern char** environ;

int main()
{
    std::thread sleeper([] { std::this_thread::sleep_for(std::chrono::hours(1)); });
    pid_t child = 0;
    char program[] = "/bin/true";
    char* arguments[] = {program, nullptr};
    if (posix_spawn(&child, program, nullptr, nullptr, arguments, environ) != 0) {
        return 1;
    }
    int status = 1;
    const bool ended = waitpid(child, &status, 0) == child;
    sleeper.join();
    return ended ? status : 1;
}
