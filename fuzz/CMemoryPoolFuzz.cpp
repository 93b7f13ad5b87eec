// Sequences of operations on a pool, beside a vector of free blocks: blocks freed twice, foreign
// addresses and NULL are taken back like any other.
#include <cstring>
#include <vector>

#include "Framework/GCL/CMemoryPool.h"
#include "Framework/GCL/ResultCodes.h"
#include "fuzz/support/Reports.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider input(data, size);
    const auto blockSize = input.ConsumeIntegralInRange<uint32_t>(0, 40);
    const auto blocks = input.ConsumeIntegralInRange<uint32_t>(0, 9);
    const size_t stride = (size_t{blockSize} + 3) / 4 * 4;
    unsigned char foreign[64];
    CMemoryPool pool;
    CMemoryPool_Construct(&pool, blockSize, blocks);
    std::vector<void*> free;
    for (uint32_t i = 0; i < blocks; ++i) {
        free.push_back(pool.pBlockArea + stride * i);
    }
    std::vector<void*> used;
    for (int steps = 0; steps < 300 && input.remaining_bytes() > 0; ++steps) {
        const int operation = input.ConsumeIntegralInRange(0, 4);
        if (operation < 2) {
            const auto wanted = input.ConsumeIntegralInRange<uint32_t>(0, blockSize + 2);
            void* out = foreign;
            const uint32_t result = CMemoryPool_Malloc(&pool, wanted, &out);
            if (wanted == 0 || wanted > blockSize) {
                REQUIRE(result == GCL_INVALID_ARGUMENT);
                REQUIRE(out == foreign);
                fuzz::requireReport(GCL_INVALID_ARGUMENT);
            } else if (free.empty()) {
                REQUIRE(result == GCL_POOL_EXHAUSTED);
                REQUIRE(out == nullptr);
                fuzz::requireReport(GCL_POOL_EXHAUSTED);
            } else {
                REQUIRE(result == GCL_OK);
                REQUIRE(out == free.back());
                free.pop_back();
                used.push_back(out);
                if (out != nullptr) {
                    std::memset(out, steps, blockSize);
                }
            }
        } else if (operation < 4) {
            void* block = nullptr;
            switch (input.ConsumeIntegralInRange(0, 7)) {
            case 0:
                break;
            case 1:
                block = foreign;
                break;
            case 2:
                block = blocks == 0
                            ? nullptr
                            : pool.pBlockArea +
                                  stride * input.ConsumeIntegralInRange<uint32_t>(0, blocks - 1);
                break;
            default:
                if (!used.empty()) {
                    block = used.back();
                    used.pop_back();
                }
                break;
            }
            const bool full = free.size() == blocks;
            REQUIRE(CMemoryPool_Free(&pool, block) == (full ? GCL_FAILURE : GCL_OK));
            if (full) {
                fuzz::requireReport(GCL_FAILURE);
            } else {
                free.push_back(block);
            }
        } else {
            uint32_t figures[3] = {};
            REQUIRE(CMemoryPool_Statistics(&pool, &figures[0], &figures[1], &figures[2]) == GCL_OK);
            REQUIRE(figures[0] == blockSize);
            REQUIRE(figures[1] == blocks);
            REQUIRE(figures[2] == free.size());
        }
        fuzz::requireSilence();
    }
    CMemoryPool_Destruct(&pool);
    return 0;
}
