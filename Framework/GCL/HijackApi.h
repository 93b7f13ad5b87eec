// HijackApi: a client that exchanges framed messages with a server node over IPv4 TCP.
//
// A frame is a header of three unsigned 32-bit words, most significant byte first, and a payload:
//
//     offset 0   syncId          the sender's synchronisation word
//     offset 4   sequenceNumber  the sender's running frame number, modulo 2^32
//     offset 8   msgSize         payload bytes that follow
//     offset 12  payload         the caller's bytes, unchanged
//
// There is no checksum, no end marker and no padding. The reader hunts for the peer's syncId byte
// by byte, and so finds the next frame after garbage or after a frame that it gave up. A gap in the
// sequence numbers is reported and accepted.
//
// Calling order: construct, connectToServer, then writeToNet and readFromNet in any order and
// number. Nothing but the fields is kept between calls; in particular no received byte is buffered.
//
// A client takes no lock and starts no thread. The write path uses txSyncId, txSequenceNumber,
// socketFd and trace, the read path rxSyncId, rxSequenceNumber, maxSyncWaitMs, socketFd and trace:
// one thread may write while another reads, but several readers or several writers serialise their
// calls, and nobody calls connectToServer meanwhile.
//
// Failures are told by the result and by messages on the trace object, each with its level (1 the
// most urgent); a message above the object's level is formatted into its discarding stream. The
// class throws nothing by itself. Writing to a connection that the peer has reset raises SIGPIPE,
// which a process that uses this class ignores.
#ifndef GCL_HIJACKAPI_H
#define GCL_HIJACKAPI_H

#include <netinet/in.h>

#include <cstdint>
#include <string>

#include "Framework/GCL/Api.h"

class VorTrace;

namespace Util {

class GCL_API HijackApi {
public:
    // Makes a client that is not connected. It does no I/O. The arguments are those of the fields
    // of the same names; `trace` is kept by reference and must outlive the client.
    HijackApi(VorTrace& trace, unsigned short port, unsigned maxSyncWaitMs, unsigned txSyncId,
              unsigned rxSyncId);

    // Does nothing: a connected socket stays open, and belongs to whoever closes socketFd.
    ~HijackApi();

    // Two clients on one connection would number their frames independently of each other.
    HijackApi(const HijackApi&) = delete;
    HijackApi& operator=(const HijackApi&) = delete;

    // connectToServer connects to the server at serverAddr, a numeric IPv4 address as inet_aton(3)
    // takes it, and the port in serverAddress.sin_port, which the constructor has set; to change
    // the field `port` has no effect. Names are not looked up. It blocks as connect(2) does, and
    // gives the new socket a receive time-out (SO_RCVTIMEO) of 100 seconds; a failure of that is
    // ignored. A connect(2) that a signal interrupts has failed; it is not repeated.
    // Each call writes "Connect to server" (level 4) and opens a new socket; what socketFd held
    // before is overwritten, not closed. The sequence numbers go on where they were.
    //   true   connected; socketFd is the socket
    //   false  socket(2) failed: "Error in socket: " and the reason (level 4); socketFd keeps the
    //          negative result
    //   false  serverAddr is not a numeric address: "Error in inet_aton: " and a reason (level 4);
    //          the socket is closed, socketFd is -1. inet_aton(3) names no reason of its own: the
    //          text is the one of whatever errno holds at that moment
    //   false  connect(2) failed: "Error in connect: " and the reason (level 4); the socket is
    //          closed, socketFd is -1
    bool connectToServer(const std::string& serverAddr);

    // writeToNet sends one frame with the `length` bytes at `payload`, by one writev(2) that is
    // never repeated, and stores the bytes sent, header included, in *written (which may be NULL).
    // After any failure *written and txSequenceNumber are as they were. The bytes of an incomplete
    // frame stay on the wire; the receiver hunts for the next one.
    // A client that never called connectToServer writes to descriptor 0.
    // The result of writev(2) is compared with length + 12 as a signed 32-bit number; with a
    // `length` of 0x7FFFFFF4 or more that sum wraps, and a short write passes for a whole frame.
    //   true   the frame went out whole; txSequenceNumber has advanced by 1
    //   false  socketFd is -1: "HijackApi::writeToNet(), socket not open" (level 1)
    //   false  writev(2) failed, also by a signal: "Socket writev() returned -1, error: " and the
    //          reason (level 1)
    //   false  it wrote nothing: "Socket writev() returned 0, socket is likely closed" (level 1)
    //   false  it wrote less than the frame: "Socket writev() returned <n> expecting <length + 12>"
    //          (level 3)
    bool writeToNet(unsigned char* payload, unsigned length, unsigned* written);

    // readFromNet waits for a frame, as long as it takes, and reads it into `buffer`. *msgLen
    // (msgLen may be NULL) receives the payload's length; it is untouched if the call fails before
    // the length was read, and 0 if it fails later. What safeRead reports comes first.
    // On a peer that has closed the connection the call does not return, see safeRead.
    //   true   *msgLen bytes are in `buffer`: "HijackApi::read() message OK" (level 6)
    //   false  "HijackApi::read(), syncId not found " (level 1)
    //   false  "HijackApi::read(), safeRead() return wrong number of bytes for sequenceNumber"
    //          (level 1)
    //   false  "HijackApi::read(), safeRead() return wrong number of bytes for msgSize" (level 1)
    //   false  "HijackApi::read(), Message length <size> exceeds max buffer length <bufferLength>"
    //          (level 1); the payload stays in the stream, and the next call hunts through it
    //   false  "HijackApi::read(), safeRead() return wrong  number of bytes for msg" (level 1)
    // Further messages, after which the call goes on:
    //   level 6  before the payload: "HijackApi::read, message legth: <size>"
    //   level 5  the search, and with it the wait for the first byte, took longer than
    //            maxSyncWaitMs: "HijackApi::read(), safeReadSyncId() wait more than
    //            <maxSyncWaitMs>ms (<elapsed>)s for message from node", one line; the elapsed time
    //            is in milliseconds
    //   level 2  the number is not rxSequenceNumber + 1 modulo 2^32: "HijackApi::read(), Sequence
    //            number <new> not in sequence with old <old>"; rxSequenceNumber takes the new
    //            number in any case
    // UNSAFE: lengths of 2^31 and more are signed numbers to the last check. If bufferLength admits
    // such a frame, safeRead refuses and reports it, nothing is stored in `buffer`, and the call
    // returns true nevertheless. Pass a bufferLength below 2^31.
    bool readFromNet(unsigned char* buffer, unsigned bufferLength, unsigned* msgLen);

    // safeRead reads exactly `length` bytes into `buffer`, by as many read(2) calls as it takes, at
    // least one, and returns `length`; or -1 after a failure. It never gives up because of time: a
    // receive time-out is told by "HijackApi::safeRead(), socket read() returned EAGAIN, read would
    // be blocked" (level 4), the processor is given up once (sched_yield(2)) and the read repeated;
    // an interrupted read is repeated silently.
    // At the end of the stream it reads on for good, without pausing: a peer that has closed the
    // connection in an orderly way is not an error here. The owner ends such a call by making the
    // socket fail, or by setting socketFd, which is read anew before each read(2), to -1.
    // A client that never called connectToServer reads from descriptor 0.
    //   -1  socketFd is -1: "HijackApi::safeRead(), socket not open" (level 1)
    //   -1  read(2) failed otherwise: "HijackApi::safeRead(), socket read() returned -1, Error: "
    //       and the reason (level 1); bytes read before are lost. A negative `length` is such a
    //       failure (EINVAL), made without a call
    int safeRead(unsigned char* buffer, int length);

    // safeReadSyncId reads byte by byte until the last four bytes make up rxSyncId, the first of
    // them most significant. Bytes before the first one count as zeros: a sync id with leading zero
    // bytes is found after fewer than four. It skips any number of bytes and writes no message of
    // its own.
    //   true   found; the sequence number is next in the stream
    //   false  safeRead failed
    bool safeReadSyncId();

    // The whole state of a client. The fields are public so that the owner can watch them, close
    // socketFd and set it to -1, and set options of the socket; the class writes only
    // txSequenceNumber, rxSequenceNumber, socketFd and serverAddress after construction.
    uint32_t txSyncId;         // the sync id of outgoing frames
    uint32_t rxSyncId;         // the sync id that starts an incoming frame
    uint32_t txSequenceNumber; // of the next outgoing frame; 0 at first
    uint32_t rxSequenceNumber; // of the last incoming frame; 0 at first, so that 1 is expected
    int32_t socketFd;          // 0 at first, -1 after a failed connect; the owner closes it
    VorTrace& trace;           // where the messages go; not owned
    uint32_t maxSyncWaitMs;    // milliseconds that the search for a frame may take unwarned
    uint16_t port;             // the server's TCP port, as constructed; nothing reads it
    sockaddr_in serverAddress; // the server's address; AF_INET, port, and 0.0.0.0 at first
};

} // namespace Util

#endif // GCL_HIJACKAPI_H
