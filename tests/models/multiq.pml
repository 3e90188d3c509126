/* A multi-queue task: its notify threads, and the take-down while others send.
 *
 * Mirrors TCMultiQTask::Create, CreateNotifyThreads, ExecuteEvent, TakeDown, m_Send and
 * DeleteFromFurtherQueues (src/MultiQTask.cpp), TCTask::Destroy (src/Task.cpp) and
 * TCEventNotifyThread (src/EventNotifyThread.cpp). There are two queues. One sender sends to each,
 * waiting for the reply or not, the second before or after the take-down; a third sends the exit
 * event, waiting or not, as soon as the thread runs, or the thread ends without one. A handler that
 * the events of queue 1 are addressed to may be destroyed at any time, once no more are sent to it,
 * by the first sender, who may instead delete its own event from queue 0 again before the exit event,
 * at it or behind it. That takes as many units as it removes events, whatever they were given for.
 *
 * Abstracted: a put or a get is one step (queue.pml has its inside); all waits are for ever, so that
 * nothing is repaired by a time-out; a shared lock is a number of readers, preferring nobody.
 *
 * Claims: no queue, notify thread or semaphore is used that is not there; each reply is given once
 * at most; the take-down comes to its end, whoever sends; while there is no exit event, every event
 * is handled. A sender may wait for ever at end_queue_is_gone: its event is left in a queue that
 * nobody reads any more, which is documented: such a sender is not released.
 */

#define QUEUES 2
#define TASK_EVENT 1
#define EXIT_EVENT 2

bool threadStarted;
bool table;              /* the array of further queues is the task's */
byte readers;            /* the queues' lock, shared */
bool writer;             /* and exclusive */
bool queueAlive[QUEUES];
bool locked[QUEUES];     /* the queues' locks, where they are held for longer than a step */
byte units[QUEUES];      /* of the queues' count semaphores */
byte events[QUEUES];     /* queued by the senders */
byte exits;              /* exit events in queue 0 */
bool notifyAlive;        /* the notify semaphore */
byte notify;
bool threadsKnown;       /* the array of notify threads */
bool threadAlive[QUEUES];
bool exitFlag[QUEUES];
bool threadEnded[QUEUES];
bool ended;              /* the task's thread */
bool wantsExit;          /* an exit event is sent in this run */
byte reply[3];
bool waits[3];
byte handled;
byte sent;
bool putDone;            /* the event for queue 1 has been put, or refused */
byte through;            /* senders that will touch the task no more */

proctype Notifier(byte i)
{
    do
    :: exitFlag[i] -> break
    :: !exitFlag[i] ->
end_idle:
        atomic { units[i] > 0 || !queueAlive[i] -> assert(queueAlive[i]); units[i]-- };
        atomic { assert(notifyAlive); notify++ }
    od;
    threadEnded[i] = true
}

inline DestroyNotifier(i)
{
    if
    :: threadAlive[i] ->
        atomic {
            exitFlag[i] = true;
#ifndef WITHOUT_LOCKING_THE_WATCHED_QUEUE
            locked[i] = true
#endif
        };
#ifndef WITHOUT_WAKING_THE_NOTIFIER
        atomic { assert(queueAlive[i]); units[i]++ };
#endif
#ifndef WITHOUT_WAITING_FOR_THE_NOTIFIER
        threadEnded[i];
#endif
        atomic { locked[i] = false; threadAlive[i] = false }
    :: else
    fi
}

inline TakeDown()
{
    if
    :: threadsKnown ->
        atomic { readers == 0 && !writer -> writer = true };
        atomic { table = false; writer = false };
        DestroyNotifier(0);
        DestroyNotifier(1);
        threadsKnown = false;
        queueAlive[1] = false; /* with what it holds */
        notifyAlive = false
    :: else
    fi
}

inline GiveReply(who)
{
    if
    :: waits[who] -> reply[who]++; assert(reply[who] == 1)
    :: else
    fi
}

proctype Task()
{
    bool exit = false;

    atomic {
        threadStarted = true;
        if
        :: true
        :: wantsExit -> goto out /* t_Create() answers false */
        fi
    };
    do
    :: exit -> break
    :: !exit ->
end_idle:
        atomic { notify > 0 || !notifyAlive -> assert(notifyAlive); notify-- };
        assert(queueAlive[0]);
        if
        :: atomic { events[0] > 0 -> events[0]--; handled++; GiveReply(0) }
        :: atomic { events[0] == 0 && exits > 0 -> exits-- };
            exit = true;
            TakeDown();
            GiveReply(2)
        :: events[0] == 0 && exits == 0 -> /* the next queue; this one may get an event now */
            if
            :: atomic { events[1] > 0 ->
                    assert(queueAlive[1]);
                    events[1]--;
                    handled++;
                    GiveReply(1)
                }
            :: events[1] == 0 /* a unit without an event */
            fi
        fi
    od;
out:
    ended = true
}

/* Creates the task, and destroys it when its users are through with it. */
proctype Owner()
{
#ifdef WITHOUT_NOTIFIERS_COMING_FIRST
    run Task();
    threadsKnown = true;
#endif
    atomic { threadAlive[0] = true; run Notifier(0) };
    atomic { threadAlive[1] = true; run Notifier(1) };
    threadsKnown = true;
#ifndef WITHOUT_NOTIFIERS_COMING_FIRST
    run Task();
#endif
    if
    :: wantsExit ->
        ended; /* the exit gate */
        TakeDown();
        through == 3;
        queueAlive[0] = false
    :: else
    fi
}

inline Put(q, kind)
{
    threadStarted;
#ifndef WITHOUT_QUEUE_TABLE_LOCK
    atomic { !writer -> readers++ };
#endif
    found = q == 0 || table;
    if
    :: found ->
        atomic {
            assert(queueAlive[q]);
            units[q]++;
            if
            :: kind == TASK_EVENT -> events[q]++; sent++
            :: kind == EXIT_EVENT -> exits++
            fi
        }
    :: else /* the index is asserted, and the send refused */
    fi
}

inline Unlock()
{
#ifndef WITHOUT_QUEUE_TABLE_LOCK
    readers--
#else
    skip
#endif
}

/* Deletes the first sender's event, as the restart of a timer does with its firings. */
inline DeleteOwn()
{
    atomic {
        !locked[0] ->
        if
        :: events[0] > 0 ->
            events[0]--;
            handled++;
            if
            :: units[0] > 0 -> units[0]--
            :: else
            fi
        :: else
        fi
    }
}

/* Destroys the handler that queue 1's events are addressed to, behind the last of them. What they
 * held may wait for the task's end when it is released.
 */
inline DestroyHandler()
{
    putDone;
#ifndef WITHOUT_QUEUE_TABLE_LOCK
    atomic { !writer -> readers++ };
#endif
    found = table;
    if
    :: found ->
        atomic {
            assert(queueAlive[1]);
            do
            :: events[1] > 0 -> events[1]--; handled++; GiveReply(1)
            :: else -> break
            od
        }
    :: else
    fi;
#ifdef WITHOUT_UNLOCKING_BEFORE_THE_RELEASE
    !wantsExit || ended;
#endif
    Unlock();
    !wantsExit || ended
}

proctype Sender(byte who; byte q; byte kind)
{
    bool found;

    Put(q, kind);
#ifdef WITHOUT_UNLOCKING_BEFORE_THE_WAIT
    if
    :: found && waits[who] -> reply[who] > 0
    :: else
    fi;
#endif
    if
    :: who == 0 && !waits[who] ->
        Unlock();
        if
        :: wantsExit -> DeleteOwn()
        :: DestroyHandler()
        fi;
        through++;
        found = false
    :: else ->
        atomic { Unlock(); through++; putDone = putDone || who == 1 }
    fi;
    if
    :: found && waits[who] ->
end_queue_is_gone:
        reply[who] > 0
    :: else
    fi
}

init {
    byte i;

    atomic {
        table = true;
        notifyAlive = true;
        queueAlive[0] = true;
        queueAlive[1] = true
    };
    for (i : 0 .. 2) {
        if
        :: waits[i] = true
        :: waits[i] = false
        fi
    };
    i = 0;
    atomic {
        run Owner();
        run Sender(0, 0, TASK_EVENT);
        run Sender(1, 1, TASK_EVENT);
        if
        :: wantsExit = true; run Sender(2, 0, EXIT_EVENT)
        :: wantsExit = false; through++
        fi
    };
    end_all_done: timeout ->
    assert(readers == 0 && !writer && through == 3);
    if
    :: wantsExit -> assert(ended && !notifyAlive && !queueAlive[0] && !queueAlive[1])
    :: else ->
        assert(handled == sent && sent == 2 && notify == 0);
        assert(reply[0] == waits[0] && reply[1] == waits[1])
    fi
}
