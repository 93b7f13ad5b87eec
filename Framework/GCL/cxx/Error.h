// Error.h: the result codes in C++. The operations of this layer return a gcl::Result, which is a
// code and nothing else; where a program speaks std::error_code, it converts to one of the category
// gcl::category().
//
//     if (socket.setTimeout(5).failed()) { ... }             // 0x8000 and above
//     if (stack.push(entry) == GCL_STACK_FULL) { ... }       // one code
//     const std::error_code error = fifo.put(sample);        // for what takes one
//     if (error == gcl::Severity::Error) { ... }
//     gcl::throwIfFailed(table.set("key", 1));               // as a std::system_error
//
// A code below 0x8000 is a success that may carry news: ask failed(), or compare with
// gcl::Severity::Error. A std::error_code counts as true for every code but GCL_OK, GCL_LAST_ITEM
// included. Everything here may be used by any thread at any time, also while static objects are
// destroyed. Nothing allocates but what returns a text or throws.
#ifndef GCL_CXX_ERROR_H
#define GCL_CXX_ERROR_H

#include <cstdint>
#include <string>
#include <system_error>
#include <type_traits>

#include "Framework/GCL/Api.h"
#include "Framework/GCL/ResultCodes.h"

namespace gcl {

// What the magnitude of a code says about it. Each code has exactly one severity.
enum class Severity : int {
    Success, // GCL_OK
    Notice,  // 0x0001 to 0x0FFF
    Warning, // 0x1000 to 0x7FFF
    Error,   // 0x8000 and above
};

// severityOf returns the severity of a result code.
constexpr Severity severityOf(std::uint32_t code) noexcept
{
    if (GCL_IS_FAILURE(code)) {
        return Severity::Error;
    }
    if (code >= 0x1000) {
        return Severity::Warning;
    }
    return code != GCL_OK ? Severity::Notice : Severity::Success;
}

// category returns the category of the result codes. Its texts say what a code means. A code is
// equivalent to its severity; GCL_INVALID_ARGUMENT and GCL_TIMED_OUT are equivalent to
// std::errc::invalid_argument and std::errc::timed_out as well. The category is never destroyed.
const std::error_category& category() noexcept;

// severityCategory returns the category of the severities as error conditions. It is never
// destroyed.
const std::error_category& severityCategory() noexcept;

// What an operation returned. It fits a register, and the compiler warns where it is ignored.
class [[nodiscard]] Result {
public:
    constexpr explicit Result(std::uint32_t code) noexcept : value(code) {}
    constexpr Result(GCL_ResultCode code) noexcept : value(code) {}

    // code is the plain interface's result code.
    constexpr std::uint32_t code() const noexcept { return value; }

    // failed is true for the codes of 0x8000 and above.
    constexpr bool failed() const noexcept { return GCL_IS_FAILURE(value); }

    constexpr Severity severity() const noexcept { return severityOf(value); }

    // message is the category's text for the code.
    std::string message() const { return category().message(static_cast<int>(value)); }

    operator std::error_code() const noexcept { return {static_cast<int>(value), category()}; }

    friend constexpr bool operator==(Result a, Result b) noexcept { return a.value == b.value; }
    friend constexpr bool operator!=(Result a, Result b) noexcept { return a.value != b.value; }
    friend constexpr bool operator==(Result a, Severity b) noexcept { return a.severity() == b; }
    friend constexpr bool operator!=(Result a, Severity b) noexcept { return a.severity() != b; }

private:
    std::uint32_t value;
};

// throwIfFailed throws a std::system_error with the code of a result that failed.
inline void throwIfFailed(Result result)
{
    if (result.failed()) {
        throw std::system_error(result);
    }
}

inline std::error_code make_error_code(Result result) noexcept
{
    return result;
}

inline std::error_condition make_error_condition(Severity severity) noexcept
{
    return {static_cast<int>(severity), severityCategory()};
}

namespace detail {

class GCL_API ResultCategory : public std::error_category {
public:
    const char* name() const noexcept override { return "gcl"; }

    std::string message(int value) const override
    {
        switch (static_cast<std::uint32_t>(value)) {
        case GCL_OK:
            return "success";
        case GCL_DRAIN_FAILED:
            return "draining the socket's send queue failed";
        case GCL_DRAIN_PROGRESS:
            return "the socket's send queue is draining";
        case GCL_MUTEX_INIT_FAILED:
            return "the FIFO's mutex could not be initialised";
        case GCL_LAST_ITEM:
            return "this was the last item";
        case GCL_FAILURE:
            return "general failure";
        case GCL_STACK_FULL:
            return "the stack is full";
        case GCL_STACK_EMPTY:
            return "the stack is empty";
        case GCL_LIST_EMPTY:
            return "the list is empty";
        case GCL_ITEM_NOT_FOUND:
            return "no such item in the list";
        case GCL_POOL_EXHAUSTED:
            return "no free block in the pool";
        case GCL_INVALID_ARGUMENT:
            return "invalid argument";
        case GCL_INDEX_OUT_OF_RANGE:
            return "the list has no node with this index";
        case GCL_SOCKET_FAILED:
            return "a socket call failed";
        case GCL_CONNECT_FAILED:
            return "the server could not be connected to";
        case GCL_INCONSISTENT:
            return "the list contradicts itself, or fcntl failed";
        case GCL_PEER_CLOSED:
            return "the peer closed the connection";
        case GCL_INVALID_HASH_TABLE:
            return "invalid hash table";
        case GCL_INVALID_HASH_KEY:
            return "invalid hash key";
        case GCL_PAIR_NOT_FOUND:
            return "no such key in the hash table";
        case GCL_TIMED_OUT:
            return "the socket's time-out ran out";
        case GCL_FIFO_FULL:
            return "the FIFO is full";
        case GCL_FIFO_EMPTY:
            return "the FIFO is empty";
        case GCL_FIFO_NOT_INITIALIZED:
            return "the FIFO is not initialised";
        case GCL_SEMAPHORE_FAILED:
            return "a wait for the FIFO failed or was interrupted by a signal";
        case GCL_MUTEX_FAILED:
            return "the FIFO's mutex failed";
        default:
            return "unknown result code";
        }
    }

    std::error_condition default_error_condition(int value) const noexcept override
    {
        switch (static_cast<std::uint32_t>(value)) {
        case GCL_INVALID_ARGUMENT:
            return std::errc::invalid_argument;
        case GCL_TIMED_OUT:
            return std::errc::timed_out;
        default:
            return {value, *this};
        }
    }
};

class GCL_API SeverityCategory : public std::error_category {
public:
    const char* name() const noexcept override { return "gcl.severity"; }

    std::string message(int value) const override
    {
        switch (static_cast<Severity>(value)) {
        case Severity::Success:
            return "success";
        case Severity::Notice:
            return "notice";
        case Severity::Warning:
            return "warning";
        case Severity::Error:
            return "error";
        }
        return "unknown severity";
    }

    bool equivalent(const std::error_code& error, int severity) const noexcept override
    {
        return error.category() == gcl::category() &&
               severityOf(static_cast<std::uint32_t>(error.value())) ==
                   static_cast<Severity>(severity);
    }
};

// An object that is never destroyed.
template <typename T>
union GCL_API Immortal {
    constexpr Immortal() : object() {}
    ~Immortal() {} // NOLINT(modernize-use-equals-default): the default would be deleted
    Immortal(const Immortal&) = delete;
    Immortal& operator=(const Immortal&) = delete;

    T object;
};

} // namespace detail

GCL_API inline const std::error_category& category() noexcept
{
    static const detail::Immortal<detail::ResultCategory> instance;
    return instance.object;
}

GCL_API inline const std::error_category& severityCategory() noexcept
{
    static const detail::Immortal<detail::SeverityCategory> instance;
    return instance.object;
}

} // namespace gcl

// The codes convert to a std::error_code by themselves, and compare with one.
inline std::error_code make_error_code(GCL_ResultCode code) noexcept
{
    return gcl::Result(code);
}

template <>
struct std::is_error_code_enum<GCL_ResultCode> : std::true_type {
};

template <>
struct std::is_error_condition_enum<gcl::Severity> : std::true_type {
};

#endif // GCL_CXX_ERROR_H
