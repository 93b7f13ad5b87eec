// ITimerReceiver: an object that a timer calls when it expires.
#ifndef GCL_ITIMERRECEIVER_H
#define GCL_ITIMERRECEIVER_H

#include "Framework/GCL/Api.h"

class GCL_API ITimerReceiver {
public:
    // onTimer is called on the timer's own worker thread each time the timer expires, with the user
    // argument that the timer was built with. What it throws is traced and goes no further.
    virtual void onTimer(void* userArg) = 0;

protected:
    // A timer does not own its receiver, and nobody destroys one through this interface.
    ~ITimerReceiver() = default;
};

#endif // GCL_ITIMERRECEIVER_H
