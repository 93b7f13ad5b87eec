/* Result codes, their trace levels, and how a channel's threshold decides what is reported. */
#include <stdio.h>
#include <stdlib.h>

#include "Framework/GCL/CHashTable.h"
#include "Framework/GCL/CHyxTraceHandler.h"
#include "Framework/GCL/ResultCodes.h"
#include "Framework/GCL/TraceChannels.h"
#include "Framework/VT/VT.h"

/* [report] */
/* How a module reports on a channel of its own, here KIV.TEST: as the library does on KIV.GCL. The
 * macro yields the code, so that a failing step can return its report. */
static const char kSource[] = "Carriers/Carrier";
#define REPORT(code, text) report(&(const VorTraceHeader){kSource, __LINE__, __func__}, code, text)

static uint32_t report(const VorTraceHeader* header, uint32_t code, const char* text)
{
    const int32_t level = CHyxTraceHandler_DmLevel2VtLevel(code);
    if (TEST_trace.threshold >= level) {
        VT_beginImpl(&TEST_trace, level, header);
        VT_rawprintf(&TEST_trace, "%s      code: %#lx\n", text, (unsigned long)code);
        VT_endImpl(&TEST_trace);
    }
    return code;
}

static uint32_t setPower(unsigned watts)
{
    if (watts > 40) {
        return REPORT(GCL_INVALID_ARGUMENT, "more power than the amplifier has");
    }
    return GCL_OK;
}
/* [report end] */

static void showLevels(void)
{
    static const uint32_t codes[] = {GCL_OK, GCL_DRAIN_FAILED, GCL_DRAIN_PROGRESS, GCL_LAST_ITEM,
                                     GCL_TIMED_OUT};
    for (size_t i = 0; i < sizeof codes / sizeof codes[0]; ++i) {
        printf("0x%04X: level %d, %s\n", codes[i], CHyxTraceHandler_DmLevel2VtLevel(codes[i]),
               GCL_IS_FAILURE(codes[i]) ? "a failure" : "no failure");
    }
}

int main(void)
{
    CHashTable table;
    unsigned long value = 0;
    showLevels();
    CHashTable_Construct(&table, 1);

    /* [threshold] */
    GCL_trace.threshold = 0; /* silence */
    (void)CHashTable_Unset(&table, "not reported", &value);
    GCL_trace.threshold = 1; /* failures, which have level 1, and nothing else */
    const uint32_t result = CHashTable_Unset(&table, "reported", &value);
    /* [threshold end] */

    CHashTable_Destruct(&table);
    return result == GCL_PAIR_NOT_FOUND && GCL_IS_FAILURE(setPower(60)) && setPower(20) == GCL_OK
               ? EXIT_SUCCESS
               : EXIT_FAILURE;
}
