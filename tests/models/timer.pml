/* A timer is stopped while its task may be in the listener.
 *
 * Mirrors TCTimer::m_Stop and ~TCTimerHandler (src/Timer.cpp), m_FireTimer and DestroyTimer
 * (src/TimersScheduler.cpp), Deliver, ReleaseOnThread, ReleaseNow and Destroy (src/Task.cpp).
 * The timer fires twice; two other threads may send an event each; the timer is stopped by a
 * thread of its own or by its listener; the task may have ended before, or may end with the
 * handler still in its queue.
 *
 * Abstracted: the queue is a list of SIZE events, without room that is kept for priority events,
 * so that the release meets a full queue now and then. A put or
 * a get is one step (queue.pml has its inside) that needs the lock free or held by the caller.
 *
 * Claims: the handler dies once, behind its listener, and on the task's thread or on the one that
 * destroys the task; nothing is sent to it, and no event of it is taken, when it is dead.
 */

#define SIZE 2
#define NOBODY 0
#define FIRING 1
#define RELEASE 2 /* carries a share of the handler */
#define OTHER 3
#define EXIT 4

#define TASK 1
#define STOPPER 2
#define OWNER 3

byte lockOwner = NOBODY; /* of the queue; recursive */
chan queue = [SIZE] of { byte };
bool schedulerMutex;
bool armed = true;       /* the timer is in the schedule */
bool handlerAlive = true;
byte shares = 0;         /* of the handler, once it travels */
bool inListener = false;
bool later = false;      /* a share has been put aside in the task */
bool hasReleases = false;
bool ended = false;      /* the task's thread */
bool stopped = false;
bool stopBegun = false;

#define FREE_FOR(me) (lockOwner == NOBODY || lockOwner == me)

/* ~TCTimerHandler: deletes its events, then the listener goes. */
inline DieOn(me)
{
    atomic {
        FREE_FOR(me) ->
        assert(handlerAlive && !inListener);
        assert(me == TASK || me == OWNER);
        handlerAlive = false
    }
}

inline LetGo(me)
{
    atomic { shares--; last = shares == 0 };
    if
    :: last -> DieOn(me)
    :: else
    fi
}

inline DestroyTimer()
{
    atomic { !schedulerMutex -> schedulerMutex = true };
    armed = false;
    schedulerMutex = false
}

inline DeleteFirings(me)
{
    atomic {
        FREE_FOR(me) ->
        do
        :: queue ?? [FIRING] -> queue ?? FIRING
        :: else -> break
        od
    }
}

/* The order of a queue of two: what is put in front is taken first. */
inline PutInFront(event)
{
    if
    :: empty(queue) -> queue ! event
    :: nempty(queue) -> queue ? behind; queue ! event; queue ! behind
    fi
}

inline Stop(me)
{
#ifdef WITHOUT_UNSCHEDULING_FIRST
    DeleteFirings(me);
    DestroyTimer();
#else
    DestroyTimer();
#ifndef WITHOUT_DELETING_FIRINGS
    DeleteFirings(me);
#endif
#endif
#ifdef WITHOUT_TRAVELLING
    shares = 1;
    LetGo(me);
#else
#ifndef WITHOUT_LOCK_AROUND_THE_SEND
    atomic { FREE_FOR(me) -> lockOwner = me };
#endif
    shares = 1; /* the stopping thread's own, in its event */
    atomic {
        FREE_FOR(me) ->
        if
        :: nfull(queue) -> shares++; sent = true; PutInFront(RELEASE)
        :: full(queue) -> sent = false
        fi
    };
    if
    :: sent -> LetGo(me)
#ifdef WITHOUT_RELEASING_LATER
    :: else -> LetGo(me)
#else
    :: else -> later = true; hasReleases = true
#endif
    fi;
#ifndef WITHOUT_LOCK_AROUND_THE_SEND
    lockOwner = NOBODY;
#endif
#endif
    stopped = true
}

inline ReleaseNow(me)
{
    if
    :: hasReleases ->
        atomic { FREE_FOR(me) -> taken = later; later = false; hasReleases = false };
        if
        :: taken -> taken = false; LetGo(me)
        :: else
        fi
    :: else
    fi
}

/* The first process: the others can then be seen to be gone. */
active proctype Monitor()
{
end_:
    timeout ->
    assert(stopped && ended && !handlerAlive);
    assert(_nr_pr == 1)
}

active proctype Task()
{
    byte event, behind;
    bool last, sent, taken;

    do
    :: atomic { lockOwner == NOBODY && nempty(queue) -> queue ? event };
        if
        :: event == FIRING ->
            assert(handlerAlive);
            inListener = true;
            if /* the listener may stop its timer */
            :: atomic { !stopBegun -> stopBegun = true }; Stop(TASK)
            :: true
            fi;
            assert(handlerAlive);
            inListener = false
        :: else
        fi;
        ReleaseNow(TASK);
        if
        :: event == RELEASE -> LetGo(TASK)
        :: event == EXIT -> break
        :: else
        fi
    od;
    ended = true
}

active proctype Scheduler()
{
    byte fired = 0;

    do
    :: fired < 2 ->
        atomic { !schedulerMutex -> schedulerMutex = true };
        if
        :: armed ->
            assert(handlerAlive);
            atomic {
                lockOwner == NOBODY ->
                if
                :: nfull(queue) -> queue ! FIRING
                :: full(queue) /* refused: the firing is lost */
                fi
            }
        :: else
        fi;
        schedulerMutex = false;
        fired++
    :: else -> break
    od
}

active [2] proctype OtherSender()
{
    if
    :: atomic { lockOwner == NOBODY && nfull(queue) -> queue ! OTHER }
    :: true
    fi
}

/* Stops the timer, if the listener has not done so. */
active proctype Stopper()
{
    byte behind;
    bool last, sent;

    if
    :: atomic { !stopBegun -> stopBegun = true }; Stop(STOPPER)
    :: stopBegun
    fi
}

/* Sends the exit event at any time, and destroys the task when the timer is stopped. */
active proctype Owner()
{
    bool last, taken, travels;

    atomic { lockOwner == NOBODY && nfull(queue) -> queue ! EXIT };
    stopped;
    ended; /* the exit gate */
    ReleaseNow(OWNER);
    atomic { /* TCHandler::Destroy() deletes what is queued for the task itself, the release too */
        lockOwner == NOBODY ->
        travels = false;
        if
        :: queue ?? [RELEASE] -> queue ?? RELEASE; travels = true
        :: else
        fi
    };
    if
    :: travels -> LetGo(OWNER)
    :: else
    fi
}
