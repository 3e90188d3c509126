#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <future>
#include <memory>
#include <new>
#include <string>
#include <type_traits>
#include <utility>

#include "Layout.h"
#include "QueueEvents.h"
#include "Task.h"

namespace {

using namespace zortest;

constexpr char SHORT_NAME[] = "player";
constexpr char LONG_NAME[] = "an application name that does not fit into a short string";

/// An event none of whose fields has its default.
class EventTest : public ::testing::Test
{
 protected:
    EventTest()
    {
        m_event.sync = &m_semaphore;
        m_event.receiver = &m_receiver;
        m_event.sender = 3;
        m_event.type = 0x400000004;
        m_event.param1 = 5;
        m_event.param2 = 6;
        m_event.param3 = 7;
        m_event.param4 = 8;
        m_event.param5 = 0x900000009;
        m_event.param6 = 0xA0000000A;
        m_event.flag = true;
        m_event.appName = LONG_NAME;
        m_event.appFlag = 13;
        m_event.setWrappedData(14);
    }

    void ExpectScalars(const TSEvent& event)
    {
        EXPECT_EQ(event.sync, &m_semaphore);
        EXPECT_EQ(event.receiver, &m_receiver);
        EXPECT_EQ(event.sender, 3u);
        EXPECT_EQ(event.type, 0x400000004u);
        EXPECT_EQ(event.param1, 5u);
        EXPECT_EQ(event.param2, 6u);
        EXPECT_EQ(event.param3, 7u);
        EXPECT_EQ(event.param4, 8u);
        EXPECT_EQ(event.param5, 0x900000009u);
        EXPECT_EQ(event.param6, 0xA0000000Au);
        EXPECT_TRUE(event.flag);
        EXPECT_EQ(event.appFlag, 13u);
    }

    static int Attached(const TSEvent& event)
    {
        const auto* data = dynamic_cast<ZORManagedEventData<int>*>(event.wrappedData.get());
        return data != nullptr ? data->data : 0;
    }

    TCSemaphore m_semaphore;
    Receiver m_receiver;
    TSEvent m_event;
};

TEST(EventLayoutTest, RecordHas128BytesAndItsFieldsAreInOrder)
{
    EXPECT_EQ(sizeof(TSEvent), 128u);
    EXPECT_EQ(offsetof(TSEvent, sync), 0u);
    EXPECT_EQ(offsetof(TSEvent, receiver), 8u);
    EXPECT_EQ(offsetof(TSEvent, sender), 16u);
    EXPECT_EQ(offsetof(TSEvent, type), 24u);
    EXPECT_EQ(offsetof(TSEvent, param1), 32u);
    EXPECT_EQ(offsetof(TSEvent, param2), 36u);
    EXPECT_EQ(offsetof(TSEvent, param3), 40u);
    EXPECT_EQ(offsetof(TSEvent, param4), 44u);
    EXPECT_EQ(offsetof(TSEvent, param5), 48u);
    EXPECT_EQ(offsetof(TSEvent, param6), 56u);
    EXPECT_EQ(offsetof(TSEvent, flag), 64u);
    EXPECT_EQ(offsetof(TSEvent, appName), 72u);
    EXPECT_EQ(offsetof(TSEvent, appFlag), 104u);
    EXPECT_EQ(offsetof(TSEvent, wrappedData), 112u);
}

template <typename Field, typename Expected>
constexpr bool IS = std::is_same_v<Field, Expected>;

TEST(EventLayoutTest, FieldsHaveTheirWidths)
{
    EXPECT_TRUE((IS<decltype(TSEvent::sync), TCSemaphore*>));
    EXPECT_TRUE((IS<decltype(TSEvent::receiver), TCHandler*>));
    EXPECT_TRUE((IS<decltype(TSEvent::sender), std::uint32_t>));
    EXPECT_TRUE((IS<decltype(TSEvent::type), unsigned long>));
    EXPECT_EQ(sizeof(TSEvent::type), 8u);
    EXPECT_TRUE((IS<decltype(TSEvent::param1), std::uint32_t>));
    EXPECT_TRUE((IS<decltype(TSEvent::param2), std::uint32_t>));
    EXPECT_TRUE((IS<decltype(TSEvent::param3), std::uint32_t>));
    EXPECT_TRUE((IS<decltype(TSEvent::param4), std::uint16_t>));
    EXPECT_TRUE((IS<decltype(TSEvent::param5), std::uint64_t>));
    EXPECT_TRUE((IS<decltype(TSEvent::param6), std::uint64_t>));
    EXPECT_TRUE((IS<decltype(TSEvent::flag), bool>));
    EXPECT_TRUE((IS<decltype(TSEvent::appName), std::string>));
    EXPECT_TRUE((IS<decltype(TSEvent::appFlag), std::uint8_t>));
    EXPECT_TRUE((IS<decltype(TSEvent::wrappedData), std::shared_ptr<ZOREventDataBase>>));
}

TEST(EventLayoutTest, RecordHasNoVirtualOperation)
{
    EXPECT_FALSE(std::is_polymorphic_v<TSEvent>);
}

/// Its operation takes the first slot that the base leaves.
class AttachmentWithAnOperation : public ZOREventDataBase
{
 public:
    virtual void Operation() {}
};

TEST(EventLayoutTest, AttachmentsHaveAVirtualDestructorAndNothingElse)
{
    EXPECT_TRUE(std::has_virtual_destructor_v<ZOREventDataBase>);
    EXPECT_EQ(sizeof(ZOREventDataBase), sizeof(void*));
    EXPECT_EQ(SlotOf(&AttachmentWithAnOperation::Operation), 2u); // a destructor takes two
    EXPECT_TRUE((std::is_convertible_v<ZORManagedEventData<int>*, ZOREventDataBase*>));
    EXPECT_EQ(sizeof(ZORManagedEventData<void*>), 2 * sizeof(void*));
}

TEST(EventLayoutTest, CodesOfATasksOwnHandlerCountFromZero)
{
    EXPECT_EQ(TCTask::EVENT_EXIT, 0u);
    EXPECT_EQ(TCTask::EVENT_USER, 1u);
    EXPECT_EQ(TCTask::EVENT_PING, 2u);
    EXPECT_EQ(TCTask::EVENT_CLEAR_QUEUE, 3u);
    EXPECT_EQ(TCTask::EVENT_PAUSE, 4u);
    EXPECT_EQ(TCTask::EVENT_RESUME, 5u);
}

TEST_F(EventTest, DefaultsMarkUnsetParametersAndClearTheRest)
{
    alignas(TSEvent) unsigned char storage[sizeof(TSEvent)];
    memset(storage, 0xA5, sizeof(storage));
    auto* event = new (storage) TSEvent;
    EXPECT_EQ(event->sync, nullptr);
    EXPECT_EQ(event->receiver, nullptr);
    EXPECT_EQ(event->sender, 0u);
    EXPECT_EQ(event->type, 0u);
    EXPECT_EQ(event->param1, 0u);
    EXPECT_EQ(event->param2, 0u);
    EXPECT_EQ(event->param3, 0xFFFFu);
    EXPECT_EQ(event->param4, 0xFFFFu);
    EXPECT_EQ(event->param5, 0xFFFFFFFFFFFFFFFFu);
    EXPECT_EQ(event->param6, 0u);
    EXPECT_FALSE(event->flag);
    EXPECT_EQ(event->appName, "");
    EXPECT_EQ(event->appFlag, 0u);
    EXPECT_EQ(event->wrappedData, nullptr);
    event->~TSEvent();
}

TEST_F(EventTest, CopyHasEveryFieldAndSharesTheAttachment)
{
    const TSEvent copy(m_event);
    ExpectScalars(copy);
    EXPECT_EQ(copy.appName, LONG_NAME);
    EXPECT_EQ(Attached(copy), 14);
    EXPECT_EQ(copy.wrappedData, m_event.wrappedData);
    EXPECT_EQ(m_event.wrappedData.use_count(), 2);
}

TEST_F(EventTest, CopyLeavesItsSource)
{
    {
        const TSEvent copy(m_event);
    }
    ExpectScalars(m_event);
    EXPECT_EQ(m_event.appName, LONG_NAME);
    EXPECT_EQ(m_event.wrappedData.use_count(), 1);
}

TEST_F(EventTest, MoveHasEveryField)
{
    TSEvent target;
    target = std::move(m_event);
    ExpectScalars(target);
    EXPECT_EQ(target.appName, LONG_NAME);
    EXPECT_EQ(Attached(target), 14);
    EXPECT_EQ(target.wrappedData.use_count(), 1);
}

TEST_F(EventTest, MoveOntoItselfChangesNothing)
{
    m_event.appName = LONG_NAME;
    TSEvent& same = m_event;
    m_event = std::move(same);
    ExpectScalars(m_event);
    EXPECT_EQ(m_event.appName, LONG_NAME);
    EXPECT_EQ(Attached(m_event), 14);
}

TEST_F(EventTest, MovedFromEventHasNeitherNameNorAttachmentButItsOtherFields)
{
    TSEvent target;
    target = std::move(m_event);
    EXPECT_EQ(m_event.appName, "");
    EXPECT_EQ(m_event.wrappedData, nullptr);
    ExpectScalars(m_event);
}

TEST_F(EventTest, MoveConstructionIsAMoveIntoADefaultEvent)
{
    const TSEvent target(std::move(m_event));
    ExpectScalars(target);
    EXPECT_EQ(target.appName, LONG_NAME);
    EXPECT_EQ(Attached(target), 14);
    EXPECT_EQ(m_event.appName, "");
    EXPECT_EQ(m_event.wrappedData, nullptr);
}

TEST_F(EventTest, NamesOfEveryLengthMoveExactlyOverNamesOfEveryLength)
{
    constexpr std::size_t LENGTHS[] = {0, 1, 14, 15, 16, 17, 100};
    for (const std::size_t from : LENGTHS) {
        for (const std::size_t to : LENGTHS) {
            TSEvent source;
            TSEvent target;
            source.appName = std::string(from, 's');
            target.appName = std::string(to, 't');
            target = std::move(source);
            EXPECT_EQ(target.appName, std::string(from, 's')) << "over " << to;
            EXPECT_EQ(source.appName, "") << from << " over " << to;
        }
    }
}

TEST_F(EventTest, MovedFromEventKeepsNoMemoryOfEitherName)
{
    TSEvent target;
    target.appName = LONG_NAME;
    m_event.appName = SHORT_NAME;
    target = std::move(m_event);
    EXPECT_EQ(target.appName, SHORT_NAME);
    EXPECT_EQ(m_event.appName.capacity(), std::string().capacity());
}

TEST_F(EventTest, MoveReleasesTheTargetsFormerAttachment)
{
    std::atomic<int> living{0};
    TSEvent target;
    target.setWrappedData(Counted(&living));
    EXPECT_EQ(living, 1);
    target = std::move(m_event);
    EXPECT_EQ(living, 0);
}

TEST_F(EventTest, MoveLeavesAFormerAttachmentThatOthersShare)
{
    std::atomic<int> living{0};
    TSEvent target;
    target.setWrappedData(Counted(&living));
    const TSEvent copy(target);
    target = std::move(m_event);
    EXPECT_EQ(living, 1);
    EXPECT_EQ(copy.wrappedData.use_count(), 1);
}

TEST_F(EventTest, LastEventReleasesTheAttachment)
{
    std::atomic<int> living{0};
    auto event = std::make_unique<TSEvent>();
    event->setWrappedData(Counted(&living));
    auto copy = std::make_unique<TSEvent>(*event);
    event.reset();
    EXPECT_EQ(living, 1);
    copy.reset();
    EXPECT_EQ(living, 0);
}

TEST_F(EventTest, DestructorTouchesNeitherSemaphoreNorReceiver)
{
    ASSERT_TRUE(m_semaphore.Create(0));
    {
        const TSEvent copy(m_event);
    }
    EXPECT_FALSE(m_semaphore.Try(0));
    m_semaphore.Destroy();
}

TEST_F(EventTest, AttachmentIsFoundByItsTypeOnly)
{
    auto* base = m_event.wrappedData.get();
    EXPECT_NE(dynamic_cast<ZORManagedEventData<int>*>(base), nullptr);
    EXPECT_EQ(dynamic_cast<ZORManagedEventData<long>*>(base), nullptr);
    EXPECT_EQ(dynamic_cast<ZORManagedEventData<std::promise<bool>>*>(base), nullptr);
}

TEST_F(EventTest, EventWithoutAttachmentHasNoneOfAnyType)
{
    const TSEvent event;
    EXPECT_EQ(dynamic_cast<ZORManagedEventData<int>*>(event.wrappedData.get()), nullptr);
}

TEST_F(EventTest, AttachmentTakesValuesThatCanOnlyBeMoved)
{
    auto value = std::make_unique<int>(42);
    const int* const address = value.get();
    m_event.setWrappedData(std::move(value));
    auto* data =
        dynamic_cast<ZORManagedEventData<std::unique_ptr<int>>*>(m_event.wrappedData.get());
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(data->data.get(), address);
}

TEST_F(EventTest, NewAttachmentReleasesTheFormerOne)
{
    std::atomic<int> living{0};
    m_event.setWrappedData(Counted(&living));
    EXPECT_EQ(living, 1);
    m_event.setWrappedData(1);
    EXPECT_EQ(living, 0);
    EXPECT_EQ(Attached(m_event), 1);
    EXPECT_EQ(m_event.wrappedData.use_count(), 1);
}

TEST_F(EventTest, NewAttachmentOfOneEventLeavesThatOfItsCopies)
{
    const TSEvent copy(m_event);
    m_event.setWrappedData(15);
    EXPECT_EQ(Attached(copy), 14);
    EXPECT_EQ(Attached(m_event), 15);
}

TEST_F(EventTest, PromiseIsKeptThroughCopiesAndMoves)
{
    std::promise<bool> promise;
    std::future<bool> future = promise.get_future();
    m_event.setWrappedData(std::move(promise));
    TSEvent copy(m_event);
    TSEvent target;
    target = std::move(copy);
    auto* data = dynamic_cast<ZORManagedEventData<std::promise<bool>>*>(target.wrappedData.get());
    ASSERT_NE(data, nullptr);
    data->data.set_value(true);
    EXPECT_TRUE(future.get());
}

TEST_F(EventTest, LastEventBreaksAPromiseThatWasNotKept)
{
    std::promise<bool> promise;
    std::future<bool> future = promise.get_future();
    {
        TSEvent event;
        event.setWrappedData(std::move(promise));
        const TSEvent copy(event);
    }
    ASSERT_EQ(future.wait_for(std::chrono::seconds(0)), std::future_status::ready);
    try {
        future.get();
        FAIL() << "the promise is not broken";
    } catch (const std::future_error& error) {
        EXPECT_EQ(error.code(), std::future_errc::broken_promise);
    }
}

} // namespace
