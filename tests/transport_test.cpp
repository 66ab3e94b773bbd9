// The frame arena, the command classes and the worker: the pieces every
// recorded call goes through.

#include <gtest/gtest.h>
#include <semaphore.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <cstring>
#include <fstream>
#include <future>
#include <limits>
#include <memory>
#include <string>
#include <thread>

#include "call_cases.h"
#include "kam_bridges.h"
#include "support.h"
#include "transport/KAMMemory.h"
#include "transport/KAMWorker.h"

using namespace android;

namespace {

// ------------------------------------------------------------------ arena

bool inBlock(const KAMMemory& m, const void* p) {
    auto* b = static_cast<const uint8_t*>(p);
    return b >= m.mBase && b < m.mEnd;
}

class ArenaTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(mem.prepare()); }
    KAMMemory mem;
};

TEST_F(ArenaTest, PrepareIsIdempotentAndCommitsAZeroedBlock) {
    uint8_t* base = mem.mBase;
    EXPECT_TRUE(mem.prepare());
    EXPECT_EQ(mem.mBase, base);
    EXPECT_EQ(mem.mEnd - mem.mBase, static_cast<ptrdiff_t>(KAMMemory::kBlockSize));
    EXPECT_EQ(reinterpret_cast<uintptr_t>(base) % 8, 0u);
    EXPECT_EQ(base[0], 0);
    EXPECT_EQ(base[KAMMemory::kBlockSize - 1], 0);
}

TEST_F(ArenaTest, SizeZeroGivesNullAndCopiesNothing) {
    const char src[] = "x";
    uint8_t* before = mem.mCursor;
    EXPECT_EQ(mem.malloc(0, src), nullptr);
    EXPECT_EQ(mem.mCursor, before);
    EXPECT_TRUE(mem.mLargeBlocks.empty());
}

TEST_F(ArenaTest, OneByteAllocationsAreEightApartAndCopied) {
    const char a = 'a', b = 'b';
    auto* p = static_cast<char*>(mem.malloc(1, &a));
    auto* q = static_cast<char*>(mem.malloc(1, &b));
    EXPECT_EQ(q - p, 8);
    EXPECT_EQ(*p, 'a');
    EXPECT_EQ(*q, 'b');
    EXPECT_EQ(p, reinterpret_cast<char*>(mem.mBase));
}

TEST_F(ArenaTest, ExactFitAtTheEndStaysInTheBlockOneMoreByteDoesNot) {
    // Fill with requests below the large threshold up to 16 bytes from the end.
    const size_t chunk = KAMMemory::kLargeRequest - 8;
    while (static_cast<size_t>(mem.mEnd - mem.mCursor) > chunk + 16) ASSERT_NE(mem.malloc(chunk, nullptr), nullptr);
    size_t left = mem.mEnd - mem.mCursor;
    ASSERT_EQ(left % 8, 0u);
    // One byte more than what is left goes elsewhere...
    void* over = mem.malloc(left + 1, nullptr);
    EXPECT_FALSE(inBlock(mem, over));
    EXPECT_EQ(mem.mLargeBlocks.size(), 1u);
    // ...and what is left exactly, still fits (no latch after an overflow).
    void* fit = mem.malloc(left, nullptr);
    EXPECT_TRUE(inBlock(mem, fit));
    EXPECT_EQ(mem.mCursor, mem.mEnd);
    EXPECT_FALSE(inBlock(mem, mem.malloc(1, nullptr)));
}

TEST_F(ArenaTest, LargeRequestThresholdOnBothSides) {
    struct Row {
        size_t used;      // bytes taken from the block before the request
        size_t request;
        bool fromBlock;
    } rows[] = {
        {0x1000000, 0x40000, true},       // exactly 16 MiB used: still the block
        {0x1000008, 0x40000, false},      // more than 16 MiB: a separate block
        {0x1000008, 0x40000 - 1, true},   // below 256 KiB: always the block
        {0, 0x40000, true},
        {0x1800000, 0x3FFF8, true},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.used);
        mem.swapBuffer();
        if (row.used) {
            ASSERT_NE(mem.malloc(row.used, nullptr), nullptr);
        }
        ASSERT_EQ(static_cast<size_t>(mem.mCursor - mem.mFrameStart), row.used);
        EXPECT_EQ(inBlock(mem, mem.malloc(row.request, nullptr)), row.fromBlock);
    }
}

TEST_F(ArenaTest, FrameBoundaryRecordsUsageRewindsAndFreesLargeBlocks) {
    mem.malloc(3, nullptr);
    mem.malloc(5, nullptr);
    mem.malloc(KAMMemory::kBlockSize, nullptr);  // cannot fit: separate block
    EXPECT_EQ(mem.mLargeBlocks.size(), 1u);
    mem.swapBuffer();
    // 3, rounded to 8, then 5, and the rounding to 16 made for the request
    // that did not fit is kept.
    EXPECT_EQ(mem.mLastUsed, 16);
    EXPECT_TRUE(mem.mLargeBlocks.empty());
    EXPECT_EQ(mem.malloc(1, nullptr), mem.mBase);
    mem.swapBuffer();
    EXPECT_EQ(mem.mLastUsed, 1);
}

TEST(ArenaUnpreparedTest, ServesFromSeparateBlocksReleasedAtTheBoundary) {
    KAMMemory mem;
    const uint64_t value = 0x1122334455667788ull;
    auto* p = static_cast<uint64_t*>(mem.malloc(8, &value));
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(*p, value);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % 8, 0u);
    EXPECT_NE(mem.malloc(1, nullptr), nullptr);
    EXPECT_EQ(mem.mLargeBlocks.size(), 2u);
    mem.swapBuffer();
    EXPECT_TRUE(mem.mLargeBlocks.empty());
    EXPECT_EQ(mem.mLastUsed, 0);
}

TEST(ArenaUnpreparedTest, HugeRequestFailsCleanly) {
    KAMMemory mem;
    ASSERT_TRUE(mem.prepare());
    EXPECT_EQ(mem.malloc(std::numeric_limits<size_t>::max() - 4, nullptr), nullptr);
    EXPECT_TRUE(mem.mLargeBlocks.empty());
}

// ---------------------------------------------------------- command classes

class BridgeTest : public ::testing::Test {
protected:
    void SetUp() override {
        support::initLayer();
        fake::reset();
    }
};

TEST_F(BridgeTest, EveryGeneratedClassReplaysItsArgumentsOnceUnderItsName) {
    ASSERT_GT(cases::bridgeCaseCount, 850);
    for (int k = 0; k < cases::bridgeCaseCount; ++k) {
        const cases::BridgeCase& c = cases::bridgeCases[k];
        SCOPED_TRACE(c.name);
        fake::reset();
        cases::Outcome out;
        const char* name = nullptr;
        c.build(out, name);
        EXPECT_STREQ(name, c.name);
        auto calls = fake::calls();
        ASSERT_EQ(calls.size(), 1u);
        EXPECT_EQ(calls[0].name, c.name);
        EXPECT_EQ(calls[0].args, out.args);
    }
}

TEST_F(BridgeTest, FloatsReplayBitExactly) {
    const float values[] = {-0.0f, std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity(),
                            std::numeric_limits<float>::denorm_min()};
    for (float v : values) {
        uint32_t payload;
        memcpy(&payload, &v, 4);
        if (std::isnan(v)) payload |= 0x1234;  // a NaN with a payload of its own
        float in;
        memcpy(&in, &payload, 4);
        fake::reset();
        glUniform1f_Bridge(7, in).run();
        auto calls = fake::calls();
        ASSERT_EQ(calls.size(), 1u);
        EXPECT_EQ(calls[0].args[1], payload);
    }
}

TEST_F(BridgeTest, SixtyFourBitValuesAfterOddWordsKeepTheirHighWord) {
    const int64_t v = static_cast<int64_t>(0xF123456789ABCDEFull);
    glUniform1i64NV_Bridge one(3, v);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(&one.x) % alignof(GLint64), 0u);  // natural alignment
    one.run();
    glProgramUniform4i64NV_Bridge four(1, 2, v, v + 1, v + 2, v + 3);
    four.run();
    auto calls = fake::calls();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].args, (std::vector<uint64_t>{3, static_cast<uint64_t>(v)}));
    EXPECT_EQ(calls[1].args[2], static_cast<uint64_t>(v));
    EXPECT_EQ(calls[1].args[5], static_cast<uint64_t>(v + 3));
}

TEST_F(BridgeTest, HandWrittenClassesCallTheirOrigins) {
    MappedInfo info;
    glMapBufferRange_Bridge map(GL_ARRAY_BUFFER, 16, 32, GL_MAP_WRITE_BIT, nullptr, info);
    glFlushMappedBufferRange_Bridge flush(GL_ARRAY_BUFFER, 4, 8, nullptr, info);
    glUnmapBuffer_Bridge unmap(GL_ARRAY_BUFFER, nullptr, info);
    glVertexAttribPointer_Bridge attrib(1, 3, GL_FLOAT, GL_FALSE, 12, reinterpret_cast<const void*>(0x40));
    for (Bridge* b : std::initializer_list<Bridge*>{&map, &flush, &unmap, &attrib}) b->run();
    auto calls = fake::calls();
    ASSERT_EQ(calls.size(), 4u);
    EXPECT_EQ(calls[0].name, "glMapBufferRange");
    EXPECT_EQ(calls[0].args, (std::vector<uint64_t>{GL_ARRAY_BUFFER, 16, 32, GL_MAP_WRITE_BIT}));
    EXPECT_EQ(calls[1].name, "glFlushMappedBufferRange");
    EXPECT_EQ(calls[2].name, "glUnmapBuffer");
    EXPECT_EQ(calls[3].args, (std::vector<uint64_t>{1, 3, GL_FLOAT, GL_FALSE, 12, 0x40}));
    EXPECT_STREQ(map.getName(), "glMapBufferRange");
    EXPECT_STREQ(attrib.getName(), "glVertexAttribPointer");
}

// ------------------------------------------------------------------ worker

int semValue(KAMWorker& w) {
    int v = -1;
    sem_getvalue(&w.mWakeSem, &v);
    return v;
}

// A command that checks it runs in sequence.
struct SeqBridge final : Bridge {
    uint64_t seq = 0;
    std::atomic<uint64_t>* next = nullptr;
    std::atomic<uint64_t>* sum = nullptr;
    std::atomic<bool>* outOfOrder = nullptr;
    bool* destroyed = nullptr;
    void run() override {
        if (next->load(std::memory_order_relaxed) != seq) outOfOrder->store(true);
        next->store(seq + 1, std::memory_order_relaxed);
        sum->fetch_add(seq * 2654435761u, std::memory_order_relaxed);
    }
    const char* getName() override { return "seq"; }
    ~SeqBridge() override {
        if (destroyed) *destroyed = true;
    }
};

struct Counted {
    int* destroyed;
    explicit Counted(int* d) : destroyed(d) {}
    Counted(const Counted& o) : destroyed(o.destroyed) {}
    ~Counted() { ++*destroyed; }
};

// A worker that never went to sleep is never signalled: posting costs no
// system call while it is awake. Posts are counted for the frame statistics
// and the wake-up rhythm alike.
TEST(WorkerWakeTest, PostsNeverBlockAndLeaveAnAwakeWorkersSemaphoreAlone) {
    sp<KAMWorker> w = new KAMWorker();  // never started: posts only queue
    std::vector<std::unique_ptr<WorkItem>> items;
    for (int i = 0; i < 305; ++i) {
        items.emplace_back(new WorkItem("item", [] {}));
        w->post(items.back().get(), i < 5);
    }
    EXPECT_EQ(semValue(*w), 0);
    EXPECT_EQ(w->pending(), 300 % (KAMWorker::kWakeBatch + 1));
    EXPECT_EQ(w->frameCount(), 305);
    w->swapBuffer();
    EXPECT_EQ(w->frameCount(), 0);
}

TEST(WorkerTest, QueuedItemsAtDestructionAreNeitherRunNorFreed) {
    int destroyed = 0;
    bool ran = false;
    WorkItem* item = new WorkItem("never", [c = Counted(&destroyed), &ran] { ran = true; });
    const int base = destroyed;  // temporaries made while building the item
    {
        sp<KAMWorker> w = new KAMWorker();
        w->post(item, true);
    }
    EXPECT_FALSE(ran);
    EXPECT_EQ(destroyed, base);
    delete item;  // still ours to free
    EXPECT_EQ(destroyed, base + 1);
}

class RunningWorkerTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(worker->run("kam-test-worker", -4, 0), 0); }
    void TearDown() override {
        EXPECT_EQ(worker->stop([] {}, "eglReleaseThread"), 0);
    }
    sp<KAMWorker> worker = new KAMWorker();
};

TEST_F(RunningWorkerTest, FunctionItemsAreDeletedAfterRunningBridgeItemsAreNot) {
    int destroyed = 0;
    auto* counted = new WorkItem("counted", [c = Counted(&destroyed)] {});
    const int base = destroyed;
    worker->post(counted, false);
    bool bridgeDestroyed = false;
    std::atomic<uint64_t> next{0}, sum{0};
    std::atomic<bool> bad{false};
    SeqBridge b;
    b.next = &next, b.sum = &sum, b.outOfOrder = &bad, b.destroyed = &bridgeDestroyed;
    worker->post(&b, false);
    EXPECT_STREQ(worker->postSync([&] { return worker->lastName(); }, "probe"), "seq");
    EXPECT_EQ(destroyed, base + 1);
    EXPECT_FALSE(bridgeDestroyed);
    EXPECT_EQ(next.load(), 1u);
    // Read on the worker: the name is stored only after an item has run.
    EXPECT_STREQ(worker->postSync([&] { return worker->lastName(); }, "again"), "probe");
}

// An item posted while the worker drains is part of that drain: it runs
// without waiting for a later wake-up (the 129th post, a synchronous one).
TEST_F(RunningWorkerTest, ItemPostedWhileTheWorkerDrainsRunsWithoutFurtherPosts) {
    std::promise<void> release, entered;
    std::shared_future<void> gate = release.get_future().share();
    worker->post(new WorkItem("hold", [gate, &entered] {
                     entered.set_value();
                     gate.wait();
                 }),
                 true);
    entered.get_future().wait();
    std::promise<void> ran;
    std::future<void> done = ran.get_future();
    worker->post(new WorkItem("late", [&ran] { ran.set_value(); }), false);
    release.set_value();
    // A generous bound only so that a failure ends the test.
    EXPECT_EQ(done.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    worker->postSync([] {}, "end");
}

TEST_F(RunningWorkerTest, SynchronousCallReturnsAfterEverythingRecordedBefore) {
    std::atomic<uint64_t> next{0}, sum{0};
    std::atomic<bool> bad{false};
    std::vector<SeqBridge> cmds(10);
    for (uint64_t i = 0; i < cmds.size(); ++i) {
        cmds[i].seq = i, cmds[i].next = &next, cmds[i].sum = &sum, cmds[i].outOfOrder = &bad;
        worker->post(&cmds[i], false);  // 10 < 129: no wake-up
    }
    uint64_t seen = worker->postSync([&] { return next.load(); }, "count");
    EXPECT_EQ(seen, 10u);
    int value = worker->postSync([] { return 42; }, "int");
    EXPECT_EQ(value, 42);
    EXPECT_FALSE(bad.load());
}

// Meanwhile another thread posts too (a context destroyed elsewhere, a
// platform drain): its items run, and the owner's order is kept.
TEST_F(RunningWorkerTest, MillionsOfItemsRunInPostOrderWhileTheWorkerDrains) {
    constexpr uint64_t kItems = 2000000;
    std::atomic<uint64_t> next{0}, sum{0};
    std::atomic<bool> bad{false};
    std::vector<SeqBridge> cmds(kItems);
    uint64_t expectedSum = 0;
    for (uint64_t i = 0; i < kItems; ++i) {
        cmds[i].seq = i, cmds[i].next = &next, cmds[i].sum = &sum, cmds[i].outOfOrder = &bad;
        expectedSum += i * 2654435761u;
    }
    std::atomic<int> foreignRan{0};
    std::thread foreign([&] {
        for (int k = 0; k < 200; ++k) worker->postSync([&] { foreignRan.fetch_add(1); }, "foreign");
    });
    for (uint64_t i = 0; i < kItems; ++i) {
        // Now and then a synchronous post in the middle, as queries would.
        if (i % 100000 == 99999) {
            EXPECT_EQ(worker->postSync([&] { return next.load(); }, "mid"), i);
        }
        worker->post(&cmds[i], false);
    }
    worker->postSync([] {}, "end");
    foreign.join();
    EXPECT_EQ(next.load(), kItems);
    EXPECT_EQ(sum.load(), expectedSum);
    EXPECT_FALSE(bad.load());
    EXPECT_EQ(foreignRan.load(), 200);
}

TEST_F(RunningWorkerTest, SetNameRenamesTheWorkerThread) {
    worker->setName("kam-renamed");
    pid_t tid = worker->postSync([] { return static_cast<int>(gettid()); }, "tid");
    std::ifstream comm("/proc/self/task/" + std::to_string(tid) + "/comm");
    std::string name;
    std::getline(comm, name);
    EXPECT_EQ(name, "kam-renamed");
}

TEST_F(RunningWorkerTest, ResultTypesComeBackIntact) {
    EXPECT_EQ(worker->postSync([] { return 0xFFFFFFFFFFFFull; }, "u64"), 0xFFFFFFFFFFFFull);
    EXPECT_EQ(worker->postSync([] { return 1.5f; }, "float"), 1.5f);
    EXPECT_EQ(worker->postSync([] { return static_cast<unsigned char>(1); }, "bool"), 1);
    static const char text[] = "abc";
    EXPECT_EQ(worker->postSync([] { return text; }, "str"), text);
}

}  // namespace
