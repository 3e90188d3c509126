/// A child that is not simulated takes longer than anything that comes from outside is waited for.
#include <sys/wait.h>
#include <unistd.h>

int main()
{
    constexpr unsigned int SECONDS = 15;

    const pid_t child = fork();
    if (child == 0) {
        for (unsigned int left = SECONDS; left > 0;) {
            left = sleep(left);
        }
        _exit(7);
    }
    int status = 0;
    return waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 7 ? 0
                                                                                                : 1;
}
