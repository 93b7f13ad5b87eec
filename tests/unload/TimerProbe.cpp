// What becomes of timers that are left over when the library is unloaded or the process ends. The
// program is not linked to the library: a plug-in brings it.
//
//     TimerProbe <plug-in> idle|running|exit
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

#include "tests/support/TraceCapture.h"

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

void startTimers(int count)
{
    const std::function<void(void*)> callback = countAndThrow;
    for (int i = 0; i < count; ++i) {
        timers->push_back(functionOf<void*(const std::function<void(void*)>*, void*, int)>(
            "startTimer")(&callback, nullptr, 1));
    }
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

// One process after another ends while its timers' callbacks throw.
int exitRunning(const char* path)
{
    for (int run = 0; run < 15; ++run) {
        const pid_t child = fork();
        if (child == 0) {
            load(path);
            gcltest::setTraceLevel("KIV.CTimer", run % 2 == 0 ? 3 : 5);
            startTimers(8);
            std::exit(7);
        }
        int status = 0;
        if (child < 0 || waitpid(child, &status, 0) != child) {
            fail("no child");
        }
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 7) {
            std::fprintf(stderr, "run %d: status %#x\n", run, static_cast<unsigned>(status));
            fail("a process with running timers did not end well");
        }
    }
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3) {
        fail("TimerProbe <plug-in> idle|running|exit");
    }
    const std::string mode = argv[2];
    if (mode == "exit") {
        return exitRunning(argv[1]);
    }
    load(argv[1]);
    return mode == "idle" ? unloadIdle() : unloadRunning();
}
