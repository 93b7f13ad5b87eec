// TCP connections one after the other: uploads, downloads, silences and resets, every byte known to
// both ends.
#include <errno.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <condition_variable>
#include <cstring>
#include <mutex>

#include "Framework/GCL/CTcpSocket.h"
#include "Framework/GCL/ResultCodes.h"
#include "Framework/VT/VT.h"
#include "tests/soak/Soak.h"

namespace soak {
namespace {

constexpr uint32_t kMagic = 0x50A4B7E5;
constexpr uint32_t kMaxMessage = 4096;
constexpr uint32_t kLongTimeout = 60; // seconds; never reached
constexpr uint32_t kShortTimeout = 1;
constexpr int64_t kNsPerSecond = 1'000'000'000;

// What the library must have reported.
Count refusedConnects{0};
Count endedAccepts{0};
Count refusedBinds{0};
Count failedSends{0};
Count failedReceives{0};
Count closes{0};

enum class Transfer : uint32_t { upload, download, silence, resetByServer, resetByClient, last };

struct Hello {
    uint32_t magic;
    uint32_t connection;
    Transfer transfer;
    uint32_t bytes;
};

// How an end of a connection saw it.
struct Outcome {
    uint64_t sent = 0;
    uint64_t received = 0;
    bool failed = false; // a call has failed other than by a signal
};

// Never 0, so that it can be read as text too.
unsigned char byteAt(uint32_t connection, uint64_t place)
{
    return static_cast<unsigned char>(mixed(connection, place) % 255 + 1);
}

// The system's number for a port that is free now, below those that it gives to clients.
int freePort(Random& random)
{
    for (;;) {
        const int port = 10000 + static_cast<int>(random.below(20000));
        const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<uint16_t>(port));
        const bool isFree = bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
        close(fd);
        if (isFree) {
            return port;
        }
    }
}

// While it lives no handler runs on the thread, so that its waits last as long as they are told.
class SignalPause {
public:
    SignalPause()
    {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_BLOCK, &all, &before);
    }
    ~SignalPause() { pthread_sigmask(SIG_SETMASK, &before, nullptr); }
    SignalPause(const SignalPause&) = delete;
    SignalPause& operator=(const SignalPause&) = delete;

private:
    sigset_t before{};
};

class SocketLoad : public Load {
public:
    explicit SocketLoad(const char* loadName) : Load(Kind::bytes, loadName) {}

    void account(Table& table) const override
    {
        table.same(name + ": connections asked for, served", asked, served);
        table.same(name + ": bytes sent, received or cut by a reset", sent, received + cut);
        table.note(name + ": resets", resets);
        table.note(name + ": bytes cut by resets", cut);
        table.note(name + ": time-outs", timeouts);
        table.note(name + ": calls ended by a signal", interruptions);
    }

protected:
    void beginRound() override
    {
        employ([this](Random& random) { serve(random); });
        employ([this](Random& random) { visit(random); });
    }

private:
    // --- Both ends ---------------------------------------------------------------------------

    void closeObject(CTcpSocket* object, bool destruct)
    {
        if (destruct) {
            CTcpSocket_Destruct(object);
        } else if (CTcpSocket_Close(object) != GCL_OK) {
            complain("%s: a close failed", name.c_str());
        }
        ++closes;
        if (CTcpSocket_GetSocketHandle(object) != -1) {
            complain("%s: open after the close", name.c_str());
        }
        delete[] object;
    }

    // Closes the connection so that the peer's next call fails.
    void resetObject(CTcpSocket* object, Random& random)
    {
        const int fd = CTcpSocket_GetSocketHandle(object);
        const linger atOnce{1, 0};
        setsockopt(fd, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
        if (random.oneIn(2)) {
            closeObject(object, true); // ends the stream first
        } else {
            close(fd);
            delete[] object;
        }
    }

    // Whether a call ended because of a signal: a wait with a time-out counts as ready then.
    bool wasInterrupted(const CTcpSocket& object, int error)
    {
        const bool found =
            object.uiTimeout != 0 ? error == EAGAIN : error == EINTR && !round.restarting;
        if (found) {
            ++interruptions;
        }
        return found;
    }

    // Sends the bytes of a connection from `place` on; false if the peer has reset it.
    bool sendBytes(CTcpSocket& object, uint32_t connection, uint64_t place, uint32_t count,
                   Outcome& outcome)
    {
        std::array<unsigned char, 4 * kMaxMessage> data{};
        for (uint32_t i = 0; i < count; ++i) {
            data[i] = byteAt(connection, place + i);
        }
        return sendAll(object, data.data(), count, outcome);
    }

    bool sendAll(CTcpSocket& object, const void* data, uint32_t count, Outcome& outcome)
    {
        const auto* const bytes = static_cast<const unsigned char*>(data);
        uint32_t gone = 0;
        while (gone < count) {
            auto length = static_cast<int32_t>(count - gone);
            errno = 0;
            const uint32_t code = CTcpSocket_Write(&object, bytes + gone, &length);
            const int error = errno;
            if (code == GCL_OK || code == GCL_SOCKET_FAILED) {
                gone += static_cast<uint32_t>(length);
                outcome.sent += static_cast<uint32_t>(length);
                steps += static_cast<uint32_t>(length);
            }
            if (code == GCL_SOCKET_FAILED) {
                ++failedSends;
                if (!wasInterrupted(object, error)) {
                    if (error != ECONNRESET && error != EPIPE) {
                        complain("%s: a write failed, errno %d", name.c_str(), error);
                    }
                    outcome.failed = true;
                    return false;
                }
            } else if (code != GCL_OK) {
                complain("%s: a write gave %#x", name.c_str(), code);
                return false;
            }
        }
        return true;
    }

    // One read that no signal has ended; the count is 0 at the end of the stream.
    uint32_t readSome(CTcpSocket& object, void* buffer, uint32_t room, int32_t& count,
                      Outcome& outcome, bool text = false)
    {
        for (;;) {
            count = static_cast<int32_t>(room);
            errno = 0;
            const uint32_t code =
                text ? CTcpSocket_ReadZT(&object, static_cast<char*>(buffer), &count)
                     : CTcpSocket_Read(&object, buffer, &count);
            const int error = errno;
            if (code != GCL_SOCKET_FAILED) {
                if (code == GCL_OK && (count < 1 || static_cast<uint32_t>(count) > room)) {
                    complain("%s: a read gave %d bytes", name.c_str(), count);
                }
                return code;
            }
            ++failedReceives;
            if (!wasInterrupted(object, error)) {
                if (error != ECONNRESET) {
                    complain("%s: a read failed, errno %d", name.c_str(), error);
                }
                outcome.failed = true;
                return code;
            }
        }
    }

    bool readAll(CTcpSocket& object, void* buffer, uint32_t size)
    {
        Outcome outcome;
        uint32_t have = 0;
        while (have < size) {
            int32_t count = 0;
            if (readSome(object, static_cast<char*>(buffer) + have, size - have, count, outcome) !=
                GCL_OK) {
                return false;
            }
            have += static_cast<uint32_t>(count);
        }
        return true;
    }

    // Reads the bytes of a connection up to the end of the stream, or to `limit` at least.
    void readBytes(CTcpSocket& object, uint32_t connection, uint64_t limit, Outcome& outcome,
                   Random& random)
    {
        const bool slowly = random.oneIn(4); // the writer waits, and is interrupted there
        std::array<unsigned char, kMaxMessage> buffer{};
        while (outcome.received < limit) {
            int32_t count = 0;
            const uint32_t room = 1 + random.below(kMaxMessage);
            const uint32_t code =
                readSome(object, buffer.data(), room, count, outcome, random.oneIn(4));
            if (code == GCL_PEER_CLOSED || outcome.failed) {
                return;
            }
            if (code != GCL_OK) {
                complain("%s: a read gave %#x", name.c_str(), code);
                return;
            }
            if (slowly) {
                pauseUs(1000);
            }
            for (int32_t i = 0; i < count; ++i) {
                if (buffer[static_cast<size_t>(i)] !=
                    byteAt(connection, outcome.received + static_cast<uint32_t>(i))) {
                    complain("%s: byte %llu of connection %u is not what was sent", name.c_str(),
                             static_cast<unsigned long long>(outcome.received), connection);
                    return;
                }
            }
            outcome.received += static_cast<uint32_t>(count);
        }
    }

    void sendAllBytes(CTcpSocket& object, const Hello& hello, Outcome& outcome, Random& random)
    {
        const int room = 4096;
        if (random.oneIn(2)) { // a write then takes several sends
            setsockopt(CTcpSocket_GetSocketHandle(&object), SOL_SOCKET, SO_SNDBUF, &room,
                       sizeof room);
        }
        while (outcome.sent < hello.bytes) {
            const auto left = static_cast<uint32_t>(hello.bytes - outcome.sent);
            const uint32_t count = std::min(left, 1 + random.below(4 * kMaxMessage));
            if (!sendBytes(object, hello.connection, outcome.sent, count, outcome)) {
                return;
            }
        }
    }

    void setTimeout(CTcpSocket& object, uint32_t seconds)
    {
        if (CTcpSocket_SetTimeout(&object, seconds) != GCL_OK) {
            complain("%s: no time-out could be set", name.c_str());
        }
    }

    // --- The server --------------------------------------------------------------------------

    void serve(Random& random)
    {
        port = freePort(random);
        for (;;) {
            CTcpSocket* object = nullptr;
            errno = 0;
            const uint32_t code = CTcpSocket_WaitForConnection(&object, port, kMaxMessage);
            if (code != GCL_OK) {
                if (code == GCL_SOCKET_FAILED && errno == EINTR && !round.restarting) {
                    ++endedAccepts;
                    ++interruptions;
                } else if (code == GCL_SOCKET_FAILED && errno != EINTR) {
                    ++refusedBinds; // somebody else on this machine has taken the port
                    port = freePort(random);
                } else {
                    complain("%s: nobody was served: %#x", name.c_str(), code);
                    pauseUs(10000);
                }
                continue;
            }
            Hello hello{};
            const bool greeted = readAll(*object, &hello, sizeof hello);
            if (!greeted || hello.magic != kMagic) {
                // A client whose connect was ended by a signal.
                if (greeted || round.restarting) {
                    complain("%s: no greeting", name.c_str());
                }
                closeObject(object, false);
                continue;
            }
            if (serveOne(object, hello, random)) {
                return;
            }
        }
    }

    // True after the last connection of the round.
    bool serveOne(CTcpSocket* object, const Hello& hello, Random& random)
    {
        Outcome greeting;
        Outcome outcome;
        setTimeout(*object, random.oneIn(2) ? kLongTimeout : 0);
        if (!sendAll(*object, &hello.magic, sizeof hello.magic, greeting)) {
            complain("%s: the greeting was not answered", name.c_str());
        }
        switch (hello.transfer) {
        case Transfer::upload:
        case Transfer::resetByClient:
        case Transfer::last:
            readBytes(*object, hello.connection, ~uint64_t{0}, outcome, random);
            closeObject(object, random.oneIn(2));
            break;
        case Transfer::silence:
            while (hasWaited != hello.connection) {
                pauseUs(1000);
            }
            [[fallthrough]];
        case Transfer::download:
            sendAllBytes(*object, hello, outcome, random);
            closeObject(object, random.oneIn(2));
            break;
        case Transfer::resetByServer:
            readBytes(*object, hello.connection, random.below(hello.bytes), outcome, random);
            resetObject(object, random);
            break;
        }
        {
            const std::lock_guard<std::mutex> lock(mutex);
            servedOutcome = outcome;
            servedConnection = hello.connection;
        }
        changed.notify_all();
        ++served;
        return hello.transfer == Transfer::last;
    }

    // --- The client --------------------------------------------------------------------------

    void visit(Random& random)
    {
        do {
            Hello hello{kMagic, ++lastConnection, Transfer::upload, 0};
            const unsigned draw = random.below(40);
            hello.transfer = draw == 0   ? Transfer::silence
                             : draw < 16 ? Transfer::upload
                             : draw < 32 ? Transfer::download
                             : draw < 36 ? Transfer::resetByServer
                                         : Transfer::resetByClient;
            hello.bytes = 1 + random.below(random.oneIn(8) ? 1 << 19 : 1 << 12);
            if (hello.transfer == Transfer::silence) {
                hello.bytes = 16;
            }
            use(hello, random);
            pauseUs(random.below(4000));
        } while (!over);
        use({kMagic, ++lastConnection, Transfer::last, 1}, random);
    }

    CTcpSocket* connect(const Hello& hello)
    {
        for (;;) {
            CTcpSocket* object = nullptr;
            const uint32_t code = CTcpSocket_Create(&object, "127.0.0.1", port, kMaxMessage);
            if (code == GCL_CONNECT_FAILED) {
                ++refusedConnects; // the server is not listening yet, or a signal came
                pauseUs(500);
                continue;
            }
            if (code != GCL_OK) {
                complain("%s: a connect gave %#x", name.c_str(), code);
                return nullptr;
            }
            Outcome greeting;
            uint32_t answer = 0;
            if (sendAll(*object, &hello, sizeof hello, greeting) &&
                readAll(*object, &answer, sizeof answer)) {
                if (answer != kMagic) {
                    complain("%s: a wrong answer", name.c_str());
                }
                return object;
            }
            // Only a server whose accept was ended by a signal does not answer.
            if (round.restarting) {
                complain("%s: a connection was not served", name.c_str());
            }
            closeObject(object, false);
        }
    }

    void use(const Hello& hello, Random& random)
    {
        CTcpSocket* const object = connect(hello);
        if (object == nullptr) {
            return;
        }
        ++asked;
        Outcome outcome;
        setTimeout(*object, random.oneIn(2) ? kLongTimeout : 0);
        switch (hello.transfer) {
        case Transfer::upload:
        case Transfer::last:
            sendAllBytes(*object, hello, outcome, random);
            closeObject(object, random.oneIn(2));
            break;
        case Transfer::silence:
            waitInVain(*object, hello.connection, outcome);
            [[fallthrough]];
        case Transfer::download:
            readBytes(*object, hello.connection, ~uint64_t{0}, outcome, random);
            closeObject(object, random.oneIn(2));
            break;
        case Transfer::resetByServer:
            sendAllBytes(*object, hello, outcome, random);
            closeObject(object, random.oneIn(2));
            break;
        case Transfer::resetByClient:
            sendAllBytes(*object, hello, outcome, random);
            resetObject(object, random);
            break;
        }
        compare(hello, outcome);
    }

    void waitInVain(CTcpSocket& object, uint32_t connection, Outcome& outcome)
    {
        setTimeout(object, kShortTimeout);
        {
            const SignalPause pause;
            const int64_t begun = monotonicNs();
            int32_t count = 0;
            unsigned char byte = 0;
            const uint32_t code = readSome(object, &byte, 1, count, outcome);
            const int64_t lastedNs = monotonicNs() - begun;
            if (code == GCL_TIMED_OUT) {
                ++timeouts;
                if (count != 1 || lastedNs < kShortTimeout * kNsPerSecond) {
                    complain("%s: a time-out after %lld ms", name.c_str(),
                             static_cast<long long>(lastedNs / 1'000'000));
                }
            } else {
                complain("%s: a silent peer gave %#x", name.c_str(), code);
            }
        }
        setTimeout(object, kLongTimeout);
        hasWaited = connection;
    }

    // Both ends have seen the connection; their counts must agree.
    void compare(const Hello& hello, const Outcome& client)
    {
        Outcome server;
        {
            std::unique_lock<std::mutex> lock(mutex);
            changed.wait(lock, [&] { return servedConnection == hello.connection; });
            server = servedOutcome;
        }
        const bool reset =
            hello.transfer == Transfer::resetByServer || hello.transfer == Transfer::resetByClient;
        const uint64_t bothSent = client.sent + server.sent;
        const uint64_t bothReceived = client.received + server.received;
        sent += bothSent;
        received += bothReceived;
        if (reset) {
            ++resets;
            cut += bothSent - bothReceived;
        }
        if (reset ? bothReceived > bothSent
                  : bothSent != hello.bytes || bothReceived != hello.bytes || client.failed ||
                        server.failed) {
            complain("%s: connection %u of %u bytes, kind %u: %llu sent, %llu received",
                     name.c_str(), hello.connection, hello.bytes,
                     static_cast<unsigned>(hello.transfer),
                     static_cast<unsigned long long>(bothSent),
                     static_cast<unsigned long long>(bothReceived));
        }
    }

    std::atomic<int> port{0};
    uint32_t lastConnection = 0;
    std::atomic<uint32_t> hasWaited{0}; // the connection on which the client has waited in vain
    std::mutex mutex;                   // guards the two below
    Outcome servedOutcome;
    uint32_t servedConnection = 0;
    std::condition_variable changed;

    Count asked{0};
    Count served{0};
    Count sent{0};
    Count received{0};
    Count cut{0};
    Count resets{0};
    Count timeouts{0};
    Count interruptions{0};
};

} // namespace

void addSockets(Loads& loads, Expectations& expectations)
{
    expectations.expect("KIV.GCL", "Client failed to connect", &refusedConnects);
    expectations.expect("KIV.GCL", "accept() failed", &endedAccepts);
    expectations.expect("KIV.GCL", "Failed to bind", &refusedBinds);
    expectations.expect("KIV.GCL", "bind() failed", nullptr);
    expectations.expect("KIV.GCL", "send() failed", &failedSends);
    expectations.expect("KIV.GCL", "recv() failed", &failedReceives);
    // A drain ends in one of two ways.
    expectations.expect("KIV.GCL", "Buffer drain ", &closes);
    expectations.expect("KIV.GCL", "Bytes left: ", nullptr);
    expectations.expect("KIV.GCL", "nanosleep returned error", nullptr);
    VT_setLevel("KIV.GCL", 7); // whatever is set for all others
    loads.push_back(std::make_unique<SocketLoad>("TCP pair 1"));
    loads.push_back(std::make_unique<SocketLoad>("TCP pair 2"));
    loads.push_back(std::make_unique<SocketLoad>("TCP pair 3"));
}

} // namespace soak
