// What the tests of the timer share: its messages, its insides as far as they can be seen, and
// waiting for what another thread does.
#ifndef TESTS_SUPPORT_TIMERSUPPORT_H
#define TESTS_SUPPORT_TIMERSUPPORT_H

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Framework/GCL/CTimer.h"
#include "Framework/GCL/testing/TraceCapture.h"

namespace gcltest {

using Milliseconds = std::chrono::milliseconds;
using SteadyClock = std::chrono::steady_clock;

// Far longer than a test may take.
constexpr Milliseconds kForever{3'600'000};

inline void pause(int ms)
{
    std::this_thread::sleep_for(Milliseconds(ms));
}

// Waits, within reason, until `condition` holds. False if it never does.
template <typename Condition>
bool eventually(Condition condition)
{
    const auto limit = SteadyClock::now() + Milliseconds(20'000);
    while (!condition()) {
        if (SteadyClock::now() > limit) {
            return false;
        }
        pause(1);
    }
    return true;
}

// Tells when a thread sleeps in the call that it was about to make.
class SleepWatch {
public:
    // By the thread itself, right before the call.
    void announce() { thread = gettid(); }

    // Waits, within reason, until the thread sleeps.
    bool eventuallyAsleep() const
    {
        return eventually([this] { return thread != 0 && stateOf(thread) == 'S'; });
    }

    // Waits, within reason, until the thread has ended.
    bool eventuallyEnded() const
    {
        return eventually([this] { return thread != 0 && stateOf(thread) == '?'; });
    }

private:
    static char stateOf(pid_t id)
    {
        std::ifstream file("/proc/self/task/" + std::to_string(id) + "/stat");
        std::string text;
        std::getline(file, text);
        const size_t name = text.rfind(") "); // the name may hold anything
        return name == std::string::npos ? '?' : text[name + 2];
    }

    std::atomic<pid_t> thread{0};
};

// The field of a timer: its implementation.
inline void* implOf(const CTimer& timer)
{
    void* words[2];
    static_assert(sizeof words == sizeof timer, "a timer is its vtable and one pointer");
    std::memcpy(words, static_cast<const void*>(&timer), sizeof words);
    return words[1];
}

// The timer's implementation as its messages print it.
inline std::string addressOf(const CTimer& timer)
{
    std::ostringstream text;
    text << implOf(timer);
    return text.str();
}

inline Report timerReport(int level, const std::string& function, const std::string& text)
{
    return {"KIV.CTimer", level, "Framework/GCL/private/CTimer", function,
            function + "(): " + text};
}

// The messages written so far, kept over several looks.
class TimerReports {
public:
    // Whether `report` is among the messages, `times` times or more.
    bool has(const Report& report, unsigned times = 1)
    {
        unsigned found = 0;
        for (const Report& candidate : all()) {
            found += candidate == report ? 1 : 0;
        }
        return found >= times;
    }

    // The messages of one function.
    std::vector<Report> of(const std::string& function)
    {
        std::vector<Report> found;
        for (const Report& candidate : all()) {
            if (candidate.function == function) {
                found.push_back(candidate);
            }
        }
        return found;
    }

    const std::vector<Report>& all()
    {
        for (const Report& report : takeReports()) {
            reports.push_back(report);
        }
        return reports;
    }

    void clear()
    {
        takeReports();
        reports.clear();
    }

private:
    std::vector<Report> reports;
};

} // namespace gcltest

#endif // TESTS_SUPPORT_TIMERSUPPORT_H
