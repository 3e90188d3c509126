#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

/// A thread that puts itself under supervision and then does as it is told. The constructor returns
/// when the thread is registered and has done its first duty; the destructor ends the thread.
class TCWatchedThread
{
 public:
    enum class EDuty
    {
        NOTIFY, ///< a sign of life every few milliseconds
        HANG,   ///< none
    };

    TCWatchedThread(const std::string& name, unsigned long seconds, EDuty duty);
    ~TCWatchedThread();

    /// Returns when the thread has given one more sign of life; then it goes on with its duty.
    void NotifyOnce();

    /// Returns when the thread has registered again with another time-out.
    void RegisterAgain(unsigned long seconds);

    pid_t Tid() const { return m_tid; }

    /// The sum of all results: 0 if every registration and notification went well.
    int Errors();

 private:
    enum class EOrder
    {
        NONE,
        NOTIFY,
        REGISTER,
        END,
    };

    void Run();
    void ObeyLocked();
    void GiveOrder(EOrder order, unsigned long seconds);

    // Fixed after creation, but for the thread id, which the thread writes before it is ready.
    const std::string m_name;
    const EDuty m_duty;
    pid_t m_tid = 0;

    // Guarded by m_lock.
    std::mutex m_lock;
    std::condition_variable m_changed;
    unsigned long m_seconds;
    EOrder m_order = EOrder::REGISTER;
    int m_errors = 0;

    std::thread m_thread;
};
