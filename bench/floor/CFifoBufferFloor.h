// The floor of CFifoBuffer: the calls of its locks and one copy for an element, each mode for
// itself. Nothing is checked but what blocks.
#ifndef KIVGCL_BENCH_FLOOR_CFIFOBUFFERFLOOR_H
#define KIVGCL_BENCH_FLOOR_CFIFOBUFFERFLOOR_H

#include <pthread.h>
#include <semaphore.h>

#include <cstdint>

#include "bench/floor/Floor.h"

struct FloorFifo {
    unsigned char* buffer;
    uint32_t size;
    uint32_t elementSize;
    uint32_t capacity;
    uint32_t writeIndex;
    uint32_t readIndex;
    sem_t filled;
    sem_t empty;
    sem_t lock;
    pthread_mutex_t mutex;
};

FLOOR_API void floorFifoConstruct(FloorFifo* fifo, uint32_t elementSize, uint32_t capacity);
FLOOR_API void floorFifoDestruct(FloorFifo* fifo);
FLOOR_API uint32_t floorFifoPutWaiting(FloorFifo* fifo, const void* element);
FLOOR_API uint32_t floorFifoGetWaiting(FloorFifo* fifo, void* element);
FLOOR_API uint32_t floorFifoPutUnprotected(FloorFifo* fifo, const void* element);
FLOOR_API uint32_t floorFifoGetUnprotected(FloorFifo* fifo, void* element);
FLOOR_API uint32_t floorFifoPutLocked(FloorFifo* fifo, const void* element);
FLOOR_API uint32_t floorFifoGetLocked(FloorFifo* fifo, void* element);

#endif // KIVGCL_BENCH_FLOOR_CFIFOBUFFERFLOOR_H
