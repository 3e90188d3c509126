#include "KitTask.h"

#include <chrono>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

namespace storm {

namespace {

using zor::Error;

/// A message and its entry in the ledger.
struct Letter
{
    std::uint64_t id = 0;
    std::uint64_t command = 0;
    bool throws = false;
    std::shared_ptr<const Token> token; ///< null of a small one
};

Letter Write(Actor* actor, unsigned sender, zor::Order order, Random* random)
{
    Ledger& ledger = actor->GetWorld()->ledger;
    const bool attached = OneIn(random, 2);
    Letter letter;
    letter.id = ledger.Send(
        {actor->OwnReceiver(), sender, 0, false, order == zor::Order::FIRST, attached, false});
    letter.command = (*random)();
    if (attached) {
        letter.token = std::make_shared<const Token>(&ledger, letter.id);
    }
    return letter;
}

/// What @p send answers for the letter as a message of its kind.
template <typename Send>
auto SendAs(const Letter& letter, const Send& send)
{
    return letter.token != nullptr ? send(Large{letter.token, letter.command, letter.throws})
                                   : send(Small{letter.id, letter.command, letter.throws});
}

zor::Order DrawOrder(Random* random)
{
    return OneIn(random, 4) ? zor::Order::FIRST : zor::Order::IN_TURN;
}

zor::Sending DrawSending(zor::Order order, Random* random)
{
    switch (Below(random, 8)) {
        case 0:
            return zor::ReplaceQueued(order);
        case 1:
            return zor::WaitAtMost(std::chrono::milliseconds(Below(random, 3)), order);
        case 2:
            return zor::DropWhenFull(order);
        default:
            return zor::Refuse(order);
    }
}

/// The asker's side of the account: what it was told must be true.
void Settle(Actor* actor, const Letter& letter, const zor::Result<std::uint64_t>& answer)
{
    Ledger& ledger = actor->GetWorld()->ledger;
    const std::string name = "event " + std::to_string(letter.id);
    if (answer || answer.error() == Error::THREW) {
        ledger.Settle(letter.id, true);
        ledger.CheckAnswered(letter.id);
        if (answer && (*answer != letter.id || letter.throws)) {
            ledger.Complain(name + " was answered with " + std::to_string(*answer));
        } else if (!answer && !letter.throws) {
            ledger.Complain(name + " is said to have thrown");
        }
        return;
    }
    switch (answer.error()) {
        case Error::NOT_ANSWERED:
            ledger.Settle(letter.id, true);
            return;
        case Error::DELETED:
            ledger.SettleDeleted(letter.id);
            return;
        case Error::QUEUE_FULL:
        case Error::PAUSED:
            break;
        case Error::NO_TASK:
            if (actor->Runs()) {
                ledger.Complain(name + " found no task where there is one");
            }
            break;
        case Error::OWN_TASK:
            if (zor::TaskBase::Current() != actor->Task()) {
                ledger.Complain(name + " is said to be the task's own");
            }
            break;
        default:
            ledger.Complain(name + " failed by " + zor::Name(answer.error()));
            break;
    }
    ledger.Settle(letter.id, false);
}

/// The callback of one probe: called once on the asker's thread or, if that ends first, destroyed
/// there.
class ProbeCallback
{
 public:
    ProbeCallback(Actor* asker, std::uint64_t number, bool hasDeadline)
        : m_asker(asker), m_number(number), m_hasDeadline(hasDeadline)
    {
        ++asker->GetWorld()->counts.probesSent;
    }

    ProbeCallback(ProbeCallback&& other) noexcept
        : m_asker(std::exchange(other.m_asker, nullptr)),
          m_number(other.m_number),
          m_hasDeadline(other.m_hasDeadline),
          m_wasCalled(other.m_wasCalled)
    {}

    ~ProbeCallback()
    {
        if (m_asker != nullptr && !m_wasCalled) {
            m_asker->NoteProbe(false, "");
        }
    }

    void operator()(const zor::Result<std::uint64_t>& answer)
    {
        const bool isGood =
            answer ? *answer == m_number : answer.error() != Error::NOT_ANSWERED || m_hasDeadline;
        const char* const text = answer ? "an answer" : zor::Name(answer.error());
        m_asker->NoteProbe(true, isGood && !m_wasCalled ? "" : text);
        m_wasCalled = true;
    }

 private:
    Actor* m_asker;
    const std::uint64_t m_number;
    const bool m_hasDeadline;
    bool m_wasCalled = false;
};

} // namespace

std::uint64_t KitTask::On(const Small& message)
{
    return Handle(message.id, message.command, message.throws);
}

std::uint64_t KitTask::On(const Large& message)
{
    return Handle(message.token->Id(), message.command, message.throws);
}

std::uint64_t KitTask::Handle(std::uint64_t id, std::uint64_t command, bool throws)
{
    actor->HandleMessage(id, command);
    if (throws) {
        throw std::runtime_error("as it was told");
    }
    return id;
}

bool PostMessage(Actor* actor, unsigned sender, Random* random)
{
    const zor::Order order = DrawOrder(random);
    const zor::Sending how = DrawSending(order, random);
    Letter letter = Write(actor, sender, order, random);
    bool accepted = false;
    {
        std::optional<Deletion> deletion;
        if (how.FullQueue() == zor::Sending::WhenFull::REPLACE) {
            deletion.emplace(actor->OwnReceiver().get(), 0);
        }
        accepted = SendAs(letter, [&](auto&& message) {
                       return actor->Kit()->Post(std::forward<decltype(message)>(message), how);
                   }).has_value();
    }
    actor->GetWorld()->ledger.Settle(letter.id, accepted);
    const OwnRelease release;
    letter.token.reset();
    return accepted;
}

bool AskWithMessage(Actor* actor, unsigned sender, Random* random)
{
    const zor::Order order = DrawOrder(random);
    const std::chrono::microseconds timeout(Below(random, 3000));
    Letter letter = Write(actor, sender, order, random);
    letter.throws = OneIn(random, 32);
    const auto answer = SendAs(letter, [&](auto&& message) {
        return actor->Kit()->Ask(std::forward<decltype(message)>(message), timeout, order);
    });
    Settle(actor, letter, answer);
    ++(answer ? actor->GetWorld()->counts.asksAnswered : actor->GetWorld()->counts.asksFailed);
    const OwnRelease release;
    letter.token.reset();
    return answer.has_value();
}

void SendProbe(Actor* asker, Actor* actor, Random* random)
{
    const std::uint64_t number = (*random)();
    const bool hasDeadline = OneIn(random, 2);
    ProbeCallback callback(asker, number, hasDeadline);
    const zor::Result<void> asked =
        hasDeadline
            ? actor->Kit()->AskAsync(Probe{number}, std::chrono::milliseconds(Below(random, 30)),
                                     std::move(callback))
            : actor->Kit()->AskAsync(Probe{number}, std::move(callback));
    if (!asked) {
        asker->NoteProbe(true, zor::Name(asked.error()));
    }
}

} // namespace storm
