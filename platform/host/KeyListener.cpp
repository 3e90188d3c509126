#include "KeyListener.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <iterator>

#include "KeyLine.h"

namespace zorhost {
namespace {

constexpr char THREAD_NAME[] = "zor-keys";

/// What a shell's child ends with that has not found its program.
constexpr int NO_PROGRAM = 127;

/// Whether this is a listener's thread.
thread_local bool t_listens = false;

} // namespace

void TCKeyListener::Start(const char* path)
{
    if (path == nullptr || *path == '\0' || t_listens) {
        return;
    }
    const std::lock_guard<std::mutex> lock(m_lifeLock);
    if (m_process != 0 || !m_fifo.Open(path)) {
        return;
    }
    if (!StartThreadLocked()) {
        m_fifo.Close();
    }
}

bool TCKeyListener::StartThreadLocked()
{
    m_stops = false;
    m_stopEvent = eventfd(0, EFD_CLOEXEC);
    int error = m_stopEvent < 0 ? errno : 0;
    if (error == 0) {
        m_process = getpid();
        error = pthread_create(&m_thread, nullptr, ThreadMain, this);
    }
    if (error == 0) {
        return true;
    }
    m_process = 0;
    if (m_stopEvent >= 0) {
        close(m_stopEvent);
    }
    ComplainOfKeys("the listener cannot be started: %s. No keys will come", strerror(error));
    return false;
}

void TCKeyListener::Stop()
{
    // In the child of a fork there is no thread to join, and its locks may be held for ever.
    if (m_process != getpid()) {
        return;
    }
    if (t_listens) {
        ComplainOfKeys("a handler cannot stop the listener that calls it; it goes on");
        return;
    }
    const std::lock_guard<std::mutex> lock(m_lifeLock);
    if (m_process == 0) {
        return; // another has stopped it meanwhile
    }
    m_stops = true;
    eventfd_write(m_stopEvent, 1);
    pthread_join(m_thread, nullptr);
    close(m_stopEvent);
    m_fifo.Close();
    m_process = 0;
}

void TCKeyListener::Add(KeyComb combination, KeyCombHandler handler)
{
    if (handler == nullptr) {
        return;
    }
    const std::lock_guard<std::mutex> lock(m_lock);
    m_handlers.push_back({combination, handler});
}

void TCKeyListener::Remove(KeyComb combination, KeyCombHandler handler)
{
    const TSHandler removed = {combination, handler};
    std::unique_lock<std::mutex> lock(m_lock);
    const auto found = std::find(m_handlers.begin(), m_handlers.end(), removed);
    if (found == m_handlers.end()) {
        return;
    }
    m_handlers.erase(found);
    if (!t_listens) {
        m_callEnded.wait(lock, [&] { return !(m_called == removed); });
    }
}

void* TCKeyListener::ThreadMain(void* listener)
{
    t_listens = true;
    pthread_setname_np(pthread_self(), THREAD_NAME);
    static_cast<TCKeyListener*>(listener)->Listen();
    return nullptr;
}

void TCKeyListener::Listen()
{
    auto state = TCKeyFifo::EResult::WAITING;
    while (state != TCKeyFifo::EResult::BROKEN) {
        // After some data it is read again at once, or a writer that has gone would go unnoticed.
        const int timeout = state == TCKeyFifo::EResult::WAITING ? -1 : 0;
        struct pollfd ready[] = {{m_stopEvent, POLLIN, 0}, {m_fifo.Fd(), POLLIN, 0}};
        poll(ready, std::size(ready), timeout);
        if (ready[0].revents != 0) {
            return;
        }
        state = m_fifo.Read([this](std::string_view line) { TakeLine(line); });
    }
}

void TCKeyListener::TakeLine(std::string_view line)
{
    TSKeyPress press;
    if (m_stops) {
        return;
    }
    if (!ParseKeyLine(line, &press)) {
        ComplainOfKeys(
            "the line '%s' is no key combination (a number, a blank and a text, as in '113 text')",
            Printable(line).c_str());
        return;
    }
    Press(press.combination, press.text.data());
}

void TCKeyListener::Press(KeyComb combination, char* text)
{
    const std::vector<TSHandler> handlers = HandlersOf(combination);
    if (handlers.empty()) {
        ComplainOfKeys("nothing handles combination %d ('%s')", combination,
                       Printable(text).c_str());
    }
    for (const TSHandler& handler : handlers) {
        if (!BeginCall(handler)) {
            continue;
        }
        handler.function(combination, text);
        if (getpid() != m_process) {
            // No lock is taken here: its owner does not exist in this process.
            ComplainOfKeys(
                "the handler of combination %d has returned in a child that it forked "
                "(is the program missing that it starts?); the child ends",
                combination);
            _exit(NO_PROGRAM);
        }
        EndCall();
    }
}

std::vector<TCKeyListener::TSHandler> TCKeyListener::HandlersOf(KeyComb combination)
{
    std::vector<TSHandler> found;
    const std::lock_guard<std::mutex> lock(m_lock);
    std::copy_if(
        m_handlers.begin(), m_handlers.end(), std::back_inserter(found),
        [combination](const TSHandler& handler) { return handler.combination == combination; });
    return found;
}

/// @return false if the handler has been removed or the listener stops
bool TCKeyListener::BeginCall(const TSHandler& handler)
{
    const std::lock_guard<std::mutex> lock(m_lock);
    if (m_stops || std::find(m_handlers.begin(), m_handlers.end(), handler) == m_handlers.end()) {
        return false;
    }
    m_called = handler;
    return true;
}

void TCKeyListener::EndCall()
{
    const std::lock_guard<std::mutex> lock(m_lock);
    m_called = {};
    m_callEnded.notify_all();
}

} // namespace zorhost
