// ISleepApi: something that sleeps. Code that must wait takes its sleeper from
// Util::DefaultSleepApi::get, so that a test or a simulation can put one of its own there.
#ifndef GCL_ISLEEPAPI_H
#define GCL_ISLEEPAPI_H

#include "Framework/GCL/Api.h"

namespace Util {

class GCL_API ISleepApi {
public:
    // Its definition is in the library, so that every module shares one type.
    virtual ~ISleepApi();

    // sleepMs sleeps for a number of milliseconds, in whatever way the sleeper has.
    virtual void sleepMs(unsigned int milliseconds) = 0;
};

} // namespace Util

#endif // GCL_ISLEEPAPI_H
