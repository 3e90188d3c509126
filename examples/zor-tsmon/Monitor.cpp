#include "Monitor.h"

#include <poll.h>
#include <signal.h>

#include <utility>

#include "Completion.h"
#include "DisplayTask.h"
#include "Log.h"
#include "ParserTask.h"
#include "ReaderTask.h"
#include "ServicesTask.h"

namespace tsmon {

namespace {

unsigned long long AsLogged(std::uint64_t number)
{
    return number;
}

Outcome Failed(const std::string& reason)
{
    Outcome outcome;
    outcome.failure = "cannot be read: " + reason;
    return outcome;
}

/// The tasks and what becomes of them. Each is created after the one that it sends to, and ends
/// before it, so none ever sends to a task that is not there.
class Monitor
{
 public:
    Monitor(const Options& options, Signals& signals, std::ostream& tables, ProgressLine& progress)
        : m_signals(signals),
          m_reader(options.file, options.realtime, m_parser, options.inputTimeout),
          m_display(options, {m_reader, m_parser, m_services}, tables, progress, m_outputLost)
    {}

    Outcome Run()
    {
        if (!m_done.IsValid() || !m_outputLost.IsValid() || !m_signals.IsValid()) {
            return Failed("no descriptors left to wait for it with");
        }
        if (!m_services.Start()) {
            return Failed("no task to keep its services");
        }
        const std::string reason = RunParser();
        EndTask(m_services);
        return reason.empty() ? Collect() : Failed(reason);
    }

 private:
    /// @return why that was not possible
    std::string RunParser()
    {
        if (!m_parser.Start()) {
            return "no task to parse it";
        }
        const bool isRead = m_reader.Start();
        if (isRead) {
            RunDisplay();
            EndTask(m_reader);
        }
        EndTask(m_parser);
        if (!isRead) {
            return "no task to read it";
        }
        LogHandled();
        return "";
    }

    /// What it shows can be done without.
    void RunDisplay()
    {
        const bool isShown = m_display.IsNeeded() && m_display.Start("TsDisplay");
        if (m_display.IsNeeded() && !isShown) {
            ZOR_LOG_TAGGED(LOG_TAG, false, DLOG_WARN, "no task to show the progress");
        }
        AwaitEnd();
        if (isShown) {
            EndTask(m_display);
        }
    }

    /// Once all tasks have ended.
    Outcome Collect() const
    {
        Outcome outcome;
        outcome.failure = m_reader.Failure().empty() ? m_parser.Failure() : m_reader.Failure();
        outcome.counts = m_reader.Counts();
        outcome.table = m_services.Table();
        outcome.statistics = m_parser.Statistics();
        outcome.inputLosses = m_reader.InputLosses();
        outcome.packetlessInputs = m_reader.PacketlessInputs();
        outcome.stopped = m_reader.IsStopped();
        outcome.lacksClock = m_reader.LacksClock();
        return outcome;
    }

    /// Returns when everything that was read has been handled.
    void AwaitEnd()
    {
        pollfd files[] = {{m_done.Descriptor(), POLLIN, 0},
                          {m_signals.Descriptor(), POLLIN, 0},
                          {m_outputLost.Descriptor(), POLLIN, 0}};
        while ((files[0].revents & POLLIN) == 0) {
            poll(files, std::size(files), -1);
            while (const std::optional<int> signal = m_signals.Take()) {
                OnSignal(*signal);
            }
            if ((files[2].revents & POLLIN) != 0) {
                files[2] = {-1, 0, 0}; // it happens once; a negative descriptor is passed over
                ZOR_LOG_TAGGED(LOG_TAG, false, DLOG_WARN,
                               "standard output could not be written: reads no more");
                Stop();
            }
        }
    }

    void OnSignal(int signal)
    {
        switch (signal) {
            case SIGUSR1:
                Pause();
                break;
            case SIGUSR2:
                Resume();
                break;
            default:
                ZOR_LOG_TAGGED(LOG_TAG, false, DLOG_INFO, "stopped by signal %s: reads no more",
                               Signals::Name(signal));
                Stop();
        }
    }

    void Stop()
    {
        m_stopped = true;
        m_reader.StopReading();
        Resume(); // the stop is ahead of everything that waits for the end of a pause
    }

    void Pause()
    {
        if (m_stopped) {
            return; // the end must not wait for a resumption
        }
        if (!m_reader.Pause()) {
            ZOR_LOG_TAGGED(LOG_TAG, false, DLOG_WARN, "cannot be paused");
            return;
        }
        const std::optional<ServiceTable> table = m_services.Ask();
        ZOR_LOG_TAGGED(LOG_TAG, false, DLOG_INFO, "paused after %llu packets, with %zu services",
                       AsLogged(m_reader.Counts().packets),
                       table ? table->Services().size() : std::size_t{0});
    }

    void Resume()
    {
        if (m_reader.IsPaused() && m_reader.ResumeAsync()) {
            ZOR_LOG_TAGGED(LOG_TAG, false, DLOG_INFO, "resumed");
        }
    }

    void LogHandled() const
    {
        const ParserCounts& counts = m_parser.Counts();
        for (const auto& [pid, packets] : counts.perPid) {
            ZOR_LOG_TAGGED(LOG_TAG, false, DLOG_DEBUG, "PID 0x%04x: %llu packets", pid,
                           AsLogged(packets));
        }
        ZOR_LOG_TAGGED(LOG_TAG, false, DLOG_INFO,
                       "%llu packets handled, %llu of them of elementary streams, on %zu PIDs; "
                       "%llu times a queue was full and waited for",
                       AsLogged(counts.Packets()), AsLogged(counts.streamPackets),
                       counts.perPid.size(), AsLogged(m_reader.Refusals() + m_parser.Refusals()));
    }

    Signals& m_signals;
    bool m_stopped = false; ///< the reader has been told to read no more
    Completion m_done;
    Completion m_outputLost;
    ServicesTask m_services{m_done};
    ParserTask m_parser{m_services};
    ReaderTask m_reader;
    DisplayTask m_display;
};

} // namespace

Outcome MonitorFile(const Options& options, Signals& signals, std::ostream& tables,
                    ProgressLine& progress)
{
    const std::string name = options.InputName();
    ZOR_LOG_TAGGED(LOG_TAG, false, DLOG_INFO, "reading %s", name.c_str());
    Outcome outcome = Monitor(options, signals, tables, progress).Run();
    ZOR_LOG_TAGGED(LOG_TAG, false, DLOG_INFO, "end of %s: %llu packets, %llu damaged, %zu services",
                   name.c_str(), AsLogged(outcome.counts.packets),
                   AsLogged(outcome.counts.Damaged()), outcome.table.Services().size());
    return outcome;
}

} // namespace tsmon
