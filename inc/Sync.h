#pragma once

#include <cstdint>

#include "ZorExport.h"

class TCMutex;
struct TSEvent;

/// One synchronous call in progress: who waits, for whom, and since when. The order and the widths
/// of the fields are binding.
struct ZOR_CORE_API PTSyncDetInfo
{
    bool bValid = false;              ///< whether the entry is in use
    std::uint32_t startTick = 0;      ///< TCTimeWrapper::Tick() when the wait began, milliseconds
    std::int32_t callerId = 0;        ///< the calling thread's id cut to 32 bits
    std::int32_t callerTid = 0;       ///< its kernel id
    char callerName[16] = {};         ///< its name, always terminated
    std::uint32_t receiverThread = 0; ///< the id of the receiving task's thread cut to 32 bits
    std::uint32_t reserved = 0;       ///< always zero
    char receiverName[16] = {};       ///< the receiving task's name, always terminated
};

/// The table of synchronous calls in progress. At any moment it lists the threads that are blocked
/// in a synchronous send and the task that each waits for, for whoever looks at the process when it
/// hangs; the runtime itself does not look.
///
/// A synchronous send enters itself before it waits and removes itself when it returns. One that
/// finds the table full goes on unlisted. Add(), Remove() and PCTaskSyncMonitoring() may be called
/// from any thread; Create() and Destroy() are the process entry's.
class ZOR_CORE_API TCSyncDet
{
 public:
    static constexpr int MAX_SYNC_TASKS = 64; ///< entries of the table

    /// Makes the table. Asserts "!FlagCreate()" and "!m_pLock".
    ///
    /// @return true also if it exists already; false if its lock cannot be made
    static bool Create();

    /// Frees the table when nobody is in one of the operations below. Synchronous sends that are in
    /// progress are not ended, but assert that they cannot be removed any more; none should be.
    /// Asserts "m_pLock" and "FlagCreate()".
    ///
    /// @return whether there was one
    static bool Destroy();

    /// Whether the table exists.
    static bool FlagCreate();

    /// Enters a copy of @p pData with the present time, at the lowest free index. Asserts "pData"
    /// and "m_arrPCSyncDet".
    ///
    /// @return the index, or -1 if all entries are in use or there is no table
    static int Add(PTSyncDetInfo* pData);

    /// Frees an entry. Asserts "m_arrPCSyncDet", that the index is one of the table's, and
    /// "(m_arrPCSyncDet[callerArryIndex].bValid)".
    ///
    /// @return 0; -1 if the index is none of the table's or there is no table
    static int Remove(int callerArryIndex);

    /// Enters the calling thread as waiting for the task of the event's receiver.
    ///
    /// @param callerId  the calling thread's id cut to 32 bits
    /// @param event     the event that is to be sent; its receiver and the receiver's task are
    ///                  asserted to be created
    /// @return the index for Remove(), or -1 if the call is not listed
    static int PCTaskSyncMonitoring(int callerId, TSEvent* event);

    /// The entries, null while there is no table; guarded by the table's lock, or, while nobody
    /// holds that, by the process-wide mutex of all semaphores.
    static PTSyncDetInfo* m_arrPCSyncDet;

 private:
    friend class zor::LayoutTable;

    static TCMutex* m_pLock; ///< owned
};
