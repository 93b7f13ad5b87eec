#include "Framework/GCL/HijackApi.h"

#include <arpa/inet.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <ostream>
#include <type_traits>

#include "Framework/VT/VorTrace.h"

namespace Util {
namespace {

// The reference makes the class one that offsetof supports only conditionally; both compilers do.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winvalid-offsetof"
static_assert(offsetof(HijackApi, txSyncId) == 0);
static_assert(offsetof(HijackApi, rxSyncId) == 4);
static_assert(offsetof(HijackApi, txSequenceNumber) == 8);
static_assert(offsetof(HijackApi, rxSequenceNumber) == 12);
static_assert(offsetof(HijackApi, socketFd) == 16);
// `trace` is a pointer between these two, at the next multiple of its size.
constexpr size_t kBehindTrace = sizeof(void*) == 8 ? 32 : 24;
static_assert(offsetof(HijackApi, maxSyncWaitMs) == kBehindTrace);
static_assert(offsetof(HijackApi, port) == kBehindTrace + 4);
static_assert(offsetof(HijackApi, serverAddress) == kBehindTrace + 8);
static_assert(sizeof(HijackApi) == kBehindTrace + 24);
static_assert(!std::is_polymorphic_v<HijackApi>);
#pragma GCC diagnostic pop

constexpr char kSource[] = "Framework/GCL/private/HijackApi";

constexpr unsigned kHeaderBytes = 12;
constexpr long kReceiveTimeoutSeconds = 100;

// The platform's description of an error, as a piece of a message.
struct ErrorText {
    int error;
};

std::ostream& operator<<(std::ostream& stream, ErrorText text)
{
    const char* const description = std::strerror(text.error);
    if (description == nullptr) {
        stream.setstate(std::ios_base::badbit);
        return stream;
    }
    return stream << description;
}

// Writes one message. The flush at its end is what completes it; endLogMsg is not called. The
// pieces of a message that the level does not admit are formatted all the same, and discarded.
template <typename... Pieces>
[[gnu::cold, gnu::noinline]] void writeMessage(VorTrace& trace, VorTraceLevel level,
                                               const VorTraceHeader& site, Pieces... pieces)
{
    const bool admitted = trace.hasImpl() && trace.level() > level - 1;
    if (admitted) {
        trace.beginLogMsg(level, site);
    }
    std::ostream& stream = admitted ? trace.stream() : trace.discardStream();
    (stream << ... << pieces) << std::endl;
}

// GCL_TRACE(level, pieces...) writes a message of a member function. Each site has its own record,
// which carries the function's name. The pieces are evaluated before anything is written, so that
// `errno` among them is still that of the failed call.
#define GCL_TRACE(level, ...)                                                                      \
    do {                                                                                           \
        static constexpr VorTraceHeader site = {kSource, __LINE__, __func__};                      \
        writeMessage(trace, (level), site, __VA_ARGS__);                                           \
    } while (false)

// Closes the socket of a connection that did not come about.
void giveUp(int32_t& socketFd)
{
    // Nothing was sent: a failure to close has nothing to tell.
    static_cast<void>(close(socketFd));
    socketFd = -1;
}

// read(2) for a length that may be negative, which as a count of bytes would exceed any buffer. A
// kernel of the process's own width refuses such a count; a 64-bit kernel would take that of a
// 32-bit process for a large positive one and write behind the buffer, so it is not asked.
ssize_t readUpTo(int32_t socketFd, unsigned char* buffer, int length)
{
    if (length < 0) {
        errno = EINVAL;
        return -1;
    }
    return read(socketFd, buffer, static_cast<size_t>(length));
}

uint32_t bigEndianWord(const unsigned char (&bytes)[4])
{
    uint32_t word = 0;
    std::memcpy(&word, bytes, sizeof word);
    return ntohl(word);
}

} // namespace

HijackApi::HijackApi(VorTrace& traceObject, unsigned short serverPort, unsigned syncWaitMs,
                     unsigned ownSyncId, unsigned peerSyncId)
    : txSyncId(ownSyncId),
      rxSyncId(peerSyncId),
      txSequenceNumber(0),
      rxSequenceNumber(0),
      // By contract: 0, not -1. Only a failed connectToServer makes a client that is known to have
      // no socket; one that never tried acts on descriptor 0.
      socketFd(0),
      trace(traceObject),
      maxSyncWaitMs(syncWaitMs),
      port(serverPort),
      serverAddress()
{
    serverAddress.sin_family = AF_INET;
    serverAddress.sin_port = htons(serverPort);
}

// By contract: the socket outlives the client unless its owner closes it.
HijackApi::~HijackApi() = default;

bool HijackApi::connectToServer(const std::string& serverAddr)
{
    GCL_TRACE(VorTraceLevel4, "Connect to server");
    // By contract: a socket that the client holds already is overwritten, not closed.
    socketFd = socket(AF_INET, SOCK_STREAM, 0);
    if (socketFd < 0) {
        GCL_TRACE(VorTraceLevel4, "Error in socket: ", ErrorText{errno});
        return false;
    }
    // The reasons are taken before the socket is closed: they describe the call that failed.
    if (inet_aton(serverAddr.c_str(), &serverAddress.sin_addr) == 0) {
        const ErrorText reason{errno};
        giveUp(socketFd);
        GCL_TRACE(VorTraceLevel4, "Error in inet_aton: ", reason);
        return false;
    }
    if (connect(socketFd, reinterpret_cast<const sockaddr*>(&serverAddress),
                sizeof serverAddress) != 0) {
        const ErrorText reason{errno};
        giveUp(socketFd);
        GCL_TRACE(VorTraceLevel4, "Error in connect: ", reason);
        return false;
    }
    timeval timeout{};
    timeout.tv_sec = kReceiveTimeoutSeconds;
    // Without the time-out a read waits longer, and is otherwise the same.
    static_cast<void>(setsockopt(socketFd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout));
    return true;
}

bool HijackApi::writeToNet(unsigned char* payload, unsigned length, unsigned* written)
{
    uint32_t header[] = {htonl(txSyncId), htonl(txSequenceNumber), htonl(length)};
    static_assert(sizeof header == kHeaderBytes);
    if (socketFd == -1) {
        GCL_TRACE(VorTraceLevel1, "HijackApi::writeToNet(), socket not open");
        return false;
    }
    const iovec pieces[] = {{&header[0], sizeof header[0]},
                            {&header[1], sizeof header[1]},
                            {&header[2], sizeof header[2]},
                            {payload, length}};
    const ssize_t sent = writev(socketFd, pieces, 4);
    if (sent < 0) {
        GCL_TRACE(VorTraceLevel1, "Socket writev() returned -1, error: ", ErrorText{errno});
        return false;
    }
    if (sent == 0) {
        GCL_TRACE(VorTraceLevel1, "Socket writev() returned 0, socket is likely closed");
        return false;
    }
    // By contract: the sum is a signed 32-bit number, whatever the length.
    const auto expected = static_cast<int32_t>(length + kHeaderBytes);
    if (sent < expected) {
        GCL_TRACE(VorTraceLevel3, "Socket writev() returned ", sent, " expecting ", expected);
        return false;
    }
    if (written != nullptr) {
        *written = static_cast<unsigned>(sent);
    }
    ++txSequenceNumber;
    return true;
}

bool HijackApi::readFromNet(unsigned char* buffer, unsigned bufferLength, unsigned* msgLen)
{
    unsigned unwantedLength = 0;
    if (msgLen == nullptr) {
        msgLen = &unwantedLength;
    }

    const auto start = std::chrono::steady_clock::now();
    if (!safeReadSyncId()) {
        GCL_TRACE(VorTraceLevel1, "HijackApi::read(), syncId not found ");
        return false;
    }
    const int64_t elapsedMs = std::chrono::duration_cast<std::chrono::milliseconds>(
                                  std::chrono::steady_clock::now() - start)
                                  .count();
    if (int64_t{maxSyncWaitMs} < elapsedMs) {
        // By contract: the text says seconds, the number is milliseconds.
        GCL_TRACE(VorTraceLevel5, "HijackApi::read(), safeReadSyncId() wait more than ",
                  maxSyncWaitMs, "ms (", elapsedMs, ")s for message from node");
    }

    unsigned char word[4];
    if (safeRead(word, sizeof word) < int{sizeof word}) {
        GCL_TRACE(VorTraceLevel1, "HijackApi::read(), safeRead() return wrong number of bytes for "
                                  "sequenceNumber");
        return false;
    }
    const uint32_t sequenceNumber = bigEndianWord(word);
    if (sequenceNumber != rxSequenceNumber + 1) {
        GCL_TRACE(VorTraceLevel2, "HijackApi::read(), Sequence number ", sequenceNumber,
                  " not in sequence with old ", rxSequenceNumber);
    }
    // By contract: a gap, a repeat and a restart of the peer's numbering are accepted.
    rxSequenceNumber = sequenceNumber;

    if (safeRead(word, sizeof word) < int{sizeof word}) {
        GCL_TRACE(VorTraceLevel1,
                  "HijackApi::read(), safeRead() return wrong number of bytes for msgSize");
        return false;
    }
    const uint32_t msgSize = bigEndianWord(word);
    *msgLen = msgSize;
    if (bufferLength < msgSize) {
        // The payload stays in the stream: the next search skips it.
        GCL_TRACE(VorTraceLevel1, "HijackApi::read(), Message length ", msgSize,
                  " exceeds max buffer length ", bufferLength);
        *msgLen = 0;
        return false;
    }
    GCL_TRACE(VorTraceLevel6, "HijackApi::read, message legth: ", msgSize);
    // By contract: the size is a signed number here, so that one of 2^31 and more is never greater
    // than the result; safeRead refuses it, and the message passes with nothing read.
    const auto signedSize = static_cast<int32_t>(msgSize);
    if (signedSize > safeRead(buffer, signedSize)) {
        GCL_TRACE(VorTraceLevel1,
                  "HijackApi::read(), safeRead() return wrong  number of bytes for msg");
        *msgLen = 0;
        return false;
    }
    GCL_TRACE(VorTraceLevel6, "HijackApi::read() message OK");
    return true;
}

int HijackApi::safeRead(unsigned char* buffer, int length)
{
    if (socketFd == -1) {
        GCL_TRACE(VorTraceLevel1, "HijackApi::safeRead(), socket not open");
        return -1;
    }
    int got = 0;
    while (true) {
        const ssize_t result = readUpTo(socketFd, buffer + got, length - got);
        if (result >= 0) {
            // By contract: the end of the stream, a result of 0, is not an error; the loop goes on.
            got += static_cast<int>(result);
            if (got >= length) {
                return got;
            }
        } else if (errno == EAGAIN) {
            GCL_TRACE(VorTraceLevel4, "HijackApi::safeRead(), socket read() returned EAGAIN, read "
                                      "would be blocked");
            static_cast<void>(sched_yield()); // it cannot fail on Linux
        } else if (errno != EINTR) {
            GCL_TRACE(VorTraceLevel1, "HijackApi::safeRead(), socket read() returned -1, Error: ",
                      ErrorText{errno});
            return -1;
        }
    }
}

bool HijackApi::safeReadSyncId()
{
    uint32_t lastFourBytes = 0;
    do {
        unsigned char byte = 0;
        if (safeRead(&byte, 1) == -1) {
            return false;
        }
        lastFourBytes = lastFourBytes << 8 | byte;
    } while (lastFourBytes != rxSyncId);
    return true;
}

} // namespace Util
