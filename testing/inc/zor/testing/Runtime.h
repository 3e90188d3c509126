#pragma once

#include <string>
#include <vector>

namespace zor::testing {

/// The services of the runtime, brought up and taken down as the process entry does it, but without
/// a pid file, without log lines, and as often as a test likes. The library's own `main()` makes
/// one for the whole run; a program with a `main()` of its own makes one itself. There is at most
/// one at a time, on one thread.
///
/// Up, in this order: the table of synchronous calls, the registry's lock, the watchdog notifier.
/// Down, in this order: the notifier, the table, the registry.
class Runtime
{
 public:
    /// What is brought up.
    enum class Services
    {
        TASKS, ///< the table of synchronous calls and the registry's lock
        ALL,   ///< these and the watchdog notifier, which pings supervised tasks every 2 seconds
    };

    /// Adds a failure to the test for each service that cannot be brought up.
    explicit Runtime(Services services = Services::TASKS);

    /// The application must have destroyed its tasks; see Tasks(). Ends at once if the library's
    /// `main()` is linked; if not, the notifier takes up to its 2 seconds.
    ~Runtime();

    Runtime(const Runtime&) = delete;
    Runtime& operator=(const Runtime&) = delete;

    /// The names of the tasks that have been created and not yet destroyed, oldest first. Any
    /// thread may ask.
    static std::vector<std::string> Tasks();

    /// What has the notifier end its sleep when the runtime goes down; set by what takes the
    /// sleeping over.
    static void (*wakeNotifier)(bool hurry);

 private:
    const Services m_services;
};

} // namespace zor::testing
