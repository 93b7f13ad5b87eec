// The wall clock and the timed wait on it, in signed 64-bit nanoseconds since the epoch.
//
// These are the only places of the library that handle absolute times of the wall clock. They are
// compiled with a 64-bit time_t also on 32-bit processors, so that they work after 2038-01-19, and
// keep that type to themselves: on such processors the rest of the library has a narrower one.
#ifndef GCL_PRIVATE_CLOCK_H
#define GCL_PRIVATE_CLOCK_H

#include <pthread.h>

#include <cstdint>

namespace gcl {

// The time of CLOCK_REALTIME.
int64_t wallClockNs();

// Waits on `condition` until the wall clock reaches dueNs at the latest; what ended the wait is
// for the caller to find out. `mutex` is held on entry and on return.
void waitUntilNs(pthread_cond_t* condition, pthread_mutex_t* mutex, int64_t dueNs);

} // namespace gcl

#endif // GCL_PRIVATE_CLOCK_H
