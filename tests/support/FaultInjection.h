// Faults of the platform, for tests: each C library function of the list below goes through this
// test program, where a test can count its calls, fail the n-th one or put a function of its own in
// its place. The library under test needs no hooks for it.
//
//     Fault fault(calls::sem_wait, {-1, EINTR, 2});     // the 2nd call returns -1 with EINTR
//     Count count(calls::newArray);                     // counts, fails nothing
//     Hook hook(calls::recv, [](int, void*, size_t, int) -> ssize_t { return 0; });
//
// Each holds from its construction to its destruction, one at a time for each function, and for the
// calls of the thread that made it unless Threads::all is given. Calls made from inside a hook's
// own function go to the C library, and so does `calls::name.real(...)`.
#ifndef TESTS_SUPPORT_FAULTINJECTION_H
#define TESTS_SUPPORT_FAULTINJECTION_H

#include <dlfcn.h>
#include <netdb.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <time.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <new>
#include <type_traits>
#include <utility>
#include <vector>

namespace gcltest {

enum class Threads { caller, all };

template <typename Signature>
class Hook;

// One interposed function. The objects are constant-initialised: calls come in before any code of
// this program has run.
template <typename Signature>
class Call;

template <typename Result, typename... Arguments>
class Call<Result(Arguments...)> {
public:
    constexpr explicit Call(const char* symbolName) : symbol(symbolName) {}

    // The C library's function.
    Result real(Arguments... arguments)
    {
        auto* function = reinterpret_cast<Result (*)(Arguments...)>(next.load());
        if (function == nullptr) {
            void* const address = dlsym(RTLD_NEXT, symbol);
            if (address == nullptr) {
                std::abort();
            }
            next.store(address);
            function = reinterpret_cast<Result (*)(Arguments...)>(address);
        }
        return function(arguments...);
    }

    // What the function's name stands for in this process.
    Result operator()(Arguments... arguments)
    {
        Hook<Result(Arguments...)>* const active = hook.load();
        if (active == nullptr || !active->covers()) {
            return real(arguments...);
        }
        return active->run(arguments...);
    }

private:
    friend class Hook<Result(Arguments...)>;
    const char* symbol;
    std::atomic<void*> next{nullptr};
    std::atomic<Hook<Result(Arguments...)>*> hook{nullptr};
};

template <typename Result, typename... Arguments>
class Hook<Result(Arguments...)> {
public:
    Hook(Call<Result(Arguments...)>& hookedCall, std::function<Result(Arguments...)> hookBody,
         Threads coveredThreads = Threads::caller)
        : call(hookedCall),
          body(std::move(hookBody)),
          threads(coveredThreads),
          owner(pthread_self())
    {
        if (call.hook.exchange(this) != nullptr) {
            std::abort(); // one at a time
        }
    }
    ~Hook() { call.hook.store(nullptr); }
    Hook(const Hook&) = delete;
    Hook& operator=(const Hook&) = delete;

    // Calls that the hook has answered so far.
    unsigned calls() const { return callCount.load(); }

private:
    friend class Call<Result(Arguments...)>;

    bool covers() const
    {
        return !inside && (threads == Threads::all || pthread_equal(owner, pthread_self()) != 0);
    }

    Result run(Arguments... arguments)
    {
        ++callCount;
        struct Inside {
            Inside() { inside = true; }
            ~Inside() { inside = false; }
        } guard;
        return body(arguments...);
    }

    static inline thread_local bool inside = false;
    Call<Result(Arguments...)>& call;
    std::function<Result(Arguments...)> body;
    Threads threads;
    pthread_t owner;
    std::atomic<unsigned> callCount{0};
};

template <typename Signature, typename Body>
Hook(Call<Signature>&, Body) -> Hook<Signature>;
template <typename Signature, typename Body>
Hook(Call<Signature>&, Body, Threads) -> Hook<Signature>;

// How a call fails. A function that returns a pointer (operator new) throws std::bad_alloc instead.
struct Failure {
    static constexpr unsigned kForGood = UINT32_MAX;
    int result;         // what the call returns
    int error;          // what it leaves in errno; 0 leaves errno alone
    unsigned nth = 1;   // the first call that fails, counted from 1
    unsigned times = 1; // how many calls in a row fail
};

template <typename Signature>
class Fault;

template <typename Result, typename... Arguments>
class Fault<Result(Arguments...)> {
public:
    Fault(Call<Result(Arguments...)>& failingCall, Failure failureToMake,
          Threads threads = Threads::caller)
        : call(failingCall),
          failure(failureToMake),
          hook(
              failingCall, [this](Arguments... arguments) -> Result { return run(arguments...); },
              threads)
    {
    }

    // Calls seen so far, failed ones included.
    unsigned calls() const { return callCount.load(); }
    unsigned failures() const { return failureCount.load(); }

private:
    Result run(Arguments... arguments)
    {
        const unsigned number = ++callCount;
        if (number < failure.nth || number - failure.nth >= failure.times) {
            return call.real(arguments...);
        }
        ++failureCount;
        if (failure.error != 0) {
            errno = failure.error;
        }
        if constexpr (std::is_pointer_v<Result>) {
            throw std::bad_alloc();
        } else {
            return static_cast<Result>(failure.result);
        }
    }

    Call<Result(Arguments...)>& call;
    Failure failure;
    std::atomic<unsigned> callCount{0};
    std::atomic<unsigned> failureCount{0};
    Hook<Result(Arguments...)> hook;
};

template <typename Signature>
Fault(Call<Signature>&, Failure) -> Fault<Signature>;
template <typename Signature>
Fault(Call<Signature>&, Failure, Threads) -> Fault<Signature>;

// Counts the calls of a function and fails none.
template <typename Signature>
class Count : public Fault<Signature> {
public:
    explicit Count(Call<Signature>& countedCall, Threads threads = Threads::caller)
        : Fault<Signature>(countedCall, {0, 0, 1, 0}, threads)
    {
    }
};

template <typename Signature>
Count(Call<Signature>&) -> Count<Signature>;
template <typename Signature>
Count(Call<Signature>&, Threads) -> Count<Signature>;

// A time as the timed calls of the platform's 64-bit time interface take it: on 32-bit processors
// a type of its own, whose calls have names of their own.
#if __SIZEOF_POINTER__ == 4
struct Timespec64 {
    int64_t tv_sec;
    int32_t tv_nsec;
    int32_t padding;
};
#define GCLTEST_CLOCK_GETTIME __clock_gettime64
#define GCLTEST_COND_TIMEDWAIT __pthread_cond_timedwait64
#else
using Timespec64 = timespec;
#define GCLTEST_CLOCK_GETTIME clock_gettime
#define GCLTEST_COND_TIMEDWAIT pthread_cond_timedwait
#endif

// The C++ library's names of operator new and operator new[]. Operator delete[] has one name; the
// library never frees an array by the form that is told the size.
#if __SIZEOF_SIZE_T__ == 4
#define GCLTEST_NEW _Znwj
#define GCLTEST_NEW_ARRAY _Znaj
#else
#define GCLTEST_NEW _Znwm
#define GCLTEST_NEW_ARRAY _Znam
#endif

// The interposed functions: F(name in calls::, symbol, result, parameters, arguments). Functions of
// a variable number of arguments are given the one that the library passes.
#define GCLTEST_CALLS(F)                                                                           \
    F(newScalar, GCLTEST_NEW, void*, (size_t size), (size))                                        \
    F(newArray, GCLTEST_NEW_ARRAY, void*, (size_t size), (size))                                   \
    F(deleteArray, _ZdaPv, void, (void* memory), (memory))                                         \
    F(puts, puts, int, (const char* text), (text))                                                 \
    F(openlog, openlog, void, (const char* name, int options, int facility),                       \
      (name, options, facility))                                                                   \
    F(setlogmask, setlogmask, int, (int mask), (mask))                                             \
    F(sem_init, sem_init, int, (sem_t * sem, int shared, unsigned value), (sem, shared, value))    \
    F(sem_wait, sem_wait, int, (sem_t * sem), (sem))                                               \
    F(sem_post, sem_post, int, (sem_t * sem), (sem))                                               \
    F(sem_destroy, sem_destroy, int, (sem_t * sem), (sem))                                         \
    F(pthread_mutex_init, pthread_mutex_init, int,                                                 \
      (pthread_mutex_t * mutex, const pthread_mutexattr_t* attributes), (mutex, attributes))       \
    F(pthread_mutex_lock, pthread_mutex_lock, int, (pthread_mutex_t * mutex), (mutex))             \
    F(pthread_mutex_unlock, pthread_mutex_unlock, int, (pthread_mutex_t * mutex), (mutex))         \
    F(pthread_mutex_destroy, pthread_mutex_destroy, int, (pthread_mutex_t * mutex), (mutex))       \
    F(pthread_create, pthread_create, int,                                                         \
      (pthread_t * thread, const pthread_attr_t* attributes, void* (*body)(void*),                 \
       void* argument),                                                                            \
      (thread, attributes, body, argument))                                                        \
    F(pthread_getschedparam, pthread_getschedparam, int,                                           \
      (pthread_t thread, int* policy, sched_param* parameters), (thread, policy, parameters))      \
    F(pthread_setschedparam, pthread_setschedparam, int,                                           \
      (pthread_t thread, int policy, const sched_param* parameters), (thread, policy, parameters)) \
    F(sched_get_priority_min, sched_get_priority_min, int, (int policy), (policy))                 \
    F(sched_get_priority_max, sched_get_priority_max, int, (int policy), (policy))                 \
    F(prctl, prctl, int,                                                                           \
      (int option, unsigned long a, unsigned long b, unsigned long c, unsigned long d),            \
      (option, a, b, c, d))                                                                        \
    F(clock_gettime64, GCLTEST_CLOCK_GETTIME, int, (clockid_t clock, gcltest::Timespec64 * time),  \
      (clock, time))                                                                               \
    F(pthread_cond_timedwait64, GCLTEST_COND_TIMEDWAIT, int,                                       \
      (pthread_cond_t * condition, pthread_mutex_t * mutex, const gcltest::Timespec64* time),      \
      (condition, mutex, time))                                                                    \
    F(nanosleep, nanosleep, int, (const timespec* request, timespec* remainder),                   \
      (request, remainder))                                                                        \
    F(getaddrinfo, getaddrinfo, int,                                                               \
      (const char* host, const char* service, const addrinfo* hints, addrinfo** result),           \
      (host, service, hints, result))                                                              \
    F(freeaddrinfo, freeaddrinfo, void, (addrinfo * list), (list))                                 \
    F(socket, socket, int, (int domain, int type, int protocol), (domain, type, protocol))         \
    F(setsockopt, setsockopt, int,                                                                 \
      (int fd, int level, int name, const void* value, socklen_t length),                          \
      (fd, level, name, value, length))                                                            \
    F(bind, bind, int, (int fd, const sockaddr* address, socklen_t length), (fd, address, length)) \
    F(listen, listen, int, (int fd, int backlog), (fd, backlog))                                   \
    F(accept, accept, int, (int fd, sockaddr* address, socklen_t* length), (fd, address, length))  \
    F(connect, connect, int, (int fd, const sockaddr* address, socklen_t length),                  \
      (fd, address, length))                                                                       \
    F(select, select, int,                                                                         \
      (int count, fd_set* readable, fd_set* writable, fd_set* exceptional, timeval* limit),        \
      (count, readable, writable, exceptional, limit))                                             \
    F(send, send, ssize_t, (int fd, const void* data, size_t length, int flags),                   \
      (fd, data, length, flags))                                                                   \
    F(recv, recv, ssize_t, (int fd, void* data, size_t length, int flags),                         \
      (fd, data, length, flags))                                                                   \
    F(read, read, ssize_t, (int fd, void* data, size_t length), (fd, data, length))                \
    F(write, write, ssize_t, (int fd, const void* data, size_t length), (fd, data, length))        \
    F(writev, writev, ssize_t, (int fd, const iovec* pieces, int count), (fd, pieces, count))      \
    F(shutdown, shutdown, int, (int fd, int how), (fd, how))                                       \
    F(close, close, int, (int fd), (fd))                                                           \
    F(ioctl, ioctl, int, (int fd, unsigned long request, void* argument), (fd, request, argument)) \
    F(fcntl, fcntl, int, (int fd, int command, long argument), (fd, command, argument))            \
    F(perror, perror, void, (const char* text), (text))                                            \
    F(inet_aton, inet_aton, int, (const char* text, in_addr* address), (text, address))            \
    F(sched_yield, sched_yield, int, (), ())                                                       \
    F(strerror, strerror, char*, (int error), (error))

namespace calls {

#define GCLTEST_DECLARE(name, symbol, result, parameters, arguments)                               \
    extern Call<result parameters> name;
GCLTEST_CALLS(GCLTEST_DECLARE)
#undef GCLTEST_DECLARE

// syslog(3), with its text formatted; it never reaches the system's log.
extern Call<void(int priority, const char* text)> syslog;

} // namespace calls

// Notes the arrays that this thread frees while it lives.
class Frees {
public:
    // Those since the last look, in their order; freeing NULL does not count.
    std::vector<const void*> memory() const { return std::exchange(freed, {}); }

private:
    mutable std::vector<const void*> freed;
    Hook<void(void*)> hook{calls::deleteArray, [this](void* memory) {
                               if (memory != nullptr) {
                                   freed.push_back(memory);
                               }
                               calls::deleteArray.real(memory);
                           }};
};

} // namespace gcltest

#endif // TESTS_SUPPORT_FAULTINJECTION_H
