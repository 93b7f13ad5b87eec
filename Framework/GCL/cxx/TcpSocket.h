// gcl::TcpSocket: the owner of a CTcpSocket.
//
// It closes its connection, as CTcpSocket_Destruct does, can be moved and cannot be copied. Each
// operation that has a plain function of the same name is one call of it, and that function's
// comment in CTcpSocket.h is its manual; what differs stands here. All that CTcpSocket.h says of
// threads, time-outs, allocation failure and reports holds. Sizes are size_t here: one that does
// not fit 31 bits gives GCL_INVALID_ARGUMENT without a report.
//
// A write to a connection that the peer has reset raises SIGPIPE; gcl::SigpipeGuard keeps it off.
//
// A moved-from socket is closed.
#ifndef GCL_CXX_TCPSOCKET_H
#define GCL_CXX_TCPSOCKET_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>

#include "Framework/GCL/CTcpSocket.h"
#include "Framework/GCL/ResultCodes.h"
#include "Framework/GCL/cxx/Error.h"
#include "Framework/GCL/cxx/Length.h"

namespace gcl {

class TcpSocket {
public:
    // A closed socket.
    TcpSocket() noexcept = default;

    // As construct, but a failure is thrown as a std::system_error.
    TcpSocket(std::int32_t descriptor, std::int32_t port, std::size_t maxMsgSize) : TcpSocket()
    {
        throwIfFailed(construct(descriptor, port, maxMsgSize));
    }
    ~TcpSocket() { CTcpSocket_Destruct(&socket); }
    TcpSocket(TcpSocket&& other) noexcept : socket(std::exchange(other.socket, kClosed)) {}
    TcpSocket& operator=(TcpSocket&& other) noexcept
    {
        TcpSocket moved(std::move(other));
        std::swap(socket, moved.socket);
        return *this;
    }
    TcpSocket(const TcpSocket&) = delete;
    TcpSocket& operator=(const TcpSocket&) = delete;

    // native is the plain structure, for plain calls. The socket goes on owning its descriptor.
    CTcpSocket& native() noexcept { return socket; }
    const CTcpSocket& native() const noexcept { return socket; }

    // construct, create and waitForConnection close the connection that the socket had, once there
    // is a new one; where they fail, the socket is as it was. construct takes over `descriptor`.
    //   GCL_INVALID_ARGUMENT  maxMsgSize is 2^31 or more (silent)
    //   otherwise             GCL_OK for construct, and as the plain functions
    Result construct(std::int32_t descriptor, std::int32_t port, std::size_t maxMsgSize)
    {
        if (!detail::fits<std::int32_t>(maxMsgSize)) {
            return GCL_INVALID_ARGUMENT;
        }
        CTcpSocket_Destruct(&socket);
        CTcpSocket_Construct(&socket, descriptor, port, static_cast<std::uint32_t>(maxMsgSize));
        return GCL_OK;
    }
    Result create(const char* host, std::int32_t port, std::size_t maxMsgSize)
    {
        if (!detail::fits<std::int32_t>(maxMsgSize)) {
            return GCL_INVALID_ARGUMENT;
        }
        CTcpSocket* made = nullptr;
        const Result result(
            CTcpSocket_Create(&made, host, port, static_cast<std::uint32_t>(maxMsgSize)));
        return taken(result, made);
    }
    Result waitForConnection(std::int32_t port, std::size_t maxMsgSize)
    {
        if (!detail::fits<std::int32_t>(maxMsgSize)) {
            return GCL_INVALID_ARGUMENT;
        }
        CTcpSocket* made = nullptr;
        const Result result(
            CTcpSocket_WaitForConnection(&made, port, static_cast<std::uint32_t>(maxMsgSize)));
        return taken(result, made);
    }

    // write sends `size` bytes of `data`. `sent` is the count of bytes sent with GCL_OK and with
    // GCL_SOCKET_FAILED; it tells nothing after other results.
    Result write(const void* data, std::size_t size, std::size_t& sent)
    {
        if (!detail::fits<std::int32_t>(size)) {
            return GCL_INVALID_ARGUMENT;
        }
        auto length = static_cast<std::int32_t>(size);
        const Result result(CTcpSocket_Write(&socket, data, &length));
        sent = static_cast<std::size_t>(length);
        return result;
    }
    Result write(const void* data, std::size_t size)
    {
        std::size_t sent = 0;
        return write(data, size, sent);
    }

    // read and readZT receive at most `size` bytes, and readZT copies them as text. `received` is
    // the count of bytes received with GCL_OK, and 0 with every other result; GCL_PEER_CLOSED, a
    // failure, is the end of the connection.
    Result read(void* buffer, std::size_t size, std::size_t& received)
    {
        received = 0;
        if (!detail::fits<std::int32_t>(size)) {
            return GCL_INVALID_ARGUMENT;
        }
        auto length = static_cast<std::int32_t>(size);
        const Result result(CTcpSocket_Read(&socket, buffer, &length));
        received = result.failed() ? 0 : static_cast<std::size_t>(length);
        return result;
    }
    Result readZT(char* buffer, std::size_t size, std::size_t& received)
    {
        received = 0;
        if (!detail::fits<std::int32_t>(size)) {
            return GCL_INVALID_ARGUMENT;
        }
        auto length = static_cast<std::int32_t>(size);
        const Result result(CTcpSocket_ReadZT(&socket, buffer, &length));
        received = result.failed() ? 0 : static_cast<std::size_t>(length);
        return result;
    }

    // readFully calls read until `size` bytes are in the buffer, whatever the largest message size,
    // or until it fails: a connection that ends before is GCL_PEER_CLOSED, a wait for any piece
    // that takes too long GCL_TIMED_OUT. `received` is the count of bytes in the buffer with every
    // result. A size of 0 succeeds without a read.
    Result readFully(void* buffer, std::size_t size, std::size_t& received)
    {
        received = 0;
        while (received < size) {
            const std::size_t piece = std::min<std::size_t>(size - received, socket.uiMaxMsgSize);
            std::size_t count = 0;
            const Result result = read(static_cast<char*>(buffer) + received, piece, count);
            if (result.failed()) {
                return result;
            }
            received += count;
        }
        return GCL_OK;
    }

    Result setTimeout(std::uint32_t seconds)
    {
        return Result(CTcpSocket_SetTimeout(&socket, seconds));
    }
    std::int32_t getSocketHandle() const { return CTcpSocket_GetSocketHandle(&socket); }
    Result close() { return Result(CTcpSocket_Close(&socket)); }
    void destruct() { CTcpSocket_Destruct(&socket); }

private:
    // The object that the plain function made goes into this one, and its memory back.
    Result taken(Result result, CTcpSocket* made)
    {
        if (result.failed()) {
            return result;
        }
        const std::unique_ptr<CTcpSocket[]> memory(made);
        TcpSocket connected;
        connected.socket = *made;
        *this = std::move(connected);
        return result;
    }

    static constexpr CTcpSocket kClosed = {-1, 0, 0, 0};
    CTcpSocket socket = kClosed;
};

} // namespace gcl

#endif // GCL_CXX_TCPSOCKET_H
