#include "ConsoleSeam.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string_view>
#include <utility>

#include "ZorApiLite.h"

namespace zortest {

Seam<void(unsigned long)> sleepMsSeam("_ZN10ZorApiLite11LiteUtility7SleepMsEm");

namespace {

Seam<FILE*(const char*, const char*)> fopenSeam("fopen");

constexpr char CONSOLE_PATH[] = "/dev/console";
constexpr std::string_view REPORT = "Assertion failed: ";
constexpr std::string_view BEFORE_EXPRESSION = ") - ";

std::atomic<bool> gRelease{false};
std::atomic<bool> gConsoleMissing{false};
std::atomic<bool> gCapturing{false};

struct Captured
{
    std::mutex mutex; ///< guards the rest
    std::string text;
    std::vector<unsigned long> pauses;
};

/// Never destroyed: a thread may report until the process is gone.
Captured& TheCapture()
{
    static Captured* const captured = new Captured;
    return *captured;
}

/// Never destroyed, for the same reason.
std::function<void()>& PauseHook()
{
    static auto* const hook = new std::function<void()>;
    return *hook;
}

/// Set from the opening of the console to the pause that follows: the pause belongs to an
/// assertion.
thread_local bool tReporting = false;

ssize_t AppendToCapture(void* /*cookie*/, const char* data, size_t size)
{
    std::lock_guard<std::mutex> lock(TheCapture().mutex);
    TheCapture().text.append(data, size);
    return static_cast<ssize_t>(size);
}

FILE* OpenConsole(const char* mode)
{
    tReporting = true;
    if (gConsoleMissing) {
        errno = ENOENT;
        return nullptr;
    }
    if (!gCapturing) {
        return fdopen(dup(STDERR_FILENO), mode);
    }
    cookie_io_functions_t functions{};
    functions.write = AppendToCapture;
    return fopencookie(nullptr, mode, functions);
}

} // namespace

ConsoleCapture::ConsoleCapture()
{
    {
        std::lock_guard<std::mutex> lock(TheCapture().mutex);
        TheCapture().text.clear();
        TheCapture().pauses.clear();
    }
    gRelease = true;
    gCapturing = true;
}

ConsoleCapture::~ConsoleCapture()
{
    gCapturing = false;
    gRelease = false;
}

std::string ConsoleCapture::Text() const
{
    std::lock_guard<std::mutex> lock(TheCapture().mutex);
    return TheCapture().text;
}

std::vector<std::string> ConsoleCapture::Failed() const
{
    const std::string text = Text();
    std::vector<std::string> expressions;
    for (size_t at = text.find(REPORT); at != std::string::npos; at = text.find(REPORT, at + 1)) {
        const size_t end = text.find('\n', at);
        const std::string line = text.substr(at, end - at);
        const size_t expression = line.find(BEFORE_EXPRESSION);
        expressions.push_back(expression == std::string::npos
                                  ? "malformed report: " + line
                                  : line.substr(expression + BEFORE_EXPRESSION.size()));
    }
    return expressions;
}

std::vector<unsigned long> ConsoleCapture::Pauses() const
{
    std::lock_guard<std::mutex> lock(TheCapture().mutex);
    return TheCapture().pauses;
}

void SetConsoleMissing(bool missing)
{
    gConsoleMissing = missing;
}

void OnAssertionPause(std::function<void()> function)
{
    PauseHook() = std::move(function);
}

void SetRelease(bool release)
{
    gRelease = release;
}

std::vector<std::string> AssertionsOf(const std::function<void()>& function)
{
    const ConsoleCapture capture;
    function();
    return capture.Failed();
}

::testing::Matcher<const std::string&> HasAssertionReport(const std::string& expression)
{
    return ::testing::AllOf(
        ::testing::HasSubstr(std::string(REPORT)),
        ::testing::HasSubstr(std::string(BEFORE_EXPRESSION) + expression + "\n"));
}

} // namespace zortest

extern "C" FILE* fopen(const char* path, const char* mode)
{
    return strcmp(path, zortest::CONSOLE_PATH) == 0 ? zortest::OpenConsole(mode)
                                                    : zortest::fopenSeam(path, mode);
}

bool ZorApiLite::LiteUtility::IsRelease()
{
    return zortest::gRelease;
}

bool ZorApiLite::LiteUtility::IsDebug()
{
    return !zortest::gRelease;
}

void ZorApiLite::LiteUtility::SleepMs(unsigned long msec)
{
    if (!zortest::tReporting) {
        zortest::sleepMsSeam(msec);
        return;
    }
    zortest::tReporting = false;
    if (zortest::PauseHook()) {
        zortest::PauseHook()();
    }
    std::lock_guard<std::mutex> lock(zortest::TheCapture().mutex);
    zortest::TheCapture().pauses.push_back(msec);
}
