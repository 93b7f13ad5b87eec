#include "bench/floor/CFifoBufferFloor.h"

#include <cstring>

namespace {

uint32_t next(const FloorFifo& fifo, uint32_t index)
{
    return index + 1 == fifo.capacity ? 0 : index + 1;
}

void store(FloorFifo& fifo, const void* element)
{
    std::memcpy(fifo.buffer + size_t{fifo.writeIndex} * fifo.elementSize, element,
                fifo.elementSize);
    fifo.writeIndex = next(fifo, fifo.writeIndex);
    ++fifo.size;
}

void take(FloorFifo& fifo, void* element)
{
    std::memcpy(element, fifo.buffer + size_t{fifo.readIndex} * fifo.elementSize, fifo.elementSize);
    fifo.readIndex = next(fifo, fifo.readIndex);
    --fifo.size;
}

} // namespace

void floorFifoConstruct(FloorFifo* fifo, uint32_t elementSize, uint32_t capacity)
{
    *fifo = FloorFifo{};
    fifo->buffer = new unsigned char[capacity * elementSize];
    fifo->elementSize = elementSize;
    fifo->capacity = capacity;
    sem_init(&fifo->filled, 0, 0);
    sem_init(&fifo->empty, 0, capacity);
    sem_init(&fifo->lock, 0, 1);
    pthread_mutex_init(&fifo->mutex, nullptr);
}

void floorFifoDestruct(FloorFifo* fifo)
{
    pthread_mutex_destroy(&fifo->mutex);
    delete[] fifo->buffer;
}

uint32_t floorFifoPutWaiting(FloorFifo* fifo, const void* element)
{
    if (sem_wait(&fifo->empty) != 0 || sem_wait(&fifo->lock) != 0) {
        return 1;
    }
    store(*fifo, element);
    sem_post(&fifo->lock);
    sem_post(&fifo->filled);
    return 0;
}

uint32_t floorFifoGetWaiting(FloorFifo* fifo, void* element)
{
    if (sem_wait(&fifo->filled) != 0 || sem_wait(&fifo->lock) != 0) {
        return 1;
    }
    take(*fifo, element);
    sem_post(&fifo->lock);
    sem_post(&fifo->empty);
    return 0;
}

uint32_t floorFifoPutUnprotected(FloorFifo* fifo, const void* element)
{
    if (fifo->size >= fifo->capacity) {
        return 1;
    }
    store(*fifo, element);
    return 0;
}

uint32_t floorFifoGetUnprotected(FloorFifo* fifo, void* element)
{
    if (fifo->size == 0) {
        return 1;
    }
    take(*fifo, element);
    return 0;
}

uint32_t floorFifoPutLocked(FloorFifo* fifo, const void* element)
{
    if (pthread_mutex_lock(&fifo->mutex) != 0) {
        return 1;
    }
    if (fifo->size >= fifo->capacity) {
        fifo->readIndex = next(*fifo, fifo->readIndex);
        --fifo->size;
    }
    store(*fifo, element);
    pthread_mutex_unlock(&fifo->mutex);
    return 0;
}

uint32_t floorFifoGetLocked(FloorFifo* fifo, void* element)
{
    if (pthread_mutex_lock(&fifo->mutex) != 0) {
        return 1;
    }
    take(*fifo, element);
    pthread_mutex_unlock(&fifo->mutex);
    return 0;
}
