// kam-lifecycle-app: what an application may do to its contexts and threads
// while a layer has its GL calls offloaded, one scenario after another in one
// process: destroy the context from the owning thread or from another one,
// let the render thread exit while attached, release the context and take it
// back, make a second context current on the same thread; and two kinds of
// rendering a layer must leave alone (a pbuffer-only context, a thread named
// "RenderThread").
//
// Every scenario that wants offload renders until the calling thread is
// offloaded (the host platform's kam_platform_thread_offloaded), then does
// its fault, and rendering afterwards is checked pixel by pixel. The layer's
// log is taken over (this program defines __android_log_print) so that each
// scenario checks the messages it must and must not produce. Directly on the
// driver the same scenarios run without waiting and without log checks.
//
// Prints "PASS name" or "FAIL name: why" per scenario, then the thread count
// before the first and after the last context (for the caller to compare with
// a direct run) and, through a layer's host platform, the EGL records left.

#include <EGL/egl.h>
#include <EGL/eglext.h>
#include <GLES3/gl32.h>
#include <dirent.h>
#include <dlfcn.h>
#include <sys/prctl.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "gles_window.h"

#include <X11/Xutil.h>

using namespace glesapp;

namespace {

std::mutex gLogLock;
std::vector<std::string> gLog;  // "P text" of the layer's lines, P the priority

}  // namespace

// The layer's log comes here instead of liblog's stderr writer; every line is
// still shown.
extern "C" __attribute__((visibility("default"))) int __android_log_print(int prio, const char *tag, const char *fmt,
                                                                          ...) {
    char text[1024];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(text, sizeof text, fmt, ap);
    va_end(ap);
    std::fprintf(stderr, "%s %d %s\n", tag ? tag : "", prio, text);
    if (tag && std::strcmp(tag, "_V_KAM") == 0) {
        std::lock_guard<std::mutex> guard(gLogLock);
        gLog.push_back(std::to_string(prio) + " " + text);
    }
    return 1;
}

namespace {

constexpr int kSize = 64;
constexpr int kError = 6;  // ANDROID_LOG_ERROR

using OffloadedFn = int (*)();
using RecordCountsFn = void (*)(int *, int *);
OffloadedFn gOffloaded = nullptr;  // null: no layer, nothing to wait for

struct Env {
    Display *xdpy = nullptr;
    EGLDisplay dpy = EGL_NO_DISPLAY;
    EGLConfig windowConfig = nullptr;
    EGLConfig pbufferConfig = nullptr;
    Window win = 0;
};
Env gEnv;
// How frames are presented; scenarios may use another presenting call.
EGLBoolean (*gPresent)(EGLDisplay, EGLSurface) = eglSwapBuffers;

struct Failure {
    std::mutex lock;
    std::string why;
    void set(const std::string &w) {
        std::lock_guard<std::mutex> g(lock);
        if (why.empty())
            why = w;
    }
} gFailure;

double now_seconds() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

int thread_count() {
    DIR *d = opendir("/proc/self/task");
    if (!d)
        return -1;
    int n = 0;
    while (dirent *e = readdir(d))
        if (e->d_name[0] != '.')
            ++n;
    closedir(d);
    return n;
}

bool offloaded() { return gOffloaded && gOffloaded() != 0; }

EGLContext new_context() {
    static const EGLint attribs[] = {EGL_CONTEXT_CLIENT_VERSION, 3, EGL_NONE};
    EGLContext c = eglCreateContext(gEnv.dpy, gEnv.windowConfig, EGL_NO_CONTEXT, attribs);
    if (c == EGL_NO_CONTEXT)
        gFailure.set("eglCreateContext failed");
    return c;
}

EGLSurface new_window_surface() {
    EGLSurface s = eglCreateWindowSurface(gEnv.dpy, gEnv.windowConfig, static_cast<EGLNativeWindowType>(gEnv.win),
                                          nullptr);
    if (s == EGL_NO_SURFACE)
        gFailure.set("eglCreateWindowSurface failed");
    return s;
}

bool make_current(EGLSurface s, EGLContext c) {
    if (eglMakeCurrent(gEnv.dpy, s, s, c))
        return true;
    gFailure.set("eglMakeCurrent failed");
    return false;
}

// A frame whose pixels are known exactly: the left half one colour (b), the
// right half another (a), both chosen by the frame's seed.
void frame_colours(uint32_t seed, uint8_t a[3], uint8_t b[3]) {
    const uint8_t ca[3] = {static_cast<uint8_t>(51 * (seed % 5)), 102, static_cast<uint8_t>(255 - 51 * (seed % 3))};
    const uint8_t cb[3] = {204, static_cast<uint8_t>(51 * (seed % 4)), 0};
    std::memcpy(a, ca, 3);
    std::memcpy(b, cb, 3);
}

std::atomic<uint32_t> gLastSeed{0};

bool known_frame(EGLSurface s, uint32_t seed) {
    uint8_t a[3], b[3];
    frame_colours(seed, a, b);
    gLastSeed = seed;
    glViewport(0, 0, kSize, kSize);
    glDisable(GL_SCISSOR_TEST);
    glClearColor(a[0] / 255.0f, a[1] / 255.0f, a[2] / 255.0f, 1.0f);
    glClear(GL_COLOR_BUFFER_BIT);
    glEnable(GL_SCISSOR_TEST);
    glScissor(0, 0, kSize / 2, kSize);
    glClearColor(b[0] / 255.0f, b[1] / 255.0f, b[2] / 255.0f, 1.0f);
    glClear(GL_COLOR_BUFFER_BIT);
    glDisable(GL_SCISSOR_TEST);
    uint8_t px[kSize * 4];
    glPixelStorei(GL_PACK_ALIGNMENT, 4);
    glReadPixels(0, kSize / 2, kSize, 1, GL_RGBA, GL_UNSIGNED_BYTE, px);
    for (int x = 0; x < kSize; ++x) {
        const uint8_t *want = x < kSize / 2 ? b : a;
        const uint8_t *got = px + 4 * x;
        if (got[0] != want[0] || got[1] != want[1] || got[2] != want[2] || got[3] != 255) {
            char why[160];
            std::snprintf(why, sizeof why, "frame %u: pixel %d is %d,%d,%d,%d, expected %d,%d,%d,255", seed, x,
                          got[0], got[1], got[2], got[3], want[0], want[1], want[2]);
            gFailure.set(why);
            return false;
        }
    }
    if (!gPresent(gEnv.dpy, s)) {
        gFailure.set("eglSwapBuffers failed");
        return false;
    }
    return true;
}

bool frames(EGLSurface s, int n) {
    static std::atomic<uint32_t> seed{0};
    for (int i = 0; i < n; ++i)
        if (!known_frame(s, seed++))
            return false;
    return true;
}

// Renders until the layer has offloaded this thread (it measures the frame
// rate for a few seconds first).
bool until_offloaded(EGLSurface s) {
    if (!gOffloaded)
        return frames(s, 20);
    const double t0 = now_seconds();
    while (!offloaded()) {
        if (!frames(s, 1))
            return false;
        if (now_seconds() - t0 > 20) {
            gFailure.set("offload never became active");
            return false;
        }
    }
    return frames(s, 10);
}

// Renders for a while on a thread or context the layer must not offload.
bool never_offloaded(EGLSurface s) {
    const double t0 = now_seconds();
    do {
        if (!frames(s, 1))
            return false;
        if (offloaded()) {
            gFailure.set("the thread was offloaded");
            return false;
        }
    } while (gOffloaded && now_seconds() - t0 < 4.5);
    return true;
}

// Rendering on a fresh context of the calling thread is still right.
bool fresh_context_renders() {
    EGLContext c = new_context();
    EGLSurface s = new_window_surface();
    bool ok = c != EGL_NO_CONTEXT && s != EGL_NO_SURFACE && make_current(s, c) && frames(s, 5);
    eglMakeCurrent(gEnv.dpy, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
    eglDestroySurface(gEnv.dpy, s);
    eglDestroyContext(gEnv.dpy, c);
    return ok;
}

// A context destroyed while current stays usable until it is released,
// though the driver no longer presents with it.
bool frames_without_swap(EGLSurface s, int n) {
    gPresent = [](EGLDisplay, EGLSurface) -> EGLBoolean { return EGL_TRUE; };
    const bool ok = frames(s, n);
    gPresent = eglSwapBuffers;
    return ok;
}

void on_thread(const char *name, const std::function<void()> &body) {
    std::thread([&] {
        prctl(PR_SET_NAME, name, 0, 0, 0);
        body();
    }).join();
}

// ---- the scenarios ----

void destroy_from_owner() {
    on_thread("lc-owner", [] {
        EGLContext c = new_context();
        EGLSurface s = new_window_surface();
        if (!make_current(s, c) || !until_offloaded(s))
            return;
        eglDestroyContext(gEnv.dpy, c);  // still current
        frames_without_swap(s, 10);
        eglMakeCurrent(gEnv.dpy, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
        eglDestroySurface(gEnv.dpy, s);
        fresh_context_renders();
        eglReleaseThread();
    });
}

void destroy_from_other_thread() {
    std::promise<EGLContext> ready;
    std::promise<void> destroyed;
    std::future<void> destroyedDone = destroyed.get_future();
    std::thread owner([&] {
        prctl(PR_SET_NAME, "lc-victim", 0, 0, 0);
        EGLContext c = new_context();
        EGLSurface s = new_window_surface();
        const bool ok = make_current(s, c) && until_offloaded(s);
        ready.set_value(ok ? c : EGL_NO_CONTEXT);
        destroyedDone.wait();
        if (ok)
            frames_without_swap(s, 10);
        eglMakeCurrent(gEnv.dpy, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
        eglDestroySurface(gEnv.dpy, s);
        if (ok)
            fresh_context_renders();
        eglReleaseThread();
        if (!ok)
            eglDestroyContext(gEnv.dpy, c);
    });
    EGLContext c = ready.get_future().get();
    if (c != EGL_NO_CONTEXT)
        eglDestroyContext(gEnv.dpy, c);
    destroyed.set_value();
    owner.join();
}

void thread_exits_while_attached() {
    EGLContext c = EGL_NO_CONTEXT;
    EGLSurface s = EGL_NO_SURFACE;
    on_thread("lc-exit", [&] {
        c = new_context();
        s = new_window_surface();
        if (make_current(s, c))
            until_offloaded(s);
        // Ends with the context current and offloaded.
    });
    // The thread's record reported the context it held as it went.
    char held[64];
    std::snprintf(held, sizeof held, "EGLContext= %p", c);
    bool reported = !gOffloaded;
    {
        std::lock_guard<std::mutex> guard(gLogLock);
        for (const std::string &l : gLog)
            reported = reported || (l.find("onThreadReleased:[<lc-exit>,") != std::string::npos &&
                                    l.find(held) != std::string::npos);
    }
    if (!reported)
        gFailure.set(std::string("the exiting thread did not report ") + held);
    eglDestroySurface(gEnv.dpy, s);
    eglDestroyContext(gEnv.dpy, c);
    on_thread("lc-after-exit", [] {
        fresh_context_renders();
        eglReleaseThread();
    });
}

void release_and_take_back() {
    on_thread("lc-release", [] {
        EGLContext c = new_context();
        EGLSurface s = new_window_surface();
        if (make_current(s, c) && until_offloaded(s)) {
            eglMakeCurrent(gEnv.dpy, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
            if (offloaded())
                gFailure.set("offloaded without a current context");
            if (make_current(s, c)) {
                if (gOffloaded && !offloaded())
                    gFailure.set("not offloaded again after taking the context back");
                frames(s, 30);
            }
        }
        eglMakeCurrent(gEnv.dpy, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
        eglDestroySurface(gEnv.dpy, s);
        eglDestroyContext(gEnv.dpy, c);
        eglReleaseThread();
    });
}

// Each context keeps its own viewport: after switching, the one in effect
// must be the current context's, whichever thread executes the calls.
bool viewport_is(int x, const char *when) {
    GLint v[4] = {-1, -1, -1, -1};
    glGetIntegerv(GL_VIEWPORT, v);
    if (v[0] == x)
        return true;
    gFailure.set(std::string("wrong context's state ") + when + ": viewport x=" + std::to_string(v[0]) +
                 ", expected " + std::to_string(x));
    return false;
}

bool frames_keeping_viewport(EGLSurface s, int n, int x) {
    for (int i = 0; i < n; ++i) {
        if (!frames(s, 1))
            return false;
        glViewport(x, 0, kSize, kSize);
    }
    return true;
}

// The window surface stays with the offloaded context (its worker has it
// current), so the second context draws to a pbuffer of its own.
void second_context_same_thread() {
    on_thread("lc-second", [] {
        static const EGLint attribs[] = {EGL_WIDTH, kSize, EGL_HEIGHT, kSize, EGL_NONE};
        EGLContext c1 = new_context();
        EGLContext c2 = new_context();
        EGLSurface s = new_window_surface();
        EGLSurface p = eglCreatePbufferSurface(gEnv.dpy, gEnv.windowConfig, attribs);
        if (p == EGL_NO_SURFACE)
            gFailure.set("no pbuffer for the second context");
        else if (make_current(s, c1) && until_offloaded(s)) {
            glViewport(1, 0, kSize, kSize);
            if (make_current(p, c2)) {
                if (offloaded())
                    gFailure.set("the second context is offloaded");
                glViewport(2, 0, kSize, kSize);
                frames_keeping_viewport(p, 10, 2) && viewport_is(2, "on the second context");
            }
            if (make_current(s, c1) && viewport_is(1, "back on the first context"))
                frames_keeping_viewport(s, 10, 1) && viewport_is(1, "after frames on the first context");
            if (gOffloaded && !offloaded())
                gFailure.set("not offloaded again back on the first context");
            if (make_current(p, c2))
                viewport_is(2, "on the second context again");
        }
        eglMakeCurrent(gEnv.dpy, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
        eglDestroySurface(gEnv.dpy, p);
        eglDestroySurface(gEnv.dpy, s);
        eglDestroyContext(gEnv.dpy, c2);
        eglDestroyContext(gEnv.dpy, c1);
        eglReleaseThread();
    });
}

// Start-up work on another context's pbuffer (a loading screen, shader
// warm-up) after the window context's first frames: those frames are not the
// window context's, and destroying that one meanwhile leaves nothing behind.
void pbuffer_during_startup() {
    on_thread("lc-warmup", [] {
        static const EGLint attribs[] = {EGL_WIDTH, kSize, EGL_HEIGHT, kSize, EGL_NONE};
        EGLContext c1 = new_context();
        EGLContext c2 = new_context();
        EGLSurface s = new_window_surface();
        EGLSurface p = eglCreatePbufferSurface(gEnv.dpy, gEnv.windowConfig, attribs);
        if (p == EGL_NO_SURFACE)
            gFailure.set("no pbuffer for the start-up context");
        else if (make_current(s, c1) && frames(s, 3) && make_current(p, c2) && frames(p, 3)) {
            eglDestroySurface(gEnv.dpy, s);
            eglDestroyContext(gEnv.dpy, c1);
            s = EGL_NO_SURFACE;
            c1 = EGL_NO_CONTEXT;
            never_offloaded(p);
        }
        eglMakeCurrent(gEnv.dpy, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
        eglDestroySurface(gEnv.dpy, p);
        if (s != EGL_NO_SURFACE)
            eglDestroySurface(gEnv.dpy, s);
        if (c1 != EGL_NO_CONTEXT)
            eglDestroyContext(gEnv.dpy, c1);
        eglDestroyContext(gEnv.dpy, c2);
        eglReleaseThread();
    });
}

void pbuffer_only() {
    on_thread("lc-pbuffer", [] {
        static const EGLint attribs[] = {EGL_WIDTH, kSize, EGL_HEIGHT, kSize, EGL_NONE};
        static const EGLint ctxAttribs[] = {EGL_CONTEXT_CLIENT_VERSION, 3, EGL_NONE};
        EGLSurface s = eglCreatePbufferSurface(gEnv.dpy, gEnv.pbufferConfig, attribs);
        EGLContext c = eglCreateContext(gEnv.dpy, gEnv.pbufferConfig, EGL_NO_CONTEXT, ctxAttribs);
        if (s == EGL_NO_SURFACE || c == EGL_NO_CONTEXT)
            gFailure.set("no pbuffer context");
        else if (make_current(s, c))
            never_offloaded(s);
        eglMakeCurrent(gEnv.dpy, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
        eglDestroySurface(gEnv.dpy, s);
        eglDestroyContext(gEnv.dpy, c);
        eglReleaseThread();
    });
}

void render_thread() {
    on_thread("RenderThread", [] {
        EGLContext c = new_context();
        EGLSurface s = new_window_surface();
        if (make_current(s, c))
            never_offloaded(s);
        eglMakeCurrent(gEnv.dpy, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
        eglDestroySurface(gEnv.dpy, s);
        eglDestroyContext(gEnv.dpy, c);
        eglReleaseThread();
    });
}

// Extension entry points taken by name get the same handles as the core
// ones, and a swap with damage is a frame like any other.
PFNEGLSWAPBUFFERSWITHDAMAGEEXTPROC gSwapWithDamage;
EGLBoolean swap_with_damage(EGLDisplay dpy, EGLSurface s) {
    EGLint rect[4] = {0, 0, kSize, kSize};
    return gSwapWithDamage(dpy, s, rect, 1);
}

void present_with_damage() {
    on_thread("lc-damage", [] {
        gSwapWithDamage = reinterpret_cast<PFNEGLSWAPBUFFERSWITHDAMAGEEXTPROC>(
            eglGetProcAddress("eglSwapBuffersWithDamageEXT"));
        auto label = reinterpret_cast<PFNEGLLABELOBJECTKHRPROC>(eglGetProcAddress("eglLabelObjectKHR"));
        EGLContext c = new_context();
        EGLSurface s = new_window_surface();
        if (!gSwapWithDamage || !label) {
            gFailure.set("no eglSwapBuffersWithDamageEXT or eglLabelObjectKHR");
        } else if (make_current(s, c)) {
            if (label(gEnv.dpy, EGL_OBJECT_CONTEXT_KHR, c, nullptr) != EGL_SUCCESS ||
                label(gEnv.dpy, EGL_OBJECT_SURFACE_KHR, s, nullptr) != EGL_SUCCESS)
                gFailure.set("eglLabelObjectKHR refused the context or the surface");
            gPresent = swap_with_damage;
            until_offloaded(s) && frames(s, 30);
            gPresent = eglSwapBuffers;
        }
        eglMakeCurrent(gEnv.dpy, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
        eglDestroySurface(gEnv.dpy, s);
        eglDestroyContext(gEnv.dpy, c);
        eglReleaseThread();
    });
}

// A make-current that fails leaves the thread's binding as it was.
void failed_make_current() {
    on_thread("lc-badmc", [] {
        EGLContext c = new_context();
        EGLContext other = new_context();
        EGLSurface s = new_window_surface();
        EGLSurface bad = reinterpret_cast<EGLSurface>(static_cast<uintptr_t>(0x4b4b4b40));
        if (make_current(s, c) && until_offloaded(s)) {
            if (eglMakeCurrent(gEnv.dpy, bad, bad, other))
                gFailure.set("eglMakeCurrent took a bad surface");
            else if (eglGetError() != EGL_BAD_SURFACE)
                gFailure.set("a bad surface did not give EGL_BAD_SURFACE");
            else if (eglGetCurrentContext() != c || eglGetCurrentSurface(EGL_DRAW) != s)
                gFailure.set("the failed eglMakeCurrent changed the current context");
            else if (gOffloaded && !offloaded())
                gFailure.set("not offloaded after the failed eglMakeCurrent");
            frames(s, 10);
        }
        eglMakeCurrent(gEnv.dpy, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
        eglDestroySurface(gEnv.dpy, s);
        eglDestroyContext(gEnv.dpy, other);
        eglDestroyContext(gEnv.dpy, c);
        eglReleaseThread();
    });
}

// GL calls without a current context answer zero, whatever they return.
bool zeros_without_context(const char *when) {
    const uint64_t got[] = {glGetError(),
                            glCreateShader(GL_VERTEX_SHADER),
                            glCreateProgram(),
                            glIsEnabled(GL_BLEND),
                            static_cast<uint64_t>(glGetUniformLocation(1, "u")),
                            glCheckFramebufferStatus(GL_FRAMEBUFFER),
                            reinterpret_cast<uintptr_t>(glMapBufferRange(GL_ARRAY_BUFFER, 0, 4, GL_MAP_READ_BIT)),
                            glIsBuffer(1)};
    for (size_t i = 0; i < sizeof got / sizeof got[0]; ++i)
        if (got[i] != 0) {
            gFailure.set(std::string("call ") + std::to_string(i) + " " + when + " returned " + std::to_string(got[i]));
            return false;
        }
    return true;
}

void calls_without_context() {
    on_thread("lc-nocontext", [] {
        EGLContext c = new_context();
        EGLSurface s = new_window_surface();
        if (zeros_without_context("before any context") && make_current(s, c) && frames(s, 1)) {
            eglMakeCurrent(gEnv.dpy, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
            zeros_without_context("after releasing the context");
        }
        eglDestroySurface(gEnv.dpy, s);
        eglDestroyContext(gEnv.dpy, c);
        eglReleaseThread();
    });
}

// ---- windows that go away ----

// A window of its own, on top of the shared one, with the same visual.
Window new_window() {
    XWindowAttributes wa{};
    XGetWindowAttributes(gEnv.xdpy, gEnv.win, &wa);
    XSetWindowAttributes swa{};
    swa.colormap = wa.colormap;
    Window w = XCreateWindow(gEnv.xdpy, DefaultRootWindow(gEnv.xdpy), 0, 0, kSize, kSize, 0, wa.depth, InputOutput,
                             wa.visual, CWColormap | CWBackPixel | CWBorderPixel, &swa);
    XMapRaised(gEnv.xdpy, w);
    XSync(gEnv.xdpy, False);
    return w;
}

// The X server shows the last frame the application presented in w.
// The driver's image reaches the X server on its own connection, so ours may
// ask before the server has taken it: look until it shows, for a while.
bool window_shows_last_frame(Window w, const char *when) {
    uint8_t a[3], b[3];
    frame_colours(gLastSeed, a, b);
    auto rgb = [](const uint8_t *c) { return (unsigned long)c[0] << 16 | (unsigned long)c[1] << 8 | c[2]; };
    for (int tries = 0; tries < 200; ++tries) {
        XSync(gEnv.xdpy, False);
        XImage *img = XGetImage(gEnv.xdpy, w, 0, 0, kSize, kSize, AllPlanes, ZPixmap);
        if (!img) {
            gFailure.set("XGetImage failed");
            return false;
        }
        const unsigned long left = XGetPixel(img, 0, kSize / 2), right = XGetPixel(img, kSize - 1, kSize / 2);
        XDestroyImage(img);
        if ((left & 0xffffff) == rgb(b) && (right & 0xffffff) == rgb(a))
            return true;
        usleep(50000);
    }
    gFailure.set(std::string("the window does not show the last frame ") + when);
    return false;
}

// eglReleaseThread on an offloaded thread: the last frame is on the screen
// when it returns, so the window may go at once.
void release_thread_then_window_gone() {
    on_thread("lc-relthread", [] {
        Window w = new_window();
        EGLContext c = new_context();
        EGLSurface s = eglCreateWindowSurface(gEnv.dpy, gEnv.windowConfig, static_cast<EGLNativeWindowType>(w), nullptr);
        if (make_current(s, c) && until_offloaded(s)) {
            eglReleaseThread();
            window_shows_last_frame(w, "after eglReleaseThread");
        }
        XDestroyWindow(gEnv.xdpy, w);
        eglDestroySurface(gEnv.dpy, s);
        eglDestroyContext(gEnv.dpy, c);
        eglReleaseThread();
    });
}

// The render thread ends while its context is current and offloaded; the
// main thread destroys the window, then the surface and the context. What
// the platform does just before a window goes (kam-run's X window guard
// calls it from XDestroyWindow) puts the last frame on the screen first.
using WindowGoingFn = void (*)(unsigned long);
WindowGoingFn gWindowGoing = nullptr;

void render_thread_gone_window_gone() {
    Window w = new_window();
    EGLContext c = EGL_NO_CONTEXT;
    EGLSurface s = EGL_NO_SURFACE;
    on_thread("lc-gone", [&] {
        c = new_context();
        s = eglCreateWindowSurface(gEnv.dpy, gEnv.windowConfig, static_cast<EGLNativeWindowType>(w), nullptr);
        if (make_current(s, c))
            until_offloaded(s);
    });
    if (gWindowGoing) {
        gWindowGoing(w);
        window_shows_last_frame(w, "when it is destroyed");
    }
    XDestroyWindow(gEnv.xdpy, w);
    eglDestroySurface(gEnv.dpy, s);
    eglDestroyContext(gEnv.dpy, c);
}

// Holds the worker in the driver's debug callback (a recorded call that
// fails) until the thread has switched to the other context, or for a second
// at most.
std::atomic<bool> gSwitched{false}, gHeld{false};
void GL_APIENTRY hold_worker(GLenum, GLenum, GLuint, GLenum, GLsizei, const GLchar *, const void *) {
    for (int i = 0; i < 100 && !gSwitched; ++i)
        usleep(10000);
    gHeld = true;
}

// From the offloaded context to another window context the layer measured
// before: the first context's queue is drained when the switch returns (it
// may hold the last swap, and the application may destroy that window next).
void second_window_context() {
    on_thread("lc-window2", [] {
        Window w = new_window();
        EGLContext c1 = new_context();
        EGLContext c2 = new_context();
        EGLSurface s1 = eglCreateWindowSurface(gEnv.dpy, gEnv.windowConfig, static_cast<EGLNativeWindowType>(w), nullptr);
        EGLSurface s2 = new_window_surface();
        gSwitched = gHeld = false;
        if (make_current(s2, c2) && frames(s2, 2) && make_current(s1, c1) && until_offloaded(s1)) {
            glEnable(GL_DEBUG_OUTPUT);
            glDebugMessageCallback(hold_worker, nullptr);
            frames(s1, 1);
            glLineWidth(-1.0f);
            if (make_current(s2, c2)) {
                if (gOffloaded && !gHeld)
                    gFailure.set("the first context's queue was not drained by the switch");
                window_shows_last_frame(w, "after switching to the other window context");
                gSwitched = true;
                frames(s2, 5);
            }
        }
        gSwitched = true;
        eglMakeCurrent(gEnv.dpy, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
        XDestroyWindow(gEnv.xdpy, w);
        eglDestroySurface(gEnv.dpy, s1);
        eglDestroySurface(gEnv.dpy, s2);
        eglDestroyContext(gEnv.dpy, c1);
        eglDestroyContext(gEnv.dpy, c2);
        eglReleaseThread();
    });
}

struct Scenario {
    const char *name;
    void (*run)();
    bool offloads;                           // offload must start (once) in it
    std::vector<const char *> must;          // layer messages it must log ("E " prefix: at error priority)
    std::vector<const char *> mustNot;       // and must not
};

const Scenario kScenarios[] = {
    {"destroy-from-owner", destroy_from_owner, true, {"KAMContext is released EGLContext="},
     {"is stopped", "Releasing a EGLContext"}},
    {"destroy-from-other-thread", destroy_from_other_thread, true, {"KAMContext is released EGLContext="},
     {"is stopped", "Releasing a EGLContext"}},
    {"thread-exits-while-attached", thread_exits_while_attached, true,
     {"onThreadReleased:[<lc-exit>,", "KAMContext is released EGLContext="},
     {"Releasing a EGLContext", "is stopped"}},
    {"release-and-take-back", release_and_take_back, true, {}, {"is stopped", "Releasing a EGLContext"}},
    {"second-context-same-thread", second_context_same_thread, true,
     {"<lc-second> EGLContext is changed"},
     {"Releasing a EGLContext"}},
    {"second-window-context", second_window_context, true, {"<lc-window2> EGLContext is changed"},
     {"is stopped", "Releasing a EGLContext"}},
    {"pbuffer-during-start-up", pbuffer_during_startup, false,
     {"<lc-warmup> EGLContext is changed", "KAMContext is released EGLContext="},
     {"Releasing a EGLContext"}},
    {"present-with-damage", present_with_damage, true, {}, {"is stopped"}},
    {"failed-make-current", failed_make_current, true, {}, {"is stopped", "Releasing a EGLContext"}},
    {"calls-without-context", calls_without_context, false, {}, {}},
    {"release-thread-then-window-gone", release_thread_then_window_gone, true, {}, {"is stopped"}},
    {"render-thread-gone-window-gone", render_thread_gone_window_gone, true, {}, {"is stopped"}},
    {"pbuffer-only-context", pbuffer_only, false, {}, {"RenderThread is marked"}},
    {"thread-named-RenderThread", render_thread, false, {"iniTLS <RenderThread> skip=1"},
     {"RenderThread is marked"}},
};

int count_in(const std::vector<std::string> &lines, const char *what) {
    bool error = std::strncmp(what, "E ", 2) == 0;
    const char *text = error ? what + 2 : what;
    int n = 0;
    for (const std::string &l : lines)
        if (l.find(text) != std::string::npos && (!error || l.compare(0, 2, std::to_string(kError) + " ") == 0))
            ++n;
    return n;
}

bool choose_pbuffer_config() {
    const EGLint attribs[] = {EGL_SURFACE_TYPE, EGL_PBUFFER_BIT, EGL_RENDERABLE_TYPE, EGL_OPENGL_ES3_BIT,
                              EGL_RED_SIZE, 8, EGL_GREEN_SIZE, 8, EGL_BLUE_SIZE, 8, EGL_ALPHA_SIZE, 8, EGL_NONE};
    EGLint n = 0;
    if (!eglChooseConfig(gEnv.dpy, attribs, nullptr, 0, &n) || n <= 0)
        return false;
    std::vector<EGLConfig> configs(static_cast<size_t>(n));
    if (!eglChooseConfig(gEnv.dpy, attribs, configs.data(), n, &n))
        return false;
    for (EGLint i = 0; i < n; ++i) {
        EGLint r = 0, g = 0, b = 0, a = 0;
        eglGetConfigAttrib(gEnv.dpy, configs[i], EGL_RED_SIZE, &r);
        eglGetConfigAttrib(gEnv.dpy, configs[i], EGL_GREEN_SIZE, &g);
        eglGetConfigAttrib(gEnv.dpy, configs[i], EGL_BLUE_SIZE, &b);
        eglGetConfigAttrib(gEnv.dpy, configs[i], EGL_ALPHA_SIZE, &a);
        if (r == 8 && g == 8 && b == 8 && a == 8) {
            gEnv.pbufferConfig = configs[i];
            return true;
        }
    }
    return false;
}

}  // namespace

int main() {
    const int threads_before = thread_count();
    Platform plat;
    const bool up = setup_platform(&plat, {"kam-lifecycle-app", kSize, kSize, false});
    gEnv.dpy = plat.dpy;
    gEnv.xdpy = plat.xdpy;
    if (!up || !choose_pbuffer_config()) {
        std::fprintf(stderr, "kam-lifecycle-app: no window or no RGBA8 pbuffer config\n");
        teardown_platform(&plat);
        return 1;
    }
    // The scenarios make their own contexts and surfaces on the window.
    eglMakeCurrent(plat.dpy, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
    eglDestroySurface(plat.dpy, plat.surf);
    eglDestroyContext(plat.dpy, plat.ctx);
    plat.surf = EGL_NO_SURFACE;
    plat.ctx = EGL_NO_CONTEXT;
    gEnv.windowConfig = plat.config;
    gEnv.win = plat.win;
    gOffloaded = reinterpret_cast<OffloadedFn>(dlsym(RTLD_DEFAULT, "kam_platform_thread_offloaded"));
    gWindowGoing = reinterpret_cast<WindowGoingFn>(dlsym(RTLD_DEFAULT, "kam_platform_native_window_destroyed"));
    auto record_counts = reinterpret_cast<RecordCountsFn>(dlsym(RTLD_DEFAULT, "kam_platform_record_counts"));

    int failed = 0;
    for (const Scenario &sc : kScenarios) {
        size_t from = 0;
        {
            std::lock_guard<std::mutex> guard(gLogLock);
            from = gLog.size();
        }
        std::fprintf(stderr, "kam-lifecycle-app: --- %s\n", sc.name);
        gFailure.why.clear();
        sc.run();
        std::string why = gFailure.why;
        if (why.empty() && gOffloaded) {
            std::vector<std::string> lines;
            {
                std::lock_guard<std::mutex> guard(gLogLock);
                lines.assign(gLog.begin() + static_cast<long>(from), gLog.end());
            }
            const int starts = count_in(lines, "KAMWorker started -> ");
            if (starts != (sc.offloads ? 1 : 0))
                why = "offload started " + std::to_string(starts) + " times";
            for (const char *m : sc.must)
                if (why.empty() && count_in(lines, m) == 0)
                    why = std::string("no message \"") + m + "\"";
            for (const char *m : sc.mustNot)
                if (why.empty() && count_in(lines, m) != 0)
                    why = std::string("unexpected message \"") + m + "\"";
        }
        if (why.empty()) {
            std::printf("PASS %s\n", sc.name);
        } else {
            std::printf("FAIL %s: %s\n", sc.name, why.c_str());
            ++failed;
        }
        std::fflush(stdout);
    }

    teardown_platform(&plat);
    std::printf("threads_before=%d threads_after=%d\n", threads_before, thread_count());
    if (record_counts) {
        int contexts = -1, surfaces = -1;
        record_counts(&contexts, &surfaces);
        std::printf("egl_context_records=%d egl_surface_records=%d\n", contexts, surfaces);
        if (contexts != 0 || surfaces != 0)
            ++failed;
    }
    return failed == 0 ? 0 : 1;
}
