#include "bench/floor/CTcpSocketFloor.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

namespace {

bool readAll(int descriptor, void* buffer, size_t length)
{
    size_t got = 0;
    while (got < length) {
        const ssize_t count = read(descriptor, static_cast<char*>(buffer) + got, length - got);
        if (count <= 0) {
            return false;
        }
        got += static_cast<size_t>(count);
    }
    return true;
}

} // namespace

bool floorWrite(int descriptor, const void* data, int32_t length)
{
    int32_t sent = 0;
    while (sent < length) {
        const ssize_t count = send(descriptor, static_cast<const char*>(data) + sent,
                                   static_cast<size_t>(length - sent), 0);
        if (count < 0) {
            return false;
        }
        sent += static_cast<int32_t>(count);
    }
    return true;
}

int32_t floorRead(int descriptor, void* buffer, int32_t length)
{
    return static_cast<int32_t>(recv(descriptor, buffer, static_cast<size_t>(length), 0));
}

bool floorWriteFrame(int descriptor, uint32_t syncId, uint32_t sequenceNumber, void* payload,
                     uint32_t length)
{
    uint32_t header[] = {htonl(syncId), htonl(sequenceNumber), htonl(length)};
    const iovec pieces[] = {{&header[0], sizeof header[0]},
                            {&header[1], sizeof header[1]},
                            {&header[2], sizeof header[2]},
                            {payload, length}};
    return writev(descriptor, pieces, 4) == static_cast<ssize_t>(sizeof header + length);
}

// The contract measures how long the search takes, hence the two looks at the clock.
bool floorReadFrame(int descriptor, uint32_t syncId, void* buffer, uint32_t length,
                    uint32_t* payloadLength)
{
    timespec begin{};
    timespec end{};
    clock_gettime(CLOCK_MONOTONIC, &begin);
    uint32_t lastFourBytes = 0;
    do {
        unsigned char byte = 0;
        if (!readAll(descriptor, &byte, 1)) {
            return false;
        }
        lastFourBytes = lastFourBytes << 8 | byte;
    } while (lastFourBytes != syncId);
    clock_gettime(CLOCK_MONOTONIC, &end);
    uint32_t word = 0;
    if (!readAll(descriptor, &word, sizeof word) || !readAll(descriptor, &word, sizeof word)) {
        return false;
    }
    *payloadLength = ntohl(word);
    return *payloadLength <= length && readAll(descriptor, buffer, *payloadLength) &&
           end.tv_sec >= begin.tv_sec;
}
