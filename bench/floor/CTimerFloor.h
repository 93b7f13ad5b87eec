// The floor of CTimer: the bare protocol between an owner and a worker thread that waits on the
// wall clock, with one lock and one condition variable. It calls back once for each start.
#ifndef KIVGCL_BENCH_FLOOR_CTIMERFLOOR_H
#define KIVGCL_BENCH_FLOOR_CTIMERFLOOR_H

#include <cstdint>

#include "bench/floor/Floor.h"

struct FloorTimer;

FLOOR_API FloorTimer* floorTimerCreate(void (*callback)(void*), void* argument);
FLOOR_API void floorTimerDestroy(FloorTimer* timer);
FLOOR_API bool floorTimerStart(FloorTimer* timer, int64_t delayNs);
FLOOR_API void floorTimerStop(FloorTimer* timer);

#endif // KIVGCL_BENCH_FLOOR_CTIMERFLOOR_H
