// A unit test in C++11 without a test framework.
#include <cerrno>
#include <cstdio>
#include <new>

#include <sys/socket.h>

#include "Framework/GCL/CList.h"
#include "Framework/GCL/CTcpSocket.h"
#include "Framework/GCL/ResultCodes.h"
#include "Framework/GCL/testing/FaultInjection.h"
#include "Framework/GCL/testing/PeerNode.h"
#include "Framework/GCL/testing/TraceCapture.h"

namespace calls = gcltest::calls;

static bool holds = true;

static void check(bool condition, const char* what)
{
    if (!condition) {
        std::printf("%s: not so\n", what);
        holds = false;
    }
}

int main()
{
    unsigned long item = 0;
    CList_GetNext(nullptr, &item, nullptr);
    check(gcltest::takeReports() ==
              std::vector<gcltest::Report>{gcltest::gclReport(
                  "CList", "CList_GetNext", "pThis is NULL!", GCL_INVALID_ARGUMENT)},
          "the report");

    CList list;
    CList_Construct(&list);
    bool threw = false;
    try {
        gcltest::Fault<void*(size_t)> fault(calls::newArray, {0, 0, 2});
        CList_PushTail(&list, 1);
        CList_PushTail(&list, 2);
    } catch (const std::bad_alloc&) {
        threw = true;
    }
    check(threw && CList_CurrentSize(&list) == 1, "the second allocation");
    CList_Destruct(&list);

    gcltest::PeerNode node{gcltest::PeerNode::Options()};
    const int port = node.start();
    CTcpSocket* socket = nullptr;
    {
        gcltest::Fault<int(int, const sockaddr*, socklen_t)> fault(
            calls::connect, calls::connect.failure(ETIMEDOUT));
        check(CTcpSocket_Create(&socket, "127.0.0.1", port, 100) == GCL_CONNECT_FAILED,
              "the connection that fails");
    }
    check(gcltest::takeReports(gcltest::withCode(GCL_CONNECT_FAILED)).size() == 1,
          "the report of it");
    check(CTcpSocket_Create(&socket, "127.0.0.1", port, 100) == GCL_OK, "the connection");
    CTcpSocket_Close(socket);
    delete[] socket;
    std::puts(holds ? "as it should" : "failed");
    return holds ? 0 : 1;
}
