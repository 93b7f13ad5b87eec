#include "bench/floor/CTimerFloor.h"

#include <pthread.h>
#include <sys/prctl.h>
#include <time.h>

namespace {

constexpr int64_t kNsPerSecond = 1'000'000'000;

int64_t nowNs(clockid_t clock)
{
    timespec now{};
    clock_gettime(clock, &now);
    return now.tv_sec * kNsPerSecond + now.tv_nsec;
}

} // namespace

struct FloorTimer {
    void (*callback)(void*);
    void* argument;
    pthread_t thread;
    pthread_mutex_t mutex;
    pthread_cond_t cond;
    bool started;
    bool stopRequested;
    bool terminating;
    int64_t deadlineNs; // on the monotonic clock

    bool interrupted() const { return stopRequested || terminating; }

    void waitForExpiry()
    {
        int64_t dueNs = 0;
        do {
            dueNs = deadlineNs - nowNs(CLOCK_MONOTONIC) + nowNs(CLOCK_REALTIME);
            const timespec due = {dueNs / kNsPerSecond, dueNs % kNsPerSecond};
            pthread_cond_timedwait(&cond, &mutex, &due);
        } while (nowNs(CLOCK_REALTIME) < dueNs && !interrupted());
    }

    void run()
    {
        prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
        pthread_mutex_lock(&mutex);
        while (!terminating) {
            while (!started && !terminating) {
                pthread_cond_wait(&cond, &mutex);
            }
            if (!interrupted()) {
                waitForExpiry();
            }
            if (!interrupted()) {
                pthread_mutex_unlock(&mutex);
                callback(argument);
                pthread_mutex_lock(&mutex);
            }
            started = false;
            stopRequested = false;
            pthread_cond_broadcast(&cond);
        }
        pthread_mutex_unlock(&mutex);
    }
};

FloorTimer* floorTimerCreate(void (*callback)(void*), void* argument)
{
    auto* const timer = new FloorTimer{};
    timer->callback = callback;
    timer->argument = argument;
    pthread_mutex_init(&timer->mutex, nullptr);
    pthread_cond_init(&timer->cond, nullptr);
    const auto body = [](void* created) -> void* {
        static_cast<FloorTimer*>(created)->run();
        return nullptr;
    };
    pthread_create(&timer->thread, nullptr, body, timer);
    return timer;
}

void floorTimerDestroy(FloorTimer* timer)
{
    pthread_mutex_lock(&timer->mutex);
    timer->terminating = true;
    pthread_cond_broadcast(&timer->cond);
    pthread_mutex_unlock(&timer->mutex);
    pthread_join(timer->thread, nullptr);
    delete timer;
}

bool floorTimerStart(FloorTimer* timer, int64_t delayNs)
{
    pthread_mutex_lock(&timer->mutex);
    timer->deadlineNs = nowNs(CLOCK_MONOTONIC) + delayNs;
    const bool free = !timer->started || timer->stopRequested;
    if (free) {
        while (timer->stopRequested) {
            pthread_cond_wait(&timer->cond, &timer->mutex);
        }
        timer->started = true;
        pthread_cond_broadcast(&timer->cond);
    }
    pthread_mutex_unlock(&timer->mutex);
    return free;
}

void floorTimerStop(FloorTimer* timer)
{
    pthread_mutex_lock(&timer->mutex);
    if (timer->started && !timer->stopRequested) {
        timer->stopRequested = true;
        pthread_cond_broadcast(&timer->cond);
    }
    pthread_mutex_unlock(&timer->mutex);
}
