// ICTimer: what every timer can do. Code that only starts and stops a timer takes it as an ICTimer.
#ifndef GCL_ICTIMER_H
#define GCL_ICTIMER_H

#include <chrono>

#include "Framework/GCL/Api.h"

class GCL_API ICTimer {
public:
    // Ends the timer. Its definition is in the library, so that every module shares one type.
    virtual ~ICTimer();

    // start arms the timer with a duration in milliseconds. True when it was started, false when
    // the start was refused.
    virtual bool start(std::chrono::milliseconds duration) = 0;

    // stop asks the timer to stop and does not wait until it has.
    virtual void stop() = 0;

    // isRunning is true while the timer is started and no stop has been requested.
    virtual bool isRunning() const = 0;

protected:
    // For derived timers only: an ICTimer by itself is neither made nor copied.
    ICTimer() = default;
    ICTimer(const ICTimer&) = default;
    ICTimer& operator=(const ICTimer&) = default;
};

#endif // GCL_ICTIMER_H
