#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "LogSeam.h"
#include "RecordingLogger.h"
#include "TCDebugPrint.h"
#include "Wait.h"
#include "ZorServiceDebugOverlay.h"

namespace {

/// A call of the debug-print library.
struct TSPrint
{
    const TCDebugPrint* instance;
    bool flag;
    const char* file;
    const char* prettyFunction;
    const char* function;
    zor::FunctionIndices indices;
    int line;
    int module;
    EDebugLevel level;
    const char* fmt;
    va_list* args;
    std::string message;
};

std::mutex gMutex;
std::vector<TSPrint> gPrints; // guarded by gMutex

} // namespace

void TCDebugPrint::PrintVALIST(bool flag, const char* file, const char* prettyFunction,
                               const char* function, int scope, int classBegin, int classEnd,
                               int functionBegin, int functionEnd, int line, int module,
                               EDebugLevel level, const char* fmt, va_list* args)
{
    char message[512];
    vsnprintf(message, sizeof(message), fmt, *args);
    std::lock_guard<std::mutex> lock(gMutex);
    gPrints.push_back({this,
                       flag,
                       file,
                       prettyFunction,
                       function,
                       {scope, classBegin, classEnd, functionBegin, functionEnd},
                       line,
                       module,
                       level,
                       fmt,
                       args,
                       message});
}

namespace {

using zortest::LogCall;
using zortest::LogTo;

const std::map<log_priority, EDebugLevel>& LevelsByPriority()
{
    static const std::map<log_priority, EDebugLevel> levels = {
        {DLOG_UNKNOWN, DEBUG_LEVEL_7}, {DLOG_DEFAULT, DEBUG_LEVEL_4},
        {DLOG_VERBOSE, DEBUG_LEVEL_5}, {DLOG_DEBUG, DEBUG_LEVEL_5},
        {DLOG_INFO, DEBUG_LEVEL_4},    {DLOG_WARN, DEBUG_LEVEL_3},
        {DLOG_ERROR, DEBUG_LEVEL_2},   {DLOG_FATAL, DEBUG_LEVEL_1},
        {DLOG_SILENT, DEBUG_LEVEL_0},  {static_cast<log_priority>(9), DEBUG_LEVEL_7},
    };
    return levels;
}

const std::map<std::string, int>& ModulesByTag()
{
    static const std::map<std::string, int> modules = {
        {"ZOR_API", 0},
        {"ZOR_APINATIVE", 1},
        {"ZOR_CI", 2},
        {"ZOR_CHMS", 3},
        {"ZOR_ISS_STORAGE", 4},
        {"ZOR_DBMS", 5},
        {"ZOR_DSM", 6},
        {"ZOR_EMS", 7},
        {"ZOR_GUIDE", 8},
        {"ZOR_ISS", 9},
        {"ZOR_FACTORY", 10},
        {"ZOR_PARSER", 11},
        {"ZOR_QUERY", 12},
        {"ZOR_SCAN", 13},
        {"ZOR_SI", 14},
        {"ZOR_SOSPEC", 15},
        {"ZOR_UDM", 16},
        {"ZOR_UTIL", 17},
        {"ZOR_TIME", 18},
        {"ZOR_TPMS", 19},
        {"ZOR_PVR", 20},
        {"ZOR_MAINLOOP", 21},
        {"ZOR_SECTION", 22},
        {"ZOR_ICS", 23},
        {"ZOR_EWBS", 24},
        {"ZOR_CONFIG", 25},
        {"ZOR_HT", 26},
        {"ZOR_AV", 27},
        {"ZOR_CORE", 28},
        {"TV_PLAYER", 29},
        {"TV_PLP", 30},
        {"ZOR_NRT", 31},
        {"ZOR_TIME_BEGIN", 50},
        {"ZOR_TIME_BOOT", 50},
        {"ZOR_TIME_CHANNEL", 51},
        {"ZOR_TIME_CHMS_BOOT", 52},
        {"ZOR_TIME_CHMS_FINDSRV", 53},
        {"ZOR_TIME_CHMS_REMOVEALL", 54},
        {"ZOR_TIME_CHMS_RESET", 55},
        {"ZOR_TIME_CHMS_REORDER", 56},
        {"ZOR_TIME_CHMS_LOAD", 57},
        {"ZOR_TIMESTAMP", 58},
        {"ZOR_STDOUT", 59},
    };
    return modules;
}

class LegacyLoggerTest : public ::testing::Test
{
 protected:
    LegacyLoggerTest()
    {
        zortest::ClearLog();
        gPrints.clear();
    }

    ~LegacyLoggerTest() override
    {
        ZORLoggerLegacy::m_levelMapping = {LevelsByPriority().begin(), LevelsByPriority().end()};
        ZORLoggerLegacy::m_moduleMapping = {ModulesByTag().begin(), ModulesByTag().end()};
    }

    static TSPrint Print(const LogCall& call)
    {
        LogTo(ZORLoggerLegacy::Instance(), call, "%s", "text");
        return gPrints.back();
    }
};

TEST_F(LegacyLoggerTest, LevelTableIsFilledOnFirstUse)
{
    ZORLoggerLegacy::Instance();
    EXPECT_EQ(ZORLoggerLegacy::m_levelMapping, LevelsByPriority());
}

TEST_F(LegacyLoggerTest, ModuleTableIsFilledOnFirstUse)
{
    ZORLoggerLegacy::Instance();
    EXPECT_EQ(ModulesByTag().size(), 43u);
    const std::map<std::string, int> modules(ZORLoggerLegacy::m_moduleMapping.begin(),
                                             ZORLoggerLegacy::m_moduleMapping.end());
    EXPECT_EQ(modules, ModulesByTag());
}

TEST_F(LegacyLoggerTest, TablesAreEmptyBeforeTheFirstUse)
{
    // In processes of their own, where no logger has been asked for yet.
    EXPECT_EXIT(_exit(ZORLoggerLegacy::m_levelMapping.empty() ? 0 : 1), testing::ExitedWithCode(0),
                "");
    EXPECT_EXIT(_exit(ZORLoggerLegacy::m_moduleMapping.empty() ? 0 : 1), testing::ExitedWithCode(0),
                "");
}

TEST_F(LegacyLoggerTest, LevelTableThatIsFilledAlreadyIsLeftAsItIs)
{
    EXPECT_EXIT(
        {
            ZORLoggerLegacy::m_levelMapping[DLOG_WARN] = DEBUG_LEVEL_6;
            ZORLoggerLegacy::Instance();
            const bool left = ZORLoggerLegacy::m_levelMapping.size() == 1 &&
                              ZORLoggerLegacy::m_levelMapping[DLOG_WARN] == DEBUG_LEVEL_6;
            _exit(left && ZORLoggerLegacy::m_moduleMapping.size() == 43 ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(LegacyLoggerTest, ModuleTableThatIsFilledAlreadyIsLeftAsItIs)
{
    EXPECT_EXIT(
        {
            ZORLoggerLegacy::m_moduleMapping["MINE"] = 99;
            ZORLoggerLegacy::Instance();
            const bool left = ZORLoggerLegacy::m_moduleMapping.size() == 1 &&
                              ZORLoggerLegacy::m_moduleMapping["MINE"] == 99;
            _exit(left && ZORLoggerLegacy::m_levelMapping.size() == 10 ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(LegacyLoggerTest, EmptiedTableIsNotFilledAgain)
{
    ZORLoggerLegacy::Instance();
    ZORLoggerLegacy::m_levelMapping.clear();
    ZORLoggerLegacy::Instance();
    EXPECT_TRUE(ZORLoggerLegacy::m_levelMapping.empty());
}

TEST_F(LegacyLoggerTest, EveryArgumentIsPassedOn)
{
    LogCall call;
    call.scope = 1;
    call.classBegin = 2;
    call.classEnd = 3;
    call.functionBegin = 4;
    call.functionEnd = 5;
    call.line = 6;
    call.tag = "ZOR_PVR";
    call.priority = DLOG_WARN;
    const TSPrint print = Print(call);
    EXPECT_EQ(print.instance, TCDebugPrintZOR::GetInstance());
    EXPECT_EQ(print.file, call.file);
    EXPECT_EQ(print.prettyFunction, call.prettyFunction);
    EXPECT_EQ(print.function, call.function);
    EXPECT_EQ(print.indices.scope, 1);
    EXPECT_EQ(print.indices.classBegin, 2);
    EXPECT_EQ(print.indices.classEnd, 3);
    EXPECT_EQ(print.indices.functionBegin, 4);
    EXPECT_EQ(print.indices.functionEnd, 5);
    EXPECT_EQ(print.line, 6);
    EXPECT_EQ(print.module, 20);
    EXPECT_EQ(print.level, DEBUG_LEVEL_3);
    EXPECT_STREQ(print.fmt, "%s");
    EXPECT_EQ(print.message, "text");
}

__attribute__((format(printf, 2, 3))) void LogWithOwnList(va_list** passed, const char* fmt, ...)
{
    const LogCall call;
    va_list args;
    va_start(args, fmt);
    *passed = &args;
    ZORLoggerLegacy::Instance()->ZORLog(call.flag, call.priority, call.tag, call.file,
                                        call.prettyFunction, call.function, call.scope,
                                        call.classBegin, call.classEnd, call.functionBegin,
                                        call.functionEnd, call.line, fmt, &args);
    va_end(args);
}

TEST_F(LegacyLoggerTest, ArgumentListIsTheCallersOwn)
{
    va_list* passed = nullptr;
    LogWithOwnList(&passed, "%d", 7);
    EXPECT_EQ(gPrints.back().args, passed);
    EXPECT_EQ(gPrints.back().message, "7");
}

TEST_F(LegacyLoggerTest, FlagIsPassedOnAndPromotesNothing)
{
    LogCall call;
    call.priority = DLOG_INFO;
    for (const bool flag : {true, false}) {
        call.flag = flag;
        const TSPrint print = Print(call);
        EXPECT_EQ(print.flag, flag);
        EXPECT_EQ(print.level, DEBUG_LEVEL_4);
    }
}

TEST_F(LegacyLoggerTest, LevelFollowsThePriority)
{
    for (const auto& row : LevelsByPriority()) {
        LogCall call;
        call.priority = row.first;
        EXPECT_EQ(Print(call).level, row.second) << "priority " << row.first;
    }
}

TEST_F(LegacyLoggerTest, ModuleFollowsTheTag)
{
    for (const auto& row : ModulesByTag()) {
        LogCall call;
        call.tag = row.first.c_str();
        EXPECT_EQ(Print(call).module, row.second) << row.first;
    }
}

TEST_F(LegacyLoggerTest, UnknownTagEntersTheTableWithModule0)
{
    LogCall call;
    for (const char* tag : {"UNHEARD_OF", "", "zor_core"}) {
        call.tag = tag;
        EXPECT_EQ(Print(call).module, 0);
        ASSERT_EQ(ZORLoggerLegacy::m_moduleMapping.count(tag), 1u);
        EXPECT_EQ(ZORLoggerLegacy::m_moduleMapping.find(tag)->second, 0);
    }
    EXPECT_EQ(ZORLoggerLegacy::m_moduleMapping.size(), ModulesByTag().size() + 3);
}

TEST_F(LegacyLoggerTest, UnknownPriorityEntersTheTableWithLevel0)
{
    LogCall call;
    call.priority = static_cast<log_priority>(12);
    EXPECT_EQ(Print(call).level, DEBUG_LEVEL_0);
    ASSERT_EQ(ZORLoggerLegacy::m_levelMapping.count(call.priority), 1u);
    EXPECT_EQ(ZORLoggerLegacy::m_levelMapping[call.priority], DEBUG_LEVEL_0);
}

TEST_F(LegacyLoggerTest, NullTagIsALogicError)
{
    LogCall call;
    call.tag = nullptr;
    try {
        LogTo(ZORLoggerLegacy::Instance(), call, "x");
        ADD_FAILURE() << "nothing thrown";
    } catch (const std::logic_error& error) {
        EXPECT_STREQ(error.what(), "basic_string: construction from null is not valid");
    }
    EXPECT_TRUE(gPrints.empty());
    EXPECT_EQ(ZORLoggerLegacy::m_moduleMapping.size(), ModulesByTag().size());
}

TEST_F(LegacyLoggerTest, LinesAreNotCountedAndThePlatformLogIsLeftAlone)
{
    std::thread([] {
        LogTo(ZORLoggerDLOG::Instance(), LogCall(), "first");
        Print(LogCall());
        Print(LogCall());
        EXPECT_EQ(zortest::LogLines().size(), 1u);
        LogTo(ZORLoggerDLOG::Instance(), LogCall(), "second");
    }).join();
    EXPECT_EQ(zortest::CountLogLines("(002) -> "), 1u);
}

TEST_F(LegacyLoggerTest, ThreadsMayBringNewTagsAtOnce)
{
    constexpr int THREADS = 4;
    constexpr int TAGS = 50;
    zortest::Gate gate(THREADS);
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([&gate] {
            gate.Pass();
            gate.Wait();
            for (int tag = 0; tag < TAGS; ++tag) {
                const std::string text = "NEW_" + std::to_string(tag);
                LogCall call;
                call.tag = text.c_str();
                call.priority = static_cast<log_priority>(100 + tag);
                LogTo(ZORLoggerLegacy::Instance(), call, "x");
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(gPrints.size(), static_cast<size_t>(THREADS * TAGS));
    EXPECT_EQ(ZORLoggerLegacy::m_moduleMapping.size(), ModulesByTag().size() + TAGS);
    EXPECT_EQ(ZORLoggerLegacy::m_levelMapping.size(), LevelsByPriority().size() + TAGS);
}

} // namespace
