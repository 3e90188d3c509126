#include "Shrink.h"

#include <algorithm>
#include <fstream>
#include <ostream>
#include <stdexcept>
#include <tuple>

namespace zorsim {

namespace {

constexpr const char* CHOICES[] = {"thread", "waiter", "stall", "spurious", "number"};

void Sort(std::vector<Decision>* decisions)
{
    std::sort(decisions->begin(), decisions->end(),
              [](const Decision& left, const Decision& right) {
                  return std::tie(left.choice, left.number) < std::tie(right.choice, right.number);
              });
}

/// Runs with fewer and fewer decisions.
class Shrinking
{
 public:
    Shrinking(const RunOptions& run, const RunResult& first)
        : m_run(run), m_outcome(first.outcome), m_best(first.decisions)
    {
        Sort(&m_best);
        m_run.settings.strategy = StrategyKind::REPLAY;
        m_run.settings.records = 0;
        m_run.settings.maxSteps = 10 * first.report->steps + 1000; // one that goes astray
    }

    /// False if the decisions do not even repeat the run.
    bool Repeats() { return Fails(m_best); }

    /// Leaves out blocks, from halves down to single decisions.
    void Run()
    {
        for (std::size_t size = std::max<std::size_t>(m_best.size() / 2, 1);; size /= 2) {
            bool progress = true;
            while (progress) {
                progress = LeaveOut(size);
            }
            if (size <= 1) {
                return;
            }
        }
    }

    const std::vector<Decision>& Best() const { return m_best; }
    std::size_t Runs() const { return m_runs; }

 private:
    bool LeaveOut(std::size_t size)
    {
        bool progress = false;
        for (std::size_t begin = 0; begin < m_best.size();) {
            std::vector<Decision> fewer = m_best;
            const std::size_t end = std::min(begin + size, fewer.size());
            fewer.erase(fewer.begin() + static_cast<std::ptrdiff_t>(begin),
                        fewer.begin() + static_cast<std::ptrdiff_t>(end));
            if (Fails(fewer)) {
                progress = true;
            } else {
                begin += size;
            }
        }
        return progress;
    }

    /// What was made in such a run is shorter still: decisions that came to nothing are not in it.
    bool Fails(const std::vector<Decision>& decisions)
    {
        ++m_runs;
        m_run.decisions = decisions;
        RunResult result = RunProgram(m_run);
        const bool fails = result.outcome == m_outcome;
        if (fails) {
            Sort(&result.decisions);
            m_best = result.decisions.size() <= decisions.size() ? result.decisions : decisions;
        }
        return fails;
    }

    RunOptions m_run;
    const Outcome m_outcome;
    std::vector<Decision> m_best;
    std::size_t m_runs = 0;
};

} // namespace

RunResult Shrink(const RunOptions& run, std::ostream& err)
{
    RunResult first = RunProgram(run);
    if (first.outcome == Outcome::PASSED || first.outcome == Outcome::NOT_SIMULATED) {
        return first;
    }
    const std::size_t before = first.decisions.size();
    Shrinking shrinking(run, first);
    if (!shrinking.Repeats()) {
        err << "zor-sim: the run does not fail again with its own decisions\n";
        return first;
    }
    shrinking.Run();
    err << "zor-sim: " << NameOf(first.outcome) << " with " << shrinking.Best().size() << " of "
        << before << " decisions, after " << shrinking.Runs() << " runs\n";
    RunOptions last = run;
    last.settings.strategy = StrategyKind::REPLAY;
    last.decisions = shrinking.Best();
    return RunProgram(last);
}

void WriteDecisions(const RunResult& result, std::ostream& out)
{
    const Settings& settings = result.report->settings;
    out << "seed " << settings.seed << "\nstall-nsec " << settings.stallNsec
        << "\nspurious-per-million " << settings.spuriousPerMillion << '\n';
    for (const Decision& decision : result.decisions) {
        out << CHOICES[static_cast<int>(decision.choice)] << ' ' << decision.number << ' '
            << decision.value << '\n';
    }
}

void ReadDecisions(const std::string& file, RunOptions* run)
{
    std::ifstream in(file);
    std::string word;
    while (in >> word) {
        const auto choice = std::find(std::begin(CHOICES), std::end(CHOICES), word);
        if (choice != std::end(CHOICES)) {
            Decision decision = {};
            decision.choice = static_cast<Choice>(choice - std::begin(CHOICES));
            in >> decision.number >> decision.value;
            run->decisions.push_back(decision);
        } else if (word == "seed") {
            in >> run->settings.seed;
        } else if (word == "stall-nsec") {
            in >> run->settings.stallNsec;
        } else if (word == "spurious-per-million") {
            in >> run->settings.spuriousPerMillion;
        } else {
            in.setstate(std::ios::failbit);
        }
    }
    if (!in.eof() || in.bad()) {
        throw std::runtime_error(file + " cannot be read as a list of decisions");
    }
    Sort(&run->decisions);
}

} // namespace zorsim
