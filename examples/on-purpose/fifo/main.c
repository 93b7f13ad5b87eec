/* What the FIFO does on purpose; docs/on-purpose.md says why. */
#define _POSIX_C_SOURCE 200809L
#define _XOPEN_SOURCE 700

#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>

#include "Framework/GCL/CFifoBuffer.h"
#include "Framework/GCL/ResultCodes.h"

static void showUnprotected(void)
{
    CFifoBuffer fifo;
    CFifoBuffer_Construct(&fifo, sizeof(int), 1, eTaskingModeNone);

    /* [silent-full] */
    int number = 1;
    CFifoBuffer_Put(&fifo, &number);
    printf("full: 0x%X\n", CFifoBuffer_Put(&fifo, &number)); /* silent */
    CFifoBuffer_Get(&fifo, &number);
    printf("empty: 0x%X\n", CFifoBuffer_Get(&fifo, &number)); /* reported */
    /* [silent-full end] */
    CFifoBuffer_Destruct(&fifo);
}

static void showNewest(void)
{
    CFifoBuffer fifo;
    CFifoBuffer_Construct(&fifo, sizeof(int), 3, eTaskingModeMutex);

    /* [newest] */
    for (int i = 1; i <= 5; ++i) {
        (void)CFifoBuffer_Put(&fifo, &i); /* drops the oldest where the ring is full */
    }
    printf("newest:");
    while (!CFifoBuffer_IsEmpty(&fifo)) { /* Get would not tell */
        int number = 0;
        if (GCL_IS_FAILURE(CFifoBuffer_Get(&fifo, &number))) {
            break;
        }
        printf(" %d", number);
    }
    /* [newest end] */
    printf("\n");

    /* [empty] */
    int number = 0;
    const uint32_t result = CFifoBuffer_Get(&fifo, &number); /* nothing is there */
    printf("0x%X, got %d, size now 0x%X\n", result, number, fifo.uiCurrentSize);
    /* [empty end] */
    CFifoBuffer_Destruct(&fifo);
}

static void ignore(int signalNumber)
{
    (void)signalNumber;
}

static void showSignal(void)
{
    CFifoBuffer fifo;
    CFifoBuffer_Construct(&fifo, sizeof(int), 1, eTaskingModeSemaphore);

    /* [signal] */
    struct sigaction action;
    memset(&action, 0, sizeof action);
    action.sa_handler = ignore; /* and no SA_RESTART in sa_flags */
    sigaction(SIGALRM, &action, NULL);
    const struct itimerval every20ms = {{0, 20000}, {0, 20000}};
    setitimer(ITIMER_REAL, &every20ms, NULL);

    int number = 0;
    printf("interrupted: 0x%X\n", CFifoBuffer_Get(&fifo, &number));
    /* [signal end] */
    const struct itimerval never = {{0, 0}, {0, 0}};
    setitimer(ITIMER_REAL, &never, NULL);
    CFifoBuffer_Destruct(&fifo);
}

static void showUnconstructed(void)
{
    /* [zeroed] */
    CFifoBuffer fifo;
    memset(&fifo, 0, sizeof fifo); /* without this, nobody could tell */
    printf("not constructed: 0x%X\n", CFifoBuffer_Put(&fifo, "x"));
    /* [zeroed end] */
}

int main(void)
{
    showUnprotected();
    showNewest();
    showSignal();
    showUnconstructed();
    return EXIT_SUCCESS;
}
