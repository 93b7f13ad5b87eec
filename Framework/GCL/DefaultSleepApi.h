// DefaultSleepApi: the sleeper of the process, the real one unless another has been installed.
//
//     Util::DefaultSleepApi::get().sleepMs(20);
//
// Nothing here is synchronised: install a sleeper before the threads that sleep are started, and
// remove it after they have ended. SimulatedSleeper.h has one for tests.
#ifndef GCL_DEFAULTSLEEPAPI_H
#define GCL_DEFAULTSLEEPAPI_H

#include "Framework/GCL/Api.h"
#include "Framework/GCL/ISleepApi.h"
#include "Framework/GCL/SleepApi.h"

namespace Util {

class GCL_API DefaultSleepApi {
public:
    // There is one sleeper in a process, and no object of this class.
    DefaultSleepApi() = delete;

    // setOverride installs `sleeper`, which stays the caller's and must outlive its installation.
    // NULL removes the installed one, as clearOverride does.
    static void setOverride(ISleepApi* sleeper);

    // clearOverride makes the real sleeper the process's sleeper again.
    static void clearOverride();

    // get returns the installed sleeper, or the real one if there is none. The real one exists
    // from the moment the library is loaded until it is unloaded or the process ends.
    static ISleepApi& get();

private:
    static SleepApi realSleeper;
    static ISleepApi* overrideSleeper; // not owned; NULL without an override
};

} // namespace Util

#endif // GCL_DEFAULTSLEEPAPI_H
