#include "Sentinel.h"

#include <cstdio>
#include <cstdlib>
#include <utility>

#include "ThreadUtil.h"

namespace storm {

Sentinel::Sentinel(const std::vector<std::unique_ptr<Worker>>& workers,
                   std::chrono::seconds hangAfter, std::function<void()> beforeAbort)
    : m_workers(workers),
      m_hangAfter(hangAfter),
      m_beforeAbort(std::move(beforeAbort)),
      m_thread([this] { Watch(); })
{}

Sentinel::~Sentinel()
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_done = true;
    }
    m_changed.notify_all();
    m_thread.join();
}

/// Looks once a second. Only looks count, not the clock: while the process is stopped (in a
/// debugger, say) nobody hangs.
void Sentinel::Watch()
{
    constexpr std::chrono::seconds LOOK(1);

    TCThreadUtil::SetCurrentThreadName("storm-sentinel");
    std::vector<std::uint64_t> steps(m_workers.size());
    std::vector<std::int64_t> looks(m_workers.size());
    std::unique_lock<std::mutex> lock(m_mutex);
    while (!m_changed.wait_for(lock, LOOK, [this] { return m_done; })) {
        for (std::size_t i = 0; i < m_workers.size(); ++i) {
            const Worker::Doing doing = m_workers[i]->Now();
            const bool moves = doing.operation == Operation::COUNT || doing.steps != steps[i];
            steps[i] = doing.steps;
            looks[i] = moves ? 0 : looks[i] + 1;
            if (looks[i] >= m_hangAfter.count()) {
                fprintf(stderr, "zor-storm: thread %zu hangs in '%s' of slot %u\n", i,
                        NameOf(doing.operation), doing.slot);
                m_beforeAbort();
                abort();
            }
        }
    }
}

} // namespace storm
