// A shared object that is linked to the library, so that loading and unloading it loads and unloads
// the library. The callbacks stay in the program: they must outlive the plug-in.
#include <chrono>
#include <functional>

#include "Framework/GCL/CTimer.h"

extern "C" __attribute__((visibility("default"))) void*
startTimer(const std::function<void(void*)>* callback, void* argument, int periodMs)
{
    auto* const timer = new CTimer(*callback, argument, "left over", CTimer::Cyclic);
    timer->start(std::chrono::milliseconds(periodMs));
    return timer;
}

extern "C" __attribute__((visibility("default"))) void destroyTimer(void* timer)
{
    delete static_cast<CTimer*>(timer);
}
