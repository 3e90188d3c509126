#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "RecordingLogger.h"
#include "ZorServiceDebugOverlay.h"

// Everything here logs with ZOR_LOG from a function of some kind, as code of an application would.

#define LOG_HERE() ZOR_LOG(false, DLOG_INFO, "here")

void LogOfFreeFunction(int)
{
    LOG_HERE();
}

template <typename T>
T LogOfTemplateFunction(T value)
{
    LOG_HERE();
    return value;
}

void (*LogOfFunctionThatReturnsAFunction(int))(double)
{
    LOG_HERE();
    return nullptr;
}

void LogOfFunctionThatTakesFunctions(void (*)(int, char), std::function<void(int)>)
{
    LOG_HERE();
}

void LogOfLambdaOfFreeFunction()
{
    [] { LOG_HERE(); }();
}

int operator""_logged(unsigned long long)
{
    LOG_HERE();
    return 0;
}

template <char>
struct CharArgument
{
    void Run() { LOG_HERE(); }
};

class Logging
{
 public:
    struct Nested
    {
        Nested() { LOG_HERE(); }
        ~Nested() { LOG_HERE(); }
    };

    Logging() { LOG_HERE(); }
    explicit Logging(const char*) {}
    ~Logging()
    {
        if (m_loud) {
            LOG_HERE();
        }
    }

    Logging& Loud()
    {
        m_loud = true;
        return *this;
    }

    void Member(const std::vector<int>&) { LOG_HERE(); }
    static void Static() { LOG_HERE(); }
    bool Const() const
    {
        LOG_HERE();
        return true;
    }
    bool operator()(int)
    {
        LOG_HERE();
        return true;
    }
    Logging& operator<<(int)
    {
        LOG_HERE();
        return *this;
    }
    explicit operator bool() const
    {
        LOG_HERE();
        return true;
    }
    explicit operator std::vector<int>() const
    {
        LOG_HERE();
        return {};
    }
    void Lambda()
    {
        [this](int) {
            (void)this;
            LOG_HERE();
        }(1);
    }
    void LocalClass()
    {
        struct Local
        {
            void Run() { LOG_HERE(); }
        };
        Local().Run();
    }

 private:
    bool m_loud = false;
};

template <typename T>
class TemplateLogging
{
 public:
    void Member(T) { LOG_HERE(); }
};

namespace space {
class Inner
{
 public:
    void Member() { LOG_HERE(); }
};
} // namespace space

namespace {

class Hidden
{
 public:
    void Member() { LOG_HERE(); }
};

void LogOfHiddenFunction()
{
    LOG_HERE();
}

using testing::ElementsAre;
using testing::StartsWith;
using zortest::RecordingLogger;

class LogMacroTest : public ::testing::Test
{
 protected:
    LogMacroTest() { ZORLogs::getInstance()->SetLoggingSystem(&m_logger); }
    ~LogMacroTest() override
    {
        ZORLogs::getInstance()->SetLoggingSystem(ZORLoggerDLOG::Instance());
    }

    RecordingLogger::TSEntry LastEntry() const { return m_logger.Entries().back(); }

    static std::string Range(const std::string& text, int first, int last)
    {
        return text.substr(first, last - first + 1);
    }

    /// What the last entry's indices name, as "Class Function"; "- Function" without a class.
    std::string Named() const
    {
        const RecordingLogger::TSEntry entry = LastEntry();
        const zor::FunctionIndices& found = entry.indices;
        const std::string name =
            Range(entry.prettyFunction, found.functionBegin, found.functionEnd);
        if (found.classBegin == found.functionBegin) {
            EXPECT_EQ(found.classEnd, found.functionEnd);
            return "- " + name;
        }
        return Range(entry.prettyFunction, found.classBegin, found.classEnd) + " " + name;
    }

    RecordingLogger m_logger{"recording"};
};

TEST_F(LogMacroTest, EntryCarriesTagFlagPriorityFileFunctionLineAndMessage)
{
    ZOR_LOG(true, DLOG_WARN, "%s %d", "channel", 7);
    const int line = __LINE__ - 1;
    const RecordingLogger::TSEntry entry = LastEntry();
    EXPECT_TRUE(entry.flag);
    EXPECT_EQ(entry.priority, DLOG_WARN);
    EXPECT_EQ(entry.tag, "ZOR_CORE");
    EXPECT_EQ(entry.file, "LogMacroTest.cpp");
    EXPECT_EQ(entry.prettyFunction, __PRETTY_FUNCTION__);
    EXPECT_EQ(entry.function, "TestBody");
    EXPECT_EQ(entry.line, line);
    EXPECT_EQ(entry.message, "channel 7");
}

TEST_F(LogMacroTest, TagMayBeTheApplicationsOwn)
{
    ZOR_LOG_TAGGED("TV_PLAYER", false, DLOG_DEBUG, "playing");
    const RecordingLogger::TSEntry entry = LastEntry();
    EXPECT_FALSE(entry.flag);
    EXPECT_EQ(entry.priority, DLOG_DEBUG);
    EXPECT_EQ(entry.tag, "TV_PLAYER");
    EXPECT_EQ(entry.message, "playing");
}

TEST_F(LogMacroTest, MacroIsOneStatementAndEvaluatesItsArgumentsOnce)
{
    int flags = 0;
    int arguments = 0;
    if (m_logger.Entries().empty())
        ZOR_LOG(false, DLOG_INFO, "not this one");
    else
        ZOR_LOG(++flags == 1, DLOG_INFO, "%d", ++arguments);
    EXPECT_EQ(flags, 1);
    EXPECT_EQ(arguments, 1);
    EXPECT_EQ(m_logger.Messages().size(), 2u); // the first tells that the logger has been set
}

TEST_F(LogMacroTest, FreeFunctionHasNoClass)
{
    LogOfFreeFunction(1);
    EXPECT_EQ(Named(), "- LogOfFreeFunction");
    EXPECT_EQ(LastEntry().function, "LogOfFreeFunction");
    EXPECT_EQ(LastEntry().indices.scope, -1);
}

TEST_F(LogMacroTest, TemplateFunctionHasNoClass)
{
    LogOfTemplateFunction(std::vector<int>());
    EXPECT_EQ(Named(), "- LogOfTemplateFunction");
}

TEST_F(LogMacroTest, FunctionsInTheSignatureDoNotMislead)
{
    LogOfFunctionThatReturnsAFunction(1);
    EXPECT_EQ(Named(), "- LogOfFunctionThatReturnsAFunction");
    LogOfFunctionThatTakesFunctions(nullptr, nullptr);
    EXPECT_EQ(Named(), "- LogOfFunctionThatTakesFunctions");
}

TEST_F(LogMacroTest, AnonymousNamespaceIsNoClass)
{
    LogOfHiddenFunction();
    EXPECT_EQ(Named(), "- LogOfHiddenFunction");
    Hidden().Member();
    EXPECT_EQ(Named(), "Hidden Member");
}

TEST_F(LogMacroTest, MembersOfAllKindsHaveTheirClass)
{
    Logging logging("quiet");
    logging.Member({});
    EXPECT_EQ(Named(), "Logging Member");
    Logging::Static();
    EXPECT_EQ(Named(), "Logging Static");
    EXPECT_TRUE(logging.Const());
    EXPECT_EQ(Named(), "Logging Const");
    EXPECT_EQ(LastEntry().indices.scope, -1);
}

TEST_F(LogMacroTest, ConstructorAndDestructorHaveTheirClass)
{
    {
        Logging logging;
        EXPECT_EQ(Named(), "Logging Logging");
        logging.Loud();
    }
    EXPECT_EQ(Named(), "Logging ~Logging");
    EXPECT_EQ(LastEntry().function, "~Logging");
}

TEST_F(LogMacroTest, OperatorsKeepTheirWholeName)
{
    Logging logging("quiet");
    EXPECT_TRUE(logging(1));
    EXPECT_EQ(Named(), "Logging operator()");
    logging << 1;
    EXPECT_EQ(Named(), "Logging operator<<");
    EXPECT_TRUE(static_cast<bool>(logging));
    EXPECT_EQ(Named(), "Logging operator bool");
    EXPECT_TRUE(static_cast<std::vector<int>>(logging).empty());
    EXPECT_THAT(Named(), StartsWith("Logging operator ")); // compilers differ in the type's text
    EXPECT_EQ(1_logged, 0);
    EXPECT_EQ(Named(), "- operator\"\"_logged");
}

TEST_F(LogMacroTest, NestedClassIsTheClassAndItsOwnerTheScope)
{
    {
        Logging::Nested nested;
        EXPECT_EQ(Named(), "Nested Nested");
        EXPECT_EQ(LastEntry().indices.scope, 0);
    }
    EXPECT_EQ(Named(), "Nested ~Nested");
}

TEST_F(LogMacroTest, NamespaceIsTheScope)
{
    space::Inner().Member();
    EXPECT_EQ(Named(), "Inner Member");
    EXPECT_EQ(LastEntry().indices.scope, 5);
}

TEST_F(LogMacroTest, TemplateArgumentsAreNotPartOfTheClassName)
{
    TemplateLogging<std::vector<std::function<void(int)>>>().Member({});
    EXPECT_EQ(Named(), "TemplateLogging Member");
    CharArgument<'('>().Run();
    EXPECT_EQ(Named(), "CharArgument Run");
    CharArgument<'>'>().Run();
    EXPECT_EQ(Named(), "CharArgument Run");
    CharArgument<'\''>().Run();
    EXPECT_EQ(Named(), "CharArgument Run");
}

TEST_F(LogMacroTest, LambdaNamesTheFunctionAroundIt)
{
    Logging("quiet").Lambda();
    EXPECT_EQ(Named(), "Logging Lambda");
    EXPECT_EQ(LastEntry().function, "operator()");
    LogOfLambdaOfFreeFunction();
    EXPECT_EQ(Named(), "- LogOfLambdaOfFreeFunction");
}

TEST_F(LogMacroTest, LocalClassIsTheClass)
{
    Logging("quiet").LocalClass();
    EXPECT_EQ(Named(), "Local Run");
}

TEST_F(LogMacroTest, ThePlatformLogShowsTheNames)
{
    // The message that a new logging system announces itself with comes from a member of the front.
    const RecordingLogger::TSEntry entry = m_logger.Entries().at(0);
    EXPECT_EQ(Range(entry.prettyFunction, entry.indices.classBegin, entry.indices.functionEnd),
              "ZORLogs::SetLoggingSystem");
}

} // namespace
