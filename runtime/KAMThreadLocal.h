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
};

// Released by the runtime's thread-exit destructor list when the thread ends.
extern KAM_EXPORT thread_local sp<KAMThreadLocal> __tls;

// A plain view of __tls for the path every GL call takes: a trivially
// initialised thread variable is one load from the thread pointer, where the
// sp needs its initialisation guard and a function call. setThreadRecord keeps
// the two equal; the view is cleared before __tls lets go at thread exit.
extern KAM_EXPORT __thread KAMThreadLocal* gThreadRecord __attribute__((tls_model("initial-exec")));
KAM_EXPORT void setThreadRecord(const sp<KAMThreadLocal>& record);

// The wrappers' first step: the context to record into, or null to pass
// through.
inline KAMContext* activeContext() {
    KAMThreadLocal* t = gThreadRecord;
    return t ? t->mActiveContext : nullptr;
}

// The context attached to this thread, offloaded or not (queries use it).
inline KAMContext* attachedContext() {
    KAMThreadLocal* t = gThreadRecord;
    return t ? t->mContext : nullptr;
}

}  // namespace android
