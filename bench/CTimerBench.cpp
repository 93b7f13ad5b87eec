// CTimer beside the bare protocol of a worker thread, timerfd, and the timers of Asio, libuv and
// GLib.
#include "Framework/GCL/CTimer.h"

#include <glib.h>
#include <sched.h>
#include <semaphore.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>
#include <uv.h>

#include <algorithm>
#include <atomic>
#include <boost/asio.hpp>
#include <deque>
#include <functional>
#include <thread>
#include <vector>

#include "bench/floor/CTimerFloor.h"
#include "bench/support/Bench.h"

namespace {

constexpr int kDelayMs = 1;
constexpr int64_t kNsPerMs = 1'000'000;
constexpr int64_t kNsPerSecond = 1'000'000'000;
constexpr int kHourMs = 3600 * 1000;
constexpr int kDelayOfManyMs = 10;
constexpr char kNoThread[] = "no thread to hand over to";
constexpr char kEarly[] = "counts whole milliseconds, may be early";
constexpr char kOneThread[] = "one thread for all";
constexpr char kOneThreadAndEarly[] = "one thread for all, may be early";

int64_t nowNs()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * kNsPerSecond + now.tv_nsec;
}

// The moment of an expiry, from the thread where it happens to the one that measures.
class Expiry {
public:
    Expiry() { sem_init(&happened, 0, 0); }
    Expiry(const Expiry&) = delete;
    Expiry& operator=(const Expiry&) = delete;

    void note()
    {
        atNs = nowNs();
        sem_post(&happened);
    }
    int64_t wait()
    {
        while (sem_wait(&happened) != 0) {
        }
        return atNs;
    }

private:
    int64_t atNs = 0;
    sem_t happened;
};

void note(void* expiry)
{
    static_cast<Expiry*>(expiry)->note();
}

// The timers. Each calls the expiry's note once for each start, on a thread of its own or on that
// of a loop, which it shares with the others of its kind; those that are told to stop do not.

// What needs no loop.
struct NoLoop {
    void run() {}
    void end() {}
};

class Ours {
public:
    using Loop = NoLoop;
    Ours(Loop&, Expiry& expiry) : timer(note, &expiry, "bench", CTimer::NonCyclic) {}
    bool start(int ms) { return timer.start(std::chrono::milliseconds(ms)); }
    void stop() { timer.stop(); }

private:
    CTimer timer;
};

class Floor {
public:
    using Loop = NoLoop;
    Floor(Loop&, Expiry& expiry) : timer(floorTimerCreate(note, &expiry)) {}
    ~Floor() { floorTimerDestroy(timer); }
    Floor(const Floor&) = delete;
    Floor& operator=(const Floor&) = delete;

    bool start(int ms) { return floorTimerStart(timer, ms * kNsPerMs); }
    void stop() { floorTimerStop(timer); }

private:
    FloorTimer* timer;
};

class TimerFd {
public:
    using Loop = NoLoop;
    TimerFd(Loop&, Expiry& expiry)
        : descriptor(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC)), thread([this, &expiry] {
              uint64_t count = 0;
              while (read(descriptor, &count, sizeof count) == sizeof count && !ending) {
                  expiry.note();
              }
          })
    {
    }
    ~TimerFd()
    {
        ending = true;
        start(1);
        thread.join();
        close(descriptor);
    }
    TimerFd(const TimerFd&) = delete;
    TimerFd& operator=(const TimerFd&) = delete;

    bool start(int ms)
    {
        itimerspec setting{};
        setting.it_value = {ms / 1000, ms % 1000 * kNsPerMs};
        return timerfd_settime(descriptor, 0, &setting, nullptr) == 0;
    }
    void stop()
    {
        const itimerspec none{};
        timerfd_settime(descriptor, 0, &none, nullptr);
    }

private:
    int descriptor;
    std::atomic<bool> ending{false};
    std::thread thread;
};

class Asio {
public:
    struct Loop {
        void run()
        {
            thread = std::thread([this] { context.run(); });
        }
        void end()
        {
            context.stop();
            thread.join();
        }
        boost::asio::io_context context{2};
        boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work{
            context.get_executor()};
        std::thread thread;
    };
    Asio(Loop& loop, Expiry& expiryToNote) : expiry(expiryToNote), timer(loop.context) {}

    bool start(int ms)
    {
        timer.expires_after(std::chrono::milliseconds(ms));
        timer.async_wait([this](boost::system::error_code error) {
            if (!error) {
                expiry.note();
            }
        });
        return true;
    }
    void stop() { timer.cancel(); }

private:
    Expiry& expiry;
    boost::asio::steady_timer timer;
};

// The loop belongs to its thread, which is told by a message to arm the timer.
class LibUv {
public:
    struct Loop {
        Loop()
        {
            uv_loop_init(&loop);
            uv_async_init(&loop, &quit, [](uv_async_t* async) { uv_stop(async->loop); });
        }
        ~Loop()
        {
            uv_close(reinterpret_cast<uv_handle_t*>(&quit), nullptr);
            uv_run(&loop, UV_RUN_DEFAULT);
            uv_loop_close(&loop);
        }
        Loop(const Loop&) = delete;
        Loop& operator=(const Loop&) = delete;

        void run()
        {
            thread = std::thread([this] { uv_run(&loop, UV_RUN_DEFAULT); });
        }
        void end()
        {
            uv_async_send(&quit);
            thread.join();
        }
        uv_loop_t loop;
        uv_async_t quit;
        std::thread thread;
    };

    LibUv(Loop& loopOfAll, Expiry& expiryToNote) : expiry(expiryToNote), loop(loopOfAll.loop)
    {
        uv_timer_init(&loop, &timer);
        uv_async_init(&loop, &wake, [](uv_async_t* async) {
            auto* const self = static_cast<LibUv*>(async->data);
            uv_update_time(&self->loop);
            uv_timer_start(
                &self->timer,
                [](uv_timer_t* expired) { static_cast<LibUv*>(expired->data)->expiry.note(); },
                self->delayMs, 0);
        });
        wake.data = this;
        timer.data = this;
    }
    // The loop's thread has ended; the handles must be gone before their memory is.
    ~LibUv()
    {
        uv_close(reinterpret_cast<uv_handle_t*>(&wake), nullptr);
        uv_close(reinterpret_cast<uv_handle_t*>(&timer), nullptr);
        uv_run(&loop, UV_RUN_NOWAIT);
    }
    LibUv(const LibUv&) = delete;
    LibUv& operator=(const LibUv&) = delete;

    bool start(int ms)
    {
        delayMs = static_cast<uint64_t>(ms);
        return uv_async_send(&wake) == 0;
    }

private:
    Expiry& expiry;
    uv_loop_t& loop;
    uv_timer_t timer;
    uv_async_t wake;
    std::atomic<uint64_t> delayMs{0};
};

class Glib {
public:
    struct Loop {
        ~Loop()
        {
            g_main_loop_unref(loop);
            g_main_context_unref(context);
        }
        void run()
        {
            thread = std::thread([this] { g_main_loop_run(loop); });
        }
        void end()
        {
            // From inside the loop: one that does not run yet cannot be told to end.
            GSource* const last = g_idle_source_new();
            g_source_set_callback(
                last,
                [](gpointer running) -> gboolean {
                    g_main_loop_quit(static_cast<GMainLoop*>(running));
                    return G_SOURCE_REMOVE;
                },
                loop, nullptr);
            g_source_attach(last, context);
            g_source_unref(last);
            thread.join();
        }
        GMainContext* context = g_main_context_new();
        GMainLoop* loop = g_main_loop_new(context, FALSE);
        std::thread thread;
    };

    Glib(Loop& loop, Expiry& expiryToNote) : expiry(expiryToNote), context(loop.context) {}
    ~Glib() { stop(); }
    Glib(const Glib&) = delete;
    Glib& operator=(const Glib&) = delete;

    bool start(int ms)
    {
        stop();
        source = g_timeout_source_new(static_cast<guint>(ms));
        g_source_set_callback(
            source,
            [](gpointer noted) -> gboolean {
                note(noted);
                return G_SOURCE_REMOVE;
            },
            &expiry, nullptr);
        return g_source_attach(source, context) != 0;
    }
    void stop()
    {
        if (source != nullptr) {
            g_source_destroy(source);
            g_source_unref(source);
            source = nullptr;
        }
    }

private:
    Expiry& expiry;
    GMainContext* context;
    GSource* source = nullptr;
};

// Timers of one kind, each with its expiry.
template <typename Timer>
class Timers {
public:
    explicit Timers(size_t count)
    {
        for (size_t i = 0; i < count; ++i) {
            timers.emplace_back(loop, expiries.emplace_back());
        }
        loop.run();
    }
    ~Timers() { loop.end(); }
    Timers(const Timers&) = delete;
    Timers& operator=(const Timers&) = delete;

    Timer& operator[](size_t i) { return timers[i]; }
    Expiry& expiryOf(size_t i) { return expiries[i]; }

private:
    typename Timer::Loop loop;
    std::deque<Expiry> expiries;
    std::deque<Timer> timers;
};

// A round starts a timer for an hour and stops it; from the second on, the start of ours waits for
// the worker to acknowledge the stop.
template <typename Timer>
void startAndStop(benchmark::State& state)
{
    Timers<Timer> timers(1);
    for (auto _ : state) {
        timers[0].start(kHourMs);
        timers[0].stop();
    }
    bench::setOperations(state, 1);
}

// In a round as many timers are started, one after the other, and expire; its time is by how much
// they were late on average.
template <typename Timer, bool mayBeEarly = false>
bench::Side lateness(size_t count, int delayMs)
{
    return [=](benchmark::State& state) {
        Timers<Timer> timers(count);
        std::vector<int64_t> dueNs(count);
        bench::Rounds rounds;
        bool early = false;
        for (auto _ : state) {
            for (size_t i = 0; i < count; ++i) {
                // A worker that has not ended its last run refuses.
                do {
                    dueNs[i] = nowNs() + delayMs * kNsPerMs;
                } while (!timers[i].start(delayMs) && sched_yield() == 0);
            }
            int64_t sumNs = 0;
            for (size_t i = count; i-- > 0;) { // the last one first, so that it wakes us for all
                const int64_t lateNs = timers.expiryOf(i).wait() - dueNs[i];
                early = early || (lateNs < 0 && !mayBeEarly);
                sumNs += std::max<int64_t>(lateNs, 0);
            }
            rounds.add(state, static_cast<double>(sumNs) / static_cast<double>(count) /
                                  static_cast<double>(kNsPerSecond));
        }
        bench::require(state, !early, "a timer expired early");
        rounds.finish(state, 1);
    };
}

void addLateness()
{
    bench::Case("Timer, lateness", {1.05, 0})
        .at("delay in ms", kDelayMs)
        .manualTime()
        .rounds(60)
        .ours(lateness<Ours>(1, kDelayMs))
        .floor(lateness<Floor>(1, kDelayMs))
        .peer("timerfd", 1.1, lateness<TimerFd>(1, kDelayMs))
        .peer("Asio", 1.0, lateness<Asio>(1, kDelayMs))
        .peer("GLib", 1.0, lateness<Glib>(1, kDelayMs))
        .shown("libuv", kEarly, lateness<LibUv, true>(1, kDelayMs));
}

// The delay is longer than the starting of them all takes, so that they all run at once.
void addLatenessOf(size_t count)
{
    bench::Case("Timers at once, lateness", {1.05, 0})
        .at("timers", static_cast<double>(count))
        .manualTime()
        .rounds(20)
        .ours(lateness<Ours>(count, kDelayOfManyMs))
        .floor(lateness<Floor>(count, kDelayOfManyMs))
        .peer("timerfd", 1.1, lateness<TimerFd>(count, kDelayOfManyMs))
        .shown("Asio", kOneThread, lateness<Asio>(count, kDelayOfManyMs))
        .shown("GLib", kOneThread, lateness<Glib>(count, kDelayOfManyMs))
        .shown("libuv", kOneThreadAndEarly, lateness<LibUv, true>(count, kDelayOfManyMs));
}

} // namespace

void bench::addCases()
{
    bench::Case("Timer, start and stop", {1.1, 0})
        .realTime()
        .rounds(1000)
        .ours(startAndStop<Ours>)
        .floor(startAndStop<Floor>)
        .shown("timerfd", kNoThread, startAndStop<TimerFd>)
        .shown("Asio", kNoThread, startAndStop<Asio>)
        .shown("GLib", "wakes its loop, awaits no acknowledgement", startAndStop<Glib>);
    addLateness();
    for (const size_t count : {1, 10, 50, 100, 200, 400}) {
        addLatenessOf(count);
    }
}
