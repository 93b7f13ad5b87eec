// kivgcl-peernode: runs a peer node of the framed message protocol until a signal ends it.
#include <getopt.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <string>

#include "Framework/GCL/testing/PeerNode.h"

using gcltest::PeerNode;

namespace {

constexpr char kProgram[] = "kivgcl-peernode";
constexpr int kFailure = 1;
constexpr int kBadUsage = 2;

constexpr char kHelp[] =
    R"(Usage: kivgcl-peernode [OPTION]...
Serves clients of the framed message protocol, one after another: takes the
frames that they send, and echoes or prints them.

  --listen=ADDRESS     numeric IPv4 address to listen on (127.0.0.1)
  --port=PORT          TCP port; 0 takes any free one (0). The port is printed
  --tx-sync=HEX        sync id of the frames sent (4e4f4445)
  --rx-sync=HEX        sync id of the frames expected (434c4e54)
  --mode=echo|print    what to do with frames: send each payload back, or print
                       them (echo)
  --first-sequence=N   sequence number of the first frame sent (1)
  --once               end after the first client
  --max-payload=BYTES  longest payload accepted, at most 67108864 (1048576);
                       the start of a longer frame is taken for garbage
  --idle-timeout=MS    hang up on a client that neither sends nor takes a byte
                       for so long, and serve the next one; 0 means never (0)
  --help               print this text and end
  --version            print the version and end

Faults of the frames sent; N counts them from 1, 0 means never:
  --garbage-every=N    send garbage before every Nth frame
  --skip-every=N       leave out a sequence number before every Nth frame
  --repeat-every=N     repeat the sequence number with every Nth frame; where
                       both are due, it is repeated
  --oversize-every=N   announce 4294967295 payload bytes with every Nth frame
  --stall-every=N      pause in the middle of every Nth frame
  --stall-ms=MS        how long to pause, in milliseconds (1000)
  --byte-by-byte       send every byte by itself
  --reset-after=N      reset the connection in the middle of the frame that
                       follows N frames to a client

SIGINT and SIGTERM end the program; a second one ends it at once, also where
it waits for whoever reads its output.
Exit status: 0 after a regular end, 1 after a failure, 2 for bad usage.
)";

enum Option {
    kListen = 1000,
    kPort,
    kTxSync,
    kRxSync,
    kMode,
    kFirstSequence,
    kOnce,
    kMaxPayloadOption,
    kIdleTimeout,
    kHelpOption,
    kVersion,
    kGarbageEvery,
    kSkipEvery,
    kRepeatEvery,
    kOversizeEvery,
    kStallEvery,
    kStallMs,
    kByteByByte,
    kResetAfter
};

const option kOptions[] = {
    {"listen", required_argument, nullptr, kListen},
    {"port", required_argument, nullptr, kPort},
    {"tx-sync", required_argument, nullptr, kTxSync},
    {"rx-sync", required_argument, nullptr, kRxSync},
    {"mode", required_argument, nullptr, kMode},
    {"first-sequence", required_argument, nullptr, kFirstSequence},
    {"once", no_argument, nullptr, kOnce},
    {"max-payload", required_argument, nullptr, kMaxPayloadOption},
    {"idle-timeout", required_argument, nullptr, kIdleTimeout},
    {"help", no_argument, nullptr, kHelpOption},
    {"version", no_argument, nullptr, kVersion},
    {"garbage-every", required_argument, nullptr, kGarbageEvery},
    {"skip-every", required_argument, nullptr, kSkipEvery},
    {"repeat-every", required_argument, nullptr, kRepeatEvery},
    {"oversize-every", required_argument, nullptr, kOversizeEvery},
    {"stall-every", required_argument, nullptr, kStallEvery},
    {"stall-ms", required_argument, nullptr, kStallMs},
    {"byte-by-byte", no_argument, nullptr, kByteByByte},
    {"reset-after", required_argument, nullptr, kResetAfter},
    {nullptr, 0, nullptr, 0},
};

class BadUsage : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The option's argument as a number of the given base, at most `limit`.
uint32_t number(const std::string& name, int base, uint32_t limit)
{
    const std::string text = optarg;
    const char* const digits = base == 16 ? "0123456789abcdefABCDEFxX" : "0123456789";
    char* end = nullptr;
    errno = 0;
    const unsigned long long value = std::strtoull(text.c_str(), &end, base);
    if (text.empty() || text.find_first_not_of(digits) != std::string::npos || *end != '\0' ||
        errno != 0 || value > limit) {
        throw BadUsage("--" + name + ": '" + text + "' is not " +
                       (base == 16 ? "a hexadecimal word of up to 8 digits"
                                   : "a number from 0 to " + std::to_string(limit)));
    }
    return static_cast<uint32_t>(value);
}

PeerNode::Mode mode()
{
    const std::string text = optarg;
    if (text == "echo") {
        return PeerNode::Mode::echo;
    }
    if (text == "print") {
        return PeerNode::Mode::print;
    }
    throw BadUsage("--mode: '" + text + "' is neither 'echo' nor 'print'");
}

// Writes to standard output at once; output that is lost is a failure.
void print(const std::string& text)
{
    if (!(std::cout << text << std::flush)) {
        throw std::runtime_error("cannot write to standard output");
    }
}

// Ends the program where an option asks for it.
PeerNode::Options parse(int argc, char** argv)
{
    PeerNode::Options options;
    int index = 0;
    for (int found; (found = getopt_long(argc, argv, "", kOptions, &index)) != -1;) {
        const auto decimal = [&index](uint32_t limit = UINT32_MAX) {
            return number(kOptions[index].name, 10, limit);
        };
        const auto hexadecimal = [&index] { return number(kOptions[index].name, 16, UINT32_MAX); };
        switch (found) {
        case kListen:
            options.listenAddress = optarg;
            break;
        case kPort:
            options.port = static_cast<uint16_t>(decimal(UINT16_MAX));
            break;
        case kTxSync:
            options.txSyncId = hexadecimal();
            break;
        case kRxSync:
            options.rxSyncId = hexadecimal();
            break;
        case kMode:
            options.mode = mode();
            break;
        case kFirstSequence:
            options.firstSequence = decimal();
            break;
        case kOnce:
            options.once = true;
            break;
        case kMaxPayloadOption:
            options.maxPayload = decimal(PeerNode::kMaxPayload);
            break;
        case kIdleTimeout:
            options.idleTimeoutMs = decimal(INT32_MAX);
            break;
        case kHelpOption:
            print(kHelp);
            std::exit(0);
        case kVersion:
            print(std::string(kProgram) + " " + PEERNODE_VERSION + "\n");
            std::exit(0);
        case kGarbageEvery:
            options.garbageEvery = decimal();
            break;
        case kSkipEvery:
            options.skipEvery = decimal();
            break;
        case kRepeatEvery:
            options.repeatEvery = decimal();
            break;
        case kOversizeEvery:
            options.oversizeEvery = decimal();
            break;
        case kStallEvery:
            options.stallEvery = decimal();
            break;
        case kStallMs:
            options.stallMs = decimal(INT32_MAX);
            break;
        case kByteByByte:
            options.byteByByte = true;
            break;
        case kResetAfter:
            options.resetAfter = decimal();
            break;
        default:
            throw BadUsage(""); // getopt_long has said what is wrong
        }
    }
    if (optind < argc) {
        throw BadUsage(std::string("unexpected argument '") + argv[optind] + "'");
    }
    return options;
}

PeerNode* runningNode = nullptr; // for the signal handler

void endNode(int)
{
    // The node cannot end while its output is blocked: a second signal ends the program.
    std::signal(SIGINT, SIG_DFL);
    std::signal(SIGTERM, SIG_DFL);
    runningNode->requestStop();
}

// While it exists, signals end the node. It goes before the node does, however that comes about.
class EndOnSignal {
public:
    explicit EndOnSignal(PeerNode& node)
    {
        runningNode = &node;
        std::signal(SIGINT, endNode);
        std::signal(SIGTERM, endNode);
    }
    ~EndOnSignal()
    {
        std::signal(SIGINT, SIG_DFL);
        std::signal(SIGTERM, SIG_DFL);
    }
    EndOnSignal(const EndOnSignal&) = delete;
    EndOnSignal& operator=(const EndOnSignal&) = delete;
};

void run(PeerNode::Options options)
{
    options.output = &std::cout;
    PeerNode node(options);
    // Output that nobody reads any more is a failure to be told, not an end without a word.
    std::signal(SIGPIPE, SIG_IGN);
    const EndOnSignal endOnSignal(node);
    const uint16_t port = node.start();
    print("listening on " + options.listenAddress + ":" + std::to_string(port) + "\n");
    node.wait();
    // A line that the node could not write has left its mark in the stream.
    print(std::to_string(node.framesReceived()) + " frames received, " +
          std::to_string(node.framesSent()) + " sent\n");
}

} // namespace

int main(int argc, char** argv)
{
    try {
        run(parse(argc, argv));
        return 0;
    } catch (const BadUsage& error) {
        if (*error.what() != '\0') {
            std::cerr << kProgram << ": " << error.what() << "\n";
        }
        std::cerr << "Try '" << kProgram << " --help'.\n";
        return kBadUsage;
    } catch (const std::invalid_argument& error) {
        std::cerr << kProgram << ": --listen: " << error.what() << "\n";
        return kBadUsage;
    } catch (const std::exception& error) {
        std::cerr << kProgram << ": " << error.what() << "\n";
        return kFailure;
    }
}
