// The manager's policy against the fake driver: which threads and contexts
// are offloaded, when the worker starts and offload switches on, what each
// frame boundary does, stop and restart, and contexts dying under a thread.

#include <gtest/gtest.h>
#include <log/log.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "egl/FpsUpdater.h"
#include "kam_wrappers.h"
#include "loader/KAMLoader.h"
#include "runtime/KAMContext.h"
#include "runtime/KAMManager.h"
#include "runtime/KAMThreadLocal.h"
#include "runtime/PlatformRecords.h"
#include "support.h"

using namespace android;
using fake::trace;

namespace {

const EGLDisplay kDisplay = reinterpret_cast<EGLDisplay>(0xD15);
const EGLConfig kConfig = reinterpret_cast<EGLConfig>(0xC0F);
const EGLSurface kPlaceholderSurface = reinterpret_cast<EGLSurface>(0x9B0F);
const EGLContext kPlaceholderContext = reinterpret_cast<EGLContext>(0x9C7C);
constexpr uint64_t kFenceBase = 0xFE00;
// The binding every offloaded context's worker takes, and the placeholder's.
const char* const kWorkerBinding = "worker:eglMakeCurrent(D,draw,read,ctx)";
const char* const kPlaceholderBinding = "app:eglMakeCurrent(D,PS,PS,PC)";

uint32_t gNowMs = 0;
uint32_t fakeClock() { return gNowMs; }

std::string format(const char* fmt, const void* p) {
    char text[256];
    snprintf(text, sizeof text, fmt, p);
    return text;
}


// One application context as the platform keeps it: drawing to one window
// surface and reading from another.
struct App {
    PlatformContextRecord context{};
    PlatformSurfaceRecord draw{}, read{}, pbuffer{};
    App() {
        context.display = kDisplay;
        context.clientVersion = 2;
        strcpy(context.creatorName, "app-creator");
        draw.nativeWindow = reinterpret_cast<void*>(0x71);
        read.nativeWindow = reinterpret_cast<void*>(0x72);
        context.draw = &draw;
        context.read = &read;
        fake::alias(fake::bits(&draw), "draw");
        fake::alias(fake::bits(&read), "read");
        fake::alias(fake::bits(handle()), "ctx");
    }
    ~App() { context.kamContext.clear(); }
    void* handle() { return &context; }
    KAMContext* kam() const { return context.kamContext.get(); }
};

// Threads are named as the platform would see them; "app" in traces.
template <class F>
void onThread(const char* name, F&& body) {
    std::thread([&] {
        prctl(PR_SET_NAME, name, 0, 0, 0);
        fake::aliasThread(pthread_self(), "app");
        body();
    }).join();
}

class ManagerTest : public ::testing::Test {
protected:
    void SetUp() override {
        support::initLayer();
        saved = {manager->mName, manager->mEnabled, manager->mClientArrays, manager->mNeedMTR.load(),
                 manager->mWorkerRunning.load(), FpsUpdater::sClock, loader->mEglSwitched};
        memcpy(savedEglTable, fake::eglTable, sizeof savedEglTable);
        manager->mEnabled = true;
        manager->mNeedMTR.store(true);
        manager->mWorkerRunning.store(false);
        loader->mEglSwitched = false;
        FpsUpdater::sClock = &fakeClock;
        gNowMs = 10000;
        fake::clearHandlers();
        fake::clearAliases();
        fake::alias(fake::bits(kDisplay), "D");
        fake::alias(fake::bits(kPlaceholderSurface), "PS");
        fake::alias(fake::bits(kPlaceholderContext), "PC");
        fake::setResult(0);
        scriptDriver();
        fake::reset();
        support::clearLog();
    }
    void TearDown() override {
        fake::clearHandlers();
        fake::reset();
        FpsUpdater::sClock = saved.clock;
        // Offload switched the platform's EGL table, here the fake driver's own.
        memcpy(fake::eglTable, savedEglTable, sizeof savedEglTable);
        loader->mEglSwitched = saved.switched;
        manager->mName = saved.name;
        manager->mEnabled = saved.enabled;
        manager->mClientArrays = saved.clientArrays;
        manager->mNeedMTR.store(saved.need);
        manager->mWorkerRunning.store(saved.running);
    }

    // A driver that can host the placeholder and fences.
    void scriptDriver() {
        auto list = [](uint64_t p, std::vector<EGLint>& out) {
            out.clear();
            for (auto* a = reinterpret_cast<const EGLint*>(p); *a != EGL_NONE; ++a) out.push_back(*a);
        };
        fake::setHandler("eglChooseConfig", [this, list](const fake::Call& c) -> uint64_t {
            list(c.args[1], configAttribs);
            *reinterpret_cast<EGLConfig*>(c.args[2]) = kConfig;
            *reinterpret_cast<EGLint*>(c.args[4]) = configCount;
            return chooseResult;
        });
        fake::setHandler("eglCreatePbufferSurface", [](const fake::Call&) { return fake::bits(kPlaceholderSurface); });
        fake::setHandler("eglCreateContext", [this, list](const fake::Call& c) {
            list(c.args[3], contextAttribs);
            return fake::bits(kPlaceholderContext);
        });
        fake::setHandler("eglMakeCurrent", [this](const fake::Call& c) -> uint64_t { return !(c.args[3] == 0 && failRelease); });
        fake::setHandler("eglCreateSyncKHR", [this](const fake::Call&) { return kFenceBase + ++fences; });
        fake::setHandler("eglDestroySyncKHR", [](const fake::Call&) -> uint64_t { return EGL_TRUE; });
    }

    // One frame boundary, stepMs after the previous one, and the wait for it
    // that the thread's next call would do.
    void frame(uint32_t stepMs = 100) {
        gNowMs += stepMs;
        manager->swapBuffers();
        android::threadRecord();
    }
    // One measuring period at a whole rate, closing a second after the last.
    void period(int fps) {
        for (int i = 0; i < fps; ++i) frame(1000 / fps);
    }
    // From the first boundary to the one that starts the worker, at 10 fps.
    void framesUntilWorker() {
        frame();
        for (int i = 0; i < 3; ++i) period(10);
    }
    KAMContext* activate(App& app) {
        manager->makeCurrentPre(app.handle(), &app.draw);
        framesUntilWorker();
        frame();
        if (app.kam() && app.kam()->mWorker != nullptr) fake::aliasThread(workerOf(app.kam()), "worker");
        return app.kam();
    }
    // What the platform does when the thread lets go and destroys the context.
    void release(App& app) {
        manager->makeCurrentPost(nullptr);
        app.context.kamContext.clear();
    }
    static pthread_t workerOf(KAMContext* k) { return k->mWorker->postSync([] { return pthread_self(); }, "who"); }
    // The thread is attached (or not) to the context, with offload on or off.
    static void expectState(KAMContext* k, int active) {
        EXPECT_EQ(k->mActive, active);
        EXPECT_EQ(__tls->mActiveContext, active ? k : nullptr);
    }

    KAMManager* manager = KAMManager::INSTANCE;
    KAMLoader* loader = KAMLoader::getInstance();
    std::vector<EGLint> configAttribs, contextAttribs;
    EGLint configCount = 1;
    EGLBoolean chooseResult = EGL_TRUE;
    std::atomic<bool> failRelease{false};
    std::atomic<uint64_t> fences{0};

private:
    struct {
        std::string name;
        bool enabled, clientArrays, need, running;
        uint32_t (*clock)();
        bool switched;
    } saved;
    void* savedEglTable[fake::kEglTableSize] = {};
};


// initMTR's outcome and its log line; loader faults keep offload off.
TEST_F(ManagerTest, InitArgumentTokensAndLoaderFaults) {
    auto init = [this](const char* args, bool debuggable, bool clientArrays, bool enabled) {
        SCOPED_TRACE(std::string("args=\"") + args + "\" debuggable=" + std::to_string(debuggable));
        manager->mClientArrays = false;
        support::clearLog();
        manager->initMTR("proc.name", debuggable, args);
        EXPECT_EQ(manager->mClientArrays, clientArrays);
        EXPECT_EQ(manager->mEnabled, enabled);
        EXPECT_EQ(manager->mName, "proc.name");
        EXPECT_EQ(support::exactLog(std::string("initMTR proc.name ") + (enabled ? "1" : "0") + " args=" + args +
                                        " debuggable=" + (debuggable ? "1" : "0"), ANDROID_LOG_DEBUG), 1);
    };
    const struct { const char* args; bool debuggable, clientArrays, enabled; } rows[] = {
        {"", false, false, true},     {"", true, false, true},      {"1", false, true, true},
        {"1", true, true, true},      {"0|1", true, false, false},  {"0|1", false, false, true},
        {"1|1", true, true, false},   {"1|1", false, true, true},   {"|1", true, false, false},
        {"1|", true, true, true},     {"||", true, false, true},    {"1|0|x", true, true, true},
        {"11", true, false, true},    {" 1", true, false, true},    {"0|1|", true, false, false},
        {"0| 1", true, false, true},  {"0|11", true, false, true},  {"|", true, false, true},
    };
    for (const auto& r : rows) init(r.args, r.debuggable, r.clientArrays, r.enabled);
    // Tables with a hole, or a loader that never got any: the other setting still applies.
    const bool saved = loader->mMissingEntries;
    for (bool initialised : {true, false}) {
        loader->mMissingEntries = initialised;
        loader->mInitialised = initialised;
        for (const char* args : {"", "1", "0|0", "1|0"}) {
            init(args, false, args[0] == '1', false);
            EXPECT_EQ(support::exactLog("initMTR proc.name: the layer's dispatch tables are incomplete, offload stays off",
                               ANDROID_LOG_ERROR),
                      1);
        }
    }
    loader->mInitialised = true;
    loader->mMissingEntries = saved;
    init("1", false, true, true);
    // The setting reaches contexts made from now on.
    App app;
    onThread("app-render", [&] {
        manager->makeCurrentPre(app.handle(), &app.draw);
        ASSERT_NE(app.kam(), nullptr);
        EXPECT_TRUE(app.kam()->mClientArrays);
        release(app);
    });
    manager->initMTR("kam-tests", false, "");
}


// The record is made at a thread's first make-current. Only a window surface
// on a thread of any name but the platform's two render threads (exactly
// those) gets an offload context; it attaches idle (the slot points at the
// interposed table, nothing offloaded). Those two never attach, not even to
// a context another thread made; their frames feed no meter and start no
// worker. Detaching points the slot at the no-context table, unless there
// was nothing to detach or the context was re-pointed already.
TEST_F(ManagerTest, OnlyWindowSurfacesOfOrdinaryThreadsGetAContext) {
    const struct { const char* name; bool window, skip, repointed = false; } rows[] = {
        {"RenderThread", true, true},  {"Chrome_InProcGp", true, true}, {"RenderThread2", true, false},
        {"renderthread", true, false}, {"Chrome_InProcG", true, false}, {"main", true, false},
        {"pbuffer-only", false, false}, {"repointed", true, false, true}};
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name);
        App app, other;
        onThread("app-render", [&] { manager->makeCurrentPre(other.handle(), &other.draw), manager->makeCurrentPost(nullptr); });
        KAMContext* k = other.kam();
        support::clearLog();
        int tid = 0;
        onThread(r.name, [&] {
            void* marker = reinterpret_cast<void*>(0x5107);
            kam_platform_gl_slot = marker;
            ASSERT_EQ(__tls, nullptr);
            manager->makeCurrentPre(app.handle(), r.window ? &app.draw : &app.pbuffer);
            if (!r.window) manager->makeCurrentPre(app.handle(), nullptr);
            sp<KAMThreadLocal> tls = __tls;
            ASSERT_NE(tls, nullptr);
            EXPECT_EQ(tls->mName, r.name);
            EXPECT_EQ(tls->mTid, tid = gettid());
            EXPECT_EQ(tls->mSkip, r.skip);
            EXPECT_EQ(app.kam() == nullptr, r.skip || !r.window);
            EXPECT_EQ(tls->mContext, app.kam());
            EXPECT_EQ(tls->mActiveContext, nullptr);
            EXPECT_EQ(kam_platform_gl_slot, app.kam() ? loader->mKamGl : marker);
            if (app.kam()) { EXPECT_TRUE(tls->mEglContext == app.handle() && app.kam()->mTls.promote() == tls); }
            if (r.skip) {
                manager->makeCurrentPre(other.handle(), &other.draw);
                EXPECT_EQ(tls->mContext, nullptr);
                activate(other);
            }
            KAMContext* attached = tls->mContext;
            if (r.repointed) attached->mTls.clear();
            kam_platform_gl_slot = marker;
            tls->attachContext(nullptr);
            EXPECT_EQ(kam_platform_gl_slot, attached && !r.repointed ? static_cast<void*>(support::noContextTable) : marker);
            EXPECT_TRUE(tls->mContext == nullptr && tls->mEglContext == nullptr && tls->mActiveContext == nullptr);
            if (attached) { EXPECT_EQ(attached->mTls.unsafe_get(), nullptr); }
            if (!r.skip && r.window) manager->makeCurrentPre(app.handle(), &app.draw);  // ends the thread attached
        });
        EXPECT_EQ(k->mFrameCount + k->mFps.mFrames, 0u);
        EXPECT_EQ(k->mWorker, nullptr);
        EXPECT_FALSE(manager->mWorkerRunning.load());
        const std::string id = std::to_string(tid), ctx = format("%p", app.handle()), name = r.name;
        EXPECT_EQ(support::exactLog("iniTLS <" + name + "> skip=" + (r.skip ? "1" : "0") + " EGLContext=" + ctx + " created by app-creator",
                                    ANDROID_LOG_DEBUG), 1);
        EXPECT_EQ(support::exactLog("RenderThread is marked -> name=" + name + " tid=" + id + " context=" + ctx + " version=2",
                                    ANDROID_LOG_DEBUG), app.kam() ? 1 : 0);
        EXPECT_EQ(support::countLog("onThreadReleased:[<" + name + ">," + id + "] EGLContext= " + ctx), r.window && !r.skip ? 1 : 0);
    }
}

// Frames drawn to a pbuffer are never measured: a measured context the
// platform rebinds off-screen counts them but starts no worker until it is
// back on the window, and start-up work on a pbuffer context (loading
// screens, shader warm-up) lets go of the measured one, which may then be
// destroyed while the thread is elsewhere.
TEST_F(ManagerTest, PbuffersAreNeverMeasured) {
    App app, offscreen;
    onThread("app-render", [&] {
        manager->makeCurrentPre(app.handle(), &app.draw);
        KAMContext* k = app.kam();
        ASSERT_NE(k, nullptr);
        app.context.draw = &app.pbuffer;
        framesUntilWorker();
        frame();
        EXPECT_EQ(k->mFrameCount, 32u);
        EXPECT_EQ(k->mFps.mFrames + (k->mWorker != nullptr), 0u);
        app.context.draw = &app.draw;
        framesUntilWorker();
        EXPECT_NE(k->mWorker, nullptr);
        release(app);
        manager->makeCurrentPre(app.handle(), &app.draw);
        k = app.kam();
        frame();
        manager->makeCurrentPre(offscreen.handle(), &offscreen.pbuffer);
        EXPECT_EQ(offscreen.kam(), nullptr);
        ASSERT_EQ(__tls->mContext, nullptr);
        EXPECT_EQ(__tls->mEglContext, nullptr);
        framesUntilWorker();
        EXPECT_EQ(k->mFrameCount, 1u);
        EXPECT_EQ(k->mWorker, nullptr);
        app.context.kamContext.clear();
        frame();
    });
    EXPECT_EQ(trace({"eglMakeCurrent"}), "");
    EXPECT_EQ(support::countLog("Releasing a EGLContext"), 0);
}

TEST_F(ManagerTest, WorkerStartsAfterThreeGoodPeriodsAndOffloadAtTheFirstBoundaryThatCan) {
    App app;
    onThread("app-render", [&] {
        manager->makeCurrentPre(app.handle(), &app.draw);
        KAMContext* k = app.kam();
        ASSERT_NE(k, nullptr);
        frame();
        for (int fps : {10, 10, 5, 10, 10}) period(fps);
        for (int i = 0; i < 9; ++i) frame();
        EXPECT_EQ(k->mWorker, nullptr);
        EXPECT_FALSE(manager->mWorkerRunning.load());
        EXPECT_EQ(trace(), "");

        frame();  // closes the third good period in a row
        ASSERT_NE(k->mWorker, nullptr);
        EXPECT_TRUE(manager->mWorkerRunning.load());
        expectState(k, 0);
        EXPECT_NE(k->mMemory.mBase, nullptr);
        EXPECT_EQ(configAttribs, (std::vector<EGLint>{EGL_RENDERABLE_TYPE, EGL_OPENGL_ES2_BIT, EGL_RED_SIZE, 8,
                                                      EGL_GREEN_SIZE, 8, EGL_BLUE_SIZE, 8, EGL_ALPHA_SIZE, 8}));
        EXPECT_EQ(contextAttribs, (std::vector<EGLint>{EGL_CONTEXT_CLIENT_VERSION, 2}));
        // The placeholder shares the application's objects; nothing is made current yet.
        EXPECT_EQ(trace({"eglCreatePbufferSurface", "eglCreateContext", "eglMakeCurrent"}).find("eglMakeCurrent"),
                  std::string::npos);
        EXPECT_NE(trace({"eglCreateContext"}).find(",ctx,"), std::string::npos);
        EXPECT_FALSE(loader->mEglSwitched);
        EXPECT_EQ(support::countLog("KAMWorker started"), 0);

        // The real context still bound elsewhere (the release is refused):
        // offload stays off, and comes on at the first boundary that can.
        fake::aliasThread(workerOf(k), "worker");
        failRelease = true;
        for (int attempt = 0; attempt < 2; ++attempt) {
            fake::reset();
            frame();
            expectState(k, 0);
            EXPECT_FALSE(loader->mEglSwitched);
            k->mWorker->postSync([] {}, "drain");
            EXPECT_EQ(trace({"eglMakeCurrent", "eglCreateSyncKHR"}), "app:eglMakeCurrent(D,0,0,0)");
        }
        failRelease = false;
        fake::reset();
        // Each unpack value the driver holds is its name: each lands in its own field.
        fake::setHandler("glGetIntegerv", [](const fake::Call& c) { return *fake::fromBits<GLint*>(c.args[1]) = GLint(c.args[0]), 0; });
        frame();
        expectState(k, 1);
        EXPECT_TRUE(loader->mEglSwitched);
        const Params& p = k->mParams;
        EXPECT_EQ(std::vector<GLint>({p.mUnpackAlignment, p.mUnpackRowLength, p.mUnpackImageHeight, p.mUnpackSkipPixels, p.mUnpackSkipRows, p.mUnpackSkipImages}),
                  std::vector<GLint>({GL_UNPACK_ALIGNMENT, GL_UNPACK_ROW_LENGTH, GL_UNPACK_IMAGE_HEIGHT, GL_UNPACK_SKIP_PIXELS, GL_UNPACK_SKIP_ROWS, GL_UNPACK_SKIP_IMAGES}));
        // The unpack state is read while the thread still has the real
        // context; then the thread lets go of it for the placeholder, and the
        // worker takes it.
        EXPECT_EQ(trace({"glGetIntegerv", "eglMakeCurrent", "eglChooseConfig"}).substr(0, 17), "app:glGetIntegerv");
        EXPECT_EQ(trace({"eglMakeCurrent", "eglChooseConfig"}),
                  std::string("app:eglMakeCurrent(D,0,0,0) ") + kPlaceholderBinding + " " + kWorkerBinding);
        EXPECT_EQ(support::exactLog(format("KAMWorker started -> app-render EGLContext=%p", app.handle()), ANDROID_LOG_DEBUG), 1);
        release(app);
    });
}

// No placeholder (a step of its set-up fails) or no arena: offload stays off
// for good and GL passes through; what was made goes with the context, and
// the worker lets go of its EGL state before it is joined.
TEST_F(ManagerTest, NoPlaceholderOrArenaKeepsOffloadOff) {
    const size_t kArenaBlock = 0x2000000;
    const struct { const char *failing, *message, *tried, *destroyed; size_t memalignFailsFrom; } rows[] = {
        // A true result is needed as well as a config, and a config as well as a true result.
        {"eglChooseConfig", "eglChooseConfig failed", "", "", SIZE_MAX},
        {"", "eglChooseConfig failed", "", "", SIZE_MAX},
        {"eglCreatePbufferSurface", "eglCreatePbufferSurface failed", " app:eglCreatePbufferSurface", "", SIZE_MAX},
        {"eglCreateContext", "eglCreateContext failed", " app:eglCreatePbufferSurface app:eglCreateContext",
         "app:eglDestroySurface(D,PS) ", SIZE_MAX},
        {nullptr, nullptr, " app:eglCreatePbufferSurface app:eglCreateContext",
         "app:eglDestroyContext(D,PC) app:eglDestroySurface(D,PS) ", kArenaBlock},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.message ? r.message : "no arena");
        scriptDriver();
        configCount = r.failing && !*r.failing ? 0 : 1;
        chooseResult = !(r.failing && strcmp(r.failing, "eglChooseConfig") == 0);
        if (r.failing && *r.failing && chooseResult) fake::setHandler(r.failing, [](const fake::Call&) { return uint64_t(0); });
        fake::reset();
        support::clearLog();
        App app;
        std::string started;
        onThread("app-render", [&] {
            support::MemalignFails fails(r.memalignFailsFrom);
            manager->makeCurrentPre(app.handle(), &app.draw);
            framesUntilWorker();
            KAMContext* k = app.kam();
            ASSERT_NE(k->mWorker, nullptr);
            fake::aliasThread(workerOf(k), "worker");
            for (int i = 0; i < 10; ++i) frame();
            expectState(k, 0);
            EXPECT_EQ(k->mMemory.mBase == nullptr, r.memalignFailsFrom != SIZE_MAX);
            kam_glActiveTexture_opt(0x84C7);
            started = trace({"eglMakeCurrent", "eglChooseConfig", "eglCreatePbufferSurface", "eglCreateContext", "glActiveTexture"}, false);
            fake::reset();
            release(app);
        });
        // Tried once, nobody made current.
        EXPECT_EQ(started, std::string("app:eglChooseConfig") + r.tried + " app:glActiveTexture");
        EXPECT_EQ(trace({"eglDestroyContext", "eglDestroySurface", "eglReleaseThread"}), std::string(r.destroyed) + "worker:eglReleaseThread()");
        EXPECT_EQ(support::countLog("", ANDROID_LOG_ERROR), r.message ? 1 : 0);
        if (r.message) { EXPECT_EQ(support::exactLog(r.message, ANDROID_LOG_ERROR), 1); }
        EXPECT_FALSE(manager->mWorkerRunning.load());
    }
}


// Everything of the frame runs before the boundary returns, in order; last
// frame's fence goes on the app thread before the worker makes the new one;
// the frame's state is reset on the worker. A fence the application took is
// its own to destroy.
TEST_F(ManagerTest, BoundaryHandsTheFrameOverAndLeavesOneFence) {
    App app;
    onThread("app-render", [&] {
        KAMContext* k = activate(app);
        ASSERT_EQ(k->mActive, 1);
        ASSERT_EQ(k->mFrameFence, reinterpret_cast<EGLSyncKHR>(kFenceBase + 1));
        fake::reset();
        // The worker is held in the frame's last command until the thread is
        // back from the boundary: a boundary that waited for the frame would
        // only get back when the hold gives up.
        std::promise<void> back;
        bool heldUntilBack = false;
        fake::setHandler("glActiveTexture", [&, f = back.get_future().share()](const fake::Call& c) -> uint64_t {
            if (c.args[0] == 0x84C1) heldUntilBack = f.wait_for(std::chrono::seconds(10)) == std::future_status::ready;
            return 0;
        });
        kam_glActiveTexture_opt(0x84C0);
        kam_glActiveTexture_opt(0x84C1);
        EXPECT_GT(k->mMemory.mCursor, k->mMemory.mFrameStart);
        gNowMs += 100;
        manager->swapBuffers();
        back.set_value();
        android::threadRecord();
        EXPECT_TRUE(heldUntilBack);
        EXPECT_EQ(trace({"glActiveTexture", "eglCreateSyncKHR"}),
                  "worker:glActiveTexture(84c0) worker:glActiveTexture(84c1) worker:eglCreateSyncKHR(D,30f9,0)");
        EXPECT_EQ(trace({"eglDestroySyncKHR", "eglCreateSyncKHR"}), "app:eglDestroySyncKHR(D,fe01) worker:eglCreateSyncKHR(D,30f9,0)");
        EXPECT_EQ(k->mFrameFence, reinterpret_cast<EGLSyncKHR>(kFenceBase + 2));
        EXPECT_EQ(k->mWorker->frameCount(), 0);
        EXPECT_EQ(k->mMemory.mCursor, k->mMemory.mFrameStart);
        EXPECT_GT(k->mMemory.mLastUsed, 0);
        EXPECT_STREQ(k->mWorker->postSync([k] { return k->mWorker->lastName(); }, "lastName"), "swapBuffers");

        fake::reset();
        for (int i = 0; i < 3; ++i) frame();
        EXPECT_EQ(trace({"eglDestroySyncKHR", "eglCreateSyncKHR"}),
                  "app:eglDestroySyncKHR(D,fe02) worker:eglCreateSyncKHR(D,30f9,0) app:eglDestroySyncKHR(D,fe03) "
                  "worker:eglCreateSyncKHR(D,30f9,0) app:eglDestroySyncKHR(D,fe04) worker:eglCreateSyncKHR(D,30f9,0)");
        EXPECT_EQ(kam_eglCreateSyncKHR_opt(kDisplay, EGL_SYNC_FENCE_KHR, nullptr), reinterpret_cast<EGLSyncKHR>(kFenceBase + 5));
        fake::reset();
        frame();
        EXPECT_EQ(trace({"eglDestroySyncKHR", "eglCreateSyncKHR"}), "worker:eglCreateSyncKHR(D,30f9,0)");
        // Statistics once per closed period: the one that detection left open
        // closes at the ninth boundary after the one that switched offload on.
        EXPECT_EQ(support::countLog("fps="), 0);
        for (int i = 0; i < 3; ++i) frame();
        for (GLenum unit : {0x84C0, 0x84C1, 0x84C2}) kam_glActiveTexture_opt(unit);
        const int32_t used = static_cast<int32_t>(k->mMemory.mCursor - k->mMemory.mFrameStart);
        frame();
        // Frames count from the context's first boundary, before offload.
        EXPECT_EQ(support::exactLog(manager->mName + " fps=10 frame=41 memory=" + std::to_string(used) + " size=3", ANDROID_LOG_DEBUG), 1);
        for (int i = 0; i < 9; ++i) frame();
        EXPECT_EQ(support::countLog("fps="), 1);
        frame();
        EXPECT_EQ(support::countLog("fps="), 2);
        release(app);
    });
}

// Without permission or record a boundary does nothing; without offload it
// only counts.
TEST_F(ManagerTest, BoundaryWithoutOffloadOnlyCounts) {
    App app;
    onThread("app-render", [&] {
        KAMContext* k = activate(app);
        ASSERT_EQ(k->mActive, 1);
        const uint32_t frames = k->mFrameCount;
        const int32_t posts = k->mWorker->frameCount();
        manager->mEnabled = false;
        fake::reset();
        support::clearLog();
        for (int i = 0; i < 12; ++i) frame();
        manager->mEnabled = true;
        EXPECT_EQ(k->mFrameCount, frames);
        EXPECT_EQ(k->mWorker->frameCount(), posts);
        EXPECT_EQ(k->mActive, 1);
        EXPECT_TRUE(support::logLines().empty());
        EXPECT_EQ(trace(), "");
        release(app);
    });
    fake::reset();
    App idle;
    onThread("not-needed", [&] {
        manager->makeCurrentPre(idle.handle(), &idle.draw);
        manager->mNeedMTR.store(false);
        for (int i = 0; i < 25; ++i) frame();
        EXPECT_EQ(idle.kam()->mFrameCount, 25u);
        EXPECT_EQ(idle.kam()->mFrameFence, EGL_NO_SYNC_KHR);
        release(idle);
    });
    EXPECT_EQ(trace(), "");
    EXPECT_EQ(support::countLog("fps="), 0);
    // Not permitted: a thread does not even get a record, and its boundaries
    // find none.
    manager->mEnabled = false;
    support::clearLog();
    App never;
    onThread("not-permitted", [&] {
        EXPECT_TRUE(manager->makeCurrentPre(never.handle(), &never.draw));
        manager->mEnabled = true;
        framesUntilWorker();
        manager->mEnabled = false;
        manager->makeCurrentPost(nullptr);
        EXPECT_EQ(__tls, nullptr);
    });
    EXPECT_EQ(never.kam(), nullptr);
    EXPECT_EQ(trace(), "");
    EXPECT_TRUE(support::logLines().empty());
}


TEST_F(ManagerTest, PlatformStopsAndRestartsOffloadAtFrameBoundaries) {
    App app, other;
    onThread("app-render", [&] {
        KAMContext* k = activate(app);
        ASSERT_EQ(k->mActive, 1);
        sp<KAMThreadLocal> tls = __tls;
        const sp<KAMWorker> keptWorker = k->mWorker;
        fake::reset();
        support::clearLog();
        std::thread([this] { manager->updateMTR(0); }).join();
        frame();
        expectState(k, 0);
        EXPECT_EQ(tls->mContext, k);
        EXPECT_EQ(k->mFrameFence, EGL_NO_SYNC_KHR);
        EXPECT_EQ(k->mWorker, keptWorker);
        EXPECT_TRUE(manager->mWorkerRunning.load());
        // The worker lets go of the real context before the thread takes it;
        // the pending fence goes, no new one comes.
        EXPECT_EQ(trace({"eglMakeCurrent", "eglDestroySyncKHR", "eglCreateSyncKHR"}),
                  "worker:eglMakeCurrent(D,0,0,0) app:eglDestroySyncKHR(D,fe01) app:eglMakeCurrent(D,0,0,0) "
                  "app:eglMakeCurrent(D,draw,read,ctx)");
        EXPECT_EQ(support::exactLog(format("MTR <app-render> is stopped EGLContext=%p", app.handle()), ANDROID_LOG_DEBUG), 1);

        // Stopped: boundaries only count, and GL goes straight to the driver.
        fake::reset();
        const uint32_t frames = k->mFrameCount;
        const int32_t posts = k->mWorker->frameCount();
        for (int i = 0; i < 3; ++i) frame();
        EXPECT_EQ(k->mFrameCount, frames + 3);
        EXPECT_EQ(k->mWorker->frameCount(), posts);
        kam_glActiveTexture_opt(0x84C5);
        EXPECT_EQ(trace(), "app:glActiveTexture(84c5)");

        // Back on at the very next boundary, with no new measuring (the clock
        // stands still) and the same worker and placeholder.
        fake::reset();
        manager->updateMTR(1);
        frame(0);
        expectState(k, 1);
        EXPECT_EQ(k->mWorker, keptWorker);
        EXPECT_EQ(trace({"eglMakeCurrent", "eglChooseConfig", "eglCreateSyncKHR"}),
                  std::string("app:eglMakeCurrent(D,0,0,0) ") + kPlaceholderBinding + " " + kWorkerBinding +
                      " worker:eglCreateSyncKHR(D,30f9,0)");
        EXPECT_EQ(support::countLog("KAMWorker started -> app-render", ANDROID_LOG_DEBUG), 1);

        // Making current what is current already only puts the placeholder
        // back; another context is logged as a change, and the offloaded one
        // stays attached until the platform has drained and released it,
        // unless the other one takes a surface the worker holds: the worker
        // lets go of it first, and the thread is detached.
        fake::reset();
        support::clearLog();
        EXPECT_TRUE(manager->makeCurrentPre(app.handle(), &app.draw));
        manager->makeCurrentPost(app.handle());
        expectState(k, 1);
        EXPECT_EQ(trace(), kPlaceholderBinding);
        EXPECT_EQ(support::countLog("EGLContext is changed"), 0);
        for (PlatformSurfaceRecord* surface : {&other.draw, &app.read}) {
            const bool taken = surface == &app.read;
            fake::reset();
            support::clearLog();
            manager->makeCurrentPre(other.handle(), surface);
            EXPECT_EQ(support::exactLog(format("<app-render> EGLContext is changed tls_ctx=%p", app.handle()) +
                                            format(" set_ctx=%p", other.handle()), ANDROID_LOG_DEBUG), 1);
            EXPECT_EQ(support::exactLog(format("KAMWorker lets go of EGLContext=%p", app.handle()) +
                                            format(": set_ctx=%p takes its surface", other.handle()), ANDROID_LOG_DEBUG), taken);
            EXPECT_EQ(other.kam(), nullptr);  // the process's worker is taken
            EXPECT_EQ(__tls->mContext, taken ? nullptr : k);
            EXPECT_EQ(k->mActive, !taken);
            EXPECT_EQ(trace(), taken ? "worker:eglMakeCurrent(D,0,0,0) app:eglDestroySyncKHR(D,fe02)" : "");
        }
        EXPECT_EQ(k->mTls.promote(), nullptr);
        release(app);
    });
    EXPECT_EQ(support::countLog("Releasing a EGLContext"), 0);
}


// By the owning thread or another: the thread is detached and passes
// through from then on; the placeholder context, then its surface, go on
// the destroying thread; then the worker lets go of its EGL state, once, and
// is joined.
TEST_F(ManagerTest, ContextDestroyedWhileActiveDetachesTheThread) {
    for (bool fromOwner : {true, false}) {
        SCOPED_TRACE(fromOwner ? "destroyed by the owning thread" : "destroyed by another thread");
        App app;
        std::promise<sp<KAMWorker>> offloaded;
        std::promise<void> destroyed;
        std::string calls;
        int tid = 0;
        auto destroy = [&] {
            fake::aliasThread(pthread_self(), "releaser");
            fake::reset();
            support::clearLog();
            app.context.kamContext.clear();
            calls = trace({"eglDestroyContext", "eglDestroySurface", "eglReleaseThread"});
        };
        std::thread owner([&] {
            prctl(PR_SET_NAME, "app-render", 0, 0, 0);
            KAMContext* k = activate(app);
            tid = gettid();
            offloaded.set_value(k && k->mActive ? k->mWorker : nullptr);
            fromOwner ? destroy() : destroyed.get_future().wait();
            EXPECT_TRUE(__tls->mContext == nullptr && __tls->mActiveContext == nullptr && __tls->mEglContext == nullptr);
            fake::aliasThread(pthread_self(), "owner");
            fake::reset();
            frame();
            kam_glActiveTexture_opt(0x84C7);
            EXPECT_EQ(trace(), "owner:glActiveTexture(84c7)");
        });
        const sp<KAMWorker> worker = offloaded.get_future().get();
        if (!fromOwner) destroy(), destroyed.set_value();
        owner.join();
        ASSERT_NE(worker, nullptr);
        EXPECT_EQ(support::exactLog(format("Releasing a EGLContext %p which is attached to [<app-render>,", app.handle()) +
                                        std::to_string(tid) + "], may be a fatal error.", ANDROID_LOG_ERROR), 1);
        EXPECT_EQ(support::exactLog(format("KAMContext is released EGLContext=%p", app.handle()), ANDROID_LOG_DEBUG), 1);
        EXPECT_EQ(calls, "releaser:eglDestroyContext(D,PC) releaser:eglDestroySurface(D,PS) worker:eglReleaseThread()");
        EXPECT_FALSE(worker->isRunning() || manager->mWorkerRunning.load());
    }
}

}  // namespace
