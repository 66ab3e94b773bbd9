// A driver or an allocator that says no: the placeholder objects cannot be
// made, the frame arena cannot be had, a real mapping comes back null, a
// copy of client memory finds no memory. The application must never notice
// more than the driver itself would make it notice: its calls keep reaching
// the driver, and the layer says what went wrong in its log.

#include <gtest/gtest.h>
#include <log/log.h>
#include <malloc.h>
#include <sys/prctl.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <limits>
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
// memalign requests of at least this many bytes fail, as on a process out of
// address space; SIZE_MAX leaves every request alone.
std::atomic<size_t> gMemalignFailsFrom{std::numeric_limits<size_t>::max()};
}  // namespace

// The layer takes its arena and shadow blocks from memalign; this definition
// in the executable comes before the C library's for the whole process.
extern "C" void* memalign(size_t alignment, size_t size) {
    if (size >= gMemalignFailsFrom.load()) return nullptr;
    void* p = nullptr;
    return posix_memalign(&p, alignment < sizeof(void*) ? sizeof(void*) : alignment, size) == 0 ? p : nullptr;
}

namespace {

struct MemalignFails {
    explicit MemalignFails(size_t from) { gMemalignFailsFrom.store(from); }
    ~MemalignFails() { gMemalignFailsFrom.store(std::numeric_limits<size_t>::max()); }
};

const EGLDisplay kDisplay = reinterpret_cast<EGLDisplay>(0xD15);
const EGLConfig kConfig = reinterpret_cast<EGLConfig>(0xC0F);
const EGLSurface kPlaceholderSurface = reinterpret_cast<EGLSurface>(0x9B0F);
const EGLContext kPlaceholderContext = reinterpret_cast<EGLContext>(0x9C7C);
constexpr size_t kArenaBlock = 0x2000000;

uint32_t gNowMs = 0;
uint32_t fakeClock() { return gNowMs; }

using fake::named;

// ---------------------------------------- placeholder objects and the arena

// An application context on a window surface, driven through the manager as
// the platform drives it, over a driver that fails one step of the set-up.
class StartFaultTest : public ::testing::Test {
protected:
    void SetUp() override {
        support::initLayer();
        savedEnabled = manager->mEnabled;
        savedNeed = manager->mNeedMTR.load();
        savedRunning = manager->mWorkerRunning.load();
        savedClock = FpsUpdater::sClock;
        FpsUpdater::sClock = &fakeClock;
    }

    void TearDown() override {
        context.kamContext.clear();
        fake::clearHandlers();
        fake::reset();
        FpsUpdater::sClock = savedClock;
        manager->mEnabled = savedEnabled;
        manager->mNeedMTR.store(savedNeed);
        manager->mWorkerRunning.store(savedRunning);
    }

    // A fresh context record and a driver that can make the placeholder.
    void arm() {
        manager->mEnabled = true;
        manager->mNeedMTR.store(true);
        manager->mWorkerRunning.store(false);
        gNowMs = 10000;
        context.kamContext.clear();
        context = PlatformContextRecord{};
        context.display = kDisplay;
        context.clientVersion = 2;
        strcpy(context.creatorName, "app-creator");
        draw.nativeWindow = reinterpret_cast<void*>(0x71);
        context.draw = context.read = &draw;
        fake::clearHandlers();
        fake::setResult(0);
        fake::setHandler("eglChooseConfig", [](const fake::Call& c) -> uint64_t {
            *reinterpret_cast<EGLConfig*>(c.args[2]) = kConfig;
            *reinterpret_cast<EGLint*>(c.args[4]) = 1;
            return EGL_TRUE;
        });
        fake::setHandler("eglCreatePbufferSurface", [](const fake::Call&) { return fake::bits(kPlaceholderSurface); });
        fake::setHandler("eglCreateContext", [](const fake::Call&) { return fake::bits(kPlaceholderContext); });
        fake::setHandler("eglMakeCurrent", [](const fake::Call&) -> uint64_t { return EGL_TRUE; });
        fake::reset();
        support::clearLog();
    }

    // Frame boundaries at ten a second: three whole periods start the worker.
    void frames(int n) {
        for (int i = 0; i < n; ++i) {
            gNowMs += 100;
            manager->swapBuffers();
        }
    }

    KAMManager* manager = KAMManager::INSTANCE;
    PlatformContextRecord context{};
    PlatformSurfaceRecord draw{};

private:
    bool savedEnabled = false, savedNeed = true, savedRunning = false;
    uint32_t (*savedClock)() = nullptr;
};

TEST_F(StartFaultTest, OffloadStaysOffAndCallsPassThrough) {
    const char* const kMessages[] = {"eglChooseConfig failed", "eglCreatePbufferSurface failed",
                                     "eglCreateContext failed"};
    // failing: the driver entry that fails; message: the one error logged (or null).
    struct Row { const char* name; const char* failing; const char* message; bool pbufferTried, surfaceMade, contextMade; size_t memalignFailsFrom; } rows[] = {
        // A true result is needed as well as the one config.
        {"config query fails", "eglChooseConfig", "eglChooseConfig failed", false, false, false, SIZE_MAX},
        {"no pbuffer", "eglCreatePbufferSurface", "eglCreatePbufferSurface failed", true, false, false, SIZE_MAX},
        // The pbuffer made before the failure is kept until the context dies.
        {"no placeholder context", "eglCreateContext", "eglCreateContext failed", true, true, false, SIZE_MAX},
        // No arena: nothing is logged, the placeholder is there but unused.
        {"no arena", nullptr, nullptr, true, true, true, kArenaBlock},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        arm();
        if (row.failing) fake::setHandler(row.failing, [](const fake::Call&) -> uint64_t { return 0; });
        pthread_t appThread{}, worker{};
        std::vector<fake::Call> running, destroying;
        std::thread([&] {
            prctl(PR_SET_NAME, "app-render", 0, 0, 0);
            appThread = pthread_self();
            MemalignFails fails(row.memalignFailsFrom);
            manager->makeCurrentPre(&context, &draw);
            frames(31);  // the worker starts at the last one
            KAMContext* k = context.kamContext.get();
            ASSERT_NE(k, nullptr);
            ASSERT_NE(k->mWorker, nullptr);
            worker = k->mWorker->postSync([] { return pthread_self(); }, "who");
            frames(10);  // no later boundary tries again or switches offload on
            EXPECT_EQ(k->mActive, 0);
            EXPECT_EQ(__tls->mActiveContext, nullptr);
            EXPECT_EQ(k->mMemory.mBase == nullptr, row.memalignFailsFrom == kArenaBlock);
            kam_glActiveTexture_opt(0x84C7);
            running = fake::calls();
            fake::reset();
            manager->makeCurrentPost(nullptr);
            context.kamContext.clear();
            destroying = fake::calls();
        }).join();

        for (const char* m : kMessages)
            EXPECT_EQ(support::countLog(m, ANDROID_LOG_ERROR), row.message && strcmp(m, row.message) == 0 ? 1 : 0) << m;
        EXPECT_TRUE(named(running, "eglMakeCurrent").empty()) << "nobody was made current";
        EXPECT_EQ(named(running, "eglChooseConfig").size(), 1u);
        EXPECT_EQ(named(running, "eglCreatePbufferSurface").size(), row.pbufferTried ? 1u : 0u);
        auto gl = named(running, "glActiveTexture");
        ASSERT_EQ(gl.size(), 1u);
        EXPECT_TRUE(pthread_equal(gl[0].thread, appThread)) << "the GL call ran on the application thread";
        // Whatever was made is destroyed with the context, and the worker
        // lets go of its EGL state before it is joined.
        EXPECT_EQ(named(destroying, "eglDestroySurface").size(), row.surfaceMade ? 1u : 0u);
        EXPECT_EQ(named(destroying, "eglDestroyContext").size(), row.contextMade ? 1u : 0u);
        auto released = named(destroying, "eglReleaseThread");
        ASSERT_EQ(released.size(), 1u);
        EXPECT_TRUE(pthread_equal(released[0].thread, worker));
        EXPECT_FALSE(manager->mWorkerRunning.load()) << "another context may be offloaded now";
    }
}

// ------------------------------------------------------ during offload

// A driver that keeps buffer sizes but refuses every real mapping.
class OffloadFaultTest : public ::testing::Test {
protected:
    void SetUp() override {
        fake::clearHandlers();
        fake::setHandler("glGetBufferParameteriv", [](const fake::Call& c) { return *fake::fromBits<GLint*>(c.args[2]) = 4096, 0; });
        fake::setHandler("glGetBufferParameteri64v", [](const fake::Call& c) { return *fake::fromBits<GLint64*>(c.args[2]) = 4096, 0; });
        fake::setHandler("glMapBufferRange", [](const fake::Call&) -> uint64_t { return 0; });
        fake::setHandler("glUnmapBuffer", [](const fake::Call&) -> uint64_t { return GL_FALSE; });
        fake::reset();
        support::clearLog();
        worker = ctx.worker()->postSync([] { return pthread_self(); }, "who");
    }
    void TearDown() override { fake::clearHandlers(); }

    support::ActiveContext ctx;
    pthread_t worker{};
};

// The application writes through its shadow pointer as usual; the bytes have
// nowhere to go, which the unmap reports. A flush that found no mapping keeps
// its reference, so the deleted buffer waits for the frame boundary.
TEST_F(OffloadFaultTest, RealMappingThatFailsIsReportedAtUnmap) {
    struct Row { const char* name; GLbitfield access; bool flush; GLuint buffer; const char* atBoundary; } rows[] = {
        {"write", GL_MAP_WRITE_BIT, false, 41, nullptr},
        {"explicit flush", GL_MAP_WRITE_BIT | GL_MAP_FLUSH_EXPLICIT_BIT, true, 42,
         "Delete a mapped buffer=42 bufSize=64 refs=1"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        support::clearLog();
        kam_glBindBuffer_opt(GL_ARRAY_BUFFER, row.buffer);
        auto* p = static_cast<uint8_t*>(kam_glMapBufferRange_opt(GL_ARRAY_BUFFER, 0, 16, row.access));
        ASSERT_NE(p, nullptr) << "the application gets its shadow memory";
        memset(p, 0x5A, 16);
        if (row.flush) kam_glFlushMappedBufferRange_opt(GL_ARRAY_BUFFER, 0, 16);
        EXPECT_EQ(kam_glUnmapBuffer_opt(GL_ARRAY_BUFFER), GL_TRUE);
        ctx.drain();
        EXPECT_EQ(support::countLog("glUnmapBuffer error target=0x8892 addr=(nil) buffer=" + std::to_string(row.buffer),
                           ANDROID_LOG_ERROR),
                  1);
        auto unmaps = named(fake::calls(), "glUnmapBuffer");
        ASSERT_FALSE(unmaps.empty()) << "the driver still hears the unmap";
        EXPECT_TRUE(pthread_equal(unmaps.back().thread, worker));
        kam_glDeleteBuffers_opt(1, &row.buffer);
        ctx.frameBoundary();
        EXPECT_EQ(support::countLog(row.atBoundary ? row.atBoundary : "Delete a mapped buffer", ANDROID_LOG_ERROR),
                  row.atBoundary ? 1 : 0);
        fake::reset();
    }
}

// Client memory that cannot be copied into the frame (the arena is full and
// memalign fails, or a shadow block cannot be had) is used where it is: the
// call runs on the worker while the application waits.
TEST_F(OffloadFaultTest, CopiesThatFindNoMemoryWaitForTheDriver) {
    fake::setHandler("glMapBufferRange", [](const fake::Call&) -> uint64_t { return 0x7000; });
    const size_t huge = kArenaBlock + 4096;  // larger than the whole arena
    std::vector<uint8_t> data(huge, 0x11);
    // pointerArg: the argument that must be the caller's own pointer, or -1.
    struct Row { const char* name; size_t failsFrom; const char* call; std::function<void()> run; int pointerArg; } rows[] = {
        {"buffer data", kArenaBlock, "glBufferData",
         [&] { kam_glBufferData_opt(GL_ARRAY_BUFFER, static_cast<GLsizeiptr>(huge), data.data(), GL_STATIC_DRAW); },
         2},
        {"buffer sub-data", kArenaBlock, "glBufferSubData",
         [&] { kam_glBufferSubData_opt(GL_ARRAY_BUFFER, 0, static_cast<GLsizeiptr>(huge), data.data()); }, 3},
        {"shadow block", 1, "glMapBufferRange",
         [&] { EXPECT_EQ(kam_glMapBufferRange_opt(GL_ARRAY_BUFFER, 0, 16, GL_MAP_WRITE_BIT), (void*)0x7000); }, -1},
    };
    GLuint name = 50;
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        kam_glBindBuffer_opt(GL_ARRAY_BUFFER, ++name);
        ctx.drain();
        fake::reset();
        MemalignFails(row.failsFrom), row.run();
        auto calls = named(fake::calls(), row.call);  // before any drain: it already ran
        ASSERT_EQ(calls.size(), 1u);
        EXPECT_TRUE(pthread_equal(calls[0].thread, worker));
        if (row.pointerArg >= 0) {
            EXPECT_EQ(calls[0].args[static_cast<size_t>(row.pointerArg)], fake::bits(data.data()));
        }
        ctx.frameBoundary();
    }
}

}  // namespace
