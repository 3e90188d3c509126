#include "Ledger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>
#include <utility>

namespace {

using namespace storm;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class LedgerTest : public ::testing::Test
{
 protected:
    std::uint64_t Send(bool attached = false, bool sync = false, unsigned queue = 0)
    {
        Sending sending;
        sending.receiver = m_receiver;
        sending.attached = attached;
        sending.sync = sync;
        sending.queue = queue;
        return m_ledger.Send(sending);
    }

    std::uint64_t SendAccepted(bool attached = false, bool sync = false, unsigned queue = 0)
    {
        const std::uint64_t id = Send(attached, sync, queue);
        m_ledger.Settle(id, true);
        return id;
    }

    void Delete(unsigned queue = 0) { const Deletion deletion(m_receiver.get(), queue); }

    void ExpectNoComplaint() const { EXPECT_THAT(m_ledger.Complaints(), IsEmpty()); }

    void ExpectComplaint(const char* part) const
    {
        EXPECT_THAT(m_ledger.Complaints(), ElementsAre(HasSubstr(part)));
    }

    const std::shared_ptr<Receiver> m_receiver = std::make_shared<Receiver>();
    Ledger m_ledger{false};
};

TEST_F(LedgerTest, HandledEventsOfBothKindsBalance)
{
    const std::uint64_t bare = SendAccepted();
    EXPECT_EQ(m_ledger.Handle(bare, m_receiver.get()).id, bare);
    const std::uint64_t attached = SendAccepted(true);
    EXPECT_EQ(m_ledger.Handle(attached, m_receiver.get()).id, attached);
    EXPECT_EQ(m_ledger.Sum().open, 1U);
    m_ledger.Release(attached, false);
    m_ledger.CheckAllEnded();
    ExpectNoComplaint();
    const Totals totals = m_ledger.Sum();
    EXPECT_EQ(totals.sent, 2U);
    EXPECT_EQ(totals.accepted, 2U);
    EXPECT_EQ(totals.handled, 2U);
    EXPECT_EQ(totals.open, 0U);
}

TEST_F(LedgerTest, EventMayBeHandledBeforeItsSendReturns)
{
    const std::uint64_t id = Send();
    EXPECT_EQ(m_ledger.Handle(id, m_receiver.get()).accepted, 0U);
    EXPECT_EQ(m_ledger.Sum().open, 1U);
    m_ledger.Settle(id, true);
    EXPECT_EQ(m_ledger.Sum().open, 0U);
    ExpectNoComplaint();
}

TEST_F(LedgerTest, RefusedEventsNeedNoEnding)
{
    m_ledger.Settle(Send(), false);
    const std::uint64_t attached = Send(true);
    m_ledger.Settle(attached, false);
    m_ledger.Release(attached, true);
    m_ledger.CheckAllEnded();
    ExpectNoComplaint();
    EXPECT_EQ(m_ledger.Sum().refused, 2U);
}

TEST_F(LedgerTest, EventsWhoseSenderIsToldOfTheirDeletionBalance)
{
    const std::uint64_t bare = Send();
    const std::uint64_t attached = Send(true);
    Delete();
    m_ledger.SettleDeleted(bare);
    m_ledger.SettleDeleted(attached);
    EXPECT_EQ(m_ledger.Sum().open, 1U);
    m_ledger.Release(attached, false);
    m_ledger.CheckAllEnded();
    ExpectNoComplaint();
    EXPECT_EQ(m_ledger.Sum().accepted, 2U);
    EXPECT_EQ(m_ledger.Sum().deleted, 2U);
}

TEST_F(LedgerTest, DeletionThatNobodyMadeIsNoticed)
{
    Delete();
    m_ledger.SettleDeleted(Send());
    ExpectComplaint("is said to be deleted, but nobody deleted anything");
}

TEST_F(LedgerTest, HandlingOfWhatIsSaidToBeDeletedIsNoticed)
{
    const std::uint64_t before = Send(true);
    const std::uint64_t after = Send(true);
    Delete();
    m_ledger.Handle(before, m_receiver.get());
    m_ledger.SettleDeleted(before);
    ExpectComplaint("was handled although its sender was told of its deletion");
    m_ledger.SettleDeleted(after);
    m_ledger.Handle(after, m_receiver.get());
    EXPECT_THAT(m_ledger.Complaints().back(), HasSubstr("its send was refused or undone"));
}

TEST_F(LedgerTest, SecondHandlingIsNoticed)
{
    const std::uint64_t id = SendAccepted(true);
    m_ledger.Handle(id, m_receiver.get());
    EXPECT_EQ(m_ledger.Handle(id, m_receiver.get()).id, 0U);
    ExpectComplaint("is handled twice");
}

TEST_F(LedgerTest, HandlingAfterTheEndingIsNoticed)
{
    const std::uint64_t id = SendAccepted();
    m_ledger.Handle(id, m_receiver.get());
    m_ledger.Handle(id, m_receiver.get());
    ExpectComplaint("is handled after it has ended");
}

TEST_F(LedgerTest, HandlingOfARefusedEventIsNoticed)
{
    const std::uint64_t id = Send(true);
    m_ledger.Settle(id, false);
    m_ledger.Handle(id, m_receiver.get());
    ExpectComplaint("is handled although its send was refused");
}

TEST_F(LedgerTest, RefusalOfAHandledEventIsNoticed)
{
    const std::uint64_t id = Send();
    m_ledger.Handle(id, m_receiver.get());
    m_ledger.Settle(id, false);
    ExpectComplaint("was handled although its send was refused");
}

TEST_F(LedgerTest, HandlingByAnotherReceiverIsNoticed)
{
    const Receiver other;
    m_ledger.Handle(SendAccepted(), &other);
    ExpectComplaint("that it is not addressed to");
}

TEST_F(LedgerTest, HandlingAfterTheEndOfTheReceiverIsNoticed)
{
    const std::uint64_t id = SendAccepted();
    m_receiver->Ends();
    m_ledger.Handle(id, m_receiver.get());
    ExpectComplaint("after the end of its receiver");
}

TEST_F(LedgerTest, SecondReleaseIsNoticed)
{
    const std::uint64_t id = SendAccepted(true);
    m_ledger.Handle(id, m_receiver.get());
    m_ledger.Release(id, false);
    m_ledger.Release(id, false);
    ExpectComplaint("is released twice");
}

TEST_F(LedgerTest, ReleaseBeforeTheSendReturnsIsNoticed)
{
    m_ledger.Release(Send(true), false);
    ExpectComplaint("lost its attachment while its sender was sending it");
}

TEST_F(LedgerTest, ReleaseWithoutHandlingOrReasonIsNoticed)
{
    m_ledger.Release(SendAccepted(true), false);
    ExpectComplaint("was lost");
}

TEST_F(LedgerTest, ReleaseInADeletionIsADeletion)
{
    const std::uint64_t id = SendAccepted(true, false, 1);
    {
        const Deletion deletion(m_receiver.get(), 1);
        m_ledger.Release(id, false);
    }
    ExpectNoComplaint();
    EXPECT_EQ(m_ledger.Sum().deleted, 1U);
}

TEST_F(LedgerTest, DeletionOfOthersIsNoReason)
{
    Receiver other;
    const std::uint64_t id = SendAccepted(true);
    const Deletion ofAnother(&other, 0);
    const Deletion fromAnotherQueue(m_receiver.get(), 1);
    m_ledger.Release(id, false);
    ExpectComplaint("was lost");
}

TEST_F(LedgerTest, DeletionOnAnotherThreadIsNoReasonForAReleaseHere)
{
    const std::uint64_t id = SendAccepted(true);
    const Deletion deletion(m_receiver.get(), 0);
    std::thread([&] { m_ledger.Release(id, false); }).join();
    ExpectComplaint("was lost");
}

TEST_F(LedgerTest, SenderMayBeTheLastToLetGoOfADeletedEvent)
{
    const std::uint64_t id = SendAccepted(true);
    Delete();
    m_ledger.Release(id, true);
    ExpectNoComplaint();
    EXPECT_EQ(m_ledger.Sum().deleted, 1U);
}

TEST_F(LedgerTest, DeletionBeforeTheSendIsNoReason)
{
    Delete();
    m_ledger.Release(SendAccepted(true), true);
    ExpectComplaint("was lost");
}

TEST_F(LedgerTest, ReleaseAfterTheEndOfTheReceiverIsADrop)
{
    const std::uint64_t id = SendAccepted(true);
    m_receiver->Ends();
    m_ledger.Release(id, false);
    ExpectNoComplaint();
    EXPECT_EQ(m_ledger.Sum().dropped, 1U);
}

TEST_F(LedgerTest, MissingEndingIsNoticedAtTheEnd)
{
    SendAccepted();
    m_ledger.CheckAllEnded();
    ExpectComplaint("has no ending");
}

TEST_F(LedgerTest, MissingEndingIsNoticedInQuiet)
{
    SendAccepted();
    m_ledger.CheckQuiet(m_receiver.get());
    ExpectComplaint("is missing");
}

TEST_F(LedgerTest, MissingReleaseIsNoticedInQuiet)
{
    const std::uint64_t id = SendAccepted(true);
    m_ledger.Handle(id, m_receiver.get());
    m_ledger.CheckQuiet(m_receiver.get());
    ExpectComplaint("is missing");
}

TEST_F(LedgerTest, MissingReleaseIsNoticedBehindTheQueues)
{
    SendAccepted(true);
    m_receiver->Ends();
    m_ledger.Close(m_receiver.get());
    ExpectComplaint("outlived the queues");
}

TEST_F(LedgerTest, QuietLooksAtOneReceiverOnly)
{
    SendAccepted();
    const Receiver other;
    m_ledger.CheckQuiet(&other);
    ExpectNoComplaint();
    EXPECT_EQ(m_ledger.Sum().open, 1U);
}

TEST_F(LedgerTest, BareEventsOfAnEndedReceiverAreDropped)
{
    SendAccepted();
    m_receiver->Ends();
    m_ledger.Close(m_receiver.get());
    ExpectNoComplaint();
    EXPECT_EQ(m_ledger.Sum().dropped, 1U);
}

TEST_F(LedgerTest, BareEventsThatADeletionMetAreDeleted)
{
    SendAccepted();
    Delete();
    m_ledger.CheckQuiet(m_receiver.get());
    ExpectNoComplaint();
    EXPECT_EQ(m_ledger.Sum().deleted, 1U);
}

TEST_F(LedgerTest, SynchronousSendThatReturnsTooEarlyIsNoticed)
{
    m_ledger.CheckAnswered(SendAccepted(false, true));
    ExpectComplaint("neither handled nor deleted");
}

TEST_F(LedgerTest, SynchronousSendReturnsAfterHandlingOrDeletion)
{
    const std::uint64_t handled = SendAccepted(true, true);
    m_ledger.Handle(handled, m_receiver.get());
    m_ledger.CheckAnswered(handled);
    const std::uint64_t deleted = SendAccepted(false, true);
    Delete();
    m_ledger.CheckAnswered(deleted);
    ExpectNoComplaint();
    EXPECT_EQ(m_ledger.Sum().deleted, 1U);
}

TEST_F(LedgerTest, SettlingTwiceIsNoticed)
{
    const std::uint64_t id = SendAccepted();
    m_ledger.Settle(id, true);
    ExpectComplaint("ended while its sender was still sending it");
}

TEST_F(LedgerTest, TokenTellsOnceHoweverOftenItMoves)
{
    const std::uint64_t id = SendAccepted(true);
    m_ledger.Handle(id, m_receiver.get());
    const std::int64_t before = Token::Alive();
    {
        Token token(&m_ledger, id);
        Token second(std::move(token));
        const Token third(std::move(second));
        EXPECT_EQ(Token::Alive(), before + 1);
    }
    EXPECT_EQ(Token::Alive(), before);
    EXPECT_EQ(m_ledger.Sum().open, 0U);
    ExpectNoComplaint();
}

TEST_F(LedgerTest, TokenSaysWhetherItsSenderWasTheLast)
{
    const std::uint64_t id = SendAccepted(true);
    Delete();
    {
        const OwnRelease release;
        const Token token(&m_ledger, id);
    }
    ExpectNoComplaint();
    const std::uint64_t other = SendAccepted(true);
    Delete();
    {
        const Token token(&m_ledger, other);
    }
    ExpectComplaint("was lost");
}

} // namespace
