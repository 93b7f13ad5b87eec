#include "Framework/GCL/CTcpSocket.h"

#include <fcntl.h>
#include <linux/sockios.h>
#include <netdb.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iterator>
#include <limits>
#include <memory>

#include "Framework/GCL/ResultCodes.h"
#include "Framework/GCL/private/AddressList.h"
#include "Framework/GCL/private/Clock.h"
#include "Framework/GCL/private/Descriptor.h"
#include "Framework/GCL/private/Report.h"

namespace {

static_assert(offsetof(CTcpSocket, iSocketHandle) == 0);
static_assert(offsetof(CTcpSocket, iPort) == 4);
static_assert(offsetof(CTcpSocket, uiMaxMsgSize) == 8);
static_assert(offsetof(CTcpSocket, uiTimeout) == 12);
static_assert(sizeof(CTcpSocket) == 16);
static_assert(SIOCOUTQ == 0x5411, "the request that yields the size of the send queue");

constexpr char kSource[] = "Framework/GCL/private/CTcpSocket";

constexpr int32_t kClosed = -1;
constexpr int kBacklog = 20;
constexpr long kDrainSleepNs = 2'000'000;
constexpr int64_t kDrainLimitMs = 101;
constexpr uint32_t kDrainMaxWaits = 500;
constexpr int64_t kNsPerMs = 1'000'000;

// A port as the text that getaddrinfo takes for a service.
class PortText {
public:
    explicit PortText(int32_t port)
    {
        // Sign and digits of 32 bits always fit.
        static_cast<void>(std::snprintf(text, sizeof text - 1, "%d", port));
    }
    operator const char*() const { return text; }

private:
    char text[30] = {};
};

// The socket on which WaitForConnection listens: it is shut down before it is closed, however the
// call ends.
class ListeningSocket {
public:
    ~ListeningSocket() { reset(); }

    bool open(const addrinfo& address)
    {
        descriptor.reset(socket(address.ai_family, address.ai_socktype, address.ai_protocol));
        return isOpen();
    }

    void reset()
    {
        if (isOpen()) {
            // It was never connected, so that the call may refuse; it is closed all the same.
            static_cast<void>(shutdown(descriptor.get(), SHUT_RDWR));
            descriptor.reset();
        }
    }

    bool isOpen() const { return descriptor.isOpen(); }
    int get() const { return descriptor.get(); }

private:
    gcl::Descriptor descriptor;
};

// A socket that is connected to the first entry that accepts; closed if none does.
gcl::Descriptor connectToFirst(const addrinfo* entry)
{
    for (; entry != nullptr; entry = entry->ai_next) {
        gcl::Descriptor candidate(socket(entry->ai_family, entry->ai_socktype, entry->ai_protocol));
        if (candidate.isOpen() &&
            connect(candidate.get(), entry->ai_addr, entry->ai_addrlen) == 0) {
            return candidate;
        }
    }
    return gcl::Descriptor();
}

// Makes the object that a caller gets. Should the allocation throw, the descriptor is still owned
// here and *ppThis is as it was.
void handOver(gcl::Descriptor& connected, int32_t port, uint32_t maxMsgSize, CTcpSocket** ppThis)
{
    auto* const created = new CTcpSocket[1];
    *ppThis = created;
    CTcpSocket_Construct(created, connected.release(), port, maxMsgSize);
}

// A set for select(2) with one descriptor in it, as long as that descriptor needs: an fd_set ends
// at FD_SETSIZE, a process may have more. The lower ones allocate nothing.
class DescriptorSet {
public:
    explicit DescriptorSet(int descriptor)
    {
        // A negative number is no descriptor; select refuses it.
        if (descriptor < 0) {
            return;
        }
        index = static_cast<size_t>(descriptor) / kWordBits;
        bit = 1UL << (static_cast<size_t>(descriptor) % kWordBits);
        if (index >= std::size(few)) {
            many = std::make_unique<unsigned long[]>(index + 1);
            words = many.get();
        }
        words[index] = bit;
    }
    DescriptorSet(const DescriptorSet&) = delete;
    DescriptorSet& operator=(const DescriptorSet&) = delete;

    fd_set* get() { return reinterpret_cast<fd_set*>(words); }
    bool holdsDescriptor() const { return (words[index] & bit) != 0; }

private:
    static constexpr size_t kWordBits = sizeof(unsigned long) * CHAR_BIT;
    unsigned long few[FD_SETSIZE / kWordBits] = {};
    std::unique_ptr<unsigned long[]> many;
    unsigned long* words = few;
    size_t index = 0;
    unsigned long bit = 0;
};

enum class Direction { read, write };

// How a readiness wait ended.
enum class Wait { ready, notInSet, interrupted, timedOut, failed };

// Waits for the socket with its time-out, which is not 0.
Wait waitForSocket(const CTcpSocket& socket, Direction direction)
{
    const int descriptor = socket.iSocketHandle;
    DescriptorSet set(descriptor);
    timeval limit{};
    // A limit that a 32-bit time_t cannot hold would count as negative and be refused.
    limit.tv_sec = static_cast<time_t>(
        std::min<int64_t>(socket.uiTimeout, std::numeric_limits<time_t>::max()));
    // The sum is one of unsigned numbers: a caller's structure can hold any descriptor.
    const int count = select(static_cast<int>(static_cast<unsigned>(descriptor) + 1u),
                             direction == Direction::read ? set.get() : nullptr,
                             direction == Direction::write ? set.get() : nullptr, nullptr, &limit);
    if (count == 0) {
        return Wait::timedOut;
    }
    if (count < 0) {
        return errno == EINTR ? Wait::interrupted : Wait::failed;
    }
    return set.holdsDescriptor() ? Wait::ready : Wait::notInSet;
}

// Waits until the send queue of a socket that is shut down is empty, or long enough. The records of
// its reports carry this function's name.
void CTcpSocket_DrainSendBuffer(int32_t descriptor)
{
    const timespec interval = {0, kDrainSleepNs};
    const int64_t startNs = gcl::wallClockNs();
    int previousBytes = -1;
    uint32_t waits = 0;
    while (true) {
        int bytes = 0;
        // By contract: a query that fails counts as an empty queue, which ends the drain.
        if (ioctl(descriptor, SIOCOUTQ, &bytes) < 0) {
            static_cast<void>(GCL_REPORT(GCL_DRAIN_FAILED, "ioctl returned error"));
        }
        if (bytes != previousBytes) {
            static_cast<void>(GCL_REPORT(GCL_DRAIN_PROGRESS, "Bytes left: %d", bytes));
        }
        const long long elapsedMs = (gcl::wallClockNs() - startNs) / kNsPerMs;
        previousBytes = bytes;
        if (bytes == 0) {
            static_cast<void>(GCL_REPORT(
                GCL_DRAIN_PROGRESS, "Buffer drain completed, %u waits, %lld mS. Closing socket %d",
                waits, elapsedMs, descriptor));
            return;
        }
        if (nanosleep(&interval, nullptr) != 0) {
            static_cast<void>(GCL_REPORT(GCL_DRAIN_FAILED, "nanosleep returned error"));
        }
        ++waits;
        // By contract: the time is that before the sleep, so that the drain can last one interval
        // longer. The count bounds it where sleeps return early or the clock is set back.
        if (elapsedMs >= kDrainLimitMs || waits > kDrainMaxWaits) {
            static_cast<void>(
                GCL_REPORT(GCL_DRAIN_FAILED,
                           "Buffer drain wait exahausted for socket %u waited %lld mS and %d times",
                           static_cast<unsigned>(descriptor), elapsedMs, static_cast<int>(waits)));
            return;
        }
    }
}

} // namespace

void CTcpSocket_Construct(CTcpSocket* pThis, int32_t iSocketHandle, int32_t iPort,
                          uint32_t uiMaxMsgSize)
{
    if (pThis == nullptr) {
        return;
    }
    pThis->iSocketHandle = iSocketHandle;
    pThis->iPort = iPort;
    pThis->uiMaxMsgSize = uiMaxMsgSize;
    pThis->uiTimeout = 0;
}

uint32_t CTcpSocket_Create(CTcpSocket** ppThis, const char* szHost, int32_t iPort,
                           uint32_t uiMaxMsgSize)
{
    if (ppThis == nullptr) {
        return GCL_REPORT(GCL_INVALID_ARGUMENT, "Invalid object");
    }
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    gcl::AddressList addresses;
    // By contract: only a negative result is a failure here; a positive one leaves an empty list.
    if (addresses.resolve(szHost, PortText(iPort), hints) < 0) {
        return GCL_REPORT(GCL_SOCKET_FAILED, "Failed to connect to '%s' at port '%d'", szHost,
                          iPort);
    }
    gcl::Descriptor connected = connectToFirst(addresses.first());
    addresses.reset();
    if (!connected.isOpen()) {
        return GCL_REPORT(GCL_CONNECT_FAILED, "Client failed to connect");
    }
    handOver(connected, iPort, uiMaxMsgSize, ppThis);
    return GCL_OK;
}

uint32_t CTcpSocket_WaitForConnection(CTcpSocket** ppThis, int32_t iPort, uint32_t uiMaxMsgSize)
{
    if (ppThis == nullptr) {
        return GCL_REPORT(GCL_INVALID_ARGUMENT, "Invalid object");
    }
    addrinfo hints{};
    hints.ai_flags = AI_PASSIVE;
    hints.ai_socktype = SOCK_STREAM;
    gcl::AddressList addresses;
    if (addresses.resolve(nullptr, PortText(iPort), hints) != 0) {
        return GCL_REPORT(GCL_SOCKET_FAILED, "getaddrinfo() failed");
    }

    // Every return below reports first; then the listening socket is shut down and closed, and
    // then the addresses are freed if they still exist.
    ListeningSocket listener;
    for (const addrinfo* entry = addresses.first(); entry != nullptr; entry = entry->ai_next) {
        if (!listener.open(*entry)) {
            static_cast<void>(GCL_REPORT(GCL_SOCKET_FAILED, "Socket closed"));
            continue;
        }
        const int reuse = 1;
        if (setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse) != 0) {
            return GCL_REPORT(GCL_SOCKET_FAILED, "setsockopt() failed");
        }
        if (bind(listener.get(), entry->ai_addr, entry->ai_addrlen) == 0) {
            break;
        }
        std::perror("Error");
        listener.reset();
        static_cast<void>(GCL_REPORT(GCL_SOCKET_FAILED, "bind() failed"));
    }
    addresses.reset();
    if (!listener.isOpen()) {
        return GCL_REPORT(GCL_SOCKET_FAILED, "Failed to bind");
    }
    if (listen(listener.get(), kBacklog) != 0) {
        return GCL_REPORT(GCL_SOCKET_FAILED, "listen() failed");
    }
    alignas(sockaddr_storage) unsigned char peer[32] = {}; // not kept
    socklen_t peerLength = sizeof peer;
    gcl::Descriptor accepted(
        accept(listener.get(), reinterpret_cast<sockaddr*>(peer), &peerLength));
    if (!accepted.isOpen()) {
        return GCL_REPORT(GCL_SOCKET_FAILED, "accept() failed");
    }
    handOver(accepted, iPort, uiMaxMsgSize, ppThis);
    return GCL_OK;
}

uint32_t CTcpSocket_Write(CTcpSocket* pThis, const void* pData, int32_t* piDataLen)
{
    if (pThis == nullptr) {
        return GCL_REPORT(GCL_INVALID_ARGUMENT, "Invalid object");
    }
    if (pThis->iSocketHandle == kClosed) {
        return GCL_REPORT(GCL_INVALID_ARGUMENT, "Socket is closed");
    }
    if (pData == nullptr) {
        return GCL_REPORT(GCL_INVALID_ARGUMENT, "No data to write");
    }
    if (*piDataLen < 1) {
        return GCL_REPORT(GCL_INVALID_ARGUMENT, "No data to write");
    }

    int32_t sent = 0;
    int32_t remaining = *piDataLen;
    uint32_t status = GCL_OK;
    while (sent < *piDataLen) {
        if (pThis->uiTimeout != 0) {
            const Wait wait = waitForSocket(*pThis, Direction::write);
            if (wait == Wait::timedOut) {
                return GCL_TIMED_OUT;
            }
            // By contract: after a failed wait nothing is sent, and the call goes on waiting, until
            // a wait is interrupted (that clears the failure) or times out. The last branch below
            // begins the next pass.
            if (wait == Wait::failed) {
                status = GCL_SOCKET_FAILED;
            }
            // By contract: an interrupted wait counts as ready. Its set is as it was passed in.
            if (wait == Wait::interrupted) {
                status = GCL_OK;
            } else if (status != GCL_OK || wait == Wait::notInSet) {
                continue;
            }
        }
        const ssize_t count = send(pThis->iSocketHandle, static_cast<const char*>(pData) + sent,
                                   static_cast<size_t>(remaining), 0);
        if (count < 0) {
            *piDataLen = sent;
            return GCL_REPORT(GCL_SOCKET_FAILED, "send() failed");
        }
        sent += static_cast<int32_t>(count);
        remaining -= static_cast<int32_t>(count);
    }
    return status;
}

uint32_t CTcpSocket_Read(CTcpSocket* pThis, void* pReceiveBuffer, int32_t* piDataLen)
{
    if (pThis == nullptr) {
        return GCL_REPORT(GCL_INVALID_ARGUMENT, "Invalid argument: null object");
    }
    if (pThis->iSocketHandle == kClosed) {
        return GCL_REPORT(GCL_INVALID_ARGUMENT, "Invalid argument: Socket is closed");
    }
    if (pReceiveBuffer == nullptr) {
        return GCL_REPORT(GCL_INVALID_ARGUMENT, "Invalid argument: receive buffer is NULL");
    }
    if (piDataLen == nullptr) {
        return GCL_REPORT(GCL_INVALID_ARGUMENT, "Invalid argument: piDataLen is NULL");
    }
    if (*piDataLen == 0) {
        return GCL_REPORT(GCL_INVALID_ARGUMENT, "Invalid argument: buffer size is 0 (*piDataLen)");
    }
    // By contract: both sizes count as signed numbers, a negative one passes, and so does exactly
    // uiMaxMsgSize, whatever the message says.
    if (*piDataLen > static_cast<int32_t>(pThis->uiMaxMsgSize)) {
        return GCL_REPORT(GCL_INVALID_ARGUMENT,
                          "*piDataLen: Message too large (must be less than %lu bytes)",
                          static_cast<unsigned long>(pThis->uiMaxMsgSize));
    }

    bool ready = false;
    while (!ready && pThis->uiTimeout != 0) {
        const Wait wait = waitForSocket(*pThis, Direction::read);
        if (wait == Wait::timedOut) {
            return GCL_TIMED_OUT;
        }
        if (wait == Wait::failed) {
            return GCL_SOCKET_FAILED;
        }
        // By contract: an interrupted wait counts as ready. Its set is as it was passed in.
        ready = wait != Wait::notInSet;
    }
    const ssize_t count =
        recv(pThis->iSocketHandle, pReceiveBuffer, static_cast<size_t>(*piDataLen), 0);
    *piDataLen = static_cast<int32_t>(count);
    if (count < 0) {
        return GCL_REPORT(GCL_SOCKET_FAILED, "recv() failed");
    }
    return count == 0 ? GCL_PEER_CLOSED : GCL_OK;
}

uint32_t CTcpSocket_ReadZT(CTcpSocket* pThis, char* pszBuffer, int32_t* piDataLen)
{
    const uint32_t maxMsgSize = pThis->uiMaxMsgSize;
    if (piDataLen == nullptr) {
        char unused = '\0';
        return CTcpSocket_Read(pThis, &unused, piDataLen); // which refuses it
    }
    if (*piDataLen < 0) {
        return GCL_REPORT(GCL_INVALID_ARGUMENT,
                          "Invalid argument: buffer size is negative (*piDataLen)");
    }
    // A length above the maximum, both signed, will be refused: of the scratch only the first byte,
    // a zero, then matters to the copy. A maximum of 2^31 and more is negative, and no guide to a
    // size.
    auto scratchSize = static_cast<size_t>(*piDataLen);
    if (static_cast<int32_t>(maxMsgSize) < *piDataLen) {
        scratchSize = static_cast<int32_t>(maxMsgSize) < 0 ? 1 : size_t{maxMsgSize} + 1;
    }
    // The stack, because the size is known only now and this call must not allocate. This file is
    // compiled so that a scratch larger than the stack hits the guard page.
    char* const scratch = static_cast<char*>(__builtin_alloca(scratchSize));
    std::memset(scratch, 0, scratchSize);

    const uint32_t code = CTcpSocket_Read(pThis, scratch, piDataLen);
    // By contract: whatever the read returned, the count that it left is copied.
    if (*piDataLen > 0) {
        static_cast<void>(std::strncpy(pszBuffer, scratch, static_cast<size_t>(*piDataLen)));
    }
    return code;
}

uint32_t CTcpSocket_SetTimeout(CTcpSocket* pThis, uint32_t uiTimeout)
{
    if (pThis == nullptr) {
        return GCL_REPORT(GCL_INVALID_ARGUMENT, "Invalid argument: null object");
    }
    // By contract: the time-out stays stored also if the descriptor refuses the flags.
    pThis->uiTimeout = uiTimeout;
    int flags = fcntl(pThis->iSocketHandle, F_GETFL);
    if (flags == -1) {
        flags = 0;
    }
    flags = uiTimeout != 0 ? flags | O_NONBLOCK : flags & ~O_NONBLOCK;
    if (fcntl(pThis->iSocketHandle, F_SETFL, flags) == -1) {
        return GCL_REPORT(GCL_INCONSISTENT, "%s call to fcntl failed", "CTcpSocket_SetTimeout");
    }
    return GCL_OK;
}

int32_t CTcpSocket_GetSocketHandle(const CTcpSocket* pThis)
{
    if (pThis == nullptr) {
        static_cast<void>(GCL_REPORT(GCL_INVALID_ARGUMENT, "Invalid object"));
        return -1;
    }
    return pThis->iSocketHandle;
}

uint32_t CTcpSocket_Close(CTcpSocket* pThis)
{
    if (pThis == nullptr) {
        return GCL_REPORT(GCL_INVALID_ARGUMENT, "Invalid object");
    }
    if (pThis->iSocketHandle == kClosed) {
        return GCL_REPORT(GCL_SOCKET_FAILED, "Socket already closed");
    }
    // The peer may have ended the connection, which makes the call fail; it is closed all the same.
    static_cast<void>(shutdown(pThis->iSocketHandle, SHUT_RDWR));
    CTcpSocket_DrainSendBuffer(pThis->iSocketHandle);
    static_cast<void>(close(pThis->iSocketHandle));
    pThis->iSocketHandle = kClosed;
    pThis->iPort = 0;
    return GCL_OK;
}

void CTcpSocket_Destruct(CTcpSocket* pThis)
{
    if (pThis == nullptr) {
        return;
    }
    if (pThis->iSocketHandle != kClosed) {
        static_cast<void>(CTcpSocket_Close(pThis)); // cannot fail on an open object
    }
    pThis->uiTimeout = 0;
    pThis->iPort = 0;
}
