/// The flag is looked at before the wait without the lock: a signal in between is lost.
#include <pthread.h>

#include <atomic>
#include <thread>

namespace {
pthread_mutex_t g_lock = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t g_changed = PTHREAD_COND_INITIALIZER;
std::atomic<bool> g_ready{false};
} // namespace

int main()
{
    std::thread other([] {
        g_ready = true;
        pthread_cond_signal(&g_changed);
    });
    if (!g_ready) {
        pthread_mutex_lock(&g_lock);
        pthread_cond_wait(&g_changed, &g_lock);
        pthread_mutex_unlock(&g_lock);
    }
    other.join();
}
