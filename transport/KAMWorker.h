#pragma once

#include "loader/Export.h"

#include <semaphore.h>

#include <atomic>
#include <cstdint>
#include <future>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include <utils/Thread.h>

#include "transport/WorkItem.h"

namespace android {

// The replay thread of one offloaded context. One producer (the application
// thread that owns the context) and one consumer (this thread).
class KAM_EXPORT KAMWorker : public Thread {
public:
    // Asynchronous posts wake the worker only once this many have piled up.
    static constexpr int32_t kWakeBatch = 128;

    KAMWorker();
    ~KAMWorker() override;

    void post(WorkItem* item, bool sync);

    // Runs f on the worker and waits for it; everything f captures by
    // reference stays alive because the caller is blocked meanwhile. The
    // callable reaches the task through a plain function pointer, so the
    // task and its shared state are instantiated once per result type, not
    // once per call site (hundreds of wrappers use this).
    template <class F>
    auto postSync(F&& f, const char* name) -> decltype(f()) {
        using R = decltype(f());
        using Fn = std::remove_reference_t<F>;
        return postSyncErased(Thunk<R>{[](void* p) -> R { return (*static_cast<Fn*>(p))(); }, &f}, name);
    }

    // Runs the final synchronous item (on the worker), asks the loop to end,
    // wakes it, joins, and waits until the thread has dropped its own
    // reference. Returns join()'s status.
    status_t stop(void (*last)(), const char* lastName);
    status_t readyToRun() override;

    void setName(std::string name);
    void swapBuffer() { mFrameCount.store(0, std::memory_order_relaxed); }
    bool threadLoop() override;
    void process();

    // Counters that both threads touch outside the lock. Their values are
    // advisory (wake batching, statistics), so plain loads and stores are
    // enough; atomics only keep them well defined.
    int32_t pending() const { return mPending.load(std::memory_order_relaxed); }
    int32_t frameCount() const { return mFrameCount.load(std::memory_order_relaxed); }
    const char* lastName() const { return mLastName.load(std::memory_order_relaxed); }

    std::atomic<uint8_t> mQueueLock{0};
    std::vector<WorkItem*> mQueue;
    std::vector<WorkItem*> mSpareQueue;
    int32_t mReserved = 1;
    // The producer's line: touched on every post, by the worker only once per
    // drain. The queue vectors above change on every drain and mLastName
    // below after every item; sharing a line with either made each post a
    // cache miss.
    alignas(64) std::atomic<int32_t> mPending{0};
    std::atomic<int32_t> mFrameCount{0};
    // Posted by the producer, not yet handed to the worker (producer only).
    std::vector<WorkItem*> mBatch;
    alignas(64) std::atomic<const char*> mLastName{nullptr};
    sem_t mWakeSem;

private:
    // Thread's loop drops its own strong reference only after join() has
    // woken the joiner. Left alone, the worker thread could end up destroying
    // itself while the joiner still reads it, ordered only by RefBase's
    // counts inside an uninstrumented library. The latch is posted from the
    // thread's exit, after that reference is gone, so stop() returns with the
    // object owned by its callers alone.
    struct ExitLatch {
        ExitLatch() { sem_init(&sem, 0, 0); }
        ~ExitLatch() { sem_destroy(&sem); }
        sem_t sem;
    };
    std::shared_ptr<ExitLatch> mExitLatch = std::make_shared<ExitLatch>();

    template <class R>
    struct Thunk {
        R (*call)(void*);
        void* target;
        R operator()() const { return call(target); }
    };

    template <class R>
    R postSyncErased(Thunk<R> thunk, const char* name) {
        std::packaged_task<R()> task(thunk);
        std::future<R> done = task.get_future();
        post(new WorkItem(name, [t = &task] { (*t)(); }), true);
        return done.get();
    }

    void lockQueue();
    void unlockQueue() { mQueueLock.store(0, std::memory_order_release); }
    void bump(std::atomic<int32_t>& c) { c.store(c.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed); }
    void publish();
    void wake();
};

inline void KAMWorker::lockQueue() {
    for (;;) {
        if (mQueueLock.exchange(1, std::memory_order_acquire) == 0) return;
        while (mQueueLock.load(std::memory_order_relaxed) != 0) {
#if defined(__x86_64__) || defined(__i386__)
            __builtin_ia32_pause();
#elif defined(__arm__) || defined(__aarch64__)
            __asm__ __volatile__("yield");
#endif
        }
    }
}

}  // namespace android
