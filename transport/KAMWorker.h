#pragma once

#include "loader/Export.h"

#include <pthread.h>
#include <semaphore.h>

#include <atomic>
#include <cstdint>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <type_traits>
#include <vector>

#include <utils/Thread.h>
#include <utils/Timers.h>

#include "recording/Bridge.h"
#include "transport/WorkItem.h"

namespace android {

// The replay thread of one offloaded context.
//
// The queue is a list running through the posted commands themselves
// (Bridge::mNext). The producer, the application thread that owns the
// context, appends with a plain store-release: no lock, no read-modify-write,
// so posting never waits for the store buffer to drain. The worker follows
// the list as far as it reaches, so whatever is posted while it replays is
// part of the same drain. The last item stays in the list as its anchor until
// a successor is linked behind it; function items are freed once the worker
// has moved past them.
//
// Waking follows the posting rhythm (every synchronous post, every 129th
// asynchronous one), but the semaphore is posted only when the worker has
// announced that it is about to sleep; while it is awake a wake-up costs two
// fences and no system call. Both sides look again for a few microseconds
// before they sleep (kSpinNs): a futex sleep and its wake-up cost system
// calls on both threads and, in a virtual machine, tens of microseconds of
// latency, far more than the gaps in a stream of recorded calls or than a
// short synchronous call on the worker.
//
// Other threads (a context destroyed elsewhere, the platform draining on the
// owner's behalf after it changed hands) may post too: their items go to a
// locked side queue that the worker runs once it has caught up with the
// owner's list, so they come after everything the owner posted before them.
class KAM_EXPORT KAMWorker : public Thread {
public:
    // Asynchronous posts wake a sleeping worker only once this many have
    // piled up.
    static constexpr int32_t kWakeBatch = 128;
    // How long the worker looks for more work, and a synchronous caller for
    // its result, before sleeping.
    static constexpr nsecs_t kSpinNs = 20000;

    KAMWorker();
    ~KAMWorker() override;

    // A recorded command (the arena's; never freed by the worker) or a
    // function item (freed by the worker after it ran).
    void post(Bridge* item, bool sync) { postTagged(item, 0, sync); }
    void post(WorkItem* item, bool sync) { postTagged(item, kOwned, sync); }
    // The recording path: only the thread the context is active on records,
    // and that thread made itself the producer when offload started there.
    void postRecorded(Bridge* item, bool sync) {
        append(reinterpret_cast<uintptr_t>(item), item);
        if (__builtin_expect(sync || mPending.load(std::memory_order_relaxed) > kWakeBatch, 0)) wake(item, sync);
    }
    // The calling thread becomes the one that posts without a lock. Only
    // when the previous producer has stopped posting (offload moves to the
    // thread that now has the context current).
    void adoptProducer() { mProducer.store(pthread_self(), std::memory_order_relaxed); }

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

    // postSync in two halves, for the frame boundary: the task is queued now
    // and awaited later (await) by the same thread, which may go on meanwhile
    // with anything that does not touch what the task changes. The task must
    // stay where it is until then.
    std::future<void> postTask(std::packaged_task<void()>* task, const char* name) {
        std::future<void> done = task->get_future();
        post(new WorkItem(name, [task] { (*task)(); }), true);
        return done;
    }
    // A ready state seen here spares both threads the futex: the worker
    // only wakes a caller that has gone to sleep in get().
    template <class R>
    static R await(std::future<R>& done) {
        spin([&] { return done.wait_for(std::chrono::seconds::zero()) == std::future_status::ready; });
        return done.get();
    }

    // Runs the final synchronous item (on the worker), asks the loop to end,
    // wakes it, joins, and waits until the thread has dropped its own
    // reference. Returns join()'s status.
    status_t stop(void (*last)(), const char* lastName);
    status_t readyToRun() override;

    void setName(std::string name);
    void swapBuffer() { mFrameCount.store(0, std::memory_order_relaxed); }
    bool threadLoop() override;
    // One cycle: replay everything reachable, then sleep unless more came.
    void process();

    // Counters read outside the worker: posts since the last wake-up, and
    // posts since the last frame boundary (statistics). Advisory.
    int32_t pending() const { return mPending.load(std::memory_order_relaxed); }
    int32_t frameCount() const { return mFrameCount.load(std::memory_order_relaxed); }
    const char* lastName() const { return mLastName.load(std::memory_order_relaxed); }

    sem_t mWakeSem;

private:
    // Low bit of a link: the item it points to is a heap function item.
    static constexpr uintptr_t kOwned = 1;

    // The list's first anchor; never run.
    struct Anchor final : Bridge {
        void run() override {}
        const char* getName() override { return "anchor"; }
    };

    // The producer's line: written on every post, read by the worker never.
    alignas(64) Bridge* mTail;
    std::atomic<int32_t> mPending{0};
    std::atomic<int32_t> mFrameCount{0};
    std::atomic<pthread_t> mProducer;

    // The worker's line.
    alignas(64) Bridge* mHead;
    bool mHeadOwned = false;
    std::atomic<const char*> mLastName{nullptr};

    // Touched when the worker goes to sleep or is woken, and by foreign posts.
    alignas(64) std::atomic<uint8_t> mSleeping{0};
    std::atomic<int32_t> mForeignCount{0};
    std::mutex mForeignLock;
    std::vector<uintptr_t> mForeign;

    Anchor mAnchor;

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
        return await(done);
    }

    // Polls ready() for up to kSpinNs; true as soon as it holds. It looks
    // only every few hundred nanoseconds: a worker that looked at every
    // pause would chase the producer line by line through the arena, each
    // look taking away the cache line the producer is writing.
    template <class Ready>
    static bool spin(Ready ready) {
        const nsecs_t until = systemTime(SYSTEM_TIME_MONOTONIC) + kSpinNs;
        for (;;) {
            for (int i = 0; i < 16; ++i) {
#if defined(__x86_64__) || defined(__i386__)
                __builtin_ia32_pause();
#elif defined(__arm__) || defined(__aarch64__)
                __asm__ __volatile__("yield");
#endif
            }
            if (ready()) return true;
            if (systemTime(SYSTEM_TIME_MONOTONIC) >= until) return false;
        }
    }

    static Bridge* untag(uintptr_t link) { return reinterpret_cast<Bridge*>(link & ~kOwned); }
    static void bump(std::atomic<int32_t>& c) {
        c.store(c.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }

    // Producer only. The release store publishes the command's contents with
    // the link; on x86 and ARM it is an ordinary store (plus a one-way
    // barrier on ARM), never a locked instruction.
    void append(uintptr_t link, Bridge* item) {
        __atomic_store_n(&mTail->mNext, link, __ATOMIC_RELEASE);
        mTail = item;
        bump(mPending);
        bump(mFrameCount);
    }
    void postTagged(Bridge* item, uintptr_t tag, bool sync) {
        if (__builtin_expect(!pthread_equal(pthread_self(), mProducer.load(std::memory_order_relaxed)), 0)) {
            postForeign(reinterpret_cast<uintptr_t>(item) | tag, sync);
            return;
        }
        append(reinterpret_cast<uintptr_t>(item) | tag, item);
        if (sync || mPending.load(std::memory_order_relaxed) > kWakeBatch) wake(item, sync);
    }
    void wake(Bridge* item, bool sync);
    void wakeIfSleeping();
    void postForeign(uintptr_t link, bool sync);
    static void traceSync(Bridge* item);
    bool drainList();
    void runForeign();
};

}  // namespace android
