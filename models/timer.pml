/*
 * The life of a timer: its owner, a second client and its worker, with one mutex and one condition
 * variable between them. Names are those of Framework/GCL/private/CTimer.cpp.
 *
 * Checked over all interleavings, for few operations:
 *   - nobody waits for ever (no invalid end state): every accepted stop is acknowledged, a start
 *     that waits for it goes on, and destruction joins the worker;
 *   - no callback of a stopped run begins after its stop, and none once destruction has begun;
 *   - when destruction is over, the worker has ended and no start waits in the timer.
 *
 * A wait for an expiry ends by itself only EXPIRIES times; after that only a notification ends it,
 * so that a missing one shows. Waits also wake for no reason, SPURIOUS times.
 *
 * -DONE_SHOT makes a one-shot timer; -DNO_WORKER one whose worker could not be created;
 * -DUNWINDING lets a callback end the worker's thread. Each -DPLANT_... leaves a step out, and the
 * check must then fail.
 */

#ifndef OPERATIONS
#define OPERATIONS 3
#endif
#define EXPIRIES 2
#define SPURIOUS 1

#define OWNER 0
#define CLIENT 1
#define WORKER 2
#define CALLBACK WORKER /* the callback runs on the worker */
#define NOBODY 3

byte mutex = NOBODY;
bool notified[3]; /* by thread: a notification has come since its wait began */
bool waiting[3];

bool started, stopRequested, terminating;
#ifdef NO_WORKER
bool hasWorker = false;
#else
bool hasWorker = true;
#endif
bool workerEnded = false;
byte waitingStarts = 0; /* starts that wait for an acknowledgement */
byte expiries = EXPIRIES;
byte spurious = SPURIOUS;

/* What the timer promises: the run in progress was stopped. */
bool runStopped = false;

inline lock(me) { atomic { mutex == NOBODY -> mutex = me } }
inline unlock(me) { atomic { assert(mutex == me); mutex = NOBODY } }

inline notify_all()
{
    d_step {
        notified[OWNER] = waiting[OWNER];
        notified[CLIENT] = waiting[CLIENT];
        notified[WORKER] = waiting[WORKER]
    }
}

/* Gives the mutex back, waits for a notification and takes the mutex again. A timed wait may also
 * end by itself. */
inline cond_wait(me, timed)
{
    atomic { assert(mutex == me); mutex = NOBODY; waiting[me] = true; notified[me] = false };
    atomic {
        if
        :: notified[me]
        :: spurious > 0 -> spurious--
        :: timed && expiries > 0 -> expiries--
        fi;
        waiting[me] = false;
        notified[me] = false
    };
    lock(me)
}

inline acknowledge()
{
    started = false;
    stopRequested = false;
#ifndef PLANT_NO_NOTIFY_ON_ACKNOWLEDGE
    notify_all();
#endif
}

inline start(me)
{
    lock(me);
    if
    :: me == CALLBACK || terminating || (started && !stopRequested)
    :: else ->
        do
        :: stopRequested && !terminating ->
            waitingStarts++;
            cond_wait(me, false);
            waitingStarts--;
            if
#ifndef PLANT_NO_NOTIFY_ON_LEAVING
            :: terminating -> notify_all()
#endif
            :: else
            fi
        :: else -> break
        od;
        if
        :: terminating
        :: else ->
            started = true;
            stopRequested = false;
            runStopped = false;
#ifndef PLANT_NO_NOTIFY_ON_START
            notify_all();
#endif
            /* Nothing else would wake a worker that waits for a run. A start that is lost is no
             * deadlock: the stop or the destruction that follows wakes the worker. */
            assert(!waiting[WORKER] || notified[WORKER])
        fi
    fi;
    unlock(me)
}

inline stop(me)
{
    lock(me);
    if
    :: started && !stopRequested ->
        stopRequested = true;
        runStopped = true;
#ifndef PLANT_NO_NOTIFY_ON_STOP
        notify_all();
#endif
        if
#ifndef PLANT_NO_ACKNOWLEDGE_WITHOUT_WORKER
        :: !hasWorker -> acknowledge()
#endif
        :: else
        fi
    :: else
    fi;
    unlock(me)
}

inline wait_for_thread(me)
{
    lock(me);
    terminating = true;
#ifndef PLANT_NO_NOTIFY_ON_TERMINATE
    notify_all();
#endif
#ifndef PLANT_NO_WAIT_FOR_STARTS
    do
    :: waitingStarts != 0 -> cond_wait(me, false)
    :: else -> break
    od;
#endif
    unlock(me);
    workerEnded; /* the join */
    assert(waitingStarts == 0)
}

#define interrupted (stopRequested || terminating)

inline wait_for_expiry()
{
    if
    :: interrupted
    :: else ->
        /* Any time-out may be the end of the duration or a clock that was set back. */
        do
        :: true ->
            cond_wait(WORKER, true);
            if
            :: interrupted -> break
            :: else ->
                if
                :: break
                :: expiries > 0 /* not due yet: another pass */
                fi
            fi
        od
    fi
}

/* The callback may stop its own timer, and its start is refused. */
inline timer_callback_catch_exceptions()
{
    assert(!runStopped && !terminating);
#ifndef PLANT_CALLBACK_UNDER_LOCK
    unlock(WORKER);
#endif
    if
    :: true
    :: true -> stop(CALLBACK)
    :: true -> start(CALLBACK)
#ifdef UNWINDING
    :: true -> goto lose_worker
#endif
    fi;
#ifndef PLANT_CALLBACK_UNDER_LOCK
    lock(WORKER)
#endif
}

active proctype timer_thread_function()
{
#ifdef NO_WORKER
    goto ended;
#endif
    lock(WORKER);
    do
    :: terminating -> break
    :: else ->
        do
        :: !(started || terminating) -> cond_wait(WORKER, false)
        :: else -> break
        od;
        do
        :: interrupted -> break
        :: else ->
            wait_for_expiry();
            if
#ifndef PLANT_NO_SECOND_LOOK
            :: interrupted
            :: else -> timer_callback_catch_exceptions()
#else
            :: timer_callback_catch_exceptions()
#endif
            fi;
#ifdef ONE_SHOT
            break
#endif
        od;
        acknowledge()
    od;
    unlock(WORKER);
    goto ended;
#ifdef UNWINDING
lose_worker:
    lock(WORKER);
    hasWorker = false;
#ifndef PLANT_NO_ACKNOWLEDGE_ON_UNWINDING
    acknowledge();
#endif
    unlock(WORKER);
#endif
ended:
    workerEnded = true
}

active proctype owner()
{
    byte operations = 0;
    do
    :: operations < OPERATIONS -> operations++; start(OWNER)
    :: operations < OPERATIONS -> operations++; stop(OWNER)
    :: break
    od;
    wait_for_thread(OWNER);
    assert(workerEnded && mutex != WORKER)
}

active proctype client()
{
    byte operations = 0;
    do
    :: operations < OPERATIONS -> operations++; start(CLIENT)
    :: operations < OPERATIONS -> operations++; stop(CLIENT)
    :: break
    od
}
