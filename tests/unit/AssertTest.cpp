#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "ConsoleSeam.h"
#include "Debug.h"

namespace {

using test::TSCustomAssert;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;
using zortest::ConsoleCapture;

class AssertTest : public ::testing::Test
{
 protected:
    ~AssertTest() override
    {
        TSCustomAssert::callback = nullptr;
        zortest::SetConsoleMissing(false);
    }

    struct TSFailure
    {
        std::string file;
        unsigned long line;
    };

    void CollectFailures()
    {
        TSCustomAssert::callback = [this](const char* file, unsigned long line) {
            m_failures.push_back({file, line});
        };
    }

    /// An assertion with a callback in place: it must return and leave the console alone.
    void ExpectOnlyTheCallback(bool release)
    {
        CollectFailures();
        const ConsoleCapture console;
        zortest::SetRelease(release);
        _TCAssert("a == b", "src/Some.cpp", 4711);
        ASSERT_EQ(m_failures.size(), 1u);
        EXPECT_EQ(m_failures[0].file, "src/Some.cpp");
        EXPECT_EQ(m_failures[0].line, 4711u);
        EXPECT_EQ(console.Text(), "");
        EXPECT_THAT(console.Pauses(), IsEmpty());
    }

    std::vector<TSFailure> m_failures;
};

TEST_F(AssertTest, CallbackIsEmptyAtStart)
{
    EXPECT_FALSE(TSCustomAssert::callback);
}

TEST_F(AssertTest, CallbackGetsFileAndLineOnceInADebugBuild)
{
    ExpectOnlyTheCallback(false);
}

TEST_F(AssertTest, CallbackGetsFileAndLineOnceInAReleaseBuild)
{
    ExpectOnlyTheCallback(true);
}

TEST_F(AssertTest, ConsoleGetsTheReportAgainOnceTheCallbackIsEmptied)
{
    CollectFailures();
    TSCustomAssert::callback = nullptr;
    EXPECT_THAT(zortest::AssertionsOf([] { _TCAssert("a == b", "src/Some.cpp", 1); }),
                ElementsAre("a == b"));
    EXPECT_THAT(m_failures, IsEmpty());
}

TEST_F(AssertTest, CallbackThatThrowsThrowsThroughTheAssertion)
{
    TSCustomAssert::callback = [](const char*, unsigned long) { throw 1; };
    EXPECT_THROW(_TCAssert("a == b", "src/Some.cpp", 1), int);
}

TEST_F(AssertTest, MessageGoesToStandardErrorWithoutALineEndBeforeTheCallback)
{
    CollectFailures();
    const ConsoleCapture console;
    CaptureStderr();
    _TCAssert("ret == 0", "src/Some.cpp", 7, "open = %d, %s", 13, "denied");
    EXPECT_EQ(GetCapturedStderr(), "open = 13, denied");
    ASSERT_EQ(m_failures.size(), 1u);
    EXPECT_EQ(m_failures[0].line, 7u);
    EXPECT_EQ(console.Text(), "");
}

TEST_F(AssertTest, MessageIsNotPartOfTheConsoleReport)
{
    const ConsoleCapture console;
    CaptureStderr();
    _TCAssert("ret == 0", "src/Some.cpp", 7, "open = %d\n", 13);
    EXPECT_EQ(GetCapturedStderr(), "open = 13\n");
    EXPECT_THAT(console.Text(), Not(HasSubstr("open")));
    EXPECT_THAT(console.Text(), HasSubstr("Assertion failed: src/Some.cpp (7) - ret == 0\n"));
    EXPECT_THAT(console.Pauses(), ElementsAre(100u));
}

TEST_F(AssertTest, ReleaseBuildGoesOnAfterOneReportAndOnePauseOf100Ms)
{
    const ConsoleCapture console;
    _TCAssert("a == b", "src/Some.cpp", 4711);
    EXPECT_THAT(console.Failed(), ElementsAre("a == b"));
    EXPECT_THAT(console.Text(), HasSubstr("Assertion failed: src/Some.cpp (4711) - a == b\n"));
    EXPECT_THAT(console.Pauses(), ElementsAre(100u));
}

TEST_F(AssertTest, MissingConsoleGetsNoReportAndTheProgramGoesOnInARelease)
{
    const ConsoleCapture console;
    zortest::SetConsoleMissing(true);
    CaptureStderr();
    _TCAssert("a == b", "src/Some.cpp", 1);
    EXPECT_EQ(GetCapturedStderr(), "");
    EXPECT_EQ(console.Text(), "");
    EXPECT_THAT(console.Pauses(), ElementsAre(100u));
}

TEST_F(AssertTest, ThreadsMayFailAtTheSameTime)
{
    constexpr int THREADS = 4;
    const ConsoleCapture console;
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([] { _TCAssert("a == b", "src/Some.cpp", 1); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(console.Pauses(), std::vector<unsigned long>(THREADS, 100));
}

TEST_F(AssertTest, HoldingExpressionIsEvaluatedOnceAndNotReported)
{
    const ConsoleCapture console;
    int evaluated = 0;
    TCASSERT(++evaluated == 1);
    TCASSERT_MSG(++evaluated == 2, "never printed");
    EXPECT_EQ(evaluated, 2);
    EXPECT_EQ(console.Text(), "");
}

TEST_F(AssertTest, FailingExpressionIsEvaluatedOnce)
{
    const ConsoleCapture console;
    int evaluated = 0;
    TCASSERT(++evaluated == 7);
    EXPECT_EQ(evaluated, 1);
    EXPECT_THAT(console.Failed(), ElementsAre("++evaluated == 7"));
}

TEST_F(AssertTest, TextOfTheExpressionIsLiteral)
{
    int object = 0;
    int* m_pInstance = &object;
    // clang-format off
    EXPECT_THAT(zortest::AssertionsOf([&] { TCASSERT(m_pInstance == __null); }),
                ElementsAre("m_pInstance == __null"));
    EXPECT_THAT(zortest::AssertionsOf([&] { TCASSERT(m_pInstance == NULL); }),
                ElementsAre("m_pInstance == NULL"));
    EXPECT_THAT(zortest::AssertionsOf([&] { TCASSERT_MSG(!m_pInstance, "%s", ""); }),
                ElementsAre("!m_pInstance"));
    // clang-format on
}

TEST_F(AssertTest, MacroPassesFileAndLineOfTheAssertion)
{
    CollectFailures();
    TCASSERT(m_failures.size() == 7);
    const unsigned long line = __LINE__ - 1;
    ASSERT_EQ(m_failures.size(), 1u);
    EXPECT_EQ(m_failures[0].line, line);
    EXPECT_EQ(m_failures[0].file, "tests/unit/AssertTest.cpp");
}

using AssertDeathTest = AssertTest;

TEST_F(AssertDeathTest, DebugBuildAbortsAfterTheReport)
{
    EXPECT_ASSERT_DEATH(_TCAssert("a == b", "src/Some.cpp", 4711), "a == b");
}

TEST_F(AssertDeathTest, DebugBuildAbortsAfterMessageAndReport)
{
    EXPECT_EXIT(_TCAssert("ret == 0", "src/Some.cpp", 7, "open = %d, ", 13),
                testing::KilledBySignal(SIGABRT),
                testing::AllOf(StartsWith("open = 13, This sentence"), HasSubstr("- ret == 0\n")));
}

TEST_F(AssertDeathTest, DebugBuildAbortsThoughTheConsoleIsMissing)
{
    EXPECT_EXIT(
        {
            zortest::SetConsoleMissing(true);
            _TCAssert("a == b", "src/Some.cpp", 1);
        },
        testing::KilledBySignal(SIGABRT), testing::Eq(""));
}

} // namespace
