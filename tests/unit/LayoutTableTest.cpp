#include "LayoutTable.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "FailedAssertion.h"
#include "Layout.h"
#include "TaskSupport.h"
#include "Timer.h"

// The table as a tool uses it: by its symbol, its own account of itself, and names.

namespace {

using namespace zortest;
using zor::LayoutEntry;
using zor::LayoutKind;
using zor::LayoutObject;

class LayoutTableTest : public ::testing::Test
{
 protected:
    void SetUp() override { ASSERT_NE(m_table, nullptr); }

    const zor::LayoutHead& Head() const
    {
        return *reinterpret_cast<const zor::LayoutHead*>(m_table);
    }

    std::vector<LayoutEntry> Entries() const
    {
        std::vector<LayoutEntry> entries(Head().entryCount);
        for (std::size_t i = 0; i < entries.size(); ++i) {
            memcpy(&entries[i], m_table + Head().entriesAt + i * Head().entrySize,
                   sizeof(LayoutEntry));
        }
        return entries;
    }

    LayoutEntry Entry(const std::string& name) const
    {
        for (const LayoutEntry& entry : Entries()) {
            if (entry.name == name) {
                return entry;
            }
        }
        ADD_FAILURE() << "there is no " << name;
        return {};
    }

    const void* Object(const std::string& name) const
    {
        for (std::size_t i = 0; i < Head().objectCount; ++i) {
            LayoutObject object{};
            memcpy(&object, m_table + Head().objectsAt + i * Head().objectSize, sizeof(object));
            if (object.name == name) {
                return object.address;
            }
        }
        ADD_FAILURE() << "there is no " << name;
        return nullptr;
    }

    /// What lies @p entry behind @p begin.
    template <typename Value>
    Value At(const void* begin, const std::string& entry) const
    {
        Value value;
        EXPECT_EQ(Entry(entry).size, sizeof(value)) << entry;
        memcpy(&value, static_cast<const char*>(begin) + Entry(entry).offset, sizeof(value));
        return value;
    }

    const char* const m_table = static_cast<const char*>(dlsym(RTLD_DEFAULT, zor::LAYOUT_SYMBOL));
};

TEST_F(LayoutTableTest, SaysWhatItIs)
{
    EXPECT_EQ(memcmp(Head().magic, zor::LAYOUT_MAGIC, sizeof(Head().magic)), 0);
    EXPECT_EQ(Head().format, 1u);
    EXPECT_STREQ(Head().version, ZOR_CORE_VERSION);
    EXPECT_LE(Head().objectsAt + Head().objectCount * Head().objectSize, Head().size);
    EXPECT_LE(Head().entriesAt + Head().entryCount * Head().entrySize, Head().size);
    EXPECT_LE(Head().size, 16384u); // a few kilobytes
}

TEST_F(LayoutTableTest, EachNameIsThereOnce)
{
    std::set<std::string> names;
    for (const LayoutEntry& entry : Entries()) {
        EXPECT_EQ(strnlen(entry.name, sizeof(entry.name)), strlen(entry.name));
        EXPECT_TRUE(names.insert(entry.name).second) << entry.name;
    }
}

TEST_F(LayoutTableTest, MembersAreInsideOfTheirClasses)
{
    const std::vector<LayoutEntry> entries = Entries();
    int members = 0;
    for (const LayoutEntry& entry : entries) {
        const std::string name = entry.name;
        const std::size_t end = name.find('.');
        const auto owner = std::find_if(entries.begin(), entries.end(), [&](const auto& other) {
            return other.kind == LayoutKind::CLASS && other.name == name.substr(0, end);
        });
        if (end != std::string::npos && owner != entries.end()) {
            EXPECT_LE(entry.offset + entry.size, owner->size) << name;
            ++members;
        }
    }
    EXPECT_GT(members, 50);
}

TEST_F(LayoutTableTest, ObjectsAreThoseOfTheProcess)
{
    EXPECT_EQ(Object("TCTaskList::m_mutex"), &TCTaskList::m_mutex);
    EXPECT_EQ(Object("TCTaskList::m_taskList"), &TCTaskList::m_taskList);
    EXPECT_EQ(Object("TCSyncDet::m_arrPCSyncDet"), &TCSyncDet::m_arrPCSyncDet);
    EXPECT_NE(Object("TCSyncDet::m_pLock"), nullptr);
    EXPECT_EQ(Object("TCTimer::m_scheduler"), &TCTimer::m_scheduler);
    EXPECT_EQ(Object("zor_core_failed_assertion"), &zor_core_failed_assertion);
}

TEST_F(LayoutTableTest, LeadsFromTheRegistryToWhatATaskHandles)
{
    const TaskRuntime runtime;
    TestTask first;
    TestTask second;
    ASSERT_TRUE(first.Start("first"));
    ASSERT_TRUE(second.Start("second"));

    std::vector<std::string> names;
    const char* found = nullptr;
    const auto* const list = static_cast<const char*>(Object("TCTaskList::m_taskList"));
    const char* node = At<const char*>(list, "std::list.next");
    for (; node != list; node = At<const char*>(node, "std::list.next")) {
        const auto* const task = At<const char*>(node, "std::list.value");
        char name[16];
        ASSERT_EQ(Entry("TCTask.m_taskName").size, sizeof(name));
        memcpy(name, task + Entry("TCTask.m_taskName").offset, sizeof(name));
        names.emplace_back(name);
        found = task;
    }
    EXPECT_EQ(names, (std::vector<std::string>{"first", "second"}));
    EXPECT_EQ(At<std::size_t>(list, "std::list.size"), 2u);
    ASSERT_EQ(found, reinterpret_cast<const char*>(&second));

    FunctionHandler handler(
        [&](const TSEvent*) {
            EXPECT_EQ(At<const TCHandler*>(found, "TCTask.m_handledEvents.m_receiver"), &handler);
            EXPECT_EQ(At<unsigned long>(found, "TCTask.m_handledEvents.m_type"), 77u);
            const char* const queue = found + Entry("TCTask:TCQueue").offset;
            EXPECT_EQ(At<std::uint64_t>(queue, "TCQueue.m_puts"), 1u);
            EXPECT_EQ(At<std::uint64_t>(queue, "TCQueue.m_count"), 0u);
            return true;
        },
        &second);
    TSEvent event = EventTo(&handler, 77);
    ASSERT_TRUE(TCTask::Send(&event, true, false));
    EXPECT_EQ(At<std::uint64_t>(found, "TCTask.m_handledEvents.m_count"), 1u);
    EXPECT_TRUE(RunOn(&second, [&] { handler.Destroy(); }));
}

TEST_F(LayoutTableTest, LeadsToTheTimerThatIsDueNext)
{
    const TaskRuntime runtime;
    TestTask task;
    ASSERT_TRUE(task.Start());
    {
        ITimer::TimerHandlerParams params;
        params.task = &task;
        TCTimer later(params);
        TCTimer sooner(params);
        const auto* const scheduler = static_cast<const char*>(Object("TCTimer::m_scheduler"));
        const char* const schedule = scheduler + Entry("TCTimersScheduler.m_wakeups").offset;
        const auto size = [&] { return At<std::size_t>(schedule, "std::set.size"); };
        EXPECT_EQ(size(), 0u);
        EXPECT_EQ(At<const char*>(schedule, "std::set.leftmost"),
                  schedule + Entry("std::set.header").offset);
        ASSERT_TRUE(later.Restart(std::chrono::hours(2), 1));
        const auto begin = std::chrono::steady_clock::now();
        ASSERT_TRUE(sooner.Restart(std::chrono::hours(1), 1));
        EXPECT_EQ(size(), 2u);

        const char* const first =
            At<const char*>(schedule, "std::set.leftmost") + Entry("std::set.value").offset;
        const auto due = At<std::chrono::steady_clock::time_point>(
            first, "TCTimersScheduler::TimerWakeupData.due");
        EXPECT_GE(due, begin + std::chrono::hours(1));
        EXPECT_LE(due, begin + std::chrono::minutes(61));
        const auto id = At<std::size_t>(first, "TCTimersScheduler::TimerWakeupData.id");
        const char* const slots = scheduler + Entry("TCTimersScheduler.m_scheduledTimers").offset;
        const char* const slot = At<const char*>(slots, "std::vector.begin") +
                                 id * Entry("TCTimersScheduler::TimerSchedule").size;
        EXPECT_LT(slot, At<const char*>(slots, "std::vector.end"));
        EXPECT_EQ(At<std::int64_t>(slot, "TCTimersScheduler::TimerSchedule.interval"),
                  60 * 60 * 1000);
    }
    task.End();
}

} // namespace
