// ThreadEnd: a clean-up that runs when a thread ends which has asked for it.
// It comes after the thread's C++ thread_local objects, so that their destructors may still report.
// Constant-initialised and never destroyed.
#ifndef VT_PRIVATE_THREADEND_H
#define VT_PRIVATE_THREADEND_H

#include <pthread.h>

#include <atomic>

namespace vt {

class ThreadEnd {
public:
    constexpr explicit ThreadEnd(void (*cleanUpFunction)(void*)) : cleanUp(cleanUpFunction) {}

    // Asks for the clean-up at the end of the calling thread. Where the process has no thread keys
    // left, it does not come.
    void arm()
    {
        pthread_key_t key{};
        if (findKey(key) && pthread_getspecific(key) == nullptr) {
            static_cast<void>(pthread_setspecific(key, this));
        }
    }

private:
    bool findKey(pthread_key_t& key)
    {
        unsigned known = keyPlusOne.load(std::memory_order_acquire);
        if (known == 0) {
            pthread_key_t created{};
            if (pthread_key_create(&created, cleanUp) != 0) {
                return false;
            }
            if (keyPlusOne.compare_exchange_strong(known, created + 1)) {
                known = created + 1;
            } else { // another thread was faster
                static_cast<void>(pthread_key_delete(created));
            }
        }
        key = known - 1;
        return true;
    }

    void (*cleanUp)(void*);
    std::atomic<unsigned> keyPlusOne{0};
};

} // namespace vt

#endif // VT_PRIVATE_THREADEND_H
