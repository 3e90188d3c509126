#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "Main.h"
#include "Scenes.h"
#include "TaskList.h"
#include "ZorSim.h"

namespace {

struct Scene
{
    const char* name;
    void (*play)();
};

constexpr Scene SCENES[] = {
    {"OwnId", scenes::OwnId},
    {"ThreadGone", scenes::ThreadGone},
    {"SemaphoreGone", scenes::SemaphoreGone},
    {"TwoTakers", scenes::TwoTakers},
    {"TimedTaker", scenes::TimedTaker},
    {"LoggingFront", scenes::LoggingFront},
    {"SynchronousSend", scenes::SynchronousSend},
    {"DeletedEvent", scenes::DeletedEvent},
    {"RegistryGone", scenes::RegistryGone},
    {"ExitFromQueue1", scenes::ExitFromQueue1},
    {"ExitUnderSenders", scenes::ExitUnderSenders},
    {"NotifierAsleep", scenes::NotifierAsleep},
    {"TwoPausers", scenes::TwoPausers},
    {"TwoResumers", scenes::TwoResumers},
    {"Resumed", scenes::Resumed},
    {"ResumerInside", scenes::ResumerInside},
    {"PauseOfEnded", scenes::PauseOfEnded},
    {"DeletedPause", scenes::DeletedPause},
    {"TimerStopped", scenes::TimerStopped},
    {"FirstTimer", scenes::FirstTimer},
};

constexpr double PROGRESS_SECONDS = 60; ///< of virtual time, in which every scene is long over

} // namespace

void scenes::Expect(bool holds, const char* claim)
{
    if (!holds) {
        std::fprintf(stderr, "does not hold: %s\n", claim);
        std::_Exit(EXIT_FAILURE);
    }
}

/// The runtime imports it; the main() of this program is its own.
int Main()
{
    return 0;
}

int main(int argc, char** argv)
{
    for (const Scene& scene : SCENES) {
        if (argc == 2 && std::strcmp(argv[1], scene.name) == 0) {
            zorsim::ExpectProgress(PROGRESS_SECONDS);
            scenes::Expect(TCTaskList::m_mutex.Create(), "the registry can be made");
            scene.play();
            zorsim::ExpectProgress(0);
            return EXIT_SUCCESS;
        }
    }
    std::fprintf(stderr, "usage: %s SCENE\n", argv[0]);
    return 2;
}
