// FaultInjection: faults of the platform, for tests. The functions of CallTable.h go through the
// test program, which can count their calls, fail the n-th one or put a function of its own in
// their place. The code under test needs no hooks for it.
//
//     Fault fault(calls::sem_wait, {-1, EINTR, 2});           // the 2nd call returns -1 with EINTR
//     Fault fault(calls::recv, calls::recv.failure(EIO, 2));  // the same for recv, by the table
//     Count count(calls::newArray);                           // counts, fails nothing
//     Hook hook(calls::recv, [](int, void*, size_t, int) -> ssize_t { return 0; });
//
// Before C++17 the function's type is written out: Fault<int(sem_t*)> fault(calls::sem_wait, ...).
//
// Each holds from its construction to its destruction, one at a time for each function, and for the
// calls of the thread that made it unless Threads::all is given. The calls are those of the whole
// program: the code under test, the test itself (see NoFaults.h), and the shared libraries that
// they use, the C++ library among them. Calls made from inside a hook's own function go to the C
// library, and so does `calls::name.real(...)`; those of the recorder (TraceCapture.h) do as well.
//
// Objects are constructed and destroyed while no other thread is in a call that they cover.
#ifndef GCL_TESTING_FAULTINJECTION_H
#define GCL_TESTING_FAULTINJECTION_H

#include <dlfcn.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <new>
#include <stdexcept>
#include <type_traits>
#include <utility>
#include <vector>

#include "Framework/GCL/testing/CallTable.h"
#include "Framework/GCL/testing/NoFaults.h"

namespace gcltest {

// Whose calls are meant: those of the thread that constructs the object, or those of every thread.
enum class Threads { caller, all };

// How calls fail.
struct Failure {
    static constexpr unsigned kForGood = UINT32_MAX;
    Failure(int callResult, int errorNumber, unsigned firstCall = 1, unsigned callsInARow = 1)
        : result(callResult), error(errorNumber), nth(firstCall), times(callsInARow)
    {
    }

    int result;     // what the call returns: NULL where that is a pointer; operator new throws
    int error;      // what it leaves in errno; 0 leaves errno alone
    unsigned nth;   // the first call that fails, counted from 1
    unsigned times; // how many calls in a row fail
};

template <typename Signature>
class Hook;

// What a symbol stands for behind this program, or what `find` returns for it, found at its first
// use.
class NextFunction {
public:
    using Find = void* (*)(const char* symbol);
    constexpr explicit NextFunction(const char* symbolName, Find findBody = nullptr)
        : symbol(symbolName), find(findBody), address(nullptr)
    {
    }
    // The thread sanitizer calls interposed functions before it can take note of any.
    __attribute__((no_sanitize("thread"))) void* get()
    {
        void* found = address.load();
        if (found == nullptr) {
            found = find != nullptr ? find(symbol) : dlsym(RTLD_NEXT, symbol);
            if (found == nullptr) {
                std::abort();
            }
            address.store(found);
        }
        return found;
    }

private:
    const char* symbol;
    Find find;
    std::atomic<void*> address;
};

// One function of the table, an object in gcltest::calls. They are constant-initialised: calls come
// in before any code of the program has run.
template <typename Signature>
class Call;

template <typename Result, typename... Arguments>
class Call<Result(Arguments...)> {
public:
    constexpr Call(const char* symbolName, FailureKind failureKind, int failureValue,
                   int usualFailure, NextFunction::Find find = nullptr)
        : kind(failureKind),
          next(symbolName, find),
          hook(nullptr),
          value(failureValue),
          usualError(usualFailure)
    {
    }

    // The C library's function.
    Result real(Arguments... arguments)
    {
        void* const other = otherName().call == this ? otherName().function : nullptr;
        return function(other != nullptr ? other : next.get())(arguments...);
    }

    // What the function's name stands for in this process.
    __attribute__((no_sanitize("thread"))) Result operator()(Arguments... arguments)
    {
        Hook<Result(Arguments...)>* const active = hook.load();
        if (active == nullptr || !active->covers()) {
            return function(next.get())(arguments...);
        }
        return active->run(arguments...);
    }

    // The failure of the nth call, as the function tells of it. Without an error it is the table's
    // usual one. Throws std::logic_error for a function that cannot fail.
    Failure failure(int error = 0, unsigned nth = 1, unsigned times = 1) const
    {
        const int chosen = error == 0 ? usualError : error;
        if (kind == FailureKind::never) {
            throw std::logic_error("this function cannot fail");
        }
        return kind == FailureKind::byResult ? Failure(chosen, 0, nth, times)
                                             : Failure(value, chosen, nth, times);
    }

    // The function by another name, whose own body `other` is.
    struct By {
        Call& call;
        NextFunction& other;
        Result operator()(Arguments... arguments) const
        {
            Hook<Result(Arguments...)>* const active = call.hook.load();
            if (active == nullptr || !active->covers()) {
                return function(other.get())(arguments...);
            }
            const UseOther use(&call, other.get());
            return active->run(arguments...);
        }
    };
    By by(NextFunction& other) { return By{*this, other}; }

    const FailureKind kind;

private:
    friend class Hook<Result(Arguments...)>;

    // The body that the call in progress on this thread goes to, where it is not the function's
    // own.
    struct OtherName {
        const void* call;
        void* function;
    };
    static OtherName& otherName()
    {
        static thread_local OtherName name = {nullptr, nullptr};
        return name;
    }
    struct UseOther {
        UseOther(const void* call, void* function) : before(otherName())
        {
            otherName() = OtherName{call, function};
        }
        ~UseOther() { otherName() = before; }
        const OtherName before;
    };

    __attribute__((no_sanitize("thread"))) static Result (*function(void* address))(Arguments...)
    {
        return reinterpret_cast<Result (*)(Arguments...)>(address);
    }

    NextFunction next;
    std::atomic<Hook<Result(Arguments...)>*> hook;
    const int value;
    const int usualError;
};

// Puts a function in the place of another one.
template <typename Result, typename... Arguments>
class Hook<Result(Arguments...)> {
public:
    Hook(Call<Result(Arguments...)>& hookedCall, std::function<Result(Arguments...)> hookBody,
         Threads coveredThreads = Threads::caller)
        : call(hookedCall),
          body(std::move(hookBody)),
          threads(coveredThreads),
          owner(pthread_self()),
          callCount(0)
    {
        if (call.hook.exchange(this) != nullptr) {
            std::abort(); // one at a time
        }
    }
    ~Hook() { call.hook.store(nullptr); }
    Hook(const Hook&) = delete;
    Hook& operator=(const Hook&) = delete;

    // Calls that the hook has answered so far.
    unsigned calls() const { return callCount.load(); }

private:
    friend class Call<Result(Arguments...)>;

    bool covers() const
    {
        return !NoFaults::live() &&
               (threads == Threads::all || pthread_equal(owner, pthread_self()) != 0);
    }

    Result run(Arguments... arguments)
    {
        ++callCount;
        const NoFaults inside;
        return body(arguments...);
    }

    Call<Result(Arguments...)>& call;
    std::function<Result(Arguments...)> body;
    Threads threads;
    pthread_t owner;
    std::atomic<unsigned> callCount;
};

// Fails calls of a function and makes all others.
template <typename Signature>
class Fault;

template <typename Result, typename... Arguments>
class Fault<Result(Arguments...)> {
public:
    Fault(Call<Result(Arguments...)>& failingCall, Failure failureToMake,
          Threads threads = Threads::caller)
        : call(failingCall),
          failure(failureToMake),
          callCount(0),
          failureCount(0),
          hook(
              failingCall, [this](Arguments... arguments) -> Result { return run(arguments...); },
              threads)
    {
    }

    // Calls seen so far, failed ones included.
    unsigned calls() const { return callCount.load(); }
    unsigned failures() const { return failureCount.load(); }

private:
    Result run(Arguments... arguments)
    {
        const unsigned number = ++callCount;
        if (number < failure.nth || number - failure.nth >= failure.times) {
            return call.real(arguments...);
        }
        ++failureCount;
        if (failure.error != 0) {
            errno = failure.error;
        }
        if (call.kind == FailureKind::byException) {
            throw std::bad_alloc();
        }
        return failed(std::is_pointer<Result>());
    }

    Result failed(std::true_type) const { return nullptr; }
    Result failed(std::false_type) const { return static_cast<Result>(failure.result); }

    Call<Result(Arguments...)>& call;
    Failure failure;
    std::atomic<unsigned> callCount;
    std::atomic<unsigned> failureCount;
    Hook<Result(Arguments...)> hook;
};

// Counts the calls of a function and fails none.
template <typename Signature>
class Count : public Fault<Signature> {
public:
    explicit Count(Call<Signature>& countedCall, Threads threads = Threads::caller)
        : Fault<Signature>(countedCall, {0, 0, 1, 0}, threads)
    {
    }
};

#ifdef __cpp_deduction_guides
template <typename Signature, typename Body>
Hook(Call<Signature>&, Body) -> Hook<Signature>;
template <typename Signature, typename Body>
Hook(Call<Signature>&, Body, Threads) -> Hook<Signature>;
template <typename Signature>
Fault(Call<Signature>&, Failure) -> Fault<Signature>;
template <typename Signature>
Fault(Call<Signature>&, Failure, Threads) -> Fault<Signature>;
template <typename Signature>
Count(Call<Signature>&) -> Count<Signature>;
template <typename Signature>
Count(Call<Signature>&, Threads) -> Count<Signature>;
#endif

// The functions, by the names of the table.
// NOLINTBEGIN(bugprone-macro-parentheses): types are no operands
namespace calls {

#define GCLTEST_DECLARE(name, symbol, result, parameters, arguments, kind, value, error)           \
    extern Call<result parameters> name;
GCLTEST_CALLS(GCLTEST_DECLARE)
GCLTEST_TEXT_CALLS(GCLTEST_DECLARE)
GCLTEST_LOG_CALLS(GCLTEST_DECLARE)
#undef GCLTEST_DECLARE

#if __SIZEOF_POINTER__ == 4
#define GCLTEST_DECLARE(name, function, symbol, result, parameters, arguments)                     \
    extern Call<result parameters> name;
#else
#define GCLTEST_DECLARE(name, function, symbol, result, parameters, arguments)                     \
    extern Call<result parameters>& name;
#endif
GCLTEST_TIME64_CALLS(GCLTEST_DECLARE)
#undef GCLTEST_DECLARE

} // namespace calls
// NOLINTEND(bugprone-macro-parentheses)

// Notes the arrays that this thread frees while it lives.
class Frees {
public:
    Frees()
        : hook(calls::deleteArray, [this](void* memory) {
              if (memory != nullptr) {
                  freed.push_back(memory);
              }
              calls::deleteArray.real(memory);
          })
    {
    }

    // Those since the last look, in their order; freeing NULL does not count.
    std::vector<const void*> memory() const
    {
        std::vector<const void*> taken;
        taken.swap(freed);
        return taken;
    }

private:
    mutable std::vector<const void*> freed;
    Hook<void(void*)> hook;
};

} // namespace gcltest

#endif // GCL_TESTING_FAULTINJECTION_H
