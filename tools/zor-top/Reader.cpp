#include "Reader.h"

#include <sys/times.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <set>

#include "Problem.h"

namespace zortop {
namespace {

constexpr int TRIES = 8; // after which what keeps changing is left out
constexpr std::size_t MOST_TASKS = 65536;
constexpr std::uint64_t MOST_QUEUES = 1024;
constexpr std::uint64_t ENDED = 0xFFFFFFFF; // a thread's handle when its body has returned

template <typename Read>
bool Try(const Read& read)
{
    for (int i = 0; i < TRIES; ++i) {
        if (read()) {
            return true;
        }
    }
    return false;
}

bool IsName(const std::string& name)
{
    return std::all_of(name.begin(), name.end(),
                       [](unsigned char c) { return c >= ' ' && c != 0x7F; });
}

/// The process, if there is such a one and it may be read.
pid_t Readable(pid_t pid)
{
    CheckProcess(pid);
    const Memory memory(pid);
    char byte = 0;
    errno = 0;
    const std::vector<Mapping> mappings = MappingsOf(pid);
    if (!mappings.empty() && !memory.Read(mappings.front().begin, &byte) && errno == EPERM) {
        throw Problem(NO_PERMISSION, RefusedText(pid));
    }
    return pid;
}

/// Milliseconds of the clock that synchronous sends are stamped with, as TCTimeWrapper::Tick() has
/// them, cut to the width of the stamp.
std::uint32_t TickMsec()
{
    tms unused{};
    const auto ticks = static_cast<std::uint64_t>(times(&unused));
    return static_cast<std::uint32_t>(ticks *
                                      (1000 / static_cast<std::uint64_t>(sysconf(_SC_CLK_TCK))));
}

} // namespace

Reader::TaskPlaces::TaskPlaces(const Layout& layout)
    : handled(layout.Offset("TCTask.m_handledEvents.m_count")),
      receiver(layout.Offset("TCTask.m_handledEvents.m_receiver")),
      type(layout.Offset("TCTask.m_handledEvents.m_type")),
      name(layout.Offset("TCTask.m_taskName")),
      nameSize(layout.Size("TCTask.m_taskName")),
      kernelId(layout.Offset("TCTask:TCThread") + layout.Offset("TCThread.m_kernelId")),
      handle(layout.Offset("TCTask:TCThread") + layout.Offset("TCThread.m_thread")),
      owner(layout.Offset("TCTask:TCHandler") + layout.Offset("TCHandler.task")),
      running(layout.Offset("TCTask.m_running")),
      exiting(layout.Offset("TCTask.m_exit")),
      paused(layout.Offset("TCTask.m_paused")),
      watchdog(layout.Offset("TCTask.m_watchdogTime")),
      furtherQueues(layout.Offset("TCTask.m_furtherQueues")),
      ownHandler(layout.Offset("TCTask:TCHandler")),
      queue(layout.Offset("TCTask:TCQueue")),
      queueArray(layout.Offset("TCMultiQTask:TCTask") +
                 layout.Offset("TCMultiQTask.m_pQueueArray")),
      queueCount(layout.Offset("TCMultiQTask:TCTask") + layout.Offset("TCMultiQTask.m_queueSize"))
{}

Reader::QueuePlaces::QueuePlaces(const Layout& layout)
    : depth(layout.Offset("TCQueue.m_count")),
      puts(layout.Offset("TCQueue.m_puts")),
      refused(layout.Offset("TCQueue.m_refused")),
      peak(layout.Offset("TCQueue.m_peak")),
      events(layout.Offset("TCQueue.m_eventCount"))
{}

Reader::Reader(pid_t pid)
    : m_pid(Readable(pid)),
      m_memory(pid),
      m_layout(m_memory, FindTable(pid)),
      m_task(m_layout),
      m_queue(m_layout),
      m_capacity(m_layout.Size("TCQueue.m_ring") / m_layout.Size("TSEvent")),
      m_threads(pid),
      m_classes(m_memory),
      m_waits(m_memory, m_layout, &m_classes)
{}

Snapshot Reader::Read()
{
    Snapshot snapshot;
    snapshot.atNsec = MonotonicNsec();
    ReadTasks(&snapshot);
    ReadThreads(&snapshot);
    NameReceivers(&snapshot);
    if (!Try([&] { return ReadCalls(&snapshot.calls); })) {
        snapshot.remarks.emplace_back("the table of synchronous calls keeps changing");
    }
    snapshot.tickMsec = TickMsec();
    if (!Try([&] { return ReadTimers(&snapshot.timers); })) {
        snapshot.remarks.emplace_back("the timers keep changing");
    }
    ReadRegistryHolder(&snapshot);
    if (snapshot.threads.empty()) {
        throw Problem(NO_TARGET, "process " + std::to_string(m_pid) + " has ended");
    }
    snapshot.tookNsec = MonotonicNsec() - snapshot.atNsec;
    return snapshot;
}

/// The nodes of the list lead around to its begin and back; as many as it says.
bool Reader::ReadRegistry(std::vector<Address>* tasks) const
{
    const Address list = m_layout.Object("TCTaskList::m_taskList");
    const std::uint64_t next = m_layout.Offset("std::list.next");
    const std::uint64_t value = m_layout.Offset("std::list.value");
    const std::uint64_t size = m_layout.Offset("std::list.size");
    std::uint64_t before = 0;
    std::uint64_t after = 0;
    Address node = 0;
    tasks->clear();
    if (!m_memory.Read(
            {{list + size, &before, sizeof(before)}, {list + next, &node, sizeof(node)}}) ||
        before > MOST_TASKS) {
        return false;
    }
    while (node != list) {
        Address task = 0;
        if (tasks->size() >= before || !m_memory.Read({{node + value, &task, sizeof(task)},
                                                       {node + next, &node, sizeof(node)}})) {
            return false;
        }
        tasks->push_back(task);
    }
    return m_memory.Read(list + size, &after) && after == before && tasks->size() == before;
}

void Reader::ReadTasks(Snapshot* snapshot)
{
    std::vector<Address> addresses;
    if (!Try([&] { return ReadRegistry(&addresses); })) {
        snapshot->remarks.emplace_back("the registry keeps changing: tasks may be missing");
    }
    std::size_t leftOut = 0;
    for (const Address address : addresses) {
        TaskFacts task;
        if (Try([&] { return ReadTask(address, &task); })) {
            snapshot->tasks.push_back(std::move(task));
        } else {
            ++leftOut;
        }
    }
    if (leftOut != 0) {
        snapshot->remarks.push_back(std::to_string(leftOut) +
                                    (leftOut == 1 ? " task keeps" : " tasks keep") +
                                    " changing and cannot be shown");
    }
}

/// What says that this is a task, and that it all belongs together: its handler leads back to it,
/// its name can be printed, and no more has been handled than was put.
bool Reader::ReadTask(Address address, TaskFacts* task) const
{
    *task = TaskFacts();
    task->address = address;
    Address furtherQueues = 0;
    if (!ReadMembers(address, task, &furtherQueues) || !ReadInHand(address, task) ||
        !ReadQueues(address, furtherQueues != 0, task)) {
        return false;
    }
    std::uint64_t puts = 0;
    for (const QueueFacts& queue : task->queues) {
        puts += queue.puts;
    }
    // The further queues take their numbers along when the task handles its exit event.
    return furtherQueues != 0 || task->handled <= puts;
}

bool Reader::ReadMembers(Address address, TaskFacts* task, Address* furtherQueues) const
{
    std::string name(m_task.nameSize, '\0');
    std::int32_t kernelId = -1;
    Address owner = 0;
    std::uint8_t running = 0;
    std::uint8_t exiting = 0;
    std::uint8_t paused = 0;
    if (!m_memory.Read({{address + m_task.owner, &owner, sizeof(owner)},
                        {address + m_task.name, name.data(), name.size()},
                        {address + m_task.kernelId, &kernelId, sizeof(kernelId)},
                        {address + m_task.handle, &task->handle, sizeof(task->handle)},
                        {address + m_task.running, &running, 1},
                        {address + m_task.exiting, &exiting, 1},
                        {address + m_task.paused, &paused, 1},
                        {address + m_task.watchdog, &task->watchdogSec, sizeof(task->watchdogSec)},
                        {address + m_task.furtherQueues, furtherQueues, sizeof(*furtherQueues)}})) {
        return false;
    }
    task->name = name.c_str();
    task->thread = kernelId > 0 && task->handle != ENDED ? kernelId : 0;
    task->isRunning = running == 1;
    task->isMultiQueue = *furtherQueues != 0;
    task->isExiting = exiting == 1;
    task->isPaused = paused == 1;
    return owner == address && IsName(task->name) && running <= 1 && exiting <= 1 && paused <= 1;
}

/// Receiver and type belong together if receiver and number are afterwards as they were before.
bool Reader::ReadInHand(Address address, TaskFacts* task) const
{
    std::uint64_t counts[2] = {};
    Address receivers[2] = {};
    std::uint64_t type = 0;
    const auto piece = [](Address from, std::uint64_t* to) { return Piece{from, to, sizeof(*to)}; };
    if (!m_memory.Read({piece(address + m_task.handled, &counts[0]),
                        piece(address + m_task.receiver, &receivers[0]),
                        piece(address + m_task.type, &type),
                        piece(address + m_task.receiver, &receivers[1]),
                        piece(address + m_task.handled, &counts[1])}) ||
        counts[1] < counts[0]) {
        return false;
    }
    task->handled = counts[0];
    task->inHand.reset();
    if (receivers[0] == 0) {
        return true;
    }
    InHand inHand;
    inHand.receiver = receivers[0];
    inHand.type = type;
    inHand.isOwn = receivers[0] == address + m_task.ownHandler;
    task->inHand = inHand;
    return counts[0] == counts[1] && receivers[0] == receivers[1];
}

bool Reader::ReadQueues(Address address, bool hasFurther, TaskFacts* task) const
{
    std::vector<Address> queues{address + m_task.queue};
    if (hasFurther) {
        Address array = 0;
        std::uint32_t count = 0;
        if (!m_memory.Read({{address + m_task.queueArray, &array, sizeof(array)},
                            {address + m_task.queueCount, &count, sizeof(count)}}) ||
            count == 0 || count > MOST_QUEUES) {
            return false;
        }
        queues.resize(count);
        if (!m_memory.Read(array, queues.data(), queues.size() * sizeof(Address)) ||
            queues[0] != address + m_task.queue) {
            return false;
        }
    }
    task->queues.resize(queues.size());
    for (std::size_t i = 0; i < queues.size(); ++i) {
        if (!ReadQueue(queues[i], &task->queues[i])) {
            return false;
        }
    }
    return true;
}

/// A queue holds no more than its peak, and that is no more than it has room for and than was put.
/// The number of puts is read twice: it may grow, but not by much in that time.
bool Reader::ReadQueue(Address address, QueueFacts* queue) const
{
    constexpr std::uint64_t MUCH = 1 << 16;
    std::uint64_t first = 0;
    const auto piece = [&](std::uint64_t from, std::uint64_t* to) {
        return Piece{address + from, to, sizeof(*to)};
    };
    queue->events = address + m_queue.events;
    return m_memory.Read({piece(m_queue.puts, &first), piece(m_queue.depth, &queue->depth),
                          piece(m_queue.peak, &queue->peak), piece(m_queue.puts, &queue->puts),
                          piece(m_queue.refused, &queue->refused)}) &&
           queue->depth <= queue->peak && queue->peak <= m_capacity && first <= queue->puts &&
           queue->puts - first < MUCH && queue->peak <= queue->puts;
}

std::vector<bool> Reader::ReadBusy(const Snapshot& snapshot) const
{
    std::vector<Address> receivers(snapshot.tasks.size());
    std::vector<Piece> pieces;
    for (std::size_t i = 0; i < receivers.size(); ++i) {
        pieces.push_back(
            {snapshot.tasks[i].address + m_task.receiver, &receivers[i], sizeof(receivers[i])});
    }
    if (!m_memory.Read(pieces)) {
        return {}; // a task has gone; the next whole look finds out
    }
    std::vector<bool> busy;
    for (const Address receiver : receivers) {
        busy.push_back(receiver != 0);
    }
    return busy;
}

void Reader::ReadThreads(Snapshot* snapshot)
{
    const std::map<pid_t, KernelFacts> threads = m_threads.Read();
    std::set<pid_t> ids;
    for (const auto& [id, facts] : threads) {
        ids.insert(id);
    }
    m_waits.Begin(std::move(ids));
    m_waits.KnowMutex(m_layout.Object("TCTaskList::m_mutex"), "the registry");
    for (const TaskFacts& task : snapshot->tasks) {
        if (task.thread != 0) {
            m_waits.KnowThread(task.handle, task.thread);
        }
        m_waits.KnowMutex(task.address + m_task.queue, "the queue of " + task.name);
        m_waits.KnowEvents(task.queues.front().events);
        if (task.queues.size() > 1) {
            m_waits.KnowEvents(task.address + m_layout.Offset("TCMultiQTask:TCTask") +
                               m_layout.Offset("TCMultiQTask.m_notifySemaphore"));
        }
    }
    if (!m_threads.TellsCalls()) {
        snapshot->remarks.emplace_back("what threads wait for: this kernel does not tell");
    }
    for (const auto& [id, kernel] : threads) {
        ThreadFacts thread;
        thread.name = kernel.name;
        thread.cpuNsec = kernel.cpuNsec;
        thread.turns = kernel.turns;
        if (kernel.sleeps) {
            thread.wait = m_waits.WaitOf(*kernel.sleeps);
        }
        constexpr char ALARM[] = "TCAlarm:";
        if (thread.name.compare(0, sizeof(ALARM) - 1, ALARM) == 0) {
            snapshot->alarms.push_back({id, thread.name, thread.wait.untilNsec});
        }
        snapshot->threads.emplace(id, std::move(thread));
    }
}

void Reader::NameReceivers(Snapshot* snapshot)
{
    for (TaskFacts& task : snapshot->tasks) {
        if (task.inHand) {
            const Address object = task.inHand->isOwn ? task.address : task.inHand->receiver;
            task.inHand->receiverClass = m_classes.NameOf(object);
        }
    }
}

/// Every entry is read twice; one that is in use must be the same both times.
bool Reader::ReadCalls(std::vector<SyncCall>* calls) const
{
    constexpr std::size_t ENTRIES = 64;
    const std::uint64_t size = m_layout.Size("PTSyncDetInfo");
    Address table = 0;
    calls->clear();
    if (!m_memory.Read(m_layout.Object("TCSyncDet::m_arrPCSyncDet"), &table)) {
        return false;
    }
    if (table == 0) {
        return true;
    }
    std::vector<char> first(ENTRIES * size);
    std::vector<char> second(first.size());
    if (!m_memory.Read(
            {{table, first.data(), first.size()}, {table, second.data(), second.size()}})) {
        return false;
    }
    for (std::size_t i = 0; i < ENTRIES; ++i) {
        const char* const entry = first.data() + i * size;
        // The sizes are the process's, and not to be trusted.
        const auto at = [&](const char* name, auto* to) {
            const std::string full = std::string("PTSyncDetInfo.") + name;
            const std::uint64_t offset = m_layout.Offset(full);
            const std::uint64_t length = std::min<std::uint64_t>(m_layout.Size(full), sizeof(*to));
            if (offset + length <= size) {
                memcpy(to, entry + offset, length);
            }
        };
        std::uint8_t isValid = 0;
        at("bValid", &isValid);
        if (isValid == 0 || memcmp(entry, second.data() + i * size, size) != 0) {
            continue; // a call that has come or gone in this moment waits for nothing
        }
        std::array<char, 17> callerName{};
        std::array<char, 17> receiverName{};
        SyncCall call;
        at("callerTid", &call.caller);
        at("callerName", &callerName);
        at("receiverThread", &call.receiver);
        at("receiverName", &receiverName);
        at("startTick", &call.startTickMsec);
        callerName.back() = receiverName.back() = '\0';
        call.callerName = callerName.data();
        call.receiverName = receiverName.data();
        if (IsName(call.callerName) && IsName(call.receiverName)) {
            calls->push_back(call);
        }
    }
    return true;
}

bool Reader::ReadTimers(TimerFacts* timers) const
{
    const Address scheduler = m_layout.Object("TCTimer::m_scheduler");
    const Address schedule = scheduler + m_layout.Offset("TCTimersScheduler.m_wakeups");
    const Address leftmost = schedule + m_layout.Offset("std::set.leftmost");
    const Address size = schedule + m_layout.Offset("std::set.size");
    *timers = TimerFacts();
    Address first = 0;
    Address again = 0;
    std::uint64_t count = 0;
    if (!m_memory.Read({{leftmost, &first, sizeof(first)}, {size, &count, sizeof(count)}})) {
        return false;
    }
    if (count != 0) {
        std::int64_t due = 0;
        const Address value = first + m_layout.Offset("std::set.value") +
                              m_layout.Offset("TCTimersScheduler::TimerWakeupData.due");
        if (!m_memory.Read({{value, &due, sizeof(due)}, {leftmost, &again, sizeof(again)}}) ||
            again != first || due < 0) {
            return false;
        }
        timers->dueNsec = due;
    }
    return ReadSlots(scheduler, timers);
}

bool Reader::ReadSlots(Address scheduler, TimerFacts* timers) const
{
    constexpr std::uint64_t MOST = 65536;
    enum State : std::uint32_t // as TimersScheduler.h numbers them
    {
        DESTROYED = 0,
        EXPIRED = 3,
        PAUSED = 5,
        LAST = 6,
    };
    const Address slots = scheduler + m_layout.Offset("TCTimersScheduler.m_scheduledTimers");
    const std::uint64_t size = m_layout.Size("TCTimersScheduler::TimerSchedule");
    const std::uint64_t state = m_layout.Offset("TCTimersScheduler::TimerSchedule.state");
    Address begin = 0;
    Address end = 0;
    if (!m_memory.Read({{slots + m_layout.Offset("std::vector.begin"), &begin, sizeof(begin)},
                        {slots + m_layout.Offset("std::vector.end"), &end, sizeof(end)}}) ||
        end < begin || (end - begin) % size != 0 || (end - begin) / size > MOST) {
        return false;
    }
    std::vector<std::uint32_t> states((end - begin) / size);
    std::vector<Piece> pieces;
    for (std::size_t i = 0; i < states.size(); ++i) {
        pieces.push_back({begin + i * size + state, &states[i], sizeof(states[i])});
    }
    if (!m_memory.Read(pieces)) {
        return false;
    }
    for (const std::uint32_t found : states) {
        if (found > LAST) {
            return false;
        }
        std::uint64_t& number = found == PAUSED    ? timers->paused
                                : found == EXPIRED ? timers->idle
                                                   : timers->scheduled;
        number += found == DESTROYED ? 0 : 1;
    }
    return true;
}

void Reader::ReadRegistryHolder(Snapshot* snapshot) const
{
    const Address mutex = m_layout.Object("TCTaskList::m_mutex");
    std::uint64_t owner = 0;
    if (m_memory.Read(mutex + m_layout.Offset("TCMutex.m_owner"), &owner) && owner != 0) {
        snapshot->registryHolder = m_waits.ThreadOf(owner);
    }
}

} // namespace zortop
