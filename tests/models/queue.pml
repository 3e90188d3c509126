/* A queue: put, synchronous put and get, and the drift between its semaphore and its ring.
 *
 * Mirrors src/Queue.cpp: Place, PutSync, GetSync, GetSyncQData, TakeHeadLocked and Give, and
 * DeleteMatching of src/QueueSelect.cpp. Both roads are there: one critical section under the
 * process-wide mutex while the queue's lock is free, and the lock otherwise, which a put may also
 * choose (for a page that has not been used). A holder takes the lock and puts under it, as a
 * stopping timer does. The consumer's get that finds nothing takes all units, which stand for
 * nothing then.
 *
 * Abstracted: a semaphore's operation is one step, taken while the process-wide mutex is free
 * (watch.pml has its inside); the ring holds CAPACITY events in order; priorities, receivers and
 * contents are left out; so are the further looks of a get by another thread, and the units that a
 * put drops when they are about to overflow. Filling or emptying a slot takes two steps, so that two threads in the
 * ring at the same time are seen.
 *
 * Claims: one thread at a time is in the ring; nothing is taken from an empty ring; each event is
 * handled, or deleted, once; a reply is given once and never to a sender that has gone; when all is
 * quiet, every event still queued is owed to a get that left a synchronous event and spent its unit
 * on it, which is documented, and its sender waits at end_unit_was_spent.
 */

#define CAPACITY 2
#define NOBODY 0

bool timeMutex;
byte lockUnits = 1; /* of the queue's lock */
byte units = 0;     /* of the count semaphore */
byte spent = 0;     /* units taken by gets that left the event */

byte ring[CAPACITY];
byte ringCount = 0;
byte inRing = 0;
#define EVENTS 4 /* 1: asynchronous, 2: synchronous, 3: of the holder */
#define SYNC(id) ((id) == 2)

byte put[EVENTS];
byte gone[EVENTS]; /* handled or deleted */
byte reply = 0;
bool replyAlive = false;
bool senderDone = false;

#define ENTER_RING inRing++; assert(inRing == 1)
#define LEAVE_RING inRing--

inline GiveReply(id)
{
    if
    :: SYNC(id) ->
        atomic { !timeMutex -> assert(replyAlive && reply == 0); reply++ }
    :: else
    fi
}

inline LockQueue()
{
    if
    :: depth > 0
    :: depth == 0 -> atomic { !timeMutex && lockUnits > 0 -> lockUnits-- }
    fi;
    depth++
}

inline UnlockQueue()
{
    depth--;
    if
    :: depth == 0 -> atomic { !timeMutex -> lockUnits++ }
    :: depth > 0
    fi
}

inline FillSlot(id)
{
    ENTER_RING;
    ok = ringCount < CAPACITY;
    if
    :: ok ->
        ring[ringCount] = id;
        ringCount++;
        put[id]++
    :: else
    fi;
    LEAVE_RING
}

inline Place(id)
{
    atomic { !timeMutex -> timeMutex = true };
    if
#ifdef WITHOUT_LOOKING_AT_THE_LOCK
    :: true ->
#else
    :: lockUnits > 0 ->
#endif
#ifdef WITHOUT_ONE_CRITICAL_SECTION
        timeMutex = false;
#endif
        FillSlot(id);
        if
        :: ok -> units++
        :: else
        fi;
        timeMutex = false
#ifndef WITHOUT_LOOKING_AT_THE_LOCK
    :: true ->
        timeMutex = false;
        LockQueue();
        FillSlot(id);
        if
        :: ok -> atomic { !timeMutex -> units++ }
        :: else
        fi;
        UnlockQueue()
#endif
    fi
}

/* In the ring's critical section: event is what was taken, NOBODY if there is none to take. */
inline TakeHead(skipSync)
{
    ENTER_RING;
    event = NOBODY;
    left = false;
    if
#ifdef WITHOUT_LOOKING_FOR_AN_EVENT
    :: true ->
#else
    :: ringCount > 0 ->
#endif
        assert(ringCount > 0);
        if
        :: skipSync && SYNC(ring[0]) -> left = true
        :: else ->
            event = ring[0];
            ringCount--;
            ring[0] = ring[1];
            ring[1] = NOBODY
        fi
#ifndef WITHOUT_LOOKING_FOR_AN_EVENT
    :: else
#endif
    fi;
    LEAVE_RING
}

inline TakeHeadOnEitherRoad(skipSync, takesStaleUnits)
{
    if
    :: lockUnits > 0 ->
        TakeHead(skipSync);
        if
        :: takesStaleUnits && event == NOBODY -> units = 0
        :: else
        fi;
        timeMutex = false
    :: else ->
        timeMutex = false;
        LockQueue();
        TakeHead(skipSync);
        UnlockQueue()
    fi
}

inline Handle(id)
{
    gone[id]++;
    assert(gone[id] == 1);
    GiveReply(id)
}

/* The task's loop: GetSync(for ever, skipSync false). */
active proctype Consumer()
{
    byte event, depth = 0;
    bool left;

end_idle:
    do
    :: atomic { !timeMutex && units > 0 -> units--; timeMutex = true };
        TakeHeadOnEitherRoad(false, true);
        if
        :: event != NOBODY -> Handle(event)
        :: else /* a unit without an event: waits again */
        fi
    od
}

/* Another get: one that does not touch the semaphore, or one that waits and leaves what a sender
 * waits for.
 */
active proctype OtherGetter()
{
    byte event = NOBODY, depth = 0;
    bool left = false;

    if
    :: atomic { !timeMutex -> timeMutex = true }; /* GetQData() */
        TakeHeadOnEitherRoad(true, false)
    :: atomic { !timeMutex && units > 0 -> units--; timeMutex = true }; /* Get() */
        TakeHeadOnEitherRoad(true, false);
        if
        :: left -> spent++
        :: else
        fi
    :: true /* neither */
    fi;
    if
    :: event != NOBODY -> Handle(event)
    :: else
    fi
}

/* Delete() of the oldest event, or Give() without an event. */
active proctype Deleter()
{
    byte event, depth = 0;

    if
    :: LockQueue();
        ENTER_RING;
        event = ring[0];
        if
        :: event != NOBODY ->
            ringCount--;
            ring[0] = ring[1];
            ring[1] = NOBODY
        :: else
        fi;
        LEAVE_RING;
        if
        :: event != NOBODY -> atomic { !timeMutex -> if :: units > 0 -> units-- :: else fi }
        :: else
        fi;
        UnlockQueue();
        if
        :: event != NOBODY -> Handle(event)
        :: else
        fi
    :: atomic { !timeMutex -> units++ }
    fi
}

active proctype Sender()
{
    byte depth = 0;
    bool ok;
    Place(1)
}

active proctype SyncSender()
{
    byte depth = 0;
    bool ok;

    replyAlive = true;
    Place(2);
    if
    :: ok ->
end_unit_was_spent:
        atomic { !timeMutex && reply > 0 -> reply-- }
    :: else
    fi;
    replyAlive = false;
    senderDone = true
}

active proctype Holder()
{
    byte depth = 0;
    bool ok;

    LockQueue();
    Place(3);
    UnlockQueue()
}

active proctype Monitor()
{
end_:
    timeout ->
    assert(!timeMutex && lockUnits == 1 && inRing == 0);
    assert(ringCount <= spent);
    assert(senderDone || spent > 0);
    assert(put[1] + put[2] + put[3] == gone[1] + gone[2] + gone[3] + ringCount);
    assert(units == 0)
}
