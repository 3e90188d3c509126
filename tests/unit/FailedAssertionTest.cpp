#include "FailedAssertion.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "ConsoleSeam.h"
#include "Debug.h"
#include "LogSeam.h"
#include "dlog.h"

// What a failed assertion leaves behind: an entry in the platform log, and the record, which a
// process fills once.

namespace {

using test::TSCustomAssert;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using zor::FailedAssertion;
using zortest::ConsoleCapture;

long KernelId()
{
    return syscall(SYS_gettid);
}

/// Runs @p body in a process of its own, in which no assertion has failed yet and which must find
/// nothing to complain of.
void InAProcessOfItsOwn(const std::function<void()>& body)
{
    EXPECT_EXIT(
        {
            body();
            if (::testing::Test::HasFailure()) {
                fprintf(stderr, "the expectations of the process failed\n");
            }
            _exit(::testing::Test::HasFailure() ? 1 : 0);
        },
        ::testing::ExitedWithCode(0), "");
}

const FailedAssertion& Record()
{
    return zor_core_failed_assertion;
}

TEST(FailedAssertionTest, NothingIsRecordedAtFirst)
{
    InAProcessOfItsOwn([] { EXPECT_EQ(Record().state, FailedAssertion::NONE); });
}

TEST(FailedAssertionTest, TheLogGetsOneEntryAtFatal)
{
    InAProcessOfItsOwn([] {
        const ConsoleCapture console;
        zortest::ClearLog();
        pthread_setname_np(pthread_self(), "Failing");
        _TCAssert("a == b", "src/Some.cpp", 4711);
        const auto lines = zortest::LogLines();
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0].priority, DLOG_FATAL);
        EXPECT_EQ(lines[0].tag, "ZOR");
        EXPECT_THAT(lines[0].text, EndsWith(" > Assertion failed: src/Some.cpp (4711) - a == b, "
                                            "thread " +
                                            std::to_string(KernelId()) + " (Failing)"));
    });
}

TEST(FailedAssertionTest, TheEntryComesBetweenTheReportAndThePause)
{
    InAProcessOfItsOwn([] {
        const ConsoleCapture console;
        zortest::ClearLog();
        std::size_t atThePause = 0;
        std::string reported;
        zortest::OnAssertionPause([&] {
            atThePause = zortest::LogLines().size();
            reported = console.Text();
        });
        _TCAssert("a == b", "src/Some.cpp", 1);
        EXPECT_EQ(atThePause, 1u);
        EXPECT_THAT(reported, HasSubstr("Assertion failed: src/Some.cpp (1) - a == b\n"));
        EXPECT_EQ(Record().state, FailedAssertion::COMPLETE);
    });
}

TEST(FailedAssertionTest, ACallbackKeepsItOutOfLogAndRecord)
{
    InAProcessOfItsOwn([] {
        zortest::ClearLog();
        TSCustomAssert::callback = [](const char*, unsigned long) {};
        _TCAssert("a == b", "src/Some.cpp", 1);
        EXPECT_THAT(zortest::LogLines(), IsEmpty());
        EXPECT_EQ(Record().state, FailedAssertion::NONE);
        TSCustomAssert::callback = nullptr;
    });
}

TEST(FailedAssertionTest, TheRecordHasPlaceExpressionAndThread)
{
    InAProcessOfItsOwn([] {
        const ConsoleCapture console;
        pthread_setname_np(pthread_self(), "Failing");
        _TCAssert("a == b", "src/Some.cpp", 4711);
        EXPECT_EQ(Record().state, FailedAssertion::COMPLETE);
        EXPECT_EQ(Record().thread, KernelId());
        EXPECT_EQ(Record().line, 4711u);
        EXPECT_STREQ(Record().threadName, "Failing");
        EXPECT_STREQ(Record().file, "src/Some.cpp");
        EXPECT_STREQ(Record().expression, "a == b");
    });
}

TEST(FailedAssertionTest, TheFirstOneStays)
{
    InAProcessOfItsOwn([] {
        const ConsoleCapture console;
        zortest::ClearLog();
        _TCAssert("first", "src/First.cpp", 1);
        _TCAssert("second, which is longer", "src/Second.cpp", 2);
        EXPECT_STREQ(Record().expression, "first");
        EXPECT_STREQ(Record().file, "src/First.cpp");
        EXPECT_EQ(Record().line, 1u);
        EXPECT_EQ(zortest::LogLines().size(), 2u);
    });
}

TEST(FailedAssertionTest, TextsThatAreTooLongAreCut)
{
    InAProcessOfItsOwn([] {
        const ConsoleCapture console;
        const std::string expression(5000, 'e');
        const std::string file(5000, 'f');
        _TCAssert(expression.c_str(), file.c_str(), 1);
        EXPECT_EQ(Record().expression, expression.substr(0, sizeof(Record().expression) - 1));
        EXPECT_EQ(Record().file, file.substr(0, sizeof(Record().file) - 1));
    });
}

TEST(FailedAssertionTest, OfThreadsThatFailAtOnceOneIsRecordedAndAllAreLogged)
{
    InAProcessOfItsOwn([] {
        constexpr int THREADS = 8;
        const ConsoleCapture console;
        zortest::ClearLog();
        std::vector<std::thread> threads;
        for (int i = 1; i <= THREADS; ++i) {
            threads.emplace_back([i] {
                const std::string text(static_cast<std::size_t>(i) * 20,
                                       static_cast<char>('a' + i));
                _TCAssert(text.c_str(), text.c_str(), static_cast<unsigned long>(i));
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        EXPECT_EQ(zortest::LogLines().size(), static_cast<std::size_t>(THREADS));
        ASSERT_EQ(Record().state, FailedAssertion::COMPLETE);
        const auto line = static_cast<std::size_t>(Record().line);
        const std::string whole(line * 20, static_cast<char>('a' + line));
        EXPECT_EQ(Record().expression, whole);
        EXPECT_EQ(Record().file, whole);
    });
}

TEST(FailedAssertionTest, ItIsThereWhenTheProcessAborts)
{
    EXPECT_EXIT(
        {
            zortest::OnAssertionPause([] {
                for (const auto& line : zortest::LogLines()) {
                    fprintf(stderr, "logged: %s\n", line.text.c_str());
                }
                fprintf(stderr, "recorded: %s\n", Record().expression);
            });
            _TCAssert("a == b", "src/Some.cpp", 1);
        },
        ::testing::KilledBySignal(SIGABRT), "logged: .*a == b, thread .*\n.*recorded: a == b");
}

} // namespace
