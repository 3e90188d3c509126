#pragma once

#include <optional>

namespace tsmon {

/// The signals that the daemon is told what to do by: SIGINT, SIGTERM, SIGUSR1 and SIGUSR2. They
/// come out of a file descriptor instead of interrupting a thread.
class Signals
{
 public:
    /// Keeps the signals from the calling thread and from those that it will start. Must be called
    /// before the process has any other thread: one that does not block them is killed by them.
    ///
    /// SIGPIPE is ignored from then on: a reader of the output that goes away is found by the write
    /// that fails, not by the death of the process.
    ///
    /// @return whether they are blocked
    static bool Block();

    Signals();
    ~Signals();

    Signals(const Signals&) = delete;
    Signals& operator=(const Signals&) = delete;

    /// Whether the system had a descriptor left. Without one no signal is ever taken.
    bool IsValid() const { return m_file >= 0; }

    /// Takes the oldest signal that is pending, without waiting.
    std::optional<int> Take();

    /// Readable while a signal is pending. Stays the object's.
    int Descriptor() const { return m_file; }

    /// The name of one of the signals.
    static const char* Name(int signal);

 private:
    int m_file;
};

} // namespace tsmon
