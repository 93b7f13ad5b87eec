#include "examples/unitmonitor/Sampler.h"

#include <cstdio>
#include <fstream>
#include <stdexcept>
#include <string>

#include "Framework/GCL/ResultCodes.h"

namespace unitmonitor {
namespace {

// The figure behind `key` in /proc/meminfo, in kB; see proc(5).
uint32_t memoryFigure(const std::string& key)
{
    std::ifstream file("/proc/meminfo");
    std::string word;
    while (file >> word) {
        if (word == key + ":") {
            uint32_t figure = 0;
            file >> figure;
            return figure;
        }
    }
    throw std::runtime_error("/proc/meminfo has no " + key);
}

} // namespace

void Sampler::sample()
{
    std::ifstream file("/proc/loadavg");
    double load = 0;
    std::string skipped;
    uint32_t running = 0;
    if (!(file >> load >> skipped >> skipped >> running)) {
        throw std::runtime_error("/proc/loadavg cannot be read");
    }
    pass("load.percent", static_cast<uint32_t>(load * 100));
    pass("threads.running", running);
    pass("memory.available.kB", memoryFigure("MemAvailable"));
    pass("memory.dirty.kB", memoryFigure("Dirty"));
}

void Sampler::pass(const char* name, uint32_t value)
{
    Sample* sample = pool.take();
    if (sample == nullptr) {
        return; // the consumer has fallen behind; the pool has reported it
    }
    std::snprintf(sample->name, sizeof sample->name, "%s", name);
    sample->value = value;
    sample->number = ++count;
    // A signal may interrupt the wait for a free slot; the sample is then not in the ring.
    if (CFifoBuffer_Put(&fifo, &sample) != GCL_OK) {
        pool.giveBack(sample);
    }
}

} // namespace unitmonitor
