// TCP over the loopback device, for tests: sockets that close themselves, ports that are free, and
// both ends of a connection.
#ifndef TESTS_SUPPORT_LOOPBACK_H
#define TESTS_SUPPORT_LOOPBACK_H

#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <utility>

namespace gcltest {

// A descriptor that is closed at the end of the scope.
class OwnedFd {
public:
    explicit OwnedFd(int descriptor = -1) : fd(descriptor) {}
    ~OwnedFd() { reset(); }
    OwnedFd(OwnedFd&& other) noexcept : fd(other.release()) {}
    OwnedFd& operator=(OwnedFd&& other) noexcept
    {
        reset(other.release());
        return *this;
    }
    int get() const { return fd; }
    int release() { return std::exchange(fd, -1); }
    void reset(int descriptor = -1)
    {
        if (fd >= 0) {
            close(fd);
        }
        fd = descriptor;
    }

private:
    int fd;
};

// An address of the loopback device, IPv4 or IPv6.
struct LoopbackAddress {
    sockaddr_storage storage{};
    socklen_t length;

    explicit LoopbackAddress(int port, int family = AF_INET)
    {
        if (family == AF_INET6) {
            auto* const address = reinterpret_cast<sockaddr_in6*>(&storage);
            address->sin6_family = AF_INET6;
            address->sin6_port = htons(static_cast<uint16_t>(port));
            address->sin6_addr = in6addr_loopback;
            length = sizeof *address;
        } else {
            auto* const address = reinterpret_cast<sockaddr_in*>(&storage);
            address->sin_family = AF_INET;
            address->sin_port = htons(static_cast<uint16_t>(port));
            address->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            length = sizeof *address;
        }
    }
    const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&storage); }
    sockaddr* get() { return reinterpret_cast<sockaddr*>(&storage); }
};

inline int portOf(int fd)
{
    LoopbackAddress address(0);
    address.length = sizeof address.storage;
    EXPECT_EQ(getsockname(fd, address.get(), &address.length), 0);
    // The port stands at the same place for both families.
    return ntohs(reinterpret_cast<const sockaddr_in*>(&address.storage)->sin_port);
}

// A socket that listens on a free port of the loopback device.
class Listener {
public:
    explicit Listener(int family = AF_INET) : fd(socket(family, SOCK_STREAM, 0))
    {
        const LoopbackAddress address(0, family);
        EXPECT_EQ(bind(fd.get(), address.get(), address.length), 0) << strerror(errno);
        EXPECT_EQ(listen(fd.get(), 5), 0);
        port = portOf(fd.get());
    }
    OwnedFd accepted() const { return OwnedFd(accept(fd.get(), nullptr, nullptr)); }

    OwnedFd fd;
    int port = 0;
};

inline OwnedFd connectTo(int port, int family = AF_INET)
{
    OwnedFd fd(socket(family, SOCK_STREAM, 0));
    const LoopbackAddress address(port, family);
    if (connect(fd.get(), address.get(), address.length) != 0) {
        fd.reset();
    }
    return fd;
}

// A port that nobody uses at the moment.
inline int freePort(int family = AF_INET)
{
    return Listener(family).port;
}

inline bool hostHasIpv6()
{
    const OwnedFd fd(socket(AF_INET6, SOCK_STREAM, 0));
    const LoopbackAddress address(0, AF_INET6);
    return fd.get() >= 0 && bind(fd.get(), address.get(), address.length) == 0;
}

// Both ends of a connection.
struct Connection {
    Connection()
    {
        const Listener listener;
        near = connectTo(listener.port);
        far = listener.accepted();
        EXPECT_GE(near.get(), 0);
        EXPECT_GE(far.get(), 0);
    }
    OwnedFd near;
    OwnedFd far;
};

// Reads until `size` bytes are there or the peer closes.
inline std::string receiveAll(int fd, size_t size)
{
    std::string data(size, '\0');
    size_t have = 0;
    while (have < size) {
        const ssize_t count = read(fd, &data[have], size - have);
        if (count <= 0) {
            break;
        }
        have += static_cast<size_t>(count);
    }
    data.resize(have);
    return data;
}

} // namespace gcltest

#endif // TESTS_SUPPORT_LOOPBACK_H
