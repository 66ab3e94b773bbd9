// Shadow state on an offloaded thread: buffer mappings, element buffers per
// vertex array, name pools, client vertex arrays, and the unpack state that
// sizes image uploads.

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "call_cases.h"
#include "kam_wrappers.h"
#include "recording/Record.h"
#include "runtime/KAMLog.h"
#include "shadow/Bindings.h"
#include "shadow/GLCaches.h"
#include "shadow/TexSize.h"
#include "support.h"

using namespace android;
using cases::Guarded;

namespace {

constexpr uint8_t kUntouched = 0xEE;

// A driver keeping buffer contents, bindings per thread (a context each) and
// element buffers per vertex array. A mapping is a staging copy that its
// unmap lands and then spoils: bytes written after the unmap are lost.
// glDrawArrays(mode, first, count) stands for a draw reading buffer `first`.
class ShadowTest : public ::testing::Test {
protected:
    void SetUp() override {
        bound().clear(), vao() = 0;
        support::clearLog();
        ctx.get()->mClientArrays = true;
        worker = ctx.worker()->postSync([] { return pthread_self(); }, "whoami");
        auto bind = [this](const fake::Call& c) { return slot(c.args[0]) = GLuint(c.args[c.args.size() == 2 ? 1 : 2]), 0; };
        for (const char* name : {"glBindBuffer", "glBindBufferBase", "glBindBufferRange"}) fake::setHandler(name, bind);
        for (const char* name : {"glBindVertexArray", "glBindVertexArrayOES"})
            fake::setHandler(name, [](const fake::Call& c) { return vao() = GLuint(c.args[0]), 0; });
        for (const char* name : {"glGenVertexArrays", "glGenTransformFeedbacks"})
            fake::setHandler(name, [this](const fake::Call& c) {
                for (uint64_t i = 0; c.args[1] != 0 && i < c.args[0]; ++i) fake::fromBits<GLuint*>(c.args[1])[i] = next++;
                return 0;
            });
        fake::setHandler("glGetIntegerv", [this](const fake::Call& c) {
            if (c.args[0] == GL_ELEMENT_ARRAY_BUFFER_BINDING) *fake::fromBits<GLint*>(c.args[1]) = GLint(slot(GL_ELEMENT_ARRAY_BUFFER));
            return 0;
        });
        fake::setHandler("glBufferData", [this](const fake::Call& c) {
            const auto* from = fake::fromBits<const uint8_t*>(c.args[2]);
            data[slot(c.args[0])].assign(from, from + (from ? c.args[1] : 0));
            return 0;
        });
        fake::setHandler("glGetBufferParameteri64v", [this](const fake::Call& c) {
            return *fake::fromBits<GLint64*>(c.args[2]) = GLint64(data[slot(c.args[0])].size()), 0;
        });
        fake::setHandler("glMapBufferRange", [this](const fake::Call& c) -> uint64_t {
            const GLuint b = slot(c.args[0]);
            const auto offset = static_cast<int64_t>(c.args[1]), length = static_cast<int64_t>(c.args[2]);
            if (b == 0 || offset < 0 || length < 1 || int64_t(data[b].size()) - offset < length || mappings[b].open) return 0;
            mappings[b] = {size_t(offset), true, std::vector<uint8_t>(data[b].begin() + offset, data[b].begin() + offset + length)};
            return fake::bits(mappings[b].staging.data());
        });
        fake::setHandler("glUnmapBuffer", [this](const fake::Call& c) -> uint64_t {
            Mapping& m = mappings[slot(c.args[0])];
            if (m.open) std::copy(m.staging.begin(), m.staging.end(), data[slot(c.args[0])].begin() + m.offset);
            std::fill(m.staging.begin(), m.staging.end(), 0xDD);
            return m.open = false, GL_TRUE;
        });
        fake::setHandler("glDrawArrays", [this](const fake::Call& c) { return drawn.push_back(data[GLuint(c.args[1])]), 0; });
        fake::reset();
    }
    void TearDown() override { fake::clearHandlers(); }
    static std::map<uint64_t, GLuint>& bound() {
        static thread_local std::map<uint64_t, GLuint> perThread;
        return perThread;
    }
    static GLuint& vao() {
        static thread_local GLuint perThread = 0;
        return perThread;
    }
    GLuint& slot(uint64_t target) { return target == GL_ELEMENT_ARRAY_BUFFER ? elements[vao()] : bound()[target]; }
    Bindings& bindings() { return ctx.get()->mBindings; }
    static bool on(const fake::Call& c, pthread_t t) { return pthread_equal(c.thread, t) != 0; }
    // A buffer of 64 bytes, all kUntouched, bound to target on both sides.
    void makeBuffer(GLenum target, GLuint name) {
        kam_glBindBuffer_opt(target, name);
        std::vector<uint8_t> init(64, kUntouched);
        kam_glBufferData_opt(target, 64, init.data(), GL_DYNAMIC_DRAW);
        ctx.drain();
    }
    static std::vector<fake::Call> callsOn(pthread_t t) {
        std::vector<fake::Call> out;
        for (const fake::Call& c : fake::calls())
            if (pthread_equal(c.thread, t)) out.push_back(c);
        return out;
    }
    static std::vector<uint8_t> at(uint64_t p, size_t n) { return std::vector<uint8_t>(fake::fromBits<const uint8_t*>(p), fake::fromBits<const uint8_t*>(p) + n); }
    int left(int type) { return GLCaches::getSize(ctx.get()->mCaches.mPools[type], GLCaches::kPoolSize); }

    struct Mapping {
        size_t offset = 0;
        bool open = false;
        std::vector<uint8_t> staging;
    };
    std::map<GLuint, std::vector<uint8_t>> data;
    std::map<GLuint, Mapping> mappings;
    std::map<GLuint, GLuint> elements;  // by vertex array
    std::vector<std::vector<uint8_t>> drawn;
    GLuint next = 300;
    support::ActiveContext ctx;
    const pthread_t self = pthread_self();
    pthread_t worker{};
};
using BindingsTest = ShadowTest;
using NamePoolTest = ShadowTest;
using ClientArrayTest = ShadowTest;

struct Range {
    GLintptr offset;
    GLsizeiptr length;
};
struct MapStep {
    GLenum target;
    GLuint buffer;
    int bindBy;  // glBindBuffer, glBindBufferBase, glBindBufferRange
    GLintptr offset;
    GLsizeiptr length;
    GLbitfield access;
    std::vector<Range> flushes, lands;  // in the mapping; lands: by default the flushes or all
    int refs = 0;                       // references the worker could not release
};

// Mappings written through the returned pointer, flushed, unmapped and drawn
// from before the next: each draw sees what the driver holds then, whatever
// the binding point, and nothing reaches the driver on the calling thread.
TEST_F(BindingsTest, EveryDrawSeesWhatItsMappingsWrote) {
    const GLbitfield W = GL_MAP_WRITE_BIT, X = W | GL_MAP_FLUSH_EXPLICIT_BIT, U = W | GL_MAP_UNSYNCHRONIZED_BIT;
    const GLenum A = GL_ARRAY_BUFFER, UB = GL_UNIFORM_BUFFER;
    const std::vector<MapStep> cases[] = {
        {{A, 1, 0, 16, 32, W, {}, {}}}, {{A, 2, 0, 16, 32, W | GL_MAP_INVALIDATE_RANGE_BIT, {}, {}}},
        {{A, 3, 0, 16, 32, X, {{0, 16}}, {}}}, {{A, 4, 0, 16, 32, X, {{0, 4}, {8, 4}}, {}}},
        {{A, 5, 0, 16, 32, X, {{0, 32}}, {}}}, {{A, 6, 0, 16, 32, X, {}, {}}},
        {{A, 7, 0, 16, 32, X, {{20, 20}}, {{0, 32}}, 1}}, {{A, 8, 0, 16, 32, X, {{0, 4}, {30, 4}}, {{0, 4}}, 1}},
        {{A, 9, 0, 16, 32, X, {{-4, 8}}, {{0, 32}}, 1}}, {{A, 10, 0, 16, 32, W, {{0, 4}}, {{0, 32}}, 1}},
        {{A, 11, 0, 0, 64, W, {}, {}}, {A, 11, 0, 40, 8, W, {}, {}}},
        {{A, 12, 0, 0, 64, W, {}, {}}, {A, 12, 0, 0, 64, W | GL_MAP_INVALIDATE_BUFFER_BIT, {}, {}}},
        {{UB, 13, 1, 0, 64, W, {}, {}}, {UB, 14, 1, 0, 64, W, {}, {}}},
        {{A, 15, 0, 0, 16, U, {}, {}}, {A, 15, 0, 16, 16, U, {}, {}}, {A, 15, 0, 32, 16, U, {}, {}}},
        {{A, 16, 0, 0, 64, X, {{0, 8}}, {}}, {A, 16, 0, 0, 64, X, {{8, 8}}, {}}},
        {{GL_TRANSFORM_FEEDBACK_BUFFER, 17, 2, 0, 64, W, {}, {}}, {GL_SHADER_STORAGE_BUFFER, 18, 2, 0, 64, W, {}, {}},
        {GL_ATOMIC_COUNTER_BUFFER, 19, 1, 0, 64, W, {}, {}}, {UB, 20, 2, 16, 32, W, {}, {}}},
    };
    uint8_t fill = 0;
    for (const auto& steps : cases) {
        SCOPED_TRACE(steps[0].buffer);
        std::map<GLuint, std::vector<uint8_t>> model;
        for (const MapStep& s : steps) makeBuffer(s.target, s.buffer), model[s.buffer].assign(64, kUntouched);
        for (const MapStep& s : steps) kam_glBindBuffer_opt(s.target, 0);  // only the binding calls below count
        ctx.drain();
        fake::reset();
        drawn.clear();
        std::vector<std::vector<uint8_t>> expected;
        for (const MapStep& s : steps) {
            if (s.bindBy == 0) kam_glBindBuffer_opt(s.target, s.buffer);
            if (s.bindBy == 1) kam_glBindBufferBase_opt(s.target, 0, s.buffer);
            if (s.bindBy == 2) kam_glBindBufferRange_opt(s.target, 0, s.buffer, 0, 64);
            auto* p = static_cast<uint8_t*>(kam_glMapBufferRange_opt(s.target, s.offset, s.length, s.access));
            ASSERT_NE(p, nullptr);
            fill += 0x31;
            for (GLsizeiptr i = 0; i < s.length; ++i) p[i] = static_cast<uint8_t>(fill + i * 7);
            for (const Range& f : s.flushes) kam_glFlushMappedBufferRange_opt(s.target, f.offset, f.length);
            EXPECT_EQ(kam_glUnmapBuffer_opt(s.target), GL_TRUE);
            kam_glDrawArrays_opt(GL_POINTS, static_cast<GLint>(s.buffer), 1);
            const std::vector<Range> whole = {{0, s.length}};
            for (const Range& r : !s.lands.empty() ? s.lands : !s.flushes.empty() ? s.flushes : whole)
                for (GLsizeiptr i = r.offset; i < r.offset + r.length; ++i) model[s.buffer][s.offset + i] = static_cast<uint8_t>(fill + i * 7);
            expected.push_back(model[s.buffer]);
        }
        EXPECT_TRUE(callsOn(self).empty());
        ctx.drain();
        EXPECT_EQ(drawn, expected);
        EXPECT_EQ(support::countLog("glMapBufferRange :"), 0);
        BufferInfo* info = bindings().getBufferInfo(steps.back().target);
        ASSERT_NE(info, nullptr);
        EXPECT_EQ(info->refs.load(), steps.back().refs);
        EXPECT_TRUE(info->mappedPointer == nullptr && !info->shadowMapped);
    }
}

// Only ranges inside the buffer get shadow memory (its size asked once); the
// driver answers the rest on the calling thread, which reads the errors.
TEST_F(BindingsTest, RangesOutsideTheBufferGetTheDriversAnswer) {
    makeBuffer(GL_ARRAY_BUFFER, 60);
    const uint64_t before = bindings().allocatedBytes;
    const struct { GLintptr offset; GLsizeiptr length; } cases[] = {{0, 65}, {0x70000000, 16}, {-1, 8}, {60, 8}, {8, 0}, {8, -8}, {0, 64}, {16, 48}, {63, 1}, {0, 65}};
    for (const auto& tc : cases) {
        SCOPED_TRACE(::testing::Message() << tc.offset << " + " << tc.length);
        const bool served = tc.offset >= 0 && tc.length >= 1 && tc.offset + tc.length <= 64;
        fake::reset();
        void* p = kam_glMapBufferRange_opt(GL_ARRAY_BUFFER, tc.offset, tc.length, GL_MAP_WRITE_BIT);
        const std::vector<fake::Call> here = callsOn(self);
        EXPECT_EQ(p != nullptr, served);
        ASSERT_EQ(here.size(), served ? 0u : 3u);
        if (!served) { EXPECT_EQ(here[0].args, (std::vector<uint64_t>{GL_ARRAY_BUFFER, 60})); }
        if (!served) { EXPECT_EQ(here[2].args, (std::vector<uint64_t>{GL_ARRAY_BUFFER, 0})); }
        kam_glUnmapBuffer_opt(GL_ARRAY_BUFFER);
        EXPECT_LE(bindings().allocatedBytes - before, 64u);
        ctx.drain();
    }
    // A size set through the layer is known without asking.
    std::vector<uint8_t> bigger(128, kUntouched);
    kam_glBufferData_opt(GL_ARRAY_BUFFER, 128, bigger.data(), GL_DYNAMIC_DRAW);
    fake::reset();
    EXPECT_NE(kam_glMapBufferRange_opt(GL_ARRAY_BUFFER, 64, 64, GL_MAP_WRITE_BIT), nullptr);
    EXPECT_EQ(bindings().getBufferInfo(GL_ARRAY_BUFFER)->capacity, 128u) << "grown to the whole buffer at once";
    kam_glUnmapBuffer_opt(GL_ARRAY_BUFFER);
    ctx.drain();
    for (const fake::Call& c : fake::calls()) EXPECT_EQ(c.name.find("glGetBufferParameter"), std::string::npos);
    // A pixel-buffer read is mapped on the calling thread, which unbinds again when it lies outside.
    makeBuffer(GL_PIXEL_PACK_BUFFER, 61);
    fake::reset();
    EXPECT_EQ(kam_glMapBufferRange_opt(GL_PIXEL_PACK_BUFFER, 0, 65, GL_MAP_READ_BIT), nullptr);
    EXPECT_EQ(callsOn(self).back().args, (std::vector<uint64_t>{GL_PIXEL_PACK_BUFFER, 0}));
}

// A driver that refuses every real mapping: the application writes through
// its shadow pointer as usual, the bytes have nowhere to go, and the unmap
// (which the driver still hears, on the worker) reports it. Deleting the
// buffer drops its bindings and its memory at once, unless a flush that found
// no mapping kept a reference: then it waits for the frame boundary.
TEST_F(BindingsTest, RealMappingThatFailsIsReportedAtUnmap) {
    fake::setHandler("glMapBufferRange", [](const fake::Call&) { return uint64_t(0); });
    fake::setHandler("glUnmapBuffer", [](const fake::Call&) { return uint64_t(GL_FALSE); });
    for (GLuint buffer : {41u, 42u}) {
        const bool flush = buffer == 42;
        SCOPED_TRACE(buffer);
        support::clearLog();
        makeBuffer(GL_ARRAY_BUFFER, buffer);
        kam_glBindBuffer_opt(GL_COPY_WRITE_BUFFER, buffer);
        auto* p = static_cast<uint8_t*>(kam_glMapBufferRange_opt(GL_ARRAY_BUFFER, 0, 16, GL_MAP_WRITE_BIT | (flush ? GL_MAP_FLUSH_EXPLICIT_BIT : 0)));
        ASSERT_NE(p, nullptr) << "the application gets its shadow memory";
        memset(p, 0x5A, 16);
        if (flush) kam_glFlushMappedBufferRange_opt(GL_ARRAY_BUFFER, 0, 16);
        fake::reset();
        EXPECT_EQ(kam_glUnmapBuffer_opt(GL_ARRAY_BUFFER), GL_TRUE);
        ctx.drain();
        EXPECT_EQ(support::countLog("glUnmapBuffer error target=0x8892 addr=(nil) buffer=" + std::to_string(buffer), ANDROID_LOG_ERROR), 1);
        const auto unmaps = fake::named(fake::calls(), "glUnmapBuffer");
        ASSERT_EQ(unmaps.size(), 1u);
        EXPECT_TRUE(on(unmaps[0], worker));
        const uint64_t before = bindings().allocatedBytes;
        kam_glDeleteBuffers_opt(1, &buffer);
        EXPECT_EQ(bindings().getBindingBuffer(GL_ARRAY_BUFFER) + bindings().getBindingBuffer(GL_COPY_WRITE_BUFFER), 0u);
        EXPECT_EQ(bindings().buffers.count(buffer) + before - bindings().allocatedBytes, 64u);
        EXPECT_EQ(bindings().pendingFree.size(), flush ? 1u : 0u);
        ctx.frameBoundary();
        EXPECT_TRUE(bindings().pendingFree.empty());
        EXPECT_EQ(support::countLog("Delete a mapped buffer=42 bufSize=64 refs=1", ANDROID_LOG_ERROR), flush ? 1 : 0);
    }
}

// Client memory that cannot be copied (the arena is full and memalign fails,
// or a shadow block cannot be had) is used where it is: the call runs on the
// worker while the application waits.
TEST_F(BindingsTest, CopiesThatFindNoMemoryWaitForTheDriver) {
    const size_t kArenaBlock = 0x2000000, huge = kArenaBlock + 4096;  // larger than the whole arena
    std::vector<uint8_t> bytes(huge, 0x11);
    fake::setHandler("glMapBufferRange", [](const fake::Call&) { return uint64_t(0x7000); });
    const struct { const char* call; size_t failsFrom; std::function<void()> run; int pointerArg; } rows[] = {
        {"glBufferData", kArenaBlock, [&] { kam_glBufferData_opt(GL_ARRAY_BUFFER, GLsizeiptr(huge), bytes.data(), GL_STATIC_DRAW); }, 2},
        {"glBufferSubData", kArenaBlock, [&] { kam_glBufferSubData_opt(GL_ARRAY_BUFFER, 0, GLsizeiptr(huge), bytes.data()); }, 3},
        {"glMapBufferRange", 1, [&] { EXPECT_EQ(kam_glMapBufferRange_opt(GL_ARRAY_BUFFER, 0, 16, GL_MAP_WRITE_BIT), (void*)0x7000); }, -1},
    };
    GLuint name = 50;
    for (const auto& r : rows) {
        SCOPED_TRACE(r.call);
        makeBuffer(GL_ARRAY_BUFFER, ++name);
        fake::reset();
        support::MemalignFails(r.failsFrom), r.run();
        const auto calls = fake::named(fake::calls(), r.call);  // before any drain: it already ran
        ASSERT_EQ(calls.size(), 1u);
        EXPECT_TRUE(on(calls[0], worker));
        if (r.pointerArg >= 0) { EXPECT_EQ(calls[0].args[size_t(r.pointerArg)], fake::bits(bytes.data())); }
        ctx.frameBoundary();
    }
}

enum VaoOp { kBindVao, kBindVaoOes, kBindElements, kDeleteVao, kDeleteVaoOes, kDeleteBuffer };

// A draw's index pointer is an offset exactly when the drawn vertex array has
// an element buffer; the driver is asked once about a vertex array made
// before the context was attached (vertex array 2).
TEST_F(BindingsTest, ElementBufferFollowsTheVertexArray) {
    // ops: vertex arrays by index (-1: the default), buffers by name.
    const struct { const char* name; std::vector<std::pair<VaoOp, int>> ops; bool indicesAreOffset; int driverAsks; } cases[] = {
        {"kept by its vertex array while the default one drops it",
         {{kBindVao, 0}, {kBindElements, 5}, {kBindVao, -1}, {kBindElements, 0}, {kBindVao, 0}}, true, 0},
        {"the default one's buffer is not the drawn one's", {{kBindElements, 5}, {kBindVao, 0}}, false, 0},
        {"through the OES names",
         {{kBindVaoOes, 0}, {kBindElements, 5}, {kBindVaoOes, -1}, {kBindElements, 0}, {kBindVaoOes, 0}}, true, 0},
        {"deleting the bound one falls back to the default",
         {{kBindElements, 5}, {kBindVao, 1}, {kBindElements, 0}, {kDeleteVao, 1}}, true, 0},
        {"the same through the OES delete",
         {{kBindElements, 5}, {kBindVao, 1}, {kBindElements, 0}, {kDeleteVaoOes, 1}}, true, 0},
        {"made before the context was attached", {{kBindVao, 2}}, true, 1},
        {"made before, set since", {{kBindVao, 2}, {kBindElements, 0}}, false, 0},
        {"deleting the element buffer unbinds it", {{kBindElements, 5}, {kDeleteBuffer, 5}}, false, 0},
        {"deleting another buffer keeps it", {{kBindElements, 5}, {kDeleteBuffer, 6}}, true, 0},
    };
    elements[77] = 5;
    const GLushort indices[3] = {0, 1, 2};
    for (const auto& tc : cases) {
        SCOPED_TRACE(tc.name);
        GLuint vaos[3] = {0, 0, 77};
        kam_glGenVertexArrays_opt(2, vaos);
        kam_glBindVertexArray(0);
        kam_glBindBuffer_opt(GL_ELEMENT_ARRAY_BUFFER, 0);
        ctx.drain();
        fake::reset();
        for (const auto& op : tc.ops) {
            const GLuint vao = op.second < 0 ? 0 : vaos[op.second % 3], name = static_cast<GLuint>(op.second);
            switch (op.first) {
                case kBindVao: kam_glBindVertexArray(vao); break;
                case kBindVaoOes: kam_glBindVertexArrayOES_opt(vao); break;
                case kBindElements: kam_glBindBuffer_opt(GL_ELEMENT_ARRAY_BUFFER, name); break;
                case kDeleteVao: kam_glDeleteVertexArrays_opt(1, &vao); break;
                case kDeleteVaoOes: kam_glDeleteVertexArraysOES(1, &vao); break;
                case kDeleteBuffer: kam_glDeleteBuffers_opt(1, &name); break;
            }
        }
        for (int draw = 0; draw < 2; ++draw) kam_glDrawElements_opt(GL_TRIANGLES, 3, GL_UNSIGNED_SHORT, indices);
        ctx.drain();
        int draws = 0, asks = 0;
        for (const fake::Call& c : fake::calls()) {
            asks += c.name == "glGetIntegerv";
            if (c.name != "glDrawElements") continue;
            ++draws;
            EXPECT_EQ(c.args[3] == reinterpret_cast<uintptr_t>(indices), tc.indicesAreOffset);
        }
        EXPECT_EQ(draws, 2);
        EXPECT_EQ(asks, tc.driverAsks);
    }
}

// Blocks idle for 100 frames go once the total is over the threshold; mapped
// or referenced ones stay (on a Bindings of its own, worker halves inline).
TEST(TrimTest, OnlyIdleBlocksAboveTheThresholdGo) {
    support::initLayer();
    // A block of `big` bytes and one of 64, used at frame 1000.
    const struct { uint32_t big, now; size_t left; } rows[] = {{16000000 - 64, 2000, 2}, {16000000 - 63, 1100, 0}, {16000000 - 63, 1099, 2}, {16000000, 1100, 2}};
    for (const auto& r : rows) {
        SCOPED_TRACE(r.now);
        Bindings b;
        const bool busy = r.big == 16000000;  // the small one mapped, then a reference never given back
        for (GLuint name : {1u, 2u}) {
            b.bindBuffer(GL_ARRAY_BUFFER, name);
            MappedInfo copy = *b.mapBufferRangePre(GL_ARRAY_BUFFER, 0, name == 1 ? r.big : 10, GL_MAP_WRITE_BIT, 1000);
            b.mapBufferRangePost(GL_ARRAY_BUFFER, &copy, nullptr);
            if (name == 2 && busy) continue;
            copy = *b.unmapBufferPre(GL_ARRAY_BUFFER), b.unmapBufferPost(GL_ARRAY_BUFFER, &copy);
        }
        if (busy) b.unmapBufferPre(GL_ARRAY_BUFFER);
        const uint64_t total = b.allocatedBytes;
        b.trimMemory(r.now);
        EXPECT_EQ(b.buffers.size(), busy ? 1u : r.left);
        EXPECT_EQ(b.allocatedBytes, busy ? 64u : r.left ? total : 0u);
    }
}

// Generated names come from the worker before the first frame boundary, for
// counts a pool cannot hold, or into memory that is not the client's; else
// from the pool, which each boundary refills. The shadow knows a vertex
// array, as the driver does, once it is bound.
TEST_F(NamePoolTest, GenerateServedByThePoolOrTheWorker) {
    const struct { bool afterBoundary; GLsizei n; bool clientMemory, worker; } rows[] = {{false, 2, true, true}, {true, 3, true, false},   {true, 1, true, false},       {true, 9, true, true},
                {true, 8, true, false}, {true, -1, true, false}, {true, INT_MIN, true, false}, {true, 1, false, true}};
    for (const auto& r : rows)
        for (auto gen : {kam_glGenVertexArrays_opt, kam_glGenTransformFeedbacks_opt}) {
            SCOPED_TRACE(::testing::Message() << "n " << r.n << " after " << r.afterBoundary);
            const int type = gen == kam_glGenVertexArrays_opt ? 0 : 1;
            if (r.afterBoundary) ctx.frameBoundary();
            if (r.afterBoundary) { EXPECT_EQ(left(type), 8); }
            const std::vector<GLuint> pool(ctx.get()->mCaches.mPools[type], ctx.get()->mCaches.mPools[type] + 8);
            std::vector<GLuint> out(16, 0);
            GLuint* p = r.clientMemory ? out.data() : nullptr;
            ctx.drain(), fake::reset();
            gen(r.n, p);
            const auto calls = fake::calls();  // no drain: what the wrapper waited for
            ASSERT_EQ(calls.size(), r.worker ? 1u : 0u);
            if (r.worker) { EXPECT_TRUE(on(calls[0], worker) && calls[0].args == (std::vector<uint64_t>{fake::bits(r.n), fake::bits(p)})); }
            const int taken = r.worker || r.n < 1 || !r.afterBoundary ? 0 : r.n;
            EXPECT_EQ(left(type), r.afterBoundary ? 8 - taken : 0);
            EXPECT_EQ(std::vector<GLuint>(out.begin(), out.begin() + taken), std::vector<GLuint>(pool.begin(), pool.begin() + taken));
            if (type != 0 || !r.clientMemory || r.n < 1) continue;
            EXPECT_FALSE(isVertexArrayFromShadow(out[0]));
            kam_glBindVertexArray(out[0]);
            EXPECT_TRUE(isVertexArrayFromShadow(out[0]));
            kam_glDeleteVertexArrays_opt(1, &out[0]);
            EXPECT_FALSE(isVertexArrayFromShadow(out[0]) || bindings().currentVertexArray);
        }
}

std::vector<uint8_t> indexBytes(GLenum type, const std::vector<uint32_t>& indices) {
    std::vector<uint8_t> out;
    for (uint32_t i : indices) out.insert(out.end(), reinterpret_cast<uint8_t*>(&i), reinterpret_cast<uint8_t*>(&i) + (type == GL_UNSIGNED_BYTE ? 1 : type == GL_UNSIGNED_SHORT ? 2 : 4));
    return out;
}

// A draw copies, packed, the vertices it reaches (glDrawArrays first to
// first + count - 1; indexed draws 0 to the largest index, restart and
// top-bit 32-bit indices excluded) and its indices. The caller's memory ends
// right after; attribute calls the GL rejects point at memory that faults.
TEST_F(ClientArrayTest, DrawsCopyTheReachableVertices) {
    const GLenum US = GL_UNSIGNED_SHORT, UI = GL_UNSIGNED_INT, UB = GL_UNSIGNED_BYTE;
    // Index type 0: glDrawArrays(first 2) of `vertices` vertices.
    const struct { GLint size; GLenum attribType; GLsizei stride; GLenum indexType; std::vector<uint32_t> indices; size_t vertices;
                   bool restart = false, range = false, integer = false; } cases[] = {
        {3, GL_FLOAT, 20, US, {0, 2, 1}, 3}, {3, GL_FLOAT, 0, US, {0, 2, 1}, 3},
        {4, GL_FLOAT, 16, US, {0, 3}, 4, false, true}, {2, UB, 7, UB, {4, 1}, 5, false, false, true},
        {3, GL_HALF_FLOAT, 0, UI, {2, 1}, 3}, {4, GL_UNSIGNED_INT_2_10_10_10_REV, 0, UI, {1, 0}, 2},
        {2, GL_SHORT, 0, UI, {1, 0xFFFFFFFFu, 3, 0x80000000u}, 4}, {3, GL_FLOAT, 20, US, {0, 0, 0}, 1},
        {1, GL_FLOAT, 8, UI, {0, 1, 2, 3, 6}, 7}, {2, GL_FIXED, 12, US, {0, 2, 1}, 3},
        {3, GL_FLOAT, 0, US, {0, 2, 0xFFFF, 1, 3}, 4, true}, {2, GL_SHORT, 6, UB, {1, 0xFF, 2}, 3, true, false, true},
        {1, UB, 0, UB, {0xFF, 1}, 256}, {3, GL_FLOAT, 20, 0, {}, 3}, {2, GL_FIXED, 12, 0, {}, 3},
    };
    for (const auto& tc : cases) {
        SCOPED_TRACE(::testing::Message() << tc.attribType << " stride " << tc.stride << " vertices " << tc.vertices);
        const size_t elem = tc.attribType == GL_UNSIGNED_INT_2_10_10_10_REV ? 4 : size_t(kamTypeSize(tc.attribType) * tc.size);
        const size_t step = tc.stride ? size_t(tc.stride) : elem, first = tc.indexType ? 0 : 2;
        const long long bytes = static_cast<long long>((first + tc.vertices - 1) * step + elem);
        Guarded data(bytes);
        for (long long i = 0; i < bytes; ++i) data.data()[i] = static_cast<uint8_t>(i * 3 + 1);
        std::vector<uint8_t> packed;
        const std::vector<uint8_t> original = indexBytes(tc.indexType, tc.indices);
        Guarded idx(static_cast<long long>(original.size()));  // an index copy ends where they do
        std::copy(original.begin(), original.end(), idx.data());
        for (size_t v = first; v < first + tc.vertices; ++v) packed.insert(packed.end(), data.data() + v * step, data.data() + v * step + elem);
        if (tc.integer) kam_glVertexAttribIPointer_opt(2, tc.size, tc.attribType, tc.stride, data.data());
        else kam_glVertexAttribPointer_opt(2, tc.size, tc.attribType, GL_TRUE, tc.stride, data.data());
        // Calls the GL rejects leave the attribute as it was: nothing is copied by them.
        for (auto bad : {std::make_tuple(4, GL_FLOAT, -16), {0, GL_FLOAT, 0}, {5, GL_FLOAT, 0}, {INT_MAX, GL_BYTE, 0},
                         {4, 0x1234, 0}, {1, GL_UNSIGNED_INT_24_8, 0}, {3, GL_UNSIGNED_INT_2_10_10_10_REV, 0}})
            kam_glVertexAttribPointer_opt(2, std::get<0>(bad), std::get<1>(bad), GL_FALSE, std::get<2>(bad), Guarded(0).data());
        kam_glVertexAttribPointer_opt(17, 1, GL_FLOAT, GL_FALSE, 0, Guarded(0).data());  // past the last attribute
        kam_glVertexAttribIPointer_opt(2, 4, GL_FLOAT, 0, Guarded(0).data());  // integer attributes take integer types only
        (tc.restart ? kam_glEnable_opt : kam_glDisable_opt)(GL_PRIMITIVE_RESTART_FIXED_INDEX);
        const GLsizei count = static_cast<GLsizei>(tc.indices.size());
        auto s = ctx.run([&] {
            if (!tc.indexType) kam_glDrawArrays_opt(GL_TRIANGLES, 2, GLsizei(tc.vertices));
            if (tc.range) kam_glDrawRangeElements_opt(GL_TRIANGLES, 0, 3, count, tc.indexType, idx.data());
            if (tc.indexType && !tc.range) kam_glDrawElements_opt(GL_TRIANGLES, count, tc.indexType, idx.data());
            // The application reuses its memory as soon as the call returns.
            memset(data.data(), 0, size_t(bytes));
            std::fill(idx.data(), idx.data() + original.size(), 0);
        });
        EXPECT_EQ(s.waits, 0);
        ASSERT_EQ(s.after.size(), 2u);
        const std::vector<uint64_t>& attrib = s.after[0].args;
        EXPECT_EQ(s.after[0].name, tc.integer ? "glVertexAttribIPointer" : "glVertexAttribPointer");
        std::vector<uint64_t> expected{2, fake::bits(tc.size), tc.attribType, GL_TRUE, 0};
        if (tc.integer) expected.erase(expected.begin() + 3);
        EXPECT_EQ(std::vector<uint64_t>(attrib.begin(), attrib.end() - 1), expected);
        EXPECT_EQ(at(attrib.back() + first * elem, packed.size()), packed) << "vertex first where the pointer says";
        EXPECT_EQ(s.after[1].name, !tc.indexType ? "glDrawArrays" : tc.range ? "glDrawRangeElements" : "glDrawElements");
        if (tc.indexType) { EXPECT_EQ(at(s.after[1].args[tc.range ? 5 : 3], original.size()), original); }
        kam_glVertexAttribPointer_opt(2, 1, GL_FLOAT, GL_FALSE, 0, reinterpret_cast<void*>(64));
        ctx.frameBoundary();
    }
}

// Draws that read no vertex data from client memory record with their
// indices copied; those that do, without emulation or with indices in a
// buffer, are drawn while the caller waits, after the attributes an earlier
// draw left on copies get the caller's pointers back.
TEST_F(ClientArrayTest, DrawsThatCopyNoVertexData) {
    const struct { bool clientArrays, elementBuffer, disable, offsetPointer, waits; } cases[] = {{false, false, false, false, true}, {true, true, false, false, true}, {true, false, true, false, false},
                 {true, false, false, true, false}};
    std::vector<uint8_t> data(64, 0x3C);
    const GLushort idx[] = {0, 2, 1};
    for (const auto& tc : cases) {
        SCOPED_TRACE(::testing::Message() << tc.clientArrays << tc.elementBuffer << tc.disable);
        kam_glVertexAttribPointer_opt(3, 3, GL_FLOAT, GL_FALSE, 0, data.data());
        kam_glDrawElements_opt(GL_TRIANGLES, 3, GL_UNSIGNED_SHORT, idx);  // leaves the attribute on a copy
        ctx.get()->mClientArrays = tc.clientArrays;
        kam_glBindBuffer_opt(GL_ELEMENT_ARRAY_BUFFER, tc.elementBuffer ? 40 : 0);
        if (tc.disable) kam_glDisableVertexAttribArray_opt(3);
        if (tc.offsetPointer) kam_glVertexAttribPointer_opt(3, 3, GL_FLOAT, GL_FALSE, 0, reinterpret_cast<void*>(64));
        auto s = ctx.run([&] {
            for (int k = 0; k < 2; ++k) kam_glDrawElements_opt(GL_TRIANGLES, 3, GL_UNSIGNED_SHORT, idx);
        });
        ASSERT_EQ(s.after.size(), tc.waits ? 3u : 2u) << "the pointers are given back once, not per draw";
        EXPECT_EQ(s.waits, tc.waits ? 2 : 0);
        if (tc.waits) { EXPECT_EQ(s.atReturn.size(), 3u); }
        if (tc.waits) { EXPECT_EQ(s.after[0].args, (std::vector<uint64_t>{3, 3, GL_FLOAT, GL_FALSE, 0, fake::bits(data.data())})); }
        EXPECT_EQ(s.after.back().name, "glDrawElements");
        EXPECT_EQ(s.after.back().args[3] == fake::bits(idx), tc.waits);
        EXPECT_EQ(at(s.after.back().args[3], 6), at(fake::bits(idx), 6));
        ctx.get()->mClientArrays = true;
        kam_glBindBuffer_opt(GL_ELEMENT_ARRAY_BUFFER, 0);
        kam_glEnableVertexAttribArray_opt(3);
        ctx.frameBoundary();
    }
}

// Where size_t is 32 bits, a copy sized from a huge index or count wraps to a
// few bytes: it is given up, and the driver gets the application's pointer.
TEST_F(ClientArrayTest, CopiesTooLargeForSizeTKeepTheApplicationPointer) {
    if (sizeof(size_t) > 4) GTEST_SKIP() << "64-bit size_t: these copy sizes cannot wrap";
    const uint8_t vertices[16] = {};
    const GLuint indices[] = {0, 0x55555555u};  // 0x55555556 vertices of 3 bytes: 2 bytes wrapped
    kam_glVertexAttribPointer_opt(0, 3, GL_UNSIGNED_BYTE, GL_FALSE, 4, vertices);
    kam_glDrawElements_opt(GL_POINTS, 2, GL_UNSIGNED_INT, indices);
    // 0x40000001 indices of 4 bytes: 4 bytes wrapped; no vertex copy, which would read them all first.
    ctx.get()->mClientArrays = false;
    auto s = ctx.run([&] { kam_glDrawElements_opt(GL_POINTS, 0x40000001, GL_UNSIGNED_INT, indices); });
    for (const fake::Call& c : s.after)
        if (c.name == "glVertexAttribPointer") { EXPECT_EQ(c.args[5], fake::bits(vertices)); }
    EXPECT_EQ(s.after.back().args, (std::vector<uint64_t>{GL_POINTS, 0x40000001, GL_UNSIGNED_INT, fake::bits(indices)}));
}

constexpr GLenum k8888Rev = 0x8367, kEtc2 = 0x9278;

// Every texture and sampler parameter of OpenGL ES 3.2 and its extensions
// with the bytes its array holds; any other value is unsized (the call waits).
TEST(TexParamBytes, EveryPnameOfTheGl) {
    const struct { GLenum pname; int bytes; } known[] = {
        {GL_TEXTURE_BORDER_COLOR, 16}, {GL_TEXTURE_MAG_FILTER, 4}, {GL_TEXTURE_MIN_FILTER, 4},
        {GL_TEXTURE_WRAP_S, 4}, {GL_TEXTURE_WRAP_T, 4}, {GL_TEXTURE_WRAP_R, 4}, {GL_TEXTURE_MIN_LOD, 4},
        {GL_TEXTURE_MAX_LOD, 4}, {GL_TEXTURE_MAX_LEVEL, 4}, {GL_TEXTURE_COMPARE_MODE, 4},
        {GL_TEXTURE_COMPARE_FUNC, 4}, {GL_TEXTURE_SWIZZLE_R, 4}, {GL_TEXTURE_SWIZZLE_G, 4},
        {GL_TEXTURE_SWIZZLE_B, 4}, {GL_TEXTURE_SWIZZLE_A, 4}};  // GL_TEXTURE_BASE_LEVEL and the others: 0
    std::vector<int> expected(0x10000, 0);
    for (const auto& k : known) expected[k.pname] = k.bytes;
    for (long long pname = 0; pname < 0x10000; ++pname) ASSERT_EQ(texParamBytes(pname), expected[pname]) << pname;
    EXPECT_EQ(texParamBytes(0x11004), 0);
    EXPECT_EQ(texParamBytes(-1), 0);
}

using PixelTest = ShadowTest;

using Store = std::pair<GLenum, GLint>;

// Every row through the uploads, a read, and every pointer kind, with the
// bytes the GL reads for a 2D and a 3D image (0: none, the upload waits)
// under the unpack state the GL keeps: no negative values, alignments 1, 2, 4
// and 8. Offsets into bound buffers are recorded as they are.
TEST_F(PixelTest, UploadsCopyWhatTheGlReads) {
    const long long kHuge = LLONG_MAX;
    const struct { const char* what; int w, h, d; GLenum format, type; std::vector<Store> stores; long long bytes2D, bytes3D; } rows[] = {
        {"plain", 4, 4, 2, GL_RGBA, GL_UNSIGNED_BYTE, {}, 64, 128},
        {"alignment 1", 3, 2, 1, GL_RGB, GL_UNSIGNED_BYTE, {{GL_UNPACK_ALIGNMENT, 1}}, 18, 18},
        {"alignment 2", 3, 2, 1, GL_RGB, GL_UNSIGNED_BYTE, {{GL_UNPACK_ALIGNMENT, 2}}, 19, 19},
        {"alignment 8, row length 5", 3, 2, 1, GL_RGB, GL_UNSIGNED_BYTE, {{GL_UNPACK_ALIGNMENT, 8}, {GL_UNPACK_ROW_LENGTH, 5}}, 25, 25},
        {"alignment 3 is rejected", 3, 3, 1, GL_RGB, GL_UNSIGNED_BYTE, {{GL_UNPACK_ALIGNMENT, 3}}, 33, 33},
        {"huge alignment is rejected", 1, 2, 1, GL_RGBA, GL_UNSIGNED_BYTE, {{GL_UNPACK_ALIGNMENT, 0x40000000}}, 8, 8},
        {"skips, row length, image height", 2, 2, 2, GL_RGBA, GL_UNSIGNED_BYTE,
         {{GL_UNPACK_ROW_LENGTH, 8}, {GL_UNPACK_SKIP_ROWS, 1}, {GL_UNPACK_SKIP_PIXELS, 1}, {GL_UNPACK_IMAGE_HEIGHT, 3},
          {GL_UNPACK_SKIP_IMAGES, 1}}, 76, 268},
        {"image height 4", 3, 2, 2, GL_RGBA, GL_UNSIGNED_BYTE, {{GL_UNPACK_IMAGE_HEIGHT, 4}}, 24, 72},
        {"negative stores are rejected", 2, 2, 1, GL_RGBA, GL_UNSIGNED_BYTE,
         {{GL_UNPACK_SKIP_PIXELS, -1}, {GL_UNPACK_SKIP_ROWS, -0x7FFFFFFF}, {GL_UNPACK_ROW_LENGTH, -5}}, 16, 16},
        {"pack and unknown stores", 2, 2, 1, GL_RGBA, GL_UNSIGNED_BYTE,
         {{0xFFFF, 5}, {GL_PACK_ALIGNMENT, 1}, {GL_PACK_ROW_LENGTH, 100}}, 16, 16},
        {"two components", 3, 2, 1, GL_LUMINANCE_ALPHA, GL_UNSIGNED_BYTE, {}, 14, 14},
        {"packed 5_6_5", 3, 2, 1, GL_RGB, GL_UNSIGNED_SHORT_5_6_5, {}, 14, 14},
        {"packed 4_4_4_4", 2, 2, 1, GL_RGBA, GL_UNSIGNED_SHORT_4_4_4_4, {}, 8, 8},
        {"depth and stencil", 3, 2, 1, GL_DEPTH_STENCIL, GL_UNSIGNED_INT_24_8, {}, 24, 24},
        {"float depth and stencil", 3, 2, 1, GL_DEPTH_STENCIL, GL_FLOAT_32_UNSIGNED_INT_24_8_REV, {}, 48, 48},
        {"depth and stencil in bytes is unsized", 3, 2, 1, GL_DEPTH_STENCIL, GL_UNSIGNED_BYTE, {}, 0, 0},
        {"half float", 2, 2, 1, GL_RGBA, GL_HALF_FLOAT, {}, 32, 32},
        {"unsized type", 3, 2, 1, GL_RGBA, k8888Rev, {}, 0, 0},
        {"depth GL_INT is unsized", 3, 2, 1, GL_DEPTH_COMPONENT, GL_INT, {}, 0, 0},
        {"desktop GL_2_BYTES is unsized", 3, 2, 1, GL_RGBA, 0x1407, {}, 0, 0},
        {"depth GL_2_BYTES is unsized", 3, 2, 1, GL_DEPTH_COMPONENT, 0x1407, {}, 0, 0},
        {"unknown format", 4, 4, 1, 0x1234, GL_UNSIGNED_BYTE, {}, 0, 0},
        {"compressed format", 4, 4, 1, kEtc2, GL_UNSIGNED_BYTE, {}, 0, 0},
        {"zero width", 0, 4, 1, GL_RGBA, GL_UNSIGNED_BYTE, {}, 0, 0},
        {"zero width with a row length", 0, 4, 2, GL_RGBA, GL_UNSIGNED_BYTE, {{GL_UNPACK_ROW_LENGTH, 8}}, 0, 0},
        {"zero height with skipped rows", 3, 0, 1, GL_RGB, GL_UNSIGNED_BYTE, {{GL_UNPACK_SKIP_ROWS, 2}}, 0, 0},
        {"zero depth with skipped images", 3, 2, 0, GL_RGBA, GL_UNSIGNED_BYTE, {{GL_UNPACK_SKIP_IMAGES, 2}}, 24, 0},
        {"negative width", -1, 4, 1, GL_RGBA, GL_UNSIGNED_BYTE, {}, 0, 0},
        {"negative height", 3, -1, 1, GL_RGB, GL_UNSIGNED_BYTE, {}, 0, 0},
        {"negative depth", 3, 3, -1, GL_RGB, GL_UNSIGNED_BYTE, {}, 33, 0},
        {"negative width wrapping to 4 bytes", -0x3FFFFFFF, 1, 1, GL_RGBA, GL_UNSIGNED_BYTE, {}, 0, 0},
        {"negative height wrapping positive", 1, -0x3FFFFFFF, 1, GL_RGBA, GL_UNSIGNED_BYTE, {{GL_UNPACK_ALIGNMENT, 1}}, 0, 0},
        {"width past 32 bits", 0x40000001, 1, 1, GL_RGBA, GL_UNSIGNED_BYTE, {}, 0x100000004ll, 0x100000004ll},
        {"area past 32 bits", 65536, 65537, 1, GL_RGBA, GL_UNSIGNED_BYTE, {}, 17180131328ll, 17180131328ll},
        {"huge row length", 1, 2, 1, GL_RED, GL_UNSIGNED_BYTE, {{GL_UNPACK_ROW_LENGTH, INT_MAX}}, 0x80000001ll, 0x80000001ll},
        {"everything at the maximum", INT_MAX, INT_MAX, INT_MAX, GL_RGBA, GL_FLOAT, {}, kHuge, kHuge},
    };
    using Upload = std::function<void(int, int, int, GLenum, GLenum, const void*)>;
    // dims: 2, 3, or 0 for a read into the caller's memory, never copied.
    const struct { const char* name; int dims; Upload upload; } uploads[] = {
        {"glTexImage2D", 2, [](int w, int h, int, GLenum f, GLenum t, const void* p) { kam_glTexImage2D_opt(GL_TEXTURE_2D, 0, GL_RGBA, w, h, 0, f, t, p); }},
        {"glTexSubImage2D", 2, [](int w, int h, int, GLenum f, GLenum t, const void* p) { kam_glTexSubImage2D_opt(GL_TEXTURE_2D, 0, 1, 1, w, h, f, t, p); }},
        {"glTexImage3D", 3, [](int w, int h, int d, GLenum f, GLenum t, const void* p) { kam_glTexImage3D_opt(GL_TEXTURE_3D, 0, GL_RGBA, w, h, d, 0, f, t, p); }},
        {"glTexSubImage3D", 3, [](int w, int h, int d, GLenum f, GLenum t, const void* p) { kam_glTexSubImage3D_opt(GL_TEXTURE_3D, 0, 1, 1, 1, w, h, d, f, t, p); }},
        {"glReadPixels", 0, [](int w, int h, int, GLenum f, GLenum t, const void* p) { kam_glReadPixels_opt(0, 0, w, h, f, t, const_cast<void*>(p)); }},
    };
    // The caller's pointer: its exact memory, null, the largest offset, the
    // smallest address (where nothing is read), an offset into a bound buffer.
    for (const auto& r : rows)
        for (const auto& u : uploads)
            for (int kind = 0; kind < 5; ++kind) {
                SCOPED_TRACE(std::string(u.name) + ": " + r.what + ", pointer kind " + std::to_string(kind));
                const long long bytes = u.dims == 3 ? r.bytes3D : r.bytes2D;
                if ((kind == 3 && bytes >= 1) || (kind == 0 && bytes > Guarded::kLargest)) continue;
                std::vector<Store> stores = {{GL_UNPACK_ALIGNMENT, 4}, {GL_UNPACK_ROW_LENGTH, 0}, {GL_UNPACK_IMAGE_HEIGHT, 0},
                                             {GL_UNPACK_SKIP_PIXELS, 0}, {GL_UNPACK_SKIP_ROWS, 0}, {GL_UNPACK_SKIP_IMAGES, 0}};
                stores.insert(stores.end(), r.stores.begin(), r.stores.end());
                fake::reset();
                for (const Store& s : stores) kam_glPixelStorei_opt(s.first, s.second);
                ctx.drain();
                // Each store reaches the driver on the calling thread, whose
                // placeholder context keeps the same state, and on the worker.
                EXPECT_EQ(fake::calls().size(), 2 * stores.size());
                EXPECT_EQ(callsOn(worker).size(), stores.size());
                Guarded caller(kind == 0 ? bytes : 0);
                const void* p = kind == 0 ? caller.data() : kind == 1 ? nullptr : fake::fromBits<const void*>(kind == 4 ? 0x2000000u : 0x10000u + (kind == 3));
                for (GLenum target : {GL_PIXEL_PACK_BUFFER, GL_PIXEL_UNPACK_BUFFER}) bindings().bindBuffer(target, kind == 4 ? 7 : 0);
                fake::reset();
                const int before = support::syncPosts();
                u.upload(r.w, r.h, r.d, r.format, r.type, p);
                const int waits = support::syncPosts() - before;
                ctx.drain();
                ASSERT_EQ(fake::calls().size(), 1u);
                const void* got = fake::fromBits<const void*>(fake::calls()[0].args.back());
                ctx.frameBoundary();
                const bool copied = kind == 0 && bytes >= 1 && u.dims, client = kind == 0 || kind == 3;
                EXPECT_EQ(waits, client && !copied ? 1 : 0) << "waits when unsized or reading";
                EXPECT_EQ(got == p, !copied);
                if (copied) { EXPECT_EQ(memcmp(got, p, static_cast<size_t>(bytes)), 0); }
            }
}

}  // namespace
