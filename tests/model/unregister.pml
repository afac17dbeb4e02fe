/* The unregister barrier, the lock orders and the wake-up of a parked worker, small enough to try
 * every interleaving. One plugin ID is registered, unregistered and registered again while a
 * producer puts directly, a sender broadcasts to subscribers and then to a relation group, and the
 * plugin's handler puts to itself. The checker looks for
 *   - use of an inbox, its mutex or its semaphore after they were released,
 *   - a handler call after UnReg has returned,
 *   - an item that is neither delivered nor freed, or is both,
 *   - a state in which nothing goes on any more: a deadlock, or a worker asleep beside its items.
 *
 * Under -DPARK an idle worker waits for a wake-up, else it polls. Each BREAK_ macro takes one
 * precaution away, to show that the checker misses it.
 */
#define REGISTRATIONS 2
#define NONE 255

#define lock(m)   atomic { !m -> m = true }
#define unlock(m) m = false

/* The center's locks: subscriptions by ID, subscribers by type, registry, relations. */
bool idSubMutex, subMutex, regMutex, relationMutex;

bool subscribed;        /* guarded by subMutex */
byte registered = NONE; /* which registration the ID has; guarded by regMutex */

/* Of each registration: its inbox (what is in it only counts) and its worker. */
bool inboxMutex[REGISTRATIONS];
byte inbox[REGISTRATIONS]; /* guarded by inboxMutex, as is: */
bool waits[REGISTRATIONS]; /* the worker waits for a wake-up, or is about to */
byte wakeUps[REGISTRATIONS]; /* the semaphore */
bool alive[REGISTRATIONS];   /* inbox, mutex and semaphore exist */
bool stop[REGISTRATIONS];
bool ended[REGISTRATIONS];
bool left[REGISTRATIONS]; /* UnReg has returned */

byte made, delivered, freed; /* items */
byte putting = 2;            /* processes that still put */
byte again = 1;              /* puts that handlers have left */

/* Append with the wake-up after the unlock. Inside the leaf lock nothing else can interfere. */
inline append(g, claimed)
{
    assert(alive[g]);
    lock(inboxMutex[g]);
    d_step {
        assert(alive[g]);
        inbox[g]++;
        made++;
        claimed = waits[g];
        waits[g] = false;
        unlock(inboxMutex[g]);
    }
    if
    :: claimed -> assert(alive[g]); wakeUps[g]++
    :: else
    fi
}

/* To the ID, if it is registered, under the registry lock to the end. */
inline deliver(g, claimed)
{
    lock(regMutex);
    g = registered;
#ifdef BREAK_REGISTRY
    unlock(regMutex);
#endif
    if
    :: g != NONE -> append(g, claimed)
    :: else
    fi;
#ifndef BREAK_REGISTRY
    unlock(regMutex)
#endif
}

proctype Worker(byte own)
{
    byte batch, g;
    bool claimed, w;
    do
    :: stop[own] -> break
    :: else ->
        assert(alive[own]);
        lock(inboxMutex[own]);
        assert(alive[own]);
        if
        :: inbox[own] == 0 ->
#ifdef PARK
            if
            :: unlock(inboxMutex[own]) /* looks again */
            :: w = !stop[own];
#ifdef BREAK_WAKEUP
               unlock(inboxMutex[own]);
               waits[own] = w;
#else
               d_step { waits[own] = w; unlock(inboxMutex[own]) };
#endif
               if
               :: w -> atomic { wakeUps[own] > 0 -> wakeUps[own]-- }
               :: else
               fi
            fi
#else
            unlock(inboxMutex[own])
#endif
        :: else ->
            d_step { batch = inbox[own]; inbox[own] = 0; unlock(inboxMutex[own]) };
            do
            :: batch > 0 ->
                assert(!left[own]); /* the handler is entered */
                if
                :: again > 0 -> again--; deliver(g, claimed)
                :: else
                fi;
                assert(!left[own]); /* the handler returns */
                d_step { batch--; delivered++ };
                if
                :: stop[own] -> d_step { freed = freed + batch; batch = 0 }
                :: else
                fi
            :: else -> break
            od
        fi
    od;
    ended[own] = true
}

inline subscribe()
{
    lock(idSubMutex);
    unlock(idSubMutex);
    lock(subMutex);
    subscribed = true;
    unlock(subMutex)
}

proctype Producer()
{
    byte g;
    bool claimed;
    deliver(g, claimed);
    deliver(g, claimed);
    putting--
}

proctype Sender()
{
    byte g;
    bool claimed;
    lock(subMutex);
    if
    :: subscribed -> deliver(g, claimed)
    :: else
    fi;
    unlock(subMutex);
    lock(relationMutex);
    deliver(g, claimed);
    unlock(relationMutex);
    subscribe(); /* on behalf of the ID, whoever it is just now */
    putting--
}

inline reg(g)
{
    alive[g] = true;
    lock(regMutex);
    registered = g;
    unlock(regMutex);
    run Worker(g)
}

inline wake(g, claimed)
{
    lock(inboxMutex[g]);
    d_step { claimed = waits[g]; waits[g] = false; unlock(inboxMutex[g]) };
    if
    :: claimed -> wakeUps[g]++
    :: else
    fi
}

inline unreg(g, claimed)
{
#ifdef BREAK_ORDER
    lock(subMutex);
    lock(idSubMutex);
    lock(regMutex);
    unlock(regMutex);
#else
    lock(idSubMutex);
    lock(subMutex);
#endif
    subscribed = false;
    unlock(subMutex);
    unlock(idSubMutex);

    lock(regMutex);
    registered = NONE;
#ifndef BREAK_WAIT_UNLOCKED
    unlock(regMutex);
#endif
#ifdef BREAK_STOP
    wake(g, claimed);
    stop[g] = true;
#else
    stop[g] = true;
    wake(g, claimed);
#endif
#ifndef BREAK_BARRIER
    ended[g]; /* waits for the worker */
#endif
#ifdef BREAK_WAIT_UNLOCKED
    unlock(regMutex);
#endif
    d_step {
        left[g] = true;
        freed = freed + inbox[g];
        inbox[g] = 0;
        alive[g] = false
    }
}

init
{
    bool claimed;
    atomic { run Producer(); run Sender() };
    reg(0);
    subscribe();
    unreg(0, claimed); /* in the middle of whatever the others do */
    reg(1);
    /* Everything that has been put is handled without any help. */
    putting == 0 && made == delivered + freed;
    unreg(1, claimed);
    ended[0] && ended[1];
    assert(made == delivered + freed)
}
