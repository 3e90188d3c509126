#pragma once

#include <utility>

namespace zor {

/// Undoes a step of a creation that comes to nothing, by a result or by an exception.
template <typename Step>
class Undo
{
 public:
    explicit Undo(Step step) : m_step(std::move(step)) {}
    ~Undo()
    {
        if (!m_kept) {
            m_step();
        }
    }

    Undo(const Undo&) = delete;
    Undo& operator=(const Undo&) = delete;

    void Keep() { m_kept = true; }

 private:
    Step m_step;
    bool m_kept = false;
};

} // namespace zor
