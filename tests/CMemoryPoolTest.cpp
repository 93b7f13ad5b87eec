#include "Framework/GCL/CMemoryPool.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <new>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "Framework/GCL/ResultCodes.h"
#include "Framework/GCL/testing/FaultInjection.h"
#include "Framework/GCL/testing/TraceCapture.h"
#include "tests/support/Suppression.h"

using gcltest::Count;
using gcltest::expectReports;
using gcltest::Fault;
using gcltest::gclReport;
using gcltest::Hook;
using gcltest::Report;
using gcltest::takeReports;
namespace calls = gcltest::calls;

namespace {

using Reports = std::vector<Report>;
using Figures = std::tuple<uint32_t, uint32_t, uint32_t>;

// Suites with failures; their cases that fail nothing are plain ones.
class CMemoryPoolConstruct : public gcltest::ReportsOrNot {};
class CMemoryPoolMalloc : public gcltest::ReportsOrNot {};
class CMemoryPoolOperations : public gcltest::ReportsOrNot {};
class CMemoryPoolFree : public gcltest::ReportsOrNot {};
class CMemoryPoolSizes : public gcltest::ReportsOrNot {};
class CMemoryPoolStatus : public gcltest::ReportsOrNot {};

GCLTEST_WITH_AND_WITHOUT_REPORTS(CMemoryPoolConstruct);
GCLTEST_WITH_AND_WITHOUT_REPORTS(CMemoryPoolMalloc);
GCLTEST_WITH_AND_WITHOUT_REPORTS(CMemoryPoolOperations);
GCLTEST_WITH_AND_WITHOUT_REPORTS(CMemoryPoolFree);
GCLTEST_WITH_AND_WITHOUT_REPORTS(CMemoryPoolSizes);
GCLTEST_WITH_AND_WITHOUT_REPORTS(CMemoryPoolStatus);

void expectSilence()
{
    EXPECT_EQ(takeReports(), Reports{});
}

Report poolReport(const std::string& operation, const std::string& text, uint32_t code)
{
    return gclReport("CMemoryPool", "CMemoryPool_" + operation, text, code);
}

const Report kExhausted =
    poolReport("Malloc", "Not possible to get memory block from pool!", 0x8007);
const Report kNotReleased = poolReport("Free", "Not possible to release memory!", 0x8000);

// A pool that ends with the test.
class OwnedPool {
public:
    OwnedPool(uint32_t blockSize, uint32_t blocks)
    {
        CMemoryPool_Construct(&pool, blockSize, blocks);
    }
    ~OwnedPool() { CMemoryPool_Destruct(&pool); }
    OwnedPool(const OwnedPool&) = delete;
    OwnedPool& operator=(const OwnedPool&) = delete;
    CMemoryPool* operator&() { return &pool; }
    CMemoryPool* operator->() { return &pool; }
    CMemoryPool pool;
};

// A structure that was never constructed, with something in every field.
CMemoryPool garbage()
{
    CMemoryPool pool;
    std::memset(&pool, 0xA5, sizeof pool);
    return pool;
}

// Block size, number of blocks and free blocks.
Figures figuresOf(const CMemoryPool& pool)
{
    uint32_t blockSize = 1;
    uint32_t blocks = 2;
    uint32_t freeBlocks = 3;
    EXPECT_EQ(CMemoryPool_Statistics(&pool, &blockSize, &blocks, &freeBlocks), GCL_OK);
    return {blockSize, blocks, freeBlocks};
}

} // namespace

TEST(CMemoryPoolLayout, HasTheFieldsInOrder)
{
    EXPECT_EQ(offsetof(CMemoryPool, uiBlockSize), 0u);
    EXPECT_EQ(offsetof(CMemoryPool, uiNrOfBlocks), 4u);
    EXPECT_EQ(offsetof(CMemoryPool, pBlockArea), 8u);
    EXPECT_EQ(offsetof(CMemoryPool, freeBlocks), 8 + sizeof(void*));
    EXPECT_EQ(sizeof(CMemoryPool), sizeof(void*) == 8 ? 40u : 28u);
}

TEST(CMemoryPoolConstruct, MakesEveryBlockFreeWithTwoAllocations)
{
    CMemoryPool pool = garbage();
    std::vector<size_t> sizes;
    {
        const Hook hook(calls::newArray, [&sizes](size_t size) {
            sizes.push_back(size);
            return calls::newArray.real(size);
        });
        const Count scalars(calls::newScalar);
        CMemoryPool_Construct(&pool, 10, 3);
        EXPECT_EQ(scalars.calls(), 0u);
    }
    EXPECT_EQ(sizes, (std::vector<size_t>{3 * sizeof(void*), 36}));
    EXPECT_EQ(pool.uiBlockSize, 10u);
    EXPECT_EQ(pool.uiNrOfBlocks, 3u);
    ASSERT_NE(pool.pBlockArea, nullptr);
    EXPECT_EQ(pool.freeBlocks.uiCapacity, 3u);
    EXPECT_EQ(pool.freeBlocks.uiStatus, 0u);
    ASSERT_EQ(pool.freeBlocks.iTop, 2);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(pool.freeBlocks.pEntries[i], pool.pBlockArea + 12 * i);
    }
    EXPECT_EQ(figuresOf(pool), Figures(10, 3, 3));
    CMemoryPool_Destruct(&pool);
    expectSilence();
}

TEST(CMemoryPoolConstruct, ClearsNoBlock)
{
    const Hook arrays(calls::newArray, [](size_t size) {
        void* const memory = calls::newArray.real(size);
        std::memset(memory, 0xA5, size);
        return memory;
    });
    OwnedPool pool(10, 3);
    const std::vector<unsigned char> bytes(pool->pBlockArea, pool->pBlockArea + 36);
    EXPECT_EQ(bytes, std::vector<unsigned char>(36, 0xA5));
}

TEST_P(CMemoryPoolConstruct, ReportsANullPool)
{
    CMemoryPool_Construct(nullptr, 4, 4);
    expectReports(Reports{poolReport("Construct", "pThis is NULL!", 0x8008)});
}

TEST(CMemoryPoolConstruct, RoundsTheStrideUpToFours)
{
    const uint32_t sizes[][2] = {{1, 4}, {3, 4}, {4, 4}, {5, 8}, {8, 8}, {9, 12}, {257, 260}};
    for (const auto& [blockSize, stride] : sizes) {
        SCOPED_TRACE(blockSize);
        OwnedPool pool(blockSize, 3);
        for (unsigned i = 0; i < 3; ++i) {
            EXPECT_EQ(pool->freeBlocks.pEntries[i], pool->pBlockArea + stride * i);
        }
        EXPECT_EQ(pool->uiBlockSize, blockSize);
    }
    expectSilence();
}

TEST(CMemoryPoolConstruct, ComputesTheAreaIn32Bits)
{
    struct Case {
        uint32_t blockSize;
        uint32_t blocks;
        size_t area;
    };
    const Case cases[] = {
        {0xFFFFFFFDu, 1, 0}, {0xFFFFFFFFu, 5, 0}, {0x80000000u, 2, 0}, {0x40000003u, 4, 16}};
    for (const Case& each : cases) {
        SCOPED_TRACE(each.blockSize);
        std::vector<size_t> sizes;
        CMemoryPool pool;
        {
            const Hook hook(calls::newArray, [&sizes](size_t size) {
                sizes.push_back(size);
                return calls::newArray.real(size);
            });
            CMemoryPool_Construct(&pool, each.blockSize, each.blocks);
        }
        EXPECT_EQ(sizes, (std::vector<size_t>{each.blocks * sizeof(void*), each.area}));
        CMemoryPool_Destruct(&pool);
    }
    expectSilence();
}

TEST_P(CMemoryPoolConstruct, StopsAtTheFirstBlockThatCannotBePushed)
{
    if (sizeof(size_t) == 4) {
        GTEST_SKIP() << "an array of 2^31 pointers does not fit into 32 bits and is refused by new";
    }
    // The last index of such a stack is a negative number: it is full from the start. The array of
    // 16 GiB is never touched then, so a small one does.
    struct Case {
        uint32_t blockSize;
        std::string stride;
    };
    for (const Case& each : {Case{0, "0"}, Case{3, "4"}}) {
        CMemoryPool pool = garbage();
        {
            const Hook hook(calls::newArray, [](size_t size) {
                return calls::newArray.real(size > 64 ? 64 : size);
            });
            CMemoryPool_Construct(&pool, each.blockSize, 0x80000001u);
        }
        expectReports(Reports{
            poolReport("Construct",
                       "Not possible to push memory block of size " + each.stride + "!", 0x8000)});
        EXPECT_EQ(figuresOf(pool), Figures(each.blockSize, 0x80000001u, 0));
        EXPECT_EQ(pool.freeBlocks.uiCapacity, 0x80000001u);
        void* block = nullptr;
        EXPECT_EQ(CMemoryPool_Malloc(&pool, 1, &block), each.blockSize == 0 ? 0x8008u : 0x8007u);
        takeReports();
        CMemoryPool_Destruct(&pool);
    }
    expectSilence();
}

TEST_P(CMemoryPoolConstruct, PassesAnAllocationFailureOnAndLeavesAPoolWithoutBlocks)
{
    for (const unsigned nth : {1u, 2u}) {
        SCOPED_TRACE(nth);
        CMemoryPool pool = garbage();
        {
            const Fault fault(calls::newArray, {0, 0, nth});
            const gcltest::Frees frees;
            EXPECT_THROW(CMemoryPool_Construct(&pool, 8, 4), std::bad_alloc);
            EXPECT_EQ(fault.failures(), 1u);
            EXPECT_EQ(frees.memory().size(), nth - 1) << "what was taken is given back";
        }
        expectSilence();
        EXPECT_EQ(figuresOf(pool), Figures(8, 4, 0));
        void* block = &pool;
        EXPECT_EQ(CMemoryPool_Malloc(&pool, 8, &block), 0x8007u);
        EXPECT_EQ(block, nullptr);
        EXPECT_EQ(CMemoryPool_Free(&pool, &pool), 0x8000u);
        expectReports((Reports{kExhausted, kNotReleased}));
        // Nothing is left to free.
        EXPECT_EQ(pool.pBlockArea, nullptr);
        EXPECT_EQ(pool.freeBlocks.pEntries, nullptr);
        CMemoryPool_Destruct(&pool);
    }
}

TEST(CMemoryPoolConstruct, RefusesMoreBlocksThanA32BitProcessorCountsAddressesOf)
{
    if (sizeof(size_t) > 4) {
        GTEST_SKIP() << "their addresses fit into 64 bits";
    }
    for (const uint32_t blocks : {0x20000000u, 0x80000001u}) {
        CMemoryPool pool = garbage();
        EXPECT_THROW(CMemoryPool_Construct(&pool, 0, blocks), std::bad_alloc);
        EXPECT_EQ(pool.pBlockArea, nullptr);
        EXPECT_EQ(pool.freeBlocks.pEntries, nullptr);
    }
    expectSilence();
}

TEST_P(CMemoryPoolMalloc, HandsOutFromTheEndOfTheAreaAndIsExhaustedThen)
{
    OwnedPool pool(10, 3);
    void* block = nullptr;
    for (const int offset : {24, 12, 0}) {
        EXPECT_EQ(CMemoryPool_Malloc(&pool, 10, &block), GCL_OK);
        EXPECT_EQ(block, pool->pBlockArea + offset);
        std::memset(block, offset, 10);
    }
    expectSilence();
    const gcltest::BeginHook hook(
        [&block](const Report&) { EXPECT_EQ(block, nullptr) << "it is cleared, then told"; });
    EXPECT_EQ(CMemoryPool_Malloc(&pool, 10, &block), 0x8007u);
    EXPECT_EQ(block, nullptr);
    expectReports(Reports{kExhausted});
    EXPECT_EQ(figuresOf(pool.pool), Figures(10, 3, 0));
    expectSilence();
}

TEST_P(CMemoryPoolMalloc, RefusesTheSizesThatABlockWasNotAskedToHave)
{
    OwnedPool pool(5, 2); // blocks of 8 bytes, all the same
    void* block = &pool;
    for (const uint32_t size : {0u, 6u, 8u, 0xFFFFFFFFu}) {
        EXPECT_EQ(CMemoryPool_Malloc(&pool, size, &block), 0x8008u);
        expectReports(Reports{poolReport("Malloc",
                                         "Not possible to allocate a memory block of size " +
                                             std::to_string(size) + "!",
                                         0x8008)});
        EXPECT_EQ(block, static_cast<void*>(&pool));
    }
    EXPECT_EQ(figuresOf(pool.pool), Figures(5, 2, 2));
    EXPECT_EQ(CMemoryPool_Malloc(&pool, 5, &block), GCL_OK);
    EXPECT_EQ(block, pool->pBlockArea + 8);
    EXPECT_EQ(CMemoryPool_Malloc(&pool, 1, &block), GCL_OK);
    EXPECT_EQ(block, pool->pBlockArea);
    expectSilence();
}

TEST_P(CMemoryPoolMalloc, ChecksTheSizeBeforeItLooksForABlock)
{
    OwnedPool pool(4, 0);
    void* block = &pool;
    EXPECT_EQ(CMemoryPool_Malloc(&pool, 5, &block), 0x8008u);
    EXPECT_EQ(block, static_cast<void*>(&pool));
    expectReports(Reports{
        poolReport("Malloc", "Not possible to allocate a memory block of size 5!", 0x8008)});
}

TEST_P(CMemoryPoolOperations, ReportANullPool)
{
    int place = 0;
    void* block = &place;
    EXPECT_EQ(CMemoryPool_Malloc(nullptr, 0, &block), 0x8008u);
    expectReports(Reports{poolReport("Malloc", "pThis is NULL!", 0x8008)});
    EXPECT_EQ(block, static_cast<void*>(&place));
    EXPECT_EQ(CMemoryPool_Free(nullptr, block), 0x8008u);
    expectReports(Reports{poolReport("Free", "pThis is NULL!", 0x8008)});
    uint32_t figures[3] = {7, 8, 9};
    EXPECT_EQ(CMemoryPool_Statistics(nullptr, &figures[0], &figures[1], &figures[2]), 0x8008u);
    expectReports(Reports{poolReport("Statistics", "pThis is NULL!", 0x8008)});
    EXPECT_EQ(figures[0], 7u);
    EXPECT_EQ(figures[1], 8u);
    EXPECT_EQ(figures[2], 9u);
}

TEST(CMemoryPoolFree, MakesTheBlockTheNextToBeHandedOut)
{
    OwnedPool pool(10, 3);
    void* blocks[3];
    for (void*& block : blocks) {
        ASSERT_EQ(CMemoryPool_Malloc(&pool, 10, &block), GCL_OK);
    }
    EXPECT_EQ(CMemoryPool_Free(&pool, blocks[0]), GCL_OK);
    EXPECT_EQ(CMemoryPool_Free(&pool, blocks[1]), GCL_OK);
    EXPECT_EQ(figuresOf(pool.pool), Figures(10, 3, 2));
    void* block = nullptr;
    EXPECT_EQ(CMemoryPool_Malloc(&pool, 10, &block), GCL_OK);
    EXPECT_EQ(block, pool->pBlockArea + 12);
    EXPECT_EQ(CMemoryPool_Malloc(&pool, 10, &block), GCL_OK);
    EXPECT_EQ(block, pool->pBlockArea + 24);
    expectSilence();
}

TEST_P(CMemoryPoolFree, ReportsTheBlockThatIsOneTooMany)
{
    OwnedPool pool(4, 2);
    EXPECT_EQ(CMemoryPool_Free(&pool, pool->pBlockArea), 0x8000u);
    expectReports(Reports{kNotReleased});
    EXPECT_EQ(figuresOf(pool.pool), Figures(4, 2, 2));
    EXPECT_EQ(pool->freeBlocks.pEntries[1], pool->pBlockArea + 4);
}

TEST(CMemoryPoolFree, AcceptsABlockTwiceAndHandsItOutTwice)
{
    OwnedPool pool(4, 3);
    void* first = nullptr;
    void* second = nullptr;
    ASSERT_EQ(CMemoryPool_Malloc(&pool, 4, &first), GCL_OK);
    ASSERT_EQ(CMemoryPool_Malloc(&pool, 4, &second), GCL_OK);
    EXPECT_EQ(CMemoryPool_Free(&pool, first), GCL_OK);
    EXPECT_EQ(CMemoryPool_Free(&pool, first), GCL_OK);
    void* block = nullptr;
    EXPECT_EQ(CMemoryPool_Malloc(&pool, 4, &block), GCL_OK);
    EXPECT_EQ(block, first);
    EXPECT_EQ(CMemoryPool_Malloc(&pool, 4, &block), GCL_OK);
    EXPECT_EQ(block, first);
    expectSilence();
}

TEST(CMemoryPoolFree, LooksAtNoPointer)
{
    OwnedPool pool(4, 3);
    void* block = nullptr;
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(CMemoryPool_Malloc(&pool, 4, &block), GCL_OK);
    }
    void* const strangers[] = {nullptr, &pool, pool->pBlockArea + 1};
    for (void* stranger : strangers) {
        EXPECT_EQ(CMemoryPool_Free(&pool, stranger), GCL_OK);
        block = &block;
        EXPECT_EQ(CMemoryPool_Malloc(&pool, 4, &block), GCL_OK);
        EXPECT_EQ(block, stranger);
    }
    expectSilence();
}

TEST_P(CMemoryPoolSizes, WithoutBlocksEveryRequestFails)
{
    OwnedPool pool(4, 0);
    EXPECT_EQ(figuresOf(pool.pool), Figures(4, 0, 0));
    expectSilence();
    void* block = &pool;
    EXPECT_EQ(CMemoryPool_Malloc(&pool, 4, &block), 0x8007u);
    EXPECT_EQ(block, nullptr);
    expectReports(Reports{kExhausted});
    EXPECT_EQ(CMemoryPool_Free(&pool, &pool), 0x8000u);
    expectReports(Reports{kNotReleased});
}

TEST(CMemoryPoolSizes, BlocksOfNoBytesAreNeverHandedOut)
{
    OwnedPool pool(0, 3);
    expectSilence();
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(pool->freeBlocks.pEntries[i], pool->pBlockArea);
    }
    EXPECT_EQ(figuresOf(pool.pool), Figures(0, 3, 3));
    void* block = nullptr;
    EXPECT_EQ(CMemoryPool_Malloc(&pool, 0, &block), 0x8008u);
    EXPECT_EQ(CMemoryPool_Malloc(&pool, 1, &block), 0x8008u);
    EXPECT_EQ(takeReports().size(), 2u);
}

TEST_P(CMemoryPoolStatus, OfTheStackNeverReachesTheCaller)
{
    OwnedPool pool(4, 2);
    void* block = &pool;
    ASSERT_EQ(CMemoryPool_Malloc(&pool, 4, &block), GCL_OK);
    pool->freeBlocks.uiStatus = 0x9000;
    EXPECT_EQ(CMemoryPool_Free(&pool, block), 0x8000u);
    expectReports(Reports{kNotReleased});
    EXPECT_EQ(CMemoryPool_Malloc(&pool, 4, &block), 0x8007u);
    EXPECT_EQ(block, nullptr);
    expectReports(Reports{kExhausted});
    EXPECT_EQ(figuresOf(pool.pool), Figures(4, 2, 0x9000)) << "the stack's own answer";
}

TEST(CMemoryPoolDestruct, FreesBothAllocations)
{
    CMemoryPool pool;
    CMemoryPool_Construct(&pool, 4, 2);
    const void* const area = pool.pBlockArea;
    const void* const entries = pool.freeBlocks.pEntries;
    {
        const gcltest::Frees frees;
        CMemoryPool_Destruct(&pool);
        EXPECT_EQ(frees.memory(), (std::vector<const void*>{area, entries}));
    }
    EXPECT_EQ(pool.pBlockArea, nullptr);
    EXPECT_EQ(pool.freeBlocks.pEntries, nullptr);
    EXPECT_EQ(pool.uiBlockSize, 4u);
    EXPECT_EQ(pool.uiNrOfBlocks, 2u);
    CMemoryPool_Destruct(&pool); // a second time finds nothing to free
    CMemoryPool_Construct(&pool, 8, 1);
    EXPECT_EQ(figuresOf(pool), Figures(8, 1, 1));
    CMemoryPool_Destruct(&pool);
    expectSilence();
}

TEST(CMemoryPoolAllocation, HappensInConstructOnly)
{
    OwnedPool pool(16, 4);
    const Count arrays(calls::newArray);
    const Count scalars(calls::newScalar);
    void* blocks[4] = {};
    uint32_t figure = 0;
    for (int round = 0; round < 10; ++round) {
        for (void*& block : blocks) {
            CMemoryPool_Malloc(&pool, 16, &block);
        }
        CMemoryPool_Statistics(&pool, &figure, &figure, &figure);
        for (void* block : blocks) {
            CMemoryPool_Free(&pool, block);
        }
    }
    EXPECT_EQ(arrays.calls(), 0u);
    EXPECT_EQ(scalars.calls(), 0u);
}

TEST(CMemoryPoolModel, AgreesWithAVectorOverRandomOperations)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    for (int round = 0; round < 20; ++round) {
        const auto blockSize = static_cast<uint32_t>(1 + random() % 40);
        const auto blocks = static_cast<uint32_t>(random() % 9);
        const size_t stride = (blockSize + 3) / 4 * 4;
        OwnedPool pool(blockSize, blocks);
        std::vector<void*> freeBlocks;
        for (uint32_t i = 0; i < blocks; ++i) {
            freeBlocks.push_back(pool->pBlockArea + stride * i);
        }
        std::vector<void*> used;
        for (int step = 0; step < 1000 && !HasFailure(); ++step) {
            void* out = &pool;
            if (random() % 2 == 0) {
                const auto size = static_cast<uint32_t>(random() % (blockSize + 3));
                const uint32_t result = CMemoryPool_Malloc(&pool, size, &out);
                if (size == 0 || size > blockSize) {
                    EXPECT_EQ(result, GCL_INVALID_ARGUMENT);
                    EXPECT_EQ(out, static_cast<void*>(&pool));
                } else if (freeBlocks.empty()) {
                    EXPECT_EQ(result, GCL_POOL_EXHAUSTED);
                    EXPECT_EQ(out, nullptr);
                } else {
                    EXPECT_EQ(result, GCL_OK);
                    EXPECT_EQ(out, freeBlocks.back());
                    freeBlocks.pop_back();
                    used.push_back(out);
                    std::memset(out, step, blockSize);
                }
            } else {
                // Mostly a block in use, now and then one that is free, or none.
                void* block = nullptr;
                if (!used.empty() && random() % 8 != 0) {
                    const size_t at = random() % used.size();
                    block = used[at];
                    used.erase(used.begin() + static_cast<std::ptrdiff_t>(at));
                } else if (blocks > 0) {
                    block = pool->pBlockArea + stride * (random() % blocks);
                }
                const bool full = freeBlocks.size() == blocks;
                EXPECT_EQ(CMemoryPool_Free(&pool, block), full ? GCL_FAILURE : GCL_OK);
                if (!full) {
                    freeBlocks.push_back(block);
                }
            }
            EXPECT_EQ(figuresOf(pool.pool),
                      Figures(blockSize, blocks, static_cast<uint32_t>(freeBlocks.size())));
            takeReports();
        }
    }
}
