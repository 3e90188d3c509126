// The fault: an answer that takes 15 ms is waited for 16 ms. If it comes too late after all, the
// next question takes it for its own answer.

#include <chrono>
#include <cstdio>
#include <thread>

#include "Main.h"
#include "Worker.h"

namespace {

constexpr std::chrono::milliseconds WORK{15};
constexpr unsigned long TIME_OUT_MSEC = 16;

class Tuner : public Worker
{
 public:
    Tuner() { m_answered.Create(0); }
    ~Tuner() override { m_answered.Destroy(); }

    /// Asks for the next number and waits for it; -1 if none comes in time.
    int Next()
    {
        Ask(false);
        return m_answered.Try(TIME_OUT_MSEC) ? m_answer : -1;
    }

 private:
    bool t_OnUser(const TSEvent* /*event*/) override
    {
        std::this_thread::sleep_for(WORK);
        m_answer = ++m_asked;
        m_answered.Give();
        return true;
    }

    TCSemaphore m_answered; ///< given with every answer
    int m_answer = 0;
    int m_asked = 0;
};

} // namespace

int Main()
{
    Tuner tuner;
    if (!tuner.Start("Tuner")) {
        return 1;
    }
    bool right = true;
    for (int question = 1; question <= 3; ++question) {
        const int answer = tuner.Next();
        std::printf("question %d: answer %d\n", question, answer);
        right = right && (answer == question || answer == -1);
    }
    tuner.End();
    return right ? 0 : 1;
}
