#include "bench/floor/CMemoryPoolFloor.h"

#include <memory>

void floorPoolConstruct(FloorPool* pool, uint32_t blockSize, uint32_t blocks)
{
    const uint32_t stride = (blockSize + 3) & ~uint32_t{3};
    *pool = {blockSize, blocks, nullptr, {nullptr, -1, 0, 0}}; // for a failure of what follows
    std::unique_ptr<void*[]> owned(new void*[blocks]);
    auto* const area = new unsigned char[stride * blocks];
    auto** const entries = owned.release();
    for (uint32_t i = 0; i < blocks; ++i) {
        entries[i] = area + static_cast<uintptr_t>(i) * stride;
    }
    *pool = {blockSize, blocks, area, {entries, static_cast<int32_t>(blocks) - 1, blocks, 0}};
}

void floorPoolDestruct(FloorPool* pool)
{
    delete[] pool->area;
    pool->area = nullptr;
    delete[] pool->free.entries;
    pool->free.entries = nullptr;
}

uint32_t floorPoolMalloc(FloorPool* pool, uint32_t size, void** block)
{
    // A size of 0 becomes the largest one.
    if (__builtin_expect(pool == nullptr || size - 1 >= pool->blockSize, 0)) {
        return 0x8008;
    }
    const int32_t top = pool->free.top;
    if (__builtin_expect(static_cast<int32_t>(pool->free.status) >= 0x8000 || top < 0, 0)) {
        *block = nullptr;
        return 0x8007;
    }
    *block = pool->free.entries[top];
    pool->free.top = top - 1;
    return 0;
}

uint32_t floorPoolFree(FloorPool* pool, void* block)
{
    if (__builtin_expect(pool == nullptr, 0)) {
        return 0x8008;
    }
    const int32_t top = pool->free.top;
    if (__builtin_expect(static_cast<int32_t>(pool->free.status) >= 0x8000 ||
                             top >= static_cast<int32_t>(pool->free.capacity - 1),
                         0)) {
        return 0x8000;
    }
    pool->free.top = top + 1;
    pool->free.entries[top + 1] = block;
    return 0;
}
