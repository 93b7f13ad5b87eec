// A shared object that is linked to the library, so that loading and unloading it loads and unloads
// the library. The callbacks stay in the program: they must outlive the plug-in.
#include <chrono>
#include <cstdlib>
#include <functional>
#include <thread>

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

namespace {

// While the plug-in is loaded, the loader holds its lock: a timer must live a whole life all the
// same.
const struct TimerWhileLoading {
    TimerWhileLoading()
    {
        if (std::getenv("TIMER_WHILE_LOADING") == nullptr) {
            return;
        }
        CTimer timer([](void*) {}, nullptr, "loading", CTimer::NonCyclic);
        timer.start(std::chrono::milliseconds(1));
        while (timer.isRunning()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
} timerWhileLoading;

} // namespace
