// The unit's trace framework, as plain functions: a message is opened with VT_beginImpl, filled by
// one or more calls of VT_rawprintf and emitted by VT_endImpl.
//
// The functions belong to the process: a unit's platform brings its own, any other process links
// libVorTrace, which writes each message as one line. Any thread may report at any time; the
// framework keeps the messages of concurrent threads apart. A message is opened, filled and closed
// on one thread. None of the functions may be called from a signal handler.
#ifndef VT_VT_H
#define VT_VT_H

#include <stdint.h>

#include "Framework/VT/TraceChannel.h"

#ifdef __cplusplus
extern "C" {
#endif

// VorTraceHeader says where a message comes from.
typedef struct VorTraceHeader {
    const char* file;     // source path, without an extension
    int32_t line;         // source line, counted from 1
    const char* function; // name of the reporting function
} VorTraceHeader;

// VT_beginImpl opens a message of the trace level `level` (1, the most severe, to 7) on `channel`.
// It does not look at the channel's threshold: the caller has. The callee may use `header` only
// until it returns. The result carries no meaning for reporters, who ignore it; libVorTrace
// returns 0.
VT_API int32_t VT_beginImpl(TraceChannel* channel, int32_t level, const VorTraceHeader* header);

// VT_rawprintf appends text to the open message, formatted as printf (ISO C 7.21.6.1) formats.
// The result carries no meaning for reporters; libVorTrace returns 0.
VT_API int32_t VT_rawprintf(TraceChannel* channel, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

// VT_endImpl closes the open message and emits it.
// The result carries no meaning for reporters; libVorTrace returns 0.
VT_API int32_t VT_endImpl(TraceChannel* channel);

// VT_setLevel sets the level of the channel or VorTrace object called `name`, or, for the name "*",
// of all that have no level of their own: messages above the level are dropped. It holds at once,
// also for VorTrace objects that exist already or are built later. This function is libVorTrace's
// own; a platform's framework need not offer it. A NULL or empty name is ignored.
VT_API void VT_setLevel(const char* name, int32_t level);

#ifdef __cplusplus
}
#endif

#endif // VT_VT_H
