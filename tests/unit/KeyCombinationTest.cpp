#include "KeyCombinationLoggerRegistration.h"

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "ChildSeams.h"
#include "ConsoleSeam.h"
#include "KeyLibraryCalls.h"
#include "LoaderSeams.h"
#include "LogRecord.h"
#include "LogSeam.h"
#include "RecordingLogger.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using zortest::LogEntry;
using zortest::Takeover;

using Registration = KeyCombinationLoggerRegistration;

constexpr KeyComb DEBUG_MENU = static_cast<KeyComb>(99);
constexpr KeyComb TKGS_MENU = static_cast<KeyComb>(113);

constexpr char DEBUG_MENU_PROGRAM[] = "/usr/apps/org.nimbo.core-debug-menu/bin/core-debug-menu";
constexpr char TKGS_MENU_PROGRAM[] = "/usr/apps/org.nimbo.core-tkgs-menu/bin/core-tkgs-menu";

/// What the library of the tests has been asked for.
struct KeyCalls
{
    std::vector<std::string> names; ///< "Add_Handler 113"; "loaded" and "unloaded" among them
    KeyCombHandler debugMenu = nullptr;
    KeyCombHandler tkgsMenu = nullptr;
};

KeyCalls gCalls;

/// A pid that no process has.
constexpr pid_t SOME_CHILD = 1 << 30;

} // namespace

extern "C" void KeyLibraryCalled(const char* function, KeyComb combination, KeyCombHandler handler)
{
    std::string name = function;
    if (handler != nullptr) {
        name += " " + std::to_string(combination);
        (combination == DEBUG_MENU ? gCalls.debugMenu : gCalls.tkgsMenu) = handler;
    }
    gCalls.names.push_back(name);
}

extern "C" void KeyLibraryLoaded(bool loaded)
{
    gCalls.names.push_back(loaded ? "loaded" : "unloaded");
}

namespace {

class KeyCombinationTest : public ::testing::Test
{
 protected:
    KeyCombinationTest()
    {
        zortest::ClearLog();
        zortest::SetRelease(false);
        gCalls = {};
        Registration::m_LIBRARY_PATH = KEY_LIBRARY;
    }

    ~KeyCombinationTest() override
    {
        if (Registration::m_handle != nullptr) {
            Registration::Exit();
        }
        Registration::m_LIBRARY_PATH = m_libraryPath;
        Registration::m_KEY_COMBINATION_INITIALIZE = m_initialize;
        Registration::m_KEY_COMBINATION_FINALIZE = m_finalize;
        Registration::m_KEY_COMBINATION_ADD_HANDLER = m_addHandler;
        Registration::m_KEY_COMBINATION_REMOVE_HANDLER = m_removeHandler;
        zortest::SetRelease(false);
        signal(SIGCHLD, SIG_DFL);
    }

    /// The one entry that has been logged; it is promoted, at INFO, and the runtime's.
    static LogEntry OnlyEntry(const zortest::LogRecord& log)
    {
        const std::vector<LogEntry> entries = log.Get();
        EXPECT_EQ(entries.size(), 1u);
        if (entries.empty()) {
            return {};
        }
        EXPECT_TRUE(entries[0].flag);
        EXPECT_EQ(entries[0].priority, DLOG_INFO);
        EXPECT_EQ(entries[0].tag, "ZOR_CORE");
        return entries[0];
    }

    const char* const m_libraryPath = Registration::m_LIBRARY_PATH;
    const char* const m_initialize = Registration::m_KEY_COMBINATION_INITIALIZE;
    const char* const m_finalize = Registration::m_KEY_COMBINATION_FINALIZE;
    const char* const m_addHandler = Registration::m_KEY_COMBINATION_ADD_HANDLER;
    const char* const m_removeHandler = Registration::m_KEY_COMBINATION_REMOVE_HANDLER;
};

// Settings.

TEST_F(KeyCombinationTest, SettingsNameThePlatformsLibraryAndFunctions)
{
    EXPECT_STREQ(m_libraryPath, "/usr/lib64/libqv-win-util.so");
    EXPECT_STREQ(m_initialize, "KeyCombination_Initialize");
    EXPECT_STREQ(m_finalize, "KeyCombination_Finalize");
    EXPECT_STREQ(m_addHandler, "KeyCombination_Add_Handler");
    EXPECT_STREQ(m_removeHandler, "KeyCombination_Remove_Handler");
    EXPECT_EQ(Registration::m_handle, nullptr);
}

TEST_F(KeyCombinationTest, SettingsCanBeChangedBeforeInitialize)
{
    Registration::m_KEY_COMBINATION_INITIALIZE = "OtherInitialize";
    Registration::m_KEY_COMBINATION_FINALIZE = "OtherFinalize";
    Registration::m_KEY_COMBINATION_ADD_HANDLER = "OtherAdd";
    Registration::m_KEY_COMBINATION_REMOVE_HANDLER = "OtherRemove";
    Registration::Initialize();
    Registration::Exit();
    EXPECT_THAT(gCalls.names,
                ElementsAre("loaded", "OtherInitialize", "OtherAdd 99", "OtherAdd 113",
                            "OtherRemove 99", "OtherRemove 113", "OtherFinalize", "unloaded"));
}

// Loading and unloading.

TEST_F(KeyCombinationTest, DebugBuildRegistersBothCombinationsAndRemovesThemInThisOrder)
{
    Registration::Initialize();
    EXPECT_NE(Registration::m_handle, nullptr);
    EXPECT_THAT(gCalls.names,
                ElementsAre("loaded", "Initialize", "Add_Handler 99", "Add_Handler 113"));
    gCalls.names.clear();
    Registration::Exit();
    EXPECT_THAT(gCalls.names,
                ElementsAre("Remove_Handler 99", "Remove_Handler 113", "Finalize", "unloaded"));
    EXPECT_EQ(Registration::m_handle, nullptr);
    EXPECT_THAT(zortest::LogLines(), IsEmpty());
}

TEST_F(KeyCombinationTest, ReleaseBuildRegistersAndRemoves113Only)
{
    zortest::SetRelease(true);
    Registration::Initialize();
    Registration::Exit();
    EXPECT_THAT(gCalls.names, ElementsAre("loaded", "Initialize", "Add_Handler 113",
                                          "Remove_Handler 113", "Finalize", "unloaded"));
}

TEST_F(KeyCombinationTest, RemovedHandlersAreTheAddedOnes)
{
    Registration::Initialize();
    const KeyCalls added = gCalls;
    gCalls = {};
    Registration::Exit();
    EXPECT_NE(added.debugMenu, added.tkgsMenu);
    EXPECT_EQ(gCalls.debugMenu, added.debugMenu);
    EXPECT_EQ(gCalls.tkgsMenu, added.tkgsMenu);
}

TEST_F(KeyCombinationTest, LibraryIsLoadedByItsPathWithAllItsSymbolsBound)
{
    std::vector<std::pair<std::string, int>> opened;
    const Takeover takeover(zortest::dlopenSeam, [&opened](const char* file, int mode) {
        opened.emplace_back(file, mode);
        return zortest::dlopenSeam.Real(file, mode);
    });
    Registration::Initialize();
    EXPECT_THAT(opened, ElementsAre(std::pair<std::string, int>(KEY_LIBRARY, RTLD_NOW)));
}

TEST_F(KeyCombinationTest, MissingLibraryIsLoggedAndLeavesTheLauncherInactive)
{
    Registration::m_LIBRARY_PATH = "/nonexistent/libqv-win-util.so";
    const zortest::LogRecord log;
    Registration::Initialize();
    EXPECT_EQ(Registration::m_handle, nullptr);
    const LogEntry entry = OnlyEntry(log);
    EXPECT_EQ(entry.format, "[%s][%d] Couldn't open the library");
    EXPECT_THAT(entry.text,
                MatchesRegex("\\[Initialize\\]\\[[1-9][0-9]*\\] Couldn't open the library"));
}

TEST_F(KeyCombinationTest, EntriesReachThePlatformLogAtError)
{
    Registration::m_LIBRARY_PATH = "/nonexistent/libqv-win-util.so";
    Registration::Initialize();
    const std::vector<zortest::LogLine> lines = zortest::LogLines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].priority, DLOG_ERROR);
    EXPECT_THAT(lines[0].text, HasSubstr("KeyCombinationLoggerRegistration::Initialize"));
}

TEST_F(KeyCombinationTest, ExitAfterAMissingLibraryDoesNothing)
{
    Registration::m_LIBRARY_PATH = "/nonexistent/libqv-win-util.so";
    Registration::Initialize();
    zortest::ClearLog();
    Registration::Exit();
    EXPECT_THAT(zortest::LogLines(), IsEmpty());
    EXPECT_EQ(Registration::m_handle, nullptr);
}

TEST_F(KeyCombinationTest, FailureToCloseIsLoggedAndResetsTheHandleAllTheSame)
{
    Registration::Initialize();
    void* const handle = Registration::m_handle;
    char error[] = "it is in use";
    const zortest::LogRecord log;
    {
        int closes = 0;
        const Takeover close(zortest::dlcloseSeam, [&](void* library) {
            EXPECT_EQ(library, handle);
            ++closes;
            return -1;
        });
        const Takeover text(zortest::dlerrorSeam, [&] { return closes > 0 ? error : nullptr; });
        Registration::Exit();
        EXPECT_EQ(closes, 1);
    }
    EXPECT_EQ(Registration::m_handle, nullptr);
    const LogEntry entry = OnlyEntry(log);
    EXPECT_EQ(entry.format, "[%s][%d] There was error during closing dynamic library: %s");
    EXPECT_THAT(entry.text, MatchesRegex("\\[Exit\\]\\[[1-9][0-9]*\\] There was error during "
                                         "closing dynamic library: it is in use"));
    dlclose(handle);
}

TEST_F(KeyCombinationTest, LauncherCanBeStartedAgain)
{
    for (int i = 0; i < 3; ++i) {
        gCalls = {};
        Registration::Initialize();
        Registration::Exit();
        EXPECT_EQ(gCalls.names.size(), 8u);
    }
}

// Functions that cannot be looked up.

TEST_F(KeyCombinationTest, MissingInitialiserIsLoggedAndCalledAllTheSame)
{
    Registration::m_LIBRARY_PATH = EMPTY_LIBRARY;
    EXPECT_EXIT(
        {
            ZORLogs::getInstance()->AddPlugin(std::make_unique<zortest::EchoingLogger>());
            // What is called is nothing, so this is how it ends; no sanitizer is to report it.
            signal(SIGSEGV, [](int) { _exit(42); });
            Registration::Initialize();
        },
        testing::ExitedWithCode(42),
        "\\[m_CallInitializeFinalizeFunctions\\]\\[[0-9]+\\] There was error during getting "
        "KeyCombination_Initialize function: .*undefined symbol: KeyCombination_Initialize \\|\n");
}

TEST_F(KeyCombinationTest, InitialiserAndFinaliserAreCalledEvenAfterAnError)
{
    char error[] = "not today";
    bool cleared = false;
    // Each look-up clears the error and then asks for it.
    const Takeover text(zortest::dlerrorSeam, [&]() -> char* {
        cleared = !cleared;
        return cleared ? nullptr : error;
    });
    const zortest::LogRecord log;
    Registration::Initialize();
    Registration::Exit();
    EXPECT_THAT(gCalls.names, ElementsAre("loaded", "Initialize", "Finalize", "unloaded"));

    std::vector<std::string> texts;
    for (const LogEntry& entry : log.Get()) {
        EXPECT_EQ(entry.format, "[%s][%d] There was error during getting %s function: %s ");
        EXPECT_TRUE(entry.flag);
        EXPECT_EQ(entry.priority, DLOG_INFO);
        texts.push_back(entry.text);
    }
    const std::string plain =
        "\\[m_CallInitializeFinalizeFunctions\\]\\[[1-9][0-9]*\\] There was "
        "error during getting KeyCombination_";
    const std::string handler =
        "\\[m_CallHandlerFunction\\]\\[[1-9][0-9]*\\] There was error "
        "during getting KeyCombination_";
    const std::string end = " function: not today ";
    EXPECT_THAT(texts, ElementsAre(MatchesRegex(plain + "Initialize" + end),
                                   MatchesRegex(handler + "Add_Handler" + end),
                                   MatchesRegex(handler + "Add_Handler" + end),
                                   MatchesRegex(handler + "Remove_Handler" + end),
                                   MatchesRegex(handler + "Remove_Handler" + end),
                                   MatchesRegex(plain + "Finalize" + end)));
}

TEST_F(KeyCombinationTest, MissingHandlerFunctionsAreLoggedAndNotCalled)
{
    Registration::m_KEY_COMBINATION_ADD_HANDLER = "NoSuchAdd";
    Registration::m_KEY_COMBINATION_REMOVE_HANDLER = "NoSuchRemove";
    const zortest::LogRecord log;
    Registration::Initialize();
    Registration::Exit();
    EXPECT_THAT(gCalls.names, ElementsAre("loaded", "Initialize", "Finalize", "unloaded"));
    ASSERT_EQ(log.Get().size(), 4u);
    EXPECT_THAT(log.Get()[0].text,
                MatchesRegex("\\[m_CallHandlerFunction\\]\\[[1-9][0-9]*\\] There was error during "
                             "getting NoSuchAdd function: .*undefined symbol: NoSuchAdd "));
    EXPECT_THAT(log.Get()[3].text, HasSubstr("getting NoSuchRemove function: "));
}

TEST_F(KeyCombinationTest, ErrorOfSomebodyElseIsNotTheLookupsError)
{
    EXPECT_EQ(dlsym(RTLD_DEFAULT, "zor_no_such_symbol"), nullptr);
    Registration::Initialize();
    EXPECT_EQ(gCalls.names.size(), 4u);
    EXPECT_THAT(zortest::LogLines(), IsEmpty());
}

// Handlers.

/// One start of a program as a handler asked for it.
struct Start
{
    std::string path;
    std::vector<std::string> arguments;
};

class KeyHandlerTest : public KeyCombinationTest
{
 protected:
    KeyHandlerTest() { Registration::Initialize(); }

    /// Presses a combination in a process that believes to be the child.
    std::vector<Start> StartsOf(KeyCombHandler handler, KeyComb combination)
    {
        std::vector<Start> starts;
        const Takeover fork(zortest::forkSeam, [this] {
            m_sigchldAtFork = Sigchld();
            return 0;
        });
        const Takeover exec(zortest::execlSeam, [&starts](const std::string& path,
                                                          const std::vector<std::string>& args) {
            starts.push_back({path, args});
            errno = ENOENT;
            return -1;
        });
        handler(combination, m_text);
        return starts;
    }

    static sighandler_t Sigchld()
    {
        struct sigaction action = {};
        sigaction(SIGCHLD, nullptr, &action);
        return action.sa_handler;
    }

    char m_text[8] = "a text";
    sighandler_t m_sigchldAtFork = SIG_ERR;
};

TEST_F(KeyHandlerTest, DebugMenuIsStartedWithOneEmptyArgument)
{
    const std::vector<Start> starts = StartsOf(gCalls.debugMenu, DEBUG_MENU);
    // A child without its program has come back from the handler: it has started nothing else.
    ASSERT_EQ(starts.size(), 1u);
    EXPECT_EQ(starts[0].path, DEBUG_MENU_PROGRAM);
    EXPECT_THAT(starts[0].arguments, ElementsAre(DEBUG_MENU_PROGRAM, ""));
}

TEST_F(KeyHandlerTest, TkgsMenuIsStartedWithOneEmptyArgument)
{
    const std::vector<Start> starts = StartsOf(gCalls.tkgsMenu, TKGS_MENU);
    ASSERT_EQ(starts.size(), 1u);
    EXPECT_EQ(starts[0].path, TKGS_MENU_PROGRAM);
    EXPECT_THAT(starts[0].arguments, ElementsAre(TKGS_MENU_PROGRAM, ""));
}

TEST_F(KeyHandlerTest, PressIsLoggedBeforeTheChildIsMade)
{
    for (const auto& [handler, name, combination] :
         {std::tuple(gCalls.debugMenu, "m_LaunchMenu", DEBUG_MENU),
          std::tuple(gCalls.tkgsMenu, "m_LaunchTkgsPopup", TKGS_MENU)}) {
        SCOPED_TRACE(name);
        const zortest::LogRecord log;
        const Takeover fork(zortest::forkSeam, [&log] {
            EXPECT_EQ(log.Get().size(), 1u);
            return SOME_CHILD;
        });
        handler(combination, m_text);
        const LogEntry entry = OnlyEntry(log);
        EXPECT_EQ(entry.format, "[%s][%d] %s hit sucessfully! %d");
        EXPECT_THAT(entry.text, MatchesRegex("\\[" + std::string(name) +
                                             "\\]\\[[1-9][0-9]*\\] a text hit sucessfully! " +
                                             std::to_string(combination)));
    }
}

TEST_F(KeyHandlerTest, ParentStartsNoProgramItself)
{
    for (const pid_t forked : {SOME_CHILD, static_cast<pid_t>(-1)}) {
        int starts = 0;
        const Takeover fork(zortest::forkSeam, [forked] { return forked; });
        const Takeover exec(
            zortest::execlSeam,
            [&starts](const std::string&, const std::vector<std::string>&) { return ++starts; });
        gCalls.debugMenu(DEBUG_MENU, m_text);
        gCalls.tkgsMenu(TKGS_MENU, m_text);
        EXPECT_EQ(starts, 0);
    }
}

TEST_F(KeyHandlerTest, DebugMenuLeavesTheSignalOfEndedChildrenAsItIs)
{
    for (const sighandler_t before : {SIG_DFL, sighandler_t([](int) {})}) {
        signal(SIGCHLD, before);
        StartsOf(gCalls.debugMenu, DEBUG_MENU);
        EXPECT_EQ(m_sigchldAtFork, before);
        EXPECT_EQ(Sigchld(), before);
    }
}

TEST_F(KeyHandlerTest, TkgsMenuIgnoresTheSignalOfEndedChildrenBeforeItForks)
{
    signal(SIGCHLD, SIG_DFL);
    StartsOf(gCalls.tkgsMenu, TKGS_MENU);
    EXPECT_EQ(m_sigchldAtFork, SIG_IGN);
    EXPECT_EQ(Sigchld(), SIG_IGN);
}

TEST_F(KeyHandlerTest, MenuOfADaemonThatBlocksAndIgnoresSignalsGetsAllOfThem)
{
    sigset_t blocked;
    sigset_t before;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &blocked, &before);
    signal(SIGINT, SIG_IGN);
    const auto state = [] {
        sigset_t mask;
        pthread_sigmask(SIG_SETMASK, nullptr, &mask);
        struct sigaction action = {};
        sigaction(SIGINT, nullptr, &action);
        return std::pair(sigismember(&mask, SIGTERM) != 0, action.sa_handler == SIG_IGN);
    };
    for (const auto& [handler, combination] :
         {std::pair(gCalls.debugMenu, DEBUG_MENU), std::pair(gCalls.tkgsMenu, TKGS_MENU)}) {
        std::pair<bool, bool> inProgram;
        sighandler_t sigchldInProgram = SIG_ERR;
        const Takeover fork(zortest::forkSeam, [] { return 0; });
        const Takeover exec(zortest::execlSeam,
                            [&](const std::string&, const std::vector<std::string>&) {
                                inProgram = state();
                                sigchldInProgram = Sigchld();
                                return -1;
                            });
        handler(combination, m_text);
        EXPECT_EQ(inProgram, std::pair(false, false));
        EXPECT_EQ(sigchldInProgram, SIG_DFL);
        // Without its program the child is as its parent again.
        EXPECT_EQ(state(), std::pair(true, true));
    }
    signal(SIGINT, SIG_DFL);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

TEST_F(KeyHandlerTest, ProgramIsStartedInAChildThatTheSystemReaps)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const Takeover exec(zortest::execlSeam,
                        [&ends](const std::string& path, const std::vector<std::string>&) -> int {
                            dprintf(ends[1], "%d %s\n", getpid(), path.c_str());
                            _exit(0);
                        });
    gCalls.tkgsMenu(TKGS_MENU, m_text);
    close(ends[1]);
    FILE* const report = fdopen(ends[0], "r");
    int child = 0;
    char path[128] = "";
    EXPECT_EQ(fscanf(report, "%d %127s", &child, path), 2);
    fclose(report);
    EXPECT_NE(child, getpid());
    EXPECT_STREQ(path, TKGS_MENU_PROGRAM);
    // Waits for the last child, and finds that nothing is left of it.
    EXPECT_EQ(waitpid(-1, nullptr, 0), -1);
    EXPECT_EQ(errno, ECHILD);
}

} // namespace
