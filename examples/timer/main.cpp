// CTimer: a one-shot timer as a time limit, and a cyclic one that polls.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>

#include "Framework/GCL/CTimer.h"
#include "Framework/GCL/ITimerReceiver.h"

using std::chrono::milliseconds;

namespace {

// [receiver]
// Polls a number of times, on the timer's own thread, and then stops its timer.
class Poller final : private ITimerReceiver {
public:
    explicit Poller(unsigned rounds)
        : wanted(rounds), timer(this, nullptr, "poller", CTimer::Cyclic)
    {
    }

    bool start(milliseconds period) { return timer.start(period); }
    void waitForEnd() { ended.get_future().wait(); }

private:
    void onTimer(void*) override
    {
        std::printf("round %u of %u\n", ++round, wanted);
        if (round == wanted) {
            timer.stop(); // allowed here; start is not
            ended.set_value();
        }
    }

    const unsigned wanted;
    unsigned round = 0; // used by the timer's thread only
    std::promise<void> ended;
    CTimer timer; // the last member, so the first to go: no callback meets one that is gone
};
// [receiver end]

// [limit]
// True if the timer has run out, false if it could not be started.
bool waitFor(milliseconds limit)
{
    std::promise<void> over;
    CTimer timer([&over](void*) { over.set_value(); }, nullptr, "limit", CTimer::NonCyclic);
    if (!timer.start(limit)) {
        return false;
    }
    over.get_future().wait();
    return true;
} // the timer's thread is joined here, before `over` goes
// [limit end]

// [refused]
// A timer whose name has more than 15 characters is refused: it can be asked and destroyed, but it
// never runs. The result of start tells.
bool refuses()
{
    CTimer timer([](void*) {}, nullptr, "temperature-watch", CTimer::Cyclic);
    return !timer.start(milliseconds(10));
}
// [refused end]

} // namespace

int main()
{
    Poller poller(3);
    if (!poller.start(milliseconds(20))) {
        return EXIT_FAILURE;
    }
    poller.waitForEnd();
    if (!waitFor(milliseconds(30))) {
        return EXIT_FAILURE;
    }
    std::printf("the limit has passed\n");
    return refuses() ? EXIT_SUCCESS : EXIT_FAILURE;
}
