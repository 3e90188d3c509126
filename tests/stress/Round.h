#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "Options.h"
#include "Worker.h"
#include "World.h"

namespace storm {

/// One storm, from the first task to the account.
class Round
{
 public:
    explicit Round(const Options& options);
    ~Round();

    /// Lets the threads loose, and ends all tasks when the time is over.
    /// @param end  ends the storm early when it becomes true
    void Run(std::chrono::seconds length, const std::atomic<bool>& end);

    /// Prints the account.
    void PrintBalance() const;

    /// What is wrong; empty if everything balances. For after Run().
    std::vector<std::string> Wrongs() const;

    /// Prints what every thread is doing to standard error. Any thread may call it at any time.
    void PrintThreads() const;

 private:
    struct Pair;

    void WaitForEnd(std::chrono::seconds length, const std::atomic<bool>& end);
    void PrintRates(std::chrono::duration<double> since);
    std::vector<Pair> Pairs() const;

    const Options m_options;
    World m_world;
    std::vector<std::unique_ptr<Worker>> m_workers; ///< the last one is the main thread's
    std::vector<std::uint64_t> m_lastDone;          ///< by operation, at the last report
};

} // namespace storm
