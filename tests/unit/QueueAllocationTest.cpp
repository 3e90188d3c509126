#include <gtest/gtest.h>
#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <future>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <utility>

#include "QueueFixture.h"
#include "QueueSender.h"

namespace {

thread_local unsigned long tBlocks = 0; ///< that the thread has asked for
std::atomic<long> gBytes{0};            ///< that are in use

void* Allocate(std::size_t size)
{
    void* const block = malloc(size != 0 ? size : 1);
    if (block != nullptr) {
        ++tBlocks;
        gBytes += static_cast<long>(malloc_usable_size(block));
    }
    return block;
}

void* AllocateOrThrow(std::size_t size)
{
    void* const block = Allocate(size);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    return block;
}

void Release(void* block)
{
    gBytes -= static_cast<long>(malloc_usable_size(block));
    free(block);
}

} // namespace

void* operator new(std::size_t size)
{
    return AllocateOrThrow(size);
}

void* operator new[](std::size_t size)
{
    return AllocateOrThrow(size);
}

void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept
{
    return Allocate(size);
}

void* operator new[](std::size_t size, const std::nothrow_t& /*tag*/) noexcept
{
    return Allocate(size);
}

void operator delete(void* block) noexcept
{
    Release(block);
}

void operator delete[](void* block) noexcept
{
    Release(block);
}

void operator delete(void* block, std::size_t /*size*/) noexcept
{
    Release(block);
}

void operator delete[](void* block, std::size_t /*size*/) noexcept
{
    Release(block);
}

void operator delete(void* block, const std::nothrow_t& /*tag*/) noexcept
{
    Release(block);
}

void operator delete[](void* block, const std::nothrow_t& /*tag*/) noexcept
{
    Release(block);
}

namespace {

using namespace zortest;

/// What queue and events ask of the heap.
class QueueAllocationTest : public QueueTest
{
 protected:
    static constexpr std::size_t LONG = 10000;

    QueueAllocationTest()
    {
        Put(0); // whatever is made on first use is made now
        TSEvent event;
        m_queue.Get(&event, 0UL);
    }

    static void SetAppName(const std::string& name)
    {
        TCDebugPrintZOR::GetInstance()->SetAppName(name.c_str());
    }

    /// How many blocks the calling thread asks for while it runs @p function.
    template <typename Function>
    static unsigned long BlocksOf(Function function)
    {
        const unsigned long before = tBlocks;
        function();
        return tBlocks - before;
    }
};

TEST_F(QueueAllocationTest, HeapIsCounted)
{
    EXPECT_EQ(BlocksOf([] { std::string(LONG, 'x').clear(); }), 1u);
    const long before = gBytes;
    auto block = std::make_unique<std::string>(LONG, 'x');
    EXPECT_GE(gBytes - before, static_cast<long>(LONG));
    block.reset();
    EXPECT_EQ(gBytes, before);
}

TEST_F(QueueAllocationTest, AsynchronousPutAndGetsAllocateNothing)
{
    TSEvent event = EventFor(&m_receiver, 1, 1);
    event.setWrappedData(1);
    SetAppName("player");
    TSEvent taken;
    EXPECT_EQ(BlocksOf([&] {
                  for (int i = 0; i < 300; ++i) {
                      m_queue.Put(&event, i % 2 == 0);
                      m_queue.Put(&event, i % 2 == 1);
                      m_queue.GetSync(&taken, 0, false);
                      m_queue.GetQData(&taken);
                  }
              }),
              0u);
    EXPECT_EQ(m_queue.Size(), 0u);
}

TEST_F(QueueAllocationTest, SelectionAndDeletionAllocateNothing)
{
    TSEvent event = EventFor(&m_receiver, 1, 1);
    event.setWrappedData(1);
    for (int i = 0; i < 240; ++i) {
        event.type = static_cast<unsigned long>(i % 3);
        ASSERT_TRUE(m_queue.Put(&event, false));
    }
    TSEvent taken;
    EXPECT_EQ(BlocksOf([&] {
                  m_queue.Get(&taken, &m_receiver, 2);
                  m_queue.Get(&taken, &m_receiver);
                  m_queue.Find(&m_receiver, 1, nullptr);
                  m_queue.DeleteEx(&m_receiver, 0, 10, nullptr);
                  m_queue.Delete(&m_receiver, 0, nullptr);
                  m_queue.Delete(&m_receiver, nullptr);
              }),
              0u);
    EXPECT_EQ(m_queue.Size(), 0u);
}

TEST_F(QueueAllocationTest, LongNameCostsOneBlockWhenItIsPutAndNoneWhenItIsTaken)
{
    SetAppName(std::string(LONG, 'n'));
    TSEvent event = EventFor(&m_receiver, 1, 1);
    TSEvent taken;
    EXPECT_EQ(BlocksOf([&] { m_queue.Put(&event, false); }), 1u);
    EXPECT_EQ(BlocksOf([&] { m_queue.GetSync(&taken, 0, false); }), 0u);
    EXPECT_EQ(taken.appName.size(), LONG);
}

TEST_F(QueueAllocationTest, SynchronousPutCostsTheReplysState)
{
    unsigned long blocks = 0;
    std::thread sender([&] {
        TSEvent event = EventFor(&m_receiver, 1, 1);
        EXPECT_TRUE(m_queue.Put(&event, false)); // makes the thread's own data
        EXPECT_TRUE(event.appName.empty());
        blocks = BlocksOf([&] { EXPECT_TRUE(m_queue.PutSync(&event, true, false)); });
    });
    TSEvent event;
    ASSERT_TRUE(m_queue.GetSync(&event, FOR_EVER, false));
    ASSERT_TRUE(m_queue.GetSync(&event, FOR_EVER, false));
    event.sync->Give();
    sender.join();
    EXPECT_EQ(blocks, 1u);
}

TEST_F(QueueAllocationTest, SlotKeepsNoMemoryOfANameThatWasTaken)
{
    SetAppName(std::string(LONG, 'n'));
    TSEvent event = EventFor(&m_receiver, 1, 1);
    const long before = gBytes;
    for (int i = 0; i < 100; ++i) {
        ASSERT_TRUE(m_queue.Put(&event, i % 2 == 0));
    }
    EXPECT_GE(gBytes - before, static_cast<long>(100 * LONG));
    {
        TSEvent taken;
        for (int i = 0; i < 25; ++i) {
            ASSERT_TRUE(m_queue.GetSync(&taken, 0, false));
            ASSERT_TRUE(m_queue.GetQData(&taken));
            ASSERT_TRUE(m_queue.Get(&taken, &m_receiver, 1));
            ASSERT_TRUE(m_queue.Get(&taken, &m_receiver));
        }
    }
    EXPECT_EQ(gBytes, before);
}

TEST_F(QueueAllocationTest, SlotKeepsNoMemoryOfTheTargetsName)
{
    TSEvent event = EventFor(&m_receiver, 1, 1);
    const long before = gBytes;
    for (int i = 0; i < 100; ++i) {
        TSEvent taken;
        taken.appName = std::string(LONG, 't');
        ASSERT_TRUE(m_queue.Put(&event, false));
        ASSERT_TRUE(m_queue.Get(&taken, 0UL));
    }
    EXPECT_EQ(gBytes, before);
}

TEST_F(QueueAllocationTest, SlotKeepsNoMemoryOfANameThatWasDeleted)
{
    SetAppName(std::string(LONG, 'n'));
    TSEvent event = EventFor(&m_receiver, 1, 1);
    TSEvent other = EventFor(&m_other, 1, 1);
    const long before = gBytes;
    ASSERT_TRUE(m_queue.Put(&other, false));
    const long one = gBytes - before;
    for (int i = 0; i < 100; ++i) {
        ASSERT_TRUE(m_queue.Put(&event, i % 2 == 0));
    }
    EXPECT_TRUE(m_queue.DeleteEx(&m_receiver, 1, 50, nullptr));
    EXPECT_EQ(gBytes - before, 51 * one);
    EXPECT_TRUE(m_queue.Delete(&m_receiver, nullptr));
    EXPECT_EQ(gBytes - before, one);
    EXPECT_TRUE(m_queue.Delete(&m_other, nullptr));
    EXPECT_EQ(gBytes, before);
}

TEST_F(QueueAllocationTest, RefusedPutKeepsNoMemory)
{
    PutAll(1, 240);
    SetAppName(std::string(LONG, 'n'));
    TSEvent event = EventFor(&m_receiver, 1, 1);
    const long before = gBytes;
    EXPECT_FALSE(m_queue.Put(&event, false));
    EXPECT_FALSE(m_queue.PutSync(&event, true, false));
    EXPECT_EQ(gBytes, before);
}

TEST_F(QueueAllocationTest, AttachmentAndItsReferenceCountAreSeparateBlocks)
{
    TSEvent event;
    EXPECT_EQ(BlocksOf([&] { event.setWrappedData(1); }), 2u);
    const std::weak_ptr<ZOREventDataBase> count(event.wrappedData);
    event.setWrappedData(std::string(LONG, 'a'));
    const std::weak_ptr<ZOREventDataBase> second(event.wrappedData);
    const long before = gBytes;
    event.wrappedData.reset();
    // The count is still in use; the attachment's own memory is not.
    EXPECT_LE(gBytes, before - static_cast<long>(LONG + sizeof(ZORManagedEventData<std::string>)));
    EXPECT_TRUE(second.expired());
}

TEST_F(QueueAllocationTest, MovingAnEventAllocatesNothing)
{
    TSEvent source;
    source.appName = std::string(LONG, 's');
    source.setWrappedData(1);
    TSEvent target;
    EXPECT_EQ(BlocksOf([&] {
                  target = std::move(source);
                  const TSEvent constructed(std::move(target));
              }),
              0u);
}

} // namespace
