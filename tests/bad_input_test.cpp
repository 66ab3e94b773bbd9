// Hostile arguments to the wrappers that read client memory or keep shadow
// state: negative, zero and huge counts and sizes, null pointers and pointers
// around the 0x10000 offset threshold, images whose size overflows 32-bit
// arithmetic, unknown enums and pixel-store values the GL rejects. Every
// caller buffer holds exactly the bytes the GL's own rule says the call
// reads, so a copy that reads further trips AddressSanitizer; and every call
// must still reach the driver. Each table runs on an offloaded thread and on
// a thread the layer passes through.

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <climits>
#include <cmath>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "bad_input_cases.h"
#include "kam_wrappers.h"
#include "support.h"

using namespace android;

namespace {

constexpr long long kMaxHeapBuffer = 64ll << 20;
constexpr long long kMaxMappedBuffer = 64ll << 30;

// Exactly bytes of readable memory (none below 1 byte, so that any read
// trips the sanitizer). Sizes past what a test may allocate are address
// space only: images whose exact size wraps 32 bits, of which the layer
// reads the wrapped count from the start.
class CallerBuffer {
public:
    explicit CallerBuffer(long long bytes) : mBytes(bytes < 0 ? 0 : bytes) {
        if (mBytes > kMaxHeapBuffer) {
            // Not in a 32-bit address space.
            if (static_cast<long long>(static_cast<size_t>(mBytes)) != mBytes) return;
            void* p = mmap(nullptr, mBytes, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
            mData = p == MAP_FAILED ? nullptr : static_cast<uint8_t*>(p);
            return;
        }
        mHeap.reset(new uint8_t[mBytes]);
        mData = mHeap.get();
        // The text repeats, so string rules find it NUL-terminated.
        for (long long i = 0; i < mBytes; ++i) mData[i] = static_cast<uint8_t>(bad::kText[i % sizeof bad::kText]);
    }
    ~CallerBuffer() {
        if (mBytes > kMaxHeapBuffer && mData != nullptr) munmap(mData, mBytes);
    }
    uint8_t* data() const { return mData; }
    bool heap() const { return mHeap != nullptr; }

private:
    long long mBytes;
    uint8_t* mData = nullptr;
    std::unique_ptr<uint8_t[]> mHeap;
};

// Where the caller's pointer points. Above the threshold only with a buffer,
// or for a call that reads nothing: a GL caller handing over a bad address
// with a positive size is beyond help, from the layer or the driver.
enum class Ptr { Exact, Null, Low, AtThreshold, JustAbove };
constexpr Ptr kPointers[] = {Ptr::Exact, Ptr::Null, Ptr::Low, Ptr::AtThreshold, Ptr::JustAbove};
const char* const kPointerNames[] = {"exact buffer", "null", "0x1", "0x10000", "0x10001"};

// Makes the caller's pointer for a rule of bytes; false when the case cannot
// be run (no buffer of that size, or a bad address the call would read).
bool makePointer(Ptr kind, long long bytes, std::optional<CallerBuffer>& buffer, const void** out,
                 long long maxBytes = kMaxHeapBuffer) {
    switch (kind) {
        case Ptr::Exact:
            if (bytes > maxBytes) return false;
            buffer.emplace(bytes);
            *out = buffer->data();
            return *out != nullptr;
        case Ptr::Null: *out = nullptr; return true;
        case Ptr::Low: *out = reinterpret_cast<const void*>(uintptr_t{1}); return true;
        case Ptr::AtThreshold: *out = reinterpret_cast<const void*>(uintptr_t{0x10000}); return true;
        case Ptr::JustAbove: *out = reinterpret_cast<const void*>(uintptr_t{0x10001}); return bytes < 1;
    }
    return false;
}

class BadInputTest : public ::testing::TestWithParam<bool> {
protected:
    void SetUp() override {
        support::initLayer();
        fake::reset();
        fake::clearHandlers();
        if (GetParam()) {
            ctx.emplace();
            ctx->get()->mClientArrays = true;
        }
    }
    void TearDown() override {
        ctx.reset();
        fake::clearHandlers();
        fake::reset();
    }
    void drain() {
        if (ctx) ctx->drain();
    }
    std::vector<fake::Call> callsOf(const std::string& name) {
        std::vector<fake::Call> out;
        for (const fake::Call& c : fake::calls())
            if (c.name == name) out.push_back(c);
        return out;
    }
    // The call arrived once with the caller's arguments; the pointer argument
    // may be an arena copy instead, holding the caller's bytes. Offsets and
    // calls that read nothing keep the caller's pointer.
    void expectArrived(const std::string& name, const std::vector<uint64_t>& args, int pointerArg,
                       long long bytes, const CallerBuffer* buffer) {
        drain();
        const auto calls = callsOf(name);
        ASSERT_EQ(calls.size(), 1u) << name;
        ASSERT_EQ(calls[0].args.size(), args.size());
        for (size_t k = 0; k < args.size(); ++k) {
            if (static_cast<int>(k) != pointerArg || calls[0].args[k] == args[k]) {
                EXPECT_EQ(calls[0].args[k], args[k]) << name << " argument " << k;
                continue;
            }
            ASSERT_TRUE(buffer != nullptr && buffer->heap() && bytes >= 1) << name << ": replaced a pointer it must not read";
            EXPECT_EQ(memcmp(reinterpret_cast<const void*>(calls[0].args[k]), buffer->data(), bytes), 0) << name;
        }
    }
    std::optional<support::ActiveContext> ctx;
};

INSTANTIATE_TEST_SUITE_P(Threads, BadInputTest, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool>& i) { return i.param ? "Offloaded" : "PassThrough"; });

// ------------------------------------------------------- copying wrappers

// Every wrapper that copies a counted array, string or parameter block, as
// generated from the API description, over hostile counts, enums and
// pointers.
TEST_P(BadInputTest, CopyingWrappers) {
    const long long counts[] = {LLONG_MIN, INT_MIN, -1, 0, 1, 3, 0x10000000, INT_MAX, 0x100000001ll};
    const uint32_t enums[] = {0xFFFFFFFFu, 0x1004 /* 16-byte pname */, 0x2801 /* 4-byte pname */};
    int ran = 0;
    for (int i = 0; i < bad::copyCaseCount; ++i) {
        const bad::CopyCase& cc = bad::copyCases[i];
        for (long long count : counts)
            for (uint32_t e : enums)
                for (Ptr kind : kPointers) {
                    SCOPED_TRACE(std::string(cc.name) + " count " + std::to_string(count) + " enum " +
                                 std::to_string(e) + " " + kPointerNames[static_cast<int>(kind)]);
                    struct State {
                        Ptr kind;
                        std::optional<CallerBuffer> buffer;
                    } state{kind, std::nullopt};
                    bad::Args args{count, e,
                                   [](long long bytes, const void** out, void* user) {
                                       auto* s = static_cast<State*>(user);
                                       return makePointer(s->kind, bytes, s->buffer, out);
                                   },
                                   &state};
                    fake::reset();
                    bad::Call call;
                    cc.run(args, call);
                    if (call.skipped) continue;
                    ++ran;
                    expectArrived(cc.name, call.args, call.pointerArg, call.ruleBytes,
                                  state.buffer ? &*state.buffer : nullptr);
                    if (HasFatalFailure()) return;
                }
    }
    EXPECT_GT(ran, bad::copyCaseCount * 60);
}

// ------------------------------------------------------------ tex uploads

struct Store {
    GLenum pname;
    GLint value;
};

// The unpack state the GL holds: it keeps a value it rejects out.
struct Unpack {
    long long alignment = 4, rowLength = 0, imageHeight = 0, skipPixels = 0, skipRows = 0, skipImages = 0;
    void store(const Store& s) {
        if (s.value < 0) return;
        switch (s.pname) {
            case GL_UNPACK_ALIGNMENT:
                if (s.value == 1 || s.value == 2 || s.value == 4 || s.value == 8) alignment = s.value;
                break;
            case GL_UNPACK_ROW_LENGTH: rowLength = s.value; break;
            case GL_UNPACK_IMAGE_HEIGHT: imageHeight = s.value; break;
            case GL_UNPACK_SKIP_PIXELS: skipPixels = s.value; break;
            case GL_UNPACK_SKIP_ROWS: skipRows = s.value; break;
            case GL_UNPACK_SKIP_IMAGES: skipImages = s.value; break;
            default: break;
        }
    }
    // Bytes the GL reads for the image, 0 for one it rejects; image height
    // and skipped images apply to 3D images only.
    long long bytes(long long w, long long h, long long d, int bpp, bool threeD) const {
        if (w <= 0 || h <= 0 || d <= 0 || bpp == 0) return 0;
        // In double, exact for every size a buffer can be given for; the
        // rest only has to come out too large.
        const double rowBytes = static_cast<double>(bpp) * (rowLength > 0 ? rowLength : w);
        const double stride = std::ceil(rowBytes / alignment) * alignment;
        const double rows = imageHeight > 0 && threeD ? imageHeight : h;
        const double images = threeD ? skipImages + d - 1 : 0;
        const double total = static_cast<double>(bpp) * (w + skipPixels) + (h + skipRows + images * rows - 1) * stride;
        return total >= 0x1p62 ? LLONG_MAX : static_cast<long long>(total);
    }
};

TEST_P(BadInputTest, TexUploads) {
    const struct Row {
        const char* what;
        int w, h, d;
        GLenum format, type;
        int bpp;  // by the GL's table, 0 where it rejects the pair
        std::vector<Store> stores;
    } rows[] = {
        {"plain", 4, 4, 2, GL_RGBA, GL_UNSIGNED_BYTE, 4, {}},
        {"zero width", 0, 4, 1, GL_RGBA, GL_UNSIGNED_BYTE, 4, {}},
        {"negative width", -1, 4, 1, GL_RGBA, GL_UNSIGNED_BYTE, 4, {}},
        {"negative height", 3, -1, 1, GL_RGB, GL_UNSIGNED_BYTE, 3, {}},
        {"negative depth", 3, 3, -1, GL_RGB, GL_UNSIGNED_BYTE, 3, {}},
        {"negative width wrapping to 4 bytes", -0x3FFFFFFF, 1, 1, GL_RGBA, GL_UNSIGNED_BYTE, 4, {}},
        {"negative height wrapping positive", 1, -0x3FFFFFFF, 1, GL_RGBA, GL_UNSIGNED_BYTE, 4,
         {{GL_UNPACK_ALIGNMENT, 1}}},
        {"width overflowing 32 bits", 0x40000001, 1, 1, GL_RGBA, GL_UNSIGNED_BYTE, 4, {}},
        {"area overflowing 32 bits", 65536, 65537, 1, GL_RGBA, GL_UNSIGNED_BYTE, 4, {}},
        {"everything at the maximum", INT_MAX, INT_MAX, INT_MAX, GL_RGBA, GL_FLOAT, 16, {}},
        {"unknown format", 4, 4, 1, 0x1234, GL_UNSIGNED_BYTE, 0, {}},
        {"unknown type", 4, 4, 1, GL_RGBA, 0x1234, 0, {}},
        {"valid skips and row length", 2, 2, 2, GL_RGBA, GL_UNSIGNED_BYTE, 4,
         {{GL_UNPACK_ROW_LENGTH, 8}, {GL_UNPACK_SKIP_ROWS, 1}, {GL_UNPACK_SKIP_PIXELS, 1},
          {GL_UNPACK_IMAGE_HEIGHT, 3}, {GL_UNPACK_SKIP_IMAGES, 1}}},
        {"alignment the GL rejects", 3, 3, 1, GL_RGB, GL_UNSIGNED_BYTE, 3, {{GL_UNPACK_ALIGNMENT, 3}}},
        {"huge alignment the GL rejects", 1, 2, 1, GL_RGBA, GL_UNSIGNED_BYTE, 4,
         {{GL_UNPACK_ALIGNMENT, 0x40000000}}},
        {"negative skips the GL rejects", 2, 2, 1, GL_RGBA, GL_UNSIGNED_BYTE, 4,
         {{GL_UNPACK_SKIP_PIXELS, -1}, {GL_UNPACK_SKIP_ROWS, -0x7FFFFFFF}, {GL_UNPACK_ROW_LENGTH, -5}}},
        {"huge row length", 1, 2, 1, GL_RED, GL_UNSIGNED_BYTE, 1, {{GL_UNPACK_ROW_LENGTH, INT_MAX}}},
        {"unknown and pack pnames", 2, 2, 1, GL_RGBA, GL_UNSIGNED_BYTE, 4,
         {{0xFFFF, 5}, {GL_PACK_ALIGNMENT, 1}, {GL_PACK_ROW_LENGTH, 100}}},
    };
    using Upload = void (*)(const Row&, const void*);
    const struct {
        const char* name;
        bool threeD;
        Upload upload;
    } uploads[] = {
        {"glTexImage2D", false,
         [](const Row& r, const void* p) {
             kam_glTexImage2D_opt(GL_TEXTURE_2D, 0, GL_RGBA, r.w, r.h, 0, r.format, r.type, p);
         }},
        {"glTexSubImage2D", false,
         [](const Row& r, const void* p) {
             kam_glTexSubImage2D_opt(GL_TEXTURE_2D, 0, 1, 1, r.w, r.h, r.format, r.type, p);
         }},
        {"glTexImage3D", true,
         [](const Row& r, const void* p) {
             kam_glTexImage3D_opt(GL_TEXTURE_3D, 0, GL_RGBA, r.w, r.h, r.d, 0, r.format, r.type, p);
         }},
        {"glTexSubImage3D", true,
         [](const Row& r, const void* p) {
             kam_glTexSubImage3D_opt(GL_TEXTURE_3D, 0, 1, 1, 1, r.w, r.h, r.d, r.format, r.type, p);
         }},
    };
    for (const Row& r : rows)
        for (const auto& u : uploads)
            for (Ptr kind : kPointers) {
                SCOPED_TRACE(std::string(u.name) + ": " + r.what + ", " + kPointerNames[static_cast<int>(kind)]);
                // The GL's defaults, then the row's stores; each reaches the driver.
                Unpack gl;
                std::vector<Store> stores = {{GL_UNPACK_ALIGNMENT, 4}, {GL_UNPACK_ROW_LENGTH, 0},
                                             {GL_UNPACK_IMAGE_HEIGHT, 0}, {GL_UNPACK_SKIP_PIXELS, 0},
                                             {GL_UNPACK_SKIP_ROWS, 0}, {GL_UNPACK_SKIP_IMAGES, 0}};
                stores.insert(stores.end(), r.stores.begin(), r.stores.end());
                fake::reset();
                for (const Store& s : stores) {
                    kam_glPixelStorei_opt(s.pname, s.value);
                    gl.store(s);
                }
                drain();
                EXPECT_GE(callsOf("glPixelStorei").size(), stores.size());

                const long long bytes = gl.bytes(r.w, r.h, u.threeD ? r.d : 1, r.bpp, u.threeD);
                std::optional<CallerBuffer> buffer;
                const void* p = nullptr;
                if (!makePointer(kind, bytes, buffer, &p, kMaxMappedBuffer)) continue;
                fake::reset();
                u.upload(r, p);
                drain();
                const auto calls = callsOf(u.name);
                ASSERT_EQ(calls.size(), 1u);
                const uint64_t got = calls[0].args.back();
                if (got != fake::bits(p)) {
                    // A copy is only made of memory the GL reads.
                    ASSERT_TRUE(buffer && bytes >= 1);
                    if (buffer->heap()) {
                        EXPECT_EQ(memcmp(reinterpret_cast<const void*>(got), p, bytes), 0);
                    }
                }
            }
}

// ------------------------------------------------------ buffer mapping

// Maps, flushes and unmaps of a bound 64-byte buffer with ranges the GL
// rejects. The driver maps only ranges inside the buffer; the app writes
// through any pointer it gets back, over the range it asked for.
TEST_P(BadInputTest, MappingRanges) {
    constexpr long long kSize = 64;
    std::vector<uint8_t> store(kSize, 0);
    fake::setHandler("glMapBufferRange", [&](const fake::Call& c) -> uint64_t {
        const auto offset = static_cast<int64_t>(c.args[1]), length = static_cast<int64_t>(c.args[2]);
        if (offset < 0 || length < 1 || offset > kSize || length > kSize - offset) return 0;
        return reinterpret_cast<uintptr_t>(store.data() + offset);
    });
    fake::setHandler("glUnmapBuffer", [](const fake::Call&) -> uint64_t { return GL_TRUE; });
    const int64_t hostile[] = {-1, -16, 0, 8, kSize, kSize + 1, 0xFFFFFFF0ll, 0x100000000ll, INT64_MIN, INT64_MAX};
    const GLbitfield accesses[] = {GL_MAP_WRITE_BIT, GL_MAP_WRITE_BIT | GL_MAP_FLUSH_EXPLICIT_BIT, GL_MAP_READ_BIT, 0};
    kam_glBindBuffer_opt(GL_ARRAY_BUFFER, 5);
    for (int64_t offset : hostile)
        for (int64_t length : hostile)
            for (GLbitfield access : accesses) {
                // An end within 32 bits but far past the buffer only costs
                // the layer a shadow block that large (it asks the driver for
                // the size only when a block grows): left out, it is slow
                // under the sanitizers. Negative and wrapping ranges stay.
                if (offset >= 0 && length >= 0 && offset <= UINT32_MAX && length <= UINT32_MAX &&
                    offset + length > 4 * kSize && offset + length <= UINT32_MAX)
                    continue;
                SCOPED_TRACE("map " + std::to_string(offset) + "+" + std::to_string(length) + " access " +
                             std::to_string(access));
                fake::reset();
                void* p = kam_glMapBufferRange_opt(GL_ARRAY_BUFFER, offset, length, access);
                const bool inside = offset >= 0 && length >= 1 && offset <= kSize && length <= kSize - offset;
                if (p != nullptr && inside && (access & GL_MAP_WRITE_BIT)) memset(p, 0x6B, length);
                // Flushes inside and outside the mapping, then the unmap.
                for (int64_t at : {int64_t{0}, int64_t{-16}, int64_t{8}, length, INT64_MAX})
                    kam_glFlushMappedBufferRange_opt(GL_ARRAY_BUFFER, at, 16);
                kam_glUnmapBuffer_opt(GL_ARRAY_BUFFER);
                drain();
                EXPECT_EQ(callsOf("glMapBufferRange").size(), 1u);
                EXPECT_EQ(callsOf("glFlushMappedBufferRange").size(), 5u);
                EXPECT_EQ(callsOf("glUnmapBuffer").size(), 1u);
                if (HasFailure()) return;
            }
    kam_glBindBuffer_opt(GL_ARRAY_BUFFER, 0);
    if (ctx) ctx->frameBoundary();
}

// ------------------------------------------------------------------ draws

// Indexed draws with client indices and one client vertex array, and the
// indirect draws, over hostile counts, index types and pointers. Indices
// reach vertices 0 to 3, and the vertex array holds exactly those.
TEST_P(BadInputTest, ClientMemoryDraws) {
    using Draw = void (*)(GLsizei, GLenum, const void*);
    const struct {
        const char* name;
        Draw draw;
    } draws[] = {
        {"glDrawElements", [](GLsizei n, GLenum t, const void* p) { kam_glDrawElements_opt(GL_TRIANGLES, n, t, p); }},
        {"glDrawRangeElements",
         [](GLsizei n, GLenum t, const void* p) { kam_glDrawRangeElements_opt(GL_TRIANGLES, 0, 3, n, t, p); }},
        {"glDrawElementsInstanced",
         [](GLsizei n, GLenum t, const void* p) { kam_glDrawElementsInstanced_opt(GL_TRIANGLES, n, t, p, -1); }},
        {"glDrawElementsBaseVertex",
         [](GLsizei n, GLenum t, const void* p) { kam_glDrawElementsBaseVertex_opt(GL_TRIANGLES, n, t, p, INT_MIN); }},
        {"glDrawElementsBaseVertexOES",
         [](GLsizei n, GLenum t, const void* p) { kam_glDrawElementsBaseVertexOES_opt(GL_TRIANGLES, n, t, p, 1); }},
        {"glDrawRangeElementsBaseVertex",
         [](GLsizei n, GLenum t, const void* p) {
             kam_glDrawRangeElementsBaseVertex_opt(GL_TRIANGLES, 3, 0, n, t, p, 0);
         }},
        {"glDrawRangeElementsBaseVertexOES",
         [](GLsizei n, GLenum t, const void* p) {
             kam_glDrawRangeElementsBaseVertexOES_opt(GL_TRIANGLES, 0, 3, n, t, p, 0);
         }},
        {"glDrawElementsInstancedBaseVertex",
         [](GLsizei n, GLenum t, const void* p) {
             kam_glDrawElementsInstancedBaseVertex_opt(GL_TRIANGLES, n, t, p, 0, 0);
         }},
        {"glDrawElementsInstancedBaseVertexOES",
         [](GLsizei n, GLenum t, const void* p) {
             kam_glDrawElementsInstancedBaseVertexOES_opt(GL_TRIANGLES, n, t, p, 2, -5);
         }},
        {"glDrawArraysIndirect", [](GLsizei, GLenum, const void* p) { kam_glDrawArraysIndirect_opt(GL_TRIANGLES, p); }},
        {"glDrawElementsIndirect",
         [](GLsizei, GLenum t, const void* p) { kam_glDrawElementsIndirect_opt(GL_TRIANGLES, t, p); }},
    };
    const GLsizei counts[] = {INT_MIN, -1, 0, 1, 6, INT_MAX};
    const struct {
        GLenum type;
        int bytes;  // per index, 0 for a type the GL rejects
    } types[] = {{GL_UNSIGNED_BYTE, 1}, {GL_UNSIGNED_SHORT, 2}, {GL_UNSIGNED_INT, 4}, {GL_FLOAT, 0}, {0x1234, 0}};
    // Four tightly packed vec4 vertices.
    std::vector<uint8_t> vertices(4 * 16, 0x3F);
    for (const auto& d : draws)
        for (GLsizei count : counts)
            for (const auto& t : types)
                for (Ptr kind : kPointers) {
                    SCOPED_TRACE(std::string(d.name) + " count " + std::to_string(count) + " type " +
                                 std::to_string(t.type) + " " + kPointerNames[static_cast<int>(kind)]);
                    const bool indirect = strstr(d.name, "Indirect") != nullptr;
                    // The indirect command is read by the driver, never by the layer: 16 or 20 bytes.
                    const long long bytes = indirect ? 20 : count >= 1 ? static_cast<long long>(count) * t.bytes : 0;
                    std::optional<CallerBuffer> buffer;
                    const void* p = nullptr;
                    if (!makePointer(kind, bytes, buffer, &p)) continue;
                    if (buffer && buffer->heap() && !indirect)
                        for (long long i = 0; i < bytes; ++i) buffer->data()[i] = i % t.bytes == 0 ? i / t.bytes % 4 : 0;
                    kam_glVertexAttribPointer_opt(1, 4, GL_FLOAT, GL_FALSE, 16, vertices.data());
                    drain();
                    fake::reset();
                    d.draw(count, t.type, p);
                    drain();
                    const auto calls = callsOf(d.name);
                    ASSERT_EQ(calls.size(), 1u);
                    const uint64_t got = calls[0].args[indirect ? calls[0].args.size() - 1 : (strstr(d.name, "Range") ? 5 : 3)];
                    if (got != fake::bits(p)) {
                        ASSERT_TRUE(buffer && buffer->heap() && bytes >= 1 && !indirect);
                        EXPECT_EQ(memcmp(reinterpret_cast<const void*>(got), p, bytes), 0);
                    }
                    if (ctx) ctx->frameBoundary();
                }
}

// Client arrays whose attribute call the GL rejects keep the attribute as it
// was: a later draw must not copy by the rejected values.
TEST_P(BadInputTest, RejectedAttributeCallsAreNotCopiedBy) {
    const struct {
        const char* what;
        GLint size;
        GLenum type;
        GLsizei stride;
    } rows[] = {{"negative stride", 4, GL_FLOAT, -16},   {"size 0", 0, GL_FLOAT, 0},
                {"size 5", 5, GL_FLOAT, 0},              {"huge size", INT_MAX, GL_BYTE, 0},
                {"unknown type", 4, 0x1234, 0},          {"depth type", 1, GL_UNSIGNED_INT_24_8, 0},
                {"packed type, size 3", 3, GL_UNSIGNED_INT_2_10_10_10_REV, 0}};
    const uint16_t indices[] = {0, 3, 1};
    for (const auto& r : rows) {
        SCOPED_TRACE(r.what);
        // The GL keeps the earlier call's four packed vertices of 4 bytes.
        std::vector<uint8_t> packed(4 * 4, 0x11);
        CallerBuffer rejected(0);
        kam_glVertexAttribPointer_opt(2, 4, GL_UNSIGNED_INT_2_10_10_10_REV, GL_TRUE, 0, packed.data());
        kam_glVertexAttribPointer_opt(2, r.size, r.type, GL_FALSE, r.stride, rejected.data());
        fake::reset();
        kam_glDrawElements_opt(GL_TRIANGLES, 3, GL_UNSIGNED_SHORT, indices);
        drain();
        EXPECT_EQ(callsOf("glDrawElements").size(), 1u);
        if (ctx) ctx->frameBoundary();
    }
}

// ------------------------------------------------------------------ names

// Generated names come from the layer's pools while offloaded; hostile
// counts and pointers must neither write outside the caller's array nor
// write through a pointer that is not client memory.
TEST_P(BadInputTest, GeneratedNames) {
    const struct {
        const char* name;
        void (*gen)(GLsizei, GLuint*);
    } gens[] = {{"glGenVertexArrays", kam_glGenVertexArrays_opt},
                {"glGenTransformFeedbacks", kam_glGenTransformFeedbacks_opt}};
    for (const auto& g : gens)
        for (GLsizei n : {INT_MIN, -1, 0, 1, 8, 9, INT_MAX})
            for (Ptr kind : {Ptr::Exact, Ptr::Null, Ptr::Low, Ptr::AtThreshold}) {
                SCOPED_TRACE(std::string(g.name) + " n " + std::to_string(n) + " " +
                             kPointerNames[static_cast<int>(kind)]);
                std::optional<CallerBuffer> buffer;
                const void* p = nullptr;
                if (!makePointer(kind, n >= 1 ? n * 4ll : 0, buffer, &p)) continue;
                if (buffer && !buffer->heap()) continue;
                fake::reset();
                g.gen(n, const_cast<GLuint*>(static_cast<const GLuint*>(p)));
                drain();
                // Served from a pool only into client memory, and never for a
                // count the GL rejects; n 0 and below are answered locally.
                const bool pooled = ctx && (n <= 0 || (kind == Ptr::Exact && n <= 8));
                if (!pooled) {
                    EXPECT_EQ(callsOf(g.name).size(), 1u);
                }
                if (ctx) ctx->frameBoundary();
            }
}

}  // namespace
