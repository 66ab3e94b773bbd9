// The recording path: every GL wrapper served by its kind, the frame arena
// and the worker replaying it.

#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <cstring>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "call_cases.h"
#include "kam_wrappers.h"
#include "loader/KAMLoader.h"
#include "support.h"
#include "transport/KAMMemory.h"
#include "transport/KAMWorker.h"

using namespace android;
using cases::Guarded;

namespace {

class RecordingTest : public ::testing::Test {
protected:
    void SetUp() override {
        fake::clearHandlers();
        fake::setResult(0);
        worker = ctx.worker()->postSync([] { return pthread_self(); }, "whoami");
    }
    bool onWorker(const fake::Call& c) const { return pthread_equal(c.thread, worker) != 0; }
    support::ActiveContext ctx;
    pthread_t worker{};
};

size_t align8(size_t n) { return (n + 7) / 8 * 8; }

// Every GL name: recorded calls and copies take exactly their copy and
// command from the arena and nothing from the driver while the caller runs;
// the rest reach the driver before returning, on the worker or (origin kind)
// on the calling thread. Always with the caller's values.
TEST_F(RecordingTest, EveryGlNameIsServedByItsKind) {
    KAMMemory& mem = ctx.get()->mMemory;
    int counted[4] = {};
    for (int k = 0; k < cases::glCaseCount; ++k) {
        const cases::Case& c = cases::offloadCases[k];
        const std::string name = c.name, kind = c.kind;
        SCOPED_TRACE(name + " (" + kind + ")");
        // Not one of the generated kinds: each has a test of its own.
        if (name == "glFinish" || name == "glGetError" || name == "glPixelStorei" || name == "glIsVertexArray" ||
            name == "glMapBufferRange" || name == "glUnmapBuffer")
            continue;
        // Earlier cases bind vertex arrays the layer never saw made, whose
        // element buffer a draw would ask the driver about first.
        ctx.get()->mBindings.currentVertexArray = 0;
        fake::setResult(0x600 + k);
        cases::Outcome out;
        const auto* start = reinterpret_cast<const uint8_t*>(align8(reinterpret_cast<uintptr_t>(mem.mCursor)));
        auto s = ctx.run([&] { c.call(KAMLoader::getInstance()->mKamGl[k], out); });
        if (!c.isVoid) { EXPECT_EQ(out.result, out.expected); }
        ASSERT_EQ(s.after.size(), 1u);
        const fake::Call& call = s.after[0];
        std::vector<uint64_t> args = out.args;
        if (kind == "bounds") args.pop_back();
        EXPECT_EQ(call.name, kind == "bounds" ? name.substr(0, name.size() - 6) : name);
        const bool copies = kind == "copy" && out.copyBytes >= 1;
        if (kind == "recorded" || copies) {
            EXPECT_EQ(s.waits, 0);
            EXPECT_TRUE(onWorker(call));
            if (copies) {
                EXPECT_EQ(call.args[out.copyArg], fake::bits(start));
                EXPECT_EQ(memcmp(start, fake::fromBits<const void*>(args[out.copyArg]), size_t(out.copyBytes)), 0);
                args[out.copyArg] = call.args[out.copyArg];
            }
            if (out.bridgeSize) { EXPECT_EQ(size_t(mem.mCursor - start), (copies ? align8(out.copyBytes) : 0) + out.bridgeSize); }
            ++counted[copies ? 1 : 0];
        } else {
            ASSERT_EQ(s.atReturn.size(), 1u) << "must reach the driver before returning";
            EXPECT_TRUE(kind == "origin" ? pthread_equal(call.thread, pthread_self()) : onWorker(call));
            ++counted[kind == "origin" ? 2 : 3];
        }
        EXPECT_EQ(call.args, args);
        if (k % 64 == 0) ctx.frameBoundary();
    }
    for (int n : counted) EXPECT_GT(n, 30);
}

// Every copying wrapper with a size rule, over hostile counts, enums and
// pointers: it copies exactly the rule's bytes (the caller's memory ends
// there) or waits with the caller's pointer; null and offsets pass as they are.
TEST_F(RecordingTest, CopyingWrappersTakeHostileArguments) {
    const long long counts[] = {LLONG_MIN, INT_MIN, -1, 0, 1, 3, 0x10000000, INT_MAX, 0x100000001ll};
    const uint32_t enums[] = {0xFFFFFFFFu, GL_TEXTURE_BORDER_COLOR, GL_TEXTURE_MIN_FILTER};
    struct Pointer {
        int kind;  // the caller's exact memory, null, the largest offset, the smallest address
        std::unique_ptr<Guarded> memory;
    };
    auto pointer = [](long long bytes, const void** out, void* user) {
        auto* p = static_cast<Pointer*>(user);
        if ((p->kind == 0 && bytes > Guarded::kLargest) || (p->kind == 3 && bytes >= 1)) return false;
        if (p->kind == 0) p->memory.reset(new Guarded(bytes));
        *out = p->kind == 0 ? p->memory->data() : p->kind == 1 ? nullptr : fake::fromBits<const void*>(0x10000u + (p->kind == 3));
        return true;
    };
    int ran = 0;
    for (int i = 0; i < cases::badCaseCount; ++i)
        for (long long count : counts)
            for (uint32_t e : enums)
                for (int kind = 0; kind < 4; ++kind) {
                    const cases::BadCase& bc = cases::badCases[i];
                    SCOPED_TRACE(::testing::Message() << bc.name << " count " << count << " enum " << e << " pointer " << kind);
                    Pointer ptr{kind, nullptr};
                    cases::BadArgs args{count, e, pointer, &ptr};
                    cases::BadCall call;
                    auto s = ctx.run([&] { bc.run(args, call); });
                    if (call.skipped) continue;
                    ++ran;
                    ASSERT_EQ(s.after.size(), 1u);
                    const bool copied = kind == 0 && call.ruleBytes >= 1;
                    if (kind == 0 || kind == 3) { EXPECT_EQ(s.waits, copied ? 0 : 1); }
                    std::vector<uint64_t> got = s.after[0].args;
                    if (copied) { EXPECT_EQ(memcmp(fake::fromBits<const void*>(got[call.pointerArg]), ptr.memory->data(), size_t(call.ruleBytes)), 0); }
                    if (copied) got[call.pointerArg] = call.args[call.pointerArg];
                    EXPECT_EQ(got, call.args);
                    if (HasFatalFailure()) return;
                    ctx.frameBoundary();
                }
    EXPECT_GT(ran, cases::badCaseCount * 60);
}

enum Where { kBlock, kSeparate, kNone };
Where where(const KAMMemory& m, const void* p) {
    return p == nullptr ? kNone : p >= m.mBase && p < m.mEnd ? kBlock : kSeparate;
}

// Each request after `used` bytes of the frame: in the block right after
// them, rounded to 8, or in a separate block once the block is full or the
// frame has taken 16 MiB and the request is large (or unprepared). The
// boundary records what the frame used, with the rounding made for a request
// that went elsewhere, rewinds and frees.
TEST(ArenaTest, RequestsLandInTheBlockOrInSeparateBlocks) {
    const size_t end = KAMMemory::kBlockSize - 16;
    const struct { size_t used, request; Where where; int32_t frameUsed; } rows[] = {
        {0x1000000, 0x40000, kBlock, 0x1040000}, {0x1000008, 0x40000, kSeparate, 0x1000008}, {0x1000008, 0x3FFFF, kBlock, 0x1040007},
        {0, 0x40000, kBlock, 0x40000}, {0x1800000, 0x3FFF8, kBlock, 0x183FFF8}, {end, 16, kBlock, int32_t(end + 16)},
        {end, 17, kSeparate, int32_t(end)}, {13, KAMMemory::kBlockSize, kSeparate, 16}, {3, 0, kNone, 3}, {0, SIZE_MAX - 4, kNone, 0}};
    KAMMemory mem;
    ASSERT_TRUE(mem.prepare());
    for (const auto& r : rows) {
        SCOPED_TRACE(::testing::Message() << r.used << " then " << r.request);
        if (r.used) mem.malloc(r.used, nullptr);
        void* p = mem.malloc(r.request, nullptr);
        EXPECT_EQ(where(mem, p), r.where);
        if (r.where == kBlock) { EXPECT_EQ(p, mem.mBase + align8(r.used)); }
        if (r.where == kSeparate) { EXPECT_EQ(mem.mLargeBlocks.size(), 1u); }
        mem.swapBuffer();
        EXPECT_EQ(mem.mLastUsed, r.frameUsed);
        EXPECT_TRUE(mem.mLargeBlocks.empty());
    }
    const uint64_t value = 0x1122334455667788ull;
    KAMMemory unprepared;
    for (void* p : {mem.malloc(8, &value), unprepared.malloc(8, &value)}) EXPECT_EQ(memcmp(p, &value, 8), 0);
    EXPECT_EQ(where(unprepared, unprepared.malloc(8, nullptr)), kSeparate);
}

struct SeqBridge final : Bridge {
    static inline uint64_t next = 0;
    static inline bool outOfOrder = false;
    uint64_t seq = 0;
    void run() override { outOfOrder |= next != seq, next = seq + 1; }
    const char* getName() override { return "seq"; }
};

// The owner's items run in post order, synchronous ones after everything
// posted before, while other threads post too, also to a sleeping worker. An
// item posted while the worker drains is part of that drain: it runs with no
// wake-up of its own. Once run, a function item lets go of what it captured;
// commands (the arena's) are never freed by the worker.
TEST_F(RecordingTest, WorkerRunsItemsInPostOrderWhileOtherThreadsPost) {
    KAMWorker* const w = ctx.worker();
    constexpr uint64_t kItems = 400000;
    SeqBridge::next = 0, SeqBridge::outOfOrder = false;
    std::vector<SeqBridge> cmds(kItems);
    std::atomic<int> foreignRan{0};
    auto foreign = [&](int n) {
        for (int k = 0; k < n; ++k) w->postSync([&] { foreignRan.fetch_add(1); }, "foreign");
    };
    std::thread during(foreign, 100);
    for (uint64_t i = 0; i < kItems; ++i) {
        cmds[i].seq = i;
        if (i % 50000 == 49999) { EXPECT_EQ(w->postSync([] { return SeqBridge::next; }, "mid"), i); }
        w->post(&cmds[i], false);
    }
    w->postSync([] {}, "end");
    during.join();
    std::thread(foreign, 50).join();
    EXPECT_EQ(w->postSync([] { return SeqBridge::next; }, "count"), kItems);
    EXPECT_FALSE(SeqBridge::outOfOrder);
    EXPECT_EQ(foreignRan.load(), 150);

    std::promise<void> release, entered, ran;
    std::shared_future<void> gate = release.get_future().share();
    w->post(new WorkItem("hold", [gate, &entered] { entered.set_value(), gate.wait(); }), true);
    entered.get_future().wait();
    int destroyed = 0;
    std::shared_ptr<int> token(&destroyed, [](int* n) { ++*n; });
    w->post(new WorkItem("late", [&ran, t = std::move(token)] { ran.set_value(); }), false);
    release.set_value();
    // A generous bound only so that a failure ends the test.
    EXPECT_EQ(ran.get_future().wait_for(std::chrono::seconds(10)), std::future_status::ready);
    w->postSync([] {}, "after");
    EXPECT_EQ(destroyed, 1);
}

}  // namespace
