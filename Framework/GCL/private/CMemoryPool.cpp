#include "Framework/GCL/CMemoryPool.h"

#include <cstddef>
#include <memory>

#include "Framework/GCL/ResultCodes.h"
#include "Framework/GCL/private/Report.h"
#include "Framework/GCL/private/StackSteps.h"
#include "Framework/GCL/private/Unlikely.h"

namespace {

static_assert(offsetof(CMemoryPool, uiBlockSize) == 0);
static_assert(offsetof(CMemoryPool, uiNrOfBlocks) == 4);
static_assert(offsetof(CMemoryPool, pBlockArea) == 8);
static_assert(offsetof(CMemoryPool, freeBlocks) == 8 + sizeof(void*));
static_assert(sizeof(CMemoryPool) == (sizeof(void*) == 8 ? 40 : 28));

constexpr char kSource[] = "Framework/GCL/private/CMemoryPool";

// By contract: sizes are computed in 32 bits and may wrap.
uint32_t strideOf(uint32_t blockSize)
{
    return (blockSize + 3) & ~uint32_t{3};
}

// Fills an empty stack with as many blocks as its capacity says, from the one at the address given.
// They all fit, but for a stack that is full from the start. Addresses are counted as numbers:
// where the size of the area has wrapped, they may wrap as well.
bool pushBlocks(CStack& stack, uintptr_t block, uint32_t stride)
{
    const int32_t last = gcl::stackLastIndex(stack);
    if (last < 0) {
        return stack.uiCapacity == 0;
    }
    for (uint32_t i = 0; i < stack.uiCapacity; ++i, block += stride) {
        stack.pEntries[i] = reinterpret_cast<void*>(block);
    }
    stack.iTop = last;
    return true;
}

} // namespace

void CMemoryPool_Construct(CMemoryPool* pThis, uint32_t uiBlockSize, uint32_t uiNrOfBlocks)
{
    if (pThis == nullptr) {
        static_cast<void>(GCL_REPORT(GCL_INVALID_ARGUMENT, "pThis is NULL!"));
        return;
    }
    // Without its memory it stays a pool that has no block and can be destructed.
    *pThis = {uiBlockSize, uiNrOfBlocks, nullptr, {nullptr, -1, 0, GCL_OK}};
    const uint32_t stride = strideOf(uiBlockSize);
    const uint32_t areaSize = stride * uiNrOfBlocks;           // may wrap, like the stride
    std::unique_ptr<void*[]> entries(new void*[uiNrOfBlocks]); // until there is a block area too
    pThis->pBlockArea = new unsigned char[areaSize];
    pThis->freeBlocks = {entries.release(), -1, uiNrOfBlocks, GCL_OK};

    if (!pushBlocks(pThis->freeBlocks, reinterpret_cast<uintptr_t>(pThis->pBlockArea), stride)) {
        static_cast<void>(
            GCL_REPORT(GCL_FAILURE, "Not possible to push memory block of size %u!", stride));
    }
}

void CMemoryPool_Destruct(CMemoryPool* pThis)
{
    delete[] pThis->pBlockArea;
    pThis->pBlockArea = nullptr;
    CStack_Destruct(&pThis->freeBlocks);
}

uint32_t CMemoryPool_Malloc(CMemoryPool* pThis, uint32_t uiRequestedSize, void** ppBlock)
{
    if (gcl::unlikely(pThis == nullptr)) {
        return GCL_REPORT(GCL_INVALID_ARGUMENT, "pThis is NULL!");
    }
    // By contract: the limit is the size as given, although a block may have some bytes more. A
    // size of 0 is refused as well: less 1 it is the largest.
    if (gcl::unlikely(uiRequestedSize - 1 >= pThis->uiBlockSize)) {
        return GCL_REPORT(GCL_INVALID_ARGUMENT,
                          "Not possible to allocate a memory block of size %u!", uiRequestedSize);
    }
    if (gcl::stackPop(pThis->freeBlocks, ppBlock) != GCL_OK) {
        *ppBlock = nullptr;
        return GCL_REPORT(GCL_POOL_EXHAUSTED, "Not possible to get memory block from pool!");
    }
    return GCL_OK;
}

uint32_t CMemoryPool_Free(CMemoryPool* pThis, void* pBlock)
{
    if (gcl::unlikely(pThis == nullptr)) {
        return GCL_REPORT(GCL_INVALID_ARGUMENT, "pThis is NULL!");
    }
    // By contract: whatever the pointer is, it becomes a free block if there is room.
    if (GCL_IS_FAILURE(gcl::stackPush(pThis->freeBlocks, pBlock))) {
        return GCL_REPORT(GCL_FAILURE, "Not possible to release memory!");
    }
    return GCL_OK;
}

uint32_t CMemoryPool_Statistics(const CMemoryPool* pThis, uint32_t* puiBlockSize,
                                uint32_t* puiNrOfBlocks, uint32_t* puiFreeBlocks)
{
    if (pThis == nullptr) {
        return GCL_REPORT(GCL_INVALID_ARGUMENT, "pThis is NULL!");
    }
    *puiBlockSize = pThis->uiBlockSize;
    *puiNrOfBlocks = pThis->uiNrOfBlocks;
    *puiFreeBlocks = gcl::stackCurrentSize(pThis->freeBlocks);
    return GCL_OK;
}
