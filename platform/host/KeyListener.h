#pragma once

#include <pthread.h>
#include <sys/types.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string_view>
#include <vector>

#include "KeyCombination.h"
#include "KeyFifo.h"

namespace zorhost {

/// Calls the handlers of combinations whose presses come through a FIFO, on a thread of its own,
/// "zor-keys". Any thread may call anything, but a handler must not stop the listener.
///
/// A handler that forks has a copy of this thread go on in the child when it returns there. The
/// presses are the parent's, so the listener ends such a child.
class TCKeyListener
{
 public:
    TCKeyListener() = default;
    /// Stops the listener: its code is about to be unloaded.
    ~TCKeyListener() { Stop(); }

    TCKeyListener(const TCKeyListener&) = delete;
    TCKeyListener& operator=(const TCKeyListener&) = delete;

    /// Starts the thread. Nothing happens if it runs.
    ///
    /// @param path  of the FIFO; null or empty: nobody presses keys, and there is no thread
    void Start(const char* path);

    /// Ends the thread, after the handler that it may be calling.
    void Stop();

    void Add(KeyComb combination, KeyCombHandler handler);

    /// Waits for the handler if it is being called now, unless a handler calls this.
    void Remove(KeyComb combination, KeyCombHandler handler);

 private:
    struct TSHandler
    {
        KeyComb combination;
        KeyCombHandler function;

        bool operator==(const TSHandler& other) const
        {
            return combination == other.combination && function == other.function;
        }
    };

    static void* ThreadMain(void* listener);
    void Listen();
    void TakeLine(std::string_view line);
    void Press(KeyComb combination, char* text);
    bool BeginCall(const TSHandler& handler);
    void EndCall();
    std::vector<TSHandler> HandlersOf(KeyComb combination);
    bool StartThreadLocked();

    // Whether the thread runs; taken before m_lock. Held while the thread is joined.
    std::mutex m_lifeLock;

    // Guarded by m_lifeLock.
    pthread_t m_thread{};
    int m_stopEvent = -1; ///< readable from Stop() on

    // Read without a lock: 0 while there is no thread, else the process that it belongs to.
    std::atomic<pid_t> m_process{0};
    std::atomic<bool> m_stops{false};

    // The thread's while it runs.
    TCKeyFifo m_fifo;

    // Guards everything below. No handler runs under it.
    std::mutex m_lock;
    std::condition_variable m_callEnded;
    std::vector<TSHandler> m_handlers; ///< in the order of their adding
    TSHandler m_called{};              ///< without a function while none is called
};

} // namespace zorhost
