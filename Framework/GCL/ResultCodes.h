// Result codes: what the operations of the plain-structure interface return, as a uint32_t.
//
// The magnitude of a code tells its severity: 0 is success, 0x8000 and above a failure, 0x1000 to
// 0x7FFF a warning, smaller codes are notices or stand only in reports. A code below 0x8000 is a
// success that may carry news, so test for failure with GCL_IS_FAILURE, not by comparing with
// GCL_OK. CHyxTraceHandler_DmLevel2VtLevel maps a code to a trace level.
#ifndef GCL_RESULTCODES_H
#define GCL_RESULTCODES_H

#include <stdint.h>

// The codes in use. Functions return them as uint32_t; their severity is told by the value alone.
enum GCL_ResultCode {
    GCL_OK = 0x0000, // success

    // Notices; they stand in reports and are never returned.
    GCL_DRAIN_FAILED = 0x0100,   // draining a socket's send queue: a call failed or time ran out
    GCL_DRAIN_PROGRESS = 0x0840, // draining a socket's send queue: progress and completion

    // Warnings.
    GCL_MUTEX_INIT_FAILED = 0x1000, // a FIFO's mutex could not be initialised (only reported)
    GCL_LAST_ITEM = 0x1002,         // a list iteration handed out the last item

    // Failures.
    GCL_FAILURE = 0x8000,              // general failure
    GCL_STACK_FULL = 0x8002,           // the stack holds as many entries as it can
    GCL_STACK_EMPTY = 0x8003,          // the stack holds no entry
    GCL_LIST_EMPTY = 0x8004,           // the list holds no item
    GCL_ITEM_NOT_FOUND = 0x8005,       // no node of the list holds the item, or it has no node
    GCL_POOL_EXHAUSTED = 0x8007,       // no memory block can be taken from the pool
    GCL_INVALID_ARGUMENT = 0x8008,     // a NULL argument, a circular list, a closed socket, no data
    GCL_INDEX_OUT_OF_RANGE = 0x8009,   // the list has no node with this index
    GCL_SOCKET_FAILED = 0x800A,        // a socket call failed, or the socket is already closed
    GCL_CONNECT_FAILED = 0x800B,       // no address of the server accepted the connection
    GCL_INCONSISTENT = 0x800C,         // a list contradicts itself, or an fcntl(2) call failed
    GCL_PEER_CLOSED = 0x800D,          // the peer closed the connection
    GCL_INVALID_HASH_TABLE = 0x8010,   // the hash table is NULL or contradicts itself
    GCL_INVALID_HASH_KEY = 0x8011,     // the hash key is NULL
    GCL_PAIR_NOT_FOUND = 0x8013,       // the hash table has no pair with this key
    GCL_TIMED_OUT = 0x8015,            // waiting for a socket took longer than its time-out
    GCL_FIFO_FULL = 0x8016,            // the FIFO holds as many elements as it can
    GCL_FIFO_EMPTY = 0x8017,           // the FIFO holds no element
    GCL_FIFO_NOT_INITIALIZED = 0x8018, // the FIFO was not, or not completely, constructed
    GCL_SEMAPHORE_FAILED = 0x8019,     // waiting on or posting a FIFO's semaphore failed
    GCL_MUTEX_FAILED = 0x801A          // locking or releasing a FIFO's mutex failed
};

// GCL_IS_FAILURE is true for the codes (of the type uint32_t) that mean failure, false for success,
// notice and warning.
#define GCL_IS_FAILURE(code) ((code) >= 0x8000u)

#endif // GCL_RESULTCODES_H
