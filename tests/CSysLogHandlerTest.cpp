#include "Framework/GCL/CSysLogHandler.h"

#include <gtest/gtest.h>

#include <syslog.h>

#include <cwchar>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Framework/GCL/testing/FaultInjection.h"

namespace calls = gcltest::calls;

namespace {

struct Entry {
    int priority;
    std::string text;

    bool operator==(const Entry& other) const
    {
        return priority == other.priority && text == other.text;
    }
};

std::ostream& operator<<(std::ostream& out, const Entry& entry)
{
    return out << entry.priority << " " << entry.text;
}

// The log level before any case has set it.
const uint32_t levelAtStart = [] {
    uint32_t level = 0;
    CSysLogHandler_GetLogLevel(&level);
    return level;
}();

// Collects what would go to the system log.
class CSysLogHandlerLog : public testing::Test {
protected:
    ~CSysLogHandlerLog() override { CSysLogHandler_SetLogLevel(0x1000); }

    // What one call with `code` writes.
    std::vector<Entry> log(uint32_t code)
    {
        entries.clear();
        CSysLogHandler_Log("GCL", "Framework/GCL/private/CList", 161, code, "text");
        return entries;
    }

    std::vector<Entry> entries;

private:
    gcltest::Hook<void(int, const char*)> hook{calls::syslog,
                                               [this](int priority, const char* text) {
                                                   entries.push_back({priority, text});
                                               }};
};

} // namespace

TEST_F(CSysLogHandlerLog, WritesLabelFileLineMessageAndCode)
{
    CSysLogHandler_Log("GCL", "Framework/GCL/private/CList", 161, 0x8008, "cycle in %s", "list");
    EXPECT_EQ(entries, (std::vector<Entry>{{3, "GCL: CList (161): cycle in list, code: 8008\n"}}));
}

TEST_F(CSysLogHandlerLog, PrintsTheWholeCodeInLowerCase)
{
    EXPECT_EQ(log(0xFEDCBA98),
              (std::vector<Entry>{{3, "GCL: CList (161): text, code: fedcba98\n"}}));
}

TEST_F(CSysLogHandlerLog, FiltersByTheInitialLevelAndSetsThePriorityByBand)
{
    struct Row {
        uint32_t code;
        int priority; // -1: dropped
    };
    const Row rows[] = {{0xFFFFFFFF, LOG_ERR}, {0x8000, LOG_ERR},
                        {0x7FFF, LOG_WARNING}, {0x1000, LOG_WARNING},
                        {0xFFF, LOG_NOTICE},   {0x900, LOG_NOTICE},
                        {0x8FF, -1},           {0x840, -1},
                        {0x100, -1},           {0, -1}};
    for (const Row& row : rows) {
        const std::vector<Entry> written = log(row.code);
        ASSERT_EQ(written.size(), row.priority < 0 ? 0u : 1u) << std::hex << row.code;
        if (row.priority >= 0) {
            EXPECT_EQ(written[0].priority, row.priority) << std::hex << row.code;
        }
    }
}

TEST_F(CSysLogHandlerLog, LetsTheBypassRangeThroughWhateverTheLevel)
{
    CSysLogHandler_SetLogLevel(0xFFFFFFFF);
    for (const uint32_t code : {0x900u, 0xABCu, 0xFFFu}) {
        EXPECT_EQ(log(code).size(), 1u) << std::hex << code;
    }
    for (const uint32_t code : {0u, 0x8FFu, 0x1000u, 0x8000u, 0xFFFFFFFEu}) {
        EXPECT_TRUE(log(code).empty()) << std::hex << code;
    }
    EXPECT_EQ(log(0xFFFFFFFF).size(), 1u);
}

TEST_F(CSysLogHandlerLog, WritesEverythingAtLevelZero)
{
    CSysLogHandler_SetLogLevel(0);
    EXPECT_EQ(log(0), (std::vector<Entry>{{5, "GCL: CList (161): text, code: 0\n"}}));
    EXPECT_EQ(log(0x840)[0].priority, 5);
}

TEST_F(CSysLogHandlerLog, AdmitsFromTheLevelOn)
{
    CSysLogHandler_SetLogLevel(0x8005);
    EXPECT_TRUE(log(0x8004).empty());
    EXPECT_EQ(log(0x8005).size(), 1u);
}

TEST_F(CSysLogHandlerLog, PrintsWhatFollowsTheLastSlash)
{
    const char* const paths[][2] = {{"plain", "plain"}, {"a/b", "b"}, {"/x", "x"}, {"dir/", ""}};
    for (const auto& path : paths) {
        entries.clear();
        CSysLogHandler_Log("L", path[0], -1, 0x8000, "m");
        EXPECT_EQ(entries, (std::vector<Entry>{
                               {3, std::string("L: ") + path[1] + " (-1): m, code: 8000\n"}}));
    }
}

TEST_F(CSysLogHandlerLog, CutsAMessageAfter383Characters)
{
    for (const size_t length : {382u, 383u, 384u, 5000u}) {
        entries.clear();
        const std::string message(length, 'x');
        CSysLogHandler_Log("L", "f", 1, 0x8000, "%s", message.c_str());
        const std::string kept(std::min<size_t>(length, 383), 'x');
        EXPECT_EQ(entries, (std::vector<Entry>{{3, "L: f (1): " + kept + ", code: 8000\n"}}));
    }
}

TEST_F(CSysLogHandlerLog, WritesTheLineAlsoWhereTheMessageCannotBeFormatted)
{
    // No multibyte character stands for this wide one.
    CSysLogHandler_Log("L", "f", 1, 0x8000, "before %lc after", static_cast<wint_t>(0x7FFFFFFF));
    const gcltest::Fault fault(calls::vsnprintf, calls::vsnprintf.failure()); // writes nothing
    CSysLogHandler_Log("L", "f", 1, 0x8000, "text");
    EXPECT_EQ(fault.failures(), 1u);
    EXPECT_EQ(entries, (std::vector<Entry>{{3, "L: f (1): before , code: 8000\n"},
                                           {3, "L: f (1): , code: 8000\n"}}));
}

TEST_F(CSysLogHandlerLog, PrintsPercentSignsOfLabelAndMessageAsTheyAre)
{
    CSysLogHandler_Log("100%s", "a%n/b%d", 1, 0x8000, "%s", "%x");
    EXPECT_EQ(entries, (std::vector<Entry>{{3, "100%s: b%d (1): %x, code: 8000\n"}}));
}

TEST_F(CSysLogHandlerLog, LeavesOpeningTheLogToTheProcess)
{
    const gcltest::Count opened(calls::openlog);
    const gcltest::Count masked(calls::setlogmask);
    log(0x8000);
    EXPECT_EQ(entries.size(), 1u);
    EXPECT_EQ(opened.calls() + masked.calls(), 0u);
}

TEST(CSysLogHandlerLogThreads, KeepTheirMessagesApart)
{
    constexpr int kThreads = 4;
    constexpr int kEach = 500;
    std::mutex mutex;
    std::map<std::string, int> counts;
    const gcltest::Hook hook(
        calls::syslog,
        [&](int, const char* text) {
            const std::lock_guard<std::mutex> lock(mutex);
            ++counts[text];
        },
        gcltest::Threads::all);
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([thread] {
            const std::string message(300, static_cast<char>('a' + thread));
            for (int i = 0; i < kEach; ++i) {
                CSysLogHandler_Log("L", "f", thread, 0x8000, "%s", message.c_str());
                CSysLogHandler_SetLogLevel(0x1000 + static_cast<uint32_t>(i));
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(counts.size(), static_cast<size_t>(kThreads));
    for (int thread = 0; thread < kThreads; ++thread) {
        const std::string message(300, static_cast<char>('a' + thread));
        EXPECT_EQ(counts["L: f (" + std::to_string(thread) + "): " + message + ", code: 8000\n"],
                  kEach);
    }
    CSysLogHandler_SetLogLevel(0x1000);
}

TEST(CSysLogHandlerLogLevel, StartsAtTheWarningsAndKeepsTheLastValue)
{
    EXPECT_EQ(levelAtStart, 0x1000u);
    uint32_t level = 0;
    CSysLogHandler_SetLogLevel(0xFFFFFFFF);
    CSysLogHandler_GetLogLevel(&level);
    EXPECT_EQ(level, 0xFFFFFFFFu);
    CSysLogHandler_SetLogLevel(7);
    CSysLogHandler_GetLogLevel(&level);
    EXPECT_EQ(level, 7u);
}
