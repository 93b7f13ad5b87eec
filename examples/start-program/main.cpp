// How a process with timers and ignored signals starts another program.
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "Framework/GCL/CTimer.h"

namespace {

// [spawn]
// Starts a program and returns its exit status; -1 if it could not be started or was killed. In the
// child nothing of this process runs, so no lock matters that another thread holds; and SIGPIPE,
// which this process ignores, is what it was.
int runProgram(const char* path, char* const* arguments)
{
    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
    pid_t child = 0;
    const int error = posix_spawn(&child, path, nullptr, &attributes, arguments, environ);
    posix_spawnattr_destroy(&attributes);

    int status = 0;
    if (error != 0 || waitpid(child, &status, 0) != child || !WIFEXITED(status)) {
        return -1;
    }
    return WEXITSTATUS(status);
}
// [spawn end]

} // namespace

int main()
{
    std::signal(SIGPIPE, SIG_IGN);
    CTimer timer([](void*) {}, nullptr, "busy", CTimer::Cyclic);
    if (!timer.start(std::chrono::milliseconds(1))) {
        return EXIT_FAILURE;
    }
    char shell[] = "sh";
    char option[] = "-c";
    char script[] = "exit 3";
    char* const arguments[] = {shell, option, script, nullptr};
    const int status = runProgram("/bin/sh", arguments);
    std::printf("the program ended with %d, the timer is %s\n", status,
                timer.isRunning() ? "running" : "stopped");
    return status == 3 ? EXIT_SUCCESS : EXIT_FAILURE;
} // the timer ends here, before the process does
