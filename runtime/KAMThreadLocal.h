#pragma once

#include "loader/Export.h"

#include <sys/types.h>

#include <functional>
#include <string>

#include <utils/RefBase.h>

namespace android {

class KAMContext;

// Per-thread record, owned by the thread-local slot __tls. mActiveContext is
// the one field every GL wrapper tests.
class KAM_EXPORT KAMThreadLocal : public virtual RefBase {
public:
    KAMThreadLocal() = default;
    ~KAMThreadLocal() override;

    void attachContext(KAMContext* ctx);

    std::string mName;
    int32_t mTid = 0;
    bool mSkip = false;
    std::function<void(std::string&, int, void*)> mOnRelease;
    void* mEglContext = nullptr;
    KAMContext* mContext = nullptr;
    KAMContext* mActiveContext = nullptr;
    // Set when this thread left a frame boundary of that context before the
    // worker ran the boundary's task; cleared by finishFrame.
    KAMContext* mFrameInFlight = nullptr;
};

// Released by the runtime's thread-exit destructor list when the thread ends.
extern KAM_EXPORT thread_local sp<KAMThreadLocal> __tls;

// A plain view of __tls for the path every GL call takes: a trivially
// initialised thread variable is one load from the thread pointer, where the
// sp needs its initialisation guard and a function call. setThreadRecord keeps
// the two equal; the view is cleared before __tls lets go at thread exit.
extern KAM_EXPORT __thread KAMThreadLocal* gThreadRecord __attribute__((tls_model("initial-exec")));
KAM_EXPORT void setThreadRecord(const sp<KAMThreadLocal>& record);

// Waits until the worker has run the frame boundary's task that this thread
// left behind (it resets the arena, the name pools and the deferred frees
// that the application thread uses), then does the boundary's bookkeeping.
KAM_EXPORT void finishFrame(KAMThreadLocal* t);

// The thread's record, once the last frame is done with: every path that
// reaches a context's per-frame state goes through here, so the application
// thread leaves the frame boundary at once and waits, if at all, only when it
// next records. The frame before is then replayed completely before anything
// of the next one is recorded, as if it had waited in the swap, but the time
// between (game logic, input) overlaps the worker's replay.
inline KAMThreadLocal* threadRecord() {
    KAMThreadLocal* t = gThreadRecord;
    if (t != nullptr && __builtin_expect(t->mFrameInFlight != nullptr, 0)) finishFrame(t);
    return t;
}

// The wrappers' first step: the context to record into, or null to pass
// through.
inline KAMContext* activeContext() {
    KAMThreadLocal* t = threadRecord();
    return t ? t->mActiveContext : nullptr;
}

// For posts that touch nothing of the frame (heap items only: the queued
// driver swap that follows the boundary).
inline KAMContext* activeContextInFlight() {
    KAMThreadLocal* t = gThreadRecord;
    return t ? t->mActiveContext : nullptr;
}

// The context attached to this thread, offloaded or not (queries use it).
inline KAMContext* attachedContext() {
    KAMThreadLocal* t = threadRecord();
    return t ? t->mContext : nullptr;
}

}  // namespace android
