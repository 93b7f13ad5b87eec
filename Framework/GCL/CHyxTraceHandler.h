// CHyxTraceHandler: from a result code to the trace level of its report.
#ifndef GCL_CHYXTRACEHANDLER_H
#define GCL_CHYXTRACEHANDLER_H

#include <stdint.h>

#include "Framework/GCL/Api.h"

GCL_C_BEGIN

// CHyxTraceHandler_DmLevel2VtLevel returns the trace level, 1 (the most severe) to 7, at which the
// result code uiCode is reported. It cannot fail and has no state; any thread and any signal
// handler may call it.
//   0x8000 and above       1
//   0x1000 to 0x7FFF       2
//   0x0900 to 0x0FFF       3
//   0x0840 to 0x08FF       7
//   0x0820 to 0x083F       6
//   0x0100 to 0x07FF       4
//   others, 0 included     5
GCL_API int32_t CHyxTraceHandler_DmLevel2VtLevel(uint32_t uiCode);

GCL_C_END

#endif // GCL_CHYXTRACEHANDLER_H
