#include "zor/testing/RecordingTask.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>

#include "zor/testing/Testing.h"

namespace {

using ::testing::IsEmpty;
using ::testing::SizeIs;
using zor::testing::HandledEvent;
using zor::testing::Recording;
using zor::testing::RecordingTask;

/// An application's task with an event of its own.
class Meter : public TCTask
{
 public:
    static constexpr unsigned long EVENT_TUNE = 100;

    bool Start() { return Create("Meter", 1000, RecordingTask::STACK_SIZE, 0); }

    bool t_OnEvent(const TSEvent* event) override
    {
        return event->type == EVENT_TUNE ? event->param1 != 0 : TCTask::t_OnEvent(event);
    }
};

bool Post(TCHandler* receiver, unsigned long type, std::uint32_t param1)
{
    TSEvent event;
    event.receiver = receiver;
    event.type = type;
    event.param1 = param1;
    return TCTask::Send(&event, false, false);
}

TEST(RecordingTaskTest, RecordsWhatItHandlesInOrder)
{
    RecordingTask task;
    ASSERT_TRUE(task.Start());
    EXPECT_TRUE(Post(&task, TCTask::EVENT_USER, 1));
    EXPECT_TRUE(Post(&task, 77, 2));
    EXPECT_TRUE(task.AwaitHandled(2));
    const auto handled = task.Handled();
    ASSERT_THAT(handled, SizeIs(2));
    EXPECT_EQ(handled[0].type, TCTask::EVENT_USER);
    EXPECT_EQ(handled[0].param1, 1U);
    EXPECT_EQ(handled[1].type, 77U);
    EXPECT_FALSE(handled[1].result) << "no task takes this type";
    EXPECT_THAT(task.Handled(77), SizeIs(1));
}

TEST(RecordingTaskTest, AnswersAsItIsTold)
{
    RecordingTask task;
    task.answer = [](const TSEvent* event) { return event->param1 == 1; };
    ASSERT_TRUE(task.Start());
    EXPECT_TRUE(Post(&task, TCTask::EVENT_USER, 1));
    EXPECT_TRUE(Post(&task, TCTask::EVENT_USER, 2));
    EXPECT_TRUE(task.AwaitHandled(2));
    EXPECT_TRUE(task.Handled()[0].result);
    EXPECT_FALSE(task.Handled()[1].result);
}

TEST(RecordingTaskTest, KeepsNoAttachmentAlive)
{
    RecordingTask task;
    ASSERT_TRUE(task.Start());
    TSEvent event;
    event.receiver = &task;
    event.type = TCTask::EVENT_USER;
    event.setWrappedData(7);
    const std::weak_ptr<ZOREventDataBase> attachment = event.wrappedData;
    EXPECT_TRUE(TCTask::Send(&event, false, false));
    event.wrappedData.reset();
    EXPECT_TRUE(task.AwaitHandled(1));
    EXPECT_TRUE(task.Handled()[0].hadData);
    EXPECT_TRUE(zor::testing::Eventually([&] { return attachment.expired(); }));
}

TEST(RecordingTaskTest, SaysWhatItHasHandledIfThatIsTooLittle)
{
    HandledEvent event;
    event.type = 100;
    event.param1 = 21;
    event.result = true;
    EXPECT_EQ(::testing::PrintToString(event), "type 100 (21, 0, 0, 0, 0, 0)");
}

TEST(RecordingTaskTest, CanBeStartedAgain)
{
    RecordingTask task;
    for (std::size_t i = 1; i <= 2; ++i) {
        ASSERT_TRUE(task.Start());
        EXPECT_TRUE(Post(&task, TCTask::EVENT_USER, 0));
        task.End();
        EXPECT_THAT(task.Handled(TCTask::EVENT_USER), SizeIs(i));
    }
}

TEST(RecordingTest, RecordsAnApplicationsTask)
{
    Recording<Meter> meter;
    ASSERT_TRUE(meter.Start());
    EXPECT_TRUE(Post(&meter, Meter::EVENT_TUNE, 21));
    EXPECT_TRUE(Post(&meter, TCTask::EVENT_EXIT, 0));
    meter.Destroy();
    ASSERT_THAT(meter.Handled(), SizeIs(2));
    EXPECT_EQ(meter.Handled()[0].param1, 21U);
    EXPECT_TRUE(meter.Handled()[0].result);
}

TEST(RecordingTest, GateKeepsEventsUntilItOpens)
{
    Recording<Meter> meter;
    meter.GateAt(Meter::EVENT_TUNE);
    ASSERT_TRUE(meter.Start());
    EXPECT_TRUE(Post(&meter, Meter::EVENT_TUNE, 21));
    EXPECT_TRUE(meter.AwaitArrival());
    EXPECT_THAT(meter.Handled(), IsEmpty());
    meter.OpenGate();
    EXPECT_TRUE(meter.AwaitHandled(1));
    EXPECT_TRUE(Post(&meter, TCTask::EVENT_EXIT, 0));
    meter.Destroy();
}

} // namespace
