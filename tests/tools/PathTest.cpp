#include "Path.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "Recorded.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using zorrecord::Call;
using zorrecord::Record;
using zorrecord::Shape;
using zorrecord::Stretch;

constexpr std::uint32_t SCAN = 1;
constexpr std::uint32_t STORE = 2;

/// Calls made by hand, between two tasks; times in microseconds.
class PathTest : public testing::Test
{
 protected:
    PathTest() { m_calls.reserve(16), m_records.reserve(16); }

    std::size_t Send(std::uint32_t thread, std::uint64_t type, std::uint64_t begin,
                     std::uint64_t end, std::size_t caller = Call::NONE)
    {
        return Add(Shape::SEND, thread, type, begin, end, caller);
    }

    /// @param sender  the thread whose event it is
    std::size_t Handle(std::uint32_t thread, std::uint32_t sender, std::uint64_t type,
                       std::uint64_t begin, std::uint64_t end)
    {
        const std::size_t index = Add(Shape::HANDLING, thread, type, begin, end, Call::NONE);
        m_calls[index].event->sender = sender;
        return index;
    }

    using Line = std::tuple<std::uint64_t, std::uint64_t, int, std::string, std::string>;

    std::vector<Line> Path(std::size_t index) const
    {
        std::vector<Line> lines;
        for (const Stretch& stretch : zorrecord::PathOf(m_calls, {}, index)) {
            lines.emplace_back(stretch.beginNsec / 1000, stretch.endNsec / 1000, stretch.depth,
                               stretch.thread, stretch.what);
        }
        return lines;
    }

    Call& operator[](std::size_t index) { return m_calls[index]; }

 private:
    std::size_t Add(Shape shape, std::uint32_t thread, std::uint64_t type, std::uint64_t begin,
                    std::uint64_t end, std::size_t caller)
    {
        Record record;
        record.thread = thread;
        record.threadHandle = thread;
        record.threadName = thread == SCAN ? "scan" : "store";
        m_records.push_back(record);
        Call call;
        call.record = &m_records.back();
        call.shape = shape;
        call.sync = shape == Shape::SEND;
        call.event.emplace();
        call.event->type = type;
        call.event->receiver = type % 2 == 0 ? STORE : SCAN; // whose types are the odd ones
        call.beginNsec = begin * 1000;
        call.endNsec = end * 1000;
        call.finished = true;
        call.caller = caller;
        m_calls.push_back(call);
        return m_calls.size() - 1;
    }

    std::vector<Call> m_calls;
    std::vector<Record> m_records;
};

TEST_F(PathTest, HandlingWithoutSendsIsItsOwnWork)
{
    EXPECT_THAT(Path(Handle(SCAN, STORE, 7, 10, 30)),
                ElementsAre(Line{10, 30, 0, "scan", "handles type 7"}));
}

TEST_F(PathTest, SynchronousSendIsWaitHandlingAndWayBack)
{
    const std::size_t whole = Handle(SCAN, STORE, 7, 100, 200);
    Send(SCAN, 8, 110, 190, whole);
    Handle(STORE, SCAN, 8, 150, 180);
    EXPECT_THAT(Path(whole),
                ElementsAre(Line{100, 110, 0, "scan", "handles type 7"},
                            Line{110, 150, 1, "scan", "type 8 waits in the queue of store"},
                            Line{150, 180, 2, "store", "handles type 8"},
                            Line{180, 190, 1, "scan", "the reply from store is on its way"},
                            Line{190, 200, 0, "scan", "handles type 7"}));
}

TEST_F(PathTest, WaitInTheQueueShowsWhatTheReceiverDidMeanwhile)
{
    Handle(STORE, STORE, 14, 0, 120);
    const std::size_t send = Send(SCAN, 8, 100, 190);
    Handle(STORE, STORE, 6, 130, 150);
    Handle(STORE, SCAN, 8, 150, 190);
    EXPECT_THAT(Path(send),
                ElementsAre(Line{100, 120, 1, "store", "handles type 14"},
                            Line{120, 130, 0, "scan", "type 8 waits in the queue of store"},
                            Line{130, 150, 1, "store", "handles type 6"},
                            Line{150, 190, 1, "store", "handles type 8"}));
}

TEST_F(PathTest, CircleEndsWhereItCloses)
{
    // Before, so that it is known whose the receivers are.
    Handle(STORE, SCAN, 8, 10, 20);
    Handle(SCAN, STORE, 9, 10, 20);
    const std::size_t store = Handle(STORE, SCAN, 6, 90, 900);
    const std::size_t scan = Handle(SCAN, STORE, 7, 100, 900);
    const std::size_t first = Send(SCAN, 8, 110, 900, scan);
    const std::size_t second = Send(STORE, 9, 120, 900, store);
    for (const std::size_t hanging : {store, scan, first, second}) {
        (*this)[hanging].finished = false;
    }
    EXPECT_THAT(Path(scan),
                ElementsAre(Line{100, 110, 0, "scan", "handles type 7, not finished"},
                            Line{110, 120, 2, "store", "handles type 6, not finished"},
                            Line{120, 900, 4, "scan",
                                 "a circle: waits for a call that waits for this one"}));
}

TEST_F(PathTest, ShortStretchesAreLeftInWhatIsAroundThem)
{
    const std::size_t whole = Handle(SCAN, STORE, 7, 0, 100000);
    Send(SCAN, 8, 10, 20, whole);
    Send(SCAN, 8, 200, 400, whole);
    EXPECT_THAT(Path(whole),
                ElementsAre(Line{0, 200, 0, "scan", "handles type 7"},
                            Line{200, 400, 1, "scan",
                                 "type 8 waits in the queue of a task without records"},
                            Line{400, 100000, 0, "scan", "handles type 7"}));
}

TEST_F(PathTest, NothingWantedIsAnError)
{
    std::ostringstream out;
    EXPECT_THROW(zorrecord::PrintPath(zorrecord::Recording(), {}, {}, false, out),
                 std::runtime_error);
    EXPECT_EQ(out.str(), "");
}

/// What the tool makes of a hang.
class HangPathTest : public testing::Test
{
 protected:
    static void SetUpTestSuite() { sRecording = zortest::Recorded("leave"); }

    static std::string Print(const zorrecord::Selection& selection, bool asJson)
    {
        std::ostringstream out;
        zorrecord::PrintPath(sRecording, selection, {}, asJson, out);
        return out.str();
    }

    static zorrecord::Recording sRecording;
};

zorrecord::Recording HangPathTest::sRecording;

TEST_F(HangPathTest, TableNamesTheTaskThatIsWaitedFor)
{
    zorrecord::Selection selection;
    selection.type = 901;
    selection.unfinished = true;
    const std::string table = Print(selection, false);
    EXPECT_THAT(table, HasSubstr("scan("));
    EXPECT_THAT(table, HasSubstr(" sent type 901 for "));
    EXPECT_THAT(table, HasSubstr(" and has not finished:\n"));
    EXPECT_THAT(table, HasSubstr(" 100.0 %    store: handles type 900, not finished\n"));
}

TEST_F(HangPathTest, JsonHasTheStretchesWithoutAHole)
{
    zorrecord::Selection selection;
    selection.task = "scan";
    selection.unfinished = true;
    const nlohmann::json call = nlohmann::json::parse(Print(selection, true));
    EXPECT_EQ(call.at("call"), "handling");
    EXPECT_EQ(call.at("type"), 801);
    EXPECT_EQ(call.at("finished"), false);
    std::uint64_t at = call.at("from_ns");
    for (const nlohmann::json& stretch : call.at("path")) {
        EXPECT_EQ(stretch.at("from_ns"), at);
        at += stretch.at("duration_ns").get<std::uint64_t>();
    }
    EXPECT_EQ(
        at, call.at("from_ns").get<std::uint64_t>() + call.at("duration_ns").get<std::uint64_t>());
    EXPECT_EQ(call.at("path").back().at("thread"), "store");
}

} // namespace
