// Elements of every kind of size in every mode, which copies each in its own way, and a reader of a
// ring without slots whose signal is handled.
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <string>
#include <vector>

#include "Framework/GCL/CFifoBuffer.h"
#include "Framework/GCL/ResultCodes.h"
#include "Framework/GCL/testing/TraceCapture.h"
#include "tests/support/SignalJump.h"

using gcltest::Report;
using gcltest::takeReports;

namespace {

class CFifoBufferElements : public testing::TestWithParam<ETaskingMode> {};

INSTANTIATE_TEST_SUITE_P(Mode, CFifoBufferElements,
                         testing::Values(eTaskingModeSemaphore, eTaskingModeNone,
                                         eTaskingModeMutex),
                         [](const testing::TestParamInfo<ETaskingMode>& mode) {
                             return std::to_string(mode.param);
                         });

// Destruct destroys the mutex in every mode. Valgrind's thread checkers count it as an error if
// there never was one; the tests of Destruct do without this.
void destruct(CFifoBuffer& fifo)
{
    if (fifo.eMode != eTaskingModeMutex) {
        EXPECT_EQ(pthread_mutex_init(&fifo.fifoMutex, nullptr), 0);
    }
    CFifoBuffer_Destruct(&fifo);
}

// An element of `size` bytes, no two of which are alike nearby.
std::vector<unsigned char> elementOf(uint32_t size, unsigned first)
{
    std::vector<unsigned char> element(size);
    for (uint32_t at = 0; at < size; ++at) {
        element[at] = static_cast<unsigned char>(first + 7 * at);
    }
    return element;
}

} // namespace

TEST_P(CFifoBufferElements, ComeOutWholeAndTouchNothingElse)
{
    constexpr unsigned char kAround = 0xEE;
    for (const uint32_t size : {1u, 2u, 3u, 4u, 5u, 8u, 12u, 16u, 24u, 63u, 64u, 65u, 1000u}) {
        CFifoBuffer fifo = {};
        CFifoBuffer_Construct(&fifo, size, 2, GetParam());
        for (unsigned round = 0; round < 3; ++round) { // the second slot, the first one again
            const auto first = elementOf(size, round);
            const auto second = elementOf(size, round + 100);
            EXPECT_EQ(CFifoBuffer_Put(&fifo, first.data()), GCL_OK);
            EXPECT_EQ(CFifoBuffer_Put(&fifo, second.data()), GCL_OK);
            for (const auto& expected : {first, second}) {
                std::vector<unsigned char> out(size + 2, kAround);
                EXPECT_EQ(CFifoBuffer_Get(&fifo, out.data() + 1), GCL_OK);
                EXPECT_EQ(out.front(), kAround) << size;
                EXPECT_EQ(out.back(), kAround) << size;
                EXPECT_EQ(std::vector<unsigned char>(out.begin() + 1, out.end() - 1), expected)
                    << size;
            }
        }
        destruct(fifo);
    }
    EXPECT_EQ(takeReports(), std::vector<Report>{});
}

// Such a FIFO counts: what comes out is that something went in.
TEST_P(CFifoBufferElements, OfNoBytesAreCountedAndNeedNoMemory)
{
    CFifoBuffer fifo = {};
    CFifoBuffer_Construct(&fifo, 0, 2, GetParam());
    EXPECT_EQ(CFifoBuffer_Put(&fifo, nullptr), GCL_OK);
    EXPECT_EQ(CFifoBuffer_Put(&fifo, nullptr), GCL_OK);
    EXPECT_EQ(fifo.uiCurrentSize, 2u);
    EXPECT_EQ(CFifoBuffer_Get(&fifo, nullptr), GCL_OK);
    EXPECT_EQ(CFifoBuffer_Get(&fifo, nullptr), GCL_OK);
    EXPECT_EQ(CFifoBuffer_IsEmpty(&fifo), 1u);
    destruct(fifo);
    EXPECT_EQ(takeReports(), std::vector<Report>{});
}

TEST(CFifoBufferNoSlotsReader, TouchesNothingAndKeepsTheMutexWhereAHandlerLeavesTheDivision)
{
    CFifoBuffer fifo = {};
    CFifoBuffer_Construct(&fifo, sizeof(uint32_t), 0, eTaskingModeMutex);
    uint32_t word = 77;
    EXPECT_TRUE(gcltest::raises(SIGFPE, [&] { CFifoBuffer_Get(&fifo, &word); }));
    EXPECT_EQ(word, 77u);
    EXPECT_EQ(fifo.uiCurrentSize, 0u);
    EXPECT_EQ(fifo.uiReadIndex, 0u);
    EXPECT_EQ(pthread_mutex_trylock(&fifo.fifoMutex), EBUSY);
    EXPECT_EQ(pthread_mutex_unlock(&fifo.fifoMutex), 0);
    destruct(fifo);
    EXPECT_EQ(takeReports(), std::vector<Report>{});
}
