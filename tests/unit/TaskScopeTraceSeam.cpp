#include "TaskScopeTraceSeam.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <mutex>

#include "TCDebugPrint.h"

namespace zortest {
namespace {

/// Never destroyed: threads may trace until the process is gone.
struct Traces
{
    struct Made
    {
        const TCScopeTrace* object;
        ScopeTrace trace;
    };

    std::mutex mutex; ///< guards the list
    std::vector<Made> made;
};

Traces& TheTraces()
{
    static Traces* const traces = new Traces;
    return *traces;
}

} // namespace

void ClearScopeTraces()
{
    std::lock_guard<std::mutex> lock(TheTraces().mutex);
    std::vector<Traces::Made>& made = TheTraces().made;
    made.erase(std::remove_if(made.begin(), made.end(),
                              [](const Traces::Made& one) { return !one.trace.alive; }),
               made.end());
}

std::vector<ScopeTrace> ScopeTraces()
{
    std::lock_guard<std::mutex> lock(TheTraces().mutex);
    std::vector<ScopeTrace> traces;
    for (const Traces::Made& one : TheTraces().made) {
        traces.push_back(one.trace);
    }
    return traces;
}

} // namespace zortest

TCScopeTrace::TCScopeTrace(const char* fmt, ...) : m_startNsec(0)
{
    va_list args;
    va_start(args, fmt);
    vsnprintf(m_text, sizeof(m_text), fmt, args);
    va_end(args);
    std::lock_guard<std::mutex> lock(zortest::TheTraces().mutex);
    zortest::TheTraces().made.push_back({this, {fmt, m_text, true}});
}

TCScopeTrace::~TCScopeTrace()
{
    static_cast<void>(m_startNsec); // the library's own constructor is not here to use it
    std::lock_guard<std::mutex> lock(zortest::TheTraces().mutex);
    for (auto& one : zortest::TheTraces().made) {
        if (one.object == this) {
            one.trace.alive = false;
        }
    }
}
