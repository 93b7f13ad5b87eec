// CMemoryPool: memory blocks of one size, taken from one area that is allocated at construction,
// with the bookkeeping kept in a structure that the caller owns.
//
// The addresses of the free blocks lie on a stack: the block that came back last is handed out
// next. Blocks have no header, and the pool keeps no record of the blocks in use. Getting and
// returning a block takes constant time and no memory: the pool allocates twice (array-form
// operator new[], the stack's entries and the block area) in Construct and never afterwards.
//
// Blocks begin at multiples of the stride, which is the block size rounded up to a multiple of 4:
// the area itself is aligned for any type, a block behind the first one for types that need 4 bytes
// only, unless the stride is a multiple of more. Sizes are computed in 32 bits: a block size above
// 0xFFFFFFFC makes a stride of 0, and where stride times number of blocks reaches 2^32 the product
// wraps, the area is too small, and blocks lie outside it. Neither is refused; keep the product
// below 2^32.
//
// Results are codes of ResultCodes.h; failures are reported on GCL_trace. A pool takes no lock:
// threads that share one serialise their calls. Where a comment does not mention a check for NULL,
// there is none, and a NULL pointer is the caller's error. Construct comes first, Destruct last. A
// copy of the structure shares the block area and the stack with the original: only one of the two
// may be used and destructed from then on.
#ifndef GCL_CMEMORYPOOL_H
#define GCL_CMEMORYPOOL_H

#include <stdint.h>

#include "Framework/GCL/Api.h"
#include "Framework/GCL/CStack.h"

GCL_C_BEGIN

// A pool. Construct it before any other use; the fields may be read, but are the pool's to write.
typedef struct CMemoryPool {
    uint32_t uiBlockSize;      // bytes of a block as given to Construct, not rounded
    uint32_t uiNrOfBlocks;     // the number of blocks, as given to Construct
    unsigned char* pBlockArea; // all blocks, block i at byte i times stride; owned; NULL after
                               // Destruct
    CStack freeBlocks;         // the addresses of the free blocks
} CMemoryPool;

// CMemoryPool_Construct allocates uiNrOfBlocks blocks of uiBlockSize bytes, not cleared, all of
// them free. The last block of the area is handed out first. What the structure held before is
// forgotten, not freed. It returns nothing; these failures are told by the trace only:
//   GCL_INVALID_ARGUMENT  pThis is NULL; nothing was done (reported)
//   GCL_FAILURE           not every block could be put on the stack of free blocks, which happens
//                         with more than 0x80000000 blocks, on 64-bit processors only; the pool
//                         can be used and destructed, with the blocks that it has (reported)
// A pool of 0 blocks, or of blocks of 0 bytes, is allowed and never hands out a block.
// Where an allocation fails, std::bad_alloc passes through the call, nothing leaks, and pThis is a
// pool without a block; a C caller on ARM must be compiled with -fexceptions for that. On 32-bit
// processors a pool of 0x20000000 blocks or more is always refused so (by g++ with
// std::bad_array_new_length, which is a std::bad_alloc): the stack's array would have 2^31 bytes or
// more.
GCL_API void CMemoryPool_Construct(CMemoryPool* pThis, uint32_t uiBlockSize, uint32_t uiNrOfBlocks);

// CMemoryPool_Destruct frees the block area and the stack of free blocks. Blocks that are still in
// use become invalid. The pool must be constructed anew before it is used again. pThis must not be
// NULL.
GCL_API void CMemoryPool_Destruct(CMemoryPool* pThis);

// CMemoryPool_Malloc stores the address of a free block in *ppBlock. uiRequestedSize, in bytes,
// only decides whether the request is acceptable; every block has the pool's size. The limit is the
// size given to Construct, although a block has up to 3 bytes more.
//   GCL_OK                the caller has the block until it returns it with CMemoryPool_Free
//   GCL_INVALID_ARGUMENT  pThis is NULL, or uiRequestedSize is 0 or above uiBlockSize; *ppBlock is
//                         untouched (reported)
//   GCL_POOL_EXHAUSTED    no block is free; *ppBlock is NULL (reported)
GCL_API uint32_t CMemoryPool_Malloc(CMemoryPool* pThis, uint32_t uiRequestedSize, void** ppBlock);

// CMemoryPool_Free returns the block at pBlock. The pointer is not looked at: a foreign address, an
// address inside a block, NULL or a block that is free already are accepted while not all blocks
// are free, and will be handed out by a later CMemoryPool_Malloc; a block freed twice is handed out
// twice.
//   GCL_OK                taken back
//   GCL_INVALID_ARGUMENT  pThis is NULL (reported)
//   GCL_FAILURE           all blocks are free already; nothing changed (reported)
GCL_API uint32_t CMemoryPool_Free(CMemoryPool* pThis, void* pBlock);

// CMemoryPool_Statistics stores the block size as given to Construct, in bytes, the number of
// blocks and the number of free blocks. It reads the fields only and traces nothing.
//   GCL_OK                stored
//   GCL_INVALID_ARGUMENT  pThis is NULL; nothing was stored (reported)
GCL_API uint32_t CMemoryPool_Statistics(const CMemoryPool* pThis, uint32_t* puiBlockSize,
                                        uint32_t* puiNrOfBlocks, uint32_t* puiFreeBlocks);

GCL_C_END

#endif // GCL_CMEMORYPOOL_H
