// CallTable: the functions of the C and C++ runtimes whose calls tests can count and fail. The
// in-process form (FaultInjection.h) and the preload library libKivGCLFaults.so are made from it.
//
// GCLTEST_CALLS(F) holds one row for each function:
//   F(name, symbol, result, parameters, arguments, kind, value, error)
//     name    in gcltest::calls, and in KIVGCL_FAULTS
//     symbol  the linker's name
//     kind    how the function tells of a failure, a gcltest::FailureKind
//     value   what it then returns (kind byErrno)
//     error   the error that is given where a test names none
// Functions of a variable number of arguments are given those that the library passes, or the text
// made of them.
#ifndef GCL_TESTING_CALLTABLE_H
#define GCL_TESTING_CALLTABLE_H

#include <dlfcn.h>
#include <errno.h>
#include <netdb.h>
#include <poll.h>
#include <pthread.h>
#include <semaphore.h>
#include <signal.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <sys/uio.h>
#include <time.h>

namespace gcltest {

// How a function tells of a failure.
enum class FailureKind {
    byErrno,     // by a value, and the error in errno
    byResult,    // by the error as its result
    byException, // operator new: by std::bad_alloc
    never        // not at all: its calls are counted only
};

// Times as the calls of the platform's 64-bit time interface take them: on 32-bit processors types
// of their own, whose calls have names of their own.
#if __SIZEOF_POINTER__ == 4
struct Timespec64 {
    int64_t tv_sec;
    int32_t tv_nsec;
    int32_t padding;
};
struct Timeval64 {
    int64_t tv_sec;
    int64_t tv_usec;
};
typedef int64_t Time64;
#else
typedef timespec Timespec64;
typedef timeval Timeval64;
typedef time_t Time64;
#endif

} // namespace gcltest

// The C++ library's names of operator new and operator new[]. Operator delete[] has one name; the
// library never frees an array by the form that is told the size.
#if __SIZEOF_SIZE_T__ == 4
#define GCLTEST_NEW _Znwj
#define GCLTEST_NEW_ARRAY _Znaj
#else
#define GCLTEST_NEW _Znwm
#define GCLTEST_NEW_ARRAY _Znam
#endif

#define GCLTEST_CALLS(F)                                                                           \
    F(newScalar, GCLTEST_NEW, void*, (size_t size), (size), byException, 0, 0)                     \
    F(newArray, GCLTEST_NEW_ARRAY, void*, (size_t size), (size), byException, 0, 0)                \
    F(deleteArray, _ZdaPv, void, (void* memory), (memory), never, 0, 0)                            \
    F(puts, puts, int, (const char* text), (text), byErrno, EOF, EIO)                              \
    F(putc, putc, int, (int character, FILE* stream), (character, stream), byErrno, EOF, EIO)      \
    F(putchar, putchar, int, (int character), (character), byErrno, EOF, EIO)                      \
    F(vsnprintf, vsnprintf, int, (char* buffer, size_t size, const char* format, va_list values),  \
      (buffer, size, format, values), byErrno, -1, ENOMEM)                                         \
    F(openlog, openlog, void, (const char* name, int options, int facility),                       \
      (name, options, facility), never, 0, 0)                                                      \
    F(setlogmask, setlogmask, int, (int mask), (mask), never, 0, 0)                                \
    F(sem_init, sem_init, int, (sem_t * sem, int shared, unsigned value), (sem, shared, value),    \
      byErrno, -1, ENOSYS)                                                                         \
    F(sem_wait, sem_wait, int, (sem_t * sem), (sem), byErrno, -1, EINTR)                           \
    F(sem_post, sem_post, int, (sem_t * sem), (sem), byErrno, -1, EOVERFLOW)                       \
    F(sem_destroy, sem_destroy, int, (sem_t * sem), (sem), byErrno, -1, EINVAL)                    \
    F(pthread_mutex_init, pthread_mutex_init, int,                                                 \
      (pthread_mutex_t * mutex, const pthread_mutexattr_t* attributes), (mutex, attributes),       \
      byResult, 0, ENOMEM)                                                                         \
    F(pthread_mutex_lock, pthread_mutex_lock, int, (pthread_mutex_t * mutex), (mutex), byResult,   \
      0, EDEADLK)                                                                                  \
    F(pthread_mutex_unlock, pthread_mutex_unlock, int, (pthread_mutex_t * mutex), (mutex),         \
      byResult, 0, EPERM)                                                                          \
    F(pthread_mutex_destroy, pthread_mutex_destroy, int, (pthread_mutex_t * mutex), (mutex),       \
      byResult, 0, EBUSY)                                                                          \
    F(pthread_create, pthread_create, int,                                                         \
      (pthread_t * thread, const pthread_attr_t* attributes, void* (*body)(void*),                 \
       void* argument),                                                                            \
      (thread, attributes, body, argument), byResult, 0, EAGAIN)                                   \
    F(pthread_getschedparam, pthread_getschedparam, int,                                           \
      (pthread_t thread, int* policy, sched_param* parameters), (thread, policy, parameters),      \
      byResult, 0, ESRCH)                                                                          \
    F(pthread_setschedparam, pthread_setschedparam, int,                                           \
      (pthread_t thread, int policy, const sched_param* parameters), (thread, policy, parameters), \
      byResult, 0, EPERM)                                                                          \
    F(pthread_setcancelstate, pthread_setcancelstate, int, (int state, int* oldState),             \
      (state, oldState), byResult, 0, EINVAL)                                                      \
    F(pthread_key_create, pthread_key_create, int, (pthread_key_t * key, void (*atEnd)(void*)),    \
      (key, atEnd), byResult, 0, EAGAIN)                                                           \
    F(pthread_key_delete, pthread_key_delete, int, (pthread_key_t key), (key), byResult, 0,        \
      EINVAL)                                                                                      \
    F(pthread_setspecific, pthread_setspecific, int, (pthread_key_t key, const void* value),       \
      (key, value), byResult, 0, ENOMEM)                                                           \
    F(pthread_sigmask, pthread_sigmask, int, (int how, const sigset_t* set, sigset_t* oldSet),     \
      (how, set, oldSet), byResult, 0, EINVAL)                                                     \
    F(register_atfork, __register_atfork, int,                                                     \
      (void (*prepare)(), void (*parent)(), void (*child)(), void* handle),                        \
      (prepare, parent, child, handle), byResult, 0, ENOMEM)                                       \
    F(sched_get_priority_min, sched_get_priority_min, int, (int policy), (policy), byErrno, -1,    \
      EINVAL)                                                                                      \
    F(sched_get_priority_max, sched_get_priority_max, int, (int policy), (policy), byErrno, -1,    \
      EINVAL)                                                                                      \
    F(sched_yield, sched_yield, int, (), (), byErrno, -1, ENOSYS)                                  \
    F(prctl, prctl, int,                                                                           \
      (int option, unsigned long a, unsigned long b, unsigned long c, unsigned long d),            \
      (option, a, b, c, d), byErrno, -1, EINVAL)                                                   \
    F(raise, raise, int, (int signal), (signal), byErrno, -1, EINVAL)                              \
    F(sigemptyset, sigemptyset, int, (sigset_t * set), (set), byErrno, -1, EINVAL)                 \
    F(sigaddset, sigaddset, int, (sigset_t * set, int signal), (set, signal), byErrno, -1, EINVAL) \
    F(sigdelset, sigdelset, int, (sigset_t * set, int signal), (set, signal), byErrno, -1, EINVAL) \
    F(sigismember, sigismember, int, (const sigset_t* set, int signal), (set, signal), byErrno,    \
      -1, EINVAL)                                                                                  \
    F(sigpending, sigpending, int, (sigset_t * set), (set), byErrno, -1, EFAULT)                   \
    F(sigtimedwait, sigtimedwait, int,                                                             \
      (const sigset_t* set, siginfo_t* info, const timespec* limit), (set, info, limit), byErrno,  \
      -1, EAGAIN)                                                                                  \
    F(clock_gettime, clock_gettime, int, (clockid_t clock, timespec * time), (clock, time),        \
      byErrno, -1, EINVAL)                                                                         \
    F(pthread_cond_wait, pthread_cond_wait, int,                                                   \
      (pthread_cond_t * condition, pthread_mutex_t * mutex), (condition, mutex), never, 0, 0)      \
    F(pthread_cond_timedwait, pthread_cond_timedwait, int,                                         \
      (pthread_cond_t * condition, pthread_mutex_t * mutex, const timespec* time),                 \
      (condition, mutex, time), byResult, 0, ETIMEDOUT)                                            \
    F(nanosleep, nanosleep, int, (const timespec* request, timespec* remainder),                   \
      (request, remainder), byErrno, -1, EINTR)                                                    \
    F(gmtime_r, gmtime_r, tm*, (const time_t* time, tm* result), (time, result), byErrno, 0,       \
      EOVERFLOW)                                                                                   \
    F(getaddrinfo, getaddrinfo, int,                                                               \
      (const char* host, const char* service, const addrinfo* hints, addrinfo** result),           \
      (host, service, hints, result), byResult, 0, EAI_AGAIN)                                      \
    F(freeaddrinfo, freeaddrinfo, void, (addrinfo * list), (list), never, 0, 0)                    \
    F(inet_aton, inet_aton, int, (const char* text, in_addr* address), (text, address), byErrno,   \
      0, 0)                                                                                        \
    F(socket, socket, int, (int domain, int type, int protocol), (domain, type, protocol),         \
      byErrno, -1, EMFILE)                                                                         \
    F(setsockopt, setsockopt, int,                                                                 \
      (int fd, int level, int name, const void* value, socklen_t length),                          \
      (fd, level, name, value, length), byErrno, -1, ENOMEM)                                       \
    F(bind, bind, int, (int fd, const sockaddr* address, socklen_t length), (fd, address, length), \
      byErrno, -1, EADDRINUSE)                                                                     \
    F(listen, listen, int, (int fd, int backlog), (fd, backlog), byErrno, -1, EADDRINUSE)          \
    F(accept, accept, int, (int fd, sockaddr* address, socklen_t* length), (fd, address, length),  \
      byErrno, -1, ECONNABORTED)                                                                   \
    F(connect, connect, int, (int fd, const sockaddr* address, socklen_t length),                  \
      (fd, address, length), byErrno, -1, ECONNREFUSED)                                            \
    F(select, select, int,                                                                         \
      (int count, fd_set* readable, fd_set* writable, fd_set* exceptional, timeval* limit),        \
      (count, readable, writable, exceptional, limit), byErrno, -1, EINTR)                         \
    F(poll, poll, int, (pollfd * entries, nfds_t count, int limit), (entries, count, limit),       \
      byErrno, -1, EINTR)                                                                          \
    F(send, send, ssize_t, (int fd, const void* data, size_t length, int flags),                   \
      (fd, data, length, flags), byErrno, -1, ECONNRESET)                                          \
    F(recv, recv, ssize_t, (int fd, void* data, size_t length, int flags),                         \
      (fd, data, length, flags), byErrno, -1, ECONNRESET)                                          \
    F(read, read, ssize_t, (int fd, void* data, size_t length), (fd, data, length), byErrno, -1,   \
      EIO)                                                                                         \
    F(write, write, ssize_t, (int fd, const void* data, size_t length), (fd, data, length),        \
      byErrno, -1, EIO)                                                                            \
    F(writev, writev, ssize_t, (int fd, const iovec* pieces, int count), (fd, pieces, count),      \
      byErrno, -1, ECONNRESET)                                                                     \
    F(open, open, int, (const char* path, int flags, mode_t mode), (path, flags, mode), byErrno,   \
      -1, ENOENT)                                                                                  \
    F(shutdown, shutdown, int, (int fd, int how), (fd, how), byErrno, -1, ENOTCONN)                \
    F(close, close, int, (int fd), (fd), byErrno, -1, EIO)                                         \
    F(ioctl, ioctl, int, (int fd, unsigned long request, void* argument), (fd, request, argument), \
      byErrno, -1, EINVAL)                                                                         \
    F(fcntl, fcntl, int, (int fd, int command, long argument), (fd, command, argument), byErrno,   \
      -1, EINVAL)                                                                                  \
    F(syscall, syscall, long, (long number, long a, long b, long c, long d, long e, long f),       \
      (number, a, b, c, d, e, f), byErrno, -1, ENOSYS)                                             \
    F(secure_getenv, secure_getenv, char*, (const char* variable), (variable), byErrno, 0, 0)      \
    F(dlopen, dlopen, void*, (const char* path, int flags), (path, flags), byErrno, 0, 0)          \
    F(dlclose, dlclose, int, (void* handle), (handle), byErrno, -1, 0)                             \
    F(dladdr, dladdr, int, (const void* address, Dl_info* info), (address, info), byErrno, 0, 0)   \
    F(perror, perror, void, (const char* text), (text), never, 0, 0)                               \
    F(strerror, strerror, char*, (int error), (error), never, 0, 0)

// Functions that are given the text made of their arguments, by interposers of their own, with the
// columns of GCLTEST_CALLS: `symbol` is the function that writes the text.
#define GCLTEST_TEXT_CALLS(F)                                                                      \
    F(printf, vprintf, int, (const char* format, va_list values), (format, values), byErrno, -1,   \
      EIO)                                                                                         \
    F(snprintf, vsnprintf, int, (char* buffer, size_t size, const char* format, va_list values),   \
      (buffer, size, format, values), byErrno, -1, ENOMEM)
#define GCLTEST_LOG_CALLS(F)                                                                       \
    F(syslog, syslog, void, (int priority, const char* text), (priority, text), never, 0, 0)

// What only the preload library can fail: a test program's own allocator would be in the way of its
// sanitizer's.
#define GCLTEST_MEMORY_CALLS(F)                                                                    \
    F(malloc, malloc, void*, (size_t size), (size), byErrno, 0, ENOMEM)                            \
    F(calloc, calloc, void*, (size_t count, size_t size), (count, size), byErrno, 0, ENOMEM)       \
    F(realloc, realloc, void*, (void* memory, size_t size), (memory, size), byErrno, 0, ENOMEM)

// Names that the functions have where the caller is compiled with 64-bit time, on 32-bit
// processors:
//   F(name in gcltest::calls, name in GCLTEST_CALLS, symbol, result, parameters, arguments)
// On all others they are the functions of GCLTEST_CALLS.
#define GCLTEST_TIME64_CALLS(F)                                                                    \
    F(clock_gettime64, clock_gettime, __clock_gettime64, int,                                      \
      (clockid_t clock, gcltest::Timespec64 * time), (clock, time))                                \
    F(pthread_cond_timedwait64, pthread_cond_timedwait, __pthread_cond_timedwait64, int,           \
      (pthread_cond_t * condition, pthread_mutex_t * mutex, const gcltest::Timespec64* time),      \
      (condition, mutex, time))                                                                    \
    F(nanosleep64, nanosleep, __nanosleep64, int,                                                  \
      (const gcltest::Timespec64* request, gcltest::Timespec64* remainder), (request, remainder))  \
    F(gmtime_r64, gmtime_r, __gmtime64_r, tm*, (const gcltest::Time64* time, tm* result),          \
      (time, result))                                                                              \
    F(select64, select, __select64, int,                                                           \
      (int count, fd_set* readable, fd_set* writable, fd_set* exceptional,                         \
       gcltest::Timeval64* limit),                                                                 \
      (count, readable, writable, exceptional, limit))                                             \
    F(sigtimedwait64, sigtimedwait, __sigtimedwait64, int,                                         \
      (const sigset_t* set, siginfo_t* info, const gcltest::Timespec64* limit),                    \
      (set, info, limit))

// Further names of functions in GCLTEST_CALLS, with the same parameters and a body of their own.
#define GCLTEST_OTHER_NAMES_COMMON(F)                                                              \
    F(open, open64, int, (const char* path, int flags, mode_t mode), (path, flags, mode))          \
    F(fcntl, fcntl64, int, (int fd, int command, long argument), (fd, command, argument))
#if __SIZEOF_POINTER__ == 4
#define GCLTEST_OTHER_NAMES(F)                                                                     \
    GCLTEST_OTHER_NAMES_COMMON(F)                                                                  \
    F(fcntl, __fcntl_time64, int, (int fd, int command, long argument), (fd, command, argument))   \
    F(ioctl, __ioctl_time64, int, (int fd, unsigned long request, void* argument),                 \
      (fd, request, argument))                                                                     \
    F(prctl, __prctl_time64, int,                                                                  \
      (int option, unsigned long a, unsigned long b, unsigned long c, unsigned long d),            \
      (option, a, b, c, d))                                                                        \
    F(setsockopt, __setsockopt64, int,                                                             \
      (int fd, int level, int name, const void* value, socklen_t length),                          \
      (fd, level, name, value, length))
#else
#define GCLTEST_OTHER_NAMES(F) GCLTEST_OTHER_NAMES_COMMON(F)
#endif

// Names that the functions have where the caller is compiled with _FORTIFY_SOURCE, and the check
// that goes with it: F(name, symbol, result, parameters, arguments, bytes wanted, bytes there)
#define GCLTEST_CHECKED_CALLS(F)                                                                   \
    F(read, __read_chk, ssize_t, (int fd, void* data, size_t length, size_t room),                 \
      (fd, data, length), length, room)                                                            \
    F(recv, __recv_chk, ssize_t, (int fd, void* data, size_t length, size_t room, int flags),      \
      (fd, data, length, flags), length, room)                                                     \
    F(poll, __poll_chk, int, (pollfd * entries, nfds_t count, int limit, size_t room),             \
      (entries, count, limit), count, room / sizeof(pollfd))                                       \
    F(open, __open_2, int, (const char* path, int flags), (path, flags, 0), 0, 0)                  \
    F(vsnprintf, __vsnprintf_chk, int,                                                             \
      (char* buffer, size_t size, int, size_t room, const char* format, va_list values),           \
      (buffer, size, format, values), size, room)

#endif // GCL_TESTING_CALLTABLE_H
