#include <gmock/gmock.h>

#include "ConsoleSeam.h"
#include "KitSupport.h"

namespace {

using namespace zortest;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

struct Unexpected
{
    std::string text;
};

class HandlingTest : public KitTest
{
 protected:
    /// The kit's log lines.
    std::vector<std::string> Lines() const
    {
        std::vector<std::string> lines;
        for (const LogEntry& entry : m_log.Get()) {
            if (entry.tag == "ZOR_KIT") {
                lines.push_back(std::to_string(entry.priority) + " " + entry.text);
            }
        }
        return lines;
    }

    const LogRecord m_log;
};

TEST_F(HandlingTest, WrongAttachmentIsLoggedWithBothTypesAndAnsweredFalse)
{
    TSEvent event = EventTo(&m_tuner, Tuner::EventType<Text>());
    event.setWrappedData(Unexpected{"a"});
    EXPECT_FALSE(m_tuner.t_OnEvent(&event));
    EXPECT_THAT(Lines(),
                ElementsAre(AllOf(HasSubstr("6 task Tuner: not handled: message zortest::Text "
                                            "needs the attachment "
                                            "ZORManagedEventData<zortest::Text>, but has "
                                            "ZORManagedEventData<"),
                                  HasSubstr("Unexpected>"))));
    EXPECT_EQ(m_tuner.MessageCounts().mismatched, 1U);
    EXPECT_EQ(m_tuner.trace.Size(), 0U);
}

TEST_F(HandlingTest, MissingAttachmentIsLogged)
{
    TSEvent event = EventTo(&m_tuner, Tuner::EventType<Text>());
    EXPECT_FALSE(m_tuner.t_OnEvent(&event));
    TSEvent asked = EventTo(&m_tuner, Tuner::EventType<Tune>() + 1);
    EXPECT_FALSE(m_tuner.t_OnEvent(&asked));
    TSEvent work = EventTo(&m_tuner, zor::detail::EVENT_WORK);
    work.setWrappedData(1);
    EXPECT_FALSE(m_tuner.t_OnEvent(&work));
    EXPECT_THAT(Lines(), ElementsAre(HasSubstr("but has none"), HasSubstr("but has none"),
                                     HasSubstr("but has ZORManagedEventData<int>")));
}

TEST_F(HandlingTest, TypeThatNobodyKnowsIsAnsweredFalse)
{
    TSEvent event = EventTo(&m_tuner, 0x10002 + 16);
    EXPECT_FALSE(m_tuner.t_OnEvent(&event));
    TSEvent below = EventTo(&m_tuner, 0x10001);
    EXPECT_FALSE(m_tuner.t_OnEvent(&below));
    EXPECT_TRUE(Lines().empty());
}

TEST_F(HandlingTest, HandlerThatThrowsIsLoggedWithTaskMessageAndReason)
{
    m_tuner.onTune = [](int channel) {
        if (channel == 1) {
            throw std::runtime_error("no signal");
        }
        throw 5;
    };
    EXPECT_FALSE(m_tuner.Ask(Tune{1}, LONG));
    EXPECT_FALSE(m_tuner.Ask(Tune{2}, LONG));
    EXPECT_THAT(
        Lines(),
        ElementsAre("6 task Tuner: the handler of message zortest::Tune threw: no signal",
                    "6 task Tuner: the handler of message zortest::Tune threw: no std::exception"));
}

/// Makes log lines seen outside of a process that ends.
class Printer : public IZORLogger
{
 public:
    void ZORLog(bool, log_priority, const char*, const char*, const char*, const char*, int, int,
                int, int, int, int, const char* fmt, va_list* args) override
    {
        char text[1024];
        std::vsnprintf(text, sizeof(text), fmt, *args);
        std::fprintf(stderr, "LOG %s\n", text);
    }

    const std::string& GetLoggerId() const override
    {
        static const std::string id = "printer";
        return id;
    }
};

/// Has @p function do something to a task that ends the process.
void Die(const std::function<void(Tuner&)>& function)
{
    ZORLogs::getInstance()->AddPlugin(std::make_unique<Printer>());
    const TaskRuntime runtime;
    Tuner tuner;
    tuner.onTune = [](int) { throw std::runtime_error("no signal"); };
    ASSERT_TRUE(tuner.Start("Tuner"));
    function(tuner);
    std::this_thread::sleep_for(DEADLINE);
}

TEST(HandlingDeathTest, PostedMessageWhoseHandlerThrowsEndsTheProcessWithALine)
{
    EXPECT_EXIT(Die([](Tuner& tuner) { tuner.Post(Tune{1}); }), ::testing::KilledBySignal(SIGABRT),
                "LOG task Tuner: the handler of message zortest::Tune threw: no signal");
}

TEST(HandlingDeathTest, ErrandThatThrowsEndsTheProcessWithALine)
{
    const auto errand = [](Tuner& tuner) { tuner.Run([] { throw std::runtime_error("x"); }); };
    EXPECT_EXIT(Die(errand), ::testing::KilledBySignal(SIGABRT),
                "LOG task Tuner: a lambda of Run.. threw: x");
}

TEST(HandlingDeathTest, TimerThatThrowsEndsTheProcessWithALine)
{
    zor::Timer timer;
    const auto throwing = [&](Tuner& tuner) {
        timer = tuner.After(10ms, [] { throw std::runtime_error("x"); });
    };
    EXPECT_EXIT(Die(throwing), ::testing::KilledBySignal(SIGABRT),
                "LOG task Tuner: the lambda of a timer threw: x");
}

TEST(HandlingDeathTest, CallbackOfAnAskThatThrowsEndsTheProcessWithALine)
{
    const auto throwing = [&](Tuner& tuner) {
        (void)tuner.Run([&] {
            tuner.AskAsync(Empty{},
                           [](const zor::Result<void>&) { throw std::runtime_error("x"); });
        });
    };
    EXPECT_EXIT(Die(throwing), ::testing::KilledBySignal(SIGABRT),
                "LOG task Tuner: the callback of an ask threw: x");
}

} // namespace
