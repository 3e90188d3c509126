#pragma once

#include <optional>

#include "Completion.h"
#include "Messages.h"
#include "ServiceTable.h"
#include "Statistics.h"

namespace tsmon {

/// To the services: no more tables will come.
struct TablesEnd
{};

/// Owns the table of services: is told of tables, and answers who asks. It also logs the services'
/// figures of each second.
class ServicesTask : public zor::Task<ServicesTask, ProgramAssociation, ProgramMap,
                                      ServiceDescriptions, StreamStatistics, TablesEnd>
{
 public:
    /// @param done  set once the end has come; must outlive the task
    explicit ServicesTask(Completion& done) : m_done(done) {}

    /// Creates the task. EndTask() ends it.
    bool Start();

    /// Asks for the table as it is once everything sent so far has been handled. Any thread but the
    /// task's own may call while the task is created.
    ///
    /// @return nothing if the queue is full, or if no answer comes for half a minute
    std::optional<ServiceTable> Ask();

    /// May be read once the task has ended.
    const ServiceTable& Table() const { return m_table; }

 private:
    friend zor::Access;

    void On(const ProgramAssociation& programs) { m_table.OnPrograms(programs); }
    void On(const ProgramMap& map) { m_table.OnProgramMap(map); }
    void On(const ServiceDescriptions& services) { m_table.OnDescriptions(services); }
    void On(const StreamStatistics& second) const;
    void On(const TablesEnd& /*end*/) { m_done.Set(); }

    Completion& m_done;
    ServiceTable m_table; ///< the task's thread's only
};

} // namespace tsmon
