#include "Framework/GCL/testing/PeerNode.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <new>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <utility>

namespace gcltest {
namespace {

constexpr size_t kHeaderBytes = 12;
constexpr size_t kPrintedBytes = 32;

[[noreturn]] void throwErrno(const std::string& what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

std::string bigEndian(uint32_t value)
{
    std::string bytes;
    for (const unsigned shift : {24u, 16u, 8u, 0u}) {
        bytes += static_cast<char>(static_cast<unsigned char>(value >> shift));
    }
    return bytes;
}

uint32_t wordAt(const std::string& bytes, size_t offset)
{
    uint32_t value = 0;
    for (size_t i = offset; i < offset + 4; ++i) {
        value = value << 8 | static_cast<unsigned char>(bytes[i]);
    }
    return value;
}

// Three beginnings of the sync id whose last byte is wrong. In front of a frame they cannot make up
// an earlier sync id, unless that is 0.
std::string garbageFor(uint32_t syncId)
{
    const std::string nearly = bigEndian(syncId ^ 0xFF);
    return nearly + nearly + nearly;
}

bool due(uint32_t every, uint64_t number)
{
    return every != 0 && number % every == 0;
}

void setOption(int fd, int level, int name, const void* value, socklen_t length)
{
    // The options used here are comforts: the node works without them.
    static_cast<void>(setsockopt(fd, level, name, value, length));
}

} // namespace

// One connection: buffered reading, whole writing, both ended by the node's end.
class PeerNode::Client {
public:
    Client(const PeerNode& ownNode, int fd) : node(ownNode), socket(fd) {}

    // Takes the next frame; false at the end of the connection.
    bool take(uint32_t& sequenceNumber, std::string& payload)
    {
        for (;;) {
            if (!hunt() || !fill(8)) {
                return false;
            }
            sequenceNumber = wordAt(buffer, used);
            const uint32_t size = wordAt(buffer, used + 4);
            if (size > std::min(node.options.maxPayload, kMaxPayload)) {
                continue; // garbage: hunt on behind the sync id
            }
            used += 8;
            if (!fill(size)) {
                return false;
            }
            payload.assign(buffer, used, size);
            used += size;
            return true;
        }
    }

    bool send(std::string_view bytes)
    {
        const size_t piece = node.options.byteByByte ? 1 : bytes.size();
        for (size_t offset = 0; offset < bytes.size(); offset += piece) {
            if (!sendPiece(bytes.data() + offset, std::min(piece, bytes.size() - offset))) {
                return false;
            }
        }
        return true;
    }

    // Makes the close at the client's end a reset.
    void resetOnClose() const
    {
        const linger atOnce{1, 0};
        setOption(socket.fd, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    }

    uint64_t framesSent = 0;

private:
    bool hunt()
    {
        uint32_t lastFourBytes = 0;
        do {
            if (!fill(1)) {
                return false;
            }
            lastFourBytes = lastFourBytes << 8 | static_cast<unsigned char>(buffer[used]);
            ++used;
        } while (lastFourBytes != node.options.rxSyncId);
        return true;
    }

    // Makes at least `count` unused bytes available.
    bool fill(size_t count)
    {
        while (buffer.size() - used < count) {
            buffer.erase(0, used);
            used = 0;
            if (!receive()) {
                return false;
            }
        }
        return true;
    }

    bool receive()
    {
        char chunk[16384];
        while (node.waitFor(socket.fd, POLLIN, idleMs()) == Event::ready) {
            const ssize_t count = recv(socket.fd, chunk, sizeof chunk, 0);
            if (count > 0) {
                buffer.append(chunk, static_cast<size_t>(count));
                return true;
            }
            if (count == 0 || (errno != EAGAIN && errno != EINTR)) {
                return false;
            }
        }
        return false;
    }

    // The limit of a wait for the client.
    int idleMs() const
    {
        const uint32_t limit = node.options.idleTimeoutMs;
        return limit == 0 ? -1 : static_cast<int>(std::min<uint32_t>(limit, INT32_MAX));
    }

    bool sendPiece(const char* data, size_t length)
    {
        while (length > 0) {
            // A client that always has room must not keep the node from its end.
            if (node.waitFor(-1, 0, 0) == Event::stopped) {
                return false;
            }
            const ssize_t count = ::send(socket.fd, data, length, MSG_NOSIGNAL);
            if (count >= 0) {
                data += count;
                length -= static_cast<size_t>(count);
            } else if (errno == EAGAIN) {
                if (node.waitFor(socket.fd, POLLOUT, idleMs()) != Event::ready) {
                    return false;
                }
            } else if (errno != EINTR) {
                return false;
            }
        }
        return true;
    }

    const PeerNode& node;
    Descriptor socket;
    std::string buffer;
    size_t used = 0; // bytes of the buffer that were taken
};

PeerNode::Descriptor::~Descriptor()
{
    if (fd != -1) {
        close(fd);
    }
}

PeerNode::PeerNode(Options nodeOptions)
    : options(std::move(nodeOptions)), nextSequence(options.firstSequence)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) {
        throwErrno("pipe");
    }
    wakeReader.fd = ends[0];
    wakeWriter.fd = ends[1];
}

PeerNode::~PeerNode()
{
    stop();
}

uint16_t PeerNode::start()
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(options.port);
    if (inet_pton(AF_INET, options.listenAddress.c_str(), &address.sin_addr) != 1) {
        throw std::invalid_argument("'" + options.listenAddress + "' is not an IPv4 address");
    }
    const std::string where = options.listenAddress + ":" + std::to_string(options.port);
    listener.fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (listener.fd == -1) {
        throwErrno("socket");
    }
    const int on = 1;
    setOption(listener.fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    socklen_t length = sizeof address;
    if (bind(listener.fd, generic, length) != 0 || listen(listener.fd, 16) != 0 ||
        getsockname(listener.fd, generic, &length) != 0) {
        throwErrno("cannot listen on " + where);
    }
    thread = std::thread([this] { run(); });
    return ntohs(address.sin_port);
}

void PeerNode::requestStop() const noexcept
{
    const int savedErrno = errno;
    // A full pipe holds a request already.
    [[maybe_unused]] const ssize_t written = write(wakeWriter.fd, "", 1);
    errno = savedErrno;
}

void PeerNode::wait()
{
    if (thread.joinable()) {
        thread.join();
    }
}

void PeerNode::stop()
{
    requestStop();
    wait();
}

// Waits until the descriptor (-1: none) is ready, a time has passed (-1: no limit) or the node is
// to end; the request to end stays readable.
PeerNode::Event PeerNode::waitFor(int fd, short events, int waitMs) const
{
    pollfd entries[] = {{wakeReader.fd, POLLIN, 0}, {fd, events, 0}};
    for (;;) {
        const int count = poll(entries, 2, waitMs);
        if (count == 0) {
            return Event::timeUp;
        }
        if (count > 0) {
            return entries[0].revents != 0 ? Event::stopped : Event::ready;
        }
        if (errno != EINTR) {
            return Event::stopped;
        }
    }
}

bool PeerNode::pauseFor(uint32_t waitMs) const
{
    const auto limit = static_cast<int>(std::min<uint32_t>(waitMs, INT32_MAX));
    return waitFor(-1, 0, limit) == Event::timeUp;
}

void PeerNode::run()
{
    while (waitFor(listener.fd, POLLIN, -1) == Event::ready) {
        const int fd = accept4(listener.fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd == -1) {
            // The client is gone, or there is no descriptor for it: do not spin.
            pauseFor(10);
            continue;
        }
        const int on = 1;
        setOption(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        Client client(*this, fd);
        try {
            serve(client);
        } catch (const std::bad_alloc&) {
            // What the client sent is too much for this process: it is hung up on.
        }
        if (options.once || outputLost) {
            return;
        }
    }
}

void PeerNode::serve(Client& client)
{
    uint32_t sequenceNumber = 0;
    std::string payload;
    while (client.take(sequenceNumber, payload)) {
        ++received;
        if (options.mode == Mode::print) {
            if (!print(sequenceNumber, payload)) {
                outputLost = true;
                return;
            }
        } else if (!reply(client, payload)) {
            return;
        }
    }
}

uint32_t PeerNode::takeSequenceNumber()
{
    if (due(options.repeatEvery, frameNumber)) {
        return nextSequence - 1;
    }
    if (due(options.skipEvery, frameNumber)) {
        ++nextSequence;
    }
    return nextSequence++;
}

// Sends a frame, with the faults that are due; false if the connection is to end.
bool PeerNode::reply(Client& client, const std::string& payload)
{
    ++frameNumber;
    const uint32_t sequenceBefore = nextSequence; // again, unless the frame goes out whole
    const uint32_t size = due(options.oversizeEvery, frameNumber)
                              ? UINT32_MAX
                              : static_cast<uint32_t>(payload.size());
    std::string frame;
    frame.reserve(kHeaderBytes + payload.size()); // before a number is taken: it may throw
    frame += bigEndian(options.txSyncId);
    frame += bigEndian(takeSequenceNumber());
    frame += bigEndian(size);
    frame += payload;
    const std::string_view firstHalf = std::string_view(frame).substr(0, frame.size() / 2);
    const std::string_view secondHalf = std::string_view(frame).substr(firstHalf.size());
    bool whole =
        !due(options.garbageEvery, frameNumber) || client.send(garbageFor(options.txSyncId));
    if (options.resetAfter != 0 && client.framesSent == options.resetAfter) {
        client.send(firstHalf);
        client.resetOnClose();
        whole = false;
    } else if (due(options.stallEvery, frameNumber)) {
        whole =
            whole && client.send(firstHalf) && pauseFor(options.stallMs) && client.send(secondHalf);
    } else {
        whole = whole && client.send(frame);
    }
    if (!whole) {
        nextSequence = sequenceBefore; // only frames that went out whole are numbered
        return false;
    }
    ++client.framesSent;
    ++sent;
    return true;
}

// Writes the line for a frame; false if it is lost.
bool PeerNode::print(uint32_t sequenceNumber, const std::string& payload) const
{
    if (options.output == nullptr) {
        return true;
    }
    std::string line = "frame " + std::to_string(sequenceNumber) + ", " +
                       std::to_string(payload.size()) + " bytes:";
    for (size_t i = 0; i < payload.size() && i < kPrintedBytes; ++i) {
        char digits[4];
        std::snprintf(digits, sizeof digits, " %02x",
                      static_cast<unsigned>(static_cast<unsigned char>(payload[i])));
        line += digits;
    }
    line += payload.size() > kPrintedBytes ? " ...\n" : "\n";
    return static_cast<bool>(*options.output << line << std::flush);
}

} // namespace gcltest
