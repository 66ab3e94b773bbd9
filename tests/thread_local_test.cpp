// The per-thread record: created at a thread's first make-current, attached to
// and detached from offload contexts, and reported when the thread ends.

#include <gtest/gtest.h>
#include <log/log.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <thread>

#include "loader/KAMLoader.h"
#include "runtime/KAMContext.h"
#include "runtime/KAMManager.h"
#include "runtime/KAMThreadLocal.h"
#include "runtime/PlatformRecords.h"
#include "support.h"

using namespace android;

namespace {

// Records as the platform would keep them for one context and its surfaces.
struct FakeRecords {
    PlatformContextRecord context{};
    PlatformSurfaceRecord window{};
    PlatformSurfaceRecord pbuffer{};
    FakeRecords() {
        context.display = reinterpret_cast<EGLDisplay>(0xD15);
        context.clientVersion = 3;
        strcpy(context.creatorName, "creator");
        window.nativeWindow = reinterpret_cast<void*>(0x77);
    }
    ~FakeRecords() { context.kamContext.clear(); }
};

template <class F>
void onThread(const char* name, F&& body) {
    std::thread([&] {
        prctl(PR_SET_NAME, name, 0, 0, 0);
        body();
    }).join();
}

class ThreadLocalTest : public ::testing::Test {
protected:
    void SetUp() override {
        support::initLayer();
        support::clearLog();
    }
    KAMLoader* loader = KAMLoader::getInstance();
    KAMManager* manager = KAMManager::INSTANCE;
};

// The record is made at the thread's first make-current, attaches idle (the
// slot points at the interposed table, nothing offloaded), and reports the
// context it held when the thread ends.
TEST_F(ThreadLocalTest, FirstMakeCurrentCreatesRecordAndAttachesIdle) {
    FakeRecords r;
    int tid = 0;
    onThread("renderer", [&] {
        ASSERT_EQ(__tls, nullptr);
        kam_platform_gl_slot = nullptr;
        manager->makeCurrentPre(&r.context, &r.window);
        sp<KAMThreadLocal> tls = __tls;
        ASSERT_NE(tls, nullptr);
        EXPECT_EQ(tls->mName, "renderer");
        EXPECT_EQ(tls->mTid, tid = gettid());
        EXPECT_FALSE(tls->mSkip);
        ASSERT_NE(r.context.kamContext, nullptr);
        EXPECT_EQ(tls->mContext, r.context.kamContext.get());
        EXPECT_EQ(tls->mEglContext, &r.context);
        EXPECT_EQ(tls->mActiveContext, nullptr);
        EXPECT_EQ(kam_platform_gl_slot, loader->mKamGl);
        EXPECT_EQ(r.context.kamContext->mTls.promote(), tls);
    });
    char expected[128];
    snprintf(expected, sizeof expected, "iniTLS <renderer> skip=0 EGLContext=%p created by creator", &r.context);
    EXPECT_EQ(support::countLog(expected, ANDROID_LOG_DEBUG), 1);
    snprintf(expected, sizeof expected, "RenderThread is marked -> name=renderer tid=%d context=%p version=3", tid, &r.context);
    EXPECT_EQ(support::countLog(expected, ANDROID_LOG_DEBUG), 1);
    snprintf(expected, sizeof expected, "onThreadReleased:[<renderer>,%d] EGLContext= %p", tid, &r.context);
    EXPECT_EQ(support::countLog(expected), 1);
}

// Only a window surface on a thread of any name but the platform's two
// render threads (exactly those) gets an offload context.
TEST_F(ThreadLocalTest, OnlyWindowSurfacesOfOrdinaryThreadsGetAContext) {
    const struct {
        const char* name;
        bool window, skip;
    } rows[] = {{"RenderThread", true, true},   {"Chrome_InProcGp", true, true}, {"RenderThread2", true, false},
                {"renderthread", true, false},  {"Chrome_InProcG", true, false}, {"main", true, false},
                {"pbuffer-only", false, false}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        FakeRecords r;
        onThread(row.name, [&] {
            manager->makeCurrentPre(&r.context, row.window ? &r.window : &r.pbuffer);
            if (!row.window) manager->makeCurrentPre(&r.context, nullptr);
            ASSERT_NE(__tls, nullptr);
            EXPECT_EQ(__tls->mSkip, row.skip);
            EXPECT_EQ(r.context.kamContext == nullptr, row.skip || !row.window);
            EXPECT_EQ(__tls->mContext, r.context.kamContext.get());
        });
    }
}

// Detaching points the slot at the no-context table and unlinks both sides,
// unless there was nothing to detach or the context was re-pointed already.
TEST_F(ThreadLocalTest, DetachPointsTheSlotAtTheNoContextTable) {
    for (int row = 0; row < 3; ++row) {
        SCOPED_TRACE(row);
        FakeRecords r;
        onThread("detach", [&] {
            manager->makeCurrentPre(&r.context, row == 0 ? &r.pbuffer : &r.window);
            KAMContext* ctx = __tls->mContext;
            if (row == 2) ctx->mTls.clear();
            void* marker = reinterpret_cast<void*>(0xABC);
            kam_platform_gl_slot = marker;
            __tls->attachContext(nullptr);
            EXPECT_EQ(kam_platform_gl_slot, row == 1 ? static_cast<void*>(support::noContextTable) : marker);
            EXPECT_EQ(__tls->mContext, nullptr);
            EXPECT_EQ(__tls->mEglContext, nullptr);
            EXPECT_EQ(__tls->mActiveContext, nullptr);
            if (ctx) { EXPECT_EQ(ctx->mTls.unsafe_get(), nullptr); }
        });
    }
}

}  // namespace
