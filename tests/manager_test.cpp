// The manager's policy end to end against the fake driver: which threads and
// contexts may be offloaded, when the worker starts and offload switches on,
// what every frame boundary does while it runs, how the platform switches it
// off and on, and what happens when a context dies under an offloaded thread.

#include <gtest/gtest.h>
#include <log/log.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
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

namespace {

const EGLDisplay kDisplay = reinterpret_cast<EGLDisplay>(0xD15);
const EGLConfig kConfig = reinterpret_cast<EGLConfig>(0xC0F);
const EGLSurface kPlaceholderSurface = reinterpret_cast<EGLSurface>(0x9B0F);
const EGLContext kPlaceholderContext = reinterpret_cast<EGLContext>(0x9C7C);
constexpr uint64_t kFenceBase = 0xFE00;

uint32_t gNowMs = 0;
uint32_t fakeClock() { return gNowMs; }

template <class T>
uint64_t b(T v) {
    return fake::bits(v);
}

std::string format(const char* fmt, const void* p) {
    char text[256];
    snprintf(text, sizeof text, fmt, p);
    return text;
}

// One application context as the platform keeps it: bound to one window
// surface for drawing and another for reading.
struct App {
    PlatformContextRecord context{};
    PlatformSurfaceRecord draw{};
    PlatformSurfaceRecord read{};
    PlatformSurfaceRecord pbuffer{};
    App() {
        context.display = kDisplay;
        context.clientVersion = 2;
        strcpy(context.creatorName, "app-creator");
        draw.nativeWindow = reinterpret_cast<void*>(0x71);
        read.nativeWindow = reinterpret_cast<void*>(0x72);
        context.draw = &draw;
        context.read = &read;
    }
    ~App() { context.kamContext.clear(); }
    void* handle() { return &context; }
    KAMContext* kam() const { return context.kamContext.get(); }
};

template <class F>
void onThread(const char* name, F&& body) {
    std::thread([&] {
        prctl(PR_SET_NAME, name, 0, 0, 0);
        body();
    }).join();
}

std::vector<fake::Call> callsNamed(const std::string& name) {
    std::vector<fake::Call> out;
    for (const fake::Call& c : fake::calls())
        if (c.name == name) out.push_back(c);
    return out;
}

int indexOf(const std::vector<fake::Call>& calls, const std::string& name, size_t from = 0) {
    for (size_t i = from; i < calls.size(); ++i)
        if (calls[i].name == name) return static_cast<int>(i);
    return -1;
}

bool on(const fake::Call& c, pthread_t t) { return pthread_equal(c.thread, t) != 0; }

int exactLog(const std::string& text, int priority) {
    int n = 0;
    for (const support::LogLine& l : support::logLines())
        if (l.tag == "_V_KAM" && l.text == text && l.priority == priority) ++n;
    return n;
}

class ManagerTest : public ::testing::Test {
protected:
    void SetUp() override {
        support::initLayer();
        savedName = manager->mName;
        savedEnabled = manager->mEnabled;
        savedClientArrays = manager->mClientArrays;
        savedNeed = manager->mNeedMTR.load();
        savedRunning = manager->mWorkerRunning.load();
        savedClock = FpsUpdater::sClock;
        savedSwitched = loader->mEglSwitched;
        memcpy(savedEglTable, fake::eglTable, sizeof savedEglTable);

        manager->mEnabled = true;
        manager->mNeedMTR.store(true);
        manager->mWorkerRunning.store(false);
        loader->mEglSwitched = false;
        FpsUpdater::sClock = &fakeClock;
        gNowMs = 10000;
        fake::clearHandlers();
        fake::setResult(0);
        scriptDriver();
        fake::reset();
        support::clearLog();
    }

    void TearDown() override {
        fake::clearHandlers();
        fake::setResult(0);
        fake::reset();
        FpsUpdater::sClock = savedClock;
        // Offload switches the platform's EGL table, which here is the fake
        // driver's own: give it back its entries.
        memcpy(fake::eglTable, savedEglTable, sizeof savedEglTable);
        loader->mEglSwitched = savedSwitched;
        manager->mName = savedName;
        manager->mEnabled = savedEnabled;
        manager->mClientArrays = savedClientArrays;
        manager->mNeedMTR.store(savedNeed);
        manager->mWorkerRunning.store(savedRunning);
    }

    // A driver that can host the placeholder and fences.
    void scriptDriver() {
        fake::setHandler("eglChooseConfig", [this](const fake::Call& c) -> uint64_t {
            const EGLint* attribs = reinterpret_cast<const EGLint*>(c.args[1]);
            configAttribs.clear();
            for (int i = 0; attribs[i] != EGL_NONE; ++i) configAttribs.push_back(attribs[i]);
            *reinterpret_cast<EGLConfig*>(c.args[2]) = kConfig;
            *reinterpret_cast<EGLint*>(c.args[4]) = configCount;
            return EGL_TRUE;
        });
        fake::setHandler("eglCreatePbufferSurface", [](const fake::Call&) -> uint64_t { return b(kPlaceholderSurface); });
        fake::setHandler("eglCreateContext", [this](const fake::Call& c) -> uint64_t {
            const EGLint* attribs = reinterpret_cast<const EGLint*>(c.args[3]);
            contextAttribs.clear();
            for (int i = 0; attribs[i] != EGL_NONE; ++i) contextAttribs.push_back(attribs[i]);
            return b(kPlaceholderContext);
        });
        fake::setHandler("eglMakeCurrent", [this](const fake::Call& c) -> uint64_t {
            return (c.args[3] == 0 && failRelease.load()) ? EGL_FALSE : EGL_TRUE;
        });
        fake::setHandler("eglCreateSyncKHR", [this](const fake::Call&) -> uint64_t { return kFenceBase + ++fences; });
        fake::setHandler("eglDestroySyncKHR", [](const fake::Call&) -> uint64_t { return EGL_TRUE; });
    }

    // One frame boundary, stepMs after the previous one.
    void frame(uint32_t stepMs = 100) {
        gNowMs += stepMs;
        manager->swapBuffers();
    }
    // One measuring period at a whole rate: the last frame lands a second
    // after the previous period closed.
    void period(int fps) {
        for (int i = 0; i < fps; ++i) frame(1000 / fps);
    }
    // From the first boundary to the one that starts the worker, at ten
    // frames a second.
    void framesUntilWorker() {
        frame();
        for (int i = 0; i < 3; ++i) period(10);
    }
    // Makes the context current on the calling thread and runs frames until
    // offload is on.
    KAMContext* activate(App& app) {
        manager->makeCurrentPre(app.handle(), &app.draw);
        framesUntilWorker();
        frame();
        return app.kam();
    }
    // What the platform does when the thread lets go and then destroys the
    // context.
    void release(App& app) {
        manager->makeCurrentPost(nullptr);
        app.context.kamContext.clear();
    }
    static pthread_t workerOf(KAMContext* k) {
        return k->mWorker->postSync([] { return pthread_self(); }, "who");
    }

    KAMManager* manager = KAMManager::INSTANCE;
    KAMLoader* loader = KAMLoader::getInstance();
    std::vector<EGLint> configAttribs;
    std::vector<EGLint> contextAttribs;
    EGLint configCount = 1;
    std::atomic<bool> failRelease{false};
    std::atomic<uint64_t> fences{0};

private:
    std::string savedName;
    bool savedEnabled = false;
    bool savedClientArrays = false;
    bool savedNeed = true;
    bool savedRunning = false;
    uint32_t (*savedClock)() = nullptr;
    bool savedSwitched = false;
    void* savedEglTable[fake::kEglTableSize] = {};
};

// ---- configuration ----

class ManagerInitTest : public ManagerTest {
protected:
    void TearDown() override {
        manager->initMTR("kam-tests", false, "");
        manager->mClientArrays = false;
        ManagerTest::TearDown();
    }
};

TEST_F(ManagerInitTest, ArgumentTokens) {
    struct Row {
        const char* args;
        bool debuggable;
        bool clientArrays;
        bool enabled;
    } rows[] = {
        {"", false, false, true},      {"", true, false, true},
        {"1", false, true, true},      {"1", true, true, true},
        {"0|1", true, false, false},   {"0|1", false, false, true},
        {"1|1", true, true, false},    {"1|1", false, true, true},
        {"|1", true, false, false},    {"1|", true, true, true},
        {"||", true, false, true},     {"1|0|x", true, true, true},
        {"11", true, false, true},     {" 1", true, false, true},
        {"0|1|", true, false, false},  {"0| 1", true, false, true},
        {"0|11", true, false, true},   {"|", true, false, true},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(std::string("args=\"") + r.args + "\" debuggable=" + std::to_string(r.debuggable));
        manager->mClientArrays = false;
        support::clearLog();
        manager->initMTR("proc.name", r.debuggable, r.args);
        EXPECT_EQ(manager->mClientArrays, r.clientArrays);
        EXPECT_EQ(manager->mEnabled, r.enabled);
        EXPECT_EQ(manager->mName, "proc.name");
        std::string line = std::string("initMTR proc.name ") + (r.enabled ? "1" : "0") + " args=" + r.args +
                           " debuggable=" + (r.debuggable ? "1" : "0");
        EXPECT_EQ(exactLog(line, ANDROID_LOG_DEBUG), 1);
    }
}

TEST_F(ManagerInitTest, MissingEntryPointKeepsOffloadOff) {
    const bool saved = loader->mMissingEntries;
    struct Row {
        const char* args;
        bool clientArrays;
    } rows[] = {{"", false}, {"1", true}, {"0|0", false}, {"1|0", true}};
    // Tables with a hole, or a loader that never got any.
    for (bool initialised : {true, false}) {
        loader->mMissingEntries = initialised;
        loader->mInitialised = initialised;
        for (const Row& r : rows) {
            SCOPED_TRACE(std::string(r.args) + (initialised ? " missing entry" : " loader not initialised"));
            manager->mClientArrays = false;
            support::clearLog();
            manager->initMTR("proc.name", false, r.args);
            EXPECT_FALSE(manager->mEnabled);
            EXPECT_EQ(manager->mClientArrays, r.clientArrays);  // the other setting still applies
            EXPECT_EQ(exactLog(std::string("initMTR proc.name 0 args=") + r.args + " debuggable=0", ANDROID_LOG_DEBUG),
                      1);
            EXPECT_EQ(exactLog("initMTR proc.name: the layer's dispatch tables are incomplete, offload stays off",
                               ANDROID_LOG_ERROR),
                      1);
        }
    }
    loader->mInitialised = true;
    loader->mMissingEntries = saved;
    manager->initMTR("proc.name", false, "");
    EXPECT_TRUE(manager->mEnabled);
}

TEST_F(ManagerInitTest, ClientArraySettingReachesNewContexts) {
    manager->initMTR("kam-tests", false, "1");
    App app;
    onThread("app-render", [&] {
        manager->makeCurrentPre(app.handle(), &app.draw);
        ASSERT_NE(app.kam(), nullptr);
        EXPECT_TRUE(app.kam()->mClientArrays);
        release(app);
    });
}

// ---- which threads and contexts ----

TEST_F(ManagerTest, NothingWhileOffloadIsNotPermitted) {
    manager->mEnabled = false;
    App app;
    onThread("app-render", [&] {
        EXPECT_TRUE(manager->makeCurrentPre(app.handle(), &app.draw));
        EXPECT_EQ(__tls, nullptr);
        EXPECT_EQ(app.kam(), nullptr);
        framesUntilWorker();
        manager->makeCurrentPost(nullptr);
        EXPECT_EQ(__tls, nullptr);
    });
    EXPECT_TRUE(fake::calls().empty());
    EXPECT_TRUE(support::logLines().empty());
}

TEST_F(ManagerTest, SkippedThreadNeverAttachesToAnExistingContext) {
    for (const char* name : {"RenderThread", "Chrome_InProcGp"}) {
        SCOPED_TRACE(name);
        App app;
        onThread("app-render", [&] {
            manager->makeCurrentPre(app.handle(), &app.draw);
            manager->makeCurrentPost(nullptr);
        });
        KAMContext* k = app.kam();
        ASSERT_NE(k, nullptr);
        onThread(name, [&] {
            void* marker = reinterpret_cast<void*>(0x5107);
            kam_platform_gl_slot = marker;
            manager->makeCurrentPre(app.handle(), &app.draw);
            ASSERT_NE(__tls, nullptr);
            EXPECT_TRUE(__tls->mSkip);
            EXPECT_EQ(__tls->mContext, nullptr);
            EXPECT_EQ(kam_platform_gl_slot, marker);
            // Its frames feed nothing: no meter, no worker.
            framesUntilWorker();
            frame();
        });
        EXPECT_EQ(k->mFrameCount, 0u);
        EXPECT_EQ(k->mFps.mFrames, 0u);
        EXPECT_EQ(k->mWorker, nullptr);
        EXPECT_FALSE(manager->mWorkerRunning.load());
    }
}

TEST_F(ManagerTest, ContextDrawingToAPbufferIsNeverMeasured) {
    App app;
    onThread("app-render", [&] {
        manager->makeCurrentPre(app.handle(), &app.draw);
        KAMContext* k = app.kam();
        ASSERT_NE(k, nullptr);
        // The platform rebinds the context to an off-screen surface.
        app.context.draw = &app.pbuffer;
        framesUntilWorker();
        frame();
        EXPECT_EQ(k->mFrameCount, 32u);
        EXPECT_EQ(k->mFps.mFrames, 0u);
        EXPECT_EQ(k->mWorker, nullptr);
        // Back on the window, measuring starts from its first frame.
        app.context.draw = &app.draw;
        framesUntilWorker();
        EXPECT_NE(k->mWorker, nullptr);
        release(app);
    });
    EXPECT_EQ(callsNamed("eglMakeCurrent").size(), 0u);
}

TEST_F(ManagerTest, OnlyOneContextAtATimeOwnsAWorker) {
    App first, second;
    onThread("first-render", [&] {
        manager->makeCurrentPre(first.handle(), &first.draw);
        framesUntilWorker();
        ASSERT_NE(first.kam()->mWorker, nullptr);
        EXPECT_TRUE(manager->mWorkerRunning.load());
        manager->makeCurrentPost(nullptr);
    });
    onThread("second-render", [&] {
        manager->makeCurrentPre(second.handle(), &second.draw);
        EXPECT_EQ(second.kam(), nullptr);
        ASSERT_NE(__tls, nullptr);
        EXPECT_EQ(__tls->mContext, nullptr);
    });
    first.context.kamContext.clear();
    EXPECT_FALSE(manager->mWorkerRunning.load());
    EXPECT_EQ(support::countLog("Releasing a EGLContext"), 0);  // it was detached first
    onThread("second-render", [&] {
        manager->makeCurrentPre(second.handle(), &second.draw);
        ASSERT_NE(second.kam(), nullptr);
        EXPECT_EQ(__tls->mContext, second.kam());
        release(second);
    });
}

TEST_F(ManagerTest, ContextsMeasuredSideBySideGetOneWorker) {
    App first, second;
    for (App* a : {&first, &second}) {
        onThread("app-render", [&] {
            manager->makeCurrentPre(a->handle(), &a->draw);
            manager->makeCurrentPost(nullptr);
        });
        ASSERT_NE(a->kam(), nullptr);
    }
    for (App* a : {&first, &second}) {
        onThread("app-render", [&] {
            manager->makeCurrentPre(a->handle(), &a->draw);
            framesUntilWorker();
            manager->makeCurrentPost(nullptr);
        });
    }
    EXPECT_NE(first.kam()->mWorker, nullptr);
    EXPECT_EQ(second.kam()->mWorker, nullptr);
    // Only the context that owns the worker gives the process's one back.
    second.context.kamContext.clear();
    EXPECT_TRUE(manager->mWorkerRunning.load());
    first.context.kamContext.clear();
    EXPECT_FALSE(manager->mWorkerRunning.load());
}

// Start-up work on a pbuffer (loading screens, shader warm-up) after a
// window context has begun to be measured.
TEST_F(ManagerTest, MovingToAnUnshadowedContextLetsGoOfTheMeasuredOne) {
    App first, offscreen;
    onThread("app-render", [&] {
        manager->makeCurrentPre(first.handle(), &first.draw);
        KAMContext* k = first.kam();
        ASSERT_NE(k, nullptr);
        frame();
        manager->makeCurrentPre(offscreen.handle(), &offscreen.pbuffer);
        EXPECT_EQ(offscreen.kam(), nullptr);
        ASSERT_EQ(__tls->mContext, nullptr);
        EXPECT_EQ(__tls->mEglContext, nullptr);
        framesUntilWorker();
        EXPECT_EQ(k->mFrameCount, 1u);
        EXPECT_EQ(k->mWorker, nullptr);
        // Destroyed while the thread is elsewhere: nothing is left to reach it.
        first.context.kamContext.clear();
        frame();
    });
    EXPECT_EQ(support::countLog("Releasing a EGLContext"), 0);
}

// ---- start ----

TEST_F(ManagerTest, WorkerStartsAfterThreeGoodPeriodsAndOffloadOneBoundaryLater) {
    App app;
    onThread("app-render", [&] {
        manager->makeCurrentPre(app.handle(), &app.draw);
        KAMContext* k = app.kam();
        ASSERT_NE(k, nullptr);
        sp<KAMThreadLocal> tls = __tls;
        const pthread_t appThread = pthread_self();

        frame();
        for (int fps : {10, 10, 5, 10, 10}) period(fps);
        for (int i = 0; i < 9; ++i) frame();
        EXPECT_EQ(k->mWorker, nullptr);
        EXPECT_FALSE(manager->mWorkerRunning.load());
        EXPECT_TRUE(fake::calls().empty());

        frame();  // closes the third good period in a row
        ASSERT_NE(k->mWorker, nullptr);
        EXPECT_TRUE(manager->mWorkerRunning.load());
        EXPECT_EQ(k->mActive, 0);
        EXPECT_EQ(tls->mActiveContext, nullptr);
        EXPECT_EQ(k->mPlaceholderSurface, kPlaceholderSurface);
        EXPECT_EQ(k->mPlaceholderContext, kPlaceholderContext);
        EXPECT_NE(k->mMemory.mBase, nullptr);
        EXPECT_EQ(configAttribs, (std::vector<EGLint>{EGL_RENDERABLE_TYPE, EGL_OPENGL_ES2_BIT, EGL_RED_SIZE, 8,
                                                      EGL_GREEN_SIZE, 8, EGL_BLUE_SIZE, 8, EGL_ALPHA_SIZE, 8}));
        EXPECT_EQ(contextAttribs, (std::vector<EGLint>{EGL_CONTEXT_CLIENT_VERSION, 2}));
        auto created = callsNamed("eglCreateContext");
        ASSERT_EQ(created.size(), 1u);
        EXPECT_EQ(created[0].args[2], b(app.handle()));  // shares the application's objects
        EXPECT_TRUE(callsNamed("eglMakeCurrent").empty());
        EXPECT_FALSE(loader->mEglSwitched);
        EXPECT_EQ(support::countLog("KAMWorker started"), 0);

        fake::reset();
        frame();
        EXPECT_EQ(k->mActive, 1);
        EXPECT_EQ(tls->mActiveContext, k);
        EXPECT_TRUE(loader->mEglSwitched);
        const pthread_t worker = workerOf(k);
        auto calls = fake::calls();
        auto current = callsNamed("eglMakeCurrent");
        ASSERT_EQ(current.size(), 3u);
        EXPECT_TRUE(on(current[0], appThread));
        EXPECT_EQ(current[0].args, (std::vector<uint64_t>{b(kDisplay), 0, 0, 0}));
        EXPECT_TRUE(on(current[1], appThread));
        EXPECT_EQ(current[1].args, (std::vector<uint64_t>{b(kDisplay), b(kPlaceholderSurface), b(kPlaceholderSurface),
                                                           b(kPlaceholderContext)}));
        EXPECT_TRUE(on(current[2], worker));
        EXPECT_EQ(current[2].args,
                  (std::vector<uint64_t>{b(kDisplay), b(&app.draw), b(&app.read), b(app.handle())}));
        // The unpack state is read while the thread still has the real context.
        int snapshot = indexOf(calls, "glGetIntegerv");
        ASSERT_GE(snapshot, 0);
        EXPECT_LT(snapshot, indexOf(calls, "eglMakeCurrent"));
        EXPECT_TRUE(on(calls[snapshot], appThread));
        EXPECT_EQ(exactLog(format("KAMWorker started -> app-render EGLContext=%p", app.handle()), ANDROID_LOG_DEBUG),
                  1);
        EXPECT_EQ(callsNamed("eglChooseConfig").size(), 0u);
        release(app);
    });
}

TEST_F(ManagerTest, OffloadWaitsUntilTheRealContextIsLetGo) {
    App app;
    onThread("app-render", [&] {
        manager->makeCurrentPre(app.handle(), &app.draw);
        framesUntilWorker();
        KAMContext* k = app.kam();
        ASSERT_NE(k->mWorker, nullptr);
        failRelease = true;
        fake::reset();
        frame();
        EXPECT_EQ(k->mActive, 0);
        EXPECT_EQ(__tls->mActiveContext, nullptr);
        EXPECT_FALSE(loader->mEglSwitched);
        k->mWorker->postSync([] {}, "drain");
        EXPECT_EQ(callsNamed("eglMakeCurrent").size(), 1u);  // only the refused release
        EXPECT_TRUE(callsNamed("eglCreateSyncKHR").empty());

        failRelease = false;
        frame();
        EXPECT_EQ(k->mActive, 1);
        EXPECT_EQ(__tls->mActiveContext, k);
        release(app);
    });
}

TEST_F(ManagerTest, DriverWithoutAMatchingConfigNeverOffloads) {
    configCount = 0;
    App app;
    onThread("app-render", [&] {
        manager->makeCurrentPre(app.handle(), &app.draw);
        framesUntilWorker();
        KAMContext* k = app.kam();
        ASSERT_NE(k->mWorker, nullptr);
        EXPECT_EQ(k->mPlaceholderContext, EGL_NO_CONTEXT);
        for (int i = 0; i < 5; ++i) frame();
        EXPECT_EQ(k->mActive, 0);
        EXPECT_EQ(__tls->mActiveContext, nullptr);
        release(app);
    });
    EXPECT_EQ(exactLog("eglChooseConfig failed", ANDROID_LOG_ERROR), 1);
    EXPECT_TRUE(callsNamed("eglMakeCurrent").empty());
    EXPECT_TRUE(callsNamed("eglCreatePbufferSurface").empty());
}

// ---- frame boundary ----

TEST_F(ManagerTest, BoundaryWaitsForTheFrameAndLeavesAFence) {
    App app;
    onThread("app-render", [&] {
        KAMContext* k = activate(app);
        ASSERT_EQ(k->mActive, 1);
        const pthread_t worker = workerOf(k);
        const pthread_t appThread = pthread_self();
        ASSERT_EQ(k->mFrameFence, reinterpret_cast<EGLSyncKHR>(kFenceBase + 1));
        fake::reset();
        kam_glActiveTexture_opt(0x84C0);
        kam_glActiveTexture_opt(0x84C1);
        EXPECT_GT(k->mMemory.mCursor, k->mMemory.mFrameStart);

        frame();
        // Everything of the frame ran before the call returned, in order, and
        // the new fence follows it.
        auto calls = fake::calls();
        int gl = indexOf(calls, "glActiveTexture");
        int gl2 = indexOf(calls, "glActiveTexture", gl + 1);
        int destroyed = indexOf(calls, "eglDestroySyncKHR");
        int created = indexOf(calls, "eglCreateSyncKHR");
        ASSERT_GE(gl, 0);
        ASSERT_GE(gl2, 0);
        ASSERT_GE(destroyed, 0);
        ASSERT_GE(created, 0);
        EXPECT_LT(gl2, created);
        EXPECT_LT(destroyed, created);
        EXPECT_TRUE(on(calls[gl2], worker));
        EXPECT_TRUE(on(calls[created], worker));
        EXPECT_EQ(calls[created].args, (std::vector<uint64_t>{b(kDisplay), EGL_SYNC_FENCE_KHR, 0}));
        EXPECT_TRUE(on(calls[destroyed], appThread));
        EXPECT_EQ(calls[destroyed].args, (std::vector<uint64_t>{b(kDisplay), kFenceBase + 1}));
        EXPECT_EQ(k->mFrameFence, reinterpret_cast<EGLSyncKHR>(kFenceBase + 2));
        // The frame's state was reset on the worker.
        EXPECT_EQ(k->mWorker->frameCount(), 0);
        EXPECT_EQ(k->mMemory.mCursor, k->mMemory.mFrameStart);
        EXPECT_GT(k->mMemory.mLastUsed, 0);
        EXPECT_STREQ(k->mWorker->postSync([k] { return k->mWorker->lastName(); }, "lastName"), "swapBuffers");
        release(app);
    });
}

TEST_F(ManagerTest, FencesNeverPileUp) {
    App app;
    onThread("app-render", [&] {
        KAMContext* k = activate(app);
        ASSERT_EQ(k->mActive, 1);
        fake::reset();
        for (int i = 0; i < 5; ++i) frame();
        auto calls = fake::calls();
        // Each boundary destroys the fence of the previous one before making
        // its own.
        std::vector<uint64_t> destroyed;
        size_t created = 0;
        for (const fake::Call& c : calls) {
            if (c.name == "eglDestroySyncKHR") {
                EXPECT_EQ(destroyed.size(), created);
                destroyed.push_back(c.args[1]);
            } else if (c.name == "eglCreateSyncKHR") {
                ++created;
            }
        }
        EXPECT_EQ(destroyed, (std::vector<uint64_t>{kFenceBase + 1, kFenceBase + 2, kFenceBase + 3, kFenceBase + 4,
                                                    kFenceBase + 5}));
        EXPECT_EQ(created, 5u);
        EXPECT_EQ(k->mFrameFence, reinterpret_cast<EGLSyncKHR>(kFenceBase + 6));

        // A fence the application took is its own to destroy.
        EXPECT_EQ(kam_eglCreateSyncKHR_opt(kDisplay, EGL_SYNC_FENCE_KHR, nullptr),
                  reinterpret_cast<EGLSyncKHR>(kFenceBase + 6));
        fake::reset();
        frame();
        EXPECT_TRUE(callsNamed("eglDestroySyncKHR").empty());
        EXPECT_EQ(callsNamed("eglCreateSyncKHR").size(), 1u);
        release(app);
    });
}

TEST_F(ManagerTest, BoundaryWithoutPermissionRecordOrContextDoesNothing) {
    App app;
    // Offload forbidden while a context is active on the thread.
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
        EXPECT_TRUE(fake::calls().empty());
        EXPECT_TRUE(support::logLines().empty());
        release(app);
    });
    fake::reset();
    support::clearLog();
    // A thread that never made a context current.
    onThread("no-record", [&] {
        for (int i = 0; i < 12; ++i) frame();
        EXPECT_EQ(__tls, nullptr);
    });
    // A thread with a record but no context.
    App offscreen;
    onThread("no-context", [&] {
        manager->makeCurrentPre(offscreen.handle(), &offscreen.pbuffer);
        ASSERT_NE(__tls, nullptr);
        support::clearLog();
        for (int i = 0; i < 12; ++i) frame();
        EXPECT_EQ(__tls->mContext, nullptr);
    });
    EXPECT_TRUE(fake::calls().empty());
    EXPECT_EQ(support::countLog("fps="), 0);
}

TEST_F(ManagerTest, BoundaryWithoutOffloadOnlyCounts) {
    App app;
    onThread("app-render", [&] {
        manager->makeCurrentPre(app.handle(), &app.draw);
        KAMContext* k = app.kam();
        ASSERT_NE(k, nullptr);
        for (int i = 0; i < 25; ++i) frame();
        EXPECT_EQ(k->mFrameCount, 25u);
        EXPECT_EQ(k->mFrameFence, EGL_NO_SYNC_KHR);
        release(app);
    });
    EXPECT_TRUE(fake::calls().empty());
    EXPECT_EQ(support::countLog("fps="), 0);
}

TEST_F(ManagerTest, StatisticsOncePerClosedPeriod) {
    App app;
    onThread("app-render", [&] {
        KAMContext* k = activate(app);
        ASSERT_EQ(k->mActive, 1);
        support::clearLog();
        // The period that detection left open continues: it closes at the
        // ninth boundary after the one that switched offload on.
        for (int i = 0; i < 8; ++i) frame();
        EXPECT_EQ(support::countLog("fps="), 0);
        kam_glActiveTexture_opt(0x84C0);
        kam_glActiveTexture_opt(0x84C1);
        kam_glActiveTexture_opt(0x84C2);
        const int32_t used = static_cast<int32_t>(k->mMemory.mCursor - k->mMemory.mFrameStart);
        frame();
        // Frames count from the context's first boundary, before offload.
        char line[128];
        snprintf(line, sizeof line, "%s fps=10 frame=41 memory=%d size=3", manager->mName.c_str(), used);
        EXPECT_EQ(exactLog(line, ANDROID_LOG_DEBUG), 1);
        EXPECT_EQ(support::countLog("fps="), 1);
        for (int i = 0; i < 9; ++i) frame();
        EXPECT_EQ(support::countLog("fps="), 1);
        frame();
        EXPECT_EQ(support::countLog("fps="), 2);
        release(app);
    });
}

// ---- stop and restart ----

TEST_F(ManagerTest, PlatformStopsAndRestartsOffloadAtFrameBoundaries) {
    App app;
    onThread("app-render", [&] {
        KAMContext* k = activate(app);
        ASSERT_EQ(k->mActive, 1);
        sp<KAMThreadLocal> tls = __tls;
        const pthread_t worker = workerOf(k);
        const pthread_t appThread = pthread_self();
        const sp<KAMWorker> keptWorker = k->mWorker;
        const EGLSyncKHR pending = k->mFrameFence;
        ASSERT_NE(pending, EGL_NO_SYNC_KHR);
        fake::reset();
        support::clearLog();

        std::thread([this] { manager->updateMTR(0); }).join();
        frame();
        EXPECT_EQ(k->mActive, 0);
        EXPECT_EQ(tls->mActiveContext, nullptr);
        EXPECT_EQ(tls->mContext, k);
        EXPECT_EQ(k->mFrameFence, EGL_NO_SYNC_KHR);
        EXPECT_EQ(k->mWorker, keptWorker);
        EXPECT_TRUE(manager->mWorkerRunning.load());
        auto calls = fake::calls();
        auto current = callsNamed("eglMakeCurrent");
        ASSERT_EQ(current.size(), 3u);
        // The worker lets go of the real context before the thread takes it.
        EXPECT_TRUE(on(current[0], worker));
        EXPECT_EQ(current[0].args, (std::vector<uint64_t>{b(kDisplay), 0, 0, 0}));
        EXPECT_TRUE(on(current[1], appThread));
        EXPECT_EQ(current[1].args, (std::vector<uint64_t>{b(kDisplay), 0, 0, 0}));
        EXPECT_TRUE(on(current[2], appThread));
        EXPECT_EQ(current[2].args,
                  (std::vector<uint64_t>{b(kDisplay), b(&app.draw), b(&app.read), b(app.handle())}));
        auto destroyed = callsNamed("eglDestroySyncKHR");
        ASSERT_EQ(destroyed.size(), 1u);
        EXPECT_EQ(destroyed[0].args[1], b(pending));
        EXPECT_TRUE(callsNamed("eglCreateSyncKHR").empty());
        EXPECT_EQ(exactLog(format("MTR <app-render> is stopped EGLContext=%p", app.handle()), ANDROID_LOG_DEBUG), 1);

        // Stopped: boundaries only count, and GL goes straight to the driver.
        fake::reset();
        const uint32_t frames = k->mFrameCount;
        const int32_t posts = k->mWorker->frameCount();
        for (int i = 0; i < 3; ++i) frame();
        EXPECT_EQ(k->mFrameCount, frames + 3);
        EXPECT_EQ(k->mWorker->frameCount(), posts);
        EXPECT_TRUE(fake::calls().empty());
        kam_glActiveTexture_opt(0x84C5);
        calls = fake::calls();
        ASSERT_EQ(calls.size(), 1u);
        EXPECT_TRUE(on(calls[0], appThread));

        // Back on at the very next boundary, with no new measuring (the clock
        // stands still) and the same worker and placeholder.
        fake::reset();
        manager->updateMTR(1);
        frame(0);
        EXPECT_EQ(k->mActive, 1);
        EXPECT_EQ(tls->mActiveContext, k);
        EXPECT_EQ(k->mWorker, keptWorker);
        current = callsNamed("eglMakeCurrent");
        ASSERT_EQ(current.size(), 3u);
        EXPECT_EQ(current[1].args, (std::vector<uint64_t>{b(kDisplay), b(kPlaceholderSurface), b(kPlaceholderSurface),
                                                           b(kPlaceholderContext)}));
        EXPECT_TRUE(on(current[2], worker));
        EXPECT_EQ(current[2].args,
                  (std::vector<uint64_t>{b(kDisplay), b(&app.draw), b(&app.read), b(app.handle())}));
        EXPECT_TRUE(callsNamed("eglChooseConfig").empty());
        EXPECT_EQ(callsNamed("eglCreateSyncKHR").size(), 1u);
        EXPECT_EQ(support::countLog("KAMWorker started -> app-render"), 1);
        release(app);
    });
    EXPECT_EQ(support::countLog("Releasing a EGLContext"), 0);
}

// ---- context destroyed under an offloaded thread ----

TEST_F(ManagerTest, ContextDestroyedWhileActiveDetachesTheThread) {
    for (bool fromOwner : {true, false}) {
        SCOPED_TRACE(fromOwner ? "destroyed by the owning thread" : "destroyed by another thread");
        App app;
        std::promise<void> ready, destroyed;
        std::shared_future<void> destroyedDone = destroyed.get_future().share();
        pthread_t worker{}, releaser{};
        int tid = 0;
        sp<KAMWorker> keptWorker;
        std::vector<fake::Call> calls;
        bool workerRunningAfter = true;

        auto destroy = [&] {
            releaser = pthread_self();
            fake::reset();
            support::clearLog();
            app.context.kamContext.clear();
            calls = fake::calls();
            workerRunningAfter = keptWorker != nullptr && keptWorker->isRunning();
        };
        std::thread owner([&] {
            prctl(PR_SET_NAME, "app-render", 0, 0, 0);
            KAMContext* k = activate(app);
            tid = gettid();
            if (k && k->mActive) {
                worker = workerOf(k);
                keptWorker = k->mWorker;
            }
            ready.set_value();
            if (fromOwner) {
                destroy();
            } else {
                destroyedDone.wait();
            }
            sp<KAMThreadLocal> tls = __tls;
            EXPECT_EQ(tls->mContext, nullptr);
            EXPECT_EQ(tls->mActiveContext, nullptr);
            EXPECT_EQ(tls->mEglContext, nullptr);
            // The thread passes through from now on, and its boundaries do
            // nothing.
            fake::reset();
            frame();
            kam_glActiveTexture_opt(0x84C7);
            auto after = fake::calls();
            ASSERT_EQ(after.size(), 1u);
            EXPECT_EQ(after[0].name, "glActiveTexture");
            EXPECT_TRUE(on(after[0], pthread_self()));
        });
        ready.get_future().wait();
        if (!fromOwner) {
            destroy();
            destroyed.set_value();
        }
        owner.join();
        ASSERT_NE(keptWorker, nullptr);

        EXPECT_EQ(exactLog(format("Releasing a EGLContext %p which is attached to [<app-render>,", app.handle()) +
                               std::to_string(tid) + "], may be a fatal error.",
                           ANDROID_LOG_ERROR),
                  1);
        EXPECT_EQ(exactLog(format("KAMContext is released EGLContext=%p", app.handle()), ANDROID_LOG_DEBUG), 1);
        // The placeholder goes on the destroying thread, then the worker lets
        // go of its EGL state and is joined.
        int ctx = indexOf(calls, "eglDestroyContext");
        int surface = indexOf(calls, "eglDestroySurface");
        int released = indexOf(calls, "eglReleaseThread");
        ASSERT_GE(ctx, 0);
        ASSERT_GE(surface, 0);
        ASSERT_GE(released, 0);
        EXPECT_TRUE(on(calls[ctx], releaser));
        EXPECT_TRUE(on(calls[surface], releaser));
        EXPECT_EQ(calls[ctx].args, (std::vector<uint64_t>{b(kDisplay), b(kPlaceholderContext)}));
        EXPECT_EQ(calls[surface].args, (std::vector<uint64_t>{b(kDisplay), b(kPlaceholderSurface)}));
        EXPECT_TRUE(on(calls[released], worker));
        EXPECT_EQ(std::count_if(calls.begin(), calls.end(),
                                [](const fake::Call& c) { return c.name == "eglReleaseThread"; }),
                  1);
        EXPECT_FALSE(workerRunningAfter);
        EXPECT_FALSE(manager->mWorkerRunning.load());
    }
}

}  // namespace
