#include "WatchedThread.h"

#include <pthread.h>
#include <unistd.h>

#include <chrono>

#include "brisk_deadlock.h"

TCWatchedThread::TCWatchedThread(const std::string& name, unsigned long seconds, EDuty duty)
    : m_name(name), m_duty(duty), m_seconds(seconds), m_thread(&TCWatchedThread::Run, this)
{
    std::unique_lock<std::mutex> lock(m_lock);
    m_changed.wait(lock, [this] { return m_order == EOrder::NONE; });
}

TCWatchedThread::~TCWatchedThread()
{
    {
        const std::lock_guard<std::mutex> lock(m_lock);
        m_order = EOrder::END;
        m_changed.notify_all();
    }
    m_thread.join();
}

void TCWatchedThread::NotifyOnce()
{
    GiveOrder(EOrder::NOTIFY, 0);
}

void TCWatchedThread::RegisterAgain(unsigned long seconds)
{
    GiveOrder(EOrder::REGISTER, seconds);
}

int TCWatchedThread::Errors()
{
    const std::lock_guard<std::mutex> lock(m_lock);
    return m_errors;
}

void TCWatchedThread::GiveOrder(EOrder order, unsigned long seconds)
{
    std::unique_lock<std::mutex> lock(m_lock);
    m_order = order;
    m_seconds = seconds;
    m_changed.notify_all();
    m_changed.wait(lock, [this] { return m_order == EOrder::NONE; });
}

void TCWatchedThread::Run()
{
    std::unique_lock<std::mutex> lock(m_lock);
    pthread_setname_np(pthread_self(), m_name.c_str());
    m_tid = gettid();
    while (m_order != EOrder::END) {
        ObeyLocked();
        if (m_duty == EDuty::NOTIFY) {
            m_errors += brisk_deadlock_watchdog_notify();
            m_changed.wait_for(lock, std::chrono::milliseconds(10));
        } else {
            m_changed.wait(lock);
        }
    }
}

void TCWatchedThread::ObeyLocked()
{
    if (m_order == EOrder::NONE) {
        return;
    }
    m_errors += m_order == EOrder::REGISTER ? brisk_deadlock_register_watchdog_service(m_seconds)
                                            : brisk_deadlock_watchdog_notify();
    m_order = EOrder::NONE;
    m_changed.notify_all();
}
