// CTimer beside the bare protocol of a worker thread, timerfd, and the timers of Asio, libuv and
// GLib.
#include "Framework/GCL/CTimer.h"

#include <glib.h>
#include <semaphore.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>
#include <uv.h>

#include <algorithm>
#include <atomic>
#include <boost/asio.hpp>
#include <functional>
#include <thread>

#include "bench/floor/CTimerFloor.h"
#include "bench/support/Bench.h"

namespace {

constexpr int kDelayMs = 1;
constexpr int64_t kNsPerMs = 1'000'000;
constexpr int64_t kNsPerSecond = 1'000'000'000;
constexpr int kHourMs = 3600 * 1000;
constexpr char kNoThread[] = "no thread to hand over to";

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

// The timers. Each calls the expiry's note on a thread of its own, once for each start; those that
// are told to stop do not.

class Ours {
public:
    explicit Ours(Expiry& expiry) : timer(note, &expiry, "bench", CTimer::NonCyclic) {}
    bool start(int ms) { return timer.start(std::chrono::milliseconds(ms)); }
    void stop() { timer.stop(); }

private:
    CTimer timer;
};

class Floor {
public:
    explicit Floor(Expiry& expiry) : timer(floorTimerCreate(note, &expiry)) {}
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
    explicit TimerFd(Expiry& expiry)
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
    explicit Asio(Expiry& expiryToNote) : expiry(expiryToNote) {}
    ~Asio()
    {
        context.stop();
        thread.join();
    }
    Asio(const Asio&) = delete;
    Asio& operator=(const Asio&) = delete;

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
    boost::asio::io_context context{2};
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work{
        context.get_executor()};
    boost::asio::steady_timer timer{context};
    std::thread thread{[this] { context.run(); }};
};

// The loop belongs to its thread, which is told by a message to arm the timer.
class LibUv {
public:
    explicit LibUv(Expiry& expiryToNote) : expiry(expiryToNote)
    {
        uv_loop_init(&loop);
        uv_timer_init(&loop, &timer);
        uv_async_init(&loop, &wake, [](uv_async_t* async) {
            auto* const self = static_cast<LibUv*>(async->data);
            if (self->ending) {
                uv_stop(&self->loop);
                return;
            }
            uv_update_time(&self->loop);
            uv_timer_start(
                &self->timer,
                [](uv_timer_t* expired) { static_cast<LibUv*>(expired->data)->expiry.note(); },
                self->delayMs, 0);
        });
        wake.data = this;
        timer.data = this;
        thread = std::thread([this] { uv_run(&loop, UV_RUN_DEFAULT); });
    }
    ~LibUv()
    {
        ending = true;
        uv_async_send(&wake);
        thread.join();
        uv_close(reinterpret_cast<uv_handle_t*>(&wake), nullptr);
        uv_close(reinterpret_cast<uv_handle_t*>(&timer), nullptr);
        uv_run(&loop, UV_RUN_DEFAULT);
        uv_loop_close(&loop);
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
    uv_loop_t loop;
    uv_timer_t timer;
    uv_async_t wake;
    std::atomic<bool> ending{false};
    std::atomic<uint64_t> delayMs{0};
    std::thread thread;
};

class Glib {
public:
    explicit Glib(Expiry& expiryToNote) : expiry(expiryToNote) {}
    ~Glib()
    {
        // From inside the loop: one that does not run yet cannot be told to end.
        GSource* const end = g_idle_source_new();
        g_source_set_callback(
            end,
            [](gpointer running) -> gboolean {
                g_main_loop_quit(static_cast<GMainLoop*>(running));
                return G_SOURCE_REMOVE;
            },
            loop, nullptr);
        g_source_attach(end, context);
        g_source_unref(end);
        thread.join();
        stop();
        g_main_loop_unref(loop);
        g_main_context_unref(context);
    }
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
    GMainContext* context = g_main_context_new();
    GMainLoop* loop = g_main_loop_new(context, FALSE);
    GSource* source = nullptr;
    std::thread thread{[this] { g_main_loop_run(loop); }};
};

// A round starts a timer for an hour and stops it; from the second on, the start of ours waits for
// the worker to acknowledge the stop.
template <typename Timer>
void startAndStop(benchmark::State& state)
{
    Expiry expiry;
    Timer timer(expiry);
    for (auto _ : state) {
        timer.start(kHourMs);
        timer.stop();
    }
    bench::setOperations(state, 1);
}

// A round is one expiry; its time is by how much it was late.
template <typename Timer, bool mayBeEarly = false>
void lateness(benchmark::State& state)
{
    Expiry expiry;
    Timer timer(expiry);
    bench::Rounds rounds;
    bool early = false;
    for (auto _ : state) {
        // A worker that has not ended its last run refuses.
        int64_t dueNs = nowNs() + kDelayMs * kNsPerMs;
        while (!timer.start(kDelayMs)) {
            std::this_thread::yield();
            dueNs = nowNs() + kDelayMs * kNsPerMs;
        }
        const int64_t lateNs = expiry.wait() - dueNs;
        early = early || (lateNs < 0 && !mayBeEarly);
        rounds.add(state, static_cast<double>(std::max<int64_t>(lateNs, 0)) / kNsPerSecond);
    }
    bench::require(state, !early, "the timer expired early");
    rounds.finish(state, 1);
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
    bench::Case("Timer, lateness", {1.05, 0})
        .at("delay in ms", kDelayMs)
        .manualTime()
        .rounds(60)
        .ours(lateness<Ours>)
        .floor(lateness<Floor>)
        .peer("timerfd", 1.1, lateness<TimerFd>)
        .peer("Asio", 1.0, lateness<Asio>)
        .peer("GLib", 1.0, lateness<Glib>)
        .shown("libuv", "counts whole milliseconds, may be early", lateness<LibUv, true>);
}
