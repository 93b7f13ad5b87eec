// gcl::SigpipeGuard: keeps SIGPIPE off the calling thread for a scope, for writes to connections
// that the peer may have reset. The write fails all the same, with GCL_SOCKET_FAILED:
//
//     const gcl::SigpipeGuard guard;
//     const gcl::Result result = socket.write(data, size);
//
// The guard blocks SIGPIPE in the thread. At the end it takes the SIGPIPE that is pending since its
// construction, if there is one, off the thread and unblocks the signal, unless it was blocked
// before. Where one was pending before, nothing is taken off: that one stays pending, and so does
// what a write has added. The guard touches neither the signal's handler, nor other threads, nor
// errno. A SIGPIPE that was sent to the process meanwhile, while every thread blocks it, cannot be
// told from that of a write and is taken off as well.
//
// Guards may nest. A guard is destroyed by the thread that made it.
#ifndef GCL_CXX_SIGPIPEGUARD_H
#define GCL_CXX_SIGPIPEGUARD_H

#include <pthread.h>
#include <signal.h>
#include <time.h>

#include <cerrno>

namespace gcl {

class SigpipeGuard {
public:
    SigpipeGuard() noexcept : pendingBefore(isPending())
    {
        // With valid arguments the call cannot fail.
        const sigset_t set = onlySigpipe();
        sigset_t maskBefore;
        sigemptyset(&maskBefore);
        static_cast<void>(pthread_sigmask(SIG_BLOCK, &set, &maskBefore));
        blockedBefore = sigismember(&maskBefore, SIGPIPE) == 1;
    }
    ~SigpipeGuard()
    {
        const int error = errno;
        if (!pendingBefore && isPending()) {
            takeOff();
        }
        if (!blockedBefore) {
            const sigset_t set = onlySigpipe();
            static_cast<void>(pthread_sigmask(SIG_UNBLOCK, &set, nullptr));
        }
        errno = error;
    }
    SigpipeGuard(const SigpipeGuard&) = delete;
    SigpipeGuard& operator=(const SigpipeGuard&) = delete;

private:
    static sigset_t onlySigpipe() noexcept
    {
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGPIPE);
        return set;
    }

    static bool isPending() noexcept
    {
        sigset_t pending;
        sigemptyset(&pending);
        sigpending(&pending);
        return sigismember(&pending, SIGPIPE) == 1;
    }

    // It does not wait: another thread may have taken a signal that was sent to the process. Other
    // signals' handlers may interrupt the call. The zero is the same with either width of time_t.
    static void takeOff() noexcept
    {
        const sigset_t set = onlySigpipe();
        const struct timespec noTime = {};
        while (sigtimedwait(&set, nullptr, &noTime) < 0 && errno == EINTR) {
        }
    }

    bool pendingBefore;
    bool blockedBefore = false;
};

} // namespace gcl

#endif // GCL_CXX_SIGPIPEGUARD_H
