// The main function of every test program: it runs the cases and counts descriptors and threads
// around each of them.
#include <gtest/gtest.h>

#include <dirent.h>

#include <chrono>
#include <thread>

namespace {

// Entries of a folder of this process in /proc, the one that the count itself opens left out.
long entriesOf(const char* folder)
{
    DIR* const stream = opendir(folder);
    if (stream == nullptr) {
        return -1;
    }
    long count = 0;
    while (readdir(stream) != nullptr) {
        ++count;
    }
    closedir(stream);
    return count;
}

class LeakListener : public testing::EmptyTestEventListener {
    void OnTestStart(const testing::TestInfo&) override
    {
        descriptors = entriesOf("/proc/self/fd");
        threads = entriesOf("/proc/self/task");
    }

    void OnTestEnd(const testing::TestInfo&) override
    {
        EXPECT_EQ(entriesOf("/proc/self/fd"), descriptors) << "descriptors are left over";
        // A joined thread may stay in the list for a moment, here and when the case began: there
        // may be fewer threads than before, never more.
        for (int i = 0; i < 200 && entriesOf("/proc/self/task") > threads; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        EXPECT_LE(entriesOf("/proc/self/task"), threads) << "threads are left over";
    }

    long descriptors = 0;
    long threads = 0;
};

} // namespace

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    // The thread sanitizer starts a thread of its own with the first one of the program.
    std::thread([] {}).join();
    testing::UnitTest::GetInstance()->listeners().Append(new LeakListener);
    return RUN_ALL_TESTS();
}
