// TraceChannel: one named outlet of the unit's trace framework.
// A software module owns one channel and reports on it; the framework, or the module itself, sets
// how severe a report must be to get through.
#ifndef VT_TRACECHANNEL_H
#define VT_TRACECHANNEL_H

#include <stdint.h>

// VT_API marks what the trace framework offers to the modules of a process: it is visible across
// shared objects however those are compiled.
#define VT_API __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

// A channel is plain, writable data. Any thread may read it at any time. Who writes `threshold`
// while others report stores it as one aligned 32-bit word, which every store of an int32_t is on
// the processors that this library serves; a change is seen by later reports, in no given order.
typedef struct TraceChannel {
    // A report of trace level L (1, the most severe, to 7) is written only if threshold >= L.
    // 0 or a negative number silences the channel.
    int32_t threshold;
    // The channel's name, such as "KIV.GCL"; constant, NUL-terminated, never NULL.
    const char* name;
} TraceChannel;

#ifdef __cplusplus
}
#endif

#endif // VT_TRACECHANNEL_H
