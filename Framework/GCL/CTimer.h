// CTimer: a named timer that calls a callback after a duration, once or again and again.
//
//     CTimer timer([](void* arg) { poll(arg); }, &module, "poll", CTimer::Cyclic);
//     timer.start(std::chrono::milliseconds(100));
//     ...
//     timer.stop();
//
// Every timer has a worker thread of its own, created by the constructor and joined by the
// destructor; stopping and starting again never creates another one. The callback runs on that
// thread and no lock is held while it runs, so that it may call stop and isRunning of its own
// timer; start is refused there. What the callback throws is traced and goes no further. A callback
// that ends its thread (pthread_exit, cancellation) leaves the timer without a worker: it can still
// be started, stopped and destroyed, but it never calls again.
//
// Threads: start, stop and isRunning may be called by any thread at any time between construction
// and destruction. Construction, destruction and moving happen on the owner's thread, while no
// other thread calls the same object; a timer must not be destroyed or moved to by its own
// callback. Two calls may meet with a destruction all the same: a start that waits for a stop to be
// acknowledged is refused and waited for, and while a callback holds up the destruction, calls of
// any thread are safe that have returned before that callback does. After fork(2) the child has no
// workers: it may call exec or _exit, but no timer. No operation may be called from a signal
// handler. Destroy timers before the library is unloaded or the process ends. The worker of one
// that is left over runs on, silently once the trace object is gone; the library stays mapped for
// it (dlopen(3)), and what its callback needs must last as long. Once nobody else keeps the
// library, it must not be destroyed any more: its destructor would unmap the code that it returns
// to.
//
// Time: a one-shot timer keeps its moment on the monotonic clock, a cyclic one counts each period
// from the moment when the wait begins, which is after the previous callback has returned: a cycle
// lasts the period, the callback's run time and the system's delays, and the lag adds up. The
// waiting itself is done on the wall clock (CLOCK_REALTIME): a step of that clock during a wait
// makes it end sooner or later by the size of the step. The worker sets its timer slack to the
// minimum (prctl(2), PR_SET_TIMERSLACK), since being on time is all that it is for; threads that
// the callback creates inherit that. The worker blocks no signals but those that its creator
// blocked: handlers of the process may run on it, unless the timer is built with them blocked.
//
// Diagnostics: messages go to the trace object "KIV.CTimer" of level 3, each begun by the
// function's name and, but for that of a policy without a name, the timer's name in double quotes:
// failures at level 1, warnings at level 2; refused and needless calls at level 4 and the course of
// events at level 5 show once that object's level is raised. "(traced N)" below says that the case
// writes a message of level N.
//
// Cancellation: destruction and assignment are not interrupted; a thread that is ended while it
// builds a timer ends the worker first; start may be ended while it waits.
//
// It rests on pthread_create(3), pthread_cond_timedwait(3), pthread_setschedparam(3), prctl(2)
// (PR_SET_NAME, PR_SET_TIMERSLACK) and dlopen(3).
#ifndef GCL_CTIMER_H
#define GCL_CTIMER_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

#include "Framework/GCL/Api.h"
#include "Framework/GCL/ICTimer.h"
#include "Framework/GCL/ITimerReceiver.h"

class GCL_API CTimer : public ICTimer {
public:
    // How often the callback runs. Every value but Cyclic, also one without a name, gives a
    // one-shot timer.
    enum Type : int32_t {
        NonCyclic = 0, // once for each start
        Cyclic = 1     // once in every period until stop
    };

    // The scheduling policy of the worker thread. The first three are the system's own numbers; a
    // value without a name counts as Other (traced 1).
    enum Policy : int32_t {
        Other = 0,      // SCHED_OTHER
        Fifo = 1,       // SCHED_FIFO, a real-time policy that needs a privilege (sched(7))
        RoundRobin = 2, // SCHED_RR, likewise
        Default = 3     // what the thread inherits from its creator stays as it is
    };

    // The constructors build a timer and its worker thread, which waits for start.
    //   receiver  its onTimer is the callback. It stays the caller's, must outlive the timer, and
    //             must not be NULL: NULL is not detected before the timer expires and crashes then
    //   callback  called on expiry. The timer keeps it until it is destroyed
    //   userArg   passed to every call, otherwise untouched
    //   name      1 to 15 bytes, of which the first 14 name the timer and its thread
    //   policy    the worker's scheduling policy; Default where it is not given
    //   priority  its priority, brought into the policy's range first (SCHED_FIFO: 1 to 99)
    //   type      cyclic or one-shot
    // None of them throws for a bad argument: a name of another length (traced 1) and an empty
    // callback (traced 1) give a refused timer, which can be destroyed and moved like any other,
    // but never runs. A worker thread that cannot be created (traced 1) gives a timer that runs but
    // never expires. A policy that cannot be set (traced 1) leaves the thread's scheduling as it
    // was inherited. Without memory for the timer they throw std::bad_alloc.
    CTimer(ITimerReceiver* receiver, void* userArg, const std::string& name, CTimer::Type type);
    CTimer(std::function<void(void*)> callback, void* userArg, const std::string& name,
           CTimer::Type type);
    CTimer(std::function<void(void*)> callback, void* userArg, const std::string& name,
           CTimer::Policy policy, int priority, CTimer::Type type);

    // A worker thread belongs to one timer: there are no copies.
    CTimer(const CTimer&) = delete;
    CTimer& operator=(const CTimer&) = delete;

    // A timer can be moved, running or not: its worker and its pending expiry go with it. The other
    // object becomes a refused timer. Assignment first ends the timer that it replaces, as the
    // destructor does; assignment to itself does nothing.
    CTimer(CTimer&& other) noexcept;
    CTimer& operator=(CTimer&& other) noexcept;

    // Ends the timer: an expiry that has not happened yet is not delivered, a callback in progress
    // is waited for. Then the worker is joined and everything is released, the callback included.
    ~CTimer() override;

    // start arms the timer with `duration`, in milliseconds: the delay of a one-shot timer, counted
    // from the call, or the period of a cyclic one. With 0 or less a one-shot timer expires at once
    // and a cyclic one calls back to back. A duration too long for the clock, which has 64 bits of
    // nanoseconds, counts as the latest moment that fits.
    // If a stop has been requested which the worker has not acknowledged yet, start waits for that,
    // which takes as long as the running callback; the stopped run's callback is not called after
    // it. Two threads that wait so at the same time may both be told that they have started the
    // timer; one run results.
    // True when the timer was started. False, without effect on the running or stopped timer:
    //   - in the timer's own callback (traced 1),
    //   - when the timer is being destroyed (traced 2),
    //   - when it is running already (traced 4),
    //   - when it is a refused timer.
    // The duration is stored even then, but for a refused timer: a running cyclic timer has a new
    // period from its next wait on; a running one-shot timer keeps its moment unless its wait
    // happens to be interrupted.
    bool start(std::chrono::milliseconds duration) override;

    // stop asks a running timer to stop and returns at once: a wait in progress ends without a
    // call, a callback in progress goes on to its end. Calling it again before the worker has
    // acknowledged (traced 4), while the timer does not run (traced 4) or on a refused timer does
    // nothing.
    void stop() override;

    // isRunning is true from a successful start until stop is called or, for a one-shot timer, its
    // callback has returned. A refused timer never runs.
    bool isRunning() const override;

    // The working part, known to the library only.
    class Impl;

private:
    Impl* impl; // owned; NULL for a refused or moved-from timer
};

#endif // GCL_CTIMER_H
