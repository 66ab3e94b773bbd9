// Client vertex arrays: an indexed draw replayed after the application has
// reused its memory must still see the vertices and indices it was called
// with, and only the vertices its indices reach are copied.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "kam_wrappers.h"
#include "shadow/ClientArray.h"
#include "support.h"

using namespace android;

namespace {

// A replayed call with the bytes its pointer argument showed at replay time.
struct Replayed {
    std::string name;
    std::vector<uint64_t> args;
    std::vector<uint8_t> bytes;
};

class ClientArrayTest : public ::testing::Test {
protected:
    void SetUp() override {
        ctx.get()->mClientArrays = true;
        fake::reset();
        fake::clearHandlers();
        // The worker reads what the arena holds when it replays; keep what
        // it saw, sized by the test's expectations.
        fake::setHandler("glVertexAttribPointer", [this](const fake::Call& c) {
            capture(c, 5, attribBytes);
            return 0;
        });
        fake::setHandler("glDrawElements", [this](const fake::Call& c) {
            capture(c, 3, indexBytes);
            return 0;
        });
        self = pthread_self();
    }
    void TearDown() override { fake::clearHandlers(); }

    void capture(const fake::Call& c, size_t pointerArg, size_t bytes) {
        Replayed r{c.name, c.args, {}};
        const auto* p = reinterpret_cast<const uint8_t*>(c.args[pointerArg]);
        // The caller's own array may change under a worker that replays
        // while the caller goes on; only copies are read.
        const bool callers = p >= callerArray.first && p < callerArray.second;
        if (bytes && p && c.args[pointerArg] > 0x10000 && !callers) r.bytes.assign(p, p + bytes);
        replayed.push_back(r);
    }

    // Replays everything and returns what reached the driver in order.
    std::vector<Replayed> replay() {
        ctx.drain();
        std::vector<Replayed> out;
        out.swap(replayed);
        std::vector<fake::Call> all = fake::calls();
        fake::reset();
        // Calls without a handler are listed by name only.
        size_t k = 0;
        std::vector<Replayed> merged;
        for (const fake::Call& c : all) {
            if ((c.name == "glVertexAttribPointer" || c.name == "glDrawElements") && k < out.size())
                merged.push_back(out[k++]);
            else
                merged.push_back({c.name, c.args, {}});
        }
        return merged;
    }

    support::ActiveContext ctx;
    std::vector<Replayed> replayed;
    size_t attribBytes = 0;
    size_t indexBytes = 0;
    std::pair<const uint8_t*, const uint8_t*> callerArray{};
    pthread_t self{};
};

// Vertex data of 8 vertices, vertex v at v * stride, every byte distinct.
std::vector<uint8_t> vertexData(size_t stride) {
    std::vector<uint8_t> data(8 * stride + 16);
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i * 3 + 1);
    return data;
}

struct DrawCase {
    const char* name;
    GLint size;
    GLenum attribType;
    GLsizei stride;
    GLenum indexType;
    std::vector<uint32_t> indices;
    size_t vertices;  // 0: no vertex data copied
    bool restart = false;  // GL_PRIMITIVE_RESTART_FIXED_INDEX enabled
};

std::vector<uint8_t> indexBytesOf(const DrawCase& tc) {
    std::vector<uint8_t> out;
    for (uint32_t i : tc.indices) {
        const size_t n = tc.indexType == GL_UNSIGNED_BYTE ? 1 : tc.indexType == GL_UNSIGNED_SHORT ? 2 : 4;
        out.insert(out.end(), reinterpret_cast<uint8_t*>(&i), reinterpret_cast<uint8_t*>(&i) + n);
    }
    return out;
}

TEST_F(ClientArrayTest, IndexedDrawsCopyTheReachableVertices) {
    const DrawCase cases[] = {
        {"strided floats", 3, GL_FLOAT, 20, GL_UNSIGNED_SHORT, {0, 2, 1}, 3},
        {"packed floats, stride 0", 3, GL_FLOAT, 0, GL_UNSIGNED_SHORT, {0, 2, 1}, 3},
        {"stride equal to the element", 3, GL_FLOAT, 12, GL_UNSIGNED_SHORT, {0, 2, 1}, 3},
        {"bytes, strided", 2, GL_UNSIGNED_BYTE, 7, GL_UNSIGNED_BYTE, {4, 1}, 5},
        {"packed 10-bit type holds a vertex in one word", 4, GL_UNSIGNED_INT_2_10_10_10_REV, 0, GL_UNSIGNED_INT,
         {1, 0}, 2},
        {"top-bit int indices are not the maximum", 2, GL_SHORT, 0, GL_UNSIGNED_INT, {1, 0xFFFFFFFFu, 3, 0x80000000u},
         4},
        {"all indices zero: vertex 0 too is copied", 3, GL_FLOAT, 20, GL_UNSIGNED_SHORT, {0, 0, 0}, 1},
        {"the largest index last of five", 1, GL_FLOAT, 8, GL_UNSIGNED_INT, {0, 1, 2, 3, 6}, 7},
        {"GL_FIXED, 4 bytes a component", 2, GL_FIXED, 12, GL_UNSIGNED_SHORT, {0, 2, 1}, 3},
        {"restart index names no vertex", 3, GL_FLOAT, 0, GL_UNSIGNED_SHORT, {0, 2, 0xFFFF, 1, 3}, 4, true},
        {"restart index, bytes", 2, GL_SHORT, 6, GL_UNSIGNED_BYTE, {1, 0xFF, 2}, 3, true},
    };
    for (const DrawCase& tc : cases) {
        SCOPED_TRACE(tc.name);
        std::vector<uint8_t> data = vertexData(tc.stride ? static_cast<size_t>(tc.stride) : 16);
        const size_t elem = tc.attribType == GL_UNSIGNED_INT_2_10_10_10_REV
                                ? 4
                                : static_cast<size_t>(kamTypeSize(tc.attribType)) * static_cast<size_t>(tc.size);
        const size_t step = tc.stride ? static_cast<size_t>(tc.stride) : elem;
        std::vector<uint8_t> packed;
        for (size_t v = 0; v < tc.vertices; ++v)
            packed.insert(packed.end(), data.begin() + v * step, data.begin() + v * step + elem);
        std::vector<uint8_t> idx = indexBytesOf(tc);
        attribBytes = packed.size();
        indexBytes = idx.size();

        kam_glVertexAttribPointer_opt(2, tc.size, tc.attribType, GL_TRUE, tc.stride, data.data());
        (tc.restart ? kam_glEnable_opt : kam_glDisable_opt)(GL_PRIMITIVE_RESTART_FIXED_INDEX);
        replay();
        kam_glDrawElements_opt(GL_TRIANGLES, static_cast<GLsizei>(tc.indices.size()), tc.indexType, idx.data());
        // The application reuses its memory as soon as the call returns.
        std::fill(data.begin(), data.end(), 0);
        std::fill(idx.begin(), idx.end(), 0);
        std::vector<Replayed> r = replay();

        ASSERT_EQ(r.size(), tc.vertices ? 2u : 1u);
        if (tc.vertices) {
            EXPECT_EQ(r[0].name, "glVertexAttribPointer");
            EXPECT_EQ(r[0].args[0], 2u);
            EXPECT_EQ(r[0].args[1], static_cast<uint64_t>(tc.size));
            EXPECT_EQ(r[0].args[2], tc.attribType);
            EXPECT_EQ(r[0].args[3], static_cast<uint64_t>(GL_TRUE));
            EXPECT_EQ(r[0].args[4], 0u) << "copies are packed";
            EXPECT_NE(r[0].args[5], reinterpret_cast<uintptr_t>(data.data()));
            EXPECT_EQ(r[0].bytes, packed);
        }
        const Replayed& draw = r.back();
        EXPECT_EQ(draw.name, "glDrawElements");
        EXPECT_NE(draw.args[3], reinterpret_cast<uintptr_t>(idx.data()));
        EXPECT_EQ(draw.bytes, indexBytesOf(tc)) << "indices copied before the caller reused them";
        ctx.frameBoundary();
    }
}

// glDrawRangeElements takes the same path as glDrawElements.
TEST_F(ClientArrayTest, RangeDrawsCopyVerticesToo) {
    std::vector<uint8_t> data = vertexData(16);
    const GLushort idx[] = {0, 3};
    kam_glVertexAttribPointer_opt(0, 4, GL_FLOAT, GL_FALSE, 16, data.data());
    replay();
    kam_glDrawRangeElements_opt(GL_TRIANGLES, 0, 3, 2, GL_UNSIGNED_SHORT, idx);
    std::vector<Replayed> r = replay();
    ASSERT_EQ(r.size(), 2u);
    EXPECT_EQ(r[0].name, "glVertexAttribPointer");
    EXPECT_NE(r[0].args[5], reinterpret_cast<uintptr_t>(data.data()));
    EXPECT_EQ(r[1].name, "glDrawRangeElements");
    EXPECT_NE(r[1].args[5], reinterpret_cast<uintptr_t>(idx));
}

struct SkipCase {
    const char* name;
    bool clientArrays;
    bool elementBuffer;
    bool disable;         // glDisableVertexAttribArray before the draw
    bool offsetPointer;   // a buffer offset replaces the client pointer
    bool waits;           // drawn from the caller's memory while the caller waits
};

// Draws that copy no vertex data: those that read none from client memory
// are recorded with their indices copied; those that do, without emulation
// or with indices in a buffer, are drawn while the caller waits.
TEST_F(ClientArrayTest, DrawsThatCopyNoVertexData) {
    const SkipCase cases[] = {
        {"emulation off", false, false, false, false, true},
        {"element buffer bound", true, true, false, false, true},
        {"attribute disabled", true, false, true, false, false},
        {"buffer offset set", true, false, false, true, false},
    };
    for (const SkipCase& tc : cases) {
        SCOPED_TRACE(tc.name);
        ctx.get()->mClientArrays = tc.clientArrays;
        std::vector<uint8_t> data = vertexData(12);
        const GLushort idx[] = {0, 2, 1};
        indexBytes = sizeof(idx);
        kam_glBindBuffer_opt(GL_ELEMENT_ARRAY_BUFFER, tc.elementBuffer ? 40 : 0);
        kam_glVertexAttribPointer_opt(3, 3, GL_FLOAT, GL_FALSE, 0, data.data());
        if (tc.disable) kam_glDisableVertexAttribArray_opt(3);
        if (tc.offsetPointer) kam_glVertexAttribPointer_opt(3, 3, GL_FLOAT, GL_FALSE, 0, reinterpret_cast<void*>(64));
        replay();
        ClientArray* record = ctx.get()->mAttribArrays[3];
        ASSERT_NE(record, nullptr);
        EXPECT_EQ(record->pointer, tc.offsetPointer ? nullptr : data.data());
        EXPECT_EQ(record->enabled, !tc.disable);
        kam_glDrawElements_opt(GL_TRIANGLES, 3, GL_UNSIGNED_SHORT, idx);
        const size_t atReturn = fake::calls().size();
        std::vector<Replayed> r = replay();
        ASSERT_EQ(r.size(), 1u);
        EXPECT_EQ(r[0].name, "glDrawElements");
        EXPECT_EQ(atReturn, tc.waits ? 1u : 0u);
        if (tc.waits) {
            EXPECT_EQ(r[0].args[3], reinterpret_cast<uintptr_t>(idx));
        } else {
            EXPECT_NE(r[0].args[3], reinterpret_cast<uintptr_t>(idx));
            EXPECT_EQ(r[0].bytes, std::vector<uint8_t>(reinterpret_cast<const uint8_t*>(idx),
                                                       reinterpret_cast<const uint8_t*>(idx) + sizeof(idx)));
        }
        kam_glBindBuffer_opt(GL_ELEMENT_ARRAY_BUFFER, 0);
        kam_glEnableVertexAttribArray_opt(3);
        ctx.frameBoundary();
    }
}

// The attribute calls themselves always replay with the caller's values;
// the integer form is tracked and replayed as the float one.
TEST_F(ClientArrayTest, AttribPointerCallsReplayAsCalled) {
    std::vector<uint8_t> data = vertexData(8);
    kam_glVertexAttribIPointer_opt(5, 2, GL_INT, 8, data.data());
    kam_glVertexAttribPointer_opt(6, 1, GL_FLOAT, GL_FALSE, 0, reinterpret_cast<void*>(0x10000));
    kam_glVertexAttribPointer_opt(16, 1, GL_FLOAT, GL_FALSE, 0, data.data());
    kam_glDisableVertexAttribArray_opt(9);  // no record: nothing to clear
    std::vector<Replayed> r = replay();
    ASSERT_EQ(r.size(), 4u);
    EXPECT_EQ(r[0].name, "glVertexAttribPointer");
    EXPECT_EQ(r[0].args, (std::vector<uint64_t>{5, 2, GL_INT, GL_FALSE, 8, reinterpret_cast<uintptr_t>(data.data())}));
    EXPECT_EQ(r[1].args[5], 0x10000u);
    EXPECT_EQ(r[3].name, "glDisableVertexAttribArray");
    ASSERT_NE(ctx.get()->mAttribArrays[5], nullptr);
    EXPECT_EQ(ctx.get()->mAttribArrays[5]->type, static_cast<GLenum>(GL_INT));
    EXPECT_EQ(ctx.get()->mAttribArrays[6], nullptr) << "offsets never create a record";
    ASSERT_NE(ctx.get()->mAttribArrays[16], nullptr);

    // Slot 16 is kept but never copied; slot 5 is.
    const GLubyte idx[] = {1, 0};
    attribBytes = 16;
    kam_glDrawElements_opt(GL_POINTS, 2, GL_UNSIGNED_BYTE, idx);
    r = replay();
    ASSERT_EQ(r.size(), 2u);
    EXPECT_EQ(r[0].args[0], 5u);
    EXPECT_EQ(r[1].name, "glDrawElements");
}

// glDrawArrays from client arrays copies the vertices it draws, first to
// first + count - 1, with emulation (also after an indexed draw left the
// worker on a shorter copy), and without it is drawn while the caller waits.
TEST_F(ClientArrayTest, DrawArraysFromClientMemory) {
    struct Case {
        const char* name;
        bool clientArrays;
        GLint size;
        GLenum type;
        GLsizei stride;
    } cases[] = {
        {"strided floats", true, 3, GL_FLOAT, 20},
        {"strided GL_FIXED", true, 2, GL_FIXED, 12},
        {"emulation off", false, 3, GL_FLOAT, 20},
    };
    for (const Case& tc : cases) {
        SCOPED_TRACE(tc.name);
        ctx.get()->mClientArrays = tc.clientArrays;
        std::vector<uint8_t> data = vertexData(static_cast<size_t>(tc.stride));
        const size_t elem = static_cast<size_t>(tc.size) * 4;
        const GLushort idx[] = {1, 0};
        indexBytes = sizeof(idx);
        kam_glVertexAttribPointer_opt(1, tc.size, tc.type, GL_FALSE, tc.stride, data.data());
        if (tc.clientArrays) kam_glDrawElements_opt(GL_LINES, 2, GL_UNSIGNED_SHORT, idx);
        replay();
        kam_glDrawArrays_opt(GL_TRIANGLES, 2, 3);
        const size_t atReturn = fake::calls().size();
        std::vector<uint8_t> drawn(data.begin(), data.end());
        std::fill(data.begin(), data.end(), 0);
        std::vector<Replayed> r = replay();
        ASSERT_FALSE(r.empty());
        EXPECT_EQ(r.back().name, "glDrawArrays");
        if (!tc.clientArrays) {
            EXPECT_EQ(atReturn, 1u) << "drawn while the caller waits";
            ASSERT_EQ(r.size(), 1u);
        } else {
            EXPECT_EQ(atReturn, 0u);
            ASSERT_EQ(r.size(), 2u);
            EXPECT_EQ(r[0].args[4], 0u);
            // The worker reads vertex 2 where the pointer says vertex 2 is.
            const uint8_t* p = reinterpret_cast<const uint8_t*>(r[0].args[5]) + 2 * elem;
            for (size_t v = 0; v < 3; ++v)
                EXPECT_EQ(0, memcmp(p + v * elem, drawn.data() + (2 + v) * tc.stride, elem)) << v;
        }
        ctx.frameBoundary();
    }
}

// The other indexed draws copy their indices; an index type the layer cannot
// size, or vertex data in client memory, sends them to the worker with the
// caller's pointers.
TEST_F(ClientArrayTest, OtherIndexedDrawsCopyIndicesOnly) {
    using Draw = void (*)(GLenum type, const void* indices);
    struct Case {
        const char* name;
        size_t indicesArg;
        Draw draw;
    };
    const Case cases[] = {
        {"glDrawElementsInstanced", 3, [](GLenum t, const void* p) { kam_glDrawElementsInstanced_opt(4, 2, t, p, 7); }},
        {"glDrawElementsBaseVertex", 3,
         [](GLenum t, const void* p) { kam_glDrawElementsBaseVertex_opt(4, 2, t, p, 7); }},
        {"glDrawElementsBaseVertexOES", 3,
         [](GLenum t, const void* p) { kam_glDrawElementsBaseVertexOES_opt(4, 2, t, p, 7); }},
        {"glDrawRangeElementsBaseVertex", 5,
         [](GLenum t, const void* p) { kam_glDrawRangeElementsBaseVertex_opt(4, 0, 9, 2, t, p, 7); }},
        {"glDrawRangeElementsBaseVertexOES", 5,
         [](GLenum t, const void* p) { kam_glDrawRangeElementsBaseVertexOES_opt(4, 0, 9, 2, t, p, 7); }},
        {"glDrawElementsInstancedBaseVertex", 3,
         [](GLenum t, const void* p) { kam_glDrawElementsInstancedBaseVertex_opt(4, 2, t, p, 7, 8); }},
        {"glDrawElementsInstancedBaseVertexOES", 3,
         [](GLenum t, const void* p) { kam_glDrawElementsInstancedBaseVertexOES_opt(4, 2, t, p, 7, 8); }},
    };
    std::vector<uint8_t> data = vertexData(12);
    kam_glVertexAttribPointer_opt(0, 3, GL_FLOAT, GL_FALSE, 0, reinterpret_cast<void*>(64));
    replay();
    const pthread_t worker = ctx.worker()->postSync([] { return pthread_self(); }, "whoami");
    for (const Case& tc : cases) {
        SCOPED_TRACE(tc.name);
        uint32_t idx[2] = {5, 6};
        std::vector<uint8_t> expected(reinterpret_cast<uint8_t*>(idx), reinterpret_cast<uint8_t*>(idx) + 8);
        std::vector<const uint8_t*> seen;
        fake::setHandler(tc.name, [&](const fake::Call& c) {
            const auto* p = reinterpret_cast<const uint8_t*>(c.args[tc.indicesArg]);
            EXPECT_EQ(std::vector<uint8_t>(p, p + 8), expected);
            seen.push_back(p);
            return 0;
        });
        tc.draw(GL_UNSIGNED_INT, idx);
        idx[0] = idx[1] = 0;
        std::vector<fake::Call> atReturn = fake::calls();
        std::vector<Replayed> r = replay();
        ASSERT_EQ(r.size(), 1u) << "no vertex data for this draw";
        EXPECT_EQ(r[0].name, tc.name);
        ASSERT_EQ(seen.size(), 1u);
        EXPECT_NE(seen[0], reinterpret_cast<const uint8_t*>(idx));

        // GL_FIXED has no size in the layer's table: the worker draws from
        // the caller's memory while the caller waits.
        fake::clearHandlers();
        tc.draw(GL_FIXED, idx);
        atReturn = fake::calls();
        ASSERT_EQ(atReturn.size(), 1u);
        EXPECT_TRUE(pthread_equal(atReturn[0].thread, worker));
        EXPECT_EQ(atReturn[0].args[tc.indicesArg], reinterpret_cast<uintptr_t>(idx));

        kam_glVertexAttribPointer_opt(0, 3, GL_FLOAT, GL_FALSE, 0, data.data());
        fake::reset();
        tc.draw(GL_UNSIGNED_INT, idx);
        atReturn = fake::calls();
        ASSERT_EQ(atReturn.size(), 2u) << "the pointer, then the draw while the caller waits";
        EXPECT_EQ(atReturn[1].name, tc.name);
        EXPECT_EQ(atReturn[1].args[tc.indicesArg], reinterpret_cast<uintptr_t>(idx));
        kam_glVertexAttribPointer_opt(0, 3, GL_FLOAT, GL_FALSE, 0, reinterpret_cast<void*>(64));
        ctx.drain();
        fake::reset();
    }
}

// An indirect command in client memory is not sized: those draws wait for
// the worker. From a bound indirect buffer the offset is recorded as is.
TEST_F(ClientArrayTest, IndirectDrawsFromClientMemoryWait) {
    const pthread_t worker = ctx.worker()->postSync([] { return pthread_self(); }, "whoami");
    const GLuint command[5] = {3, 1, 0, 0, 0};
    for (bool bound : {false, true}) {
        SCOPED_TRACE(bound ? "indirect buffer bound" : "client memory");
        kam_glBindBuffer_opt(GL_DRAW_INDIRECT_BUFFER, bound ? 50 : 0);
        ctx.drain();
        for (int which = 0; which < 2; ++which) {
            fake::reset();
            if (which == 0)
                kam_glDrawArraysIndirect_opt(GL_TRIANGLES, command);
            else
                kam_glDrawElementsIndirect_opt(GL_TRIANGLES, GL_UNSIGNED_SHORT, command);
            std::vector<fake::Call> atReturn = fake::calls();
            if (!bound) {
                ASSERT_EQ(atReturn.size(), 1u);
                EXPECT_TRUE(pthread_equal(atReturn[0].thread, worker));
            }
            ctx.drain();
            std::vector<fake::Call> all = fake::calls();
            ASSERT_EQ(all.size(), 1u);
            EXPECT_EQ(all[0].args.back(), reinterpret_cast<uintptr_t>(command)) << "the caller's pointer, uncopied";
        }
    }
}

}  // namespace

namespace {

// Random attribute layouts and index lists against client buffers of exactly
// the size the draw reaches: under AddressSanitizer a read past what the
// indices reach fails the run; the replayed bytes must be the packed vertices.
TEST_F(ClientArrayTest, RandomLayoutsCopyExactlyWhatTheIndicesReach) {
    struct AttribType {
        GLenum type;
        int bytes;
    } types[] = {{GL_BYTE, 1}, {GL_UNSIGNED_BYTE, 1}, {GL_SHORT, 2}, {GL_UNSIGNED_SHORT, 2}, {GL_FLOAT, 4},
                 {GL_INT, 4}, {GL_UNSIGNED_INT, 4}, {GL_HALF_FLOAT, 2}};
    uint32_t seed = 12345;
    auto next = [&seed](uint32_t n) {
        seed = seed * 1664525u + 1013904223u;
        return (seed >> 8) % n;
    };
    for (int round = 0; round < 300; ++round) {
        SCOPED_TRACE(round);
        const AttribType at = types[next(8)];
        const int size = 1 + static_cast<int>(next(4));
        const int elem = at.bytes * size;
        const int stride = next(3) == 0 ? 0 : elem + static_cast<int>(next(13));
        const int step = stride ? stride : elem;
        const GLenum indexType = next(3) == 0 ? GL_UNSIGNED_BYTE : next(2) ? GL_UNSIGNED_SHORT : GL_UNSIGNED_INT;
        const uint32_t limit = indexType == GL_UNSIGNED_BYTE ? 200 : 300;
        const int count = 1 + static_cast<int>(next(48));
        std::vector<uint32_t> values(count);
        uint32_t maxIndex = 0;
        for (uint32_t& v : values) {
            v = next(limit);
            // A top-bit index never counts as the largest.
            if (indexType == GL_UNSIGNED_INT && next(16) == 0) v = 0x80000000u | next(1000);
            if (!(v & 0x80000000u)) maxIndex = std::max(maxIndex, v);
        }
        std::vector<uint8_t> idx(count * (indexType == GL_UNSIGNED_BYTE ? 1 : indexType == GL_UNSIGNED_SHORT ? 2 : 4));
        for (int i = 0; i < count; ++i) {
            if (indexType == GL_UNSIGNED_BYTE) idx[i] = static_cast<uint8_t>(values[i]);
            else if (indexType == GL_UNSIGNED_SHORT) reinterpret_cast<uint16_t*>(idx.data())[i] = static_cast<uint16_t>(values[i]);
            else reinterpret_cast<uint32_t*>(idx.data())[i] = values[i];
        }
        // Exactly the bytes vertex maxIndex ends at: one more is out of bounds.
        std::vector<uint8_t> data(static_cast<size_t>(maxIndex) * step + elem);
        for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i * 7 + round);
        std::vector<uint8_t> packed;
        for (uint32_t v = 0; v <= maxIndex; ++v)
            packed.insert(packed.end(), data.begin() + v * step, data.begin() + v * step + elem);
        attribBytes = packed.size();
        indexBytes = idx.size();

        callerArray = {data.data(), data.data() + data.size()};
        kam_glVertexAttribPointer_opt(3, size, at.type, GL_FALSE, stride, data.data());
        kam_glDrawElements_opt(GL_TRIANGLES, count, indexType, idx.data());
        std::fill(data.begin(), data.end(), 0);
        std::vector<Replayed> r = replay();
        ASSERT_FALSE(r.empty());
        EXPECT_EQ(r.back().name, "glDrawElements");
        ASSERT_EQ(r.size(), 3u);  // the pointer as called, the packed copy, the draw
        EXPECT_EQ(r[1].args[4], 0u);
        EXPECT_EQ(r[1].bytes, packed);
        kam_glVertexAttribPointer_opt(3, size, at.type, GL_FALSE, stride, reinterpret_cast<void*>(64));
        ctx.frameBoundary();
        fake::reset();
        replayed.clear();
    }
}

}  // namespace
