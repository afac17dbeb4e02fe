/* The unregister barrier, the lock orders and the wake-ups of the bus, small enough to be checked
 * in every interleaving.
 *
 * One plugin ID is registered, subscribed and unregistered Lives times over. Producers put to it
 * meanwhile, directly or as a broadcast, and its own handler puts once more. Checked:
 *   - no inbox is touched after its worker has been released (assert on released);
 *   - no handler runs after unregistering has returned (assert on barrier);
 *   - no deadlock and no lost wake-up (an invalid end state);
 *   - every item is delivered or freed, once (the balance at the end).
 *
 * PARK: the worker waits while its inbox is empty; otherwise it polls. Each BREAK_ macro takes one
 * step of the protocol away, to show that the check can fail.
 */

#define LIVES 2     /* registrations of the one ID, one after the other */
#define PRODUCERS 2
#define PUTS 2      /* puts of each producer; the second one is a broadcast */
#define NONE LIVES  /* the registry holds no record of the ID */

/* the locks of the center */
bool id_sub_lock, sub_lock, reg_lock;
/* guarded by reg_lock; by sub_lock */
byte registered = NONE;
bool subscribed;

/* one inbox and worker a life; inbox_lock guards queued and waits */
bool inbox_lock[LIVES];
byte queued[LIVES];
bool waits[LIVES];
byte wake_ups[LIVES];
bool stop[LIVES], done[LIVES], released[LIVES], barrier[LIVES];

/* the ledger of items */
byte made, delivered, freed, producers_done;
bool handler_has_put;

#define lock(l) atomic { !l -> l = true }
#define unlock(l) l = false

/* What every put path does for one receiver, the registry lock held from look-up to append. */
inline put_to_the_id(life, woken)
{
    lock(reg_lock);
    life = registered;
#ifdef BREAK_APPEND
    unlock(reg_lock); /* the receiver may go between look-up and append */
#endif
    if
    :: life == NONE -> skip
    :: else ->
        lock(inbox_lock[life]);
        assert(!released[life]);
        queued[life]++;
        made++;
        woken = waits[life];
        waits[life] = false;
        unlock(inbox_lock[life]);
        if
        :: woken ->
            assert(!released[life]);
            wake_ups[life]++
        :: else
        fi
    fi;
#ifndef BREAK_APPEND
    unlock(reg_lock);
#endif
    life = 0;
    woken = false
}

proctype Producer()
{
    byte life;
    bool woken;

    put_to_the_id(life, woken); /* directed */

    lock(sub_lock); /* broadcast: held across all receivers */
    if
    :: subscribed -> put_to_the_id(life, woken)
    :: else
    fi;
    unlock(sub_lock);
    producers_done++
}

proctype Worker(byte self)
{
    byte batch, life;
    bool woken, parked;

    do
    :: stop[self] -> break
    :: else ->
        lock(inbox_lock[self]);
        assert(!released[self]);
        batch = queued[self];
        if
        :: batch == 0 ->
#ifdef PARK
#ifdef BREAK_WAIT
            unlock(inbox_lock[self]); /* the decision to wait is made outside the lock */
            parked = !stop[self];
            waits[self] = parked;
#else
            parked = !stop[self];
            waits[self] = parked;
            unlock(inbox_lock[self]);
#endif
            if
            :: parked -> atomic { wake_ups[self] > 0 -> wake_ups[self]-- }
            :: else
            fi;
            parked = false
#else
            unlock(inbox_lock[self])
#endif
        :: else ->
            queued[self] = 0;
            unlock(inbox_lock[self]);
            do
            :: batch == 0 -> break
            :: else ->
                assert(!barrier[self]); /* the handler */
                if
                :: !handler_has_put -> /* puts to its own plugin */
                    handler_has_put = true;
                    put_to_the_id(life, woken)
                :: else
                fi;
                atomic {
                    delivered++;
                    batch--;
                    if
                    :: stop[self] ->
                        freed = freed + batch;
                        batch = 0
                    :: else
                    fi
                }
            od
        fi
    od;
    lock(inbox_lock[self]);
    assert(!released[self]);
    freed = freed + queued[self];
    queued[self] = 0;
    unlock(inbox_lock[self]);
    done[self] = true
}

/* The plugin's owner: registers, subscribes, unregisters, and so on. */
proctype Owner()
{
    byte life;
    bool woken;

    do
    :: life == LIVES -> break
    :: else ->
        lock(reg_lock);
        assert(registered == NONE);
        registered = life;
        unlock(reg_lock);
        run Worker(life);

        lock(id_sub_lock);
        unlock(id_sub_lock);
        lock(sub_lock);
        subscribed = true;
        unlock(sub_lock);

        /* unregister: the subscriptions, the record, then the worker */
#ifdef BREAK_ORDER
        lock(reg_lock);
#endif
        lock(id_sub_lock);
        lock(sub_lock);
        subscribed = false;
        unlock(sub_lock);
        unlock(id_sub_lock);
#ifndef BREAK_ORDER
        lock(reg_lock);
#endif
        registered = NONE;
        unlock(reg_lock);

        stop[life] = true;
#if defined(PARK) && !defined(BREAK_STOP)
        lock(inbox_lock[life]);
        woken = waits[life];
        waits[life] = false;
        unlock(inbox_lock[life]);
        if
        :: woken -> wake_ups[life]++
        :: else
        fi;
#endif
#ifndef BREAK_BARRIER
        done[life];
#endif
        barrier[life] = true; /* UnReg has returned; the plugin may be destroyed */
        done[life] -> released[life] = true; /* the worker is deleted, its inbox with it */
        life++
    od;
    producers_done == PRODUCERS;
    assert(made == delivered + freed)
}

init
{
    atomic {
        byte i;
        for (i : 1 .. PRODUCERS) {
            run Producer()
        }
        run Owner()
    }
}
