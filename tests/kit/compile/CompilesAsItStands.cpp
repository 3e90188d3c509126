// expected: nothing
#include "Tuner.h"

void Use(Tuner& tuner)
{
    if (tuner.Post(Tune{7}) && tuner.Post(Scan{}, zor::Order::FIRST)) {
        zor::Result<Tuned> answer = tuner.Ask(Tune{7}, 500ms);
        const bool locked = answer && answer->locked && (*answer).locked;
        tuner.Run([locked](Tuner& me) { me.Post(Tune{locked ? 1 : 2}); });
    }
    tuner.AskAsync(Tune{7}, [](zor::Result<Tuned>) {});
    tuner.AskAsync(Scan{}, 1s, [](const zor::Result<void>&) {});
}
