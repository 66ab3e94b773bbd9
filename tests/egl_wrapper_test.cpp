// The interposed EGL entry points on an offloaded thread: which run on the
// caller, which on the worker (waited for or not), which are answered from the
// platform's records, and the make-current, frame-fence and error shortcuts.

#include <gtest/gtest.h>
#include <log/log.h>

#include <cstdio>
#include <future>
#include <string>
#include <vector>

#include "call_cases.h"
#include "kam_wrappers.h"
#include "runtime/KAMThreadLocal.h"
#include "support.h"
#include "transport/WorkItem.h"

using namespace android;

namespace {

enum class Kind { Pass, Sync, Async };

struct Wrapper {
    const char* exported;
    void* fn;
    Kind kind;
};

#define KAM_ROW(fn, kind) \
    { #fn, reinterpret_cast<void*>(&fn), Kind::kind }

// Written out by hand rather than read from the generator's list, so that a
// wrapper generated with the wrong kind shows up here.
const Wrapper kWrappers[] = {
    KAM_ROW(kam_eglGetDisplay_opt, Pass), KAM_ROW(kam_eglInitialize_opt, Pass), KAM_ROW(kam_eglChooseConfig_opt, Pass),
    KAM_ROW(kam_eglGetConfigAttrib_opt, Pass), KAM_ROW(kam_eglCreateWindowSurface_opt, Pass),
    KAM_ROW(kam_eglCreatePlatformWindowSurface_opt, Pass), KAM_ROW(kam_eglCreatePixmapSurface_opt, Pass),
    KAM_ROW(kam_eglCreatePlatformPixmapSurface_opt, Pass), KAM_ROW(kam_eglCreatePbufferSurface_opt, Pass),
    KAM_ROW(kam_eglCreateContext_opt, Pass), KAM_ROW(kam_eglQueryContext, Pass),
    KAM_ROW(kam_eglGetProcAddress_opt, Pass), KAM_ROW(kam_eglSurfaceAttrib_opt, Pass),
    KAM_ROW(kam_eglBindAPI_opt, Pass), KAM_ROW(kam_eglQueryAPI_opt, Pass), KAM_ROW(kam_eglReleaseThread_opt, Pass),
    KAM_ROW(kam_eglCreatePbufferFromClientBuffer_opt, Pass), KAM_ROW(kam_eglCreateImage_opt, Pass),
    KAM_ROW(kam_eglCreateImageKHR_opt, Pass), KAM_ROW(kam_eglDestroySync_opt, Pass),
    KAM_ROW(kam_eglClientWaitSync_opt, Pass), KAM_ROW(kam_eglGetSyncAttrib, Pass),
    KAM_ROW(kam_eglDestroySyncKHR_opt, Pass), KAM_ROW(kam_eglSignalSyncKHR_opt, Pass),
    KAM_ROW(kam_eglClientWaitSyncKHR_opt, Pass), KAM_ROW(kam_eglGetSyncAttribKHR_opt, Pass),
    KAM_ROW(kam_eglGetPlatformDisplay, Sync), KAM_ROW(kam_eglGetConfigs, Sync), KAM_ROW(kam_eglDestroySurface, Sync),
    KAM_ROW(kam_eglQuerySurface, Sync), KAM_ROW(kam_eglDestroyContext, Sync), KAM_ROW(kam_eglWaitGL, Sync),
    KAM_ROW(kam_eglWaitNative, Sync), KAM_ROW(kam_eglSwapBuffersWithDamageKHR_opt, Sync),
    KAM_ROW(kam_eglCopyBuffers_opt, Sync), KAM_ROW(kam_eglQueryString, Sync),
    KAM_ROW(kam_eglQueryStringImplementationANDROID, Sync), KAM_ROW(kam_eglBindTexImage, Sync),
    KAM_ROW(kam_eglSwapInterval, Sync), KAM_ROW(kam_eglWaitClient, Sync), KAM_ROW(kam_eglLockSurfaceKHR, Sync),
    KAM_ROW(kam_eglCreateSync_opt, Sync), KAM_ROW(kam_eglCreateStreamKHR, Sync), KAM_ROW(kam_eglStreamAttribKHR, Sync),
    KAM_ROW(kam_eglQueryStreamKHR, Sync), KAM_ROW(kam_eglQueryStreamu64KHR, Sync),
    KAM_ROW(kam_eglQueryStreamTimeKHR, Sync), KAM_ROW(kam_eglCreateStreamProducerSurfaceKHR, Sync),
    KAM_ROW(kam_eglStreamConsumerGLTextureExternalKHR, Sync), KAM_ROW(kam_eglStreamConsumerAcquireKHR, Sync),
    KAM_ROW(kam_eglStreamConsumerReleaseKHR, Sync), KAM_ROW(kam_eglGetStreamFileDescriptorKHR, Sync),
    KAM_ROW(kam_eglCreateStreamFromFileDescriptorKHR, Sync), KAM_ROW(kam_eglWaitSync, Sync),
    KAM_ROW(kam_eglWaitSyncKHR, Sync), KAM_ROW(kam_eglDupNativeFenceFDANDROID, Sync),
    KAM_ROW(kam_eglGetNativeClientBufferANDROID, Sync), KAM_ROW(kam_eglGetSystemTimeFrequencyNV, Sync),
    KAM_ROW(kam_eglGetSystemTimeNV, Sync), KAM_ROW(kam_eglSetDamageRegionKHR, Sync),
    KAM_ROW(kam_eglGetNextFrameIdANDROID, Sync), KAM_ROW(kam_eglGetCompositorTimingANDROID, Sync),
    KAM_ROW(kam_eglGetCompositorTimingSupportedANDROID, Sync), KAM_ROW(kam_eglGetFrameTimestampsANDROID, Sync),
    KAM_ROW(kam_eglGetFrameTimestampSupportedANDROID, Sync),
    // Superseded by their _opt forms, but still generic synchronous calls.
    KAM_ROW(kam_eglMakeCurrent, Sync), KAM_ROW(kam_eglCreateSyncKHR, Sync),
    KAM_ROW(kam_eglTerminate_opt, Async), KAM_ROW(kam_eglBeginFrame, Async), KAM_ROW(kam_eglSwapBuffers_opt, Async),
    KAM_ROW(kam_eglReleaseTexImage, Async), KAM_ROW(kam_eglUnlockSurfaceKHR_opt, Async),
    KAM_ROW(kam_eglDestroyImage_opt, Async), KAM_ROW(kam_eglDestroyImageKHR_opt, Async),
    KAM_ROW(kam_eglDestroyStreamKHR, Async), KAM_ROW(kam_eglPresentationTimeANDROID_opt, Async),
};

#undef KAM_ROW

std::string originName(const std::string& exported) {
    std::string name = exported.substr(4);  // "kam_"
    if (name.size() > 4 && name.compare(name.size() - 4, 4, "_opt") == 0) name.resize(name.size() - 4);
    return name;
}

const cases::Case* findCase(const std::string& name) {
    for (int k = 0; k < cases::eglCaseCount; ++k)
        if (name == cases::eglCases[k].name) return &cases::eglCases[k];
    return nullptr;
}

std::vector<fake::Call> callsNamed(const std::string& name) { return fake::named(fake::calls(), name); }

template <class T>
uint64_t b(T v) {
    return fake::bits(v);
}

const EGLDisplay kDisplay = reinterpret_cast<EGLDisplay>(0xD15);
const EGLSurface kDraw = reinterpret_cast<EGLSurface>(0xD4A);
const EGLSurface kRead = reinterpret_cast<EGLSurface>(0x4EAD);

class EglWrapperTest : public ::testing::Test {
protected:
    void SetUp() override {
        support::initLayer();
        fake::clearHandlers();
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

TEST_F(EglWrapperTest, EachKindRunsWhereItBelongs) {
    uint64_t seed = 0x7100;
    for (const Wrapper& w : kWrappers) {
        SCOPED_TRACE(w.exported);
        const cases::Case* c = findCase(originName(w.exported));
        ASSERT_NE(c, nullptr);
        fake::reset();
        const int32_t postsBefore = posts();
        const uint8_t* cursorBefore = active.get()->mMemory.mCursor;
        cases::Outcome out;

        // Asynchronous calls: a failing driver, and a held worker so that the
        // call cannot have run before the wrapper returns.
        fake::setResult(w.kind == Kind::Async ? EGL_FALSE : ++seed);
        std::promise<void> release;
        std::shared_future<void> gate = release.get_future().share();
        if (w.kind == Kind::Async) active.worker()->post(new WorkItem("hold", [gate] { gate.wait(); }), true);
        c->call(w.fn, out);
        if (w.kind == Kind::Async) {
            EXPECT_TRUE(fake::calls().empty());
            EXPECT_EQ(active.worker()->pending(), 0) << "handed to the worker at once, not left to a later wake-up";
            if (!c->isVoid) {
                EXPECT_EQ(out.result, static_cast<uint64_t>(EGL_TRUE));
            }
            release.set_value();
            active.drain();
        } else {
            EXPECT_EQ(out.result, out.expected);
        }
        auto calls = fake::calls();  // synchronous ones: there before returning
        ASSERT_EQ(calls.size(), 1u);
        EXPECT_EQ(calls[0].name, c->name);
        EXPECT_TRUE(w.kind == Kind::Pass ? onCaller(calls[0]) : onWorker(calls[0]));
        EXPECT_EQ(calls[0].args, out.args);
        if (w.kind == Kind::Pass) {
            EXPECT_EQ(posts(), postsBefore);
            continue;
        }
        // Items of EGL calls come from the heap, never from the frame arena,
        // and carry the wrapper's own name.
        EXPECT_EQ(active.get()->mMemory.mCursor, cursorBefore);
        if (w.kind == Kind::Sync) {
            EXPECT_EQ(lastItem(), w.exported);
        }
    }
}

TEST_F(EglWrapperTest, AsynchronousItemsCarryTheWrapperName) {
    kam_eglSwapBuffers_opt(kDisplay, kDraw);
    EXPECT_EQ(lastItem(), "kam_eglSwapBuffers_opt");
    kam_eglBeginFrame(kDisplay, kDraw);
    EXPECT_EQ(lastItem(), "kam_eglBeginFrame");
}

TEST_F(EglWrapperTest, PresentationTimeKeepsAllSixtyFourBits) {
    const EGLnsecsANDROID time = static_cast<EGLnsecsANDROID>(0x123456789ABCDEF0ull);
    EXPECT_EQ(kam_eglPresentationTimeANDROID_opt(kDisplay, kDraw, time), EGL_TRUE);
    active.drain();
    auto calls = callsNamed("eglPresentationTimeANDROID");
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].args, (std::vector<uint64_t>{b(kDisplay), b(kDraw), 0x123456789ABCDEF0ull}));
}

TEST_F(EglWrapperTest, SwapIsQueuedBehindTheFramesCommands) {
    kam_glActiveTexture_opt(0x84C3);
    kam_eglSwapBuffers_opt(kDisplay, kDraw);
    active.drain();
    auto calls = fake::calls();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].name, "glActiveTexture");
    EXPECT_EQ(calls[1].name, "eglSwapBuffers");
    EXPECT_TRUE(onWorker(calls[0]) && onWorker(calls[1]));
}

TEST_F(EglWrapperTest, CurrentBindingIsAnsweredFromTheRecord) {
    fake::setResult(0xBAD);
    const int32_t before = posts();
    EXPECT_EQ(kam_eglGetCurrentContext_opt(), static_cast<EGLContext>(&active.record));
    EXPECT_EQ(kam_eglGetCurrentSurface_opt(EGL_DRAW), kDraw);
    EXPECT_EQ(kam_eglGetCurrentSurface_opt(EGL_READ), kRead);
    EXPECT_EQ(kam_eglGetCurrentSurface_opt(0x3056), EGL_NO_SURFACE);
    EXPECT_EQ(kam_eglGetCurrentDisplay_opt(), kDisplay);
    EXPECT_EQ(posts(), before);
    active.drain();
    EXPECT_TRUE(fake::calls().empty());  // not even an error set on the side
}

// Attached but not offloading: the placeholder is not current, the driver's
// answer is the right one.
TEST_F(EglWrapperTest, CurrentBindingOfAnAttachedButIdleThreadIsTheDrivers) {
    gThreadRecord->mActiveContext = nullptr;
    fake::setResult(0xABC0);
    EXPECT_EQ(kam_eglGetCurrentContext_opt(), reinterpret_cast<EGLContext>(0xABC0));
    EXPECT_EQ(kam_eglGetCurrentSurface_opt(EGL_DRAW), reinterpret_cast<EGLSurface>(0xABC0));
    EXPECT_EQ(kam_eglGetCurrentDisplay_opt(), reinterpret_cast<EGLDisplay>(0xABC0));
    gThreadRecord->mActiveContext = active.get();
    auto calls = fake::calls();
    ASSERT_EQ(calls.size(), 3u);
    for (const fake::Call& c : calls) EXPECT_TRUE(onCaller(c)) << c.name;
    EXPECT_EQ(calls[0].name + calls[1].name + calls[2].name, "eglGetCurrentContexteglGetCurrentSurfaceeglGetCurrentDisplay");
    EXPECT_EQ(calls[1].args, (std::vector<uint64_t>{static_cast<uint64_t>(EGL_DRAW)}));
}

TEST_F(EglWrapperTest, MakeCurrentOfTheExistingBindingPostsNothing) {
    void* const app = &active.record;
    void* const other = reinterpret_cast<void*>(0x0C7);
    const EGLDisplay otherDisplay = reinterpret_cast<EGLDisplay>(0xD16);
    const EGLSurface elsewhere = reinterpret_cast<EGLSurface>(0x5EE);
    struct Row {
        const char* what;
        EGLDisplay dpy;
        EGLSurface draw, read;
        void* ctx;
        bool posts;
    } rows[] = {
        {"same binding", kDisplay, kDraw, kRead, app, false},
        {"display is not compared", otherDisplay, kDraw, kRead, app, false},
        {"other context", kDisplay, kDraw, kRead, other, true},
        {"other draw surface", kDisplay, elsewhere, kRead, app, true},
        {"other read surface", kDisplay, kDraw, elsewhere, app, true},
        {"draw and read swapped", kDisplay, kRead, kDraw, app, true},
        {"release", kDisplay, EGL_NO_SURFACE, EGL_NO_SURFACE, nullptr, true},
    };
    // A driver that refuses: its answer, not the shortcut's, reaches the caller.
    fake::setResult(EGL_FALSE);
    for (const Row& r : rows) {
        SCOPED_TRACE(r.what);
        fake::reset();
        const int32_t before = posts();
        EGLBoolean result = kam_eglMakeCurrent_opt(r.dpy, r.draw, r.read, static_cast<EGLContext>(r.ctx));
        auto calls = fake::calls();
        if (!r.posts) {
            EXPECT_EQ(result, static_cast<EGLBoolean>(EGL_TRUE));
            EXPECT_EQ(posts(), before);
            EXPECT_TRUE(calls.empty());
            continue;
        }
        EXPECT_EQ(result, static_cast<EGLBoolean>(EGL_FALSE));
        ASSERT_EQ(calls.size(), 1u);
        EXPECT_EQ(calls[0].name, "eglMakeCurrent");
        EXPECT_TRUE(onWorker(calls[0]));
        EXPECT_EQ(calls[0].args, (std::vector<uint64_t>{b(r.dpy), b(r.draw), b(r.read), b(r.ctx)}));
        EXPECT_EQ(lastItem(), "kam_eglMakeCurrent_opt");
    }
}

// The frame fence is handed over once, to a plain fence request on any display;
// every other request is created on the worker and leaves it alone.
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
    struct Row {
        EGLSyncKHR fence;
        const char* origin;
        std::function<void*()> call;
        std::vector<uint64_t> args;
    } rows[] = {
        {EGL_NO_SYNC_KHR, "eglCreateSyncKHR", [&] { return kam_eglCreateSyncKHR_opt(kDisplay, EGL_SYNC_FENCE_KHR, nullptr); },
         {b(kDisplay), EGL_SYNC_FENCE_KHR, 0}},
        {frameFence, "eglCreateSyncKHR", [&] { return kam_eglCreateSyncKHR_opt(kDisplay, EGL_SYNC_FENCE_KHR, attribs); },
         {b(kDisplay), EGL_SYNC_FENCE_KHR, b(attribs)}},
        {frameFence, "eglCreateSyncKHR", [&] { return kam_eglCreateSyncKHR_opt(kDisplay, EGL_SYNC_REUSABLE_KHR, nullptr); },
         {b(kDisplay), EGL_SYNC_REUSABLE_KHR, 0}},
        {frameFence, "eglCreateSyncKHR",
         [&] { return kam_eglCreateSyncKHR_opt(kDisplay, EGL_SYNC_NATIVE_FENCE_ANDROID, nullptr); },
         {b(kDisplay), EGL_SYNC_NATIVE_FENCE_ANDROID, 0}},
        {frameFence, "eglCreateSync", [&] { return static_cast<void*>(kam_eglCreateSync_opt(kDisplay, EGL_SYNC_FENCE, nullptr)); },
         {b(kDisplay), EGL_SYNC_FENCE, 0}},
        {frameFence, "eglCreateSync",
         [&] { return static_cast<void*>(kam_eglCreateSync_opt(kDisplay, EGL_SYNC_FENCE, attribs15)); },
         {b(kDisplay), EGL_SYNC_FENCE, b(attribs15)}},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.args[1]);
        k->mFrameFence = r.fence;
        fake::reset();
        EXPECT_EQ(r.call(), reinterpret_cast<void*>(0x5C5C));
        EXPECT_EQ(k->mFrameFence, r.fence);
        auto calls = fake::calls();
        ASSERT_EQ(calls.size(), 1u);
        EXPECT_EQ(calls[0].name, r.origin);
        EXPECT_TRUE(onWorker(calls[0]));
        EXPECT_EQ(calls[0].args, r.args);
        EXPECT_EQ(lastItem(), "kam_" + std::string(r.origin) + "_opt");
    }
}

TEST_F(EglWrapperTest, ErrorProbeAnswersTheCallerAndLogsTheWorkersError) {
    const EGLint callerError = EGL_BAD_PARAMETER;
    struct Row {
        EGLint workerError;
        int logged;
    } rows[] = {{EGL_BAD_ALLOC, 1}, {EGL_SUCCESS, 0}, {EGL_BAD_SURFACE, 1}};
    for (const Row& r : rows) {
        SCOPED_TRACE(r.workerError);
        pthread_t worker = workerThread;
        fake::setHandler("eglGetError", [worker, r, callerError](const fake::Call& c) -> uint64_t {
            return static_cast<uint64_t>(pthread_equal(c.thread, worker) ? r.workerError : callerError);
        });
        fake::reset();
        support::clearLog();
        // The item the worker finishes just before the probe names the culprit.
        active.worker()->post(new WorkItem("kam-test-culprit", [] {}), false);
        EXPECT_EQ(kam_eglGetError_opt(), callerError);
        auto calls = fake::calls();
        ASSERT_EQ(calls.size(), 1u);
        EXPECT_TRUE(onCaller(calls[0]));
        // Queued without a wake-up of their own: they run with the next drain.
        EXPECT_EQ(active.worker()->pending(), 2);
        active.drain();
        calls = callsNamed("eglGetError");
        ASSERT_EQ(calls.size(), 2u);
        EXPECT_TRUE(onWorker(calls[1]));
        char line[64];
        snprintf(line, sizeof line, "kam-test-culprit eglGetError=0x%X", r.workerError);
        EXPECT_EQ(support::countLog(line, ANDROID_LOG_ERROR), r.logged);
        EXPECT_EQ(support::countLog("eglGetError="), r.logged);
    }
}

}  // namespace
