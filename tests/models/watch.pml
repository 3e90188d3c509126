/* A semaphore: watching the count or yielding before parking, and waking after the mutex is free.
 *
 * Mirrors TCSemaphore::State (src/Semaphore.cpp: Watch, Parking, TakeLocked, TryLocked,
 * GiveLocked, Wake, PassOnLocked, LetGo), TCSemaphore::Take, Try, Give and Destroy, and
 * zor::Reply::Wait (src/Reply.h). Two takers, one of which may time out, and one or two givers;
 * whoever took last destroys the semaphore: in the critical section in which it took, as the
 * sender does with its reply, or in a later one.
 *
 * Abstracted: how long is watched or yielded (the count is seen once, and is old at once) and which
 * of the two is done, what has been learnt (src/Patience.cpp), the clock (a timed wait may end at
 * any time), the waking of all where there are more than two. Memory is sequentially consistent. A
 * condition variable wakes one of those parked, and once in a run one that nobody signalled; a
 * timed wait that has been signalled may all the same end as a time-out.
 *
 * Claims: nobody parks for ever while there is a unit; no unit is taken twice or lost; the block
 * is used by nobody once it is deleted, and if all takers come to an end it is deleted.
 */

#define TAKERS 2

bool mutex;
int count = 0;
byte waiters = 0;
byte holders = 1;
bool alive = true;

bool parked[TAKERS];
bool spurious = true; /* one wake-up without a signal is left */
byte taken = 0;
byte given = 0;
byte givers;
byte leaving = 0; /* takers that are done */

#define LOCK atomic { !mutex -> mutex = true }
#define UNLOCK mutex = false
#define USE assert(alive) /* the state block is touched */

inline LetGo()
{
    atomic {
        USE;
        holders--;
        if
        :: holders == 0 -> alive = false
        :: else
        fi
    }
}

/* pthread_cond_signal */
inline Signal()
{
    atomic {
        USE;
        if
        :: parked[0] -> parked[0] = false
        :: parked[1] -> parked[1] = false
        :: else
        fi
    }
}

/* pthread_cond_wait: gives the mutex back and parks in one step, and holds it again afterwards. */
inline Wait(me, timed)
{
    waiters++;
    atomic { parked[me] = true; UNLOCK };
    if
    :: !parked[me]
    :: atomic { timed && !parked[me] -> expired = true } /* the signal has been used up */
    :: atomic { parked[me] && spurious -> spurious = false; parked[me] = false }
    :: atomic { timed && parked[me] -> parked[me] = false; expired = true }
    fi;
    LOCK;
    USE;
    waiters--;
#ifndef WITHOUT_PASSING_ON
    if
    :: expired && count > 0 && waiters > 0 -> Signal()
    :: else
    fi
#endif
}

inline TakeLocked(me, timed)
{
    do
    :: count > 0 -> break
    :: count <= 0 && !expired ->
        Wait(me, timed);
#ifdef WITHOUT_WAIT_LOOP
        break
#endif
    :: count <= 0 && expired -> break
    od;
    if
    :: expired /* also if there is a unit by now: it stays for others */
    :: else ->
        USE;
        count--;
        assert(count >= 0);
        taken++
    fi
}

proctype Taker(byte me; bool timed)
{
    bool expired = false;
    bool seen;

    USE;
    seen = count > 0; /* Watch(): without the mutex */
    LOCK;
    USE;
    if
#ifdef WITHOUT_RECHECK_OF_A_UNIT
    :: seen -> count--; assert(count >= 0); taken++
#endif
#ifdef WITHOUT_RECHECK_BEFORE_PARKING
    :: !seen -> Wait(me, timed); TakeLocked(me, timed)
#endif
    :: else -> TakeLocked(me, timed)
    fi;
    atomic { leaving++; seen = leaving == TAKERS };
    if
    :: seen && given == givers -> /* as the taker of a reply */
        UNLOCK;
        LetGo()
    :: seen ->
        UNLOCK;
        given == givers; /* a give that has not begun needs the semaphore still */
        LOCK;            /* Destroy() */
        UNLOCK;
        LetGo()
    :: else -> UNLOCK
    fi
}

proctype Giver()
{
    bool wakes = false;

    LOCK;
    USE;
    count++;
    given++;
    if
    :: waiters == 0
    :: else ->
        wakes = true;
#ifndef WITHOUT_HOLDERS
        holders++
#endif
    fi;
    UNLOCK;
    if
    :: wakes ->
        Signal(); /* Wake() */
#ifndef WITHOUT_HOLDERS
        LetGo()
#endif
    :: else
    fi
}

init {
    bool timed;
    if
    :: timed = false; givers = 2
    :: timed = true; givers = 1
    :: timed = true; givers = 2
    fi;
    atomic {
        run Taker(0, false);
        run Taker(1, timed);
        run Giver();
        if
        :: givers == 2 -> run Giver()
        :: else
        fi
    };
    timeout ->
    assert(given == givers && taken == given - count);
    if
    :: leaving < TAKERS -> /* the other one has taken the only unit: parked, but not beside one */
        assert(count == 0);
        givers++;
        run Giver();
        timeout
    :: else
    fi;
    assert(leaving == TAKERS && !alive && taken == given - count)
}
