// CTcpSocket and the framed client over a loopback connection, beside the bare system calls, the
// sockets of APR, GLib and Boost, and the messages of ZeroMQ and nng.
#include "Framework/GCL/CTcpSocket.h"

#include <apr_general.h>
#include <apr_network_io.h>
#include <apr_portable.h>
#include <arpa/inet.h>
#include <gio/gio.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <nng/nng.h>
#include <nng/protocol/pair0/pair.h>
#include <sys/socket.h>
#include <unistd.h>
#include <zmq.h>

#include <boost/asio.hpp>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "Framework/GCL/HijackApi.h"
#include "Framework/VT/VorTrace.h"
#include "bench/floor/CTcpSocketFloor.h"
#include "bench/support/Bench.h"

namespace {

constexpr uint32_t kSyncId = 0x12345678;
constexpr int kFrames = 32; // in a batch; they fit into the buffers of the connection

// Two ends of a TCP connection over the loopback device, neither delayed by Nagle's algorithm.
class Connection {
public:
    Connection()
    {
        const int listener = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        auto* const generic = reinterpret_cast<sockaddr*>(&address);
        ours = socket(AF_INET, SOCK_STREAM, 0);
        if (bind(listener, generic, sizeof address) != 0 || listen(listener, 1) != 0 ||
            getsockname(listener, generic, &length) != 0 ||
            connect(ours, generic, sizeof address) != 0) {
            std::abort();
        }
        theirs = accept(listener, nullptr, nullptr);
        close(listener);
        const int on = 1;
        for (const int end : {ours, theirs}) {
            setsockopt(end, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        }
    }
    ~Connection()
    {
        close(ours);
        close(theirs);
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    int ours;
    int theirs;
};

// What writes to one end and reads from the other.

class OurSockets {
public:
    explicit OurSockets(const Connection& connection)
    {
        CTcpSocket_Construct(&writer, connection.ours, 1, 65536);
        CTcpSocket_Construct(&reader, connection.theirs, 1, 65536);
    }
    bool write(const char* data, int length)
    {
        int32_t wanted = length;
        return CTcpSocket_Write(&writer, data, &wanted) == 0;
    }
    int read(char* data, int length)
    {
        int32_t got = length;
        return CTcpSocket_Read(&reader, data, &got) == 0 ? got : -1;
    }

private:
    CTcpSocket writer{};
    CTcpSocket reader{};
};

class BareCalls {
public:
    explicit BareCalls(const Connection& connectionToUse) : connection(connectionToUse) {}
    bool write(const char* data, int length) { return floorWrite(connection.ours, data, length); }
    int read(char* data, int length) { return floorRead(connection.theirs, data, length); }

private:
    const Connection& connection;
};

class AprSockets {
public:
    explicit AprSockets(const Connection& connection)
    {
        apr_pool_create(&pool, nullptr);
        apr_os_sock_t ours = dup(connection.ours);
        apr_os_sock_t theirs = dup(connection.theirs);
        apr_os_sock_put(&writer, &ours, pool);
        apr_os_sock_put(&reader, &theirs, pool);
    }
    ~AprSockets() { apr_pool_destroy(pool); }
    AprSockets(const AprSockets&) = delete;
    AprSockets& operator=(const AprSockets&) = delete;

    bool write(const char* data, int length)
    {
        auto sent = static_cast<apr_size_t>(length);
        return apr_socket_send(writer, data, &sent) == APR_SUCCESS;
    }
    int read(char* data, int length)
    {
        auto got = static_cast<apr_size_t>(length);
        return apr_socket_recv(reader, data, &got) == APR_SUCCESS ? static_cast<int>(got) : -1;
    }

private:
    apr_pool_t* pool = nullptr;
    apr_socket_t* writer = nullptr;
    apr_socket_t* reader = nullptr;
};

class GlibSockets {
public:
    explicit GlibSockets(const Connection& connection)
        : writer(g_socket_new_from_fd(dup(connection.ours), nullptr)),
          reader(g_socket_new_from_fd(dup(connection.theirs), nullptr))
    {
    }
    ~GlibSockets()
    {
        g_object_unref(writer);
        g_object_unref(reader);
    }
    GlibSockets(const GlibSockets&) = delete;
    GlibSockets& operator=(const GlibSockets&) = delete;

    bool write(const char* data, int length)
    {
        return g_socket_send(writer, data, static_cast<gsize>(length), nullptr, nullptr) == length;
    }
    int read(char* data, int length)
    {
        return static_cast<int>(
            g_socket_receive(reader, data, static_cast<gsize>(length), nullptr, nullptr));
    }

private:
    GSocket* writer;
    GSocket* reader;
};

class AsioSockets {
public:
    explicit AsioSockets(const Connection& connection)
    {
        writer.assign(boost::asio::ip::tcp::v4(), dup(connection.ours));
        reader.assign(boost::asio::ip::tcp::v4(), dup(connection.theirs));
    }
    bool write(const char* data, int length)
    {
        const auto size = static_cast<size_t>(length);
        return boost::asio::write(writer, boost::asio::buffer(data, size)) == size;
    }
    int read(char* data, int length)
    {
        return static_cast<int>(
            reader.read_some(boost::asio::buffer(data, static_cast<size_t>(length))));
    }

private:
    boost::asio::io_context context;
    boost::asio::ip::tcp::socket writer{context};
    boost::asio::ip::tcp::socket reader{context};
};

// A round writes some bytes to one end and reads them from the other.
template <typename Sockets>
bench::Side writeAndRead(int bytes)
{
    return [bytes](benchmark::State& state) {
        const Connection connection;
        Sockets sockets(connection);
        std::vector<char> data(static_cast<size_t>(bytes), 'x');
        bool right = true;
        for (auto _ : state) {
            right = sockets.write(data.data(), bytes) && right;
            for (int left = bytes; left > 0 && right;) {
                const int got = sockets.read(data.data(), left);
                right = got > 0;
                left -= got;
            }
        }
        bench::require(state, right, "the connection failed");
        bench::setOperations(state, 2);
    };
}

// The processor time of the calling thread: on the loopback device it does all of the work.
template <typename Work>
double ownSecondsOf(const Work& work)
{
    const auto now = [] {
        timespec time{};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
    };
    const double begin = now();
    work();
    return now() - begin;
}

bool drain(int descriptor, size_t bytes)
{
    std::vector<char> data(bytes);
    while (bytes > 0) {
        const ssize_t got = read(descriptor, data.data(), bytes);
        if (got <= 0) {
            return false;
        }
        bytes -= static_cast<size_t>(got);
    }
    return true;
}

// A round writes a batch of frames, which is timed, and drains the other end, which is not.
template <typename WriteFrame>
void writeFrames(benchmark::State& state, const Connection& connection, uint32_t bytes,
                 const WriteFrame& writeFrame)
{
    bool right = true;
    for (auto _ : state) {
        state.SetIterationTime(ownSecondsOf([&] {
            for (int i = 0; i < kFrames; ++i) {
                right = writeFrame() && right;
            }
        }));
        right = right && drain(connection.theirs, size_t{12 + bytes} * kFrames);
    }
    bench::require(state, right, "a frame was lost");
    bench::setOperations(state, kFrames);
}

// A round has a batch of frames written, which is not timed, and reads them.
template <typename ReadFrame>
void readFrames(benchmark::State& state, const Connection& connection, uint32_t bytes,
                const ReadFrame& readFrame)
{
    std::vector<unsigned char> payload(bytes, 1);
    uint32_t sequenceNumber = 0;
    bool right = true;
    for (auto _ : state) {
        for (int i = 0; i < kFrames; ++i) {
            right = right && floorWriteFrame(connection.ours, kSyncId, ++sequenceNumber,
                                             payload.data(), bytes);
        }
        state.SetIterationTime(ownSecondsOf([&] {
            for (int i = 0; i < kFrames && right; ++i) {
                right = readFrame();
            }
        }));
    }
    bench::require(state, right, "a frame was lost");
    bench::setOperations(state, kFrames);
}

void addSocket(int bytes)
{
    bench::Case("Socket, Write or Read", {1.03, 0})
        .at("bytes", bytes)
        .ours(writeAndRead<OurSockets>(bytes))
        .floor(writeAndRead<BareCalls>(bytes))
        .peer("apr_socket", writeAndRead<AprSockets>(bytes))
        .peer("GSocket", writeAndRead<GlibSockets>(bytes))
        .shown("Boost.Asio", "inlined into its caller", writeAndRead<AsioSockets>(bytes));
}

void addFrameWrite(uint32_t bytes)
{
    bench::Case("Frame, write", {1.03, 0})
        .at("bytes", bytes)
        .manualTime()
        .ours([bytes](benchmark::State& state) {
            const Connection connection;
            VorTrace trace("BENCH", VorTraceLevel1);
            Util::HijackApi client(trace, 0, 1000, kSyncId, kSyncId);
            client.socketFd = connection.ours;
            std::vector<unsigned char> payload(bytes, 1);
            unsigned written = 0;
            writeFrames(state, connection, bytes,
                        [&] { return client.writeToNet(payload.data(), bytes, &written); });
        })
        .floor([bytes](benchmark::State& state) {
            const Connection connection;
            std::vector<unsigned char> payload(bytes, 1);
            uint32_t sequenceNumber = 0;
            writeFrames(state, connection, bytes, [&] {
                return floorWriteFrame(connection.ours, kSyncId, sequenceNumber++, payload.data(),
                                       bytes);
            });
        });
}

void addFrameRead(uint32_t bytes)
{
    bench::Case("Frame, read", {1.03, 0})
        .at("bytes", bytes)
        .manualTime()
        .ours([bytes](benchmark::State& state) {
            const Connection connection;
            VorTrace trace("BENCH", VorTraceLevel1);
            Util::HijackApi client(trace, 0, 1000, kSyncId, kSyncId);
            client.socketFd = connection.theirs;
            std::vector<unsigned char> payload(bytes);
            unsigned got = 0;
            readFrames(state, connection, bytes, [&] {
                return client.readFromNet(payload.data(), bytes, &got) && got == bytes;
            });
        })
        .floor([bytes](benchmark::State& state) {
            const Connection connection;
            std::vector<unsigned char> payload(bytes);
            uint32_t got = 0;
            readFrames(state, connection, bytes, [&] {
                return floorReadFrame(connection.theirs, kSyncId, payload.data(), bytes, &got) &&
                       got == bytes;
            });
        });
}

void overZeroMq(benchmark::State& state, uint32_t bytes)
{
    void* const context = zmq_ctx_new();
    void* const server = zmq_socket(context, ZMQ_PAIR);
    void* const client = zmq_socket(context, ZMQ_PAIR);
    char endpoint[64];
    size_t length = sizeof endpoint;
    bool right = zmq_bind(server, "tcp://127.0.0.1:*") == 0 &&
                 zmq_getsockopt(server, ZMQ_LAST_ENDPOINT, endpoint, &length) == 0 &&
                 zmq_connect(client, endpoint) == 0;
    std::vector<unsigned char> payload(bytes, 1);
    for (auto _ : state) {
        right = right && zmq_send(client, payload.data(), bytes, 0) >= 0 &&
                zmq_recv(server, payload.data(), bytes, 0) == static_cast<int>(bytes);
    }
    bench::require(state, right, "a message was lost");
    bench::setOperations(state, 1);
    zmq_close(client);
    zmq_close(server);
    zmq_ctx_term(context);
}

void overNng(benchmark::State& state, uint32_t bytes)
{
    nng_socket server;
    nng_socket client;
    nng_listener listener;
    int port = 0;
    bool right =
        nng_pair0_open(&server) == 0 && nng_pair0_open(&client) == 0 &&
        nng_listen(server, "tcp://127.0.0.1:0", &listener, 0) == 0 &&
        nng_listener_get_int(listener, NNG_OPT_TCP_BOUND_PORT, &port) == 0 &&
        nng_dial(client, ("tcp://127.0.0.1:" + std::to_string(port)).c_str(), nullptr, 0) == 0;
    std::vector<unsigned char> payload(bytes, 1);
    for (auto _ : state) {
        size_t got = bytes;
        right = right && nng_send(client, payload.data(), bytes, 0) == 0 &&
                nng_recv(server, payload.data(), &got, 0) == 0 && got == bytes;
    }
    bench::require(state, right, "a message was lost");
    bench::setOperations(state, 1);
    nng_close(client);
    nng_close(server);
}

// One frame there, by the clock: the peers' own threads take part.
void addFrameExchange(uint32_t bytes)
{
    constexpr char kThreads[] = "its own threads move the data";
    bench::Case("Frame, write and read", {0, 0})
        .at("bytes", bytes)
        .realTime()
        .ours([bytes](benchmark::State& state) {
            const Connection connection;
            VorTrace trace("BENCH", VorTraceLevel1);
            Util::HijackApi writer(trace, 0, 1000, kSyncId, kSyncId);
            Util::HijackApi reader(trace, 0, 1000, kSyncId, kSyncId);
            writer.socketFd = connection.ours;
            writer.txSequenceNumber = 1;
            reader.socketFd = connection.theirs;
            std::vector<unsigned char> payload(bytes, 1);
            unsigned count = 0;
            bool right = true;
            for (auto _ : state) {
                right = right && writer.writeToNet(payload.data(), bytes, &count) &&
                        reader.readFromNet(payload.data(), bytes, &count);
            }
            bench::require(state, right, "a frame was lost");
            bench::setOperations(state, 1);
        })
        .floor([bytes](benchmark::State& state) {
            const Connection connection;
            std::vector<unsigned char> payload(bytes, 1);
            uint32_t got = 0;
            bool right = true;
            for (auto _ : state) {
                right = right &&
                        floorWriteFrame(connection.ours, kSyncId, 1, payload.data(), bytes) &&
                        floorReadFrame(connection.theirs, kSyncId, payload.data(), bytes, &got);
            }
            bench::require(state, right, "a frame was lost");
            bench::setOperations(state, 1);
        })
        .shown("ZeroMQ", kThreads, [bytes](benchmark::State& state) { overZeroMq(state, bytes); })
        .shown("nng", kThreads, [bytes](benchmark::State& state) { overNng(state, bytes); });
}

} // namespace

void bench::addCases()
{
    apr_initialize();
    for (const int bytes : {64, 1024, 16384}) {
        addSocket(bytes);
    }
    for (const uint32_t bytes : {64U, 1024U}) {
        addFrameWrite(bytes);
        addFrameRead(bytes);
        addFrameExchange(bytes);
    }
}
