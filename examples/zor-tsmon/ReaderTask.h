#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>

#include "Messages.h"
#include "Stepper.h"
#include "Task.h"

namespace tsmon {

/// Reads a file into the queues of a parser, a step for each event that it sends itself, so that
/// stop, pause and ping come in between any two. Where it has to wait (for room in a queue, for the
/// stream's clock or for input) it sends itself nothing, and goes on when it is idle.
class ReaderTask : public TCTask
{
 public:
    /// @param realtime  whether to read at the stream's own clock
    /// @param parser    gets MESSAGE_PACKETS, each in the queue of its kind, and behind all of them
    ///                  one MESSAGE_END in QUEUE_STREAMS; must outlive the task
    ReaderTask(std::string path, bool realtime, TCMultiQTask& parser);

    /// Creates the task and has it begin. EndTask() ends it.
    bool Start();

    /// Has it read no more. What it has read is still handed over, without regard to the clock. Any
    /// thread but the task's own may call while the task is created.
    void StopReading();

    bool t_OnEvent(const TSEvent* event) override;
    void t_Idle() override;
    void t_OnResume(const TSEvent* event) override;

    /// How often a queue had no room for a block, or for the end. Any thread may call.
    std::uint64_t Refusals() const { return m_refusals; }

    // What follows may be read while the task is paused, and once it has ended.

    const std::string& Failure() const { return m_failure; }
    StreamCounts Counts() const { return m_stepper ? m_stepper->Counts() : StreamCounts(); }

    /// Whether StopReading() came before the end of the file.
    bool IsStopped() const { return m_stepper && m_stepper->IsStopped(); }

    /// Whether there was no clock to read at.
    bool LacksClock() const { return m_realtime && m_stepper && !m_stepper->HasClock(); }

 private:
    void Step();
    bool DoStep();
    bool SendUnsent();
    TSEvent ToParser(EMessage type, EParserQueue queue);
    void SendStep();
    void OnStop();
    void LogDamage();

    const std::string m_path;
    const bool m_realtime;
    TCMultiQTask& m_parser;
    std::atomic<std::uint64_t> m_refusals{0};

    // The task's thread's only while it runs.
    std::optional<Stepper> m_stepper; ///< from the first step on, if the file could be opened
    std::optional<TSEvent> m_unsent;  ///< made for the parser, not yet in its queue
    bool m_hasEnded = false;          ///< the end is with the parser
    std::uint64_t m_loggedDamage = 0;
    std::string m_failure;
};

} // namespace tsmon
