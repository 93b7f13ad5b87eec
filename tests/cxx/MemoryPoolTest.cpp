#include "Framework/GCL/cxx/MemoryPool.h"

#include <gtest/gtest.h>

#include <new>
#include <system_error>
#include <type_traits>
#include <vector>

#include "Framework/GCL/testing/FaultInjection.h"
#include "Framework/GCL/testing/TraceCapture.h"

using gcl::MemoryPool;
using gcltest::Fault;
using gcltest::gclReport;
using gcltest::Report;
using gcltest::takeReports;
namespace calls = gcltest::calls;

namespace {

uint32_t freeBlocksOf(const MemoryPool& pool)
{
    MemoryPool::Statistics figures{};
    EXPECT_EQ(pool.statistics(figures), GCL_OK);
    return figures.freeBlocks;
}

} // namespace

TEST(MemoryPoolProperties, MovesOnlyAndThrowsNothingInMoves)
{
    static_assert(!std::is_copy_constructible_v<MemoryPool>);
    static_assert(!std::is_copy_assignable_v<MemoryPool>);
    static_assert(std::is_nothrow_move_constructible_v<MemoryPool>);
    static_assert(std::is_nothrow_move_assignable_v<MemoryPool>);
    static_assert(sizeof(MemoryPool) == sizeof(CMemoryPool));
}

TEST(MemoryPoolMalloc, HandsOutBlocksAndTakesThemBack)
{
    MemoryPool pool(10, 2);
    void* first = nullptr;
    void* second = nullptr;
    void* third = &pool;
    ASSERT_EQ(pool.malloc(10, first), GCL_OK);
    ASSERT_EQ(pool.malloc(1, second), GCL_OK);
    EXPECT_EQ(first, pool.native().pBlockArea + 12);
    EXPECT_EQ(second, pool.native().pBlockArea);
    EXPECT_EQ(takeReports(), std::vector<Report>{});
    EXPECT_EQ(pool.malloc(1, third), GCL_POOL_EXHAUSTED);
    EXPECT_EQ(third, nullptr);
    EXPECT_EQ(takeReports(), std::vector<Report>{
                                 gclReport("CMemoryPool", "CMemoryPool_Malloc",
                                           "Not possible to get memory block from pool!", 0x8007)});
    EXPECT_EQ(pool.free(first), GCL_OK);
    EXPECT_EQ(pool.malloc(1, third), GCL_OK);
    EXPECT_EQ(third, first);
    EXPECT_EQ(pool.free(third), GCL_OK);
    EXPECT_EQ(pool.free(second), GCL_OK);
    EXPECT_EQ(pool.free(second), GCL_FAILURE);
    EXPECT_EQ(takeReports(),
              std::vector<Report>{gclReport("CMemoryPool", "CMemoryPool_Free",
                                            "Not possible to release memory!", 0x8000)});
}

TEST(MemoryPoolMalloc, RefusesSizesThatABlockDoesNotHave)
{
    MemoryPool pool(10, 2);
    void* block = &pool;
    EXPECT_EQ(pool.malloc(0, block), GCL_INVALID_ARGUMENT);
    EXPECT_EQ(pool.malloc(11, block), GCL_INVALID_ARGUMENT);
    EXPECT_EQ(takeReports().size(), 2u);
    if constexpr (sizeof(size_t) > 4) {
        // It would be 1 if it were cut.
        EXPECT_EQ(pool.malloc((size_t{1} << 32) + 1, block), GCL_INVALID_ARGUMENT);
        EXPECT_EQ(takeReports(), std::vector<Report>{});
    }
    EXPECT_EQ(block, &pool);
    EXPECT_EQ(freeBlocksOf(pool), 2u);
}

TEST(MemoryPoolStatistics, TellsTheFigures)
{
    MemoryPool pool(10, 3);
    MemoryPool::Statistics figures{};
    void* block = nullptr;
    ASSERT_EQ(pool.malloc(1, block), GCL_OK);
    ASSERT_EQ(pool.statistics(figures), GCL_OK);
    EXPECT_EQ(figures.blockSize, 10u);
    EXPECT_EQ(figures.nrOfBlocks, 3u);
    EXPECT_EQ(figures.freeBlocks, 2u);
}

TEST(MemoryPoolConstruct, MakesAPoolInPlaceOfTheFormer)
{
    MemoryPool pool;
    void* block = nullptr;
    EXPECT_EQ(freeBlocksOf(pool), 0u);
    EXPECT_EQ(pool.malloc(1, block), GCL_INVALID_ARGUMENT);
    EXPECT_EQ(pool.free(block), GCL_FAILURE);
    EXPECT_EQ(takeReports().size(), 2u);
    ASSERT_EQ(pool.construct(4, 2), GCL_OK);
    const gcltest::Frees frees;
    ASSERT_EQ(pool.construct(8, 5), GCL_OK);
    EXPECT_EQ(frees.memory().size(), 2u) << "the area and the stack";
    EXPECT_EQ(freeBlocksOf(pool), 5u);
    ASSERT_EQ(pool.construct(0, 5), GCL_OK); // as in the plain interface
    ASSERT_EQ(pool.construct(5, 0), GCL_OK);
    EXPECT_EQ(pool.malloc(5, block), GCL_POOL_EXHAUSTED);
    EXPECT_EQ(takeReports().size(), 1u);
}

// The plain function computes in 32 bits: each of these would be a pool with an area that is too
// small, or without room on its stack.
TEST(MemoryPoolConstruct, RefusesAreasThatDoNotFit)
{
    MemoryPool pool(4, 2);
    struct {
        uint64_t blockSize;
        uint64_t nrOfBlocks;
    } const rows[] = {
        {0x10000, 0x10000},       {0xFFFF, 0x10000},      {1, 0x40000000},
        {0xFFFFFFFD, 1},          {0xFFFFFFFF, 0},        {0, 0x80000001},
        {uint64_t{1} << 32, 1},   {4, uint64_t{1} << 32}, {uint64_t{1} << 32, uint64_t{1} << 32},
        {UINT64_MAX, UINT64_MAX},
    };
    for (const auto& row : rows) {
        if (row.blockSize > SIZE_MAX || row.nrOfBlocks > SIZE_MAX) {
            continue;
        }
        const auto blockSize = static_cast<size_t>(row.blockSize);
        const auto nrOfBlocks = static_cast<size_t>(row.nrOfBlocks);
        EXPECT_EQ(pool.construct(blockSize, nrOfBlocks), GCL_INVALID_ARGUMENT)
            << blockSize << " " << nrOfBlocks;
        EXPECT_THROW(MemoryPool(blockSize, nrOfBlocks), std::system_error);
    }
    EXPECT_EQ(freeBlocksOf(pool), 2u);
    EXPECT_EQ(takeReports(), std::vector<Report>{});
}

TEST(MemoryPoolConstruct, AcceptsTheLargestAreas)
{
    // They are refused by the allocator, if by anyone: the sizes got that far.
    const Fault fault(calls::newArray, {0, 0, 1, gcltest::Failure::kForGood});
    EXPECT_THROW(MemoryPool(0xFFFC, 0x10000), std::bad_alloc);
    EXPECT_THROW(MemoryPool(0xFFFFFFFC, 1), std::bad_alloc);
    if constexpr (sizeof(size_t) > 4) { // where the array's size is not refused before
        EXPECT_THROW(MemoryPool(0, 0x80000000), std::bad_alloc);
        EXPECT_EQ(fault.failures(), 3u);
    } else {
        EXPECT_EQ(fault.failures(), 2u);
    }
}

TEST(MemoryPoolConstruct, LetsAnAllocationFailurePass)
{
    for (const unsigned nth : {1u, 2u}) {
        MemoryPool pool(4, 2);
        {
            const Fault fault(calls::newArray, {0, 0, nth});
            EXPECT_THROW(static_cast<void>(pool.construct(4, 8)), std::bad_alloc);
        }
        EXPECT_EQ(freeBlocksOf(pool), 0u);
        const Fault fault(calls::newArray, {0, 0, nth});
        EXPECT_THROW(MemoryPool(4, 8), std::bad_alloc);
    }
}

TEST(MemoryPoolMove, HandsTheBlocksOnAndLeavesAPoolWithoutAny)
{
    MemoryPool from(4, 2);
    void* block = nullptr;
    ASSERT_EQ(from.malloc(4, block), GCL_OK);
    MemoryPool to(std::move(from));
    EXPECT_EQ(to.free(block), GCL_OK);
    EXPECT_EQ(freeBlocksOf(to), 2u);
    // NOLINTBEGIN(bugprone-use-after-move): that is what the test is about
    EXPECT_EQ(freeBlocksOf(from), 0u);
    from = MemoryPool(4, 1);
    EXPECT_EQ(freeBlocksOf(from), 1u);
    from = std::move(to);
    EXPECT_EQ(freeBlocksOf(from), 2u);
    EXPECT_EQ(freeBlocksOf(to), 0u);
    // NOLINTEND(bugprone-use-after-move)
    MemoryPool& same = from;
    from = std::move(same);
    EXPECT_EQ(freeBlocksOf(from), 2u);
}

TEST(MemoryPoolDestruct, LeavesAPoolWithoutBlocks)
{
    MemoryPool pool(4, 2);
    pool.destruct();
    pool.destruct();
    EXPECT_EQ(freeBlocksOf(pool), 0u);
    const MemoryPool& constant = pool;
    EXPECT_EQ(&constant.native(), &pool.native());
}
