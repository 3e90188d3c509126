/* Pause, resume and destruction of a task: two mutexes and two promises.
 *
 * Mirrors TCTask::Pause, OnPause, WaitForResume and ResumeAsync (src/TaskControl.cpp),
 * TCTask::Destroy (src/Task.cpp) and the exit gate of TCThread (src/Thread.cpp). Two threads pause,
 * one resumes, one deletes the task's queued requests as clear-queue does, and the owner sends the
 * exit event and destroys the task, which may be paused then.
 *
 * Abstracted: the queue holds at most one pause request for each requester, and the exit event,
 * which every request overtakes; a request holds its promise as a number. The waits of a second and
 * of 50 ms may end at any time. A resume that comes while the task is not paused is refused and not
 * repeated; so a task is left paused only if nobody resumes it any more, which is what the owner's
 * Destroy() is for.
 *
 * A rule for callers is part of the model: a call of Pause() or ResumeAsync() begins before the
 * task's thread has ended, or before Destroy() is called; and who has paused a task that is being
 * destroyed resumes it.
 *
 * Claims: everything ends, so nobody waits for an answer that will not come and nobody is left
 * paused; no promise is set twice, and none that is not there; who resumed a task finds it not
 * paused; nobody uses the task when it is destroyed.
 */

#define REQUESTERS 2
#define CALLERS 3
#define NONE 0
#define WAITING 1
#define SET 2
#define BROKEN 3

bool requestMutex;
bool waitMutex;
bool paused;
bool ended;        /* the thread's body has returned */
bool exitQueued;
bool destroying;   /* Destroy() has been called */
bool destroyed;
byte callersDone;
byte inside;       /* callers that are counted */

bool queued[REQUESTERS];  /* pause requests in the queue */
byte acknowledged[REQUESTERS];
byte resumePromise = NONE;

#ifdef WITHOUT_REQUEST_MUTEX
#define REQUEST_FREE true
#define REQUEST_TAKE skip
#else
#define REQUEST_FREE (!requestMutex)
#define REQUEST_TAKE requestMutex = true
#endif

#define USE assert(!destroyed)

/* Calls that come too late are not made. */
inline Enter()
{
    entered = false;
    atomic {
        if
#ifdef WITHOUT_CALLS_COMING_FIRST
        :: true ->
#else
        :: ended && destroying
        :: !ended || !destroying ->
#endif
            USE;
            inside++;
            entered = true
        fi
    };
    if
    :: entered ->
        atomic { REQUEST_FREE -> REQUEST_TAKE };
        USE
    :: else
    fi
}

/* Unlocks the mutex, and then is counted no more: the last touch. */
inline Leave()
{
    USE;
    requestMutex = false;
    atomic { USE; inside-- }
}

/* The shares of a request go: what has not been answered is broken. */
inline BreakRequest(i)
{
    if
    :: acknowledged[i] == WAITING -> acknowledged[i] = BROKEN
    :: else
    fi
}

/* An answer that is there is seen even if the thread has ended since. */
inline WaitForAcknowledgement(i)
{
    do
    :: acknowledged[i] != WAITING -> break
#ifndef WITHOUT_LOOKING_FOR_THE_END
    :: acknowledged[i] == WAITING ->
        (ended || acknowledged[i] != WAITING);
        if
        :: ended ->
            USE;
            queued[i] = false; /* Delete() */
            assert(acknowledged[i] != SET);
            break
        :: else
        fi
#endif
    od
}

inline Resume()
{
    if
    :: !paused
    :: else ->
        assert(resumePromise == WAITING);
        resumePromise = SET;
#ifndef WITHOUT_PAUSE_WAIT_MUTEX
        atomic { !waitMutex -> waitMutex = true };
        assert(!paused);
        waitMutex = false
#endif
    fi
}

proctype Requester(byte i)
{
    bool entered;

    Enter();
    if
    :: !entered
    :: entered && paused -> Leave()
    :: entered && !paused ->
        acknowledged[i] = WAITING;
        queued[i] = true;
        WaitForAcknowledgement(i);
        assert(acknowledged[i] != SET || paused);
        Leave()
    fi;
    if /* it may have come behind the look of Destroy(), which waits then */
    :: entered && destroying ->
        Enter();
        if
        :: entered -> Resume(); Leave()
        :: else
        fi
    :: else
    fi;
    callersDone++
}

proctype Resumer()
{
    bool entered;

    Enter();
    if
    :: entered -> Resume(); Leave()
    :: else
    fi;
    callersDone++
}

/* Clear-queue: deletes what is queued for the task's own handler, but an exit event, so that the
 * owner's is not lost.
 */
proctype Deleter()
{
    byte i = 0;

    do
    :: i < REQUESTERS ->
        atomic {
            if
            :: queued[i] ->
                queued[i] = false;
#ifndef WITHOUT_LETTING_GO_OF_THE_REQUEST
                BreakRequest(i)
#endif
            :: else
            fi
        };
        i++
    :: else -> break
    od
}

inline OnPause(i)
{
#ifndef WITHOUT_PROMISE_BEFORE_ACKNOWLEDGEMENT
    resumePromise = WAITING;
#endif
    atomic { !waitMutex -> waitMutex = true };
    paused = true;
    assert(acknowledged[i] == WAITING);
    acknowledged[i] = SET;
#ifdef WITHOUT_PROMISE_BEFORE_ACKNOWLEDGEMENT
    resumePromise = WAITING;
#endif
    resumePromise == SET;
    paused = false;
    waitMutex = false
}

proctype Task()
{
    do
    :: atomic { queued[0] -> queued[0] = false }; OnPause(0)
    :: atomic { queued[1] -> queued[1] = false }; OnPause(1)
    :: atomic { !queued[0] && !queued[1] && exitQueued -> exitQueued = false }; break
    od;
    USE;
    ended = true
}

proctype Owner()
{
    bool patient;

    if
    :: patient = true
    :: patient = false
    fi;
    !patient || callersDone == CALLERS;
    exitQueued = true;
    destroying = true;
    atomic { REQUEST_FREE -> REQUEST_TAKE }; /* IsPaused() */
    if
    :: paused ->
        requestMutex = false;
        atomic { REQUEST_FREE -> REQUEST_TAKE };
        Resume();
        requestMutex = false
    :: else -> requestMutex = false
    fi;
    ended; /* the exit gate */
#ifndef WITHOUT_WAITING_FOR_CALLERS
    inside == 0;
#endif
    destroyed = true
}

init {
    atomic {
        run Task();
        run Requester(0);
        run Requester(1);
        run Resumer();
        run Deleter();
        run Owner()
    };
    end_all_done: timeout ->
    assert(destroyed && _nr_pr == 1)
}
