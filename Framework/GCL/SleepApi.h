// SleepApi: the real sleeper, which suspends the calling thread.
#ifndef GCL_SLEEPAPI_H
#define GCL_SLEEPAPI_H

#include "Framework/GCL/Api.h"
#include "Framework/GCL/ISleepApi.h"

namespace Util {

class GCL_API SleepApi : public ISleepApi {
public:
    // Does nothing: a sleeper keeps no state.
    ~SleepApi() override;

    // sleepMs suspends the calling thread with nanosleep(2) for the given number of milliseconds;
    // 0 returns at once. Any number of threads may sleep at the same time.
    // A signal whose handler runs on the thread ends the sleep early: it is not resumed, and
    // nothing tells the caller. Callers that need the whole time must look at a clock.
    void sleepMs(unsigned int milliseconds) override;
};

} // namespace Util

#endif // GCL_SLEEPAPI_H
