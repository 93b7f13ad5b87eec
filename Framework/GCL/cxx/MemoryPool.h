// gcl::MemoryPool: the owner of a CMemoryPool.
//
// It destructs its pool, can be moved and cannot be copied. Each operation but construct is one
// call of the plain function of the same name, whose comment in CMemoryPool.h is its manual; what
// differs stands here. All that CMemoryPool.h says of alignment, threads, allocation failure and
// reports holds. Blocks keep their addresses when the pool is moved, and become invalid with it.
//
// A pool that was built without sizes, destructed or moved from has no block.
#ifndef GCL_CXX_MEMORYPOOL_H
#define GCL_CXX_MEMORYPOOL_H

#include <cstddef>
#include <cstdint>
#include <limits>
#include <utility>

#include "Framework/GCL/CMemoryPool.h"
#include "Framework/GCL/ResultCodes.h"
#include "Framework/GCL/cxx/Error.h"
#include "Framework/GCL/cxx/Length.h"

namespace gcl {

class MemoryPool {
public:
    struct Statistics {
        std::uint32_t blockSize;  // bytes of a block, as given to construct
        std::uint32_t nrOfBlocks; // blocks of the pool
        std::uint32_t freeBlocks; // those that are free
    };

    MemoryPool() noexcept = default;

    // As construct, but a failure is thrown as a std::system_error.
    MemoryPool(std::size_t blockSize, std::size_t nrOfBlocks) : MemoryPool()
    {
        throwIfFailed(construct(blockSize, nrOfBlocks));
    }
    ~MemoryPool() { CMemoryPool_Destruct(&pool); }
    MemoryPool(MemoryPool&& other) noexcept : pool(std::exchange(other.pool, kNone)) {}
    MemoryPool& operator=(MemoryPool&& other) noexcept
    {
        MemoryPool moved(std::move(other));
        std::swap(pool, moved.pool);
        return *this;
    }
    MemoryPool(const MemoryPool&) = delete;
    MemoryPool& operator=(const MemoryPool&) = delete;

    // native is the plain structure, for plain calls. The pool goes on owning its area.
    CMemoryPool& native() noexcept { return pool; }
    const CMemoryPool& native() const noexcept { return pool; }

    // construct frees what the pool held and makes it one of nrOfBlocks blocks of blockSize bytes.
    //   GCL_OK                constructed
    //   GCL_INVALID_ARGUMENT  the blocks, rounded up to multiples of 4 bytes, come to 2^32 bytes or
    //                         more, or there are more than 2^31 of them; the pool is as it was
    //                         (silent)
    Result construct(std::size_t blockSize, std::size_t nrOfBlocks)
    {
        if (!areaFits(blockSize, nrOfBlocks)) {
            return GCL_INVALID_ARGUMENT;
        }
        CMemoryPool_Destruct(&pool);
        CMemoryPool_Construct(&pool, static_cast<std::uint32_t>(blockSize),
                              static_cast<std::uint32_t>(nrOfBlocks));
        return GCL_OK;
    }

    void destruct()
    {
        CMemoryPool_Destruct(&pool);
        pool = kNone;
    }

    // malloc: a size of 2^32 or more gives GCL_INVALID_ARGUMENT (silent) and leaves `block` alone.
    Result malloc(std::size_t requestedSize, void*& block)
    {
        if (!detail::fits<std::uint32_t>(requestedSize)) {
            return GCL_INVALID_ARGUMENT;
        }
        return Result(CMemoryPool_Malloc(&pool, static_cast<std::uint32_t>(requestedSize), &block));
    }
    Result free(void* block) { return Result(CMemoryPool_Free(&pool, block)); }

    Result statistics(Statistics& figures) const
    {
        return Result(CMemoryPool_Statistics(&pool, &figures.blockSize, &figures.nrOfBlocks,
                                             &figures.freeBlocks));
    }

private:
    static constexpr bool areaFits(std::uint64_t blockSize, std::uint64_t nrOfBlocks) noexcept
    {
        constexpr std::uint64_t maxArea = std::numeric_limits<std::uint32_t>::max();
        constexpr std::uint64_t maxBlocks = std::uint64_t{1} << 31;
        if (blockSize > maxArea - 3 || nrOfBlocks > maxBlocks) {
            return false;
        }
        const std::uint64_t stride = (blockSize + 3) & ~std::uint64_t{3};
        return stride * nrOfBlocks <= maxArea; // a product of less than 64 bits
    }

    static constexpr CMemoryPool kNone = {0, 0, nullptr, {nullptr, -1, 0, GCL_OK}};
    CMemoryPool pool = kNone;
};

} // namespace gcl

#endif // GCL_CXX_MEMORYPOOL_H
