// Store: the newest value of every figure, by name, and the last samples in their order.
#ifndef EXAMPLES_UNITMONITOR_STORE_H
#define EXAMPLES_UNITMONITOR_STORE_H

#include <mutex>
#include <string>
#include <vector>

#include "Framework/GCL/CFifoBuffer.h"
#include "Framework/GCL/CHashTable.h"
#include "examples/unitmonitor/Sample.h"

namespace unitmonitor {

// Any thread may use a store.
class Store {
public:
    // Keeps the last `samples` samples.
    explicit Store(uint32_t samples);
    ~Store();
    Store(const Store&) = delete;
    Store& operator=(const Store&) = delete;

    void add(const Sample& sample);

    // Returns false if no sample has that name.
    bool find(const std::string& name, uint32_t& value);

    // The number of names.
    uint32_t size();

    // Takes the last samples out, the oldest first.
    std::vector<Sample> takeLast();

private:
    std::mutex mutex;   // guards the table; the FIFO has a lock of its own
    CHashTable table{}; // the newest value of each name
    CFifoBuffer last{}; // a new sample pushes the oldest one out
};

} // namespace unitmonitor

#endif // EXAMPLES_UNITMONITOR_STORE_H
