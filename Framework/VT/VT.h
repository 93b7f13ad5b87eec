// The unit's trace framework, as plain functions: a message is opened with VT_beginImpl, filled by
// one or more calls of VT_rawprintf and emitted by VT_endImpl.
//
// The functions belong to the process: a unit's platform brings its own, any other process links
// libVorTrace, which writes each message as one line. Any thread may report at any time; the
// framework keeps the messages of concurrent threads apart. A message is opened, filled and closed
// on one thread. None of the functions may be called from a signal handler.
//
// What follows is libVorTrace's behaviour; a platform's framework has its own.
//
// Line. A message is one line, written whole:
//
//     2026-11-21T01:20:33.123456Z 4242/4243 KIV.GCL 1 Framework/GCL/private/CList:161 <function>:
//     <text>
//
// that is, UTC time of the opening, process id/thread id, channel name, level,
// file:line, function, the text. A newline inside becomes a blank, one at the end of the text is
// dropped. A NULL name is written as "?", a missing header as "?:0 ?".
//
// Message. A thread has at most one open message; to open another one emits the first, and so does
// the end of the thread, unless the process had no thread-specific data key left
// (pthread_key_create(3)). Text outside a message is dropped. A message of up to about 900 bytes
// needs no memory but the thread's own; where memory for a longer one is refused, it is cut.
//
// Environment variables (ignored in a set-user-id process):
//
//   VT_OUTPUT  where lines go; looked at when the first message is emitted
//     stderr   standard error, the default, also for an empty value
//     stdout   standard output; written straight to the descriptor, past the buffer of stdio
//     syslog   syslog(3) with the default facility and, by level: 1 LOG_ERR, 2 LOG_WARNING,
//              3 LOG_NOTICE, 4 and 5 LOG_INFO, 6 and 7 LOG_DEBUG
//     <path>   a file, made with the mode 0666 less the umask if there is none, and appended to.
//              If it cannot be opened, standard error says so once and is used instead.
//   VT_LEVELS  looked at with the first message, question for a level or call of VT_setLevel:
//              comma-separated entries `name=level`, blanks around each part allowed, the level a
//              decimal 32-bit number: messages on that channel or trace object above the level are
//              dropped. The name `*` stands for all that have no entry. Of two entries for a name
//              the last holds. Each bad entry, an empty one between commas included, is named once
//              on standard error and ignored. Without an entry every message on a channel passes; a
//              VorTrace object starts at its own level.
//
// Output. A message is one write(2), and messages of one process never mix. What cannot be written
// (a full disk, a closed descriptor) is lost, and the next message is tried again. A pipe whose
// reader is gone raises no SIGPIPE, a file at its size limit no SIGXFSZ. A descriptor in
// non-blocking mode (a named pipe given as path is opened so) is waited for 100 ms, then the rest
// of the message is dropped, and others are dropped without a wait until something can be written
// again; the line after an incomplete one starts on a line of its own. A blocking descriptor may
// block the reporting threads.
//
// All functions leave errno alone and are no cancellation points. A child process made by fork may
// report, whatever other threads of its parent were doing, but for one case: where lines go to
// syslog(3), none may have been in that call. A message that was open at the fork is the parent's
// alone. They may be called before main and after exit has begun; only a message that a thread has
// open when the process ends is lost.
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
// It does not look at the channel's threshold: the caller has. libVorTrace drops the message if its
// level is above the one set for the channel. The callee may use `header` only until it returns.
// Rests on clock_gettime(CLOCK_REALTIME). The result carries no meaning for reporters, who ignore
// it; libVorTrace returns 0.
VT_API int32_t VT_beginImpl(TraceChannel* channel, int32_t level, const VorTraceHeader* header);

// VT_rawprintf appends text to the open message, formatted as printf (ISO C 7.21.6.1) formats.
// As far as libVorTrace goes, a text that cannot be formatted is replaced by the format itself, and
// a NULL format by "?".
// The result carries no meaning for reporters; libVorTrace returns 0.
VT_API int32_t VT_rawprintf(TraceChannel* channel, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

// VT_endImpl closes the open message and emits it.
// The result carries no meaning for reporters; libVorTrace returns 0.
VT_API int32_t VT_endImpl(TraceChannel* channel);

// VT_setLevel sets the level of the channel or VorTrace object called `name`, or, for the name "*",
// of all that no entry names: messages above the level are dropped. It holds at once,
// also for VorTrace objects that exist already or are built later. This function is libVorTrace's
// own; a platform's framework need not offer it. It takes precedence over VT_LEVELS. A NULL or
// empty name is ignored, and so is a new name for which there is no memory. Any thread may call it.
VT_API void VT_setLevel(const char* name, int32_t level);

#ifdef __cplusplus
}
#endif

#endif // VT_VT_H
