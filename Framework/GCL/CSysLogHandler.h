// CSysLogHandler: one line in the system log for each event that is severe enough.
// Beside the trace channels it is the second, simpler way to report; the library itself does not
// use it. Any thread may call any of its functions at any time, but no signal handler may.
#ifndef GCL_CSYSLOGHANDLER_H
#define GCL_CSYSLOGHANDLER_H

#include <stdint.h>

#include "Framework/GCL/Api.h"

GCL_C_BEGIN

// CSysLogHandler_Log writes the entry "szLabel: file (iLine): message, code: hex" with syslog(3),
// if the log level admits the result code uiCode: a code at or above the level is written, and so
// is, whatever the level, every code from 0x900 to 0xFFF. Nothing is returned and no failure is
// reported; the system log's own result is not looked at.
//   szLabel   a module or function name, printed as it is
//   szFile    the caller's source path; only what follows its last "/" is printed
//   iLine     the caller's source line
//   uiCode    a result code (ResultCodes.h), which also sets the priority: LOG_ERR from 0x8000,
//             LOG_WARNING from 0x1000 to 0x7FFF, LOG_NOTICE for every other code. No facility is
//             given and the log is never opened, so those of the process hold (openlog(3)).
//   szFormat  as for printf(3), with its arguments; a message is cut after 383 characters
// The texts must not be NULL. The caller keeps them. A message that cannot be formatted is empty or
// cut. The call may block and is a cancellation point where syslog(3) is, and may change errno.
GCL_API void CSysLogHandler_Log(const char* szLabel, const char* szFile, int32_t iLine,
                                uint32_t uiCode, const char* szFormat, ...)
    __attribute__((format(printf, 5, 6)));

// CSysLogHandler_SetLogLevel sets the process's log level, a number in the space of the result
// codes. It is 0x1000 at start, which admits warnings and failures. Later calls of
// CSysLogHandler_Log see the change, in no given order.
GCL_API void CSysLogHandler_SetLogLevel(uint32_t uiLevel);

// CSysLogHandler_GetLogLevel stores the process's log level in *puiLevel; puiLevel must not be
// NULL.
GCL_API void CSysLogHandler_GetLogLevel(uint32_t* puiLevel);

GCL_C_END

#endif // GCL_CSYSLOGHANDLER_H
