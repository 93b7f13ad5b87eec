/* CSysLogHandler: lines in the system log, beside the trace channels. */
#include <stdlib.h>
#include <syslog.h>

#include "Framework/GCL/CSysLogHandler.h"
#include "Framework/GCL/ResultCodes.h"

/* [macro] */
/* The label tells who logs; the code tells how severe the event is, and with that its priority. */
#define LOG_EVENT(code, ...) CSysLogHandler_Log("carrier", __FILE__, __LINE__, (code), __VA_ARGS__)
/* [macro end] */

enum {
    kCarrierRestarted = 0x0900 /* from 0x900 to 0xFFF: written whatever the level */
};

int main(void)
{
    uint32_t level = 0;

    /* The library never opens the log: the name and the facility are the process's. LOG_PERROR
     * shows the lines on standard error as well. */
    openlog("syslog-example", LOG_PERROR, LOG_USER);

    /* [log] */
    LOG_EVENT(GCL_TIMED_OUT, "no answer from node %d after %d s", 3, 2);
    LOG_EVENT(GCL_LAST_ITEM, "this warning is written at the level of 0x1000");
    LOG_EVENT(GCL_DRAIN_PROGRESS, "this notice is not");

    CSysLogHandler_SetLogLevel(0x8000);
    LOG_EVENT(GCL_LAST_ITEM, "nor is this warning, now that the level is 0x8000");
    LOG_EVENT(kCarrierRestarted, "carrier %s is back", "north");
    /* [log end] */

    CSysLogHandler_GetLogLevel(&level);
    closelog();
    return level == 0x8000 ? EXIT_SUCCESS : EXIT_FAILURE;
}
