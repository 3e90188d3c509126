#pragma once

#include <memory>

#include "Event.h"

class TCTask;

namespace zor {

/// The place of an attachment in the list of what a task is to release although its queue was full.
/// It is part of the attachment, so that the list needs no memory.
class ReleaseLink
{
 private:
    friend class ::TCTask;

    std::shared_ptr<ZOREventDataBase> m_attachment; ///< which this is a part of, while it is listed
    ReleaseLink* m_next = nullptr;                  ///< guarded by the lock of the task's queue
};

/// An attachment for TCTask::ReleaseOnThread().
template <typename T>
class ReleasedData : public ZORManagedEventData<T>, public ReleaseLink
{
 public:
    using ZORManagedEventData<T>::ZORManagedEventData;
};

} // namespace zor
