#pragma once

/// What threads do to each other where a guard of the runtime stands between them. Each is short,
/// ends by itself, and says so if what the runtime promises does not hold. Objects that are
/// destroyed are out of reach (Fence.cpp), and who waits in vain is noticed.
namespace scenes {

/// Ends the process with a status that says "found", unless @p holds.
void Expect(bool holds, const char* claim);

// Threads and semaphores.
void OwnId();         ///< a thread asks for its own id as soon as it runs
void ThreadGone();    ///< a thread's object is deleted when Destroy() has returned
void SemaphoreGone(); ///< whoever has taken the unit deletes the semaphore
void TwoTakers();     ///< two threads take from one semaphore, one of them without waiting
void TimedTaker();    ///< one waits for a time, one for ever, and there is a unit for one
void LoggingFront();  ///< two threads are the first to want the logging front

// Queues and tasks.
void SynchronousSend();  ///< the sender goes on when the event has been handled
void DeletedEvent();     ///< an event is deleted under a thread that waits for it
void RegistryGone();     ///< the registry is taken down while a task is looked up in it
void ExitFromQueue1();   ///< a task with two queues ends while a sender waits
void ExitUnderSenders(); ///< a task with two queues ends while somebody sends to the second one
void NotifierAsleep();   ///< a unit that is to wake a notify thread is deleted with an event

// Pauses.
void TwoPausers();    ///< both return, and one resume is enough
void TwoResumers();   ///< one of them resumes the task
void Resumed();       ///< who has resumed a task finds it running
void ResumerInside(); ///< a task is destroyed while the resumer is on its way out
void PauseOfEnded();  ///< a pause is asked of a task that ends
void DeletedPause();  ///< the request of a pause is deleted

// Timers.
void TimerStopped(); ///< a timer is stopped while it fires
void FirstTimer();   ///< the first timer is set while the scheduler has nothing to do

} // namespace scenes
