// What becomes of timers that are left over when the library is unloaded or the process ends. The
// program is not linked to the library: a plug-in brings it.
//
//     TimerProbe <plug-in>
//         idle|running|stopped|fresh|loading|silent|exit|exit-callback|exit-thread|fork
#include <dlfcn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Framework/GCL/ICTimer.h"
#include "Framework/GCL/testing/TraceCapture.h"

namespace {

// Never destroyed: the timers that are left over call it to the very end.
struct Counters {
    std::atomic<int> calls{0};
};
Counters& counters()
{
    static Counters* const instance = new Counters;
    return *instance;
}

void countAndThrow(void*)
{
    ++counters().calls;
    throw std::runtime_error("left over");
}

void* plugin = nullptr;
std::vector<void*>* const timers = new std::vector<void*>;

[[noreturn]] void fail(const char* what)
{
    std::fprintf(stderr, "TimerProbe: %s\n", what);
    std::_Exit(1);
}

template <typename Function>
Function* functionOf(const char* name)
{
    void* const address = dlsym(plugin, name);
    if (address == nullptr) {
        fail(dlerror());
    }
    return reinterpret_cast<Function*>(address);
}

void load(const char* path)
{
    plugin = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    if (plugin == nullptr) {
        fail(dlerror());
    }
}

void makeTimers(int count)
{
    const std::function<void(void*)> callback = countAndThrow;
    for (int i = 0; i < count; ++i) {
        timers->push_back(functionOf<void*(const std::function<void(void*)>*, void*, int)>(
            "startTimer")(&callback, nullptr, 1));
    }
}

void startTimers(int count)
{
    makeTimers(count);
    for (int i = 0; i < 20'000 && counters().calls < 3 * count; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    if (counters().calls < 3 * count) {
        fail("the timers do not run");
    }
}

bool libraryIsMapped()
{
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        if (line.find("libKivGCL") != std::string::npos) {
            return true;
        }
    }
    return false;
}

// Without a worker the library goes away: what follows would be no test otherwise.
int unloadIdle()
{
    startTimers(2);
    for (void* const timer : *timers) {
        functionOf<void(void*)>("destroyTimer")(timer);
    }
    dlclose(plugin);
    if (libraryIsMapped()) {
        fail("the library was not unloaded");
    }
    return 0;
}

// With workers it stays, and they run on.
int unloadRunning()
{
    startTimers(2);
    dlclose(plugin);
    if (!libraryIsMapped()) {
        fail("the library was unloaded under its workers");
    }
    const int before = counters().calls;
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    if (counters().calls <= before) {
        fail("the workers have stopped");
    }
    return 0;
}

// Runs `body` in children, one after another, each of which must end with `code`.
template <typename Body>
int inChildren(int count, int code, Body body)
{
    for (int run = 0; run < count; ++run) {
        const pid_t child = fork();
        if (child == 0) {
            body(run);
        }
        int status = 0;
        if (child < 0 || waitpid(child, &status, 0) != child) {
            fail("no child");
        }
        if (!WIFEXITED(status) || WEXITSTATUS(status) != code) {
            std::fprintf(stderr, "run %d: status %#x\n", run, static_cast<unsigned>(status));
            fail("a child did not end well");
        }
    }
    return 0;
}

// The library is unloaded at once, while the workers have hardly begun.
int unloadFresh(const char* path)
{
    return inChildren(20, 0, [path](int) {
        load(path);
        makeTimers(2);
        dlclose(plugin);
        for (int i = 0; i < 20'000 && counters().calls < 6; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        std::_Exit(counters().calls < 6 ? 1 : 0);
    });
}

// A timer is built, runs and is destroyed by an initialiser of a library that is being loaded.
int runWhileLoading(const char* path)
{
    if (setenv("TIMER_WHILE_LOADING", "1", 1) != 0) {
        fail("no environment");
    }
    load(path);
    dlclose(plugin);
    if (libraryIsMapped()) {
        fail("the library was not unloaded");
    }
    return 0;
}

// Where the trace framework gives no implementation, nothing is written, whatever it says about the
// level.
int workSilently(const char* path)
{
    gcltest::buildTracesWithoutImpl(true);
    load(path);
    startTimers(2);
    for (void* const timer : *timers) {
        functionOf<void(void*)>("destroyTimer")(timer);
    }
    if (!gcltest::takeReports().empty()) {
        fail("there are messages");
    }
    return 0;
}

// Processes end while their timers' callbacks throw.
int exitRunning(const char* path)
{
    return inChildren(15, 7, [path](int run) {
        load(path);
        gcltest::setTraceLevel("KIV.CTimer", run % 2 == 0 ? 3 : 5);
        startTimers(8);
        std::exit(7);
    });
}

// The process is ended by a callback, on its worker, while other timers run.
int exitFromCallback(const char* path)
{
    return inChildren(15, 7, [path](int) {
        load(path);
        startTimers(4);
        const std::function<void(void*)> leave = [](void*) {
            static std::atomic<bool> first{true}; // exit is called once
            if (first.exchange(false)) {
                std::exit(7);
            }
        };
        functionOf<void*(const std::function<void(void*)>*, void*, int)>("startTimer")(&leave,
                                                                                       nullptr, 1);
        std::this_thread::sleep_for(std::chrono::seconds(60));
        std::_Exit(1);
    });
}

// The process is ended by a thread that is neither the first one nor a worker.
int exitFromThread(const char* path)
{
    return inChildren(15, 7, [path](int) {
        load(path);
        startTimers(8);
        std::thread([] { std::exit(7); }).detach();
        std::this_thread::sleep_for(std::chrono::seconds(60));
        std::_Exit(1);
    });
}

// The program is not linked to the library, which has what clang's check of an object's type needs.
#define NO_TYPE_CHECK __attribute__((no_sanitize("vptr")))

NO_TYPE_CHECK void stopTimer(void* timer)
{
    static_cast<ICTimer*>(timer)->stop();
}

NO_TYPE_CHECK bool restartTimer(void* timer)
{
    return static_cast<ICTimer*>(timer)->start(std::chrono::milliseconds(1));
}

// Timers that stand still keep the library as well: they can be started.
int unloadStopped()
{
    startTimers(2);
    for (void* const timer : *timers) {
        stopTimer(timer);
    }
    dlclose(plugin);
    if (!libraryIsMapped()) {
        fail("the library was unloaded under its workers");
    }
    const int before = counters().calls;
    for (void* const timer : *timers) {
        if (!restartTimer(timer)) {
            fail("a stopped timer does not start");
        }
    }
    for (int i = 0; i < 20'000 && counters().calls < before + 6; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    if (counters().calls < before + 6) {
        fail("the timers do not run again");
    }
    return 0;
}

// Children of a process whose timers run may exec and _exit, and its timers run on.
int forkRunning(const char* path)
{
    load(path);
    startTimers(8);
    inChildren(30, 7, [](int run) {
        if (run % 2 == 0) {
            std::_Exit(7);
        }
        execl("/bin/sh", "sh", "-c", "exit 7", static_cast<char*>(nullptr));
        std::_Exit(1);
    });
    const int before = counters().calls;
    for (int i = 0; i < 20'000 && counters().calls < before + 24; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    for (void* const timer : *timers) {
        functionOf<void(void*)>("destroyTimer")(timer);
    }
    return counters().calls < before + 24 ? 1 : 0;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3) {
        fail("TimerProbe <plug-in> <mode>");
    }
    const std::string mode = argv[2];
    if (mode == "exit") {
        return exitRunning(argv[1]);
    }
    if (mode == "exit-callback") {
        return exitFromCallback(argv[1]);
    }
    if (mode == "exit-thread") {
        return exitFromThread(argv[1]);
    }
    if (mode == "fork") {
        return forkRunning(argv[1]);
    }
    if (mode == "fresh") {
        return unloadFresh(argv[1]);
    }
    if (mode == "silent") {
        return workSilently(argv[1]);
    }
    if (mode == "loading") {
        return runWhileLoading(argv[1]);
    }
    load(argv[1]);
    if (mode == "stopped") {
        return unloadStopped();
    }
    return mode == "idle" ? unloadIdle() : unloadRunning();
}
