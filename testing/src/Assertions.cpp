#include "zor/testing/Assertions.h"

#include <dlfcn.h>
#include <pthread.h>
#include <sys/types.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "AssertionReport.h"
#include "zor/testing/Seam.h"

// How an assertion comes here, all on the asserting thread:
//
//   runtime:  fopen(console) -- writes report -- fclose -- SleepMs(100) -- IsRelease() -- goes on
//   here:     begins a report    collects it     Finish     returns         true
//
// TSCustomAssert::callback would be shorter, but is not told what was asserted.

namespace zor::testing {
namespace {

constexpr char CONSOLE_PATH[] = "/dev/console";
constexpr char BEFORE_FILE[] = "Assertion failed: ";
constexpr char BEFORE_LINE[] = " (";
constexpr char BEFORE_TEXT[] = ") - ";
constexpr char BEHIND_TEXT[] = "\nDebug information:\n";

Seam<FILE*(const char*, const char*)> gFopen("fopen");

/// Where the calling thread is on the road above.
enum class EStep
{
    NONE,
    REPORTING, ///< the console is open
    PAUSING,   ///< the report is complete
};

thread_local EStep tStep = EStep::NONE;

/// Never destroyed: a thread may assert until the process is gone.
struct Collections
{
    std::mutex mutex;                                                       ///< guards the rest
    std::vector<std::pair<const Assertions*, std::vector<Assertion>>> open; ///< newest last
};

Collections& TheCollections()
{
    static Collections* const collections = new Collections;
    return *collections;
}

/// The parts of a report, or the whole of one that cannot be taken apart as its text.
Assertion Parse(const std::string& report)
{
    Assertion assertion;
    assertion.report = report;
    assertion.text = "unknown; the report is: " + report;
    char name[16] = "";
    pthread_getname_np(pthread_self(), name, sizeof(name));
    assertion.threadName = name;

    const std::size_t head = report.find(BEFORE_FILE);
    const std::size_t dash = report.find(BEFORE_TEXT, head);
    const std::size_t end = report.find(BEHIND_TEXT, dash);
    if (head == std::string::npos || dash == std::string::npos || end == std::string::npos) {
        return assertion;
    }
    const std::size_t file = head + strlen(BEFORE_FILE);
    const std::size_t line = report.rfind(BEFORE_LINE, dash);
    const std::size_t text = dash + strlen(BEFORE_TEXT);
    assertion.file = report.substr(file, line - file);
    assertion.line = strtoul(report.c_str() + line + strlen(BEFORE_LINE), nullptr, 10);
    assertion.text = report.substr(text, end - text);
    return assertion;
}

void FailTest(const Assertion& assertion)
{
    ADD_FAILURE_AT(assertion.file.empty() ? "unknown file" : assertion.file.c_str(),
                   static_cast<int>(assertion.line))
        << "assertion failed: " << assertion.text << "\non thread " << assertion.threadName << "\n"
        << assertion.report;
}

void Finish(const std::string& report)
{
    tStep = EStep::PAUSING;
    if (::testing::internal::InDeathTestChild()) {
        fputs(report.c_str(), stderr);
        return;
    }
    Assertion assertion = Parse(report);
    {
        std::lock_guard<std::mutex> lock(TheCollections().mutex);
        if (!TheCollections().open.empty()) {
            TheCollections().open.back().second.push_back(std::move(assertion));
            return;
        }
    }
    FailTest(assertion);
}

ssize_t Append(void* cookie, const char* data, size_t size)
{
    static_cast<std::string*>(cookie)->append(data, size);
    return static_cast<ssize_t>(size);
}

int Close(void* cookie)
{
    auto* const report = static_cast<std::string*>(cookie);
    Finish(*report);
    delete report;
    return 0;
}

FILE* OpenReport(const char* mode)
{
    tStep = EStep::REPORTING;
    cookie_io_functions_t functions = {};
    functions.write = Append;
    functions.close = Close;
    auto* const report = new std::string;
    FILE* const stream = fopencookie(report, mode, functions);
    if (stream == nullptr) {
        delete report;
        Finish(""); // the runtime goes on without a console, and nothing else will finish it
    }
    return stream;
}

} // namespace

Assertions::Assertions()
{
    std::lock_guard<std::mutex> lock(TheCollections().mutex);
    TheCollections().open.emplace_back(this, std::vector<Assertion>());
}

Assertions::~Assertions()
{
    std::lock_guard<std::mutex> lock(TheCollections().mutex);
    auto& open = TheCollections().open;
    for (auto it = open.begin(); it != open.end(); ++it) {
        if (it->first == this) {
            open.erase(it);
            return;
        }
    }
}

std::vector<Assertion> Assertions::Get() const
{
    std::lock_guard<std::mutex> lock(TheCollections().mutex);
    for (const auto& [owner, assertions] : TheCollections().open) {
        if (owner == this) {
            return assertions;
        }
    }
    return {};
}

std::vector<std::string> Assertions::Texts() const
{
    std::vector<std::string> texts;
    for (const Assertion& assertion : Get()) {
        texts.push_back(assertion.text);
    }
    return texts;
}

namespace internal {

bool PausesForAssertion()
{
    return tStep == EStep::PAUSING;
}

bool AnswersAssertion(bool* goesOn)
{
    if (tStep != EStep::PAUSING) {
        return false;
    }
    tStep = EStep::NONE;
    *goesOn = !::testing::internal::InDeathTestChild();
    return true;
}

::testing::AssertionResult Asserts(const std::function<void()>& statement,
                                   const std::vector<std::string>& texts)
{
    std::vector<Assertion> seen;
    {
        const Assertions assertions;
        statement();
        seen = assertions.Get();
    }
    bool same = !texts.empty() && seen.size() == texts.size();
    for (std::size_t i = 0; same && i < seen.size(); ++i) {
        same = seen[i].text == texts[i];
    }
    if (same) {
        return ::testing::AssertionSuccess();
    }
    auto failure = ::testing::AssertionFailure();
    failure << "expected failed assertions: " << ::testing::PrintToString(texts) << "\n";
    failure << (seen.empty() ? "there was none" : "there were:");
    for (const Assertion& assertion : seen) {
        failure << "\n  \"" << assertion.text << "\" at " << assertion.file << ":" << assertion.line
                << " on thread " << assertion.threadName;
    }
    return failure;
}

} // namespace internal

} // namespace zor::testing

extern "C" __attribute__((visibility("default"))) FILE* fopen(const char* path, const char* mode)
{
    return strcmp(path, zor::testing::CONSOLE_PATH) == 0 ? zor::testing::OpenReport(mode)
                                                         : zor::testing::gFopen(path, mode);
}
