// CMemoryPool beside its floor, malloc, GLib's slices, the pools of C++ and of Boost.
#include "Framework/GCL/CMemoryPool.h"

#include <boost/pool/pool.hpp>
#include <cstdlib>
#include <glib.h>
#include <memory_resource>
#include <vector>

#include "Framework/GCL/cxx/MemoryPool.h"
#include "bench/floor/CMemoryPoolFloor.h"
#include "bench/support/Bench.h"

namespace {

constexpr uint32_t kBlockSize = 64;

// A round gets `depth` blocks and puts them back in the order that they were got, so that an
// operation is half a getting and half a putting back.
template <typename Get, typename Put>
void getAndPut(benchmark::State& state, uint32_t depth, const Get& get, const Put& put)
{
    std::vector<void*> blocks(depth);
    bool failed = false;
    for (auto _ : state) {
        for (void*& block : blocks) {
            block = get();
            failed |= block == nullptr;
        }
        for (void* const block : blocks) {
            put(block);
        }
    }
    bench::require(state, !failed, "no block was got");
    bench::setOperations(state, 2.0 * depth);
}

void addGetAndPut(uint32_t depth)
{
    bench::Case("CMemoryPool_Malloc, CMemoryPool_Free", {1.05, 0})
        .at("blocks", depth)
        .ours([depth](benchmark::State& state) {
            CMemoryPool pool;
            CMemoryPool_Construct(&pool, kBlockSize, depth);
            getAndPut(
                state, depth,
                [&] {
                    void* block = nullptr;
                    static_cast<void>(CMemoryPool_Malloc(&pool, kBlockSize, &block));
                    return block;
                },
                [&](void* block) { static_cast<void>(CMemoryPool_Free(&pool, block)); });
            CMemoryPool_Destruct(&pool);
        })
        .floor([depth](benchmark::State& state) {
            FloorPool pool;
            floorPoolConstruct(&pool, kBlockSize, depth);
            getAndPut(
                state, depth,
                [&] {
                    void* block = nullptr;
                    static_cast<void>(floorPoolMalloc(&pool, kBlockSize, &block));
                    return block;
                },
                [&](void* block) { static_cast<void>(floorPoolFree(&pool, block)); });
            floorPoolDestruct(&pool);
        })
        .shown("gcl::MemoryPool", "the C++ layer, which calls the same functions",
               [depth](benchmark::State& state) {
                   gcl::MemoryPool pool(kBlockSize, depth);
                   getAndPut(
                       state, depth,
                       [&] {
                           void* block = nullptr;
                           static_cast<void>(pool.malloc(kBlockSize, block));
                           return block;
                       },
                       [&](void* block) { static_cast<void>(pool.free(block)); });
               })
        .peer("malloc", 0.7,
              [depth](benchmark::State& state) {
                  getAndPut(
                      state, depth,
                      [] {
                          void* block = std::malloc(kBlockSize);
                          benchmark::DoNotOptimize(block); // else both calls are left out
                          return block;
                      },
                      [](void* block) { std::free(block); });
              })
        .peer("g_slice", 0.5,
              [depth](benchmark::State& state) {
                  getAndPut(
                      state, depth, [] { return g_slice_alloc(kBlockSize); },
                      [](void* block) { g_slice_free1(kBlockSize, block); });
              })
        .peer("std::pmr pool", 0.5,
              [depth](benchmark::State& state) {
                  std::pmr::unsynchronized_pool_resource pool;
                  getAndPut(
                      state, depth, [&] { return pool.allocate(kBlockSize); },
                      [&](void* block) { pool.deallocate(block, kBlockSize); });
              })
        .shown("boost::pool", "inlined into its caller", [depth](benchmark::State& state) {
            boost::pool<> pool(kBlockSize, depth);
            getAndPut(
                state, depth, [&] { return pool.malloc(); },
                [&](void* block) { pool.free(block); });
        });
}

// An operation is the making and the end of a pool, for each of its blocks.
template <typename Pool>
void make(benchmark::State& state, uint32_t blocks, void (*construct)(Pool*, uint32_t, uint32_t),
          void (*destruct)(Pool*))
{
    for (auto _ : state) {
        Pool pool;
        construct(&pool, kBlockSize, blocks);
        benchmark::DoNotOptimize(pool);
        destruct(&pool);
    }
    bench::setOperations(state, blocks);
}

} // namespace

void bench::addCases()
{
    for (const uint32_t depth : {1U, 8U, 64U, 1024U}) {
        addGetAndPut(depth);
    }
    for (const uint32_t blocks : {16U, 256U, 1024U}) {
        bench::Case("CMemoryPool_Construct, CMemoryPool_Destruct", {1.05, 0})
            .at("blocks", blocks)
            .ours([blocks](benchmark::State& state) {
                make(state, blocks, CMemoryPool_Construct, CMemoryPool_Destruct);
            })
            .floor([blocks](benchmark::State& state) {
                make(state, blocks, floorPoolConstruct, floorPoolDestruct);
            });
    }
}
