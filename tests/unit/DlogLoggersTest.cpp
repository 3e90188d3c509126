#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "LogSeam.h"
#include "RecordingLogger.h"
#include "TCDebugPrint.h"
#include "ZorServiceDebugOverlay.h"

namespace {

using testing::ElementsAre;
using testing::StartsWith;
using zortest::LogCall;
using zortest::LogLine;
using zortest::LogLines;
using zortest::LogTo;

constexpr size_t MESSAGE_MAX = 843;
constexpr size_t NAME_MAX_LENGTH = 1023;

class DlogLoggersTest : public ::testing::Test
{
 protected:
    DlogLoggersTest() { zortest::ClearLog(); }
    ~DlogLoggersTest() override { TCDebugPrintZOR::GetInstance()->SetAppData(nullptr, 0); }

    static ZORLoggerDLOG* Dlog() { return ZORLoggerDLOG::Instance(); }
    static ZORLoggerDLOG2023* Dlog2023() { return ZORLoggerDLOG2023::Instance(); }

    static LogLine LastLine() { return LogLines().back(); }

    /// Runs @p body on a thread of its own, whose counter is fresh.
    template <typename Body>
    static void OnNewThread(Body body)
    {
        std::thread(body).join();
    }

    /// The text of one INFO entry, the first of its thread.
    static std::string FirstText(IZORLogger* logger, const LogCall& call = LogCall(),
                                 const char* message = "text")
    {
        OnNewThread([&] { LogTo(logger, call, "%s", message); });
        return LastLine().text;
    }

    /// The number in front of (or behind the '>' of) a text.
    static int SequenceOf(const std::string& text)
    {
        const size_t at = text[0] == '(' ? 1 : text.find("> ") + 2;
        return std::stoi(text.substr(at, 3));
    }

    static LogCall CallAt(log_priority priority, bool flag = false)
    {
        LogCall call;
        call.priority = priority;
        call.flag = flag;
        return call;
    }

    /// The qualified name that the default logger makes of the text and its ranges.
    static std::string NameOf(const std::string& pretty, int classBegin, int classEnd,
                              int functionBegin, int functionEnd)
    {
        LogCall call;
        call.prettyFunction = pretty.c_str();
        call.classBegin = classBegin;
        call.classEnd = classEnd;
        call.functionBegin = functionBegin;
        call.functionEnd = functionEnd;
        const std::string text = FirstText(Dlog(), call);
        const size_t begin = text.find(" | ") + 3;
        return text.substr(begin, text.rfind("] >> ") - begin);
    }
};

// Priorities.

TEST_F(DlogLoggersTest, FlagRaisesEveryPriorityButFatalToError)
{
    for (IZORLogger* logger :
         {static_cast<IZORLogger*>(Dlog()), static_cast<IZORLogger*>(Dlog2023())}) {
        for (int priority = DLOG_UNKNOWN; priority <= DLOG_SILENT; ++priority) {
            LogTo(logger, CallAt(static_cast<log_priority>(priority), true), "x");
            EXPECT_EQ(LastLine().priority, priority == DLOG_FATAL ? DLOG_FATAL : DLOG_ERROR);
        }
    }
}

TEST_F(DlogLoggersTest, WithoutTheFlagEveryPriorityStays)
{
    for (IZORLogger* logger :
         {static_cast<IZORLogger*>(Dlog()), static_cast<IZORLogger*>(Dlog2023())}) {
        for (int priority = DLOG_UNKNOWN; priority <= DLOG_SILENT; ++priority) {
            LogTo(logger, CallAt(static_cast<log_priority>(priority)), "x");
            EXPECT_EQ(LastLine().priority, priority);
        }
    }
}

TEST_F(DlogLoggersTest, EntriesGoToTheMainLogWithTheirTag)
{
    LogCall call;
    call.tag = "TV_PLAYER";
    LogTo(Dlog(), call, "x");
    LogTo(Dlog2023(), call, "x");
    ASSERT_EQ(LogLines().size(), 2u);
    for (const LogLine& line : LogLines()) {
        EXPECT_EQ(line.buffer, LOG_ID_MAIN);
        EXPECT_EQ(line.tag, "TV_PLAYER");
    }
}

// The sequence counter.

TEST_F(DlogLoggersTest, FirstEntryOfAThreadIs001AndTheThousandth000)
{
    OnNewThread([] {
        for (int i = 0; i < 1001; ++i) {
            LogTo(Dlog(), LogCall(), "x");
        }
    });
    const std::vector<LogLine> lines = LogLines();
    ASSERT_EQ(lines.size(), 1001u);
    EXPECT_THAT(lines[0].text, StartsWith("(001) -> "));
    EXPECT_THAT(lines[1].text, StartsWith("(002) -> "));
    EXPECT_THAT(lines[998].text, StartsWith("(999) -> "));
    EXPECT_THAT(lines[999].text, StartsWith("(000) -> "));
    EXPECT_THAT(lines[1000].text, StartsWith("(001) -> "));
}

TEST_F(DlogLoggersTest, OnlyPrioritiesFromInfoToFatalAreCounted)
{
    std::vector<int> sequences;
    OnNewThread([&sequences] {
        for (int priority = DLOG_UNKNOWN; priority <= DLOG_SILENT; ++priority) {
            LogTo(Dlog(), CallAt(static_cast<log_priority>(priority)), "x");
            sequences.push_back(SequenceOf(LastLine().text));
        }
    });
    EXPECT_THAT(sequences, ElementsAre(0, 0, 0, 0, 1, 2, 3, 4, 0));
}

TEST_F(DlogLoggersTest, PromotedDebugEntryIsCounted)
{
    OnNewThread([] {
        LogTo(Dlog(), CallAt(DLOG_DEBUG), "x");
        EXPECT_THAT(LastLine().text, StartsWith("(000) -> "));
        LogTo(Dlog(), CallAt(DLOG_DEBUG, true), "x");
        EXPECT_THAT(LastLine().text, StartsWith("(001) -> "));
    });
}

TEST_F(DlogLoggersTest, BothLoggersAdvanceOneCounter)
{
    OnNewThread([] {
        LogTo(Dlog(), LogCall(), "x");
        LogTo(Dlog2023(), LogCall(), "x");
        LogTo(Dlog(), LogCall(), "x");
        LogTo(Dlog2023(), CallAt(DLOG_DEBUG), "x");
        LogTo(Dlog2023(), LogCall(), "x");
    });
    std::vector<int> sequences;
    for (const LogLine& line : LogLines()) {
        sequences.push_back(SequenceOf(line.text));
    }
    EXPECT_THAT(sequences, ElementsAre(1, 2, 3, 0, 4));
}

TEST_F(DlogLoggersTest, EveryThreadCountsForItself)
{
    LogTo(Dlog(), LogCall(), "x");
    LogTo(Dlog(), LogCall(), "x");
    const int before = SequenceOf(LastLine().text);
    OnNewThread([] {
        LogTo(Dlog(), LogCall(), "x");
        EXPECT_EQ(SequenceOf(LastLine().text), 1);
    });
    LogTo(Dlog(), LogCall(), "x");
    EXPECT_EQ(SequenceOf(LastLine().text), before + 1);
}

// Names.

TEST_F(DlogLoggersTest, NameIsClassAndFunctionWhereOnlyTheScopeOperatorIsBetweenThem)
{
    EXPECT_EQ(NameOf("static void KeyCombinationLoggerRegistration::m_LaunchMenu(KeyComb, void*)",
                     12, 43, 46, 57),
              "KeyCombinationLoggerRegistration::m_LaunchMenu");
}

TEST_F(DlogLoggersTest, MoreBetweenClassAndFunctionBecomesAStarInAngles)
{
    EXPECT_EQ(NameOf("void Tmpl<T>::Run(T) [with T = int]", 5, 8, 14, 16), "Tmpl<*>::Run");
    EXPECT_EQ(NameOf("void Cls0::Run()", 5, 7, 11, 13), "Cls<*>::Run");
}

TEST_F(DlogLoggersTest, LessBetweenClassAndFunctionIsLeftOut)
{
    EXPECT_EQ(NameOf("void Cls:Run()", 5, 7, 9, 11), "ClsRun");
    EXPECT_EQ(NameOf("void ClsRun()", 5, 7, 8, 10), "ClsRun");
    EXPECT_EQ(NameOf("void Run Cls()", 9, 11, 5, 7), "ClsRun");
}

TEST_F(DlogLoggersTest, ClassRangeThatBeginsWithTheFunctionMeansNoClass)
{
    EXPECT_EQ(NameOf("int Main()", 4, 7, 4, 7), "Main");
}

TEST_F(DlogLoggersTest, InvalidClassRangeIsNotCopiedButItsDistanceCounts)
{
    EXPECT_EQ(NameOf("Run(int)", -1, -1, 0, 2), "Run");           // 1: nothing
    EXPECT_EQ(NameOf("ab Run(int)", -1, -1, 2, 4), ":: Ru");      // 3: "::"
    EXPECT_EQ(NameOf("void Run(int)", -1, -1, 5, 7), "<*>::Run"); // 6: more than "::"
    EXPECT_EQ(NameOf("void Cls::Run()", 7, 5, 10, 12), "<*>::Run");
    EXPECT_EQ(NameOf("void Cls::Run()", -1, 7, 10, 12), "::Run");
}

TEST_F(DlogLoggersTest, InvalidFunctionRangeIsNotCopied)
{
    EXPECT_EQ(NameOf("void Cls::Run()", 5, 7, 10, 9), "Cls::");
    EXPECT_EQ(NameOf("void Cls::Run()", 5, 7, -1, 12), "Cls");
    EXPECT_EQ(NameOf("void Cls::Run()", 5, 7, 10, -1), "Cls::");
    EXPECT_EQ(NameOf("void Cls::Run()", -1, -1, -1, -1), "");
}

TEST_F(DlogLoggersTest, RangeOfOneCharacterIsValid)
{
    EXPECT_EQ(NameOf("void A::f()", 5, 5, 8, 8), "A::f");
}

TEST_F(DlogLoggersTest, NameIsCutTo1023CharactersWhereverTheLimitFalls)
{
    const std::string letters = std::string(1200, 'c') + "::" + std::string(1200, 'f') + "()";
    EXPECT_EQ(NameOf(letters, 0, 1199, 1202, 2401), std::string(NAME_MAX_LENGTH, 'c'));
    EXPECT_EQ(NameOf(letters, 1180, 1199, 1202, 2401),
              std::string(20, 'c') + "::" + std::string(NAME_MAX_LENGTH - 22, 'f'));
    EXPECT_EQ(NameOf(letters, 0, 1020, 1300, 1400), std::string(1021, 'c') + "<*");
    EXPECT_EQ(NameOf(letters, 178, 1199, 1202, 1300), std::string(1022, 'c') + ":");
    EXPECT_EQ(NameOf(letters, 1202, 2401, 1202, 2401), std::string(NAME_MAX_LENGTH, 'f'));
}

TEST_F(DlogLoggersTest, RangeBehindTheEndOfTheTextCopiesNothingBeyondIt)
{
    EXPECT_EQ(NameOf("void Cls::Run", 5, 7, 10, 500), "Cls::Run");
    EXPECT_EQ(NameOf("void", 5, 7, 10, 12), "::");
}

TEST_F(DlogLoggersTest, ScopeIsIgnored)
{
    LogCall call;
    call.scope = 5;
    EXPECT_EQ(FirstText(Dlog(), call), "(001) -> [File.cpp:77 | Cls::Run] >> text");
    EXPECT_EQ(FirstText(Dlog2023(), call), "File.cpp: Run(77) > 001 | text");
}

// Lines.

TEST_F(DlogLoggersTest, LineWithoutAnApplication)
{
    EXPECT_EQ(FirstText(Dlog()), "(001) -> [File.cpp:77 | Cls::Run] >> text");
    EXPECT_EQ(LastLine().format, "(%03d) -> [%s:%d | %*s] >> %s");
}

TEST_F(DlogLoggersTest, LineWithAnApplication)
{
    OnNewThread([] {
        TCDebugPrintZOR::GetInstance()->SetAppData("Guide", 12);
        LogTo(Dlog(), LogCall(), "text %d", 5);
    });
    EXPECT_EQ(LastLine().text, "(001 app:Guide:12) -> [File.cpp:77 | Cls::Run] >> text 5");
    EXPECT_EQ(LastLine().format, "(%03d app:%s:%d) -> [%s:%d | %*s] >> %s");
}

TEST_F(DlogLoggersTest, Line2023WithoutAnApplication)
{
    EXPECT_EQ(FirstText(Dlog2023()), "File.cpp: Run(77) > 001 | text");
    EXPECT_EQ(LastLine().format, "%s: %*s(%d) > %03d | %s");
}

TEST_F(DlogLoggersTest, Line2023WithAnApplication)
{
    OnNewThread([] {
        TCDebugPrintZOR::GetInstance()->SetAppData("Guide", 12);
        LogTo(Dlog2023(), LogCall(), "text %d", 5);
    });
    EXPECT_EQ(LastLine().text, "File.cpp: Run(77) > 001 Guide:12 | text 5");
    EXPECT_EQ(LastLine().format, "%s: %*s(%d) > %03d %s:%d | %s");
}

TEST_F(DlogLoggersTest, ApplicationValueIsASignedByte)
{
    for (const int value : {-128, -5, -1, 0, 127}) {
        TCDebugPrintZOR::GetInstance()->SetAppData("Guide", static_cast<signed char>(value));
        LogTo(Dlog(), LogCall(), "x");
        EXPECT_THAT(LastLine().text,
                    testing::HasSubstr(" app:Guide:" + std::to_string(value) + ") -> "));
        LogTo(Dlog2023(), LogCall(), "x");
        EXPECT_THAT(LastLine().text,
                    testing::HasSubstr(" Guide:" + std::to_string(value) + " | x"));
    }
}

TEST_F(DlogLoggersTest, ValueWithoutANameIsNoApplication)
{
    OnNewThread([] {
        TCDebugPrintZOR::GetInstance()->SetAppData("", 12);
        LogTo(Dlog(), LogCall(), "x");
    });
    EXPECT_THAT(LastLine().text, StartsWith("(001) -> "));
}

TEST_F(DlogLoggersTest, Name2023IsTheFunctionAlone)
{
    LogCall call;
    call.prettyFunction =
        "static void KeyCombinationLoggerRegistration::m_LaunchMenu(KeyComb, void*)";
    call.classBegin = 12;
    call.classEnd = 43;
    call.functionBegin = 46;
    call.functionEnd = 57;
    EXPECT_EQ(FirstText(Dlog2023(), call), "File.cpp: m_LaunchMenu(77) > 001 | text");
}

TEST_F(DlogLoggersTest, Name2023IsEmptyForAnInvalidRange)
{
    for (const auto& range : {std::pair<int, int>(-1, 3), {3, -1}, {5, 4}, {-1, -1}}) {
        LogCall call;
        call.functionBegin = range.first;
        call.functionEnd = range.second;
        EXPECT_EQ(FirstText(Dlog2023(), call), "File.cpp: (77) > 001 | text");
    }
}

TEST_F(DlogLoggersTest, Name2023IsCutTo1023Characters)
{
    const std::string pretty(1500, 'f');
    LogCall call;
    call.prettyFunction = pretty.c_str();
    call.functionBegin = 0;
    call.functionEnd = 1499;
    EXPECT_EQ(FirstText(Dlog2023(), call),
              "File.cpp: " + std::string(NAME_MAX_LENGTH, 'f') + "(77) > 001 | text");
}

TEST_F(DlogLoggersTest, MessageOf843CharactersIsWhole)
{
    const std::string message = std::string(MESSAGE_MAX - 1, 'x') + "y";
    EXPECT_THAT(FirstText(Dlog(), LogCall(), message.c_str()), testing::EndsWith(">> " + message));
    EXPECT_THAT(FirstText(Dlog2023(), LogCall(), message.c_str()),
                testing::EndsWith("| " + message));
}

TEST_F(DlogLoggersTest, LongerMessageIsCutTo843Characters)
{
    const std::string message(2000, 'x');
    const std::string cut(MESSAGE_MAX, 'x');
    EXPECT_THAT(FirstText(Dlog(), LogCall(), message.c_str()), testing::EndsWith(">> " + cut));
    EXPECT_THAT(FirstText(Dlog2023(), LogCall(), message.c_str()), testing::EndsWith("| " + cut));
}

// Formats.

/// Puts a format in place and the old one back.
class ExchangedFormat
{
 public:
    ExchangedFormat(std::atomic<const char*>* format, const char* text)
        : m_format(format), m_old(format->exchange(text))
    {}
    ~ExchangedFormat() { m_format->store(m_old); }

    ExchangedFormat(const ExchangedFormat&) = delete;
    ExchangedFormat& operator=(const ExchangedFormat&) = delete;

 private:
    std::atomic<const char*>* m_format;
    const char* m_old;
};

TEST_F(DlogLoggersTest, FormatsAreExchangeableAtRunTime)
{
    const ExchangedFormat plain(&ZORLoggerDLOG::m_logFmtNoApp, "<%d> %s+%d %*s %s");
    const ExchangedFormat plain2023(&ZORLoggerDLOG2023::m_logFmtNoApp, "<%s> %*s+%d %d %s");
    EXPECT_EQ(FirstText(Dlog()), "<1> File.cpp+77 Cls::Run text");
    EXPECT_EQ(FirstText(Dlog2023()), "<File.cpp> Run+77 1 text");
}

TEST_F(DlogLoggersTest, FormatsWithAnApplicationAreExchangeableAtRunTime)
{
    const ExchangedFormat app(&ZORLoggerDLOG::m_logFmt, "<%d> %s/%d %s+%d %*s %s");
    const ExchangedFormat app2023(&ZORLoggerDLOG2023::m_logFmt, "<%s> %*s+%d %d %s/%d %s");
    OnNewThread([] {
        TCDebugPrintZOR::GetInstance()->SetAppData("Guide", 3);
        LogTo(Dlog(), LogCall(), "text");
        EXPECT_EQ(LastLine().text, "<1> Guide/3 File.cpp+77 Cls::Run text");
        LogTo(Dlog2023(), LogCall(), "text");
        EXPECT_EQ(LastLine().text, "<File.cpp> Run+77 2 Guide/3 text");
    });
}

TEST_F(DlogLoggersTest, FormatsMayBeExchangedWhileThreadsLog)
{
    std::atomic<bool> stop{false};
    std::thread exchanger([&stop] {
        while (!stop) {
            const ExchangedFormat other(&ZORLoggerDLOG::m_logFmtNoApp, "%d %s %d %*s other %s");
            std::this_thread::yield();
        }
    });
    for (int i = 0; i < 500; ++i) {
        LogTo(Dlog(), LogCall(), "entry");
    }
    stop = true;
    exchanger.join();
    EXPECT_EQ(LogLines().size(), 500u);
    EXPECT_EQ(zortest::CountLogLines(" other entry") + zortest::CountLogLines(">> entry"), 500u);
}

} // namespace
