#include "transport/KAMWorker.h"

#include <sys/prctl.h>

#include <cutils/trace.h>
#include <log/log.h>

#include "runtime/KAMLog.h"

extern "C" {
// Declared by cutils/trace.h only inside its inline helpers.
void atrace_begin_body(const char* name);
void atrace_end_body();
}

namespace android {

KAMWorker::KAMWorker() : Thread(false), mTail(&mAnchor), mProducer(pthread_self()), mHead(&mAnchor) {
    sem_init(&mWakeSem, 0, 0);
}

KAMWorker::~KAMWorker() {
    // Items still queued belong to a frame that will never be replayed: their
    // memory is the arena's (commands) or lost with the process shutting the
    // context down, so they are neither run nor freed here. Only the anchor,
    // which has run, is.
    if (mHeadOwned) delete static_cast<WorkItem*>(mHead);
    sem_destroy(&mWakeSem);
}

status_t KAMWorker::stop(void (*last)(), const char* lastName) {
    postSync(last, lastName);
    requestExit();
    sem_post(&mWakeSem);
    const status_t status = join();
    if (status == OK) sem_wait(&mExitLatch->sem);
    return status;
}

namespace {
struct ExitNotifier {
    std::shared_ptr<void> latch;
    sem_t* sem = nullptr;
    ~ExitNotifier() {
        if (sem) sem_post(sem);
    }
};
thread_local ExitNotifier tExitNotifier;
}  // namespace

status_t KAMWorker::readyToRun() {
    tExitNotifier.latch = mExitLatch;
    tExitNotifier.sem = &mExitLatch->sem;
    return OK;
}

// The empty trace slice marks a synchronous post in a system trace.
void KAMWorker::traceSync(Bridge* item) {
    if (atrace_get_enabled_tags() & ATRACE_TAG_GRAPHICS) atrace_begin_body(item->getName());
    if (atrace_get_enabled_tags() & ATRACE_TAG_GRAPHICS) atrace_end_body();
}

void KAMWorker::wake(Bridge* item, bool sync) {
    mPending.store(0, std::memory_order_relaxed);
    if (sync) traceSync(item);
    wakeIfSleeping();
}

// Pairs with the fence in process(): either the worker, looking once more
// after announcing its sleep, sees what was posted before this fence, or this
// thread sees the announcement and posts the semaphore. Whoever clears the
// flag decides, so the semaphore never counts above one.
void KAMWorker::wakeIfSleeping() {
    std::atomic_thread_fence(std::memory_order_seq_cst);
    if (mSleeping.load(std::memory_order_relaxed) != 0 && mSleeping.exchange(0, std::memory_order_acq_rel) != 0)
        sem_post(&mWakeSem);
}

// The worker runs and frees a foreign item as soon as it sees it, so the
// item is named for the trace before it is handed over.
void KAMWorker::postForeign(uintptr_t link, bool sync) {
    if (sync) traceSync(untag(link));
    {
        std::lock_guard<std::mutex> guard(mForeignLock);
        mForeign.push_back(link);
        mForeignCount.store(static_cast<int32_t>(mForeign.size()), std::memory_order_release);
    }
    mFrameCount.fetch_add(1, std::memory_order_relaxed);
    wakeIfSleeping();
}

void KAMWorker::setName(std::string name) {
    KAM_LOGD("KAMWorker setName to %s", name.c_str());
    post(new WorkItem("setName", [n = std::move(name)] { prctl(PR_SET_NAME, n.c_str(), 0, 0, 0); }), false);
}

bool KAMWorker::threadLoop() {
    while (!exitPending()) process();
    return false;
}

// Follows the list as far as it is linked. The item last run stays as the
// anchor: the producer still writes its link.
bool KAMWorker::drainList() {
    bool ran = false;
    for (;;) {
        const uintptr_t next = __atomic_load_n(&mHead->mNext, __ATOMIC_ACQUIRE);
        if (next == 0) return ran;
        if (mHeadOwned) delete static_cast<WorkItem*>(mHead);
        Bridge* item = untag(next);
        mHead = item;
        mHeadOwned = (next & kOwned) != 0;
        item->run();
        mLastName.store(item->getName(), std::memory_order_relaxed);
        ran = true;
    }
}

// Items of other threads. Taking the lock makes visible whatever the owner
// posted before them, so the list is drained once more first.
void KAMWorker::runForeign() {
    std::vector<uintptr_t> taken;
    {
        std::lock_guard<std::mutex> guard(mForeignLock);
        taken.swap(mForeign);
        mForeignCount.store(0, std::memory_order_relaxed);
    }
    drainList();
    for (uintptr_t link : taken) {
        Bridge* item = untag(link);
        item->run();
        mLastName.store(item->getName(), std::memory_order_relaxed);
        if (link & kOwned) delete static_cast<WorkItem*>(item);
    }
}

void KAMWorker::process() {
    for (;;) {
        drainList();
        if (mForeignCount.load(std::memory_order_acquire) == 0) break;
        runForeign();
    }
    if (spin([this] {
            return __atomic_load_n(&mHead->mNext, __ATOMIC_RELAXED) != 0 ||
                   mForeignCount.load(std::memory_order_relaxed) != 0;
        }))
        return;
    mSleeping.store(1, std::memory_order_relaxed);
    std::atomic_thread_fence(std::memory_order_seq_cst);
    if (__atomic_load_n(&mHead->mNext, __ATOMIC_RELAXED) != 0 || mForeignCount.load(std::memory_order_relaxed) != 0) {
        // More came. If a waker took the flag first, its post is on the way:
        // take it, so that the semaphore is back at zero.
        if (mSleeping.exchange(0, std::memory_order_acq_rel) == 0) sem_wait(&mWakeSem);
        return;
    }
    sem_wait(&mWakeSem);
}

}  // namespace android
