#include <dlfcn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ChildSeams.h"
#include "DebugMenuUtility.h"
#include "FaultCase.h"
#include "KeyCombinationLoggerRegistration.h"
#include "KeyLibraryCalls.h"
#include "LoaderSeams.h"
#include "LogRecord.h"
#include "LogSeam.h"
#include "RecordingLogger.h"
#include "TVInfoBox.h"
#include "ToolSeams.h"

namespace {

using namespace zortest;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::internal::CaptureStdout;
using ::testing::internal::GetCapturedStdout;

using Registration = KeyCombinationLoggerRegistration;

std::vector<std::string> gCalls; ///< of the key-combination library
KeyCombHandler gMenu = nullptr;  ///< the handler of a combination that was added last

constexpr KeyComb ANY_COMBINATION = static_cast<KeyComb>(113);

class ToolFaultsTest : public ::testing::Test
{
 protected:
    ToolFaultsTest()
    {
        ClearLog();
        gCalls.clear();
        Registration::m_LIBRARY_PATH = KEY_LIBRARY;
    }

    ~ToolFaultsTest() override
    {
        Registration::Exit();
        Registration::m_KEY_COMBINATION_ADD_HANDLER = "KeyCombination_Add_Handler";
        Registration::m_KEY_COMBINATION_REMOVE_HANDLER = "KeyCombination_Remove_Handler";
        signal(SIGCHLD, SIG_DFL);
    }

    /// The texts of what has been logged, all of it promoted and at INFO.
    std::vector<std::string> Logged() const
    {
        std::vector<std::string> texts;
        for (const LogEntry& entry : m_log.Get()) {
            EXPECT_TRUE(entry.flag);
            EXPECT_EQ(entry.priority, 4);
            texts.push_back(entry.text);
        }
        return texts;
    }

    static void ExpectWorks()
    {
        gCalls.clear();
        Registration::Initialize();
        EXPECT_EQ(gCalls.size(), 4u);
        Registration::Exit();
        EXPECT_EQ(Registration::m_handle, nullptr);
    }

    const LogRecord m_log;
};

using ToolFaultsDeathTest = ToolFaultsTest;

// Key combinations.

TEST_F(ToolFaultsTest, LibraryThatCannotBeLoadedIsLogged)
{
    const FaultCase fault("dlopen", "KeyCombinationLoggerRegistration::Initialize",
                          "logged \"[%s][%d] Couldn't open the library\"; the launcher stays "
                          "inactive, `Exit()` does nothing");
    {
        const FailingCall missing(dlopenSeam, nullptr);
        Registration::Initialize();
    }
    EXPECT_EQ(Registration::m_handle, nullptr);
    Registration::Exit();
    EXPECT_THAT(Logged(), ElementsAre(MatchesRegex("\\[Initialize\\]\\[[0-9]+\\] Couldn't open the "
                                                   "library")));
    EXPECT_THAT(gCalls, IsEmpty());
    ExpectWorks();
}

TEST_F(ToolFaultsTest, HandlerFunctionsThatAreMissingAreLoggedAndNotCalled)
{
    const FaultCase fault("dlsym, dlerror",
                          "KeyCombinationLoggerRegistration::m_CallHandlerFunction",
                          "logged \"[%s][%d] There was error during getting %s function: %s \"; "
                          "nothing is called");
    Registration::m_KEY_COMBINATION_ADD_HANDLER = "NoSuchAdd";
    Registration::m_KEY_COMBINATION_REMOVE_HANDLER = "NoSuchRemove";
    Registration::Initialize();
    Registration::Exit();
    FaultCase::Injected();
    EXPECT_THAT(gCalls, ElementsAre("loaded", "Initialize", "Finalize", "unloaded"));
    const std::vector<std::string> texts = Logged();
    ASSERT_EQ(texts.size(), 4u);
    EXPECT_THAT(texts[0], MatchesRegex("\\[m_CallHandlerFunction\\]\\[[0-9]+\\] There was error "
                                       "during getting NoSuchAdd function: .*NoSuchAdd "));
    EXPECT_THAT(texts[3], HasSubstr("getting NoSuchRemove function: "));
}

TEST_F(ToolFaultsDeathTest, InitialiserThatIsMissingIsCalledAllTheSame)
{
    const FaultCase fault("dlsym, dlerror",
                          "KeyCombinationLoggerRegistration::m_CallInitializeFinalizeFunctions",
                          "logged \"[%s][%d] There was error during getting %s function: %s \", "
                          "then called: the process ends with SIGSEGV");
    EXPECT_FAULT_EXIT(
        {
            FaultCase::Injected();
            ZORLogs::getInstance()->AddPlugin(std::make_unique<EchoingLogger>());
            // What is called is nothing, so this is how it ends; no sanitizer is to report it.
            signal(SIGSEGV, [](int) { _exit(42); });
            Registration::m_LIBRARY_PATH = EMPTY_LIBRARY;
            Registration::Initialize();
        },
        ::testing::ExitedWithCode(42),
        HasSubstr("There was error during getting KeyCombination_Initialize function: "));
}

TEST_F(ToolFaultsTest, LibraryThatCannotBeClosedIsLogged)
{
    const FaultCase fault("dlclose", "KeyCombinationLoggerRegistration::Exit",
                          "logged \"[%s][%d] There was error during closing dynamic library: "
                          "%s\"; the handle is null all the same");
    Registration::Initialize();
    void* const handle = Registration::m_handle;
    {
        const FailingCall refused(dlcloseSeam, -1);
        Registration::Exit();
    }
    EXPECT_EQ(Registration::m_handle, nullptr);
    EXPECT_THAT(Logged(),
                ElementsAre(MatchesRegex("\\[Exit\\]\\[[0-9]+\\] There was error during closing "
                                         "dynamic library: .*")));
    dlclose(handle);
    ExpectWorks();
}

/// A menu, as the library asks for it.
void PressKeys()
{
    char text[] = "a text";
    gMenu(ANY_COMBINATION, text);
}

TEST_F(ToolFaultsTest, MenuWithoutAProcessIsNotStarted)
{
    const FaultCase fault("fork", "KeyCombinationLoggerRegistration::m_LaunchTkgsPopup",
                          "ignored: no program is started");
    Registration::Initialize();
    int starts = 0;
    const Takeover exec(
        execlSeam, [&](const std::string&, const std::vector<std::string>&) { return ++starts; });
    const FailingCall refused(forkSeam, -1);
    PressKeys();
    EXPECT_EQ(starts, 0);
    EXPECT_THAT(Logged(), ElementsAre(EndsWith("a text hit sucessfully! 113")));
}

TEST_F(ToolFaultsTest, ChildWithoutItsMenuComesBackFromTheHandler)
{
    const FaultCase fault("execl", "KeyCombinationLoggerRegistration::m_LaunchTkgsPopup",
                          "the child comes back from the handler");
    Registration::Initialize();
    const Takeover child(forkSeam, [] { return 0; });
    const FailingCall missing(execlSeam, -1, 0, From::HERE, ENOENT);
    PressKeys();
    EXPECT_EQ(missing.Failed(), 1);
}

TEST_F(ToolFaultsTest, RefusedSignalIsIgnored)
{
    const FaultCase fault("signal",
                          "KeyCombinationLoggerRegistration::m_LaunchTkgsPopup, "
                          "show_message_box",
                          "ignored: the program is started, and stays as a zombie when it ends");
    Registration::Initialize();
    int forks = 0;
    const Takeover parent(forkSeam, [&] { return ++forks; });
    const Takeover parentOfABox(vforkSeam, [&] { return ++forks; });
    const FailingCall refused(signalSeam, SIG_ERR, EACH);
    PressKeys();
    show_message_box(1, 2, "a box");
    EXPECT_EQ(refused.Failed(), 2);
    EXPECT_EQ(forks, 2);
}

// Helpers of debug menus.

TEST_F(ToolFaultsTest, DebugLibraryThatCannotBeLoadedIsPrinted)
{
    const FaultCase fault("dlopen", "TCDebugMenuUtility::OpenLibrary",
                          "\"Opening dll failed.\" on standard output");
    const FailingCall missing(dlopenSeam, nullptr);
    CaptureStdout();
    TCDebugMenuUtility::OpenLibrary(KEY_LIBRARY, "OtherInitialize");
    EXPECT_EQ(GetCapturedStdout(), "Opening dll failed.\n");
    EXPECT_THAT(gCalls, IsEmpty());
}

TEST_F(ToolFaultsTest, DebugFunctionThatIsMissingIsPrintedAndTheLibraryClosed)
{
    const FaultCase fault("dlsym", "TCDebugMenuUtility::OpenLibrary",
                          "\"PTR not found.\" on standard output; the library is closed");
    CaptureStdout();
    TCDebugMenuUtility::OpenLibrary(KEY_LIBRARY, "NoSuchFunction");
    FaultCase::Injected();
    EXPECT_EQ(GetCapturedStdout(), "PTR not found.\n");
    EXPECT_THAT(gCalls, ElementsAre("loaded", "unloaded"));
}

TEST_F(ToolFaultsTest, DebugLibraryThatCannotBeClosedIsIgnored)
{
    const FaultCase fault("dlclose", "TCDebugMenuUtility::OpenLibrary",
                          "ignored: nothing is printed");
    void* library = nullptr;
    CaptureStdout();
    {
        const Takeover refused(dlcloseSeam, [&](void* handle) {
            FaultCase::Injected();
            library = handle;
            return -1;
        });
        TCDebugMenuUtility::OpenLibrary(KEY_LIBRARY, "OtherInitialize");
    }
    EXPECT_EQ(GetCapturedStdout(), "");
    EXPECT_THAT(gCalls, ElementsAre("loaded", "OtherInitialize"));
    dlclose(library);
}

// Info boxes.

/// Shows a box in a child that cannot start its program.
///
/// @return the child's status: 2 if the program was to show another text than @p text
int StatusOfABox(const std::function<void()>& show, const std::string& text)
{
    std::optional<pid_t> child;
    int status = -1;
    {
        const Takeover fork(vforkSeam, [&] {
            child = forkSeam.Real();
            return *child;
        });
        const Takeover missing(
            execlSeam, [&text](const std::string&, const std::vector<std::string>& arguments) {
                if (arguments.at(1) != text) {
                    _exit(2);
                }
                errno = ENOENT;
                return -1;
            });
        // Its parent wants to know how it ends.
        const Takeover kept(signalSeam, [](int, sighandler_t) { return SIG_DFL; });
        show();
    }
    EXPECT_EQ(waitpid(child.value_or(-1), &status, 0), child.value_or(-1));
    return status;
}

int StatusOfABox()
{
    return StatusOfABox([] { show_message_box(1, 2, "a box"); }, "a box");
}

TEST_F(ToolFaultsTest, BoxWithoutAProcessIsNotShown)
{
    const FaultCase fault("vfork", "show_message_box, create_message_box",
                          "ignored: no program is started");
    int starts = 0;
    const Takeover exec(
        execlSeam, [&](const std::string&, const std::vector<std::string>&) { return ++starts; });
    const FailingCall refused(vforkSeam, -1, EACH);
    show_message_box(1, 2, "a box");
    create_message_box(1, 2, "a box");
    EXPECT_EQ(refused.Failed(), 2);
    EXPECT_EQ(starts, 0);
    EXPECT_THAT(LogLines(), IsEmpty());
}

TEST_F(ToolFaultsTest, ChildWithoutItsBoxEndsWithStatus1)
{
    const FaultCase fault("execl", "show_message_box", "the child ends with status 1");
    const int status = StatusOfABox();
    FaultCase::Injected();
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 1);
    EXPECT_THAT(LogLines(), IsEmpty());
}

TEST_F(ToolFaultsTest, ChildThatCannotCloseItsStreamsGoesOn)
{
    const FaultCase fault("close", "show_message_box (child)",
                          "ignored: the child starts the program all the same");
    const int status = [] {
        const Takeover refused(closeSeam, [](int) {
            errno = EIO;
            return -1;
        });
        return StatusOfABox();
    }();
    FaultCase::Injected();
    EXPECT_EQ(WEXITSTATUS(status), 1); // it came to where the program was not found
}

TEST_F(ToolFaultsTest, UnprintableBoxIsCutWhereItCannotBePrinted)
{
    const FaultCase fault("vsnprintf", "show_message_box", "the text ends where printing failed");
    const wchar_t unprintable[] = {0xD800, 0}; // half of a pair is no character in any locale
    const int status = StatusOfABox(
        [&unprintable] { show_message_box(1, 2, "before %ls after", unprintable); }, "before ");
    FaultCase::Injected();
    EXPECT_EQ(WEXITSTATUS(status), 1);
}

TEST_F(ToolFaultsTest, FailedShellIsLoggedWithItsStatus)
{
    const FaultCase fault("system", "destroy_message_box",
                          "logged \"... > result of killing infobox:-1\"");
    const FailingCall refused(systemSeam, -1);
    destroy_message_box();
    const std::vector<LogLine> lines = LogLines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].priority, 6);
    EXPECT_THAT(lines[0].text, EndsWith(" > result of killing infobox:-1"));
}

} // namespace

extern "C" void KeyLibraryCalled(const char* function, KeyComb combination, KeyCombHandler handler)
{
    gCalls.emplace_back(function);
    if (handler != nullptr && combination == ANY_COMBINATION) {
        gMenu = handler;
    }
}

extern "C" void KeyLibraryLoaded(bool loaded)
{
    gCalls.emplace_back(loaded ? "loaded" : "unloaded");
}
