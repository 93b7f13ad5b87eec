// Sampler: reads the machine's load and memory from /proc and passes the samples on.
#ifndef EXAMPLES_UNITMONITOR_SAMPLER_H
#define EXAMPLES_UNITMONITOR_SAMPLER_H

#include "Framework/GCL/CFifoBuffer.h"
#include "examples/unitmonitor/SamplePool.h"

namespace unitmonitor {

// Used on one thread, the sampling timer's.
class Sampler {
public:
    // Samples go into blocks of `samplePool`, whose addresses go into `sampleFifo`.
    Sampler(SamplePool& samplePool, CFifoBuffer& sampleFifo) : pool(samplePool), fifo(sampleFifo) {}

    // Reads every figure once. Throws std::runtime_error if /proc cannot be read.
    void sample();

private:
    void pass(const char* name, uint32_t value);

    SamplePool& pool;
    CFifoBuffer& fifo;
    uint32_t count = 0;
};

} // namespace unitmonitor

#endif // EXAMPLES_UNITMONITOR_SAMPLER_H
