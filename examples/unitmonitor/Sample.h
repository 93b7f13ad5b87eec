// Sample: one reading of the machine, as it travels through the unit monitor.
#ifndef EXAMPLES_UNITMONITOR_SAMPLE_H
#define EXAMPLES_UNITMONITOR_SAMPLE_H

#include <cstdint>

namespace unitmonitor {

struct Sample {
    char name[24];   // what was read, such as "memory.available", NUL-terminated
    uint32_t value;  // in the unit that belongs to the name
    uint32_t number; // counted from 1
};

} // namespace unitmonitor

#endif // EXAMPLES_UNITMONITOR_SAMPLE_H
