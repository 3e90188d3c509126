#include "Worker.h"

#include <numeric>
#include <thread>

#include "Actor.h"
#include "TCDebugPrint.h"
#include "ThreadUtil.h"

namespace storm {

namespace {

struct Row
{
    const char* name;
    unsigned weight; ///< how often it is drawn, beside the others
};

/// Tasks come and go by CREATE, which does whichever of the two a slot needs.
constexpr std::array<Row, OPERATIONS + 1> ROWS = {{
    {"send", 500},
    {"synchronous send", 60},
    {"typed post", 100},
    {"typed ask", 40},
    {"burst", 4},
    {"pause and resume", 12},
    {"ping", 12},
    {"clear-queue", 8},
    {"deletion", 10},
    {"look", 10},
    {"timer", 10},
    {"alarm", 6},
    {"registry", 4},
    {"create", 5},
    {"destroy", 0},
    {"nothing", 0},
}};

const Row& RowOf(Operation operation)
{
    return ROWS[static_cast<std::size_t>(operation)];
}

} // namespace

const char* NameOf(Operation operation)
{
    return RowOf(operation).name;
}

Worker::Worker(World* world, unsigned number, std::uint64_t seed)
    : m_world(world),
      m_number(number),
      m_random(seed ^ 0x9E3779B97F4A7C15U * (number + 1)) // so that seeds share no thread's numbers
{}

void Worker::Run(const std::atomic<bool>& stop)
{
    TCThreadUtil::SetCurrentThreadName("storm-thread");
    TCDebugPrintZOR::GetInstance()->SetAppData(AppNameOf(m_number).c_str(),
                                               static_cast<signed char>(m_number));
    while (!stop.load(std::memory_order_relaxed)) {
        Step();
    }
}

Worker::Doing Worker::Now() const
{
    return {m_operation.load(), m_slot.load(), m_steps.load()};
}

std::uint64_t Worker::Done(Operation operation) const
{
    return m_done[static_cast<std::size_t>(operation)].load();
}

std::uint64_t Worker::Failed(Operation operation) const
{
    return m_failed[static_cast<std::size_t>(operation)].load();
}

void Worker::Begin(Operation operation, unsigned slot)
{
    m_slot = slot;
    m_operation = operation;
}

void Worker::End(bool succeeded)
{
    const auto row = static_cast<std::size_t>(m_operation.load());
    ++(succeeded ? m_done : m_failed)[row];
    m_operation = Operation::COUNT;
    ++m_steps;
}

Operation Worker::Draw()
{
    static const unsigned sum =
        std::accumulate(ROWS.begin(), ROWS.end(), 0U,
                        [](unsigned before, const Row& row) { return before + row.weight; });
    unsigned number = Below(&m_random, sum);
    std::size_t row = 0;
    while (number >= ROWS[row].weight) {
        number -= ROWS[row].weight;
        ++row;
    }
    return static_cast<Operation>(row);
}

/// One operation. What is drawn depends on the seed and the number of the step alone, but for the
/// numbers that an operation draws itself.
void Worker::Step()
{
    const Operation operation = Draw();
    const auto slots = static_cast<unsigned>(m_world->slots.size());
    unsigned number = Below(&m_random, slots);
    if (operation == Operation::POST || operation == Operation::ASK) {
        number = World::KitSlotNear(number, slots);
    }
    Slot& slot = *m_world->slots[number];
    switch (operation) {
        case Operation::CREATE:
            TurnOver(number);
            return;
        case Operation::PING:
            Begin(operation, number);
            End(Ping(&slot));
            return;
        case Operation::REGISTRY:
            Begin(operation, number);
            End(Registry());
            return;
        default:
            break;
    }
    const Use use(&slot.use);
    if (use) {
        Begin(operation, number);
        End(Do(operation, slot.actor.get()));
    }
}

bool Worker::Do(Operation operation, Actor* actor)
{
    switch (operation) {
        case Operation::SEND:
            return Send(actor, false);
        case Operation::SEND_SYNC:
            return Send(actor, true);
        case Operation::POST:
            return SendTyped(actor, false);
        case Operation::ASK:
            return SendTyped(actor, true);
        case Operation::BURST:
            return Burst(actor);
        case Operation::PAUSE:
            return Pause(actor);
        case Operation::CLEAR:
            return Clear(actor);
        case Operation::DELETE:
            return Delete(actor);
        case Operation::LOOK:
            return Look(actor);
        case Operation::TIMER:
            Time(actor);
            return true;
        default:
            actor->Alarm(Below(&m_random, Actor::ALARMS))->Control(&m_random);
            return true;
    }
}

void Worker::TurnOver(unsigned number)
{
    Slot& slot = *m_world->slots[number];
    const std::unique_lock<std::mutex> owner(slot.owner, std::try_to_lock);
    if (!owner.owns_lock()) {
        return;
    }
    if (slot.actor == nullptr) {
        Fill(&slot, number);
    } else {
        EndActor(&slot, number);
    }
}

void Worker::Empty(unsigned number)
{
    Slot& slot = *m_world->slots[number];
    const std::lock_guard<std::mutex> owner(slot.owner);
    if (slot.actor != nullptr) {
        EndActor(&slot, number);
    }
    slot.spare.reset();
}

/// The owner makes the task of an empty slot: now and then a new object, else the one before.
void Worker::Fill(Slot* slot, unsigned number)
{
    Begin(Operation::CREATE, number);
    if (OneIn(&m_random, 2)) {
        slot->spare.reset();
    }
    auto actor = std::make_unique<Actor>(m_world, number, &m_random);
    const bool started = actor->Start(std::move(slot->spare), &m_random);
    if (started) {
        slot->actor = std::move(actor);
        slot->use.Open();
    }
    End(started);
}

/// The owner ends the task of a slot.
void Worker::EndActor(Slot* slot, unsigned number)
{
    Begin(Operation::DESTROY, number);
    slot->use.TryShut();
    Drain(slot);
    slot->spare = slot->actor->End(m_number, &m_random);
    slot->actor.reset();
    End(true);
}

/// Waits until nobody is inside the slot. Who paused the task resumes it before leaving; one who
/// waits for a paused task is let go sooner by resuming it here.
void Worker::Drain(Slot* slot)
{
    while (slot->use.Users() != 0) {
        if (slot->actor->Runs() && OneIn(&m_random, 4)) {
            slot->actor->Resume();
        }
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
}

} // namespace storm
