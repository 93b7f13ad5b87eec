/* What the TCP socket does on purpose; docs/on-purpose.md says why. A pair of connected sockets
 * stands for the two ends of a connection. */
#define _POSIX_C_SOURCE 200809L

#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Framework/GCL/CTcpSocket.h"
#include "Framework/GCL/ResultCodes.h"
#include "Framework/GCL/TraceChannels.h"

enum { kMaxMessage = 16 };

static void showReading(CTcpSocket* connection, int peer)
{
    char text[kMaxMessage + 1];
    int32_t length = 0;

    /* [unterminated] */
    memset(text, '#', sizeof text);
    if (write(peer, "power", 5) == 5) {
        length = 8;
        CTcpSocket_ReadZT(connection, text, &length);
        printf("%d bytes: %.8s\n", length, text);
    }
    /* [unterminated end] */

    /* [terminated] */
    memset(text, 0, sizeof text);
    if (write(peer, "power", 5) == 5) {
        length = sizeof text - 1; /* one less than it holds */
        CTcpSocket_ReadZT(connection, text, &length);
        printf("%d bytes: %s\n", length, text);
    }
    /* [terminated end] */

    /* [limit] */
    if (write(peer, "0123456789ABCDEF", 16) == 16) {
        length = kMaxMessage + 1;
        uint32_t result = CTcpSocket_Read(connection, text, &length);
        printf("%d bytes: 0x%X\n", kMaxMessage + 1, result);
        length = kMaxMessage; /* exactly uiMaxMsgSize is accepted */
        result = CTcpSocket_Read(connection, text, &length);
        printf("%d bytes: 0x%X\n", length, result);
    }
    /* [limit end] */
}

static void showEnd(CTcpSocket* connection, int peer)
{
    char byte = 0;
    int32_t length = sizeof byte;

    /* [end] */
    close(peer);
    uint32_t result = CTcpSocket_Read(connection, &byte, &length); /* silent */
    printf("read: 0x%X\n", result);
    (void)signal(SIGPIPE, SIG_IGN); /* or the next call ends the process */
    length = 1;
    result = CTcpSocket_Write(connection, &byte, &length);
    printf("write: 0x%X, %d bytes sent\n", result, length);
    /* [end end] */

    /* [close] */
    printf("close: 0x%X, ", CTcpSocket_Close(connection));
    printf("close again: 0x%X\n", CTcpSocket_Close(connection));
    CTcpSocket_Destruct(connection); /* does not mind */
    /* [close end] */
}

int main(void)
{
    int ends[2];
    CTcpSocket connection;
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) {
        return EXIT_FAILURE;
    }
    GCL_trace.threshold = 2; /* without the progress of closing */
    CTcpSocket_Construct(&connection, ends[0], 0, kMaxMessage);
    showReading(&connection, ends[1]);
    showEnd(&connection, ends[1]);
    return EXIT_SUCCESS;
}
