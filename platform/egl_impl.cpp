// The hand-written half of the host platform: driver loading, the records
// behind context and surface handles, make-current bookkeeping, the GL table
// slot, and the calls into the layer (init, initMTR, make-current hooks and
// the frame boundary).

#include <dlfcn.h>
#include <errno.h>
#include <malloc.h>
#include <pthread.h>
#include <sys/prctl.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <unordered_set>
#include <vector>

#include <GLES3/gl32.h>
#include <log/log.h>

#include "loader/KAMLoader.h"
#include "platform/platform.h"
#include "runtime/KAMContext.h"
#include "runtime/KAMManager.h"
#include "runtime/KAMThreadLocal.h"
#include "runtime/PlatformRecords.h"

using android::KAMManager;
using android::PlatformContextRecord;
using android::PlatformSurfaceRecord;

extern "C" {
KAM_PUBLIC __thread void* kam_platform_gl_slot __attribute__((tls_model("initial-exec"))) = nullptr;
KAM_PUBLIC void* kam_platform_egl_table[86];
KAM_PUBLIC void* kam_platform_no_context_table[1276];
}

namespace kamplatform {
void releaseLayerContexts();

namespace {

constexpr uintptr_t kContextMagic = 0x4b414d43;  // "KAMC"
constexpr uintptr_t kSurfaceMagic = 0x4b414d53;  // "KAMS"

struct ContextRec : PlatformContextRecord {
    int boundThreads = 0;
    // Threads whose application has it current. While a thread is offloaded
    // the driver has the layer's placeholder there and the worker has this
    // one, so boundThreads cannot tell.
    int appThreads = 0;
    bool destroyed = false;
    bool extensionsLoaded = false;
};

struct SurfaceRec : PlatformSurfaceRecord {
    int boundThreads = 0;
    bool destroyed = false;
};

// Live handles. A destroyed record leaves the set at once (the handle is
// invalid from then on) but its memory stays until no thread has it bound.
std::mutex gLock;
std::unordered_set<const void*> gContexts;
std::unordered_set<const void*> gSurfaces;
// Records allocated and not yet freed, live or destroyed but still bound:
// what a test reads to see that nothing is left behind.
int gContextRecords = 0;
int gSurfaceRecords = 0;
// Offload contexts of destroyed application contexts, released by the public
// eglDestroyContext on the caller's thread: the table entry may run on the
// layer's worker, which must never end up joining itself.
std::vector<android::sp<android::KAMContext>> gReleasedLayerContexts;

void* gDriverGl[1276];
void** gDriverGlTable() { return gDriverGl; }
pthread_once_t gInitOnce = PTHREAD_ONCE_INIT;

struct ThreadState {
    ContextRec* context = nullptr;
    SurfaceRec* draw = nullptr;
    SurfaceRec* read = nullptr;
};
thread_local ThreadState tState;
// The context the application made current on this thread.
thread_local ContextRec* tAppContext = nullptr;
// An EGL error of the platform's own, returned by the thread's next
// eglGetError unless another EGL call comes first (ensureInit clears it).
thread_local EGLint tPendingError = EGL_SUCCESS;
// A thread that ends with a context current still holds its records; they
// go with it, as the thread's driver state does. Made on a thread's first
// rebind.
struct ThreadExit {
    ~ThreadExit();
};
thread_local ThreadExit tExit;

template <class F>
F driverGl(android::KamGlId id) {
    return reinterpret_cast<F>(gDriverGl[id]);
}

template <class F>
F driverEgl(android::KamEglId id) {
    return reinterpret_cast<F>(gDriverEgl[id]);
}

ContextRec* findContext(const void* handle) {
    return handle && gContexts.count(handle) ? static_cast<ContextRec*>(const_cast<void*>(handle)) : nullptr;
}

SurfaceRec* findSurface(const void* handle) {
    return handle && gSurfaces.count(handle) ? static_cast<SurfaceRec*>(const_cast<void*>(handle)) : nullptr;
}

void freeIfUnused(ContextRec* r) {
    if (r && r->destroyed && r->boundThreads == 0 && r->appThreads == 0) {
        delete r;
        gContextRecords--;
    }
}

void freeIfUnused(SurfaceRec* s) {
    if (s && s->destroyed && s->boundThreads == 0) {
        delete s;
        gSurfaceRecords--;
    }
}

// Under gLock. A destroyed context that was current to some thread goes when
// it is current to none, as EGL has it: its offload context with it, on the
// caller's thread (releaseLayerContexts).
void setAppContextLocked(ContextRec* r) {
    static_cast<void>(&tExit);
    ContextRec* old = tAppContext;
    if (old == r) return;
    if (r) r->appThreads++;
    tAppContext = r;
    if (old && --old->appThreads == 0 && old->destroyed) {
        if (old->kamContext != nullptr) gReleasedLayerContexts.push_back(std::move(old->kamContext));
        freeIfUnused(old);
    }
}

// Rebinds this thread's records under gLock; the previous ones may go now.
void rebind(ContextRec* ctx, SurfaceRec* draw, SurfaceRec* read) {
    static_cast<void>(&tExit);
    ThreadState old = tState;
    if (ctx) ctx->boundThreads++;
    if (draw) draw->boundThreads++;
    if (read) read->boundThreads++;
    tState = {ctx, draw, read};
    if (old.context) old.context->boundThreads--;
    if (old.draw) old.draw->boundThreads--;
    if (old.read) old.read->boundThreads--;
    freeIfUnused(old.context);
    freeIfUnused(old.draw);
    if (old.read != old.draw) freeIfUnused(old.read);
}

ThreadExit::~ThreadExit() {
    const bool app = tAppContext != nullptr;  // never a layer worker's
    {
        std::lock_guard<std::mutex> guard(gLock);
        setAppContextLocked(nullptr);
        rebind(nullptr, nullptr, nullptr);
    }
    if (app) releaseLayerContexts();
}

void* openOrDie(const char* path) {
    // Deep binding keeps the system library's own calls inside it: its
    // exported names are also ours, and ours come first in the global scope.
    // (Off in builds for AddressSanitizer, which refuses the flag.)
    void* handle = dlopen(path, RTLD_NOW | RTLD_LOCAL | (KAM_PLATFORM_DEEPBIND ? RTLD_DEEPBIND : 0));
    if (!handle) {
        fprintf(stderr, "kam platform: cannot load the system library %s: %s\n", path, dlerror());
        abort();
    }
    return handle;
}

bool envFlag(const char* name) {
    const char* v = getenv(name);
    return v && *v && strcmp(v, "0") != 0;
}

void initOnce() {
    void* egl = openOrDie(KAM_SYSTEM_EGL);
    void* gles2 = openOrDie(KAM_SYSTEM_GLESV2);
    void* gles1 = openOrDie(KAM_SYSTEM_GLESV1);
    auto getProc = reinterpret_cast<kam_pfn_eglGetProcAddress>(dlsym(egl, "eglGetProcAddress"));

    for (int i = 0; i < android::kKamEglCount; ++i) {
        const char* name = kDriverEglNames[i];
        void* p = dlsym(name[0] == 'g' ? gles2 : egl, name);
        if (!p && getProc) p = reinterpret_cast<void*>(getProc(name));
        gDriverEgl[i] = p;
    }
    for (int i = 0; i < android::kKamGlCount; ++i) {
        const char* name = kam_platform_gl_names[i];
        void* p = dlsym(gles2, name);
        if (!p) p = dlsym(gles1, name);
        if (!p && getProc) p = reinterpret_cast<void*>(getProc(name));
        gDriverGl[i] = p;
    }
    fillMissingEntries(gDriverGl);
    // Calls without a current context are bugs of the application: they are
    // answered with zeros, like Android does.
    fillNoContextTable(kam_platform_no_context_table);
    fillEglTable(kam_platform_egl_table);

    if (envFlag("KAM_VERBOSE")) __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);

    android::KAMLoader::getInstance()->init(kam_platform_egl_names, kam_platform_egl_table, kam_platform_gl_names,
                                            gDriverGl, kam_platform_no_context_table);
    const char* name = getenv("KAM_PROCESS_NAME");
    KAMManager::INSTANCE->initMTR(name && *name ? name : program_invocation_short_name, envFlag("KAM_DEBUGGABLE"),
                                  getenv("KAM_ARGS") ? getenv("KAM_ARGS") : "");
    if (envFlag("KAM_OFF")) {
        KAMManager::INSTANCE->updateMTR(0);
    } else {
        // Offload moves the driver's allocations to the worker, whose glibc
        // arena hands a freed top back to the kernel past the trim threshold:
        // a driver that allocates and frees a big block per draw then faults
        // it in again on every draw. A generous threshold keeps it.
        mallopt(M_TRIM_THRESHOLD, 256 * 1024 * 1024);
    }
}

int clientVersion(const EGLint* attribs) {
    for (const EGLint* a = attribs; a && *a != EGL_NONE; a += 2) {
        if (a[0] == EGL_CONTEXT_CLIENT_VERSION) return a[1];  // same value as EGL_CONTEXT_MAJOR_VERSION
    }
    return 1;
}

void loadExtensions(ContextRec* r) {
    auto getString = driverGl<kam_pfn_glGetString>(android::kGl_glGetString);
    const GLubyte* ext = getString(GL_EXTENSIONS);
    r->extensions = ext ? reinterpret_cast<const char*>(ext) : "";
    r->extensionList.clear();
    // The indexed list in the driver's own order: Mesa sorts the string by
    // the extensions' age, glGetStringi goes by name. Version 2 contexts have
    // no indexed list, and the query would leave an error.
    if (r->clientVersion >= 3) {
        GLint n = 0;
        driverGl<kam_pfn_glGetIntegerv>(android::kGl_glGetIntegerv)(GL_NUM_EXTENSIONS, &n);
        auto getStringi = driverGl<kam_pfn_glGetStringi>(android::kGl_glGetStringi);
        for (GLint i = 0; i < n; ++i)
            if (const GLubyte* name = getStringi(GL_EXTENSIONS, static_cast<GLuint>(i)))
                r->extensionList.push_back(reinterpret_cast<const char*>(name));
    } else {
        size_t pos = 0;
        while (pos < r->extensions.size()) {
            size_t space = r->extensions.find(' ', pos);
            if (space == std::string::npos) space = r->extensions.size();
            if (space > pos) r->extensionList.push_back(r->extensions.substr(pos, space - pos));
            pos = space + 1;
        }
    }
    r->extensionsLoaded = true;
}

EGLSurface wrapSurface(EGLDisplay dpy, EGLConfig config, EGLSurface driverSurface, void* nativeWindow) {
    if (driverSurface == EGL_NO_SURFACE) return EGL_NO_SURFACE;
    auto* s = new SurfaceRec();
    s->magic = reinterpret_cast<void*>(kSurfaceMagic);
    s->driverSurface = driverSurface;
    s->display = dpy;
    s->config = config;
    s->nativeWindow = nativeWindow;
    std::lock_guard<std::mutex> guard(gLock);
    gSurfaces.insert(s);
    gSurfaceRecords++;
    return s;
}

}  // namespace

void noContextCall() {
    static bool warned = false;
    if (!warned) {
        warned = true;
        __android_log_print(ANDROID_LOG_WARN, "kam-platform", "call to OpenGL ES API with no current context");
    }
}

void unimplementedCall() {
    static bool warned = false;
    if (!warned) {
        warned = true;
        __android_log_print(ANDROID_LOG_WARN, "kam-platform", "called an OpenGL ES entry point the driver lacks");
    }
}

// ------------------------------------------------ table entries written by hand

EGLSurface impl_eglCreateWindowSurface(EGLDisplay dpy, EGLConfig config, EGLNativeWindowType win,
                                       const EGLint* attribs) {
    auto fn = driverEgl<kam_pfn_eglCreateWindowSurface>(android::kEgl_eglCreateWindowSurface);
    // An X11 window is an XID: any non-zero value marks a window surface.
    return wrapSurface(dpy, config, fn(dpy, config, win, attribs), reinterpret_cast<void*>(win));
}

EGLSurface impl_eglCreatePlatformWindowSurface(EGLDisplay dpy, EGLConfig config, void* window,
                                               const EGLAttrib* attribs) {
    auto fn = driverEgl<kam_pfn_eglCreatePlatformWindowSurface>(android::kEgl_eglCreatePlatformWindowSurface);
    return wrapSurface(dpy, config, fn(dpy, config, window, attribs), window);
}

EGLSurface impl_eglCreatePixmapSurface(EGLDisplay dpy, EGLConfig config, EGLNativePixmapType pixmap,
                                       const EGLint* attribs) {
    auto fn = driverEgl<kam_pfn_eglCreatePixmapSurface>(android::kEgl_eglCreatePixmapSurface);
    return wrapSurface(dpy, config, fn(dpy, config, pixmap, attribs), nullptr);
}

EGLSurface impl_eglCreatePlatformPixmapSurface(EGLDisplay dpy, EGLConfig config, void* pixmap,
                                               const EGLAttrib* attribs) {
    auto fn = driverEgl<kam_pfn_eglCreatePlatformPixmapSurface>(android::kEgl_eglCreatePlatformPixmapSurface);
    return wrapSurface(dpy, config, fn(dpy, config, pixmap, attribs), nullptr);
}

EGLSurface impl_eglCreatePbufferSurface(EGLDisplay dpy, EGLConfig config, const EGLint* attribs) {
    auto fn = driverEgl<kam_pfn_eglCreatePbufferSurface>(android::kEgl_eglCreatePbufferSurface);
    return wrapSurface(dpy, config, fn(dpy, config, attribs), nullptr);
}

EGLSurface impl_eglCreatePbufferFromClientBuffer(EGLDisplay dpy, EGLenum type, EGLClientBuffer buffer,
                                                 EGLConfig config, const EGLint* attribs) {
    auto fn = driverEgl<kam_pfn_eglCreatePbufferFromClientBuffer>(android::kEgl_eglCreatePbufferFromClientBuffer);
    if (!fn) return EGL_NO_SURFACE;
    return wrapSurface(dpy, config, fn(dpy, type, buffer, config, attribs), nullptr);
}

EGLSurface impl_eglCreateStreamProducerSurfaceKHR(EGLDisplay dpy, EGLConfig config, EGLStreamKHR stream,
                                                  const EGLint* attribs) {
    auto fn = driverEgl<kam_pfn_eglCreateStreamProducerSurfaceKHR>(
        android::kEgl_eglCreateStreamProducerSurfaceKHR);
    if (!fn) return EGL_NO_SURFACE;
    return wrapSurface(dpy, config, fn(dpy, config, stream, attribs), nullptr);
}

EGLBoolean impl_eglDestroySurface(EGLDisplay dpy, EGLSurface surface) {
    auto fn = driverEgl<kam_pfn_eglDestroySurface>(android::kEgl_eglDestroySurface);
    std::lock_guard<std::mutex> guard(gLock);
    SurfaceRec* s = findSurface(surface);
    EGLBoolean ok = fn(dpy, s ? s->driverSurface : surface);
    if (ok && s) {
        gSurfaces.erase(s);
        s->destroyed = true;
        freeIfUnused(s);
    }
    return ok;
}

EGLContext impl_eglCreateContext(EGLDisplay dpy, EGLConfig config, EGLContext share, const EGLint* attribs) {
    auto fn = driverEgl<kam_pfn_eglCreateContext>(android::kEgl_eglCreateContext);
    EGLContext driverContext = fn(dpy, config, unwrapContext(share), attribs);
    if (driverContext == EGL_NO_CONTEXT) return EGL_NO_CONTEXT;
    auto* r = new ContextRec();
    r->magic = reinterpret_cast<void*>(kContextMagic);
    r->driverContext = driverContext;
    r->config = config;
    r->display = dpy;
    r->clientVersion = clientVersion(attribs);
    prctl(PR_GET_NAME, r->creatorName, 0, 0, 0);
    std::lock_guard<std::mutex> guard(gLock);
    gContexts.insert(r);
    gContextRecords++;
    return r;
}

EGLBoolean impl_eglDestroyContext(EGLDisplay dpy, EGLContext ctx) {
    auto fn = driverEgl<kam_pfn_eglDestroyContext>(android::kEgl_eglDestroyContext);
    std::lock_guard<std::mutex> guard(gLock);
    ContextRec* r = findContext(ctx);
    EGLBoolean ok = fn(dpy, r ? r->driverContext : ctx);
    if (ok && r) {
        gContexts.erase(r);
        r->destroyed = true;
        // One current to a thread stays usable there: the application may
        // go on rendering with it until it releases it.
        if (r->kamContext != nullptr && r->appThreads == 0)
            gReleasedLayerContexts.push_back(std::move(r->kamContext));
        freeIfUnused(r);
    }
    return ok;
}

EGLBoolean impl_eglMakeCurrent(EGLDisplay dpy, EGLSurface draw, EGLSurface read, EGLContext ctx) {
    auto fn = driverEgl<kam_pfn_eglMakeCurrent>(android::kEgl_eglMakeCurrent);
    std::unique_lock<std::mutex> guard(gLock);
    ContextRec* r = findContext(ctx);
    SurfaceRec* d = findSurface(draw);
    SurfaceRec* rd = findSurface(read);
    EGLBoolean ok = fn(dpy, d ? d->driverSurface : draw, rd ? rd->driverSurface : read, r ? r->driverContext : ctx);
    if (!ok) return ok;
    // The context keeps the surfaces it was last bound with, also when it is
    // released: the layer binds them again when offload stops.
    if (r) {
        r->draw = draw;
        r->read = read;
    }
    rebind(r, d, rd);
    guard.unlock();
    if (r && !r->extensionsLoaded) loadExtensions(r);
    return ok;
}

EGLContext impl_eglGetCurrentContext() { return tState.context; }

EGLSurface impl_eglGetCurrentSurface(EGLint readdraw) {
    if (readdraw == EGL_DRAW) return tState.draw;
    if (readdraw == EGL_READ) return tState.read;
    return EGL_NO_SURFACE;
}

EGLBoolean impl_eglReleaseThread() {
    auto fn = driverEgl<kam_pfn_eglReleaseThread>(android::kEgl_eglReleaseThread);
    EGLBoolean ok = fn();
    std::lock_guard<std::mutex> guard(gLock);
    rebind(nullptr, nullptr, nullptr);
    return ok;
}

namespace {
template <class T>
T* bsearchProc(T* procs, int count, const char* name) {
    int lo = 0, hi = count - 1;
    while (lo <= hi) {
        int mid = (lo + hi) / 2;
        int c = strcmp(procs[mid].name, name);
        if (c == 0) return &procs[mid];
        if (c < 0) lo = mid + 1; else hi = mid - 1;
    }
    return nullptr;
}

// GL queries the platform answers from its records.
ContextRec* current() { return tState.context; }
}  // namespace

const GLubyte* impl_glGetString(GLenum name) {
    ContextRec* r = current();
    if (name == GL_EXTENSIONS && r && r->extensionsLoaded) return reinterpret_cast<const GLubyte*>(r->extensions.c_str());
    return driverGl<kam_pfn_glGetString>(android::kGl_glGetString)(name);
}

const GLubyte* impl_glGetStringi(GLenum name, GLuint index) {
    ContextRec* r = current();
    if (name == GL_EXTENSIONS && r && r->extensionsLoaded)
        return index < r->extensionList.size() ? reinterpret_cast<const GLubyte*>(r->extensionList[index].c_str())
                                               : nullptr;
    return driverGl<kam_pfn_glGetStringi>(android::kGl_glGetStringi)(name, index);
}

namespace {
template <class T, class F>
void stateQuery(android::KamGlId id, GLenum pname, T* data) {
    ContextRec* r = current();
    if (pname == GL_NUM_EXTENSIONS && r && r->extensionsLoaded) {
        *data = static_cast<T>(r->extensionList.size());
        return;
    }
    driverGl<F>(id)(pname, data);
}

}  // namespace

void impl_glGetBooleanv(GLenum p, GLboolean* d) { stateQuery<GLboolean, kam_pfn_glGetBooleanv>(android::kGl_glGetBooleanv, p, d); }
void impl_glGetFloatv(GLenum p, GLfloat* d) { stateQuery<GLfloat, kam_pfn_glGetFloatv>(android::kGl_glGetFloatv, p, d); }
void impl_glGetIntegerv(GLenum p, GLint* d) { stateQuery<GLint, kam_pfn_glGetIntegerv>(android::kGl_glGetIntegerv, p, d); }
void impl_glGetInteger64v(GLenum p, GLint64* d) { stateQuery<GLint64, kam_pfn_glGetInteger64v>(android::kGl_glGetInteger64v, p, d); }

void ensureInit() {
    tPendingError = EGL_SUCCESS;
    pthread_once(&gInitOnce, initOnce);
}

EGLSurface unwrapSurface(EGLSurface surface) {
    std::lock_guard<std::mutex> guard(gLock);
    SurfaceRec* s = findSurface(surface);
    return s ? s->driverSurface : surface;
}

EGLContext unwrapContext(EGLContext context) {
    std::lock_guard<std::mutex> guard(gLock);
    ContextRec* r = findContext(context);
    return r ? r->driverContext : context;
}

// Validated views for the layer's hooks: the layer reads the records behind
// these handles, so it only ever gets live ones.
void* liveContext(EGLContext ctx) {
    std::lock_guard<std::mutex> guard(gLock);
    return findContext(ctx);
}

void* liveSurface(EGLSurface surface) {
    std::lock_guard<std::mutex> guard(gLock);
    return findSurface(surface);
}

void setAppContext(void* record) {
    {
        std::lock_guard<std::mutex> guard(gLock);
        setAppContextLocked(static_cast<ContextRec*>(record));
    }
    releaseLayerContexts();
}

void releaseLayerContexts() {
    std::vector<android::sp<android::KAMContext>> released;
    {
        std::lock_guard<std::mutex> guard(gLock);
        released.swap(gReleasedLayerContexts);
    }
    released.clear();  // the offload contexts go here, on the caller's thread
}

// EXT spellings that applications fetch by name; they create records like the
// core calls do. Not part of the layer's table.
EGLDisplay extGetPlatformDisplay(EGLenum platform, void* native, const EGLint* attribs) {
    ensureInit();
    auto fn = reinterpret_cast<PFNEGLGETPLATFORMDISPLAYEXTPROC>(
        driverEgl<kam_pfn_eglGetProcAddress>(android::kEgl_eglGetProcAddress)("eglGetPlatformDisplayEXT"));
    return fn ? fn(platform, native, attribs) : EGL_NO_DISPLAY;
}

EGLSurface extCreatePlatformWindowSurface(EGLDisplay dpy, EGLConfig config, void* window, const EGLint* attribs) {
    ensureInit();
    auto fn = reinterpret_cast<PFNEGLCREATEPLATFORMWINDOWSURFACEEXTPROC>(
        driverEgl<kam_pfn_eglGetProcAddress>(android::kEgl_eglGetProcAddress)("eglCreatePlatformWindowSurfaceEXT"));
    return fn ? wrapSurface(dpy, config, fn(dpy, config, window, attribs), window) : EGL_NO_SURFACE;
}

EGLSurface extCreatePlatformPixmapSurface(EGLDisplay dpy, EGLConfig config, void* pixmap, const EGLint* attribs) {
    ensureInit();
    auto fn = reinterpret_cast<PFNEGLCREATEPLATFORMPIXMAPSURFACEEXTPROC>(
        driverEgl<kam_pfn_eglGetProcAddress>(android::kEgl_eglGetProcAddress)("eglCreatePlatformPixmapSurfaceEXT"));
    return fn ? wrapSurface(dpy, config, fn(dpy, config, pixmap, attribs), nullptr) : EGL_NO_SURFACE;
}

namespace {
template <class F>
F driverProc(const char* name) {
    ensureInit();
    auto getProc = driverEgl<kam_pfn_eglGetProcAddress>(android::kEgl_eglGetProcAddress);
    return reinterpret_cast<F>(getProc ? getProc(name) : nullptr);
}

// Presenting calls outside the layer's table: a frame boundary like
// eglSwapBuffers, then the call where the context is current (the worker,
// when the thread is offloaded).
template <class F>
EGLBoolean present(F call) {
    KAMManager::INSTANCE->swapBuffers();
    android::KAMContext* c = android::activeContext();
    return c ? c->mWorker->postSync(call, "present") : call();
}
}  // namespace

EGLBoolean extPostSubBuffer(EGLDisplay dpy, EGLSurface surface, EGLint x, EGLint y, EGLint width, EGLint height) {
    static auto fn = driverProc<PFNEGLPOSTSUBBUFFERNVPROC>("eglPostSubBufferNV");
    EGLSurface s = unwrapSurface(surface);
    return fn ? present([&] { return fn(dpy, s, x, y, width, height); }) : EGL_FALSE;
}

EGLBoolean extSwapBuffersRegion(EGLDisplay dpy, EGLSurface surface, EGLint count, const EGLint* rects) {
    static auto fn = driverProc<PFNEGLSWAPBUFFERSREGIONNOKPROC>("eglSwapBuffersRegionNOK");
    EGLSurface s = unwrapSurface(surface);
    return fn ? present([&] { return fn(dpy, s, count, rects); }) : EGL_FALSE;
}

EGLint extLabelObject(EGLDisplay dpy, EGLenum type, EGLObjectKHR object, EGLLabelKHR label) {
    static auto fn = driverProc<PFNEGLLABELOBJECTKHRPROC>("eglLabelObjectKHR");
    if (type == EGL_OBJECT_CONTEXT_KHR) object = unwrapContext(object);
    if (type == EGL_OBJECT_SURFACE_KHR) object = unwrapSurface(object);
    return fn ? fn(dpy, type, object, label) : EGL_BAD_DISPLAY;
}

EGLBoolean extGetSyncValues(EGLDisplay dpy, EGLSurface surface, EGLuint64KHR* ust, EGLuint64KHR* msc,
                            EGLuint64KHR* sbc) {
    using Fn = EGLBoolean (*)(EGLDisplay, EGLSurface, EGLuint64KHR*, EGLuint64KHR*, EGLuint64KHR*);
    static auto fn = driverProc<Fn>("eglGetSyncValuesCHROMIUM");
    return fn ? fn(dpy, unwrapSurface(surface), ust, msc, sbc) : EGL_FALSE;
}

EGLBoolean extGetMscRate(EGLDisplay dpy, EGLSurface surface, EGLint* numerator, EGLint* denominator) {
    static auto fn = driverProc<PFNEGLGETMSCRATEANGLEPROC>("eglGetMscRateANGLE");
    return fn ? fn(dpy, unwrapSurface(surface), numerator, denominator) : EGL_FALSE;
}

}  // namespace kamplatform

extern "C" KAM_PUBLIC EGLBoolean eglSwapBuffersWithDamageKHR(EGLDisplay, EGLSurface, EGLint*, EGLint);

namespace kamplatform {

// Every entry point of Mesa's EGL (client and display extensions) that takes
// a context or a surface, beyond the layer's table: the driver must never see
// the platform's records. The rest take displays, configs, images, syncs or
// nothing, and are the driver's own.
const PublicProc kExtensionEgl[] = {
    {"eglCreatePlatformPixmapSurfaceEXT", reinterpret_cast<void*>(&extCreatePlatformPixmapSurface)},
    {"eglCreatePlatformWindowSurfaceEXT", reinterpret_cast<void*>(&extCreatePlatformWindowSurface)},
    {"eglGetMscRateANGLE", reinterpret_cast<void*>(&extGetMscRate)},
    {"eglGetPlatformDisplayEXT", reinterpret_cast<void*>(&extGetPlatformDisplay)},
    {"eglGetSyncValuesCHROMIUM", reinterpret_cast<void*>(&extGetSyncValues)},
    {"eglLabelObjectKHR", reinterpret_cast<void*>(&extLabelObject)},
    {"eglPostSubBufferNV", reinterpret_cast<void*>(&extPostSubBuffer)},
    {"eglSwapBuffersRegionNOK", reinterpret_cast<void*>(&extSwapBuffersRegion)},
    // The same call as the KHR one, which is in the table.
    {"eglSwapBuffersWithDamageEXT", reinterpret_cast<void*>(&::eglSwapBuffersWithDamageKHR)},
};
const int kExtensionEglCount = sizeof(kExtensionEgl) / sizeof(kExtensionEgl[0]);

__eglMustCastToProperFunctionPointerType impl_eglGetProcAddress(const char* name) {
    if (!name) return nullptr;
    if (name[0] == 'g' && name[1] == 'l') {
        if (const PublicProc* p = bsearchProc(kam_platform_gl_procs, kam_platform_gl_proc_count, name))
            return reinterpret_cast<__eglMustCastToProperFunctionPointerType>(p->proc);
    }
    if (const PublicProc* p = bsearchProc(kPublicEgl, kPublicEglCount, name))
        return reinterpret_cast<__eglMustCastToProperFunctionPointerType>(p->proc);
    if (const PublicProc* p = bsearchProc(kExtensionEgl, kExtensionEglCount, name))
        return reinterpret_cast<__eglMustCastToProperFunctionPointerType>(p->proc);
    // Anything else takes no context or surface record: the driver's own
    // (also names outside OpenGL ES, which the system's EGL hands out too).
    auto getProc = driverEgl<kam_pfn_eglGetProcAddress>(android::kEgl_eglGetProcAddress);
    return getProc ? getProc(name) : nullptr;
}

}  // namespace kamplatform

using namespace kamplatform;

template <class F>
static F tableEntry(android::KamEglId id) {
    return reinterpret_cast<F>(kam_platform_egl_table[id]);
}

namespace {
// Make-current: the platform points the thread's GL slot at its own table
// first; the layer's hooks run around the table call and may re-point it at
// the layer (attach) or at the no-context table (detach). The table entry
// itself never touches the slot, so the layer's own make-currents on the
// worker and the placeholder leave it alone.
EGLBoolean makeCurrentWithHooks(EGLDisplay dpy, EGLSurface draw, EGLSurface read, EGLContext ctx) {
    void* record = liveContext(ctx);
    // Read before the hooks: attaching a context the layer already has
    // re-points the thread at it.
    android::KAMContext* offloaded = android::activeContext();
    kam_platform_gl_slot = record ? static_cast<void*>(gDriverGlTable()) : static_cast<void*>(kam_platform_no_context_table);
    if (ctx == EGL_NO_CONTEXT || record) KAMManager::INSTANCE->makeCurrentPre(record, liveSurface(draw));
    // A thread that leaves its offloaded context for another one or for none
    // lets go of it here, first: the worker keeps that context current, and
    // the thread's own make-current must then run on the thread itself, not
    // be handed to the worker by the layer's table entry.
    // The worker's queue is drained first: it may still hold the frame's
    // swap, and the application is free to destroy the surface and its
    // window as soon as this returns.
    if (offloaded && offloaded->mEglContext != record && (ctx == EGL_NO_CONTEXT || record)) {
        offloaded->mWorker->postSync([] {}, "eglMakeCurrent");
        if (android::attachedContext() == offloaded) KAMManager::INSTANCE->makeCurrentPost(nullptr);
    }
    const bool workerBusy = KAMManager::INSTANCE->mWorkerRunning.load();
    EGLBoolean ok = tableEntry<kam_pfn_eglMakeCurrent>(android::kEgl_eglMakeCurrent)(dpy, draw, read, ctx);
    if (ctx == EGL_NO_CONTEXT || record) KAMManager::INSTANCE->makeCurrentPost(record);
    if (ok && (ctx == EGL_NO_CONTEXT || record)) setAppContext(record);
    // A program that destroys its current context and makes the next one
    // current on the same window (one context per scene) lets the old one's
    // worker go only here, after the layer was asked about the new one: the
    // layer is asked again, or a context made current once would never be
    // offloaded.
    if (ok && record && workerBusy && !KAMManager::INSTANCE->mWorkerRunning.load() &&
        static_cast<ContextRec*>(record)->kamContext == nullptr)
        KAMManager::INSTANCE->makeCurrentPre(record, liveSurface(draw));
    return ok;
}
}  // namespace

extern "C" {

// EGL keeps the thread's binding when eglMakeCurrent fails, but the layer's
// hooks have let go of it by the time the driver refuses: the old binding is
// made current again the same way, and the failure's error kept for the
// application.
KAM_PUBLIC EGLBoolean eglMakeCurrent(EGLDisplay dpy, EGLSurface draw, EGLSurface read, EGLContext ctx) {
    ensureInit();
    // The binding the application sees (the layer answers these while the
    // thread is offloaded and its own placeholder is what is bound here).
    EGLContext oldContext = tableEntry<kam_pfn_eglGetCurrentContext>(android::kEgl_eglGetCurrentContext)();
    EGLSurface oldDraw = tableEntry<kam_pfn_eglGetCurrentSurface>(android::kEgl_eglGetCurrentSurface)(EGL_DRAW);
    EGLSurface oldRead = tableEntry<kam_pfn_eglGetCurrentSurface>(android::kEgl_eglGetCurrentSurface)(EGL_READ);
    EGLBoolean ok = makeCurrentWithHooks(dpy, draw, read, ctx);
    if (ok) return ok;
    EGLint error = tableEntry<kam_pfn_eglGetError>(android::kEgl_eglGetError)();
    auto* old = static_cast<ContextRec*>(liveContext(oldContext));
    if (old || oldContext == EGL_NO_CONTEXT)
        makeCurrentWithHooks(old ? old->display : dpy, oldDraw, oldRead, oldContext);
    tPendingError = error;
    return ok;
}

KAM_PUBLIC EGLint eglGetError(void) {
    EGLint pending = tPendingError;  // before ensureInit clears it
    ensureInit();
    EGLint error = tableEntry<kam_pfn_eglGetError>(android::kEgl_eglGetError)();
    return pending != EGL_SUCCESS ? pending : error;
}

// The frame boundary comes before the swap is queued: the application thread
// waits for the frame's commands, then hands the swap to the worker and goes
// on with the next frame while the driver presents.
KAM_PUBLIC EGLBoolean eglSwapBuffers(EGLDisplay dpy, EGLSurface surface) {
    ensureInit();
    KAMManager::INSTANCE->swapBuffers();
    return tableEntry<kam_pfn_eglSwapBuffers>(android::kEgl_eglSwapBuffers)(dpy, surface);
}

KAM_PUBLIC EGLBoolean eglSwapBuffersWithDamageKHR(EGLDisplay dpy, EGLSurface surface, EGLint* rects, EGLint n) {
    ensureInit();
    KAMManager::INSTANCE->swapBuffers();
    return tableEntry<kam_pfn_eglSwapBuffersWithDamageKHR>(android::kEgl_eglSwapBuffersWithDamageKHR)(dpy, surface,
                                                                                                      rects, n);
}

KAM_PUBLIC EGLBoolean eglDestroyContext(EGLDisplay dpy, EGLContext ctx) {
    ensureInit();
    EGLBoolean ok = tableEntry<kam_pfn_eglDestroyContext>(android::kEgl_eglDestroyContext)(dpy, ctx);
    releaseLayerContexts();
    return ok;
}

// Releasing the thread releases its context first, the way eglMakeCurrent
// does: an offloaded thread's worker is drained before the application can
// destroy the window.
KAM_PUBLIC EGLBoolean eglReleaseThread(void) {
    ensureInit();
    if (tState.context) makeCurrentWithHooks(tState.context->display, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
    kam_platform_gl_slot = kam_platform_no_context_table;
    EGLBoolean ok = tableEntry<kam_pfn_eglReleaseThread>(android::kEgl_eglReleaseThread)();
    KAMManager::INSTANCE->makeCurrentPost(nullptr);
    return ok;
}

KAM_PUBLIC EGLDisplay eglGetPlatformDisplayEXT(EGLenum platform, void* native, const EGLint* attribs) {
    return extGetPlatformDisplay(platform, native, attribs);
}

KAM_PUBLIC EGLSurface eglCreatePlatformWindowSurfaceEXT(EGLDisplay dpy, EGLConfig config, void* window,
                                                        const EGLint* attribs) {
    return extCreatePlatformWindowSurface(dpy, config, window, attribs);
}

KAM_PUBLIC EGLSurface eglCreatePlatformPixmapSurfaceEXT(EGLDisplay dpy, EGLConfig config, void* pixmap,
                                                        const EGLint* attribs) {
    return extCreatePlatformPixmapSurface(dpy, config, pixmap, attribs);
}

KAM_PUBLIC void kam_platform_update_mtr(int flags) {
    ensureInit();
    KAMManager::INSTANCE->updateMTR(flags);
}

// Called by the preloaded X window guard just before a window is destroyed:
// every offloaded context whose surface is on that window has its worker
// drained. Only a context's own thread posts to its worker, or, once that
// thread has let go of the context (released it, or ended while it was
// current), whichever thread destroys the window; a context current on
// another live thread is that thread's business.
KAM_PUBLIC void kam_platform_native_window_destroyed(unsigned long window) {
    std::vector<android::sp<android::KAMContext>> drain;
    {
        std::lock_guard<std::mutex> guard(gLock);
        for (const void* handle : gContexts) {
            auto* r = static_cast<ContextRec*>(const_cast<void*>(handle));
            SurfaceRec* d = findSurface(r->draw);
            if (r->kamContext == nullptr || r->kamContext->mWorker == nullptr || !d ||
                d->nativeWindow != reinterpret_cast<void*>(window))
                continue;
            if (tState.context == r || r->boundThreads == 0) drain.push_back(r->kamContext);
        }
    }
    for (auto& c : drain) c->mWorker->postSync([] {}, "XDestroyWindow");
}

KAM_PUBLIC void kam_platform_record_counts(int* contexts, int* surfaces) {
    std::lock_guard<std::mutex> guard(gLock);
    if (contexts) *contexts = gContextRecords;
    if (surfaces) *surfaces = gSurfaceRecords;
}

KAM_PUBLIC int kam_platform_thread_offloaded(void) {
    return android::activeContext() != nullptr;
}

}  // extern "C"
