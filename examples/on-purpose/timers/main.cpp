// What the timers do on purpose; docs/on-purpose.md says why.
#include <pthread.h>

#include <chrono>
#include <cstdio>
#include <future>
#include <stdexcept>
#include <thread>

#include "Framework/GCL/CTimer.h"

using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

void showLag()
{
    // [lag]
    std::promise<void> done;
    int calls = 0;
    CTimer timer(
        [&](void*) {
            std::this_thread::sleep_for(milliseconds(30)); // the work of a round
            if (++calls == 4) {
                done.set_value();
            }
        },
        nullptr, "lag", CTimer::Cyclic);
    const auto begin = steady_clock::now();
    timer.start(milliseconds(20));
    done.get_future().wait();
    timer.stop();
    const bool late = steady_clock::now() - begin >= 4 * milliseconds(20 + 30);
    std::printf("4 rounds took %s\n", late ? "4 periods and 4 times the work" : "4 periods");
    // [lag end]
}

void showStop()
{
    // [stop]
    std::promise<void> begun;
    std::promise<void> mayEnd;
    bool ended = false;
    {
        CTimer timer(
            [&](void*) {
                begun.set_value();
                mayEnd.get_future().wait();
                ended = true;
            },
            nullptr, "stop", CTimer::NonCyclic);
        timer.start(milliseconds(0));
        begun.get_future().wait();
        timer.stop(); // returns although the callback is at work
        std::printf("%s, ", timer.isRunning() ? "running" : "stopped");
        mayEnd.set_value();
    } // waits for the callback
    std::printf("the callback has %s\n", ended ? "ended" : "not ended");
    // [stop end]
}

void showName()
{
    // [name]
    std::promise<void> called;
    CTimer timer(
        [&called](void*) {
            char name[16] = "";
            pthread_getname_np(pthread_self(), name, sizeof name);
            std::printf("thread %s\n", name);
            called.set_value();
        },
        nullptr, "carrier-monitor", CTimer::NonCyclic); // 15 characters
    timer.start(milliseconds(0));
    called.get_future().wait();
    // [name end]
}

void showThrow()
{
    // [throw]
    std::promise<void> secondRound;
    int round = 0;
    CTimer timer(
        [&](void*) {
            if (++round == 1) {
                throw std::runtime_error("no answer");
            }
            if (round == 2) {
                secondRound.set_value();
            }
        },
        nullptr, "poll", CTimer::Cyclic);
    timer.start(milliseconds(10));
    secondRound.get_future().wait();
    std::printf("the timer goes on\n");
    // [throw end]
    timer.stop();
}

} // namespace

int main()
{
    showLag();
    showStop();
    showName();
    showThrow();
    return 0;
}
