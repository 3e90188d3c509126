#include "ReaderTask.h"

#include <exception>
#include <utility>

#include "Log.h"

namespace tsmon {

namespace {

/// How long it waits before it tries again: short against the distance of clock references.
constexpr std::chrono::milliseconds IDLE(5);

/// Bytes without a packet in which there would be thousands. A damaged recording has smaller gaps.
constexpr std::uint64_t PACKETLESS_BYTES = UINT64_C(4) * 1024 * 1024;

unsigned long long AsLogged(std::uint64_t number)
{
    return number;
}

} // namespace

ReaderTask::ReaderTask(std::string path, bool realtime, TCMultiQTask& parser,
                       std::chrono::milliseconds inputTimeout)
    : m_path(std::move(path)), m_realtime(realtime), m_parser(parser), m_inputTimeout(inputTimeout)
{}

bool ReaderTask::Start()
{
    SetRecorded(true);
    if (!Task::Start("TsReader", {IDLE, STACK_SIZE, WATCHDOG_TIME})) {
        return false;
    }
    Post(GoOn());
    return true;
}

void ReaderTask::StopReading()
{
    Post(NoMore(), zor::WaitAtMost(FOR_EVER, zor::Order::FIRST));
}

void ReaderTask::t_Idle()
{
    Step();
}

void ReaderTask::t_OnPause(const TSEvent* event)
{
    Task::t_OnPause(event);
    m_inputTimer.Pause();
}

void ReaderTask::t_OnResume(const TSEvent* event)
{
    Task::t_OnResume(event);
    m_inputTimer.Resume();
    if (m_stepper) {
        m_stepper->RestartPace();
    }
}

void ReaderTask::Step()
{
    if (m_hasEnded) {
        return;
    }
    bool goesOn = true;
    try {
        goesOn = DoStep();
    } catch (const std::exception& error) {
        m_failure = error.what(); // the end follows
    }
    if (goesOn) {
        Post(GoOn()); // if there is no room, the next idle time does it
    }
}

/// @return whether the next step can be done at once
bool ReaderTask::DoStep()
{
    if (m_unsent) {
        return SendUnsent();
    }
    if (!m_stepper && m_failure.empty()) {
        m_stepper.emplace(m_path, m_realtime);
        m_isFile = SizeOf(m_path).has_value();
    }
    const auto now = std::chrono::steady_clock::now();
    switch (m_failure.empty() ? m_stepper->Advance(now) : Stepper::Step::END) {
        case Stepper::Step::READ:
            OnRead();
            return true;
        case Stepper::Step::BATCH: {
            Batch batch = m_stepper->Take();
            m_unsent = ToParser(MESSAGE_PACKETS, batch.elementary ? QUEUE_STREAMS : QUEUE_TABLES);
            m_unsent->setWrappedData(std::move(batch));
            return SendUnsent();
        }
        case Stepper::Step::END:
            EndWaitForInput();
            m_unsent = ToParser(MESSAGE_END, QUEUE_STREAMS);
            return SendUnsent();
        default:
            if (m_stepper->AwaitsInput()) {
                AwaitInput();
            }
            return false;
    }
}

/// @return whether the parser had room for it
bool ReaderTask::SendUnsent()
{
    if (!TCMultiQTask::Send(&*m_unsent, false, false, m_unsent->param1)) {
        ++m_refusals;
        return false;
    }
    m_hasEnded = m_unsent->type == MESSAGE_END;
    m_unsent.reset();
    return !m_hasEnded;
}

TSEvent ReaderTask::ToParser(EMessage type, EParserQueue queue)
{
    TSEvent event;
    event.receiver = &m_parser;
    event.type = type;
    event.flag = true;
    event.param1 = queue;
    return event;
}

void ReaderTask::On(const NoMore& /*stop*/)
{
    try {
        if (!m_stepper && m_failure.empty()) {
            m_stepper.emplace(m_path, m_realtime);
        }
        if (m_stepper && m_failure.empty()) {
            m_stepper->Stop();
            LogDamage();
        }
    } catch (const std::exception& error) {
        m_failure = error.what(); // the end follows
    }
}

void ReaderTask::OnRead()
{
    LogDamage();
    LogPacketSize();
    const StreamCounts& counts = m_stepper->Counts();
    const bool hasBytes = m_bytesRead.exchange(counts.bytes) != counts.bytes;
    const std::uint64_t packets = counts.packets + counts.transportErrors;
    const bool hasPackets = std::exchange(m_packetsRead, packets) != packets;
    if (hasBytes && hasPackets) {
        OnPackets();
    } else if (hasBytes) {
        OnBytesWithoutPackets();
    }
    // Packets without bytes were held back: they do not end the wait.
}

void ReaderTask::OnPackets()
{
    if (m_isInputLost) {
        const std::chrono::duration<double> silence =
            std::chrono::steady_clock::now() - m_waitingSince;
        ZOR_LOG_TAGGED(LOG_TAG, false, DLOG_WARN, "input is back after %.1f s", silence.count());
    } else if (m_isPacketless) {
        ZOR_LOG_TAGGED(LOG_TAG, false, DLOG_WARN, "packets are back after %llu bytes without",
                       AsLogged(BytesSincePacket()));
    }
    m_bytesAtPacket = m_bytesRead;
    EndWaitForInput();
}

/// A pipe may come to packets yet, and a file that had some may be damaged.
void ReaderTask::OnBytesWithoutPackets()
{
    if (m_isPacketless) {
        return;
    }
    if (BytesSincePacket() >= PACKETLESS_BYTES) {
        if (m_isFile && m_packetsRead == 0) {
            throw InputError("is not a transport stream: no 188-byte packets in its first " +
                             std::to_string(m_bytesRead) + " bytes");
        }
        ReportPacketless();
    } else if (m_isInputLost && BytesSincePacket() >= BYTES_TO_RECOGNISE) {
        ReportPacketless(); // not what was waited for
    }
}

void ReaderTask::ReportPacketless()
{
    m_isPacketless = true;
    ++m_packetlessInputs;
    ZOR_LOG_TAGGED(LOG_TAG, false, DLOG_WARN, "data, but no packets: none in %llu bytes",
                   AsLogged(BytesSincePacket()));
}

void ReaderTask::AwaitInput()
{
    if (!m_inputTimer) {
        m_waitingSince = std::chrono::steady_clock::now();
        m_inputTimer = After(m_inputTimeout, [this] { OnInputTimeout(); });
    }
}

void ReaderTask::EndWaitForInput()
{
    m_inputTimer.Cancel(); // takes back a firing that is queued already
    m_isInputLost = false;
    m_isPacketless = false;
}

void ReaderTask::OnInputTimeout()
{
    if (BytesSincePacket() >= BYTES_TO_RECOGNISE) {
        if (!m_isPacketless) {
            ReportPacketless();
        }
        return;
    }
    m_isInputLost = true;
    ++m_inputLosses;
    ZOR_LOG_TAGGED(LOG_TAG, false, DLOG_WARN, "input lost: no packet for %.1f s",
                   std::chrono::duration<double>(m_inputTimeout).count());
}

void ReaderTask::LogPacketSize()
{
    const std::size_t size = m_stepper->Counts().packetSize;
    if (size != 0 && size != m_loggedPacketSize) {
        ZOR_LOG_TAGGED(LOG_TAG, false, DLOG_INFO, "packets of %zu bytes", size);
        m_loggedPacketSize = size;
    }
}

void ReaderTask::LogDamage()
{
    const StreamCounts& counts = m_stepper->Counts();
    if (counts.Damaged() != m_loggedDamage) {
        ZOR_LOG_TAGGED(LOG_TAG, false, DLOG_WARN,
                       "%llu damaged packets before byte %llu, %llu in all",
                       AsLogged(counts.Damaged() - m_loggedDamage), AsLogged(counts.bytes),
                       AsLogged(counts.Damaged()));
        m_loggedDamage = counts.Damaged();
    }
}

} // namespace tsmon
