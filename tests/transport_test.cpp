// The frame arena, the command classes and the worker: the pieces every
// recorded call goes through.

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <future>
#include <thread>

#include "support.h"
#include "transport/KAMMemory.h"
#include "transport/KAMWorker.h"

using namespace android;

namespace {

enum Where { kBlock, kSeparate, kNone };

Where where(const KAMMemory& m, const void* p) {
    auto* b = static_cast<const uint8_t*>(p);
    return p == nullptr ? kNone : b >= m.mBase && b < m.mEnd ? kBlock : kSeparate;
}

// Each request after `used` bytes of the frame: in the block, right after
// them rounded to 8, or in a separate block once the block is full or the
// frame has taken 16 MiB and the request is large.
TEST(ArenaTest, RequestsLandInTheBlockOrInSeparateBlocks) {
    const size_t end = KAMMemory::kBlockSize - 16;
    const struct {
        size_t used, request;
        Where where;
    } rows[] = {{0x1000000, 0x40000, kBlock}, {0x1000008, 0x40000, kSeparate}, {0x1000008, 0x3FFFF, kBlock},
                {0, 0x40000, kBlock},         {0x1800000, 0x3FFF8, kBlock},    {end, 16, kBlock},
                {end, 17, kSeparate},         {3, 0, kNone},                   {0, SIZE_MAX - 4, kNone}};
    KAMMemory mem;
    ASSERT_TRUE(mem.prepare());
    const uint64_t value = 0x1122334455667788ull;
    for (const auto& r : rows) {
        SCOPED_TRACE(::testing::Message() << r.used << " then " << r.request);
        mem.swapBuffer();
        if (r.used) mem.malloc(r.used, nullptr);
        void* p = mem.malloc(r.request, nullptr);
        EXPECT_EQ(where(mem, p), r.where);
        if (r.where == kBlock) EXPECT_EQ(p, mem.mBase + (r.used + 7) / 8 * 8);
        if (r.where == kSeparate) EXPECT_EQ(where(mem, mem.malloc(16, nullptr)), kBlock) << "no latch";
    }
    // The boundary records what the frame used (the rounding made for a
    // request that went elsewhere included), rewinds and frees.
    mem.swapBuffer();
    mem.malloc(3, nullptr);
    mem.malloc(5, nullptr);
    mem.malloc(KAMMemory::kBlockSize, nullptr);
    mem.swapBuffer();
    EXPECT_EQ(mem.mLastUsed, 16);
    EXPECT_TRUE(mem.mLargeBlocks.empty());
    EXPECT_EQ(mem.malloc(1, nullptr), mem.mBase);
    EXPECT_EQ(memcmp(mem.malloc(8, &value), &value, 8), 0);
    // Unprepared, every request is a separate 8-aligned block.
    KAMMemory unprepared;
    void* p = unprepared.malloc(8, &value);
    EXPECT_EQ(where(unprepared, p), kSeparate);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % 8, 0u);
    EXPECT_EQ(memcmp(p, &value, 8), 0);
}

// A command that checks it runs in sequence.
struct SeqBridge final : Bridge {
    static inline uint64_t next = 0;
    static inline bool outOfOrder = false;
    uint64_t seq = 0;
    void run() override { outOfOrder |= next != seq, next = seq + 1; }
    const char* getName() override { return "seq"; }
};

class RunningWorkerTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(worker->run("kam-test-worker", -4, 0), 0); }
    void TearDown() override { EXPECT_EQ(worker->stop([] {}, "eglReleaseThread"), 0); }
    sp<KAMWorker> worker = new KAMWorker();
};

// An item posted while the worker drains is part of that drain: it runs
// without waiting for a later wake-up (the 129th post, a synchronous one).
TEST_F(RunningWorkerTest, ItemPostedWhileTheWorkerDrainsRunsWithoutFurtherPosts) {
    std::promise<void> release, entered, ran;
    std::shared_future<void> gate = release.get_future().share();
    worker->post(new WorkItem("hold", [gate, &entered] { entered.set_value(), gate.wait(); }), true);
    entered.get_future().wait();
    worker->post(new WorkItem("late", [&ran] { ran.set_value(); }), false);
    release.set_value();
    // A generous bound only so that a failure ends the test.
    EXPECT_EQ(ran.get_future().wait_for(std::chrono::seconds(10)), std::future_status::ready);
    worker->postSync([] {}, "end");
}

// The owner's items run in post order, synchronous ones after everything
// posted before them, while another thread (a context destroyed elsewhere,
// a platform drain) posts too, also to a worker that has gone to sleep.
// Function items are freed once run, commands (the arena's) are not.
TEST_F(RunningWorkerTest, ItemsRunInPostOrderWhileOtherThreadsPost) {
    constexpr uint64_t kItems = 400000;
    SeqBridge::next = 0, SeqBridge::outOfOrder = false;
    std::vector<SeqBridge> cmds(kItems);
    std::atomic<int> foreignRan{0};
    auto foreign = [&](int n) {
        for (int k = 0; k < n; ++k) worker->postSync([&] { foreignRan.fetch_add(1); }, "foreign");
    };
    std::thread during(foreign, 100);
    for (uint64_t i = 0; i < kItems; ++i) {
        cmds[i].seq = i;
        if (i % 50000 == 49999) EXPECT_EQ(worker->postSync([] { return SeqBridge::next; }, "mid"), i);
        worker->post(&cmds[i], false);
    }
    worker->postSync([] {}, "end");
    during.join();
    std::thread(foreign, 50).join();
    EXPECT_EQ(worker->postSync([] { return SeqBridge::next; }, "count"), kItems);
    EXPECT_FALSE(SeqBridge::outOfOrder);
    EXPECT_EQ(foreignRan.load(), 150);
    int destroyed = 0;
    std::shared_ptr<int> token(&destroyed, [](int* n) { ++*n; });
    worker->post(new WorkItem("counted", [t = std::move(token)] {}), false);
    worker->postSync([] {}, "after");
    EXPECT_EQ(destroyed, 1);
}

}  // namespace
