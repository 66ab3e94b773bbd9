#pragma once

#include "loader/Export.h"

#include <EGL/egl.h>
#include <EGL/eglext.h>

#include <cstdint>
#include <future>

#include <utils/RefBase.h>

#include "egl/FpsUpdater.h"
#include "shadow/Bindings.h"
#include "shadow/ClientArray.h"
#include "shadow/GLCaches.h"
#include "shadow/Params.h"
#include "transport/KAMMemory.h"
#include "transport/KAMWorker.h"

namespace android {

class KAMThreadLocal;

// The layer's shadow of one application EGL context that may be offloaded:
// owns the worker, the frame arena, the shadow state and the placeholder
// context that the application thread sits on while the worker holds the real
// one.
class KAM_EXPORT KAMContext : public virtual RefBase {
public:
    static constexpr int kAttribSlots = 16;
    // glVertexAttribPointer admits index 16 as well; its record lives in an
    // extra slot that draws never copy.
    static constexpr int kAttribRecords = kAttribSlots + 1;

    KAMContext(void* eglContext, bool clientArrays);
    ~KAMContext() override;

    void startWorker();
    bool createEgl();
    void swapBuffer();
    void attachTLS(KAMThreadLocal* tls);

    Params mParams;
    ClientArray** mAttribArrays = nullptr;
    Bindings mBindings;
    FpsUpdater mFps;
    GLCaches mCaches;
    KAMMemory mMemory;
    int32_t mActive = 0;
    sp<KAMWorker> mWorker;
    wp<KAMThreadLocal> mTls;
    void* mEglContext = nullptr;
    EGLDisplay mDisplay = EGL_NO_DISPLAY;
    EGLContext mPlaceholderContext = EGL_NO_CONTEXT;
    EGLSurface mPlaceholderSurface = EGL_NO_SURFACE;
    EGLSyncKHR mFrameFence = EGL_NO_SYNC_KHR;
    bool mClientArrays = false;
    // GL_PRIMITIVE_RESTART_FIXED_INDEX as the application last set it.
    bool mPrimitiveRestart = false;
    uint32_t mFrameCount = 0;
    // The last frame boundary's task and what is left to do once it ran.
    std::packaged_task<void()> mFrameTask;
    std::future<void> mFrameDone;
    bool mFrameStatsDue = false;
    int32_t mFrameSize = 0;
};

}  // namespace android
