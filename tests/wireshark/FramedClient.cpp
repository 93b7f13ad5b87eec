// A client of the framed protocol for the dissector's test: it sends ten frames to a node that
// echoes them, on the port given, and reads each reply.
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

#include "Framework/GCL/HijackApi.h"
#include "Framework/VT/VorTrace.h"

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::cerr << "usage: FramedClient PORT\n";
        return 2;
    }
    constexpr unsigned kFrames = 10;
    constexpr unsigned kOwnSyncId = 0x434C4E54;
    constexpr unsigned kNodeSyncId = 0x4E4F4445;
    VorTrace trace("KIV.PROBE", VorTraceLevel1);
    const auto port = static_cast<unsigned short>(std::stoul(argv[1]));
    Util::HijackApi client(trace, port, 1000, kOwnSyncId, kNodeSyncId);
    if (!client.connectToServer("127.0.0.1")) {
        return 1;
    }
    std::vector<unsigned char> reply(65536);
    for (unsigned i = 0; i < kFrames; ++i) {
        std::vector<unsigned char> payload(size_t{i} * i * 100);
        for (size_t k = 0; k < payload.size(); ++k) {
            payload[k] = static_cast<unsigned char>(i + k);
        }
        unsigned count = 0;
        if (!client.writeToNet(payload.data(), static_cast<unsigned>(payload.size()), &count) ||
            !client.readFromNet(reply.data(), static_cast<unsigned>(reply.size()), &count) ||
            count != payload.size()) {
            return 1;
        }
    }
    return 0;
}
