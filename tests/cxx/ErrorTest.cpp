#include "Framework/GCL/cxx/Error.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <system_error>
#include <type_traits>

#include "Framework/GCL/CHyxTraceHandler.h"

using gcl::Result;
using gcl::Severity;

namespace {

constexpr GCL_ResultCode kCodes[] = {
    GCL_OK,
    GCL_DRAIN_FAILED,
    GCL_DRAIN_PROGRESS,
    GCL_MUTEX_INIT_FAILED,
    GCL_LAST_ITEM,
    GCL_FAILURE,
    GCL_STACK_FULL,
    GCL_STACK_EMPTY,
    GCL_LIST_EMPTY,
    GCL_ITEM_NOT_FOUND,
    GCL_POOL_EXHAUSTED,
    GCL_INVALID_ARGUMENT,
    GCL_INDEX_OUT_OF_RANGE,
    GCL_SOCKET_FAILED,
    GCL_CONNECT_FAILED,
    GCL_INCONSISTENT,
    GCL_PEER_CLOSED,
    GCL_INVALID_HASH_TABLE,
    GCL_INVALID_HASH_KEY,
    GCL_PAIR_NOT_FOUND,
    GCL_TIMED_OUT,
    GCL_FIFO_FULL,
    GCL_FIFO_EMPTY,
    GCL_FIFO_NOT_INITIALIZED,
    GCL_SEMAPHORE_FAILED,
    GCL_MUTEX_FAILED,
};

constexpr Severity kSeverities[] = {Severity::Success, Severity::Notice, Severity::Warning,
                                    Severity::Error};

} // namespace

TEST(Result, IsACodeAndNothingElse)
{
    static_assert(sizeof(Result) == sizeof(uint32_t));
    static_assert(std::is_trivially_copyable_v<Result>);
    static_assert(!std::is_convertible_v<uint32_t, Result>, "numbers are no results by accident");
    static_assert(!std::is_convertible_v<Result, bool>);
    static_assert(Result(GCL_STACK_FULL).code() == 0x8002);
    static_assert(Result(0x8002u) == GCL_STACK_FULL);
    static_assert(Result(GCL_OK) != GCL_STACK_FULL);
    static_assert(Result(0xFFFFFFFFu).code() == 0xFFFFFFFF);
}

TEST(Result, FailsByMagnitude)
{
    static_assert(!Result(GCL_OK).failed());
    static_assert(!Result(GCL_LAST_ITEM).failed());
    static_assert(!Result(0x7FFFu).failed());
    static_assert(Result(0x8000u).failed());
    static_assert(Result(0xFFFFFFFFu).failed());
}

TEST(Result, TellsItsSeverity)
{
    struct {
        uint32_t code;
        Severity severity;
    } const rows[] = {
        {0, Severity::Success},        {1, Severity::Notice},         {0x100, Severity::Notice},
        {0x840, Severity::Notice},     {0x900, Severity::Notice},     {0xFFF, Severity::Notice},
        {0x1000, Severity::Warning},   {0x1002, Severity::Warning},   {0x7FFF, Severity::Warning},
        {0x8000, Severity::Error},     {0x801A, Severity::Error},     {0x7FFFFFFF, Severity::Error},
        {0x80000000, Severity::Error}, {0xFFFFFFFF, Severity::Error},
    };
    for (const auto& row : rows) {
        const Result result(row.code);
        const std::error_code error = result;
        EXPECT_EQ(result.severity(), row.severity) << row.code;
        for (const Severity severity : kSeverities) {
            EXPECT_EQ(result == severity, severity == row.severity) << row.code;
            EXPECT_EQ(result != severity, severity != row.severity) << row.code;
            EXPECT_EQ(error == severity, severity == row.severity) << row.code;
        }
    }
}

// The bands are those of the trace levels: failures are level 1, warnings level 2.
TEST(Severity, AgreesWithTheTraceLevels)
{
    for (uint32_t code = 0; code < 0x9000; ++code) {
        const int32_t level = CHyxTraceHandler_DmLevel2VtLevel(code);
        EXPECT_EQ(gcl::severityOf(code) == Severity::Error, level == 1) << code;
        EXPECT_EQ(gcl::severityOf(code) == Severity::Warning, level == 2) << code;
    }
}

TEST(Category, HasATextOfItsOwnForEachCode)
{
    std::set<std::string> texts;
    for (const GCL_ResultCode code : kCodes) {
        const std::string text = Result(code).message();
        EXPECT_NE(text, "unknown result code") << code;
        EXPECT_FALSE(text.empty()) << code;
        EXPECT_TRUE(texts.insert(text).second) << text;
        EXPECT_EQ(text, std::error_code(code).message());
    }
    EXPECT_EQ(Result(0x8001u).message(), "unknown result code");
    EXPECT_EQ(Result(GCL_TIMED_OUT).message(), "the socket's time-out ran out");
    EXPECT_STREQ(gcl::category().name(), "gcl");
    EXPECT_STREQ(gcl::severityCategory().name(), "gcl.severity");
}

TEST(Category, NamesTheSeverities)
{
    EXPECT_EQ(make_error_condition(Severity::Success).message(), "success");
    EXPECT_EQ(make_error_condition(Severity::Notice).message(), "notice");
    EXPECT_EQ(make_error_condition(Severity::Warning).message(), "warning");
    EXPECT_EQ(make_error_condition(Severity::Error).message(), "error");
    EXPECT_EQ(gcl::severityCategory().message(4), "unknown severity");
}

TEST(Category, MakesErrorCodesOfTheCodes)
{
    for (const GCL_ResultCode code : kCodes) {
        const std::error_code error = code;
        EXPECT_EQ(error.value(), static_cast<int>(code));
        EXPECT_EQ(&error.category(), &gcl::category());
        EXPECT_EQ(error, code);
        EXPECT_EQ(error, make_error_code(code));
        EXPECT_EQ(error, make_error_code(Result(code)));
        EXPECT_EQ(static_cast<bool>(error), code != GCL_OK);
    }
    EXPECT_NE(std::error_code(GCL_STACK_FULL), GCL_STACK_EMPTY);
    const std::error_code huge = Result(0xFFFFFFFFu);
    EXPECT_EQ(static_cast<uint32_t>(huge.value()), 0xFFFFFFFFu);
    EXPECT_EQ(huge, Severity::Error);
}

TEST(Category, IsEquivalentToTheStandardConditionsThatMeanTheSame)
{
    EXPECT_EQ(std::error_code(GCL_INVALID_ARGUMENT), std::errc::invalid_argument);
    EXPECT_EQ(std::error_code(GCL_TIMED_OUT), std::errc::timed_out);
    EXPECT_TRUE(Result(GCL_TIMED_OUT) == std::errc::timed_out);
    EXPECT_NE(std::error_code(GCL_FAILURE), std::errc::invalid_argument);
    EXPECT_EQ(std::error_code(GCL_FAILURE).default_error_condition(),
              std::error_condition(GCL_FAILURE, gcl::category()));
}

TEST(Category, DoesNotJudgeOtherCategoriesCodes)
{
    for (const Severity severity : kSeverities) {
        EXPECT_NE(std::error_code(0x8000, std::generic_category()), severity);
        EXPECT_NE(std::error_code(), severity);
    }
    EXPECT_NE(std::error_code(0x8002, std::generic_category()), GCL_STACK_FULL);
}

TEST(ThrowIfFailed, ThrowsFailuresOnly)
{
    EXPECT_NO_THROW(gcl::throwIfFailed(GCL_OK));
    EXPECT_NO_THROW(gcl::throwIfFailed(GCL_LAST_ITEM));
    EXPECT_NO_THROW(gcl::throwIfFailed(Result(0x7FFFu)));
    try {
        gcl::throwIfFailed(GCL_POOL_EXHAUSTED);
        FAIL() << "nothing was thrown";
    } catch (const std::system_error& failure) {
        EXPECT_EQ(failure.code(), GCL_POOL_EXHAUSTED);
        EXPECT_STREQ(failure.what(), "no free block in the pool");
    }
}
