#include "examples/unitmonitor/Store.h"

#include "Framework/GCL/ResultCodes.h"

namespace unitmonitor {

Store::Store(uint32_t samples)
{
    constexpr uint32_t kBuckets = 16;
    CHashTable_Construct(&table, kBuckets);
    CFifoBuffer_Construct(&last, sizeof(Sample), samples, eTaskingModeMutex);
}

Store::~Store()
{
    CFifoBuffer_Destruct(&last);
    CHashTable_Destruct(&table);
}

void Store::add(const Sample& sample)
{
    static_cast<void>(CFifoBuffer_Put(&last, &sample));
    const std::lock_guard<std::mutex> lock(mutex);
    static_cast<void>(CHashTable_Set(&table, sample.name, sample.value));
}

bool Store::find(const std::string& name, uint32_t& value)
{
    const std::lock_guard<std::mutex> lock(mutex);
    unsigned long found = 0;
    if (CHashTable_Get(&table, name.c_str(), &found) != GCL_OK) {
        return false;
    }
    value = static_cast<uint32_t>(found);
    return true;
}

uint32_t Store::size()
{
    const std::lock_guard<std::mutex> lock(mutex);
    return CHashTable_Count(&table);
}

std::vector<Sample> Store::takeLast()
{
    std::vector<Sample> samples;
    // In this mode a FIFO does not look whether it is empty: its reader asks first.
    while (CFifoBuffer_IsEmpty(&last) == 0) {
        Sample sample{};
        static_cast<void>(CFifoBuffer_Get(&last, &sample));
        samples.push_back(sample);
    }
    return samples;
}

} // namespace unitmonitor
