#include "Parts.h"

#include "Actor.h"

namespace storm {

namespace {

/// Type of the events of state alarms.
constexpr unsigned short STATE_EVENT = Actor::STATE_EVENT;

/// An alarm that looks at its firings.
template <typename Base>
class StormAlarm : public Base
{
 public:
    StormAlarm(Actor* actor, std::shared_ptr<Firings> firings)
        : m_actor(actor), m_firings(std::move(firings))
    {}

    bool t_OnAlarm(const TSEvent* event) override
    {
        ++m_actor->GetWorld()->counts.alarmFirings;
        m_actor->NoteFiring("alarm", m_firings.get(), *event);
        return Base::t_OnAlarm(event);
    }

 private:
    Actor* const m_actor;
    const std::shared_ptr<Firings> m_firings;
};

} // namespace

SubHandler::SubHandler(Actor* actor, TCTask* task) : m_actor(actor)
{
    TCHandler::Create(task);
    use.Open();
}

bool SubHandler::t_OnEvent(const TSEvent* event)
{
    m_actor->Handle(*event, receiver.get());
    return true;
}

void SubHandler::TryEnd()
{
    if (!use.TryShut()) {
        return; // ended already
    }
    if (use.Users() != 0) {
        use.Open();
        return;
    }
    receiver->Ends();
    Destroy();
}

void AlarmBox::Make(Random* random)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_alarm != nullptr) {
        return;
    }
    const int interval = static_cast<int>(Below(random, 40));
    const int count = static_cast<int>(Below(random, 8)) - 1; // -1 stands for ever
    auto firings = std::make_shared<Firings>();
    bool made = false;
    if (OneIn(random, 2)) {
        auto alarm = std::make_unique<StormAlarm<TCStateAlarm>>(m_actor, firings);
        made = alarm->Create(m_actor->Task(), STATE_EVENT, interval, count);
        m_alarm = std::move(alarm);
    } else {
        auto alarm = std::make_unique<StormAlarm<TCAlarm>>(m_actor, firings);
        made = alarm->Create(m_actor->Task(), static_cast<unsigned long>(interval),
                             static_cast<unsigned long>(count));
        m_alarm = std::move(alarm);
    }
    if (!made) {
        m_actor->GetWorld()->ledger.Complain("an alarm could not be made");
        m_alarm.reset();
        return;
    }
    m_firings = firings;
    ++m_actor->GetWorld()->counts.alarmsMade;
}

void AlarmBox::Control(Random* random)
{
    const unsigned kind = Below(random, 3);
    const unsigned long interval = Below(random, 40);
    const unsigned long count = OneIn(random, 4) ? TCAlarm::ENDLESS : Below(random, 8);
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_alarm == nullptr) {
        return;
    }
    m_firings->Restarts();
    switch (kind) {
        case 0:
            m_alarm->Reset(interval, count);
            break;
        case 1:
            m_alarm->Stop();
            break;
        default:
            m_alarm->RestartAfterStop();
            break;
    }
}

void AlarmBox::End()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_alarm == nullptr) {
        return;
    }
    m_alarm->Destroy();
    m_alarm.reset();
    ++m_actor->GetWorld()->counts.alarmsEnded;
}

/// What a timer hands to its listener. Released once, when the timer is done with.
struct TimerBox::Run
{
    Actor* actor;
    Firings firings;
};

namespace {

/// The one listener of all timers: the run says whose firing it is. The sanitizers see a firing
/// that comes after the release of its run.
class Listener : public ITimerListener
{
 public:
    bool OnTimer(const TSEvent* event, void* userData) override
    {
        auto* const run = static_cast<TimerBox::Run*>(userData);
        ++run->actor->GetWorld()->counts.timerFirings;
        run->actor->NoteFiring("timer", &run->firings, *event);
        if (event->param2 >= event->param1) {
            run->actor->GetWorld()->ledger.Complain("a timer fired more often than it was to");
        }
        return true;
    }
};

} // namespace

void TimerBox::MakeLocked()
{
    m_run = new Run{m_actor, {}};
    ITimer::TimerHandlerParams params;
    params.task = m_actor->Task();
    params.listener = std::make_shared<Listener>();
    params.userData = m_run;
    params.userDataRelease = [](void* userData) {
        auto* const run = static_cast<Run*>(userData);
        run->actor->NoteRelease();
        delete run;
    };
    m_timer = TCTimer(params); // ends the one before
    ++m_actor->GetWorld()->counts.timersMade;
}

/// The timer keeps its id on the way.
void TimerBox::MoveLocked()
{
    TCTimer other(std::move(m_timer));
    m_timer = std::move(other);
}

void TimerBox::Control(Random* random)
{
    const unsigned kind = Below(random, 10);
    const std::chrono::milliseconds interval(Below(random, 40));
    const unsigned count = OneIn(random, 4) ? ITimer::INFINITE_FIRE : Below(random, 6);
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_run == nullptr) {
        MakeLocked();
    }
    switch (kind) {
        case 0:
            m_timer = TCTimer();
            m_run = nullptr;
            break;
        case 1:
            MakeLocked();
            break;
        case 2:
            MoveLocked();
            break;
        case 3:
        case 4:
            m_timer.Pause();
            break;
        case 5:
        case 6:
            m_timer.Resume();
            break;
        default:
            m_run->firings.Restarts();
            m_timer.Restart(interval, count);
            break;
    }
}

void TimerBox::End()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_timer = TCTimer();
    m_run = nullptr;
}

} // namespace storm
