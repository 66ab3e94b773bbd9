#include "runtime/KAMThreadLocal.h"

#include "loader/KAMLoader.h"
#include "runtime/KAMContext.h"

namespace android {

thread_local sp<KAMThreadLocal> __tls;
__thread KAMThreadLocal* gThreadRecord = nullptr;

namespace {
// Constructed after __tls in every thread that sets a record, so destroyed
// before it: wrappers called by later thread-exit destructors pass through.
struct ClearViewAtExit {
    ~ClearViewAtExit() { gThreadRecord = nullptr; }
};
}  // namespace

void setThreadRecord(const sp<KAMThreadLocal>& record) {
    __tls = record;
    static thread_local ClearViewAtExit clearAtExit;
    (void)&clearAtExit;
    gThreadRecord = record.get();
}

KAMThreadLocal::~KAMThreadLocal() {
    // An empty callback throws bad_function_call from a destructor: the
    // process ends, which is what a record made without a manager deserves.
    mOnRelease(mName, mTid, mEglContext);
}

void KAMThreadLocal::attachContext(KAMContext* ctx) {
    if (ctx) {
        ctx->mTls = this;
        KAMLoader::getInstance()->attachGlContext();
        mEglContext = ctx->mEglContext;
        mContext = ctx;
        mActiveContext = ctx->mActive ? ctx : nullptr;
        return;
    }
    if (!mContext) return;
    // A context whose link was already taken away has been re-pointed by
    // someone else; leave the GL slot alone then.
    if (mContext->mTls.unsafe_get() != nullptr) {
        mContext->mTls.clear();
        KAMLoader::getInstance()->detachGlContext(true);
    }
    mEglContext = nullptr;
    mContext = nullptr;
    mActiveContext = nullptr;
}

}  // namespace android
