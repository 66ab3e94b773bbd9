#include <sys/prctl.h>
#include <unistd.h>

#include <cstring>
#include <vector>

#include "loader/KAMLoader.h"
#include "runtime/KAMContext.h"
#include "runtime/KAMLog.h"
#include "runtime/KAMManager.h"
#include "runtime/KAMThreadLocal.h"
#include "runtime/PlatformRecords.h"

namespace android {

KAMManager* KAMManager::INSTANCE = new KAMManager();

namespace {

std::vector<std::string> splitArgs(const std::string& args) {
    std::vector<std::string> tokens;
    size_t pos = 0;
    while (pos < args.size()) {
        size_t bar = args.find('|', pos);
        if (bar == std::string::npos) {
            tokens.push_back(args.substr(pos));
            break;
        }
        tokens.push_back(args.substr(pos, bar - pos));
        pos = bar + 1;
    }
    return tokens;
}

std::string threadName() {
    char name[17] = {};
    prctl(PR_GET_NAME, name, 0, 0, 0);
    return name;
}

bool isWindowSurface(void* surface) {
    return surface && static_cast<PlatformSurfaceRecord*>(surface)->nativeWindow != nullptr;
}

}  // namespace

void KAMManager::initMTR(std::string name, bool debuggable, std::string args) {
    KAMLoader* loader = KAMLoader::getInstance();
    mEnabled = loader->mInitialised && !loader->mMissingEntries;
    if (!mEnabled) KAM_LOGE("initMTR %s: the layer's dispatch tables are incomplete, offload stays off", name.c_str());
    mName = name;
    std::vector<std::string> tokens = splitArgs(args);
    if (!tokens.empty() && tokens[0] == "1") mClientArrays = true;
    // The second token is an off switch that only debuggable processes honour.
    if (tokens.size() >= 2 && tokens[1] == "1" && debuggable) mEnabled = false;
    KAM_LOGD("initMTR %s %d args=%s debuggable=%d", mName.c_str(), mEnabled, args.c_str(), debuggable);
}

bool KAMManager::makeCurrentPre(void* eglContext, void* drawSurface) {
    threadRecord();
    if (!eglContext || !mEnabled) return true;
    PlatformContextRecord* record = contextRecord(eglContext);
    sp<KAMThreadLocal> tls = __tls;
    if (tls == nullptr) {
        tls = new KAMThreadLocal();
        tls->mTid = gettid();
        tls->mOnRelease = [this](std::string& n, int tid, void* ctx) { onThreadReleased(n, tid, ctx); };
        tls->mName = threadName();
        // Platform render threads are never offloaded.
        tls->mSkip = tls->mName == "Chrome_InProcGp" || tls->mName == "RenderThread";
        setThreadRecord(tls);
        KAM_LOGD("iniTLS <%s> skip=%d EGLContext=%p created by %s", tls->mName.c_str(), tls->mSkip, eglContext,
                 record->creatorName);
    }
    if (tls->mSkip) return true;

    sp<KAMContext> kctx = record->kamContext;
    void* prev = tls->mEglContext;
    sp<KAMContext> prevK = prev ? contextRecord(prev)->kamContext : nullptr;

    if (!mWorkerRunning.load(std::memory_order_acquire) && drawSurface && kctx == nullptr &&
        isSurface(drawSurface)) {
        kctx = new KAMContext(eglContext, mClientArrays);
        KAM_LOGD("RenderThread is marked -> name=%s tid=%d context=%p version=%d", tls->mName.c_str(), tls->mTid,
                 eglContext, record->clientVersion);
    }
    if (kctx != nullptr && kctx->mActive) {
        KAM_EGL(eglMakeCurrent)(kctx->mDisplay, kctx->mPlaceholderSurface, kctx->mPlaceholderSurface,
                                kctx->mPlaceholderContext);
    }
    if (eglContext != prev && prevK != nullptr) {
        KAM_LOGD("<%s> EGLContext is changed tls_ctx=%p set_ctx=%p", tls->mName.c_str(), prev, eglContext);
        prevK->mTls.clear();
        // The worker keeps the offloaded context current, and with it its
        // surfaces; EGL lets a surface be current on one thread only. A new
        // context on one of them (a program that replaces its context on the
        // same window) would be refused: the worker lets go first, and the
        // previous context comes back idle if the thread returns to it.
        PlatformContextRecord* prevRecord = contextRecord(prev);
        if (prevK->mActive && drawSurface && (drawSurface == prevRecord->draw || drawSurface == prevRecord->read)) {
            letGo(prevK.get());
            KAM_LOGD("KAMWorker lets go of EGLContext=%p: set_ctx=%p takes its surface", prev, eglContext);
        }
        // A context the layer does not shadow takes the thread away from the
        // previous one: left attached, the thread would feed that context's
        // meter with this one's frames and keep a pointer its destruction can
        // no longer clear. An offloaded one is let go by the platform's
        // make-current, which drains its worker first.
        if (kctx == nullptr && !prevK->mActive) tls->attachContext(nullptr);
    }
    if (kctx != nullptr) tls->attachContext(kctx.get());
    return true;
}

void KAMManager::makeCurrentPost(void* eglContext) {
    threadRecord();
    if (eglContext || !mEnabled) return;
    sp<KAMThreadLocal> tls = __tls;
    if (tls == nullptr || tls->mContext == nullptr) return;
    sp<KAMContext> ctx = tls->mContext;
    tls->attachContext(nullptr);
    if (ctx->mActive) KAM_EGL(eglMakeCurrent)(ctx->mDisplay, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
}

void KAMManager::startMTR(KAMContext* ctx, sp<KAMThreadLocal> tls) {
    PlatformContextRecord* record = contextRecord(ctx->mEglContext);
    if (ctx->mActive || !isWindowSurface(record->draw)) return;
    if (ctx->mWorker == nullptr) {
        // One worker per process: contexts measured side by side may all
        // agree; the first to take the flag starts, the others keep passing
        // through. Only a context that took it has a worker, so only that one
        // gives it back when it dies.
        bool idle = false;
        if (ctx->mFps.detectMTR() && mWorkerRunning.compare_exchange_strong(idle, true, std::memory_order_acq_rel))
            ctx->startWorker();
        return;
    }
    if (!ctx->mMemory.mBase || ctx->mPlaceholderContext == EGL_NO_CONTEXT) return;
    EGLDisplay display = ctx->mDisplay;
    EGLSurface draw = record->draw;
    EGLSurface read = record->read;
    void* eglContext = ctx->mEglContext;
    ctx->mParams.init();
    if (!KAM_EGL(eglMakeCurrent)(display, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT)) return;
    KAM_EGL(eglMakeCurrent)(display, ctx->mPlaceholderSurface, ctx->mPlaceholderSurface, ctx->mPlaceholderContext);
    ctx->mActive = 1;
    tls->attachContext(ctx);
    KAMLoader::getInstance()->useKamEgl();
    std::string name = tls->mName;
    // This thread records from now on; one that had it before let go first.
    ctx->mWorker->adoptProducer();
    ctx->mWorker->postSync(
        [&] {
            if (KAM_EGL(eglMakeCurrent)(display, draw, read, eglContext))
                KAM_LOGD("KAMWorker started -> %s EGLContext=%p", name.c_str(), eglContext);
        },
        "startMTR");
}

// The worker lets go of the real context once everything queued before has
// run; the pending frame fence goes and offload is off for the context.
void KAMManager::letGo(KAMContext* ctx, const char* label) {
    EGLDisplay display = ctx->mDisplay;
    ctx->mWorker->postSync([&] { KAM_EGL(eglMakeCurrent)(display, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT); },
                           label);
    if (ctx->mFrameFence != EGL_NO_SYNC_KHR) {
        KAM_EGL(eglDestroySyncKHR)(display, ctx->mFrameFence);
        ctx->mFrameFence = EGL_NO_SYNC_KHR;
    }
    ctx->mActive = 0;
}

void KAMManager::stopMTR(KAMContext* ctx, sp<KAMThreadLocal> tls) {
    if (!ctx->mActive) return;
    EGLDisplay display = ctx->mDisplay;
    letGo(ctx, "stopMTR");
    if (ctx->mPlaceholderContext != EGL_NO_CONTEXT)
        KAM_EGL(eglMakeCurrent)(display, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
    tls->mActiveContext = nullptr;
    PlatformContextRecord* record = contextRecord(ctx->mEglContext);
    if (KAM_EGL(eglMakeCurrent)(display, record->draw, record->read, ctx->mEglContext))
        KAM_LOGD("MTR <%s> is stopped EGLContext=%p", tls->mName.c_str(), ctx->mEglContext);
}

void KAMManager::onContextReleased(KAMContext* ctx) {
    KAM_LOGD("KAMContext is released EGLContext=%p", ctx->mEglContext);
    sp<KAMThreadLocal> tls = ctx->mTls.promote();
    if (ctx->mWorker != nullptr) mWorkerRunning.store(false, std::memory_order_release);
    if (tls != nullptr) {
        tls->mEglContext = nullptr;
        tls->mContext = nullptr;
        tls->mActiveContext = nullptr;
        if (tls->mFrameInFlight == ctx) tls->mFrameInFlight = nullptr;
        KAM_LOGE("Releasing a EGLContext %p which is attached to [<%s>,%d], may be a fatal error.", ctx->mEglContext,
                 tls->mName.c_str(), tls->mTid);
    }
}

void KAMManager::onThreadReleased(std::string& name, int tid, void* eglContext) {
    KAM_LOGD("onThreadReleased:[<%s>,%d] EGLContext= %p", name.c_str(), tid, eglContext);
}

bool KAMManager::isSurface(void* surface) { return isWindowSurface(surface); }

bool KAMManager::isNeedMTR() { return mNeedMTR.load(std::memory_order_acquire); }

void KAMManager::updateMTR(int flags) {
    mNeedMTR.store((flags & 1) != 0, std::memory_order_release);
    KAM_LOGD("updateMTR %s flags=0x%X", mName.c_str(), flags);
}

// The boundary queues its task and returns: the thread waits for it in
// finishFrame, when it next reaches the context's frame state.
void KAMManager::swapBuffers() {
    if (!mEnabled) return;
    sp<KAMThreadLocal> tls = __tls;
    if (tls == nullptr) return;
    threadRecord();
    if (tls->mContext == nullptr) return;
    sp<KAMContext> ctx = tls->mContext;
    if (mNeedMTR.load(std::memory_order_acquire))
        startMTR(ctx.get(), tls);
    else
        stopMTR(ctx.get(), tls);
    ctx->mFrameCount += 1;
    if (!ctx->mActive) return;
    int32_t size = ctx->mWorker->frameCount();
    if (ctx->mFrameFence != EGL_NO_SYNC_KHR) {
        KAM_EGL(eglDestroySyncKHR)(ctx->mDisplay, ctx->mFrameFence);
        ctx->mFrameFence = EGL_NO_SYNC_KHR;
    }
    KAMContext* k = ctx.get();
    k->mFrameTask = std::packaged_task<void()>([k] {
        k->mFrameFence = KAM_EGL(eglCreateSyncKHR)(k->mDisplay, EGL_SYNC_FENCE_KHR, nullptr);
        k->swapBuffer();
    });
    k->mFrameDone = k->mWorker->postTask(&k->mFrameTask, "swapBuffers");
    tls->mFrameInFlight = k;
    k->mFrameStatsDue = k->mFps.update();
    k->mFrameSize = size;
}

void finishFrame(KAMThreadLocal* t) {
    KAMContext* k = t->mFrameInFlight;
    t->mFrameInFlight = nullptr;
    KAMWorker::await(k->mFrameDone);
    if (!k->mFrameStatsDue) return;
    k->mBindings.trimMemory(k->mFrameCount);
    KAM_LOGD("%s fps=%d frame=%d memory=%d size=%d", KAMManager::INSTANCE->mName.c_str(), k->mFps.getFps(),
             k->mFrameCount, k->mMemory.mLastUsed, k->mFrameSize);
}

}  // namespace android
