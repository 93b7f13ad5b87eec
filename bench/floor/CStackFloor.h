// The floor of CStack: the status gate, the bound, and one access to the array.
#ifndef KIVGCL_BENCH_FLOOR_CSTACKFLOOR_H
#define KIVGCL_BENCH_FLOOR_CSTACKFLOOR_H

#include <cstdint>

#include "bench/floor/Floor.h"

struct FloorStack {
    void** entries;
    int32_t top;
    uint32_t capacity;
    uint32_t status;
};

FLOOR_API void floorStackConstruct(FloorStack* stack, uint32_t capacity);
FLOOR_API void floorStackDestruct(FloorStack* stack);
FLOOR_API uint32_t floorStackPush(FloorStack* stack, void* entry);
FLOOR_API uint32_t floorStackPop(FloorStack* stack, void** entry);

#endif // KIVGCL_BENCH_FLOOR_CSTACKFLOOR_H
