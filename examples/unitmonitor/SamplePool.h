// SamplePool: the memory that samples travel in, taken once at start. A CMemoryPool takes no lock,
// so threads that share one bring their own.
#ifndef EXAMPLES_UNITMONITOR_SAMPLEPOOL_H
#define EXAMPLES_UNITMONITOR_SAMPLEPOOL_H

#include <mutex>

#include "Framework/GCL/CMemoryPool.h"
#include "examples/unitmonitor/Sample.h"

namespace unitmonitor {

class SamplePool {
public:
    explicit SamplePool(uint32_t samples) { CMemoryPool_Construct(&pool, sizeof(Sample), samples); }
    ~SamplePool() { CMemoryPool_Destruct(&pool); }
    SamplePool(const SamplePool&) = delete;
    SamplePool& operator=(const SamplePool&) = delete;

    // A block for one sample, nullptr when all are in use (the pool reports it).
    Sample* take()
    {
        const std::lock_guard<std::mutex> lock(mutex);
        void* block = nullptr;
        static_cast<void>(CMemoryPool_Malloc(&pool, sizeof(Sample), &block));
        return static_cast<Sample*>(block);
    }

    void giveBack(Sample* sample)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        static_cast<void>(CMemoryPool_Free(&pool, sample));
    }

    uint32_t free()
    {
        const std::lock_guard<std::mutex> lock(mutex);
        uint32_t blockSize = 0;
        uint32_t blocks = 0;
        uint32_t freeBlocks = 0;
        static_cast<void>(CMemoryPool_Statistics(&pool, &blockSize, &blocks, &freeBlocks));
        return freeBlocks;
    }

private:
    std::mutex mutex;
    CMemoryPool pool{};
};

} // namespace unitmonitor

#endif // EXAMPLES_UNITMONITOR_SAMPLEPOOL_H
