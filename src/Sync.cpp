#include "Sync.h"

#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>

#include "BriefLock.h"
#include "Event.h"
#include "MutexLock.h"
#include "Task.h"
#include "Thread.h"
#include "UseGate.h"

static_assert(sizeof(PTSyncDetInfo) == 56);
static_assert(offsetof(PTSyncDetInfo, startTick) == 4);
static_assert(offsetof(PTSyncDetInfo, callerId) == 8);
static_assert(offsetof(PTSyncDetInfo, callerTid) == 12);
static_assert(offsetof(PTSyncDetInfo, callerName) == 16);
static_assert(offsetof(PTSyncDetInfo, receiverThread) == 32);
static_assert(offsetof(PTSyncDetInfo, receiverName) == 40);

namespace {

template <std::size_t SIZE>
void CopyName(char (&to)[SIZE], const char* from)
{
    strncpy(to, from, SIZE - 1);
    to[SIZE - 1] = '\0';
}

/// Admits those who use the table: tasks may still run when it goes.
zor::UseGate g_gate;

/// The system gives at most 16 characters with the terminator; the room behind them shows that it
/// kept to that.
void StoreCallerName(PTSyncDetInfo* info)
{
    char name[20] = "??";
    const int iRet = prctl(PR_GET_NAME, name);
    TCASSERT(!iRet);
    TCASSERT(!name[16] && !name[17] && !name[18] && !name[19]);
    CopyName(info->callerName, name);
}

} // namespace

PTSyncDetInfo* TCSyncDet::m_arrPCSyncDet = nullptr;
TCMutex* TCSyncDet::m_pLock = nullptr;

bool TCSyncDet::Create()
{
    TCASSERT(!FlagCreate());
    TCASSERT(!m_pLock);
    if (FlagCreate()) {
        return true;
    }
    m_pLock = new TCMutex;
    if (!m_pLock->Create()) {
        return false;
    }
    m_arrPCSyncDet = new PTSyncDetInfo[MAX_SYNC_TASKS];
    return true;
}

bool TCSyncDet::Destroy()
{
    TCASSERT(m_pLock);
    TCASSERT(FlagCreate());
    if (m_pLock == nullptr) {
        return false;
    }
    const zor::UseGate::Closure closure(&g_gate); // tasks may still run, and send
    delete[] m_arrPCSyncDet;
    m_arrPCSyncDet = nullptr;
    delete m_pLock; // destroys it
    m_pLock = nullptr;
    return true;
}

bool TCSyncDet::FlagCreate()
{
    return m_arrPCSyncDet != nullptr;
}

int TCSyncDet::Add(PTSyncDetInfo* pData)
{
    const zor::UseGate::Use use(&g_gate);
    if (!use.IsAdmitted()) {
        return -1;
    }
    TCASSERT(pData);
    TCASSERT(m_arrPCSyncDet);
    if (pData == nullptr || m_arrPCSyncDet == nullptr) {
        return -1;
    }
    PTSyncDetInfo made = *pData;
    made.startTick = static_cast<std::uint32_t>(TCTimeWrapper::Tick());
    made.bValid = true;
    const zor::BriefLock lock(m_pLock);
    for (int i = 0; i < MAX_SYNC_TASKS; ++i) {
        PTSyncDetInfo& entry = m_arrPCSyncDet[i];
        if (!entry.bValid) {
            entry = made;
            return i;
        }
    }
    return -1;
}

int TCSyncDet::Remove(int callerArryIndex)
{
    const zor::UseGate::Use use(&g_gate);
    if (!use.IsAdmitted()) {
        return -1;
    }
    TCASSERT(m_arrPCSyncDet);
    TCASSERT(callerArryIndex >= 0 && callerArryIndex < MAX_SYNC_TASKS);
    if (m_arrPCSyncDet == nullptr || callerArryIndex < 0 || callerArryIndex >= MAX_SYNC_TASKS) {
        return -1;
    }
    {
        const zor::BriefLock lock(m_pLock);
        PTSyncDetInfo& entry = m_arrPCSyncDet[callerArryIndex];
        if (entry.bValid) {
            entry.bValid = false;
            return 0;
        }
    }
    // Foreign code may run now. Another thread may have the entry by then, and is to keep it.
    const zor::MutexLock lock(m_pLock);
    _TCAssert("(m_arrPCSyncDet[callerArryIndex].bValid)", __FILE__, __LINE__);
    return 0;
}

int TCSyncDet::PCTaskSyncMonitoring(int callerId, TSEvent* event)
{
    const zor::UseGate::Use use(&g_gate);
    if (!use.IsAdmitted() || !FlagCreate()) {
        return -1;
    }
    PTSyncDetInfo info;
    info.callerId = callerId;
    info.callerTid = static_cast<std::int32_t>(syscall(SYS_gettid));
    StoreCallerName(&info);

    const TCTask* const task = event->receiver->Task();
    info.receiverThread = static_cast<std::uint32_t>(task->Id());
    CopyName(info.receiverName, task->Name());

    const int index = Add(&info);
    if (index < 0) {
        TCDebug::Print("### TCSyncDet::Add() failed\n");
    }
    return index;
}
