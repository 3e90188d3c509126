#include "brisk_deadlock.h"

#include "Supervisor.h"

int brisk_deadlock_register_watchdog_service(unsigned long seconds)
{
    return zorhost::TCSupervisor::Instance().Register(seconds);
}

int brisk_deadlock_watchdog_notify(void)
{
    return zorhost::TCSupervisor::Notify();
}
