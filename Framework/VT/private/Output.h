// Where the sink's lines go: standard error, standard output, a file or the system's log, as
// VT_OUTPUT says when the first line is written.
#ifndef VT_PRIVATE_OUTPUT_H
#define VT_PRIVATE_OUTPUT_H

#include <cstddef>
#include <cstdint>

namespace vt {

// Emits one line. `line` begins with a newline and ends with one, `size` counts both; what lies
// between is the line proper. The newline in front is written only where the line before it could
// not be finished. `level` is the message's level. The line's last byte may be changed.
//
// A line that cannot be written is lost, and the process goes on: no signal reaches it, and no
// thread waits longer than 100 ms for a non-blocking descriptor. Not a cancellation point.
void emitLine(char* line, size_t size, int32_t level);

// Tells the user of the process about a setting that cannot be followed, on standard error.
void complain(const char* format, ...) __attribute__((format(printf, 1, 2)));

} // namespace vt

#endif // VT_PRIVATE_OUTPUT_H
