// CTcpSocket at the limits of a process: descriptors that an fd_set cannot hold, and small stacks.
#include "Framework/GCL/CTcpSocket.h"

#include <gtest/gtest.h>

#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <string>
#include <vector>

#include "Framework/GCL/ResultCodes.h"
#include "Framework/GCL/testing/TraceCapture.h"
#include "tests/support/Loopback.h"
#include "tests/support/Sanitizers.h"

#if defined(GCLTEST_ADDRESS_SANITIZER) || defined(GCLTEST_THREAD_SANITIZER)
#define HAS_SANITIZER 1
#else
#define HAS_SANITIZER 0
#endif

using gcltest::Connection;
using gcltest::OwnedFd;
using gcltest::takeReports;

namespace {

class Limits : public testing::TestWithParam<int> {
protected:
    void SetUp() override
    {
        rlimit wanted{4096, 4096};
        rlimit now{};
        ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &now), 0);
        if (now.rlim_max < wanted.rlim_max && geteuid() != 0) {
            GTEST_SKIP() << "no more than " << now.rlim_max << " descriptors allowed";
        }
        wanted.rlim_max = std::max(now.rlim_max, wanted.rlim_max);
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &wanted), 0);
    }
};

std::string nameOf(const testing::TestParamInfo<int>& info)
{
    return "Descriptor" + std::to_string(info.param);
}

// A ReadZT on a thread with a stack of 256 kB. The read is refused, because the object is closed or
// the length above its maximum; what counts is the scratch, which exists before.
constexpr size_t kStackSize = 256 * 1024;
constexpr uint32_t kNoMaximum = 0x7FFFFFFF;

struct SmallStackRead {
    int32_t length;
    uint32_t maximum;
    bool refusedWithZeros = false;
};

void* readOnSmallStack(void* argument)
{
    auto& read = *static_cast<SmallStackRead*>(argument);
    // The descriptor is never used: one above the maximum is refused before.
    CTcpSocket socket{read.maximum == kNoMaximum ? -1 : 1'000'000, 0, read.maximum, 0};
    std::string text(static_cast<size_t>(read.length), '-');
    const uint32_t code = CTcpSocket_ReadZT(&socket, &text[0], &read.length);
    read.refusedWithZeros = code == 0x8008 && text == std::string(text.size(), '\0');
    return nullptr;
}

bool readsOnSmallStack(int32_t size, uint32_t maximum = kNoMaximum)
{
    SmallStackRead read{size, maximum};
    pthread_attr_t attributes;
    EXPECT_EQ(pthread_attr_init(&attributes), 0);
    EXPECT_EQ(pthread_attr_setstacksize(&attributes, kStackSize), 0);
    pthread_t thread;
    EXPECT_EQ(pthread_create(&thread, &attributes, readOnSmallStack, &read), 0);
    EXPECT_EQ(pthread_join(thread, nullptr), 0);
    EXPECT_EQ(pthread_attr_destroy(&attributes), 0);
    return read.refusedWithZeros;
}

} // namespace

TEST_P(Limits, TransfersAndWaits)
{
    Connection connection;
    const int high = GetParam();
    ASSERT_EQ(dup2(connection.near.get(), high), high);
    connection.near.reset();
    CTcpSocket socket;
    CTcpSocket_Construct(&socket, high, 1, 100);
    ASSERT_EQ(CTcpSocket_SetTimeout(&socket, 1), GCL_OK);

    int32_t length = 4;
    EXPECT_EQ(CTcpSocket_Write(&socket, "ping", &length), GCL_OK);
    EXPECT_EQ(gcltest::receiveAll(connection.far.get(), 4), "ping");
    char buffer[8] = "";
    length = 8;
    EXPECT_EQ(CTcpSocket_Read(&socket, buffer, &length), 0x8015u);
    ASSERT_EQ(write(connection.far.get(), "pong", 4), 4);
    EXPECT_EQ(CTcpSocket_Read(&socket, buffer, &length), GCL_OK);
    EXPECT_STREQ(buffer, "pong");
    const std::string data(32 * 1024 * 1024, 'x');
    length = static_cast<int32_t>(data.size());
    EXPECT_EQ(CTcpSocket_Write(&socket, data.data(), &length), 0x8015u);
    EXPECT_EQ(takeReports(), std::vector<gcltest::Report>{});
    CTcpSocket_Destruct(&socket);
    static_cast<void>(takeReports());
}

INSTANTIATE_TEST_SUITE_P(CTcpSocket, Limits, testing::Values(1022, 1023, 1024, 1025, 2000, 4095),
                         nameOf);

TEST(CTcpSocketStack, HoldsAScratchThatFits)
{
#ifdef GCLTEST_THREAD_SANITIZER
    GTEST_SKIP() << "the sanitizer keeps data of its own, larger than that, on a thread's stack";
#endif
    EXPECT_TRUE(readsOnSmallStack(kStackSize / 2));
    EXPECT_EQ(takeReports().size(), 1u);
}

// A length that the read refuses takes no more scratch than the longest one that it accepts.
TEST(CTcpSocketStack, HoldsTheScratchOfALengthThatIsRefused)
{
    EXPECT_TRUE(readsOnSmallStack(2 * 1024 * 1024, 10));
    EXPECT_EQ(takeReports(),
              std::vector<gcltest::Report>{gcltest::gclReport(
                  "CTcpSocket", "CTcpSocket_Read",
                  "*piDataLen: Message too large (must be less than 10 bytes)", 0x8008)});
}

// A scratch beyond the stack must hit the guard page: the process ends instead of writing into the
// memory beyond, however far it would jump.
TEST(CTcpSocketStack, EndsTheProcessWhereTheScratchDoesNotFit)
{
    if (HAS_SANITIZER) {
        GTEST_SKIP() << "the sanitizer answers the segmentation fault in its own way";
    }
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    for (const int32_t size : {static_cast<int32_t>(kStackSize), 2 * 1024 * 1024}) {
        EXPECT_EXIT(readsOnSmallStack(size), testing::KilledBySignal(SIGSEGV), "");
    }
}
