// The end of the process: what becomes of the timers' trace object, seen through the trace sink,
// and of timers that are built behind it.
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "Framework/GCL/CTimer.h"
#include "Framework/GCL/testing/FaultInjection.h"
#include "tests/support/Sanitizers.h"

using gcltest::Count;
using gcltest::Hook;
using gcltest::Threads;
namespace calls = gcltest::calls;

namespace {

constexpr unsigned kMostWaits = 1000;

// A message at level 1, which is written.
void writeMessage()
{
    const CTimer refused([](void*) {}, nullptr, "", CTimer::Cyclic);
}

// Works, without a word and without a reference to the library.
void useTimerWithoutTraceObject()
{
    const Count references(calls::dlopen);
    std::atomic<bool> called{false};
    {
        CTimer timer([&called](void*) { called = true; }, nullptr, "late", CTimer::NonCyclic);
        timer.start(std::chrono::milliseconds(0));
        while (timer.isRunning()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
    writeMessage();
    dprintf(STDERR_FILENO, "behind it: %s, %u references\n", called ? "called" : "not called",
            references.calls());
}

// What the process tells from now on until it has ended.
struct Watch {
    static Watch* active; // keeps it

    std::atomic<bool> held{false}; // the writer stays in its message
    unsigned waitsToRelease = 0;   // until so many waits are over; 0: for ever

    // The waits for a writer, which take no time until it may leave.
    Hook<int(const timespec*, timespec*)> wait{
        calls::nanosleep, [this](const timespec* time, timespec*) {
            const unsigned number = wait.calls();
            if (time->tv_sec != 0 || time->tv_nsec != 1'000'000 || number >= kMostWaits) {
                dprintf(STDERR_FILENO, "wait %u, %ld ns\n", number,
                        static_cast<long>(time->tv_nsec));
            }
            if (waitsToRelease != 0 && number >= waitsToRelease) {
                held = false;
                const timespec longer = {0, 20'000'000};
                return calls::nanosleep.real(&longer, nullptr);
            }
            return 0;
        }};
    // The trace object's name goes with it.
    Hook<void(void*)> destruction{
        calls::deleteArray, [this](void* memory) {
            if (memory != nullptr &&
                std::strncmp(static_cast<const char*>(memory), "KIV.CTimer", 10) == 0) {
                dprintf(STDERR_FILENO, "destroyed, %s\n", wait.calls() == 0 ? "at once" : "later");
                std::thread(useTimerWithoutTraceObject).join();
                dprintf(STDERR_FILENO, "%u messages\n", message.calls());
            }
            calls::deleteArray.real(memory);
        }};
    // Nothing comes out of the sink's writes.
    Hook<ssize_t(int, const void*, size_t)> message{calls::write,
                                                    [this](int, const void*, size_t size) {
                                                        while (held) {
                                                            std::this_thread::sleep_for(
                                                                std::chrono::milliseconds(1));
                                                        }
                                                        return static_cast<ssize_t>(size);
                                                    },
                                                    Threads::all};
};
Watch* Watch::active = nullptr;

[[noreturn]] void exitAfterAMessage()
{
    Watch::active = new Watch;
    writeMessage();
    std::exit(0);
}

// Another thread is in a message.
[[noreturn]] void exitDuringAMessage(unsigned waitsToRelease)
{
    Watch* const watch = Watch::active = new Watch;
    watch->waitsToRelease = waitsToRelease;
    watch->held = true;
    // A std::thread has memory of its own, which an exit meanwhile leaves behind.
    pthread_t writer;
    const auto write = [](void*) -> void* {
        writeMessage();
        return nullptr;
    };
    if (pthread_create(&writer, nullptr, write, nullptr) != 0 || pthread_detach(writer) != 0) {
        std::abort();
    }
    while (watch->message.calls() == 0) {
        std::this_thread::yield();
    }
    std::exit(0);
}

// ThreadSanitizer and AddressSanitizer are not ready at that time themselves.
#if !defined(GCLTEST_ADDRESS_SANITIZER) && !defined(GCLTEST_THREAD_SANITIZER)

// Before the library's own objects are built: what is not written then is not waited for later.
void useTimersBeforeTheTraceObject(int, char**, char**)
{
    writeMessage();
}
__attribute__((section(".preinit_array"),
               used)) void (*const preinit)(int, char**, char**) = useTimersBeforeTheTraceObject;

#endif

} // namespace

TEST(CTimerExitDeathTest, DestroysTheTraceObject)
{
    EXPECT_EXIT(exitAfterAMessage(), testing::ExitedWithCode(0),
                "^destroyed, at once\nbehind it: called, 0 references\n1 messages\n$");
}

TEST(CTimerExitDeathTest, WaitsForAMessageToEnd)
{
    EXPECT_EXIT(exitDuringAMessage(3), testing::ExitedWithCode(0),
                "^destroyed, later\nbehind it: called, 0 references\n1 messages\n$");
}

TEST(CTimerExitDeathTest, LeavesTheTraceObjectToAMessageThatDoesNotEnd)
{
    EXPECT_EXIT(exitDuringAMessage(0), testing::ExitedWithCode(0), "^wait 1000, 1000000 ns\n$");
}
