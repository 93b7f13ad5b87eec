// The clocks of the trace sink. They stand in a file of their own, which is compiled with a 64-bit
// time_t also on 32-bit processors, so that messages carry the right time after 2038-01-19.
#ifndef VT_PRIVATE_TIMESTAMP_H
#define VT_PRIVATE_TIMESTAMP_H

#include <cstddef>
#include <cstdint>

namespace vt {

// The length of "2026-11-21T01:20:33.123456Z".
constexpr size_t kTimeStampSize = 27;

// Writes the time of CLOCK_REALTIME as UTC, without a NUL behind it; its length.
size_t formatTimeStamp(char (&text)[kTimeStampSize]);

// Milliseconds of CLOCK_MONOTONIC, for measuring how long something takes.
int64_t monotonicMs();

} // namespace vt

#endif // VT_PRIVATE_TIMESTAMP_H
