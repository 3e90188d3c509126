#pragma once

#include "Debug.h"
#include "Sync.h"
#include "Thread.h"

namespace zor {

/// Lists a synchronous send in the table of calls in progress, on every way out.
class SyncCallEntry
{
 public:
    SyncCallEntry(bool sync, TSEvent* event)
    {
        if (sync) {
            m_index = TCSyncDet::PCTaskSyncMonitoring(static_cast<int>(TCThreadSelf::Id()), event);
        }
    }

    ~SyncCallEntry()
    {
        if (m_index >= 0) {
            const int iRet = TCSyncDet::RemoveIfThere(m_index);
            TCASSERT(!iRet);
        }
    }

    SyncCallEntry(const SyncCallEntry&) = delete;
    SyncCallEntry& operator=(const SyncCallEntry&) = delete;

 private:
    int m_index = -1; ///< negative while not listed
};

} // namespace zor
