// The floor of CMemoryPool: the checks, and a stack of free blocks in the pool itself.
#ifndef KIVGCL_BENCH_FLOOR_CMEMORYPOOLFLOOR_H
#define KIVGCL_BENCH_FLOOR_CMEMORYPOOLFLOOR_H

#include <cstdint>

#include "bench/floor/CStackFloor.h"
#include "bench/floor/Floor.h"

struct FloorPool {
    uint32_t blockSize;
    uint32_t blocks;
    unsigned char* area;
    FloorStack free;
};

FLOOR_API void floorPoolConstruct(FloorPool* pool, uint32_t blockSize, uint32_t blocks);
FLOOR_API void floorPoolDestruct(FloorPool* pool);
FLOOR_API uint32_t floorPoolMalloc(FloorPool* pool, uint32_t size, void** block);
FLOOR_API uint32_t floorPoolFree(FloorPool* pool, void* block);

#endif // KIVGCL_BENCH_FLOOR_CMEMORYPOOLFLOOR_H
