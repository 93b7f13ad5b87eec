// The floor of CTcpSocket and of the framed client: the system calls that each call makes, and the
// loops that short results ask for.
#ifndef KIVGCL_BENCH_FLOOR_CTCPSOCKETFLOOR_H
#define KIVGCL_BENCH_FLOOR_CTCPSOCKETFLOOR_H

#include <cstdint>

#include "bench/floor/Floor.h"

FLOOR_API bool floorWrite(int descriptor, const void* data, int32_t length);
FLOOR_API int32_t floorRead(int descriptor, void* buffer, int32_t length);

// A frame in one gathering write of its four pieces.
FLOOR_API bool floorWriteFrame(int descriptor, uint32_t syncId, uint32_t sequenceNumber,
                               void* payload, uint32_t length);
// A frame in seven reads, of which four look for the sync id byte by byte.
FLOOR_API bool floorReadFrame(int descriptor, uint32_t syncId, void* buffer, uint32_t length,
                              uint32_t* payloadLength);

#endif // KIVGCL_BENCH_FLOOR_CTCPSOCKETFLOOR_H
