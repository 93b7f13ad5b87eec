// CTcpSocket: one end of a TCP connection, as a plain structure.
//
// A caller connects to a server (CTcpSocket_Create) or serves exactly one client on a port
// (CTcpSocket_WaitForConnection); both hand out a new structure that carries the connected socket.
// Then, optionally, CTcpSocket_SetTimeout, any number of writes and reads, CTcpSocket_Close or
// CTcpSocket_Destruct, and at last the caller frees the structure with delete[] (a C caller needs a
// C++ helper for that). Alternatively CTcpSocket_Construct fills a structure of the caller's own
// from a connected descriptor.
//
// The object owns its descriptor. It is closed while iSocketHandle is -1 and open otherwise.
// Results are codes of ResultCodes.h unless stated otherwise. A failing call leaves the object as
// it was, but for what its comment names. Failures marked (reported) are reported on GCL_trace.
// Where a comment does not mention a check for NULL, there is none, and a NULL pointer is the
// caller's error. Where an allocation fails, std::bad_alloc passes through the call, descriptors
// that it opened are closed, and nothing leaks; a C caller on ARM must be compiled with
// -fexceptions for that. Create and WaitForConnection allocate the object that they hand out; Write
// and Read allocate only where they wait for a descriptor of 1024 or more.
//
// The module has no state of its own and takes no lock. One object may be used by one thread at a
// time; callers serialise Close and Destruct against Read and Write. It rests on BSD sockets,
// select(2) and Linux's SIOCOUTQ.
//
// Signals: data is sent without MSG_NOSIGNAL, so a write to a connection that the peer has reset
// raises SIGPIPE, which ends a process that neither ignores nor handles it. A call of the platform
// that a signal interrupts (signal(7)) has failed and is not made again: getting connected, sending
// and receiving then return what such a failure gives. Only a wait of Write or Read counts as ready
// when it is interrupted: the send or receive follows at once, and may fail on a descriptor that is
// not ready.
#ifndef GCL_CTCPSOCKET_H
#define GCL_CTCPSOCKET_H

#include <stdint.h>

#include "Framework/GCL/Api.h"

GCL_C_BEGIN

// A connection. The fields may be read; the operations write them.
typedef struct CTcpSocket {
    int32_t iSocketHandle; // descriptor of the connected stream socket, owned; -1 when closed
    int32_t iPort;         // port given when the connection was made or accepted; 0 once closed
    uint32_t uiMaxMsgSize; // largest size in bytes that CTcpSocket_Read accepts; never changed
    uint32_t uiTimeout;    // limit of each wait of Write and Read, in seconds; 0: block, no wait
} CTcpSocket;

// CTcpSocket_Construct makes pThis an open object that owns iSocketHandle, with a time-out of 0.
// Nothing is checked, and what the structure held before is not looked at. A NULL pThis is allowed
// and does nothing. uiMaxMsgSize is compared as a signed number: with 2^31 or more bytes every
// positive size is too large for CTcpSocket_Read.
GCL_API void CTcpSocket_Construct(CTcpSocket* pThis, int32_t iSocketHandle, int32_t iPort,
                                  uint32_t uiMaxMsgSize);

// CTcpSocket_Create connects to port iPort of szHost, a host name or the text of an IPv4 or IPv6
// address, and stores the new object in *ppThis, whose earlier value is not looked at. It tries the
// addresses of getaddrinfo(3) in order and blocks in that call and in connect(2). *ppThis is
// written on success only. The caller owns the object: after Close or Destruct it frees it with
// delete[].
//   GCL_OK                connected
//   GCL_INVALID_ARGUMENT  ppThis is NULL (reported)
//   GCL_SOCKET_FAILED     getaddrinfo returned a negative value (reported)
//   GCL_CONNECT_FAILED    no address accepted the connection (reported)
GCL_API uint32_t CTcpSocket_Create(CTcpSocket** ppThis, const char* szHost, int32_t iPort,
                                   uint32_t uiMaxMsgSize);

// CTcpSocket_WaitForConnection binds to port iPort on the first local address that allows it,
// blocks in accept(2) until a client connects, and stores the new object in *ppThis, whose earlier
// value is not looked at. The listening socket is closed again: each call serves one client. It has
// SO_REUSEADDR, so that the next call can bind to the same port at once. *ppThis is written on
// success only, and the caller owns the object as with CTcpSocket_Create. A bind(2) that fails also
// writes the platform's description of the error to standard error, by perror(3).
//   GCL_OK                a client is connected
//   GCL_INVALID_ARGUMENT  ppThis is NULL (reported)
//   GCL_SOCKET_FAILED     getaddrinfo, setsockopt, listen or accept failed, or no address could be
//                         bound (reported); each address whose socket or bind call failed before is
//                         reported as well, with this code, and the next one is tried
GCL_API uint32_t CTcpSocket_WaitForConnection(CTcpSocket** ppThis, int32_t iPort,
                                              uint32_t uiMaxMsgSize);

// CTcpSocket_Write sends *piDataLen bytes of pData, all of them, with as many send(2) calls as that
// takes. With a time-out it waits before each of them, by select(2), for the socket to be writable;
// every wait has the whole limit. *piDataLen is read again before each send and must not change
// meanwhile. uiMaxMsgSize does not matter here.
// If select fails, other than interrupted by a signal, the call sends nothing more until a wait
// has been interrupted; it goes on waiting, at once while select goes on failing, and ends with
// GCL_TIMED_OUT when a wait times out. It never returns GCL_SOCKET_FAILED for that while bytes
// remain, and it can keep the processor busy for ever on a descriptor that has become invalid.
// May raise SIGPIPE (see above). A call that throws std::bad_alloc, on a descriptor of 1024 or more
// with a time-out, may have sent some bytes before: *piDataLen is unchanged and tells no count.
//   GCL_OK                all bytes are handed to the platform; *piDataLen is unchanged
//   GCL_INVALID_ARGUMENT  pThis is NULL, the object is closed, pData is NULL, or *piDataLen is
//                         below 1 (reported)
//   GCL_TIMED_OUT         a wait lasted uiTimeout seconds (silent); some bytes may have been sent,
//                         and *piDataLen is unchanged
//   GCL_SOCKET_FAILED     send failed (reported); *piDataLen is the count of bytes sent before.
//                         Silent, and with all bytes sent, only where another thread set uiTimeout
//                         to 0 after a failed wait
GCL_API uint32_t CTcpSocket_Write(CTcpSocket* pThis, const void* pData, int32_t* piDataLen);

// CTcpSocket_Read stores what one recv(2) call yields, at most *piDataLen bytes, in pReceiveBuffer
// and the count in *piDataLen. It gathers neither a full buffer nor a message. With a time-out it
// first waits, by select(2), for the socket to be readable.
// A negative *piDataLen is not refused: it reaches recv as the size_t that it converts to, so that
// the platform may write beyond any buffer. Never pass one.
//   GCL_OK                at least one byte was received
//   GCL_INVALID_ARGUMENT  pThis is NULL, the object is closed, pReceiveBuffer or piDataLen is NULL,
//                         *piDataLen is 0, or above uiMaxMsgSize, both taken as signed numbers;
//                         exactly uiMaxMsgSize is accepted (reported)
//   GCL_TIMED_OUT         the wait lasted uiTimeout seconds (silent); *piDataLen is unchanged
//   GCL_PEER_CLOSED       the peer closed the connection; *piDataLen is 0 (silent)
//   GCL_SOCKET_FAILED     recv failed; *piDataLen is -1 (reported); or select failed, other than
//                         interrupted by a signal; *piDataLen is unchanged (silent)
GCL_API uint32_t CTcpSocket_Read(CTcpSocket* pThis, void* pReceiveBuffer, int32_t* piDataLen);

// CTcpSocket_ReadZT reads text: it calls CTcpSocket_Read with a buffer of its own and then copies
// as many bytes as *piDataLen says afterwards to pszBuffer, whatever the read returned. The copy
// stops at the first zero byte received and fills the rest of that count with zeros; nothing is
// written behind it, and a count of 0 or -1 copies nothing. So the text is not terminated: zero the
// buffer and ask for one byte less than it holds. After a refused size and after a time-out
// pszBuffer holds *piDataLen zeros; hence it must have room for *piDataLen bytes as passed, also
// where that is above uiMaxMsgSize.
// The calling thread needs the smaller of *piDataLen and uiMaxMsgSize + 1 bytes of stack beside the
// usual, and only 1 byte where uiMaxMsgSize is 2^31 or more; where it has less, the process ends
// with a segmentation fault at the stack's guard page (if the compiler that built the library has
// -fstack-clash-protection for the processor; the build warns where it has not).
//   GCL_INVALID_ARGUMENT  *piDataLen is negative; nothing is read or written (reported)
//   others                the code of CTcpSocket_Read, which also reports under its own name
GCL_API uint32_t CTcpSocket_ReadZT(CTcpSocket* pThis, char* pszBuffer, int32_t* piDataLen);

// CTcpSocket_SetTimeout sets the limit of the waits of Write and Read, in seconds, and makes the
// descriptor non-blocking (O_NONBLOCK) for it; 0 switches the waits off and makes it blocking
// again. uiTimeout is stored also if the call then fails. Where time_t has 32 bits, a limit above
// 2^31 - 1 seconds waits for 2^31 - 1 seconds.
//   GCL_OK                set
//   GCL_INVALID_ARGUMENT  pThis is NULL (reported)
//   GCL_INCONSISTENT      fcntl(2) could not write the flags, as on a closed object (reported)
GCL_API uint32_t CTcpSocket_SetTimeout(CTcpSocket* pThis, uint32_t uiTimeout);

// CTcpSocket_GetSocketHandle returns the descriptor, which the object goes on owning; -1 if the
// object is closed or pThis is NULL (reported, with GCL_INVALID_ARGUMENT).
GCL_API int32_t CTcpSocket_GetSocketHandle(const CTcpSocket* pThis);

// CTcpSocket_Close shuts the connection down in both directions, waits until the peer has
// acknowledged everything in the send queue, about 100 ms at most, and closes the descriptor,
// whether or not the queue drained. The object is then closed; uiMaxMsgSize and uiTimeout stay. The
// wait is measured with the wall clock and bounded by 501 sleeps of 2 ms where that is set back;
// its progress is reported with GCL_DRAIN_PROGRESS, its failures with GCL_DRAIN_FAILED, under the
// name "CTcpSocket_DrainSendBuffer".
//   GCL_OK                closed
//   GCL_INVALID_ARGUMENT  pThis is NULL (reported)
//   GCL_SOCKET_FAILED     the object is closed already (reported)
GCL_API uint32_t CTcpSocket_Close(CTcpSocket* pThis);

// CTcpSocket_Destruct closes the object if it is open, as CTcpSocket_Close does, and sets uiTimeout
// to 0. It does not free the structure. A NULL pThis is allowed and does nothing.
GCL_API void CTcpSocket_Destruct(CTcpSocket* pThis);

GCL_C_END

#endif // GCL_CTCPSOCKET_H
