#include "Framework/GCL/CTimer.h"

#include <cxxabi.h>
#include <dlfcn.h>
#include <pthread.h>
#include <sched.h>
#include <sys/prctl.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <exception>
#include <limits>
#include <mutex>
#include <thread>
#include <utility>

#include "Framework/GCL/private/Clock.h"
#include "Framework/GCL/private/ErrnoSaver.h"
#include "Framework/VT/VorTrace.h"

namespace {

constexpr char kSource[] = "Framework/GCL/private/CTimer";

constexpr size_t kMaxNameLength = 15;
// By contract: one below the accepted length, so that a name of 15 characters loses its last one.
constexpr size_t kKeptNameLength = 14;

// Forced unwinding (pthread_exit, cancellation) has no exception object: the reference of its
// handler binds to nothing, which UndefinedBehaviorSanitizer must not take for an error.
#define CATCHES_FORCED_UNWINDING __attribute__((no_sanitize("null")))

// --- Tracing ---------------------------------------------------------------------------------

// TraceGate tells whether the trace object exists, and keeps it from being destroyed under a thread
// that is writing: timers may be built before it and their workers may run after it. It needs no
// code to be built or destroyed.
class TraceGate {
public:
    // Whether the object exists; if so, it stays until leave.
    bool enter()
    {
        if ((state.fetch_add(1, std::memory_order_acquire) & kOpen) != 0) {
            return true;
        }
        leave();
        return false;
    }

    void leave() { state.fetch_sub(1, std::memory_order_release); }

    bool isOpen() const { return (state.load(std::memory_order_acquire) & kOpen) != 0; }

    void open() { state.fetch_or(kOpen, std::memory_order_release); }

    // Lets nobody in any more and waits for those inside. False if somebody is still there after a
    // second: a writer that is stuck in the trace framework, or the caller itself, if it has ended
    // the process from there.
    bool close()
    {
        state.fetch_and(~kOpen, std::memory_order_relaxed);
        for (int waits = 0; waits < 1000; ++waits) {
            if (state.load(std::memory_order_acquire) == 0) {
                return true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return false;
    }

private:
    static constexpr uint32_t kOpen = 0x80000000; // the other bits count the threads inside
    std::atomic<uint32_t> state{0};
};

TraceGate traceGate;

// The library's trace object. A writer that is stuck in it at the end keeps it: it is left as it
// is.
struct TraceObject {
    TraceObject() : trace("KIV.CTimer", VorTraceLevel3) { traceGate.open(); }
    ~TraceObject()
    {
        if (traceGate.close()) {
            trace.~VorTrace();
        }
    }
    TraceObject(const TraceObject&) = delete;
    TraceObject& operator=(const TraceObject&) = delete;

    union {
        VorTrace trace;
    };
};

TraceObject traceObject;

// TracePass is held while one message is written, if it is to be written at all.
class TracePass {
public:
    explicit TracePass(VorTraceLevel level)
        : inside(traceGate.enter()),
          toWrite(inside && traceObject.trace.hasImpl() && traceObject.trace.level() >= level)
    {
    }
    ~TracePass()
    {
        if (inside) {
            traceGate.leave();
        }
    }
    TracePass(const TracePass&) = delete;
    TracePass& operator=(const TracePass&) = delete;

    bool admitted() const { return toWrite; }

private:
    bool inside;
    bool toWrite;
};

void append(std::string& text, const std::string& piece)
{
    text += piece;
}

void append(std::string& text, const char* piece)
{
    text += piece;
}

void append(std::string& text, int number)
{
    text += std::to_string(number);
}

// As a stream prints it: hexadecimal with a prefix.
void append(std::string& text, const void* pointer)
{
    char digits[sizeof "0x" + 2 * sizeof pointer];
    static_cast<void>(std::snprintf(digits, sizeof digits, "%p", pointer));
    text += digits;
}

void logMsgData(const char* data, size_t length)
{
    traceObject.trace.logMsgData(data, static_cast<unsigned>(length));
}

// What builds a message's text: a function object of the caller's.
class TextBuilder {
public:
    template <typename Function>
    explicit TextBuilder(const Function& function)
        : object(&function), call([](const void* toCall, std::string& text) {
              (*static_cast<const Function*>(toCall))(text);
          })
    {
    }

    void operator()(std::string& text) const { call(object, text); }

private:
    const void* object;
    void (*call)(const void*, std::string&);
};

// The trace step. A message for which there is no memory is dropped: timers work on without it. No
// template: g++ forgets the attribute there.
CATCHES_FORCED_UNWINDING void writeTrace(VorTraceLevel level, const VorTraceHeader& site,
                                         const TextBuilder& buildText)
{
    const gcl::ErrnoSaver errnoSaver;
    const TracePass pass(level);
    if (!pass.admitted()) {
        return;
    }
    try {
        std::string text;
        {
            const gcl::ErrnoSaver errnoForTheFramework;
            buildText(text);
        }
        traceObject.trace.beginLogMsg(level, site);
        logMsgData(site.function, std::strlen(site.function));
        logMsgData("(): ", 4);
        logMsgData(text.data(), text.size());
        traceObject.trace.endLogMsg();
    } catch (abi::__forced_unwind&) {
        throw;
    } catch (...) {
    }
}

// TIMER_TRACE(level, pieces...) writes a message made of the pieces, which are evaluated only if
// the level admits it. TIMER_TRACE_AS gives the name of the function that it speaks for.
#define TIMER_TRACE(level, ...) TIMER_TRACE_AS(__func__, level, __VA_ARGS__)
#define TIMER_TRACE_AS(functionName, level, ...)                                                   \
    do {                                                                                           \
        static constexpr VorTraceHeader site = {kSource, __LINE__, functionName};                  \
        const auto buildText = [&](std::string& text) { appendAll(text, __VA_ARGS__); };           \
        writeTrace((level), site, TextBuilder(buildText));                                         \
    } while (false)

template <typename... Pieces>
void appendAll(std::string& text, const Pieces&... pieces)
{
    (append(text, pieces), ...);
}

std::string quoted(const std::string& name)
{
    return '"' + name + '"';
}

// --- Time ------------------------------------------------------------------------------------

// Moments and durations are signed 64-bit nanoseconds. What does not fit becomes the latest or the
// earliest moment that does.

constexpr int64_t kNsPerMs = 1'000'000;

constexpr int64_t limitOnTheSideOf(int64_t value)
{
    return value >= 0 ? std::numeric_limits<int64_t>::max() : std::numeric_limits<int64_t>::min();
}

int64_t nsOfMs(int64_t ms)
{
    int64_t ns{};
    return __builtin_mul_overflow(ms, kNsPerMs, &ns) ? limitOnTheSideOf(ms) : ns;
}

int64_t sum(int64_t a, int64_t b)
{
    int64_t result{};
    return __builtin_add_overflow(a, b, &result) ? limitOnTheSideOf(a) : result;
}

int64_t difference(int64_t a, int64_t b)
{
    int64_t result{};
    return __builtin_sub_overflow(a, b, &result) ? limitOnTheSideOf(a) : result;
}

int64_t steadyClockNs()
{
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::nanoseconds>(now).count();
}

// LibraryReference keeps this library mapped while it lives: a worker that is left over when the
// library is unloaded runs on in code that is still there. It is the owner's thread that takes and
// drops it, before the worker exists and when it has ended: the loader's lock, which a thread that
// loads a library holds while that library's objects are built, is not for the worker to wait for.
class LibraryReference {
public:
    LibraryReference() : handle(nullptr)
    {
        // Outside the lifetime of the library's own objects the process is starting or ending and
        // keeps the library itself; asking the loader for it would build them out of turn.
        if (!traceGate.isOpen()) {
            return;
        }
        const gcl::ErrnoSaver errnoSaver;
        Dl_info library{};
        if (dladdr(&traceGate, &library) != 0) {
            // NULL where there is nothing to keep: the library is a part of the program itself.
            handle = dlopen(library.dli_fname, RTLD_LAZY | RTLD_NOLOAD);
        }
    }
    ~LibraryReference()
    {
        if (handle != nullptr) {
            const gcl::ErrnoSaver errnoSaver;
            static_cast<void>(dlclose(handle));
        }
    }
    LibraryReference(const LibraryReference&) = delete;
    LibraryReference& operator=(const LibraryReference&) = delete;

private:
    void* handle;
};

// While it lives, the calling thread is not cancelled: a join is a cancellation point, and a
// destructor must not be left half-way.
class CancellationPause {
public:
    CancellationPause()
    {
        static_cast<void>(pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state));
    }
    ~CancellationPause() { static_cast<void>(pthread_setcancelstate(state, nullptr)); }
    CancellationPause(const CancellationPause&) = delete;
    CancellationPause& operator=(const CancellationPause&) = delete;

private:
    int state = PTHREAD_CANCEL_ENABLE;
};

} // namespace

// --- The implementation ------------------------------------------------------------------------

class __attribute__((visibility("hidden"))) CTimer::Impl {
public:
    Impl(std::function<void(void*)> callbackToRun, void* callbackArg, const std::string& keptName,
         CTimer::Policy policy, int priority);
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;
    // Each concrete implementation calls wait_for_thread first in its destructor: the worker calls
    // the virtual operations below.
    virtual ~Impl() = default;

    // Stores the duration of a run. Called with `mutex` held.
    virtual void set_duration(std::chrono::milliseconds duration) = 0;
    // Blocks until the duration has elapsed or stopRequested or terminating is set. `mutex` is held
    // through `lock` on entry and on return.
    virtual void wait_for_expiry(std::unique_lock<std::mutex>& lock) = 0;
    virtual bool is_cyclic() const = 0;

    bool start(std::chrono::milliseconds duration);
    void stop();
    bool isRunning() const;

protected:
    // Ends and joins the worker.
    void wait_for_thread();

    // Waits on `cond` until the wall clock reaches dueNs or somebody notifies.
    void wait_until(int64_t dueNs)
    {
        gcl::waitUntilNs(cond.native_handle(), mutex.native_handle(), dueNs);
    }

    bool interrupted() const { return stopRequested || terminating; }

private:
    void timer_thread_function();
    void timer_callback_catch_exceptions(std::unique_lock<std::mutex>& lock);
    void run_until_terminated(std::unique_lock<std::mutex>& lock);
    // One wait of start() on `cond`, with `mutex` held through `lock`.
    void wait_for_acknowledgement(std::unique_lock<std::mutex>& lock);
    void acknowledge();
    void lose_worker();
    void apply_scheduling(CTimer::Policy policy, int priority);
    int convertPolicyToInt(const CTimer::Policy& policy) const;
    std::string policyToString(int policy) const;

    std::function<void(void*)> callback; // never empty
    void* userArg;
    std::string name; // 1 to 14 characters, the thread's name as well
    std::string quotedName;
    std::thread thread;
    // Guards the flags below and the duration of the derived class. The worker holds it except
    // while it waits and while the callback runs.
    mutable std::mutex mutex;
    // Notified on every change of the flags, so that one notification wakes a waiting start() and
    // interrupts a pending expiry alike.
    std::condition_variable cond;
    bool started;       // started, and the worker has not finished the run
    bool stopRequested; // stop() was called for the run, and the worker has not acknowledged it
    bool terminating;   // destruction has begun; never cleared
    // The worker exists and runs its loop. Without one, stop() acknowledges for it.
    bool hasWorker;
    unsigned waitingStarts;   // calls of start() that wait for a stop; destruction waits for them
    LibraryReference library; // what the worker runs in
};

CATCHES_FORCED_UNWINDING
CTimer::Impl::Impl(std::function<void(void*)> callbackToRun, void* callbackArg,
                   const std::string& keptName, CTimer::Policy policy, int priority)
    : callback(std::move(callbackToRun)),
      userArg(callbackArg),
      name(keptName),
      quotedName(quoted(keptName)),
      started(false),
      stopRequested(false),
      terminating(false),
      hasWorker(true),
      waitingStarts(0)
{
    try {
        thread = std::thread(&Impl::timer_thread_function, this);
    } catch (abi::__forced_unwind&) {
        throw;
    } catch (const std::exception& exception) {
        TIMER_TRACE(VorTraceLevel1, quotedName, " cought exception [", exception.what(), "].");
    } catch (...) {
        TIMER_TRACE(VorTraceLevel1, quotedName, " cought unknown exception.");
    }
    if (!thread.joinable()) {
        hasWorker = false;
        return;
    }
    try {
        TIMER_TRACE(VorTraceLevel5, quotedName, " thread successfully created [", this, "].");
        apply_scheduling(policy, priority);
    } catch (...) {
        // pthread_exit or cancellation from inside the trace framework: the worker must not outlive
        // the object.
        const CancellationPause pause;
        {
            const std::lock_guard<std::mutex> lock(mutex);
            terminating = true;
            cond.notify_all();
        }
        thread.join();
        throw;
    }
}

bool CTimer::Impl::start(std::chrono::milliseconds duration)
{
    std::unique_lock<std::mutex> lock(mutex);
    // By contract: the duration is stored before any check, also for a start that is then refused.
    set_duration(duration);
    if (std::this_thread::get_id() == thread.get_id()) {
        TIMER_TRACE(VorTraceLevel1, quotedName, " must not call start() from callback context.");
        return false;
    }
    if (terminating) {
        TIMER_TRACE(VorTraceLevel2, quotedName, " must not call start() when being terminated.");
        return false;
    }
    if (started && !stopRequested) {
        TIMER_TRACE(VorTraceLevel4, quotedName, " is already started.");
        return false;
    }
    while (stopRequested) {
        wait_for_acknowledgement(lock);
        if (terminating) {
            TIMER_TRACE(VorTraceLevel2, quotedName,
                        " must not call start() when being terminated.");
            return false;
        }
    }
    started = true;
    cond.notify_all();
    TIMER_TRACE(VorTraceLevel5, quotedName, " successfully started [", this, "].");
    return true;
}

void CTimer::Impl::wait_for_acknowledgement(std::unique_lock<std::mutex>& lock)
{
    struct Waiting {
        Impl& timer;
        ~Waiting()
        {
            --timer.waitingStarts;
            if (timer.terminating) {
                timer.cond.notify_all();
            }
        }
    };
    ++waitingStarts;
    const Waiting waiting{*this}; // also when the thread is cancelled in the wait
    cond.wait(lock);
}

void CTimer::Impl::stop()
{
    const std::lock_guard<std::mutex> lock(mutex);
    if (!started) {
        TIMER_TRACE(VorTraceLevel4, quotedName, " is not running.");
        return;
    }
    if (stopRequested) {
        TIMER_TRACE(VorTraceLevel4, quotedName, " has already been stopped.");
        return;
    }
    stopRequested = true;
    cond.notify_all();
    TIMER_TRACE(VorTraceLevel5, quotedName, " successfully stopped [", this, "].");
    if (!hasWorker) {
        acknowledge();
    }
}

bool CTimer::Impl::isRunning() const
{
    const std::lock_guard<std::mutex> lock(mutex);
    return started && !stopRequested;
}

void CTimer::Impl::wait_for_thread()
{
    const CancellationPause pause;
    {
        std::unique_lock<std::mutex> lock(mutex);
        terminating = true;
        cond.notify_all();
        TIMER_TRACE(VorTraceLevel5, quotedName, " wating to join thread [", this, "].");
        // They need the object to find out that they are refused.
        cond.wait(lock, [this] { return waitingStarts == 0; });
    }
    if (thread.joinable()) {
        thread.join();
    }
}

CATCHES_FORCED_UNWINDING
void CTimer::Impl::timer_thread_function()
{
    try {
        TIMER_TRACE(VorTraceLevel5, quotedName, " entered thread function [", this, "].");
        // Neither can fail with these arguments, and the timer works without them.
        static_cast<void>(prctl(PR_SET_NAME, name.c_str()));
        static_cast<void>(prctl(PR_SET_TIMERSLACK, 1UL));
        std::unique_lock<std::mutex> lock(mutex);
        run_until_terminated(lock);
    } catch (abi::__forced_unwind&) {
        // pthread_exit or cancellation: the thread ends, the timer stays.
        lose_worker();
        throw;
    }
    TIMER_TRACE(VorTraceLevel5, quotedName, " leaving thread function [", this, "].");
}

void CTimer::Impl::run_until_terminated(std::unique_lock<std::mutex>& lock)
{
    // No virtual operation before the first start: the derived object may still be under
    // construction, and when it is destroyed so early, it has never been used.
    while (!terminating) {
        cond.wait(lock, [this] { return started || terminating; });
        while (!interrupted()) {
            wait_for_expiry(lock);
            // A second look: a stop during the wait suppresses the call.
            if (!interrupted()) {
                timer_callback_catch_exceptions(lock);
            }
            if (!is_cyclic()) {
                break;
            }
        }
        acknowledge();
    }
}

CATCHES_FORCED_UNWINDING
void CTimer::Impl::timer_callback_catch_exceptions(std::unique_lock<std::mutex>& lock)
{
    lock.unlock();
    try {
        callback(userArg);
    } catch (abi::__forced_unwind&) {
        throw;
    } catch (const std::exception& exception) {
        TIMER_TRACE(VorTraceLevel2, quotedName, " callback raised exception: [", exception.what(),
                    "]");
    } catch (...) {
        TIMER_TRACE(VorTraceLevel2, quotedName, " callback raised exception.");
    }
    lock.lock();
}

// The end of a run, with `mutex` held: a start() that waits for it may go on.
void CTimer::Impl::acknowledge()
{
    started = false;
    stopRequested = false;
    cond.notify_all();
}

// The worker's last act when it is ended from outside.
void CTimer::Impl::lose_worker()
{
    const std::lock_guard<std::mutex> lock(mutex);
    hasWorker = false;
    acknowledge();
}

// A part of the constructor, and its messages say so.
void CTimer::Impl::apply_scheduling(CTimer::Policy policy, int priority)
{
    const pthread_t worker = thread.native_handle();
    int systemPolicy = SCHED_OTHER;
    sched_param parameters{};
    // It cannot fail: the thread has not been joined yet.
    static_cast<void>(pthread_getschedparam(worker, &systemPolicy, &parameters));
    if (policy == CTimer::Default) {
        TIMER_TRACE_AS("Impl", VorTraceLevel5, quotedName,
                       " using default thread policy: ", policyToString(systemPolicy),
                       ", priority: ", parameters.sched_priority);
        return;
    }
    systemPolicy = convertPolicyToInt(policy);
    const int min = sched_get_priority_min(systemPolicy);
    if (min == -1) {
        const int error = errno;
        TIMER_TRACE_AS("Impl", VorTraceLevel1, quotedName,
                       " Failed to retrieve min priority: ", std::strerror(error));
    }
    const int max = sched_get_priority_max(systemPolicy);
    if (max == -1) {
        const int error = errno;
        TIMER_TRACE_AS("Impl", VorTraceLevel1, quotedName,
                       " Failed to retrieve max priority: ", std::strerror(error));
    }
    parameters.sched_priority = priority > max ? max : std::max(priority, min);
    if (max != -1 || priority < 0) {
        TIMER_TRACE_AS("Impl", VorTraceLevel5, quotedName,
                       " valid priority range for policy: ", policyToString(systemPolicy),
                       " is, min: ", min, ", max: ", max);
    }
    if (pthread_setschedparam(worker, systemPolicy, &parameters) != 0) {
        // By contract: the text is that of errno, whatever the call has left there, and not that of
        // the call's result.
        const int error = errno;
        TIMER_TRACE_AS("Impl", VorTraceLevel1, quotedName,
                       " Failed to setschedparam: ", std::strerror(error));
        return;
    }
    static_cast<void>(pthread_getschedparam(worker, &systemPolicy, &parameters));
    TIMER_TRACE_AS("Impl", VorTraceLevel5, quotedName,
                   " set thread policy: ", policyToString(systemPolicy),
                   ", priority: ", parameters.sched_priority);
}

int CTimer::Impl::convertPolicyToInt(const CTimer::Policy& policy) const
{
    switch (policy) {
    case CTimer::Other:
    case CTimer::Fifo:
    case CTimer::RoundRobin:
        return policy;
    case CTimer::Default:
    default:
        TIMER_TRACE(VorTraceLevel1, "Unhandled policy, returning SCHED_OTHER");
        return SCHED_OTHER;
    }
}

std::string CTimer::Impl::policyToString(int policy) const
{
    switch (policy) {
    case SCHED_OTHER:
        return "SCHED_OTHER";
    case SCHED_FIFO:
        return "SCHED_FIFO";
    case SCHED_RR:
        return "SCHED_RR";
    case SCHED_BATCH:
        return "SCHED_BATCH";
    default:
        return "SCHED_UNKNOWN";
    }
}

// --- The two kinds -----------------------------------------------------------------------------

namespace {

class CyclicTimerImpl final : public CTimer::Impl {
public:
    using CTimer::Impl::Impl;
    ~CyclicTimerImpl() override { wait_for_thread(); }

    void set_duration(std::chrono::milliseconds duration) override { period = duration.count(); }

    // By contract: a period begins when the wait begins, on the wall clock. There is no catch-up
    // and no fixed phase.
    void wait_for_expiry(std::unique_lock<std::mutex>&) override
    {
        const int64_t dueNs = sum(gcl::wallClockNs(), nsOfMs(period));
        // GCOVR_EXCL_START: the worker has just looked, under the lock that it still holds
        if (interrupted()) {
            return;
        }
        // GCOVR_EXCL_STOP
        do {
            wait_until(dueNs);
        } while (gcl::wallClockNs() < dueNs && !interrupted());
    }

    bool is_cyclic() const override { return true; }

private:
    int64_t period; // ms, of the last start(), which comes before the worker's first wait
};

class NonCyclicTimerImpl final : public CTimer::Impl {
public:
    using CTimer::Impl::Impl;
    ~NonCyclicTimerImpl() override { wait_for_thread(); }

    void set_duration(std::chrono::milliseconds duration) override
    {
        deadline = sum(steadyClockNs(), nsOfMs(duration.count()));
    }

    // By contract: each pass places the rest of the time on the wall clock anew, so that a step of
    // that clock is made good by the passes that begin after it, and by no others.
    void wait_for_expiry(std::unique_lock<std::mutex>&) override
    {
        // GCOVR_EXCL_START: the worker has just looked, under the lock that it still holds
        if (interrupted()) {
            return;
        }
        // GCOVR_EXCL_STOP
        int64_t dueNs{};
        do {
            const int64_t leftNs = difference(deadline, steadyClockNs());
            dueNs = sum(leftNs, gcl::wallClockNs());
            wait_until(dueNs);
        } while (gcl::wallClockNs() < dueNs && !interrupted());
    }

    bool is_cyclic() const override { return false; }

private:
    int64_t deadline{}; // ns on the monotonic clock
};

// A new implementation, or NULL when the input is refused.
CTimer::Impl* make_ctimer_impl(std::function<void(void*)> callback, void* userArg,
                               const std::string& name, CTimer::Policy policy, int priority,
                               CTimer::Type type)
{
    if (name.empty() || name.size() > kMaxNameLength) {
        TIMER_TRACE(VorTraceLevel1, quoted(name), " is an invalid name.");
        return nullptr;
    }
    if (!callback) {
        TIMER_TRACE(VorTraceLevel1, quoted(name), " has nullptr callback.");
        return nullptr;
    }
    const std::string keptName = name.substr(0, kKeptNameLength);
    // By contract: any type but Cyclic makes a one-shot timer.
    if (type == CTimer::Cyclic) {
        return new CyclicTimerImpl(std::move(callback), userArg, keptName, policy, priority);
    }
    return new NonCyclicTimerImpl(std::move(callback), userArg, keptName, policy, priority);
}

} // namespace

// --- The handle --------------------------------------------------------------------------------

ICTimer::~ICTimer() = default;

CTimer::CTimer(ITimerReceiver* receiver, void* userArg, const std::string& name, CTimer::Type type)
    : CTimer([receiver](void* arg) { receiver->onTimer(arg); }, userArg, name, Default, 0, type)
{
}

CTimer::CTimer(std::function<void(void*)> callback, void* userArg, const std::string& name,
               CTimer::Type type)
    : CTimer(std::move(callback), userArg, name, Default, 0, type)
{
}

CTimer::CTimer(std::function<void(void*)> callback, void* userArg, const std::string& name,
               CTimer::Policy policy, int priority, CTimer::Type type)
    : impl(make_ctimer_impl(std::move(callback), userArg, name, policy, priority, type))
{
}

CTimer::CTimer(CTimer&& other) noexcept : impl(std::exchange(other.impl, nullptr)) {}

CTimer& CTimer::operator=(CTimer&& other) noexcept
{
    if (this != &other) {
        // The timer that ends is this object's until its last callback is over, which may call it.
        delete impl;
        impl = std::exchange(other.impl, nullptr);
    }
    return *this;
}

CTimer::~CTimer()
{
    delete impl;
}

bool CTimer::start(std::chrono::milliseconds duration)
{
    return impl != nullptr && impl->start(duration);
}

void CTimer::stop()
{
    if (impl != nullptr) {
        impl->stop();
    }
}

bool CTimer::isRunning() const
{
    return impl != nullptr && impl->isRunning();
}
