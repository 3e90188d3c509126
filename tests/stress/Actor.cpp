#include "Actor.h"

#include <algorithm>
#include <chrono>
#include <future>
#include <thread>

#include "KitTask.h"
#include "KitTimers.h"

namespace storm {

namespace {

constexpr unsigned long STACK_SIZE = 512 * 1024;

/// Longer than any run of the storm's short ones: the supervisor must not report busy machines.
constexpr unsigned long WATCHDOG_SECONDS = 3600;

unsigned DrawQueues(unsigned slot, Random* random)
{
    const unsigned queues = 1 + Below(random, MAX_QUEUES);
    return slot % 2 == 1 ? queues : 0;
}

} // namespace

Hooks::~Hooks() = default;

Actor::Actor(World* world, unsigned slot, Random* random)
    : m_world(world),
      m_slot(slot),
      m_refuses(OneIn(random, 24)),
      m_hasCallbacks(OneIn(random, 2)),
      m_queues(DrawQueues(slot, random)),
      m_isKit(World::IsForKit(slot)),
      m_kitTimers(std::make_unique<KitTimers>(this))
{}

Actor::~Actor() = default;

void Actor::Complain(const std::string& what)
{
    m_world->ledger.Complain("task in slot " + std::to_string(m_slot) + ": " + what);
}

Target Actor::Self() const
{
    return {m_task.get(), m_receiver, m_queues};
}

bool Actor::Start(std::unique_ptr<TCTask> spare, Random* random)
{
    if (m_refuses) {
        m_receiver->Ends(); // none of its events will be handled
        m_loopEnded = true;
    }
    if (!CreateTask(std::move(spare), random)) {
        Complain("it could not be made");
        return false;
    }
    ++m_world->counts.tasksMade;
    SetCallbacks();
    for (auto& timer : m_timers) {
        timer = std::make_unique<TimerBox>(this);
    }
    for (auto& alarm : m_alarms) {
        alarm = std::make_unique<AlarmBox>(this);
    }
    if (!m_refuses) { // alarms and handlers end on the task's thread
        for (auto& alarm : m_alarms) {
            alarm->Make(random);
        }
        for (auto& handler : m_handlers) {
            handler = std::make_unique<SubHandler>(this, m_task.get());
        }
    }
    return true;
}

std::unique_ptr<TCTask> Actor::MakeTask() const
{
    if (m_isKit) {
        return std::make_unique<KitTask>();
    }
    if (m_queues == 0) {
        return std::make_unique<StormTask<TCTask>>();
    }
    return std::make_unique<StormTask<TCMultiQTask>>();
}

bool Actor::CreateTask(std::unique_ptr<TCTask> spare, Random* random)
{
    const std::string name = "storm-task-" + std::to_string(m_slot);
    const unsigned wait = 1 + Below(random, 20);
    const unsigned long watchdog = OneIn(random, 4) ? WATCHDOG_SECONDS : 0;
    m_task = spare != nullptr ? std::move(spare) : MakeTask();
    m_multi = dynamic_cast<TCMultiQTask*>(m_task.get());
    m_kit = dynamic_cast<KitTask*>(m_task.get());
    dynamic_cast<Hooks&>(*m_task).actor = this;
    m_world->slots[m_slot]->lastTask = m_task.get();
    if (m_kit != nullptr) {
        m_kit->SetRecorded(OneIn(random, 8));
        return m_kit->Create(name.c_str(), wait, STACK_SIZE, watchdog);
    }
    return m_multi == nullptr ? m_task->Create(name.c_str(), wait, STACK_SIZE, watchdog)
                              : m_multi->Create(name.c_str(), wait, STACK_SIZE, m_queues, watchdog);
}

void Actor::SetCallbacks()
{
    if (!m_hasCallbacks) {
        return;
    }
    TCTask::EventCallback before = nullptr;
    const void* context = nullptr;
    if (!m_task->SetEventCallback(TCTask::EVENT_USER, &Before, &After, this) ||
        !m_task->GetEventCallback(TCTask::EVENT_USER, &before, nullptr, &context) ||
        before != &Before || context != this) {
        Complain("callbacks could not be set");
    }
}

/// Handles every other event in place of the hook.
bool Actor::Before(const TSEvent* event, const void* actor)
{
    auto* const self = static_cast<Actor*>(const_cast<void*>(actor));
    if (event->param5 % 2 != 0) {
        return false;
    }
    ++self->m_befores;
    self->Handle(*event, self->m_receiver.get());
    return true;
}

bool Actor::After(const TSEvent* /*event*/, const void* actor)
{
    ++static_cast<Actor*>(const_cast<void*>(actor))->m_afters;
    return false;
}

// The end of a task, in one of three manners. All of them are made so that nothing can happen that
// is known to hang:
//
// - Nobody is inside the slot, so no pause and no clear-queue can overtake the exit event from now
//   on. A clear-queue that nobody waited for any more may still be queued or just be handled: it
//   would delete the exit event, and Destroy() would wait for ever. So either it is worked off
//   before (Flush()), or the exit event overtakes it while the task is paused or sends it itself.
// - No synchronous sender waits, so none can be forgotten in the queues that the exit takes down.
std::unique_ptr<TCTask> Actor::End(unsigned sender, Random* random)
{
    const unsigned manner = Below(random, 3);
    if (!m_refuses) {
        switch (manner) {
            case 0:
                Flush(sender);
                SendExit();
                break;
            case 1:
                PauseForEnd(sender, random);
                HaveExitSent();
                break;
            default:
                HaveExitSent();
                break;
        }
    }
    // Before and after the end of the loop; what it cannot release any more, Destroy() does.
    for (auto& timer : m_timers) {
        timer->End();
    }
    if (OneIn(random, 2)) { // else the task ends them, and the handles outlive it
        m_kitTimers->End();
    }
    m_task->Destroy();
    CheckEnd();
    ++m_world->counts.tasksEnded;
    dynamic_cast<Hooks&>(*m_task).actor = nullptr;
    m_multi = nullptr;
    m_kit = nullptr;
    return std::move(m_task);
}

/// Waits until the task has worked off all its queues, and looks whether everything has ended.
void Actor::Flush(unsigned sender)
{
    Shot shot;
    shot.sync = true;
    const auto shoot = [&] {
        while (!Shoot(m_world, sender, Self(), shot)) { // the queue is full
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    };
    // Twice: a clear-queue that is queued deletes the first event, and may still be at it when its
    // sender is released.
    shoot();
    for (unsigned queue = 0; queue < std::max(m_queues, 1U); ++queue) {
        shot.queue = queue;
        shoot();
    }
    m_world->ledger.CheckQuiet(m_receiver.get());
    for (const auto& handler : m_handlers) {
        m_world->ledger.CheckQuiet(handler->receiver.get());
    }
}

/// Leaves the task paused with events in its queues; Destroy() resumes it.
void Actor::PauseForEnd(unsigned sender, Random* random)
{
    try {
        m_task->Pause();
    } catch (const std::future_error&) {
        return; // a clear-queue has deleted the request
    }
    for (unsigned shots = Below(random, 20); shots > 0; --shots) {
        Shot shot = DrawShot(random, m_queues);
        shot.command = 0;
        ShootAt(this, sender, shot, shots);
    }
}

/// @return false if the queue is full
bool Actor::TrySendExit(bool priority)
{
    TSEvent exit;
    exit.receiver = m_task.get();
    exit.type = TCTask::EVENT_EXIT;
    return TCTask::Send(&exit, false, priority);
}

void Actor::SendExit()
{
    while (!TrySendExit(false)) { // the queue is full
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

/// Sends the exit event while the task handles nothing else.
///
///   here:  ask [synchronously, again if a clear-queue deletes that]
///   task:  ... clear-queue ... | sends the exit event | takes it
void Actor::HaveExitSent()
{
    if (m_task->IsPaused()) { // nobody but this thread resumes it any more
        if (TrySendExit(true)) {
            return;
        }
        Resume();
    }
    TSEvent end;
    end.receiver = m_task.get();
    end.type = END_EVENT;
    while (!m_exitSent) {
        if (!TCTask::Send(&end, true, true)) { // the queue is full
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
}

void Actor::Resume()
{
    ++m_resumesBegun;
    m_task->ResumeAsync();
    ++m_resumesEnded;
}

void Actor::CheckPaused(std::uint64_t resumes)
{
    const bool isPaused = m_inPause && m_task->IsPaused();
    if (!isPaused && m_resumesBegun == resumes) {
        Complain("it has left a pause that nobody has ended");
    }
}

/// The task is destroyed.
void Actor::CheckEnd()
{
    TCTaskList::m_mutex.Lock();
    if (TCTaskList::Find(m_task.get())) {
        Complain("it is destroyed and still in the registry");
    }
    TCTaskList::m_mutex.Unlock();
    m_world->ledger.Close(m_receiver.get());
    for (const auto& handler : m_handlers) {
        if (handler != nullptr) {
            m_world->ledger.Close(handler->receiver.get());
        }
    }
    if (m_befores + m_hooks != m_users || (m_hasCallbacks && m_afters != m_users)) {
        Complain("of " + std::to_string(m_users) + " user events the callback before handled " +
                 std::to_string(m_befores) + " and the hook " + std::to_string(m_hooks) +
                 "; the callback after was called " + std::to_string(m_afters) + " times");
    }
    if (m_inPause) {
        Complain("it ended in a pause");
    }
}

bool ShootAt(Actor* actor, unsigned sender, const Shot& shot, unsigned handler)
{
    World* const world = actor->GetWorld();
    SubHandler* const other = actor->Handler(handler % (2 * Actor::HANDLERS));
    if (other != nullptr) {
        const Use use(&other->use);
        if (use) {
            return Shoot(world, sender, {other, other->receiver, actor->Queues()}, shot);
        }
    }
    return Shoot(world, sender, actor->Self(), shot);
}

} // namespace storm
