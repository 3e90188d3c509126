#include <cstdio>
#include <future>
#include <utility>

#include "Main.h"
#include "Task.h"

namespace {

constexpr unsigned int IDLE_MSEC = 1000;
constexpr unsigned long STACK_SIZE = 256UL * 1024;

class Meter : public TCTask
{
 public:
    bool Start() { return Create("Meter", IDLE_MSEC, STACK_SIZE, 0); }

    // What other threads ask of the meter. All of it runs on their threads and only sends.

    void Tune(unsigned int channel)
    {
        TSEvent event = Message(EVENT_TUNE);
        event.param1 = channel;
        Send(&event, false, false);
    }

    int Strength()
    {
        std::promise<int> reply;
        std::future<int> strength = reply.get_future();
        TSEvent event = Message(EVENT_MEASURE);
        event.setWrappedData(std::move(reply));
        if (!Send(&event, false, false)) {
            return NO_STRENGTH;
        }
        event.wrappedData.reset(); // the promise is the meter's alone now
        return strength.get();
    }

    void End()
    {
        TSEvent event = Message(EVENT_EXIT);
        Send(&event, false, false);
        Destroy();
    }

 private:
    using Reply = ZORManagedEventData<std::promise<int>>;

    static constexpr int NO_STRENGTH = -1;
    static constexpr unsigned long EVENT_TUNE = 100;
    static constexpr unsigned long EVENT_MEASURE = 101;

    TSEvent Message(unsigned long type)
    {
        TSEvent event;
        event.receiver = this;
        event.type = type;
        return event;
    }

    // What the meter does. All of it runs on its own thread, one event at a time.

    bool t_OnEvent(const TSEvent* event) override
    {
        switch (event->type) {
            case EVENT_TUNE:
                m_channel = event->param1;
                return true;
            case EVENT_MEASURE:
                if (auto* reply = dynamic_cast<Reply*>(event->wrappedData.get())) {
                    reply->data.set_value(Measure());
                }
                return true;
            default:
                return TCTask::t_OnEvent(event);
        }
    }

    int Measure() const { return m_channel == 0 ? 0 : 40 + static_cast<int>(m_channel); }

    unsigned int m_channel = 0; ///< only the meter's thread; 0 while it is not tuned
};

} // namespace

int Main()
{
    Meter meter;
    if (!meter.Start()) {
        return 1;
    }
    std::printf("Main: strength %d\n", meter.Strength());
    meter.Tune(21);
    std::printf("Main: strength %d\n", meter.Strength());
    meter.End();
    return 0;
}
