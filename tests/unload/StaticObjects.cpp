// Timers and FIFOs that are static objects of a program: built before the library's own objects or
// after them, used by code that runs before main and after it has returned, destroyed last. Each
// step writes a line; the run must end with 0 by itself.
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <new>
#include <thread>
#include <utility>

#include "Framework/GCL/CFifoBuffer.h"
#include "Framework/GCL/CTimer.h"
#include "Framework/GCL/ResultCodes.h"
#include "tests/support/Sanitizers.h"

#if __has_include(<valgrind/drd.h>) && __has_include(<valgrind/helgrind.h>)
#define CHECKED_BY_VALGRIND
#include <valgrind/drd.h>
#include <valgrind/helgrind.h>
#endif

namespace {

// Straight to the descriptor: streams exist for a part of the time only.
void say(const char* line)
{
    static_cast<void>(!write(STDOUT_FILENO, line, std::strlen(line)));
}

void check(bool holds, const char* what)
{
    if (!holds) {
        say(what);
        say(": no\n");
        std::_Exit(1);
    }
}

// Valgrind's thread checkers leave out the first word of a timer's implementation, its table of
// virtual functions. A destructor stores it before anything else, while the worker may read it; but
// it is the destructor of the object's very class, and the word is what it was.
void leaveOutTable(CTimer& timer)
{
    void* words[2];
    static_assert(sizeof words == sizeof timer, "a timer is its table and one pointer");
    std::memcpy(words, static_cast<void*>(&timer), sizeof words);
#ifdef CHECKED_BY_VALGRIND
    VALGRIND_HG_DISABLE_CHECKING(words[1], sizeof(void*));
    DRD_IGNORE_VAR(*static_cast<void**>(words[1]));
#endif
}

// A timer that calls back into a FIFO, and the FIFO: what a module has of both.
class Module {
public:
    explicit Module(const char* name)
    {
        CFifoBuffer_Construct(&fifo, sizeof(int), 4, eTaskingModeSemaphore);
        new (&timer) CTimer([this](void*) { deliver(); }, nullptr, name, CTimer::NonCyclic);
        leaveOutTable(timer);
    }
    ~Module()
    {
        use("the last use, in the destructor");
        // A cyclic wait is broken off, and the object that was moved from ends as well.
        CTimer cyclic([](void*) {}, nullptr, "cyclic", CTimer::Cyclic);
        leaveOutTable(cyclic);
        check(cyclic.start(std::chrono::hours(1)), "the last start");
        CTimer moved(std::move(cyclic));
        timer.~CTimer();
        // Destruct destroys the mutex in every mode, which drd wants to have been made.
        check(pthread_mutex_init(&fifo.fifoMutex, nullptr) == 0, "the mutex");
        CFifoBuffer_Destruct(&fifo);
    }
    Module(const Module&) = delete;
    Module& operator=(const Module&) = delete;

    // The timer expires, and what its worker puts comes out here.
    void use(const char* when)
    {
        const int before = sent;
        while (timer.isRunning()) { // the last callback is about to return
            std::this_thread::yield();
        }
        check(timer.start(std::chrono::milliseconds(1)), when);
        int received = 0;
        check(CFifoBuffer_Get(&fifo, &received) == GCL_OK, when);
        check(received == before + 1, when);
    }

private:
    void deliver()
    {
        const int next = ++sent;
        check(CFifoBuffer_Put(&fifo, &next) == GCL_OK, "the callback's Put");
    }

    CFifoBuffer fifo = {};
    std::atomic<int> sent{0};
    union {
        CTimer timer; // built after the FIFO, destroyed before it
    };
};

// Before the objects of every shared library, the library's and the sink's included, and so
// destroyed after them.
alignas(Module) unsigned char earliest[sizeof(Module)];
Module& earliestModule()
{
    return *std::launder(reinterpret_cast<Module*>(earliest));
}
void buildEarliest()
{
    new (earliest) Module("earliest");
    earliestModule().use("before every library's objects");
    say("earliest built\n");
    check(std::atexit([] {
              earliestModule().~Module();
              say("earliest destroyed\n");
          }) == 0,
          "atexit");
}
#if defined(GCLTEST_ADDRESS_SANITIZER) || defined(GCLTEST_THREAD_SANITIZER)
// The sanitizers are not ready before any library's objects are built themselves: after those,
// then.
__attribute__((constructor(101))) void buildEarliestInProgram()
{
    buildEarliest();
}
#else
__attribute__((section(".preinit_array"), used)) void (*const kBuildEarliest)() = buildEarliest;
#endif

// A static object of the program.
struct Usual {
    Usual()
    {
        module.use("before main");
        say("built before main\n");
    }
    ~Usual()
    {
        module.use("after main");
        earliestModule().use("after main");
        say("destroyed after main\n");
    }
    Module module{"usual"};
} usual;

} // namespace

int main()
{
    usual.module.use("in main");
    earliestModule().use("in main");
    say("used in main\n");
    // One that is made when it is first needed, and destroyed first.
    static Module local("local");
    local.use("in main");
    return 0;
}
