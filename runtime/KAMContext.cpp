#include "runtime/KAMContext.h"

#include "loader/KAMLoader.h"
#include "runtime/KAMLog.h"
#include "runtime/KAMManager.h"
#include "runtime/KAMThreadLocal.h"
#include "runtime/PlatformRecords.h"

namespace android {

KAMContext::KAMContext(void* eglContext, bool clientArrays)
    : mAttribArrays(new ClientArray*[kAttribRecords]()), mEglContext(eglContext), mClientArrays(clientArrays) {
    PlatformContextRecord* record = contextRecord(eglContext);
    record->kamContext = this;
    mDisplay = record->display;
    // State the shadow cannot know is asked in call order: on the worker
    // while offloaded, else on the calling thread, which then holds the real
    // context.
    mBindings.askDriver = [this](GLenum target, GLenum pname) -> int64_t {
        GLint64 value = 0;
        auto ask = [&] {
            if (target != 0) return KAM_GL(glGetBufferParameteri64v)(target, pname, &value);
            GLint v = 0;
            KAM_GL(glGetIntegerv)(pname, &v);
            value = v;
        };
        if (mActive && mWorker != nullptr)
            mWorker->postSync(ask, "kam_askDriver");
        else
            ask();
        return value;
    };
    mBindings.keepBytes = [this](size_t bytes, const void* src) { return mMemory.malloc(bytes, src); };
}

KAMContext::~KAMContext() {
    KAMManager::INSTANCE->onContextReleased(this);
    mActive = 0;
    if (mPlaceholderContext != EGL_NO_CONTEXT) {
        KAM_EGL(eglDestroyContext)(mDisplay, mPlaceholderContext);
        mPlaceholderContext = EGL_NO_CONTEXT;
    }
    if (mPlaceholderSurface != EGL_NO_SURFACE) {
        KAM_EGL(eglDestroySurface)(mDisplay, mPlaceholderSurface);
        mPlaceholderSurface = EGL_NO_SURFACE;
    }
    if (mWorker != nullptr) {
        mWorker->stop([] { KAM_EGL(eglReleaseThread)(); }, "eglReleaseThread");
    }
    mTls.clear();
    mWorker.clear();
    // mMemory, mCaches and mBindings go with the members, in that order.
    for (int i = 0; i < kAttribRecords; ++i) delete mAttribArrays[i];
    delete[] mAttribArrays;
}

void KAMContext::startWorker() {
    mWorker = new KAMWorker();
    const char* name = contextRecord(mEglContext)->creatorName;
    mWorker->run(name, -4, 0);
#if !defined(__ANDROID__)
    // Thread::run names the thread only on Android.
    mWorker->setName(name);
#endif
    createEgl();  // a failure leaves the placeholder missing, which keeps offload off
    mMemory.prepare();
}

bool KAMContext::createEgl() {
    if (mPlaceholderContext != EGL_NO_CONTEXT) return true;
    const EGLint configAttribs[] = {EGL_RENDERABLE_TYPE, EGL_OPENGL_ES2_BIT, EGL_RED_SIZE, 8, EGL_GREEN_SIZE, 8,
                                    EGL_BLUE_SIZE, 8, EGL_ALPHA_SIZE, 8, EGL_NONE};
    EGLConfig config = nullptr;
    EGLint count = 1;
    if (!KAM_EGL(eglChooseConfig)(mDisplay, configAttribs, &config, 1, &count) || count != 1) {
        KAM_LOGE("eglChooseConfig failed");
        return false;
    }
    const EGLint pbufferAttribs[] = {EGL_WIDTH, 1, EGL_HEIGHT, 1, EGL_NONE};
    mPlaceholderSurface = KAM_EGL(eglCreatePbufferSurface)(mDisplay, config, pbufferAttribs);
    if (mPlaceholderSurface == EGL_NO_SURFACE) {
        KAM_LOGE("eglCreatePbufferSurface failed");
        return false;
    }
    const EGLint contextAttribs[] = {EGL_CONTEXT_CLIENT_VERSION, 2, EGL_NONE};
    mPlaceholderContext = KAM_EGL(eglCreateContext)(mDisplay, config, mEglContext, contextAttribs);
    if (mPlaceholderContext == EGL_NO_CONTEXT) {
        KAM_LOGE("eglCreateContext failed");
        return false;
    }
    return true;
}

void KAMContext::swapBuffer() {
    mMemory.swapBuffer();
    mBindings.swapBuffer();
    mCaches.swapBuffer();
    mWorker->swapBuffer();
}

void KAMContext::attachTLS(KAMThreadLocal* tls) {
    if (!tls) {
        if (mTls.unsafe_get() != nullptr) {
            mTls.clear();
            KAMLoader::getInstance()->detachGlContext(true);
        }
        return;
    }
    mTls = tls;
    KAMLoader::getInstance()->attachGlContext();
}

}  // namespace android
