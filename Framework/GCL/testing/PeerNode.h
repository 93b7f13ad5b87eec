// PeerNode: the server side of the framed message protocol, for trying and testing clients.
//
//     gcltest::PeerNode::Options options;
//     options.skipEvery = 3; // every third frame leaves out a sequence number
//     gcltest::PeerNode node(options);
//     Util::HijackApi client(trace, node.start(), 1'000'000, options.rxSyncId, options.txSyncId);
//     client.connectToServer("127.0.0.1");
//
// A node listens on an IPv4 address and serves one client after another on a thread of its own. It
// hunts for the sync id in what the client sends, takes the frames, and echoes or prints them; the
// frames that it sends can be given faults on purpose. It is an independent implementation on plain
// sockets and knows nothing of the client class.
//
// Outgoing frames are counted over the node's life, from 1 on, and so are their sequence numbers: a
// client that reconnects finds both where they were. A fault that is due "every n frames" strikes
// frames n, 2n, 3n and so on; 0 means never. Several may strike one frame; where a number is to be
// left out and repeated at once, it is repeated.
//
// A client that the node has no memory for is hung up on.
#ifndef GCL_TESTING_PEERNODE_H
#define GCL_TESTING_PEERNODE_H

#include <atomic>
#include <cstdint>
#include <ostream>
#include <string>
#include <thread>

namespace gcltest {

class PeerNode {
public:
    // What a node does with the frames that it receives.
    enum class Mode {
        echo, // sends each payload back in a frame of its own
        print // writes a line for each to Options::output and sends nothing
    };

    struct Options {
        std::string listenAddress = "127.0.0.1"; // numeric IPv4 address
        uint16_t port = 0;                       // 0: any free one
        uint32_t txSyncId = 0x4E4F4445;          // of the frames that the node sends
        uint32_t rxSyncId = 0x434C4E54;          // of the frames that the node expects
        Mode mode = Mode::echo;
        uint32_t firstSequence = 1; // number of the first frame sent; clients expect 1
        bool once = false;          // ends after the first client
        // The longest payload that the node accepts, at most kMaxPayload; the start of a longer
        // frame is taken for garbage.
        uint32_t maxPayload = 1u << 20;
        // Hangs up on a client that neither sends nor takes a byte for so many milliseconds, so
        // that the next one is served; 0: never.
        uint32_t idleTimeoutMs = 0;

        // Faults of the frames sent.
        uint32_t garbageEvery = 0;  // sends bytes before the frame that look much like its start
        uint32_t skipEvery = 0;     // leaves out one sequence number
        uint32_t repeatEvery = 0;   // uses the previous sequence number again
        uint32_t oversizeEvery = 0; // announces 0xFFFFFFFF payload bytes instead of the real number
        uint32_t stallEvery = 0;    // pauses in mid-frame; the node does not read meanwhile
        uint32_t stallMs = 1000;    // how long, in milliseconds
        bool byteByByte = false;    // sends every byte by itself
        uint32_t resetAfter = 0;    // resets the connection in the middle of the frame that follows
                                    // this many to one client; 0: never

        // Used by the node's thread in mode print; not owned. The node ends where a line is lost.
        std::ostream* output = nullptr;
    };

    // The greatest value of Options::maxPayload.
    static constexpr uint32_t kMaxPayload = 64u << 20;

    // Throws std::system_error without descriptors for it.
    explicit PeerNode(Options options);
    // Stops the node.
    ~PeerNode();
    PeerNode(const PeerNode&) = delete;
    PeerNode& operator=(const PeerNode&) = delete;

    // Listens, starts the thread and returns the port. To be called once. Throws
    // std::invalid_argument for an address that is not numeric, std::system_error where the port
    // cannot be had or the thread not be started.
    uint16_t start();
    // Asks the node to end as soon as it can, whatever it is doing. Safe in a signal handler.
    void requestStop() const noexcept;
    // Waits until the node has ended: after requestStop, or with Options::once after a client.
    void wait();
    // Both.
    void stop();

    // Frames taken from clients, and frames that went out whole (faults included).
    uint64_t framesReceived() const { return received.load(); }
    uint64_t framesSent() const { return sent.load(); }

private:
    class Client;

    // A descriptor that is closed with its owner.
    class Descriptor {
    public:
        explicit Descriptor(int descriptor = -1) : fd(descriptor) {}
        ~Descriptor();
        Descriptor(const Descriptor&) = delete;
        Descriptor& operator=(const Descriptor&) = delete;
        int fd;
    };

    enum class Event { ready, timeUp, stopped };
    Event waitFor(int fd, short events, int waitMs) const;
    bool pauseFor(uint32_t waitMs) const;
    void run();
    void serve(Client& client);
    bool reply(Client& client, const std::string& payload);
    bool print(uint32_t sequenceNumber, const std::string& payload) const;
    uint32_t takeSequenceNumber();

    const Options options;
    Descriptor wakeReader; // readable once the node is to end
    Descriptor wakeWriter;
    Descriptor listener;
    uint64_t frameNumber = 0;  // of the frame being sent
    uint32_t nextSequence = 0; // for a frame without a fault
    std::atomic<uint64_t> received{0};
    std::atomic<uint64_t> sent{0};
    bool outputLost = false;
    std::thread thread;
};

} // namespace gcltest

#endif // GCL_TESTING_PEERNODE_H
