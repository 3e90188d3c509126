#include "Sampler.h"

#include <algorithm>

#include "Judge.h"
#include "Process.h"

namespace zortop {
namespace {

constexpr int GLANCES = 20;    // from one look to the next, or fewer:
constexpr int LEAST_MSEC = 20; // between two, so that frequent looks take little of the processor

} // namespace

Sampler::Sampler(pid_t pid) : m_reader(pid) {}

Report Sampler::Look()
{
    m_last = m_reader.Read();
    Report report = m_history.Next(m_last);
    report.capacity = m_reader.Capacity();
    report.typeNames = m_typeNames;
    report.notices = Judge(report);
    return report;
}

void Sampler::Wait(int msec, const std::function<bool(int)>& pause)
{
    const std::int64_t end = MonotonicNsec() + msec * INT64_C(1000000);
    const int step = std::max(msec / GLANCES, LEAST_MSEC);
    for (;;) {
        const std::int64_t left = (end - MonotonicNsec()) / 1000000;
        if (left <= 0 || pause(static_cast<int>(std::min<std::int64_t>(left, step)))) {
            return;
        }
        m_history.Glance(m_reader.ReadBusy(m_last));
    }
}

} // namespace zortop
