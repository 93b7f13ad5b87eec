/* CTcpSocket: a server and a client, who exchange lines of text on this machine. */
#define _POSIX_C_SOURCE 200809L

#include <arpa/inet.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include "Framework/GCL/CTcpSocket.h"
#include "Framework/GCL/ResultCodes.h"
#include "Framework/GCL/TraceChannels.h"
#include "FreeSocket.h"

enum { kMaxLine = 256, kLimitSeconds = 10, kAttempts = 500 };

/* [lines] */
static uint32_t writeLine(CTcpSocket* socket, const char* line)
{
    char text[kMaxLine];
    int32_t length = snprintf(text, sizeof text, "%s\n", line);
    if (length < 1 || length >= (int32_t)sizeof text) {
        return GCL_INVALID_ARGUMENT;
    }
    return CTcpSocket_Write(socket, text, &length); /* all of it, or a failure */
}

/* Reads one line, without its newline, into a buffer of kMaxLine bytes. CTcpSocket_Read hands out
 * what has arrived, which may be half a line; putting lines together is the caller's part. */
static uint32_t readLine(CTcpSocket* socket, char* line)
{
    int32_t length = 0;
    while (length < kMaxLine) {
        int32_t count = kMaxLine - length;
        const uint32_t result = CTcpSocket_Read(socket, line + length, &count);
        if (GCL_IS_FAILURE(result)) {
            return result; /* a time-out and a peer that has closed are not reported */
        }
        length += count;
        if (line[length - 1] == '\n') {
            line[length - 1] = '\0';
            return GCL_OK;
        }
    }
    return GCL_FAILURE; /* too long for a line */
}
/* [lines end] */

/* [server] */
/* Serves one client, until it closes. *argument is the port. */
static void* serve(void* argument)
{
    CTcpSocket* client = NULL;
    char line[kMaxLine];
    char answer[kMaxLine];
    uint32_t result = CTcpSocket_WaitForConnection(&client, *(const int32_t*)argument, sizeof line);
    if (GCL_IS_FAILURE(result)) {
        return NULL; /* reported */
    }
    result = CTcpSocket_SetTimeout(client, kLimitSeconds);
    while (!GCL_IS_FAILURE(result)) {
        result = readLine(client, line);
        if (!GCL_IS_FAILURE(result)) {
            (void)snprintf(answer, sizeof answer, "%zu characters", strlen(line));
            result = writeLine(client, answer);
        }
    }
    printf("server: %s\n", result == GCL_PEER_CLOSED ? "the client has closed" : "failed");
    freeSocket(&client);
    return NULL;
}
/* [server end] */

/* [connect] */
/* How severe a report must be; other threads may be reporting meanwhile. */
static void setThreshold(int32_t threshold)
{
    __atomic_store_n(&GCL_trace.threshold, threshold, __ATOMIC_RELAXED);
}

/* Connects to a server that may not listen yet. Until it does, failures are expected: they are
 * kept off the trace. */
static uint32_t connectTo(CTcpSocket** server, int32_t port)
{
    const struct timespec pause = {0, 20000000};
    uint32_t result = GCL_CONNECT_FAILED;
    setThreshold(0);
    for (int i = 0; i < kAttempts && result == GCL_CONNECT_FAILED; ++i) {
        result = CTcpSocket_Create(server, "127.0.0.1", port, kMaxLine);
        if (result == GCL_CONNECT_FAILED) {
            (void)nanosleep(&pause, NULL);
        }
    }
    setThreshold(2); /* failures and warnings; closing connections tell their progress at 7 */
    return result;
}
/* [connect end] */

static uint32_t ask(CTcpSocket* server, const char* question)
{
    char answer[kMaxLine];
    uint32_t result = writeLine(server, question);
    if (!GCL_IS_FAILURE(result)) {
        result = readLine(server, answer);
    }
    if (!GCL_IS_FAILURE(result)) {
        printf("%s: %s\n", question, answer);
    }
    return result;
}

/* A port that nobody uses at this moment; 0 if there is none. */
static int32_t freePort(void)
{
    struct sockaddr_in address;
    socklen_t length = sizeof address;
    int32_t port = 0;
    const int descriptor = socket(AF_INET, SOCK_STREAM, 0);
    memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    if (bind(descriptor, (struct sockaddr*)&address, length) == 0 &&
        getsockname(descriptor, (struct sockaddr*)&address, &length) == 0) {
        port = ntohs(address.sin_port);
    }
    (void)close(descriptor);
    return port;
}

int main(void)
{
    CTcpSocket* server = NULL;
    pthread_t serverThread;
    int32_t port = freePort();

    /* [sigpipe] */
    /* The library sends without MSG_NOSIGNAL: a peer that has gone would end this process. */
    (void)signal(SIGPIPE, SIG_IGN);
    /* [sigpipe end] */
    if (pthread_create(&serverThread, NULL, serve, &port) != 0) {
        return EXIT_FAILURE;
    }
    uint32_t result = connectTo(&server, port);
    if (GCL_IS_FAILURE(result)) {
        return EXIT_FAILURE; /* the server waits for a client that does not come */
    }
    result = CTcpSocket_SetTimeout(server, kLimitSeconds);
    if (!GCL_IS_FAILURE(result)) {
        result = ask(server, "carriers of sector north");
    }
    if (!GCL_IS_FAILURE(result)) {
        result = ask(server, "alarms");
    }
    freeSocket(&server);
    (void)pthread_join(serverThread, NULL);
    return GCL_IS_FAILURE(result) ? EXIT_FAILURE : EXIT_SUCCESS;
}
