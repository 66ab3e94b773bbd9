// The per-thread record: created at a thread's first make-current, attached to
// and detached from offload contexts, and reported when the thread ends.

#include <gtest/gtest.h>
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

TEST_F(ThreadLocalTest, FirstMakeCurrentCreatesRecordAndAttachesIdle) {
    FakeRecords r;
    onThread("renderer", [&] {
        ASSERT_EQ(__tls, nullptr);
        kam_platform_gl_slot = nullptr;
        manager->makeCurrentPre(&r.context, &r.window);
        sp<KAMThreadLocal> tls = __tls;
        ASSERT_NE(tls, nullptr);
        EXPECT_EQ(tls->mName, "renderer");
        EXPECT_EQ(tls->mTid, gettid());
        EXPECT_FALSE(tls->mSkip);
        ASSERT_NE(r.context.kamContext, nullptr);
        EXPECT_EQ(tls->mContext, r.context.kamContext.get());
        EXPECT_EQ(tls->mEglContext, &r.context);
        // Attached but not offloaded: through the layer, passing through.
        EXPECT_EQ(tls->mActiveContext, nullptr);
        EXPECT_EQ(kam_platform_gl_slot, loader->mKamGl);
        EXPECT_EQ(r.context.kamContext->mTls.promote(), tls);
    });
    char expected[128];
    snprintf(expected, sizeof expected, "iniTLS <renderer> skip=0 EGLContext=%p created by creator", &r.context);
    EXPECT_EQ(support::countLog(expected), 1);
    EXPECT_EQ(support::countLog("RenderThread is marked -> name=renderer"), 1);
    EXPECT_EQ(support::countLog("version=3"), 1);
}

TEST_F(ThreadLocalTest, SkipRuleMatchesOnlyTheExactNames) {
    struct Row {
        const char* name;
        bool skip;
    } rows[] = {{"RenderThread", true}, {"Chrome_InProcGp", true}, {"RenderThread2", false},
                {"renderthread", false}, {"Chrome_InProcG", false}, {"main", false}};
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        FakeRecords r;
        onThread(row.name, [&] {
            manager->makeCurrentPre(&r.context, &r.window);
            ASSERT_NE(__tls, nullptr);
            EXPECT_EQ(__tls->mSkip, row.skip);
            EXPECT_EQ(r.context.kamContext == nullptr, row.skip);
        });
    }
}

TEST_F(ThreadLocalTest, OnlyWindowSurfacesGetAContext) {
    FakeRecords r;
    onThread("pbuffer-only", [&] {
        manager->makeCurrentPre(&r.context, &r.pbuffer);
        EXPECT_EQ(r.context.kamContext, nullptr);
        manager->makeCurrentPre(&r.context, nullptr);
        EXPECT_EQ(r.context.kamContext, nullptr);
        EXPECT_NE(__tls, nullptr);
        EXPECT_EQ(__tls->mContext, nullptr);
    });
}

TEST_F(ThreadLocalTest, DetachingADetachedRecordTouchesNothing) {
    FakeRecords r;
    onThread("detached", [&] {
        manager->makeCurrentPre(&r.context, &r.pbuffer);  // a record, no context
        void* marker = reinterpret_cast<void*>(0xABC);
        kam_platform_gl_slot = marker;
        __tls->attachContext(nullptr);
        EXPECT_EQ(kam_platform_gl_slot, marker);
    });
}

TEST_F(ThreadLocalTest, DetachPointsTheSlotAtTheNoContextTable) {
    FakeRecords r;
    onThread("detach", [&] {
        manager->makeCurrentPre(&r.context, &r.window);
        KAMContext* ctx = __tls->mContext;
        ASSERT_NE(ctx, nullptr);
        __tls->attachContext(nullptr);
        EXPECT_EQ(kam_platform_gl_slot, support::noContextTable);
        EXPECT_EQ(__tls->mContext, nullptr);
        EXPECT_EQ(__tls->mEglContext, nullptr);
        EXPECT_EQ(__tls->mActiveContext, nullptr);
        EXPECT_EQ(ctx->mTls.unsafe_get(), nullptr);
    });
}

TEST_F(ThreadLocalTest, DetachAfterTheLinkWasTakenLeavesTheSlot) {
    FakeRecords r;
    onThread("relinked", [&] {
        manager->makeCurrentPre(&r.context, &r.window);
        KAMContext* ctx = __tls->mContext;
        ctx->mTls.clear();  // someone else re-pointed the context already
        void* marker = reinterpret_cast<void*>(0xDEF);
        kam_platform_gl_slot = marker;
        __tls->attachContext(nullptr);
        EXPECT_EQ(kam_platform_gl_slot, marker);
        EXPECT_EQ(__tls->mContext, nullptr);
    });
}

TEST_F(ThreadLocalTest, AttachToAnActiveContextSetsTheActivePointer) {
    FakeRecords r;
    onThread("active", [&] {
        manager->makeCurrentPre(&r.context, &r.window);
        KAMContext* ctx = __tls->mContext;
        __tls->attachContext(nullptr);
        ctx->mActive = 1;
        __tls->attachContext(ctx);
        EXPECT_EQ(__tls->mActiveContext, ctx);
        ctx->mActive = 0;
        __tls->attachContext(nullptr);
    });
}

TEST_F(ThreadLocalTest, ThreadExitReportsTheContextItHeld) {
    FakeRecords r;
    int tid = 0;
    onThread("exiting", [&] {
        manager->makeCurrentPre(&r.context, &r.window);
        tid = gettid();
    });
    char expected[128];
    snprintf(expected, sizeof expected, "onThreadReleased:[<exiting>,%d] EGLContext= %p", tid, &r.context);
    EXPECT_EQ(support::countLog(expected), 1);
}

TEST_F(ThreadLocalTest, ThreadWithoutMakeCurrentHasNoRecord) {
    onThread("never", [&] { EXPECT_EQ(__tls, nullptr); });
    EXPECT_EQ(support::countLog("onThreadReleased:[<never>"), 0);
}

}  // namespace
