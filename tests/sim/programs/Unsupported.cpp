/// Does what is not simulated.
#include <sys/time.h>

int main()
{
    itimerval none = {};
    return setitimer(ITIMER_REAL, &none, nullptr);
}
