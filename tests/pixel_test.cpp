// Unpack sizes from the pixel-store snapshot, the pixel-store wrapper, and the
// upload and read wrappers that copy or wait on an offloaded thread.

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <climits>
#include <cstdint>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "kam_wrappers.h"
#include "runtime/KAMThreadLocal.h"
#include "shadow/Params.h"
#include "shadow/TexSize.h"
#include "support.h"

using namespace android;

namespace {

constexpr GLenum kHalfFloatOes = 0x8D61, kBgraExt = 0x80E1, k2Bytes = 0x1407, kDouble = 0x140A;
constexpr GLenum kUint8888Rev = 0x8367, kUbyte332 = 0x8032, kUshort4444Rev = 0x8365, kUshort1555Rev = 0x8366;
constexpr GLenum kEtc2Rgba8 = 0x9278;

Params params(GLint alignment, GLint rowLength = 0, GLint imageHeight = 0, GLint skipPixels = 0, GLint skipRows = 0,
              GLint skipImages = 0) {
    Params p;
    p.mUnpackAlignment = alignment;
    p.mUnpackRowLength = rowLength;
    p.mUnpackImageHeight = imageHeight;
    p.mUnpackSkipPixels = skipPixels;
    p.mUnpackSkipRows = skipRows;
    p.mUnpackSkipImages = skipImages;
    return p;
}

// ------------------------------------------------------------------ texSize

TEST(TexBytesPerPixel, PlainComponentTypesScaleWithComponentCount) {
    const struct { GLenum format; int components; } formats[] = {
        {GL_RED, 1}, {GL_ALPHA, 1}, {GL_LUMINANCE, 1}, {GL_RED_INTEGER, 1}, {GL_LUMINANCE_ALPHA, 2}, {GL_RG, 2},
        {GL_RG_INTEGER, 2}, {GL_RGB, 3}, {GL_RGB_INTEGER, 3}, {GL_RGBA, 4}, {kBgraExt, 4}, {GL_RGBA_INTEGER, 4}};
    const struct { GLenum type; int bytes; } types[] = {
        {GL_BYTE, 1}, {GL_UNSIGNED_BYTE, 1}, {GL_SHORT, 2}, {GL_UNSIGNED_SHORT, 2}, {GL_HALF_FLOAT, 2},
        {kHalfFloatOes, 2}, {GL_INT, 4}, {GL_UNSIGNED_INT, 4}, {GL_FLOAT, 4}, {k2Bytes, 0}, {k2Bytes + 1, 0},
        {k2Bytes + 2, 0}, {kDouble, 0}};
    for (const auto& f : formats)
        for (const auto& t : types) {
            SCOPED_TRACE(::testing::Message() << std::hex << "format 0x" << f.format << " type 0x" << t.type);
            EXPECT_EQ(texBytesPerPixel(f.format, t.type), f.components * t.bytes);
        }
}

TEST(TexBytesPerPixel, PackedDepthAndUnknownPairs) {
    const struct { GLenum format, type; int bpp; } rows[] = {
        {GL_RGB, GL_UNSIGNED_SHORT_5_6_5, 2},
        {GL_RGB, GL_UNSIGNED_INT_10F_11F_11F_REV, 4},
        {GL_RGB_INTEGER, GL_UNSIGNED_INT_5_9_9_9_REV, 4},
        {GL_RGBA, GL_UNSIGNED_SHORT_4_4_4_4, 2},
        {kBgraExt, GL_UNSIGNED_SHORT_5_5_5_1, 2},
        {GL_RGBA, kUshort4444Rev, 2},
        {GL_RGBA_INTEGER, kUshort1555Rev, 2},
        {GL_RGBA, GL_UNSIGNED_INT_2_10_10_10_REV, 4},
        // Packed types only fit the component count they were made for.
        {GL_RGBA, GL_UNSIGNED_SHORT_5_6_5, 0},
        {GL_RGB, GL_UNSIGNED_SHORT_4_4_4_4, 0},
        {GL_RG, GL_UNSIGNED_SHORT_5_6_5, 0},
        {GL_RED, GL_UNSIGNED_INT_2_10_10_10_REV, 0},
        // Deliberately unsized.
        {GL_RGBA, kUint8888Rev, 0},
        {GL_RGB, kUbyte332, 0},
        {GL_DEPTH_COMPONENT, GL_INT, 0},
        {GL_DEPTH_COMPONENT, GL_UNSIGNED_SHORT, 2},
        {GL_DEPTH_COMPONENT, GL_UNSIGNED_INT, 4},
        {GL_DEPTH_COMPONENT, GL_FLOAT, 4},
        {GL_DEPTH_COMPONENT, GL_UNSIGNED_BYTE, 0},
        {GL_DEPTH_COMPONENT, GL_HALF_FLOAT, 0},
        {GL_DEPTH_STENCIL, GL_UNSIGNED_INT_24_8, 4},
        {GL_DEPTH_STENCIL, GL_FLOAT_32_UNSIGNED_INT_24_8_REV, 8},
        {GL_DEPTH_STENCIL, GL_UNSIGNED_INT, 0},
        {GL_STENCIL_INDEX8, GL_UNSIGNED_BYTE, 0},
        {0x1901 /* GL_STENCIL_INDEX */, GL_UNSIGNED_BYTE, 0},
        {0x1904 /* GL_GREEN */, GL_UNSIGNED_BYTE, 0},
        {0x1905 /* GL_BLUE */, GL_FLOAT, 0},
        {kEtc2Rgba8, GL_UNSIGNED_BYTE, 0},
        {GL_RGBA, 0x1234, 0},
        {4, 5, 0},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(::testing::Message() << std::hex << "format 0x" << r.format << " type 0x" << r.type);
        EXPECT_EQ(texBytesPerPixel(r.format, r.type), r.bpp);
    }
}

TEST(TexSize, StoreStateShapesTheSize) {
    const GLenum rgb = GL_RGB, rgba = GL_RGBA, ub = GL_UNSIGNED_BYTE;
    const struct {
        const char* what;
        Params p;
        int w, h, d;
        GLenum format, type;
        int bytes;
    } rows[] = {
        {"alignment 4: last row not padded", params(4), 3, 2, 1, rgb, ub, 9 + 12},
        {"alignment 1", params(1), 3, 2, 1, rgb, ub, 9 + 9},
        {"alignment 2", params(2), 3, 2, 1, rgb, ub, 9 + 10},
        {"alignment 8", params(8), 3, 2, 1, rgb, ub, 9 + 16},
        {"alignment 0: rows not padded", params(0), 3, 2, 1, rgb, ub, 9 + 9},
        {"row length 0 means width", params(4, 0), 3, 2, 1, rgb, ub, 21},
        {"negative row length means width", params(4, -7), 3, 2, 1, rgb, ub, 21},
        {"row length 10", params(4, 10), 3, 2, 1, rgb, ub, 9 + 32},
        {"skip pixels 2", params(4, 0, 0, 2), 3, 2, 1, rgb, ub, 15 + 12},
        {"skip rows 1", params(4, 0, 0, 0, 1), 3, 2, 1, rgb, ub, 9 + 2 * 12},
        {"skip rows and pixels", params(4, 0, 0, 1, 1), 3, 2, 1, rgb, ub, 12 + 2 * 12},
        {"single row", params(8), 5, 1, 1, rgba, ub, 20},
        {"3D two images", params(4), 3, 2, 2, rgba, ub, 12 + 3 * 12},
        {"3D skip one image adds imageRows x stride", params(4, 0, 0, 0, 0, 1), 3, 2, 2, rgba, ub, 48 + 2 * 12},
        {"3D image height 4", params(4, 0, 4), 3, 2, 2, rgba, ub, 12 + 5 * 12},
        {"3D image height 0 means height", params(4, 0, 0), 3, 2, 2, rgba, ub, 48},
        {"3D negative image height means height", params(4, 0, -3), 3, 2, 2, rgba, ub, 48},
        {"image height ignored for one image", params(4, 0, 9), 3, 2, 1, rgba, ub, 24},
        {"depth 16-bit", params(4), 3, 3, 1, GL_DEPTH_COMPONENT, GL_UNSIGNED_SHORT, 6 + 2 * 8},
        {"half float RGBA", params(4), 2, 2, 1, rgba, GL_HALF_FLOAT, 16 + 16},
        {"width 0", params(4), 0, 2, 1, rgb, ub, 0},
        {"height 0 gives a negative size", params(4), 3, 0, 1, rgb, ub, 9 - 12},
        {"depth 0 reads nothing past the first row start", params(4), 3, 2, 0, rgba, ub, 12 - 12},
        {"unknown pair ignores the skips", params(4, 10, 10, 10, 10, 10), 3, 2, 1, GL_RGBA, kUint8888Rev, 0},
        {"depth with GL_INT", params(4), 3, 2, 1, GL_DEPTH_COMPONENT, GL_INT, 0},
        {"compressed format", params(4), 4, 4, 1, kEtc2Rgba8, ub, 0},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.what);
        EXPECT_EQ(texSize(r.p, r.w, r.h, r.d, r.format, r.type), r.bytes);
    }
}

// Random store state and images, drawn deterministically. The reference is
// the same formula in 64-bit arithmetic with a bpp taken from the test's own
// table; where that fits in 32 bits the layer must give exactly it, and where
// it does not the layer must only return (the wrapped value is not checked).
TEST(TexSize, MatchesA64BitReferenceOverRandomInputs) {
    const struct { GLenum format, type; int bpp; } pairs[] = {
        {GL_RGBA, GL_UNSIGNED_BYTE, 4}, {GL_RGB, GL_UNSIGNED_BYTE, 3}, {GL_RED, GL_UNSIGNED_BYTE, 1},
        {GL_RG, GL_FLOAT, 8},           {GL_RGBA, GL_FLOAT, 16},       {GL_RGB, GL_UNSIGNED_SHORT_5_6_5, 2},
        {GL_DEPTH_STENCIL, GL_FLOAT_32_UNSIGNED_INT_24_8_REV, 8},      {GL_RGBA, kUint8888Rev, 0}};
    // Rows and images of int-range values can pass 64 bits; a step that
    // overflows puts the size far outside int (or multiplies a zero stride,
    // rare enough to leave unchecked), so the draw counts as out of range.
    auto reference = [](const Params& p, int64_t w, int64_t h, int64_t d, int64_t bpp, int64_t* out) {
        if (bpp == 0) {
            *out = 0;
            return true;
        }
        const int64_t rowBytes = bpp * (p.mUnpackRowLength > 0 ? p.mUnpackRowLength : w);
        const int64_t a = p.mUnpackAlignment;
        const int64_t stride = a > 0 ? (rowBytes + a - 1) & ~(a - 1) : rowBytes;
        const int64_t imageRows = p.mUnpackImageHeight > 0 ? p.mUnpackImageHeight : h;
        int64_t rows, body;
        return !__builtin_mul_overflow(p.mUnpackSkipImages + d - 1, imageRows, &rows) &&
               !__builtin_add_overflow(rows, h + p.mUnpackSkipRows - 1, &rows) &&
               !__builtin_mul_overflow(rows, stride, &body) &&
               !__builtin_add_overflow(body, bpp * (w + p.mUnpackSkipPixels), out);
    };
    std::mt19937 rng(0x5EED);
    auto pick = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
    const int alignments[] = {0, 1, 2, 4, 8, -1};
    int inRange = 0;
    for (int i = 0; i < 20000; ++i) {
        // One draw in eight spans the whole int range, the rest stay small.
        const bool wide = pick(0, 7) == 0;
        auto value = [&](int small) { return wide ? pick(INT_MIN, INT_MAX) : pick(-2, small); };
        const Params p = params(alignments[pick(0, 5)], value(300), value(300), value(40), value(40), value(8));
        const auto& f = pairs[pick(0, 7)];
        const int w = value(4096), h = value(4096), d = value(64);
        const int got = texSize(p, w, h, d, f.format, f.type);
        int64_t ref;
        if (reference(p, w, h, d, f.bpp, &ref) && ref >= INT_MIN && ref <= INT_MAX) {
            ++inRange;
            if (got != ref) {
                ADD_FAILURE() << "draw " << i << ": " << got << " != " << ref;
                break;
            }
        }
    }
    EXPECT_GT(inRange, 15000);  // the property was exercised, not skipped
}

// ------------------------------------------------------------------ wrappers

// Client memory whose last byte is followed by an inaccessible page: a copy
// that reads further than it should faults instead of passing.
class GuardedBytes {
public:
    explicit GuardedBytes(size_t bytes) {
        const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        mLength = ((bytes + page - 1) / page + 1) * page;
        mBase = static_cast<uint8_t*>(mmap(nullptr, mLength, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        mprotect(mBase + mLength - page, page, PROT_NONE);
        mData = mBase + mLength - page - bytes;
        mSize = bytes;
    }
    ~GuardedBytes() { munmap(mBase, mLength); }
    uint8_t* data() const { return mData; }
    std::vector<uint8_t> snapshot() const { return std::vector<uint8_t>(mData, mData + mSize); }

private:
    uint8_t* mBase = nullptr;
    uint8_t* mData = nullptr;
    size_t mLength = 0, mSize = 0;
};

class PixelWrapperTest : public ::testing::Test {
protected:
    void SetUp() override {
        fake::reset();
        fake::clearHandlers();
        fake::setResult(0);
        worker = ctx.worker()->postSync([] { return pthread_self(); }, "whoami");
        self = pthread_self();
        ctx.get()->mParams = params(4);
        fake::reset();
    }
    void TearDown() override { fake::clearHandlers(); }

    bool onWorker(const fake::Call& c) const { return pthread_equal(c.thread, worker) != 0; }
    bool onSelf(const fake::Call& c) const { return pthread_equal(c.thread, self) != 0; }

    support::ActiveContext ctx;
    pthread_t worker{};
    pthread_t self{};
};

struct Upload {
    const char* name;
    size_t pointerArg;
    std::function<void(const void*)> call;
};

// The wrappers that copy, each called with a size the table gives: texSize
// under alignment 4 (3x2 RGB = 21, 3x2x2 RGBA = 48) or the compressed
// imageSize.
std::vector<std::pair<Upload, size_t>> uploads() {
    return {
        {{"glTexImage2D", 8, [](const void* p) { kam_glTexImage2D_opt(GL_TEXTURE_2D, 0, GL_RGB, 3, 2, 0, GL_RGB, GL_UNSIGNED_BYTE, p); }}, 21},
        {{"glTexSubImage2D", 8, [](const void* p) { kam_glTexSubImage2D_opt(GL_TEXTURE_2D, 1, 2, 3, 3, 2, GL_RGB, GL_UNSIGNED_BYTE, p); }}, 21},
        {{"glTexImage3D", 9, [](const void* p) { kam_glTexImage3D_opt(GL_TEXTURE_3D, 0, GL_RGBA, 3, 2, 2, 0, GL_RGBA, GL_UNSIGNED_BYTE, p); }}, 48},
        {{"glTexSubImage3D", 10, [](const void* p) { kam_glTexSubImage3D_opt(GL_TEXTURE_3D, 0, 1, 1, 1, 3, 2, 2, GL_RGBA, GL_UNSIGNED_BYTE, p); }}, 48},
        {{"glCompressedTexImage2D", 7, [](const void* p) { kam_glCompressedTexImage2D_opt(GL_TEXTURE_2D, 0, kEtc2Rgba8, 4, 4, 0, 16, p); }}, 16},
        {{"glCompressedTexSubImage2D", 8, [](const void* p) { kam_glCompressedTexSubImage2D_opt(GL_TEXTURE_2D, 0, 4, 4, 4, 4, kEtc2Rgba8, 33, p); }}, 33},
        {{"glCompressedTexImage3D", 8, [](const void* p) { kam_glCompressedTexImage3D_opt(GL_TEXTURE_2D_ARRAY, 0, kEtc2Rgba8, 4, 4, 2, 0, 7, p); }}, 7},
        {{"glCompressedTexSubImage3D", 10, [](const void* p) { kam_glCompressedTexSubImage3D_opt(GL_TEXTURE_2D_ARRAY, 0, 0, 0, 1, 4, 4, 1, kEtc2Rgba8, 5, p); }}, 5},
    };
}

TEST_F(PixelWrapperTest, UploadsCopyExactlyTheirSizeBeforeReturning) {
    for (const auto& [u, bytes] : uploads()) {
        SCOPED_TRACE(u.name);
        GuardedBytes src(bytes);
        for (size_t i = 0; i < bytes; ++i) src.data()[i] = static_cast<uint8_t>(0x40 + i);
        const std::vector<uint8_t> before = src.snapshot();
        std::vector<uint8_t> replayed;
        const void* replayedPointer = nullptr;
        fake::setHandler(u.name, [&, arg = u.pointerArg, n = bytes](const fake::Call& c) {
            replayedPointer = fake::fromBits<const void*>(c.args[arg]);
            auto* p = static_cast<const uint8_t*>(replayedPointer);
            replayed.assign(p, p + n);
            return uint64_t{0};
        });
        fake::reset();
        u.call(src.data());
        const bool nothingYet = fake::calls().empty();
        memset(src.data(), 0xEE, bytes);  // the caller reuses its memory at once
        ctx.drain();
        EXPECT_TRUE(nothingYet) << "an upload with a copy must not wait";
        const auto calls = fake::calls();
        ASSERT_EQ(calls.size(), 1u);
        EXPECT_TRUE(onWorker(calls[0]));
        EXPECT_NE(replayedPointer, static_cast<const void*>(src.data()));
        EXPECT_EQ(replayed, before);
        fake::clearHandlers();
    }
}

TEST_F(PixelWrapperTest, WhatIsNotCopiedIsRecordedOrWaitedFor) {
    uint8_t data[64] = {};
    const void* client = data;
    const void* const boundary = reinterpret_cast<const void*>(0x10000);
    const void* const justAbove = reinterpret_cast<const void*>(0x10001);  // never read: its size is 0
    const void* const offset = reinterpret_cast<const void*>(0x2000000);
    const struct {
        const char* what;
        GLenum bufferTarget;  // bound to a buffer for the call, 0: none
        std::function<void()> call;
        const char* name;
        size_t pointerArg;
        const void* pointer;
        bool waits;
    } rows[] = {
        {"0x10000 is an offset", 0, [&] { kam_glTexImage2D_opt(GL_TEXTURE_2D, 0, GL_RGB, 3, 2, 0, GL_RGB, GL_UNSIGNED_BYTE, boundary); },
         "glTexImage2D", 8, boundary, false},
        {"0x10001 is client memory (unsized: waits)", 0,
         [&] { kam_glTexImage2D_opt(GL_TEXTURE_2D, 0, GL_RGBA, 3, 2, 0, GL_RGBA, kUint8888Rev, justAbove); }, "glTexImage2D", 8,
         justAbove, true},
        {"null is recorded", 0, [&] { kam_glTexImage2D_opt(GL_TEXTURE_2D, 0, GL_RGB, 3, 2, 0, GL_RGB, GL_UNSIGNED_BYTE, nullptr); },
         "glTexImage2D", 8, nullptr, false},
        {"bound unpack buffer: large value is an offset", GL_PIXEL_UNPACK_BUFFER,
         [&] { kam_glTexSubImage3D_opt(GL_TEXTURE_3D, 0, 0, 0, 0, 3, 2, 2, GL_RGBA, GL_UNSIGNED_BYTE, offset); }, "glTexSubImage3D",
         10, offset, false},
        {"bound unpack buffer: compressed offset", GL_PIXEL_UNPACK_BUFFER,
         [&] { kam_glCompressedTexImage2D_opt(GL_TEXTURE_2D, 0, kEtc2Rgba8, 4, 4, 0, 16, offset); }, "glCompressedTexImage2D", 7, offset,
         false},
        {"bound pack buffer does not make an upload an offset", GL_PIXEL_PACK_BUFFER,
         [&] { kam_glTexImage2D_opt(GL_TEXTURE_2D, 0, GL_RGBA, 1, 1, 0, GL_RGBA, kUint8888Rev, client); }, "glTexImage2D", 8, client,
         true},
        {"depth GL_INT is unsized", 0,
         [&] { kam_glTexImage2D_opt(GL_TEXTURE_2D, 0, GL_DEPTH_COMPONENT, 3, 2, 0, GL_DEPTH_COMPONENT, GL_INT, client); },
         "glTexImage2D", 8, client, true},
        {"compressed format through glTexImage2D is unsized", 0,
         [&] { kam_glTexSubImage2D_opt(GL_TEXTURE_2D, 0, 0, 0, 4, 4, kEtc2Rgba8, GL_UNSIGNED_BYTE, client); }, "glTexSubImage2D", 8,
         client, true},
        {"negative size (height 0)", 0,
         [&] { kam_glTexImage3D_opt(GL_TEXTURE_3D, 0, GL_RGB, 3, 0, 1, 0, GL_RGB, GL_UNSIGNED_BYTE, client); }, "glTexImage3D", 9, client,
         true},
        {"compressed imageSize 0", 0, [&] { kam_glCompressedTexSubImage3D_opt(GL_TEXTURE_2D_ARRAY, 0, 0, 0, 0, 4, 4, 1, kEtc2Rgba8, 0, client); },
         "glCompressedTexSubImage3D", 10, client, true},
        {"compressed negative imageSize", 0,
         [&] { kam_glCompressedTexImage3D_opt(GL_TEXTURE_2D_ARRAY, 0, kEtc2Rgba8, 4, 4, 1, 0, -16, client); }, "glCompressedTexImage3D",
         8, client, true},
        {"read into client memory waits", 0, [&] { kam_glReadPixels_opt(0, 0, 4, 4, GL_RGBA, GL_UNSIGNED_BYTE, data); }, "glReadPixels",
         6, client, true},
        {"read to a pack-buffer offset is recorded", 0,
         [&] { kam_glReadPixels_opt(0, 0, 4, 4, GL_RGBA, GL_UNSIGNED_BYTE, reinterpret_cast<void*>(0x100)); }, "glReadPixels", 6,
         reinterpret_cast<const void*>(0x100), false},
        {"read with a bound pack buffer is recorded", GL_PIXEL_PACK_BUFFER,
         [&] { kam_glReadPixels_opt(0, 0, 4, 4, GL_RGBA, GL_UNSIGNED_BYTE, const_cast<void*>(offset)); }, "glReadPixels", 6, offset,
         false},
        {"bound unpack buffer does not make a read an offset", GL_PIXEL_UNPACK_BUFFER,
         [&] { kam_glReadPixels_opt(0, 0, 4, 4, GL_RGBA, GL_UNSIGNED_BYTE, data); }, "glReadPixels", 6, client, true},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.what);
        if (r.bufferTarget != 0) ctx.get()->mBindings.bindBuffer(r.bufferTarget, 7);
        fake::reset();
        r.call();
        const auto atReturn = fake::calls();
        ctx.drain();
        if (r.bufferTarget != 0) ctx.get()->mBindings.bindBuffer(r.bufferTarget, 0);
        const auto after = fake::calls();
        ASSERT_EQ(after.size(), 1u);
        EXPECT_EQ(after[0].name, r.name);
        EXPECT_TRUE(onWorker(after[0]));
        EXPECT_EQ(atReturn.size(), r.waits ? 1u : 0u);
        EXPECT_EQ(after[0].args[r.pointerArg], fake::bits(r.pointer));
    }
}

TEST_F(PixelWrapperTest, ReadIntoClientMemoryIsFilledBeforeReturning) {
    fake::setHandler("glReadPixels", [](const fake::Call& c) {
        auto* out = fake::fromBits<uint8_t*>(c.args[6]);
        for (int i = 0; i < 16; ++i) out[i] = static_cast<uint8_t>(0xA0 + i);
        return uint64_t{0};
    });
    uint8_t pixels[16] = {};
    kam_glReadPixels_opt(0, 0, 2, 2, GL_RGBA, GL_UNSIGNED_BYTE, pixels);
    for (int i = 0; i < 16; ++i) {
        if (pixels[i] != 0xA0 + i) {
            ADD_FAILURE() << "byte " << i << " not written before the wrapper returned";
            break;
        }
    }
}

TEST_F(PixelWrapperTest, UploadSizeFollowsTheSnapshot) {
    // Row length 5 with alignment 8: a 3x2 RGB upload reads 9 + 16 bytes.
    ctx.get()->mParams = params(8, 5);
    GuardedBytes src(25);
    memset(src.data(), 0x5A, 25);
    std::vector<uint8_t> replayed;
    fake::setHandler("glTexImage2D", [&](const fake::Call& c) {
        auto* p = fake::fromBits<const uint8_t*>(c.args[8]);
        replayed.assign(p, p + 25);
        return uint64_t{0};
    });
    kam_glTexImage2D_opt(GL_TEXTURE_2D, 0, GL_RGB, 3, 2, 0, GL_RGB, GL_UNSIGNED_BYTE, src.data());
    memset(src.data(), 0, 25);
    ctx.drain();
    EXPECT_EQ(replayed, std::vector<uint8_t>(25, 0x5A));
}

TEST(PixelWrapperPassThrough, WithoutAContextUploadsGoToTheOriginOnTheCallingThread) {
    support::initLayer();
    std::vector<fake::Call> calls;
    bool allOnCaller = true;
    uint8_t data[32] = {};
    std::thread([&] {
        fake::reset();
        kam_glTexImage2D_opt(GL_TEXTURE_2D, 0, GL_RGB, 3, 2, 0, GL_RGB, GL_UNSIGNED_BYTE, data);
        kam_glPixelStorei_opt(GL_UNPACK_ALIGNMENT, 1);
        calls = fake::calls();
        for (const auto& c : calls) allOnCaller = allOnCaller && pthread_equal(c.thread, pthread_self());
    }).join();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].name, "glTexImage2D");
    EXPECT_EQ(calls[0].args[8], fake::bits(static_cast<const void*>(data)));
    EXPECT_EQ(calls[1].name, "glPixelStorei");
    EXPECT_TRUE(allOnCaller);
}

// ------------------------------------------------------------------ pixel store

TEST_F(PixelWrapperTest, PixelStoreUpdatesOnlyTheUnpackSnapshotAndReachesBothThreads) {
    Params& p = ctx.get()->mParams;
    const struct { GLenum pname; GLint Params::*field; } rows[] = {
        {GL_UNPACK_ROW_LENGTH, &Params::mUnpackRowLength},
        {GL_UNPACK_SKIP_ROWS, &Params::mUnpackSkipRows},
        {GL_UNPACK_SKIP_PIXELS, &Params::mUnpackSkipPixels},
        {GL_UNPACK_ALIGNMENT, &Params::mUnpackAlignment},
        {GL_UNPACK_SKIP_IMAGES, &Params::mUnpackSkipImages},
        {GL_UNPACK_IMAGE_HEIGHT, &Params::mUnpackImageHeight},
        {GL_PACK_ALIGNMENT, nullptr},
        {GL_PACK_ROW_LENGTH, nullptr},
        {GL_PACK_SKIP_ROWS, nullptr},
        {GL_PACK_SKIP_PIXELS, nullptr},
        {0x1234, nullptr},
    };
    GLint Params::*const all[] = {&Params::mUnpackAlignment, &Params::mUnpackRowLength, &Params::mUnpackImageHeight,
                                   &Params::mUnpackSkipPixels, &Params::mUnpackSkipRows, &Params::mUnpackSkipImages};
    for (const auto& r : rows) {
        SCOPED_TRACE(::testing::Message() << "pname 0x" << std::hex << r.pname);
        for (auto f : all) p.*f = -100;
        fake::reset();
        kam_glPixelStorei_opt(r.pname, 8);
        const auto atReturn = fake::calls();
        ctx.drain();
        const auto after = fake::calls();
        for (auto f : all) EXPECT_EQ(p.*f, f == r.field ? 8 : -100);
        ASSERT_EQ(atReturn.size(), 1u);
        EXPECT_TRUE(onSelf(atReturn[0]));
        ASSERT_EQ(after.size(), 2u);
        EXPECT_TRUE(onWorker(after[1]));
        for (const auto& c : after) {
            EXPECT_EQ(c.name, "glPixelStorei");
            EXPECT_EQ(c.args, (std::vector<uint64_t>{r.pname, 8}));
        }
    }
}

TEST_F(PixelWrapperTest, PixelStoreOnAnIdleContextUpdatesTheSnapshotWithoutRecording) {
    KAMThreadLocal* t = gThreadRecord;
    t->mActiveContext = nullptr;  // attached, offload not running
    kam_glPixelStorei_opt(GL_UNPACK_SKIP_ROWS, 3);
    const auto atReturn = fake::calls();
    ctx.drain();
    const auto after = fake::calls();
    t->mActiveContext = ctx.get();
    EXPECT_EQ(ctx.get()->mParams.mUnpackSkipRows, 3);
    ASSERT_EQ(atReturn.size(), 1u);
    EXPECT_TRUE(onSelf(atReturn[0]));
    EXPECT_EQ(after.size(), 1u);
}

TEST_F(PixelWrapperTest, InitReadsTheSixUnpackValuesInOrder) {
    fake::setHandler("glGetIntegerv", [](const fake::Call& c) {
        *fake::fromBits<GLint*>(c.args[1]) = static_cast<GLint>(c.args[0] & 0xFFF);
        return uint64_t{0};
    });
    Params p;
    p.init();
    std::vector<uint64_t> order;
    for (const auto& c : fake::calls()) {
        EXPECT_EQ(c.name, "glGetIntegerv");
        order.push_back(c.args[0]);
    }
    EXPECT_EQ(order, (std::vector<uint64_t>{GL_UNPACK_ROW_LENGTH, GL_UNPACK_ALIGNMENT, GL_UNPACK_IMAGE_HEIGHT,
                                            GL_UNPACK_SKIP_PIXELS, GL_UNPACK_SKIP_ROWS, GL_UNPACK_SKIP_IMAGES}));
    EXPECT_EQ(p.mUnpackRowLength, GL_UNPACK_ROW_LENGTH & 0xFFF);
    EXPECT_EQ(p.mUnpackAlignment, GL_UNPACK_ALIGNMENT & 0xFFF);
    EXPECT_EQ(p.mUnpackImageHeight, GL_UNPACK_IMAGE_HEIGHT & 0xFFF);
    EXPECT_EQ(p.mUnpackSkipPixels, GL_UNPACK_SKIP_PIXELS & 0xFFF);
    EXPECT_EQ(p.mUnpackSkipRows, GL_UNPACK_SKIP_ROWS & 0xFFF);
    EXPECT_EQ(p.mUnpackSkipImages, GL_UNPACK_SKIP_IMAGES & 0xFFF);
}

}  // namespace
