// Signals to all threads, those of the timers included, all the time. In one round their handlers
// restart what they interrupt, in the next they do not.
#include <dirent.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdlib>

#include "tests/soak/Soak.h"

namespace soak {
namespace {

constexpr unsigned kIntervalUs = 200; // between two signals
constexpr suseconds_t kAlarmUs = 5000;

Count handled{0};

void handle(int)
{
    handled.fetch_add(1, std::memory_order_relaxed);
}

class SignalLoad : public Load {
public:
    SignalLoad() : Load(Kind::signals, "signals") {}

    void account(Table& table) const override
    {
        // Of the same signal that is pending twice a thread handles one.
        table.note("signals sent to a thread", sent);
        table.note("signals handled, alarms included", handled);
        if (handled == 0) {
            complain("no signal was handled");
        }
    }

protected:
    void beginRound() override
    {
        struct sigaction action = {};
        action.sa_handler = handle;
        action.sa_flags = round.restarting ? SA_RESTART : 0;
        sigaction(SIGUSR1, &action, nullptr);
        sigaction(SIGALRM, &action, nullptr);
        setAlarm(kAlarmUs);
        employ([this](Random&) {
            while (!over) {
                signalEveryThread();
            }
        });
    }

    void endRound() override { setAlarm(0); }

private:
    static void setAlarm(suseconds_t intervalUs)
    {
        const itimerval timer = {{0, intervalUs}, {0, intervalUs}};
        setitimer(ITIMER_REAL, &timer, nullptr);
    }

    void signalEveryThread()
    {
        DIR* const tasks = opendir("/proc/self/task");
        if (tasks == nullptr) {
            complain("the threads cannot be listed");
            return;
        }
        while (const dirent* const task = readdir(tasks)) {
            const long id = std::strtol(task->d_name, nullptr, 10);
            // A thread that has ended is not found.
            if (id > 0 && syscall(SYS_tgkill, getpid(), id, SIGUSR1) == 0) {
                ++sent;
                ++steps;
            }
            if (over) {
                break;
            }
            pauseUs(kIntervalUs);
        }
        closedir(tasks);
    }

    Count sent{0};
};

} // namespace

void addSignals(Loads& loads)
{
    loads.push_back(std::make_unique<SignalLoad>());
}

} // namespace soak
