// The interposed EGL entry points on an offloaded thread: which run on the
// caller, which on the worker (waited for or not), which are answered from the
// platform's records, and the make-current, frame-fence and error shortcuts.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <log/log.h>

#include <cstdio>
#include <future>
#include <string>
#include <vector>

#include "call_cases.h"
#include "kam_wrappers.h"
#include "loader/KAMLoader.h"
#include "runtime/KAMThreadLocal.h"
#include "support.h"
#include "transport/WorkItem.h"

using namespace android;

namespace {

using fake::bits;

const EGLDisplay kDisplay = reinterpret_cast<EGLDisplay>(0xD15);
const EGLSurface kDraw = reinterpret_cast<EGLSurface>(0xD4A);
const EGLSurface kRead = reinterpret_cast<EGLSurface>(0x4EAD);

class EglWrapperTest : public ::testing::Test {
protected:
    void SetUp() override {
        support::initLayer();
        fake::clearHandlers();
        fake::clearAliases();
        fake::setResult(0);
        fake::reset();
        support::clearLog();
        active.record.draw = kDraw;
        active.record.read = kRead;
        workerThread = active.worker()->postSync([] { return pthread_self(); }, "who");
        fake::reset();
    }
    void TearDown() override {
        active.get()->mFrameFence = EGL_NO_SYNC_KHR;
        fake::clearHandlers();
        fake::setResult(0);
    }

    bool onWorker(const fake::Call& c) const { return pthread_equal(c.thread, workerThread) != 0; }
    static bool onCaller(const fake::Call& c) { return pthread_equal(c.thread, pthread_self()) != 0; }
    // The name of the last item the worker finished, read on the worker after
    // everything posted so far.
    std::string lastItem() {
        KAMWorker* w = active.worker();
        const char* name = w->postSync([w] { return w->lastName(); }, "lastName");
        return name ? name : "";
    }
    int32_t posts() const { return active.worker()->frameCount(); }

    support::ActiveContext active;
    pthread_t workerThread{};
};

// Every EGL wrapper the API description gives a plain kind: it runs on the
// caller (pass), on the worker while the caller waits (sync), or on the
// worker without a wait (async, with a driver that fails: the caller is told
// it worked).
TEST_F(EglWrapperTest, EachKindRunsWhereItBelongs) {
    void* self = dlopen(android::kamLibraryPath(), RTLD_LAZY);
    uint64_t seed = 0x7100;
    int ran = 0;
    for (int k = 0; k < cases::eglCaseCount; ++k) {
        const cases::Case* c = &cases::eglCases[k];
        const std::string kind = c->kind, exported = "kam_" + std::string(c->name) + (c->form[0] == 'o' ? "_opt" : "");
        if (kind != "pass" && kind != "sync" && kind != "async") continue;
        SCOPED_TRACE(exported);
        void* fn = dlsym(self, exported.c_str());
        ASSERT_NE(fn, nullptr);
        fake::reset();
        const int32_t postsBefore = posts();
        const uint8_t* cursorBefore = active.get()->mMemory.mCursor;
        cases::Outcome out;
        // A held worker: an asynchronous call cannot have run before the wrapper returns.
        fake::setResult(kind == "async" ? EGL_FALSE : ++seed);
        std::promise<void> release;
        std::shared_future<void> gate = release.get_future().share();
        if (kind == "async") active.worker()->post(new WorkItem("hold", [gate] { gate.wait(); }), true);
        c->call(fn, out);
        if (kind == "async") {
            EXPECT_TRUE(fake::calls().empty());
            EXPECT_EQ(active.worker()->pending(), 0) << "handed to the worker at once, not left to a later wake-up";
            if (!c->isVoid) { EXPECT_EQ(out.result, static_cast<uint64_t>(EGL_TRUE)); }
            release.set_value();
        } else {
            EXPECT_EQ(out.result, out.expected);
        }
        // Items of EGL calls carry the wrapper's own name (this waits for the worker).
        if (kind != "pass") { EXPECT_EQ(lastItem(), exported); }
        auto calls = fake::calls();  // synchronous ones: there before returning
        ASSERT_EQ(calls.size(), 1u);
        EXPECT_EQ(calls[0].name, c->name);
        EXPECT_TRUE(kind == "pass" ? onCaller(calls[0]) : onWorker(calls[0]));
        EXPECT_EQ(calls[0].args, out.args);
        // Items of EGL calls come from the heap, never from the frame arena.
        EXPECT_EQ(active.get()->mMemory.mCursor, cursorBefore);
        EXPECT_EQ(posts() == postsBefore, kind == "pass");
        ++ran;
    }
    dlclose(self);
    EXPECT_GT(ran, 70);
}

// Offloading, the current binding is the record's, with no driver call (not
// even an error set on the side); attached but idle (the placeholder is not
// current), it is the driver's.
TEST_F(EglWrapperTest, CurrentBindingIsAnsweredFromTheRecordWhileOffloading) {
    fake::setResult(0xABC0);
    const EGLSurface driver = reinterpret_cast<EGLSurface>(0xABC0);
    for (bool offloading : {true, false}) {
        SCOPED_TRACE(offloading);
        gThreadRecord->mActiveContext = offloading ? active.get() : nullptr;
        const int32_t before = posts();
        fake::reset();
        EXPECT_EQ(kam_eglGetCurrentContext_opt(), offloading ? static_cast<EGLContext>(&active.record) : driver);
        EXPECT_EQ(kam_eglGetCurrentSurface_opt(EGL_DRAW), offloading ? kDraw : driver);
        EXPECT_EQ(kam_eglGetCurrentSurface_opt(EGL_READ), offloading ? kRead : driver);
        EXPECT_EQ(kam_eglGetCurrentSurface_opt(0x3056), offloading ? EGL_NO_SURFACE : driver);
        EXPECT_EQ(kam_eglGetCurrentDisplay_opt(), offloading ? kDisplay : driver);
        EXPECT_EQ(posts(), before);
        active.drain();
        fake::aliasThread(pthread_self(), "app");
        EXPECT_EQ(fake::trace(), offloading ? "" : "app:eglGetCurrentContext() app:eglGetCurrentSurface(3059) "
                                                   "app:eglGetCurrentSurface(305a) app:eglGetCurrentSurface(3056) app:eglGetCurrentDisplay()");
        fake::clearAliases();
    }
    gThreadRecord->mActiveContext = active.get();
}

// Making current what is bound already posts nothing; anything else runs on
// the worker, and a driver that refuses gives its answer to the caller.
TEST_F(EglWrapperTest, MakeCurrentOfTheExistingBindingPostsNothing) {
    void* const app = &active.record;
    const EGLSurface elsewhere = reinterpret_cast<EGLSurface>(0x5EE);
    const struct { const char* what; EGLDisplay dpy; EGLSurface draw, read; void* ctx; const char* posted; } rows[] = {
        {"same binding", kDisplay, kDraw, kRead, app, ""},
        {"display is not compared", reinterpret_cast<EGLDisplay>(0xD16), kDraw, kRead, app, ""},
        {"other context", kDisplay, kDraw, kRead, reinterpret_cast<void*>(0xC7), "D,draw,read,c7"},
        {"other draw surface", kDisplay, elsewhere, kRead, app, "D,5ee,read,app"},
        {"other read surface", kDisplay, kDraw, elsewhere, app, "D,draw,5ee,app"},
        {"draw and read swapped", kDisplay, kRead, kDraw, app, "D,read,draw,app"},
        {"release", kDisplay, EGL_NO_SURFACE, EGL_NO_SURFACE, nullptr, "D,0,0,0"},
    };
    fake::alias(bits(kDisplay), "D"), fake::alias(bits(kDraw), "draw"), fake::alias(bits(kRead), "read"), fake::alias(bits(app), "app");
    fake::aliasThread(workerThread, "worker");
    fake::setResult(EGL_FALSE);
    for (const auto& r : rows) {
        SCOPED_TRACE(r.what);
        fake::reset();
        const int32_t before = posts();
        const bool posts = *r.posted != 0;
        EXPECT_EQ(kam_eglMakeCurrent_opt(r.dpy, r.draw, r.read, static_cast<EGLContext>(r.ctx)), posts ? EGL_FALSE : EGL_TRUE);
        EXPECT_EQ(fake::trace(), posts ? std::string("worker:eglMakeCurrent(") + r.posted + ")" : "");
        EXPECT_EQ(this->posts() == before, !posts);
        if (posts) { EXPECT_EQ(lastItem(), "kam_eglMakeCurrent_opt"); }
    }
}

// The frame fence is handed over once, to a plain fence request on any
// display; every other request is created on the worker and leaves it alone.
TEST_F(EglWrapperTest, FrameFenceIsHandedOverOnceOtherSyncsAreCreatedOnTheWorker) {
    const EGLSyncKHR frameFence = reinterpret_cast<EGLSyncKHR>(0xFE1);
    const EGLint attribs[] = {EGL_NONE};
    const EGLAttrib attribs15[] = {EGL_NONE};
    KAMContext* k = active.get();
    k->mFrameFence = frameFence;
    fake::setResult(0x5C5C);
    const int32_t before = posts();
    EXPECT_EQ(kam_eglCreateSyncKHR_opt(reinterpret_cast<EGLDisplay>(0xD16), EGL_SYNC_FENCE_KHR, nullptr), frameFence);
    EXPECT_EQ(k->mFrameFence, EGL_NO_SYNC_KHR);
    EXPECT_EQ(posts(), before);
    EXPECT_TRUE(fake::calls().empty());
    fake::alias(bits(kDisplay), "D"), fake::alias(bits(attribs), "attribs"), fake::alias(bits(attribs15), "attribs");
    fake::aliasThread(workerThread, "worker");
    const struct { EGLSyncKHR fence; const char* origin; std::function<void*()> call; const char* args; } rows[] = {
        {EGL_NO_SYNC_KHR, "eglCreateSyncKHR", [&] { return kam_eglCreateSyncKHR_opt(kDisplay, EGL_SYNC_FENCE_KHR, nullptr); }, "D,30f9,0"},
        {frameFence, "eglCreateSyncKHR", [&] { return kam_eglCreateSyncKHR_opt(kDisplay, EGL_SYNC_FENCE_KHR, attribs); }, "D,30f9,attribs"},
        {frameFence, "eglCreateSyncKHR", [&] { return kam_eglCreateSyncKHR_opt(kDisplay, EGL_SYNC_REUSABLE_KHR, nullptr); }, "D,30fa,0"},
        {frameFence, "eglCreateSyncKHR", [&] { return kam_eglCreateSyncKHR_opt(kDisplay, EGL_SYNC_NATIVE_FENCE_ANDROID, nullptr); }, "D,3144,0"},
        {frameFence, "eglCreateSync", [&] { return static_cast<void*>(kam_eglCreateSync_opt(kDisplay, EGL_SYNC_FENCE, nullptr)); }, "D,30f9,0"},
        {frameFence, "eglCreateSync", [&] { return static_cast<void*>(kam_eglCreateSync_opt(kDisplay, EGL_SYNC_FENCE, attribs15)); }, "D,30f9,attribs"},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.args);
        k->mFrameFence = r.fence;
        fake::reset();
        EXPECT_EQ(r.call(), reinterpret_cast<void*>(0x5C5C));
        EXPECT_EQ(k->mFrameFence, r.fence);
        EXPECT_EQ(fake::trace(), std::string("worker:") + r.origin + "(" + r.args + ")");
        EXPECT_EQ(lastItem(), "kam_" + std::string(r.origin) + "_opt");
    }
}

// The GL and the EGL error probe: the caller gets its own thread's error; the
// worker's, asked behind everything posted, is logged with the item it ran
// last (the culprit), unless there is none.
TEST_F(EglWrapperTest, ErrorProbesAnswerTheCallerAndLogTheWorkersError) {
    auto egl = [] { return uint64_t(kam_eglGetError_opt()); };
    auto gl = [] { return uint64_t(kam_glGetError_opt()); };
    const struct { const char* probe; uint64_t (*call)(); uint64_t callerError, workerError; bool logged; } rows[] = {
        {"eglGetError", egl, EGL_BAD_PARAMETER, EGL_BAD_ALLOC, true}, {"eglGetError", egl, EGL_BAD_PARAMETER, EGL_SUCCESS, false},
        {"eglGetError", egl, EGL_BAD_PARAMETER, EGL_BAD_SURFACE, true}, {"glGetError", gl, GL_INVALID_ENUM, GL_INVALID_OPERATION, true},
        {"glGetError", gl, GL_INVALID_ENUM, GL_NO_ERROR, false}};
    for (const auto& r : rows) {
        SCOPED_TRACE(::testing::Message() << r.probe << " " << r.workerError);
        pthread_t worker = workerThread;
        fake::setHandler(r.probe, [worker, r](const fake::Call& c) { return pthread_equal(c.thread, worker) ? r.workerError : r.callerError; });
        fake::reset();
        support::clearLog();
        active.worker()->post(new WorkItem("kam-test-culprit", [] {}), false);
        EXPECT_EQ(r.call(), r.callerError);
        // The worker's probe is queued, not waited for: a worker still
        // looking for work may already have run it.
        active.drain();
        const auto calls = fake::named(fake::calls(), r.probe);
        ASSERT_EQ(calls.size(), 2u);
        EXPECT_NE(onCaller(calls[0]), onCaller(calls[1]));
        char line[64];
        snprintf(line, sizeof line, "kam-test-culprit %s=0x%X", r.probe, unsigned(r.workerError));
        EXPECT_EQ(support::exactLog(line, ANDROID_LOG_ERROR), r.logged);
        EXPECT_EQ(support::countLog(std::string(r.probe) + "="), r.logged);
    }
}

}  // namespace
