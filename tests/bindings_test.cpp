// Buffer mapping emulation: what the application writes through the shadow
// pointer must reach the driver's mapping, byte for byte, whatever the mix of
// maps, flushes, unmaps, deletes and frame boundaries; the cases the shadow
// cannot serve must fall back to the driver.

#include <gtest/gtest.h>

#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <vector>

#include "kam_wrappers.h"
#include "shadow/Bindings.h"
#include "support.h"

using namespace android;

namespace {

constexpr uint8_t kUntouched = 0xEE;

// A driver that keeps buffer contents per name, bindings per thread (each
// thread stands for its own context sharing the buffers) and the element
// buffer per vertex array. Its glDrawArrays(mode, first, count) stands for a
// draw that reads buffer `first`: it keeps a copy of what the buffer holds.
class FakeBuffers {
public:
    FakeBuffers() {
        auto bind = [this](const fake::Call& c) {
            std::lock_guard<std::mutex> g(lock);
            slot(static_cast<GLenum>(c.args[0])) = static_cast<GLuint>(c.args[c.args.size() == 2 ? 1 : 2]);
            return 0;
        };
        for (const char* name : {"glBindBuffer", "glBindBufferBase", "glBindBufferRange"}) fake::setHandler(name, bind);
        for (const char* name : {"glBindVertexArray", "glBindVertexArrayOES"})
            fake::setHandler(name, [](const fake::Call& c) {
                vao() = static_cast<GLuint>(c.args[0]);
                return 0;
            });
        fake::setHandler("glGenVertexArrays", [this](const fake::Call& c) {
            for (uint64_t i = 0; i < c.args[0]; ++i) reinterpret_cast<GLuint*>(c.args[1])[i] = nextVao++;
            return 0;
        });
        fake::setHandler("glGetIntegerv", [this](const fake::Call& c) {
            std::lock_guard<std::mutex> g(lock);
            if (c.args[0] == GL_ELEMENT_ARRAY_BUFFER_BINDING)
                *reinterpret_cast<GLint*>(c.args[1]) = static_cast<GLint>(elements[vao()]);
            return 0;
        });
        fake::setHandler("glBufferData", [this](const fake::Call& c) {
            std::lock_guard<std::mutex> g(lock);
            auto& store = data[slot(static_cast<GLenum>(c.args[0]))];
            store.assign(c.args[1], kUntouched);
            if (c.args[2] != 0) memcpy(store.data(), reinterpret_cast<const void*>(c.args[2]), c.args[1]);
            return 0;
        });
        for (bool wide : {false, true})
            fake::setHandler(wide ? "glGetBufferParameteri64v" : "glGetBufferParameteriv",
                             [this, wide](const fake::Call& c) {
                                 std::lock_guard<std::mutex> g(lock);
                                 GLuint b = slot(static_cast<GLenum>(c.args[0]));
                                 if (b == 0 || c.args[1] != GL_BUFFER_SIZE) return 0;
                                 if (wide)
                                     *reinterpret_cast<GLint64*>(c.args[2]) = static_cast<GLint64>(data[b].size());
                                 else
                                     *reinterpret_cast<GLint*>(c.args[2]) = static_cast<GLint>(data[b].size());
                                 return 0;
                             });
        fake::setHandler("glMapBufferRange", [this](const fake::Call& c) -> uint64_t {
            std::lock_guard<std::mutex> g(lock);
            GLuint b = slot(static_cast<GLenum>(c.args[0]));
            const auto offset = static_cast<int64_t>(c.args[1]), length = static_cast<int64_t>(c.args[2]);
            if (b == 0 || offset < 0 || length < 1 || static_cast<int64_t>(data[b].size()) - offset < length) return 0;
            return reinterpret_cast<uintptr_t>(data[b].data() + c.args[1]);
        });
        fake::setHandler("glUnmapBuffer", [](const fake::Call&) -> uint64_t { return GL_TRUE; });
        fake::setHandler("glDrawArrays", [this](const fake::Call& c) {
            std::lock_guard<std::mutex> g(lock);
            drawn.push_back(data[static_cast<GLuint>(c.args[1])]);
            return 0;
        });
    }
    ~FakeBuffers() { fake::clearHandlers(); }

    std::vector<uint8_t> contents(GLuint b) {
        std::lock_guard<std::mutex> g(lock);
        return data[b];
    }

    static std::map<GLenum, GLuint>& bound() {
        static thread_local std::map<GLenum, GLuint> perThread;
        return perThread;
    }
    static GLuint& vao() {
        static thread_local GLuint perThread = 0;
        return perThread;
    }
    GLuint& slot(GLenum target) { return target == GL_ELEMENT_ARRAY_BUFFER ? elements[vao()] : bound()[target]; }

    std::mutex lock;
    std::map<GLuint, std::vector<uint8_t>> data;
    std::map<GLuint, GLuint> elements;  // by vertex array
    std::vector<std::vector<uint8_t>> drawn;
    GLuint nextVao = 300;
};

class BindingsTest : public ::testing::Test {
protected:
    void SetUp() override {
        support::clearLog();
        fake::reset();
        FakeBuffers::bound().clear();
        FakeBuffers::vao() = 0;
        self = pthread_self();
    }

    Bindings& bindings() { return ctx.get()->mBindings; }

    static std::vector<fake::Call> callsOn(pthread_t t) {
        std::vector<fake::Call> out;
        for (const fake::Call& c : fake::calls())
            if (pthread_equal(c.thread, t)) out.push_back(c);
        return out;
    }

    // A buffer of size bytes, all kUntouched, bound to target on both sides.
    void makeBuffer(GLenum target, GLuint name, size_t size) {
        kam_glBindBuffer_opt(target, name);
        std::vector<uint8_t> init(size, kUntouched);
        kam_glBufferData_opt(target, static_cast<GLsizeiptr>(size), init.data(), GL_DYNAMIC_DRAW);
        ctx.drain();
    }

    static std::vector<uint8_t> pattern(size_t n, uint8_t seed) {
        std::vector<uint8_t> p(n);
        for (size_t i = 0; i < n; ++i) p[i] = static_cast<uint8_t>(seed + i * 7);
        return p;
    }

    support::ActiveContext ctx;
    FakeBuffers driver;
    pthread_t self{};
};

struct Range {
    GLintptr offset;
    GLsizeiptr length;
};

struct MappingCase {
    const char* name;
    GLbitfield access;
    std::vector<Range> flushes;  // relative to the mapped range
    std::vector<Range> lands;    // relative to the mapped range
    int refsAfter;               // references the worker could not release
};

// Maps [16, 48) of a 64-byte buffer, writes a pattern through the returned
// pointer, flushes, unmaps, and compares the driver's bytes.
TEST_F(BindingsTest, WrittenMappingsReachTheDriverByteForByte) {
    const GLbitfield W = GL_MAP_WRITE_BIT, X = GL_MAP_FLUSH_EXPLICIT_BIT;
    const MappingCase cases[] = {
        {"write, implicit flush", W, {}, {{0, 32}}, 0},
        {"write, invalidate", W | GL_MAP_INVALIDATE_RANGE_BIT, {}, {{0, 32}}, 0},
        {"explicit, one flush", W | X, {{0, 16}}, {{0, 16}}, 0},
        {"explicit, two flushes", W | X, {{0, 4}, {8, 4}}, {{0, 4}, {8, 4}}, 0},
        {"explicit, flush of the whole range", W | X, {{0, 32}}, {{0, 32}}, 0},
        {"explicit, never flushed", W | X, {}, {{0, 32}}, 0},
        {"explicit, flush past the end", W | X, {{20, 20}}, {{0, 32}}, 1},
        {"explicit, good and past the end", W | X, {{0, 4}, {30, 4}}, {{0, 4}}, 1},
        {"flush without the explicit bit", W, {{0, 4}}, {{0, 32}}, 1},
    };
    GLuint name = 100;
    for (const MappingCase& tc : cases) {
        SCOPED_TRACE(tc.name);
        ++name;
        makeBuffer(GL_ARRAY_BUFFER, name, 64);
        fake::reset();
        auto* p = static_cast<uint8_t*>(kam_glMapBufferRange_opt(GL_ARRAY_BUFFER, 16, 32, tc.access));
        ASSERT_NE(p, nullptr);
        EXPECT_FALSE(p >= driver.data[name].data() && p < driver.data[name].data() + 64)
            << "a write mapping hands out shadow memory";
        EXPECT_TRUE(callsOn(self).empty());
        const std::vector<uint8_t> written = pattern(32, static_cast<uint8_t>(name));
        memcpy(p, written.data(), 32);
        for (const Range& f : tc.flushes) kam_glFlushMappedBufferRange_opt(GL_ARRAY_BUFFER, f.offset, f.length);
        EXPECT_EQ(kam_glUnmapBuffer_opt(GL_ARRAY_BUFFER), GL_TRUE);
        EXPECT_TRUE(callsOn(self).empty());
        ctx.drain();

        std::vector<uint8_t> expected(64, kUntouched);
        for (const Range& r : tc.lands)
            memcpy(expected.data() + 16 + r.offset, written.data() + r.offset, static_cast<size_t>(r.length));
        EXPECT_EQ(driver.contents(name), expected);
        BufferInfo* info = bindings().getBufferInfo(GL_ARRAY_BUFFER);
        ASSERT_NE(info, nullptr);
        EXPECT_EQ(info->refs.load(), tc.refsAfter);
        EXPECT_EQ(info->mappedPointer, nullptr);
        EXPECT_FALSE(info->shadowMapped);
    }
}

struct MapStep {
    GLenum target;
    GLuint buffer;
    int bindBy;  // 0 glBindBuffer, 1 glBindBufferBase, 2 glBindBufferRange
    GLintptr offset;
    GLsizeiptr length;
    GLbitfield access;
    uint8_t fill;
    std::vector<Range> flushes;  // relative to the mapped range
};

// Several mappings in one frame, each drawn from before the next: every draw
// sees what the driver holds at that point, through whichever binding point
// the buffer was bound, and no mapping waits for the worker.
TEST_F(BindingsTest, EveryDrawSeesItsOwnMapping) {
    const GLbitfield W = GL_MAP_WRITE_BIT, X = GL_MAP_FLUSH_EXPLICIT_BIT,
                     U = GL_MAP_UNSYNCHRONIZED_BIT | GL_MAP_INVALIDATE_RANGE_BIT;
    const GLenum A = GL_ARRAY_BUFFER, UB = GL_UNIFORM_BUFFER;
    const struct {
        const char* name;
        std::vector<MapStep> steps;
    } cases[] = {
        {"the block reused for another range", {{A, 49, 0, 0, 64, W, 0x11, {}}, {A, 49, 0, 40, 8, W, 0x22, {}}}},
        {"one buffer twice, the second invalidating",
         {{A, 50, 0, 0, 64, W, 0xAA, {}}, {A, 50, 0, 0, 64, W | GL_MAP_INVALIDATE_BUFFER_BIT, 0xBB, {}}}},
        {"two uniform buffers bound by index", {{UB, 51, 1, 0, 64, W, 0xAA, {}}, {UB, 52, 1, 0, 64, W, 0xBB, {}}}},
        {"unsynchronized ring",
         {{A, 53, 0, 0, 16, W | U, 0x11, {}},
          {A, 53, 0, 16, 16, W | U, 0x22, {}},
          {A, 53, 0, 32, 16, W | U, 0x33, {}},
          {A, 53, 0, 48, 16, W | U, 0x44, {}}}},
        {"explicit flushes, mapped twice", {{A, 54, 0, 0, 64, W | X, 0x55, {{0, 8}}}, {A, 54, 0, 0, 64, W | X, 0x66, {{8, 8}}}}},
        {"indexed targets",
         {{GL_TRANSFORM_FEEDBACK_BUFFER, 55, 2, 0, 64, W, 0x71, {}},
          {GL_SHADER_STORAGE_BUFFER, 56, 2, 0, 64, W, 0x72, {}},
          {GL_ATOMIC_COUNTER_BUFFER, 57, 1, 0, 64, W, 0x73, {}},
          {UB, 58, 2, 16, 32, W, 0x74, {}}}},
    };
    for (const auto& tc : cases) {
        SCOPED_TRACE(tc.name);
        std::map<GLuint, std::vector<uint8_t>> model;
        for (const MapStep& s : tc.steps) {
            makeBuffer(s.target, s.buffer, 64);
            model[s.buffer].assign(64, kUntouched);
        }
        // Only the binding calls below say what is bound.
        for (const MapStep& s : tc.steps) kam_glBindBuffer_opt(s.target, 0);
        support::clearLog();
        driver.drawn.clear();
        std::vector<std::vector<uint8_t>> expected;
        for (const MapStep& s : tc.steps) {
            if (s.bindBy == 0) kam_glBindBuffer_opt(s.target, s.buffer);
            if (s.bindBy == 1) kam_glBindBufferBase_opt(s.target, 0, s.buffer);
            if (s.bindBy == 2) kam_glBindBufferRange_opt(s.target, 0, s.buffer, 0, 64);
            auto* p = static_cast<uint8_t*>(kam_glMapBufferRange_opt(s.target, s.offset, s.length, s.access));
            ASSERT_NE(p, nullptr);
            memset(p, s.fill, static_cast<size_t>(s.length));
            for (const Range& f : s.flushes) kam_glFlushMappedBufferRange_opt(s.target, f.offset, f.length);
            kam_glUnmapBuffer_opt(s.target);
            kam_glDrawArrays_opt(GL_POINTS, static_cast<GLint>(s.buffer), 1);
            std::vector<uint8_t>& m = model[s.buffer];
            if (s.flushes.empty()) memset(m.data() + s.offset, s.fill, static_cast<size_t>(s.length));
            for (const Range& f : s.flushes) memset(m.data() + s.offset + f.offset, s.fill, static_cast<size_t>(f.length));
            expected.push_back(m);
        }
        ctx.drain();
        EXPECT_EQ(driver.drawn, expected);
        EXPECT_EQ(support::countLog("glMapBufferRange :"), 0);
    }
}

// Only ranges inside the buffer get shadow memory; the driver's size is
// asked when not known, and the driver answers the rest on the calling
// thread, where the application reads its errors.
TEST_F(BindingsTest, RangesPastTheEndGetTheDriversAnswer) {
    makeBuffer(GL_ARRAY_BUFFER, 60, 64);
    const uint64_t before = bindings().allocatedBytes;
    const struct {
        GLintptr offset;
        GLsizeiptr length;
        bool served;
    } cases[] = {{0, 65, false}, {0x70000000, 16, false}, {-1, 8, false}, {60, 8, false},
                 {0, 64, true},  {16, 48, true},          {0, 65, false}};
    for (const auto& tc : cases) {
        SCOPED_TRACE(tc.offset);
        SCOPED_TRACE(tc.length);
        fake::reset();
        void* p = kam_glMapBufferRange_opt(GL_ARRAY_BUFFER, tc.offset, tc.length, GL_MAP_WRITE_BIT);
        std::vector<fake::Call> here = callsOn(self);
        EXPECT_EQ(p != nullptr, tc.served);
        if (tc.served) {
            EXPECT_TRUE(here.empty());
            kam_glUnmapBuffer_opt(GL_ARRAY_BUFFER);
        } else {
            ASSERT_EQ(here.size(), 3u);
            EXPECT_EQ(here[0].args, (std::vector<uint64_t>{GL_ARRAY_BUFFER, 60}));
            EXPECT_EQ(here[1].name, "glMapBufferRange");
            EXPECT_EQ(here[2].args, (std::vector<uint64_t>{GL_ARRAY_BUFFER, 0}));
        }
        EXPECT_LE(bindings().allocatedBytes - before, 64u);
        ctx.drain();
    }
    // A size set through the layer is known without asking.
    std::vector<uint8_t> bigger(128, kUntouched);
    kam_glBufferData_opt(GL_ARRAY_BUFFER, 128, bigger.data(), GL_DYNAMIC_DRAW);
    fake::reset();
    EXPECT_NE(kam_glMapBufferRange_opt(GL_ARRAY_BUFFER, 64, 64, GL_MAP_WRITE_BIT), nullptr);
    kam_glUnmapBuffer_opt(GL_ARRAY_BUFFER);
    ctx.drain();
    for (const fake::Call& c : fake::calls()) EXPECT_EQ(c.name.find("glGetBufferParameter"), std::string::npos);
}

enum VaoOp { kBindVao, kBindVaoOes, kBindElements, kDeleteVao, kDeleteVaoOes };

struct ElementCase {
    const char* name;
    // Vertex-array ops take an index into the case's vertex arrays (-1: the
    // default one); kBindElements takes a buffer name.
    std::vector<std::pair<VaoOp, int>> ops;
    bool indicesAreOffset;
    int driverAsks;
};

// The element-array binding is part of each vertex array: a draw's index
// pointer is an offset exactly when the drawn vertex array has an element
// buffer, and the driver is asked once about a vertex array made before the
// context was attached.
TEST_F(BindingsTest, ElementBufferFollowsTheVertexArray) {
    const ElementCase cases[] = {
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
    };
    driver.elements[77] = 5;
    const GLushort indices[3] = {0, 1, 2};
    for (const ElementCase& tc : cases) {
        SCOPED_TRACE(tc.name);
        GLuint vaos[3] = {0, 0, 77};
        kam_glGenVertexArrays_opt(2, vaos);
        kam_glBindVertexArray(0);
        kam_glBindBuffer_opt(GL_ELEMENT_ARRAY_BUFFER, 0);
        ctx.drain();
        fake::reset();
        for (const auto& op : tc.ops) {
            const GLuint vao = op.first == kBindElements || op.second < 0 ? 0 : vaos[op.second];
            switch (op.first) {
                case kBindVao: kam_glBindVertexArray(vao); break;
                case kBindVaoOes: kam_glBindVertexArrayOES_opt(vao); break;
                case kBindElements: kam_glBindBuffer_opt(GL_ELEMENT_ARRAY_BUFFER, static_cast<GLuint>(op.second)); break;
                case kDeleteVao: kam_glDeleteVertexArrays_opt(1, &vao); break;
                case kDeleteVaoOes: kam_glDeleteVertexArraysOES(1, &vao); break;
            }
        }
        for (int draw = 0; draw < 2; ++draw) kam_glDrawElements_opt(GL_TRIANGLES, 3, GL_UNSIGNED_SHORT, indices);
        ctx.drain();
        int draws = 0, asks = 0;
        for (const fake::Call& c : fake::calls()) {
            if (c.name == "glGetIntegerv") ++asks;
            if (c.name != "glDrawElements") continue;
            ++draws;
            EXPECT_EQ(c.args[3] == reinterpret_cast<uintptr_t>(indices), tc.indicesAreOffset);
        }
        EXPECT_EQ(draws, 2);
        EXPECT_EQ(asks, tc.driverAsks);
    }
}

struct FallbackCase {
    const char* name;
    GLenum target;
    GLuint bound;      // 0: nothing bound
    bool mapTwice;     // the second map is the one checked
    GLbitfield access;
    const char* message;
};

// Mappings the shadow cannot serve run on the worker while the caller waits,
// and hand out the driver's own pointer; their unmap goes the same way.
TEST_F(BindingsTest, UnservedMappingsWaitForTheDriver) {
    const FallbackCase cases[] = {
        {"nothing bound", GL_ARRAY_BUFFER, 0, false, GL_MAP_WRITE_BIT, "Target is binded a unkwon buffer"},
        {"already mapped", GL_ARRAY_BUFFER, 21, true, GL_MAP_WRITE_BIT, "Buffer is already mapped"},
        {"read on an array buffer", GL_ARRAY_BUFFER, 22, false, GL_MAP_READ_BIT, nullptr},
        {"read and write", GL_UNIFORM_BUFFER, 23, false, GL_MAP_READ_BIT | GL_MAP_WRITE_BIT, nullptr},
        {"pixel read with more bits", GL_PIXEL_PACK_BUFFER, 24, false, GL_MAP_READ_BIT | GL_MAP_WRITE_BIT,
         nullptr},
    };
    const pthread_t worker = ctx.worker()->postSync([] { return pthread_self(); }, "whoami");
    for (const FallbackCase& tc : cases) {
        SCOPED_TRACE(tc.name);
        support::clearLog();
        if (tc.bound != 0) {
            makeBuffer(tc.target, tc.bound, 64);
        } else {
            kam_glBindBuffer_opt(tc.target, 0);
            ctx.drain();
        }
        if (tc.mapTwice) kam_glMapBufferRange_opt(tc.target, 0, 8, GL_MAP_WRITE_BIT);
        ctx.drain();
        fake::reset();
        void* p = kam_glMapBufferRange_opt(tc.target, 4, 8, tc.access);
        std::vector<fake::Call> atReturn = fake::calls();
        ASSERT_EQ(atReturn.size(), 1u);
        EXPECT_EQ(atReturn[0].name, "glMapBufferRange");
        EXPECT_TRUE(pthread_equal(atReturn[0].thread, worker));
        if (tc.bound != 0) {
            EXPECT_EQ(p, static_cast<void*>(driver.data[tc.bound].data() + 4));
        } else {
            EXPECT_EQ(p, nullptr);
        }
        if (tc.message) {
            EXPECT_EQ(support::countLog(tc.message), 1);
        } else {
            EXPECT_EQ(support::countLog("glMapBufferRange :"), 0);
        }
        if (!tc.mapTwice) {
            fake::reset();
            EXPECT_EQ(kam_glUnmapBuffer_opt(tc.target), GL_TRUE);
            ASSERT_EQ(fake::calls().size(), 1u) << "the unmap of a driver mapping waits too";
            EXPECT_TRUE(pthread_equal(fake::calls()[0].thread, worker));
        } else {
            kam_glUnmapBuffer_opt(tc.target);
        }
        ctx.drain();
    }
}

// Pixel-buffer reads map on the calling thread when the buffer holds the
// range, and stay bound there until the unmap.
TEST_F(BindingsTest, PixelBufferReadsMapOnTheCallingThread) {
    for (GLenum target : {GL_PIXEL_PACK_BUFFER, GL_PIXEL_UNPACK_BUFFER}) {
        SCOPED_TRACE(target);
        const GLuint name = target == GL_PIXEL_PACK_BUFFER ? 31 : 32;
        makeBuffer(target, name, 64);
        fake::reset();
        void* p = kam_glMapBufferRange_opt(target, 8, 56, GL_MAP_READ_BIT);
        std::vector<fake::Call> calls = fake::calls();
        ASSERT_EQ(calls.size(), 3u);
        EXPECT_EQ(calls[0].name, "glBindBuffer");
        EXPECT_EQ(calls[1].name, "glGetBufferParameteriv");
        EXPECT_EQ(calls[2].name, "glMapBufferRange");
        for (const fake::Call& c : calls) EXPECT_TRUE(pthread_equal(c.thread, self));
        EXPECT_EQ(p, static_cast<void*>(driver.data[name].data() + 8));
        EXPECT_TRUE(bindings().getBufferInfo(target)->directMapped);
        EXPECT_EQ(bindings().getBufferInfo(target)->refs.load(), 0);

        fake::reset();
        EXPECT_EQ(kam_glUnmapBuffer_opt(target), GL_TRUE);
        calls = fake::calls();
        ASSERT_EQ(calls.size(), 2u);
        EXPECT_EQ(calls[0].name, "glUnmapBuffer");
        EXPECT_EQ(calls[1].name, "glBindBuffer");
        EXPECT_EQ(calls[1].args, (std::vector<uint64_t>{target, 0}));
        EXPECT_TRUE(pthread_equal(calls[1].thread, self));
        EXPECT_FALSE(bindings().getBufferInfo(target)->directMapped);

        // Past the end of the buffer: the calling thread lets the buffer go
        // and the worker maps.
        fake::reset();
        kam_glMapBufferRange_opt(target, 8, 57, GL_MAP_READ_BIT);
        calls = fake::calls();
        ASSERT_EQ(calls.size(), 4u);
        EXPECT_EQ(calls[2].args, (std::vector<uint64_t>{target, 0}));
        EXPECT_FALSE(pthread_equal(calls[3].thread, self));
        EXPECT_FALSE(bindings().getBufferInfo(target)->directMapped);
        kam_glUnmapBuffer_opt(target);
        ctx.drain();
    }
}

// Uploads are copied before the wrapper returns; the driver's size then
// drives the growth of the shadow block.
TEST_F(BindingsTest, ShadowGrowsToTheSizeTheDriverKeeps) {
    std::vector<uint8_t> upload = pattern(1000, 5);
    const std::vector<uint8_t> original = upload;
    kam_glBindBuffer_opt(GL_ARRAY_BUFFER, 8);
    kam_glBufferData_opt(GL_ARRAY_BUFFER, 1000, upload.data(), GL_STATIC_DRAW);
    std::fill(upload.begin(), upload.end(), 0);
    ctx.drain();
    EXPECT_EQ(driver.contents(8), original);

    const uint64_t before = bindings().allocatedBytes;
    void* p = kam_glMapBufferRange_opt(GL_ARRAY_BUFFER, 0, 10, GL_MAP_WRITE_BIT);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(bindings().getBufferInfo(GL_ARRAY_BUFFER)->capacity, 64u);
    EXPECT_EQ(bindings().allocatedBytes - before, 64u);
    memset(p, 0x33, 10);
    kam_glUnmapBuffer_opt(GL_ARRAY_BUFFER);

    ctx.drain();
    fake::reset();
    auto* q = static_cast<uint8_t*>(kam_glMapBufferRange_opt(GL_ARRAY_BUFFER, 100, 100, GL_MAP_WRITE_BIT));
    EXPECT_TRUE(fake::calls().empty()) << "the size was learnt at the first map";
    EXPECT_EQ(bindings().getBufferInfo(GL_ARRAY_BUFFER)->capacity, 1000u);
    EXPECT_EQ(bindings().allocatedBytes - before, 1000u);
    memset(q, 0x5A, 100);
    kam_glUnmapBuffer_opt(GL_ARRAY_BUFFER);
    ctx.drain();
    std::vector<uint8_t> expected = original;
    memset(expected.data(), 0x33, 10);
    memset(expected.data() + 100, 0x5A, 100);
    EXPECT_EQ(driver.contents(8), expected);
}

// A buffer whose commands still hold a reference outlives its deletion until
// the frame boundary; one with none goes at once. Either way every binding
// of the name is dropped.
TEST_F(BindingsTest, DeletionWaitsForReferencesUntilTheFrameBoundary) {
    for (bool referenced : {true, false}) {
        SCOPED_TRACE(referenced ? "referenced" : "idle");
        support::clearLog();
        makeBuffer(GL_ARRAY_BUFFER, 9, 64);
        kam_glBindBuffer_opt(GL_COPY_WRITE_BUFFER, 9);
        kam_glMapBufferRange_opt(GL_ARRAY_BUFFER, 0, 32, GL_MAP_WRITE_BIT | GL_MAP_FLUSH_EXPLICIT_BIT);
        // A flush past the mapped range never gives its reference back.
        if (referenced) kam_glFlushMappedBufferRange_opt(GL_ARRAY_BUFFER, 16, 32);
        kam_glUnmapBuffer_opt(GL_ARRAY_BUFFER);
        ctx.drain();
        const uint64_t before = bindings().allocatedBytes;
        const GLuint names[] = {9};
        kam_glDeleteBuffers_opt(1, names);
        EXPECT_EQ(bindings().getBindingBuffer(GL_ARRAY_BUFFER), 0u);
        EXPECT_EQ(bindings().getBindingBuffer(GL_COPY_WRITE_BUFFER), 0u);
        EXPECT_EQ(bindings().buffers.count(9), 0u);
        EXPECT_EQ(before - bindings().allocatedBytes, 64u);
        EXPECT_EQ(bindings().pendingFree.size(), referenced ? 1u : 0u);
        ctx.frameBoundary();
        EXPECT_TRUE(bindings().pendingFree.empty());
        EXPECT_EQ(support::countLog("Delete a mapped buffer=9 bufSize=64 refs=1"), referenced ? 1 : 0);
    }
}

TEST_F(BindingsTest, DeletingNothingChangesNothing) {
    makeBuffer(GL_ARRAY_BUFFER, 12, 64);
    kam_glMapBufferRange_opt(GL_ARRAY_BUFFER, 0, 8, GL_MAP_WRITE_BIT);
    kam_glUnmapBuffer_opt(GL_ARRAY_BUFFER);
    ctx.drain();
    const GLuint names[] = {12};
    bindings().deleteBuffers(0, names);
    EXPECT_EQ(bindings().getBindingBuffer(GL_ARRAY_BUFFER), 12u);
    EXPECT_EQ(bindings().buffers.count(12), 1u);
}

// Trimming on a Bindings of its own; the worker's halves run inline.
class TrimTest : public ::testing::Test {
protected:
    void SetUp() override {
        support::initLayer();
        support::clearLog();
        b.keepBytes = [this](size_t n, const void* src) -> void* {
            auto* from = static_cast<const uint8_t*>(src);
            return kept.emplace_back(from, from + n).data();
        };
    }
    // A mapped-and-unmapped buffer whose shadow block holds bytes bytes.
    void addBlock(GLuint name, uint32_t bytes, uint32_t frame, bool keepMapped = false) {
        b.bindBuffer(GL_ARRAY_BUFFER, name);
        MappedInfo* mi = b.mapBufferRangePre(GL_ARRAY_BUFFER, 0, bytes, GL_MAP_WRITE_BIT, frame);
        ASSERT_NE(mi, nullptr);
        MappedInfo copy = *mi;
        b.mapBufferRangePost(GL_ARRAY_BUFFER, &copy, nullptr);
        if (keepMapped) return;
        mi = b.unmapBufferPre(GL_ARRAY_BUFFER);
        copy = *mi;
        b.unmapBufferPost(GL_ARRAY_BUFFER, &copy);
    }
    Bindings b;
    std::deque<std::vector<uint8_t>> kept;  // what flushes and unmaps hand the worker
};

struct TrimCase {
    const char* name;
    uint32_t bigBlock;  // plus one 64-byte block
    uint32_t now;       // trim frame; blocks were used at frame 1000
    size_t recordsLeft;
};

TEST_F(TrimTest, OnlyIdleBlocksAboveTheThresholdGo) {
    const TrimCase cases[] = {
        {"at the threshold", 16000000 - 64, 2000, 2},
        {"one byte over, idle long enough", 16000000 - 63, 1100, 0},
        {"one byte over, one frame short", 16000000 - 63, 1099, 2},
    };
    for (const TrimCase& tc : cases) {
        SCOPED_TRACE(tc.name);
        support::clearLog();
        addBlock(1, tc.bigBlock, 1000);
        addBlock(2, 10, 1000);
        const uint64_t total = b.allocatedBytes;
        b.trimMemory(tc.now);
        EXPECT_EQ(support::countLog("Buffer Allocated: " + std::to_string(total) + " BufferInfoSize:2"), 1);
        EXPECT_EQ(b.buffers.size(), tc.recordsLeft);
        EXPECT_EQ(b.allocatedBytes, tc.recordsLeft ? total : 0u);
        const GLuint names[] = {1, 2};
        b.deleteBuffers(2, names);
    }
}

// Mapped or referenced blocks stay whatever their age; the walk goes on past
// the point where the total falls under the threshold.
TEST_F(TrimTest, BusyBlocksStay) {
    addBlock(1, 16000000, 0);
    addBlock(2, 64, 0, /*keepMapped=*/true);
    addBlock(3, 64, 0);
    b.bindBuffer(GL_ARRAY_BUFFER, 3);
    b.mapBufferRangePre(GL_ARRAY_BUFFER, 0, 8, GL_MAP_WRITE_BIT, 0);  // never replayed: refs 1
    b.unmapBufferPre(GL_ARRAY_BUFFER);
    addBlock(4, 64, 0);
    b.trimMemory(500);
    EXPECT_EQ(b.buffers.count(1), 0u);
    EXPECT_EQ(b.buffers.count(2), 1u);
    EXPECT_EQ(b.buffers.count(3), 1u);
    EXPECT_EQ(b.buffers.count(4), 0u);
    EXPECT_EQ(b.allocatedBytes, 128u);
}

// Random maps, writes, flushes, unmaps, deletes and frame boundaries over a
// few buffers, with the worker's halves run at random points later, checked
// against a model of what the driver's memory must hold: each flush and
// unmap lands the bytes the app had written when it made the call.
TEST_F(TrimTest, RandomSequencesMatchAModel) {
    static constexpr GLuint kBuffers = 3;
    static constexpr uint32_t kSize = 512;
    struct Model {
        std::vector<uint8_t> real = std::vector<uint8_t>(kSize, 0);
        std::vector<uint8_t> app = std::vector<uint8_t>(kSize, 0);  // by buffer offset
        bool mapped = false, flushed = false;
        uint8_t* pointer = nullptr;
        uint32_t offset = 0, length = 0;
        GLbitfield access = 0;
    };
    Model model[kBuffers + 1];
    std::vector<uint8_t> driver[kBuffers + 1];
    for (auto& d : driver) d.assign(kSize, 0);

    // Commands waiting for the worker, in order, with the bytes they land at
    // buffer offset `at` (none: nothing lands).
    struct Pending {
        int kind;  // 0 map, 1 flush, 2 unmap
        GLuint buffer;
        MappedInfo mi;
        uint32_t offset, length;
        uint32_t at;
        std::vector<uint8_t> bytes;
    };
    std::deque<Pending> queue;
    auto replayOne = [&] {
        Pending p = queue.front();
        queue.pop_front();
        if (p.kind == 0) b.mapBufferRangePost(GL_ARRAY_BUFFER, &p.mi, driver[p.buffer].data() + p.mi.offset);
        if (p.kind == 1) b.flushMappedBufferRangePost(GL_ARRAY_BUFFER, p.offset, p.length, &p.mi);
        if (p.kind == 2) b.unmapBufferPost(GL_ARRAY_BUFFER, &p.mi);
        std::copy(p.bytes.begin(), p.bytes.end(), model[p.buffer].real.begin() + p.at);
    };
    auto appBytes = [&](const Model& m, uint32_t at, uint32_t n) {
        return std::vector<uint8_t>(m.app.begin() + at, m.app.begin() + at + n);
    };

    std::mt19937 rng(20240611);
    auto pick = [&](uint32_t n) { return static_cast<uint32_t>(rng() % n); };
    GLuint current = 1;
    b.bindBuffer(GL_ARRAY_BUFFER, current);
    for (int step = 0; step < 4000; ++step) {
        Model& m = model[current];
        switch (pick(8)) {
            case 0:  // bind another buffer
                current = 1 + pick(kBuffers);
                b.bindBuffer(GL_ARRAY_BUFFER, current);
                break;
            case 1: {  // map and fill the whole range
                const uint32_t offset = pick(kSize), length = 1 + pick(kSize - offset);
                const GLbitfield access = GL_MAP_WRITE_BIT | (pick(2) ? GL_MAP_FLUSH_EXPLICIT_BIT : 0);
                MappedInfo* mi = b.mapBufferRangePre(GL_ARRAY_BUFFER, offset, length, access, step);
                if (m.mapped) {
                    EXPECT_EQ(mi, nullptr);
                    break;
                }
                ASSERT_NE(mi, nullptr);
                m.mapped = true;
                m.flushed = false;
                m.pointer = mi->info->shadow + offset;
                m.offset = offset;
                m.length = length;
                m.access = access;
                for (uint32_t i = 0; i < length; ++i) m.app[offset + i] = m.pointer[i] = static_cast<uint8_t>(rng());
                queue.push_back({0, current, *mi, 0, 0, 0, {}});
                break;
            }
            case 2:  // write part of the mapping
                if (m.mapped) {
                    const uint32_t at = pick(m.length), n = 1 + pick(m.length - at);
                    for (uint32_t i = 0; i < n; ++i) m.app[m.offset + at + i] = m.pointer[at + i] = static_cast<uint8_t>(rng());
                }
                break;
            case 3: {  // flush, sometimes past the end
                const uint32_t at = pick(m.length + 8), n = 1 + pick(16);
                MappedInfo* mi = b.flushMappedBufferRangePre(GL_ARRAY_BUFFER, at, n);
                if (!m.mapped) {
                    EXPECT_EQ(mi, nullptr);
                    break;
                }
                ASSERT_NE(mi, nullptr);
                const bool lands = (m.access & GL_MAP_FLUSH_EXPLICIT_BIT) && at + n <= m.length;
                m.flushed = m.flushed || lands;
                queue.push_back({1, current, *mi, at, n, m.offset + at,
                                 lands ? appBytes(m, m.offset + at, n) : std::vector<uint8_t>()});
                break;
            }
            case 4: {  // unmap
                MappedInfo* mi = b.unmapBufferPre(GL_ARRAY_BUFFER);
                if (!m.mapped) {
                    EXPECT_EQ(mi, nullptr);
                    break;
                }
                ASSERT_NE(mi, nullptr);
                m.mapped = false;
                const bool lands = !((m.access & GL_MAP_FLUSH_EXPLICIT_BIT) && m.flushed);
                queue.push_back({2, current, *mi, 0, 0, m.offset,
                                 lands ? appBytes(m, m.offset, m.length) : std::vector<uint8_t>()});
                break;
            }
            case 5:  // the worker catches up a little
                for (uint32_t n = pick(4); n > 0 && !queue.empty(); --n) replayOne();
                break;
            case 6:  // frame boundary: everything queued has run
                while (!queue.empty()) replayOne();
                b.swapBuffer();
                kept.clear();
                EXPECT_TRUE(b.pendingFree.empty());
                break;
            case 7:  // delete now and then, rebinding the name
                if (pick(4) == 0) {
                    b.deleteBuffers(1, &current);
                    EXPECT_EQ(b.getBindingBuffer(GL_ARRAY_BUFFER), 0u);
                    m.mapped = false;  // the app's mapping is gone with the record
                    b.bindBuffer(GL_ARRAY_BUFFER, current);
                }
                break;
        }
        uint64_t sum = 0;
        for (auto& e : b.buffers) sum += e.second->capacity;
        ASSERT_EQ(b.allocatedBytes, sum) << "step " << step;
        if (queue.empty()) {
            for (GLuint k = 1; k <= kBuffers; ++k)
                ASSERT_EQ(driver[k], model[k].real) << "step " << step << " buffer " << k;
        }
    }
    while (!queue.empty()) replayOne();
    for (GLuint k = 1; k <= kBuffers; ++k) EXPECT_EQ(driver[k], model[k].real);
}

}  // namespace
