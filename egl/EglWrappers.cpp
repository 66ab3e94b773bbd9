// EGL wrappers that are not one of the generated kinds: the current-binding
// queries answered from the platform's records, the make-current shortcut,
// the frame-fence hand-over and the error probe.

#include "recording/Record.h"
#include "runtime/KAMLog.h"
#include "runtime/PlatformRecords.h"

using namespace android;

extern "C" {

// While offloaded the driver has the placeholder current on this thread;
// these answers show the application its own context and surfaces instead.
KAM_EXPORT EGLContext kam_eglGetCurrentContext_opt(void) {
    KAMContext* c = activeContext();
    if (c == nullptr) return KAM_EGL(eglGetCurrentContext)();
    return static_cast<EGLContext>(c->mEglContext);
}

KAM_EXPORT EGLSurface kam_eglGetCurrentSurface_opt(EGLint readdraw) {
    KAMContext* c = activeContext();
    if (c == nullptr) return KAM_EGL(eglGetCurrentSurface)(readdraw);
    PlatformContextRecord* r = contextRecord(c->mEglContext);
    if (readdraw == EGL_DRAW) return r->draw;
    if (readdraw == EGL_READ) return r->read;
    return EGL_NO_SURFACE;
}

KAM_EXPORT EGLDisplay kam_eglGetCurrentDisplay_opt(void) {
    KAMContext* c = activeContext();
    if (c == nullptr) return KAM_EGL(eglGetCurrentDisplay)();
    return contextRecord(c->mEglContext)->display;
}

KAM_EXPORT EGLBoolean kam_eglMakeCurrent_opt(EGLDisplay dpy, EGLSurface draw, EGLSurface read, EGLContext ctx) {
    KAMContext* c = activeContext();
    if (c == nullptr) return KAM_EGL(eglMakeCurrent)(dpy, draw, read, ctx);
    PlatformContextRecord* r = contextRecord(c->mEglContext);
    // The worker holds exactly this binding already.
    if (ctx == c->mEglContext && r->draw == draw && r->read == read) return EGL_TRUE;
    return c->mWorker->postSync([&] { return KAM_EGL(eglMakeCurrent)(dpy, draw, read, ctx); },
                                "kam_eglMakeCurrent_opt");
}

KAM_EXPORT EGLSyncKHR kam_eglCreateSyncKHR_opt(EGLDisplay dpy, EGLenum type, const EGLint* attribs) {
    KAMContext* c = activeContext();
    if (c == nullptr) return KAM_EGL(eglCreateSyncKHR)(dpy, type, attribs);
    // The worker made a fence at the last frame boundary; hand it over instead
    // of a round trip.
    if (c->mFrameFence != EGL_NO_SYNC_KHR && type == EGL_SYNC_FENCE_KHR && attribs == nullptr) {
        EGLSyncKHR fence = c->mFrameFence;
        c->mFrameFence = EGL_NO_SYNC_KHR;
        return fence;
    }
    return c->mWorker->postSync([&] { return KAM_EGL(eglCreateSyncKHR)(dpy, type, attribs); },
                                "kam_eglCreateSyncKHR_opt");
}

KAM_EXPORT EGLint kam_eglGetError_opt(void) {
    KAMContext* c = activeContext();
    if (c == nullptr) return KAM_EGL(eglGetError)();
    // A raw pointer on purpose: the context's destructor drains the queue
    // before the worker goes, and a strong reference dropped on the worker
    // could end up joining the worker from itself.
    KAMWorker* w = c->mWorker.get();
    w->post(new WorkItem("kam_eglGetError_opt",
                         [w] {
                             EGLint error = KAM_EGL(eglGetError)();
                             if (error != EGL_SUCCESS) KAM_LOGE("%s eglGetError=0x%X", w->lastName(), error);
                         }),
            false);
    return KAM_EGL(eglGetError)();
}

}  // extern "C"
