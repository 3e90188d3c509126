#pragma once

#include <optional>

#include "Completion.h"
#include "Messages.h"
#include "ServiceTable.h"
#include "Task.h"

namespace tsmon {

/// Owns the table of services: is told of tables by events, and answers who asks. It also logs the
/// services' figures of each second.
class ServicesTask : public TCTask
{
 public:
    /// @param done  set once the end has come; must outlive the task
    explicit ServicesTask(Completion& done) : m_done(done) {}

    /// Creates the task. EndTask() ends it.
    bool Start();

    /// Asks for the table as it is once everything sent so far has been handled. Any thread but the
    /// task's own may call while the task is created.
    ///
    /// @return nothing if the queue is full
    std::optional<ServiceTable> Ask();

    bool t_OnEvent(const TSEvent* event) override;

 private:
    void OnTable(const TSEvent& event);
    void OnSecond(const TSEvent& event) const;

    Completion& m_done;
    ServiceTable m_table; ///< the task's thread's only
};

} // namespace tsmon
