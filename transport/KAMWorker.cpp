#include "transport/KAMWorker.h"

#include <sys/prctl.h>

#include <cutils/trace.h>
#include <log/log.h>

#include "recording/Bridge.h"
#include "runtime/KAMLog.h"

extern "C" {
// Declared by cutils/trace.h only inside its inline helpers.
void atrace_begin_body(const char* name);
void atrace_end_body();
}

namespace android {

KAMWorker::KAMWorker() : Thread(false) { sem_init(&mWakeSem, 0, 0); }

KAMWorker::~KAMWorker() {
    // Items still queued belong to a frame that will never be replayed: their
    // memory is the arena's (bridges) or lost with the process shutting the
    // context down, so they are neither run nor freed here.
    std::vector<WorkItem*>().swap(mQueue);
    std::vector<WorkItem*>().swap(mSpareQueue);
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

void KAMWorker::post(WorkItem* item, bool sync) {
    // Items gather in the producer's own batch and enter the shared queue,
    // under the lock, only when the worker is woken. On x86 every locked
    // instruction drains the store buffer, which made a lock per item cost
    // the latency of the arena lines just written; the worker sees nothing
    // earlier than it would be woken for anyway.
    mBatch.push_back(item);
    bump(mPending);
    bump(mFrameCount);
    if (sync) {
        const char* name = item->bridge ? item->bridge->getName() : item->name;
        if (atrace_get_enabled_tags() & ATRACE_TAG_GRAPHICS) atrace_begin_body(name);
        if (atrace_get_enabled_tags() & ATRACE_TAG_GRAPHICS) atrace_end_body();
    } else if (mPending.load(std::memory_order_relaxed) <= kWakeBatch) {
        return;
    }
    wake();
}

void KAMWorker::publish() {
    lockQueue();
    if (mQueue.empty()) {
        mQueue.swap(mBatch);
    } else {
        mQueue.insert(mQueue.end(), mBatch.begin(), mBatch.end());
        mBatch.clear();
    }
    unlockQueue();
}

void KAMWorker::wake() {
    publish();
    mPending.store(0, std::memory_order_relaxed);
    int value = 0;
    sem_getvalue(&mWakeSem, &value);
    if (value == 0) sem_post(&mWakeSem);
}

void KAMWorker::setName(std::string name) {
    KAM_LOGD("KAMWorker setName to %s", name.c_str());
    post(new WorkItem("setName", [n = std::move(name)] { prctl(PR_SET_NAME, n.c_str(), 0, 0, 0); }), false);
}

bool KAMWorker::threadLoop() {
    while (!exitPending()) process();
    return false;
}

void KAMWorker::process() {
    mPending.store(0, std::memory_order_relaxed);
    lockQueue();
    if (mQueue.empty()) {
        unlockQueue();
        sem_wait(&mWakeSem);
        return;
    }
    // The drained vector of the last cycle (empty, capacity kept) goes back
    // to the producer, so that steady posting never reallocates the queue.
    std::vector<WorkItem*> taken;
    taken.swap(mSpareQueue);
    taken.swap(mQueue);
    unlockQueue();

    for (WorkItem* item : taken) {
        if (Bridge* b = item->bridge) {
            b->run();
            mLastName.store(b->getName(), std::memory_order_relaxed);
        } else {
            item->func();  // an empty function throws: fatal, as intended
            mLastName.store(item->name, std::memory_order_relaxed);
            delete item;
        }
    }
    taken.clear();
    taken.swap(mSpareQueue);

    if (mPending.load(std::memory_order_relaxed) < 1) sem_wait(&mWakeSem);
}

}  // namespace android
