// Image uploads and reads on an offloaded thread: the bytes the GL's rule
// says an upload reads under the pixel-store state are copied before the
// wrapper returns, no byte more (the caller's memory ends at a guard page);
// what cannot be sized waits for the worker with the caller's pointer.

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "call_cases.h"
#include "kam_wrappers.h"
#include "recording/Record.h"
#include "shadow/TexSize.h"
#include "support.h"

using namespace android;
using cases::Guarded;

namespace {

constexpr GLenum kBgra = 0x80E1, kHalfOes = 0x8D61, k8888Rev = 0x8367, k4444Rev = 0x8365, k1555Rev = 0x8366;
constexpr GLenum kEtc2 = 0x9278;

TEST(TexBytesPerPixel, TheGlsTablesOfFormatsAndTypes) {
    const struct { GLenum format; int n; } formats[] = {
        {GL_RED, 1}, {GL_ALPHA, 1}, {GL_LUMINANCE, 1}, {GL_RED_INTEGER, 1}, {GL_LUMINANCE_ALPHA, 2}, {GL_RG, 2},
        {GL_RG_INTEGER, 2}, {GL_RGB, 3}, {GL_RGB_INTEGER, 3}, {GL_RGBA, 4}, {kBgra, 4}, {GL_RGBA_INTEGER, 4}};
    const struct { GLenum type; int bytes; } types[] = {
        {GL_BYTE, 1}, {GL_UNSIGNED_BYTE, 1}, {GL_SHORT, 2}, {GL_UNSIGNED_SHORT, 2}, {GL_HALF_FLOAT, 2},
        {kHalfOes, 2}, {GL_INT, 4}, {GL_UNSIGNED_INT, 4}, {GL_FLOAT, 4}, {0x1407, 0}, {0x1408, 0}, {0x1409, 0},
        {0x140A, 0}};
    for (const auto& f : formats)
        for (const auto& t : types)
            EXPECT_EQ(texBytesPerPixel(f.format, t.type), f.n * t.bytes) << std::hex << f.format << " " << t.type;
    // Packed types fit only the component count they were made for; some
    // pairs are deliberately unsized.
    const struct { GLenum format, type; int bpp; } rows[] = {
        {GL_RGB, GL_UNSIGNED_SHORT_5_6_5, 2}, {GL_RGB, GL_UNSIGNED_INT_10F_11F_11F_REV, 4},
        {GL_RGB_INTEGER, GL_UNSIGNED_INT_5_9_9_9_REV, 4}, {GL_RGBA, GL_UNSIGNED_SHORT_4_4_4_4, 2},
        {kBgra, GL_UNSIGNED_SHORT_5_5_5_1, 2}, {GL_RGBA, k4444Rev, 2}, {GL_RGBA_INTEGER, k1555Rev, 2},
        {GL_RGBA, GL_UNSIGNED_INT_2_10_10_10_REV, 4}, {GL_RGBA, GL_UNSIGNED_SHORT_5_6_5, 0},
        {GL_RGB, GL_UNSIGNED_SHORT_4_4_4_4, 0}, {GL_RG, GL_UNSIGNED_SHORT_5_6_5, 0},
        {GL_RED, GL_UNSIGNED_INT_2_10_10_10_REV, 0}, {GL_RGBA, k8888Rev, 0}, {GL_RGB, 0x8032, 0},
        {GL_DEPTH_COMPONENT, GL_INT, 0}, {GL_DEPTH_COMPONENT, GL_UNSIGNED_SHORT, 2},
        {GL_DEPTH_COMPONENT, GL_UNSIGNED_INT, 4}, {GL_DEPTH_COMPONENT, GL_FLOAT, 4},
        {GL_DEPTH_COMPONENT, GL_UNSIGNED_BYTE, 0}, {GL_DEPTH_COMPONENT, GL_HALF_FLOAT, 0},
        {GL_DEPTH_STENCIL, GL_UNSIGNED_INT_24_8, 4}, {GL_DEPTH_STENCIL, GL_FLOAT_32_UNSIGNED_INT_24_8_REV, 8},
        {GL_DEPTH_STENCIL, GL_UNSIGNED_INT, 0}, {GL_STENCIL_INDEX8, GL_UNSIGNED_BYTE, 0}, {0x1901, GL_UNSIGNED_BYTE, 0},
        {0x1904, GL_UNSIGNED_BYTE, 0}, {kEtc2, GL_UNSIGNED_BYTE, 0}, {GL_RGBA, 0x1234, 0}, {4, 5, 0}};
    for (const auto& r : rows) EXPECT_EQ(texBytesPerPixel(r.format, r.type), r.bpp) << std::hex << r.format << " " << r.type;
}

// Every texture and sampler parameter of OpenGL ES 3.2 and its extensions
// with the bytes its array holds; every other value is unsized (0: the call
// waits for the worker with the caller's pointer).
TEST(TexParamBytes, EveryPnameOfTheGl) {
    const struct { GLenum pname; int bytes; } known[] = {
        {GL_TEXTURE_BORDER_COLOR, 16}, {GL_TEXTURE_MAG_FILTER, 4}, {GL_TEXTURE_MIN_FILTER, 4},
        {GL_TEXTURE_WRAP_S, 4}, {GL_TEXTURE_WRAP_T, 4}, {GL_TEXTURE_WRAP_R, 4}, {GL_TEXTURE_MIN_LOD, 4},
        {GL_TEXTURE_MAX_LOD, 4}, {GL_TEXTURE_MAX_LEVEL, 4}, {GL_TEXTURE_COMPARE_MODE, 4},
        {GL_TEXTURE_COMPARE_FUNC, 4}, {GL_TEXTURE_SWIZZLE_R, 4}, {GL_TEXTURE_SWIZZLE_G, 4},
        {GL_TEXTURE_SWIZZLE_B, 4}, {GL_TEXTURE_SWIZZLE_A, 4},
        // Left to the synchronous path.
        {GL_TEXTURE_BASE_LEVEL, 0}, {GL_DEPTH_STENCIL_TEXTURE_MODE, 0}, {0x84FE /* MAX_ANISOTROPY */, 0},
        {0x8A48 /* SRGB_DECODE */, 0}, {0x8B9D /* CROP_RECT_OES */, 0}, {0x8191 /* GENERATE_MIPMAP */, 0},
        {0x9580 /* TILING_EXT */, 0}, {0x8FBF /* PROTECTED_EXT */, 0}, {0x912F /* IMMUTABLE_FORMAT */, 0}};
    std::vector<int> expected(0x10000, 0);
    for (const auto& k : known) expected[k.pname] = k.bytes;
    for (long long pname = 0; pname < 0x10000; ++pname) ASSERT_EQ(texParamBytes(pname), expected[pname]) << pname;
    EXPECT_EQ(texParamBytes(0x11004), 0);
    EXPECT_EQ(texParamBytes(-1), 0);
}

class PixelTest : public ::testing::Test {
protected:
    void SetUp() override {
        fake::clearHandlers();
        worker = ctx.worker()->postSync([] { return pthread_self(); }, "whoami");
        ctx.get()->mParams = Params{4, 0, 0, 0, 0, 0};
        fake::reset();
    }
    bool on(const fake::Call& c, pthread_t t) const { return pthread_equal(c.thread, t) != 0; }
    support::ActiveContext ctx;
    pthread_t worker{};
};

struct Store {
    GLenum pname;
    GLint value;
};

// The caller's pointer kinds: its exact memory, null, the largest offset,
// and the smallest client address (used only where nothing is read).
enum Ptr { kExact, kNull, kThreshold, kJustAbove };

// Every row through the four uploads and every pointer kind, with the bytes
// the GL reads for a 2D and a 3D image (0: none, the upload waits) under the
// unpack state the GL keeps: no negative values, alignments 1, 2, 4 and 8.
TEST_F(PixelTest, UploadsCopyWhatTheGlReads) {
    const long long kHuge = LLONG_MAX;
    const struct {
        const char* what;
        int w, h, d;
        GLenum format, type;
        std::vector<Store> stores;
        long long bytes2D, bytes3D;
    } rows[] = {
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
        {"packed 5_6_5", 3, 2, 1, GL_RGB, GL_UNSIGNED_SHORT_5_6_5, {}, 14, 14},
        {"packed 4_4_4_4", 2, 2, 1, GL_RGBA, GL_UNSIGNED_SHORT_4_4_4_4, {}, 8, 8},
        {"depth and stencil", 3, 2, 1, GL_DEPTH_STENCIL, GL_UNSIGNED_INT_24_8, {}, 24, 24},
        {"half float", 2, 2, 1, GL_RGBA, GL_HALF_FLOAT, {}, 32, 32},
        {"unsized type", 3, 2, 1, GL_RGBA, k8888Rev, {}, 0, 0},
        {"depth GL_INT is unsized", 3, 2, 1, GL_DEPTH_COMPONENT, GL_INT, {}, 0, 0},
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
    const struct {
        const char* name;
        bool threeD;
        Upload upload;
    } uploads[] = {
        {"glTexImage2D", false, [](int w, int h, int, GLenum f, GLenum t, const void* p) { kam_glTexImage2D_opt(GL_TEXTURE_2D, 0, GL_RGBA, w, h, 0, f, t, p); }},
        {"glTexSubImage2D", false, [](int w, int h, int, GLenum f, GLenum t, const void* p) { kam_glTexSubImage2D_opt(GL_TEXTURE_2D, 0, 1, 1, w, h, f, t, p); }},
        {"glTexImage3D", true, [](int w, int h, int d, GLenum f, GLenum t, const void* p) { kam_glTexImage3D_opt(GL_TEXTURE_3D, 0, GL_RGBA, w, h, d, 0, f, t, p); }},
        {"glTexSubImage3D", true, [](int w, int h, int d, GLenum f, GLenum t, const void* p) { kam_glTexSubImage3D_opt(GL_TEXTURE_3D, 0, 1, 1, 1, w, h, d, f, t, p); }},
    };
    for (const auto& r : rows)
        for (const auto& u : uploads)
            for (Ptr kind : {kExact, kNull, kThreshold, kJustAbove}) {
                SCOPED_TRACE(std::string(u.name) + ": " + r.what + ", pointer kind " + std::to_string(kind));
                const long long bytes = u.threeD ? r.bytes3D : r.bytes2D;
                if (kind == kJustAbove && bytes >= 1) continue;  // an address the GL would read
                if (kind == kExact && bytes > 64ll << 30) continue;
                std::vector<Store> stores = {{GL_UNPACK_ALIGNMENT, 4}, {GL_UNPACK_ROW_LENGTH, 0}, {GL_UNPACK_IMAGE_HEIGHT, 0},
                                             {GL_UNPACK_SKIP_PIXELS, 0}, {GL_UNPACK_SKIP_ROWS, 0}, {GL_UNPACK_SKIP_IMAGES, 0}};
                stores.insert(stores.end(), r.stores.begin(), r.stores.end());
                fake::reset();
                for (const Store& s : stores) kam_glPixelStorei_opt(s.pname, s.value);
                ctx.drain();
                // Each store reaches the driver on the calling thread, whose
                // placeholder context keeps the same state, and on the worker.
                size_t replayed = 0;
                for (const auto& c : fake::calls()) replayed += on(c, worker);
                EXPECT_EQ(fake::calls().size(), 2 * stores.size());
                EXPECT_EQ(replayed, stores.size());
                Guarded caller(kind == kExact ? bytes : 0);
                const void* p = kind == kExact ? caller.data() : kind == kNull ? nullptr
                                : reinterpret_cast<const void*>(uintptr_t{kind == kThreshold ? 0x10000u : 0x10001u});
                if (kind == kExact && p == nullptr) continue;  // no such address space here
                fake::reset();
                u.upload(r.w, r.h, r.d, r.format, r.type, p);
                const size_t atReturn = fake::calls().size();
                ctx.drain();
                const auto calls = fake::calls();
                ASSERT_EQ(calls.size(), 1u);
                const void* got = fake::fromBits<const void*>(calls[0].args.back());
                if (kind != kExact || bytes < 1) {
                    EXPECT_EQ(got, p);
                    EXPECT_EQ(atReturn, (kind == kExact || kind == kJustAbove) ? 1u : 0u) << "waits when unsized";
                } else if (caller.filled()) {
                    EXPECT_EQ(atReturn, 0u);
                    ASSERT_NE(got, p);
                    EXPECT_EQ(memcmp(got, p, static_cast<size_t>(bytes)), 0);
                }
                ctx.frameBoundary();
            }
}

// Offsets into a bound buffer are recorded as they are; reads into client
// memory, and uploads no size can be given for, wait.
TEST_F(PixelTest, OffsetsAreRecordedAndReadsIntoClientMemoryWait) {
    uint8_t data[64] = {};
    void* const offset = reinterpret_cast<void*>(0x2000000);
    auto read = [](void* p) { kam_glReadPixels_opt(0, 0, 4, 4, GL_RGBA, GL_UNSIGNED_BYTE, p); };
    const struct {
        GLenum bound;  // buffer bound for the call, 0: none
        std::function<void(void*)> call;
        void* pointer;
        bool waits;
    } rows[] = {
        {GL_PIXEL_UNPACK_BUFFER, [](void* p) { kam_glTexSubImage3D_opt(GL_TEXTURE_3D, 0, 0, 0, 0, 3, 2, 2, GL_RGBA, GL_UNSIGNED_BYTE, p); }, offset, false},
        {GL_PIXEL_UNPACK_BUFFER, [](void* p) { kam_glCompressedTexImage2D_opt(GL_TEXTURE_2D, 0, kEtc2, 4, 4, 0, 16, p); }, offset, false},
        {GL_PIXEL_PACK_BUFFER, [](void* p) { kam_glTexImage2D_opt(GL_TEXTURE_2D, 0, GL_RGBA, 1, 1, 0, GL_RGBA, k8888Rev, p); }, data, true},
        {0, [](void* p) { kam_glCompressedTexSubImage3D_opt(GL_TEXTURE_2D_ARRAY, 0, 0, 0, 0, 4, 4, 1, kEtc2, 0, p); }, data, true},
        {0, read, data, true},
        {0, read, reinterpret_cast<void*>(0x100), false},
        {GL_PIXEL_PACK_BUFFER, read, offset, false},
        {GL_PIXEL_UNPACK_BUFFER, read, data, true},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(::testing::Message() << r.bound << " " << r.pointer);
        ctx.get()->mBindings.bindBuffer(r.bound ? r.bound : GL_PIXEL_PACK_BUFFER, r.bound ? 7 : 0);
        fake::reset();
        r.call(r.pointer);
        EXPECT_EQ(fake::calls().size(), r.waits ? 1u : 0u);
        ctx.drain();
        ctx.get()->mBindings.bindBuffer(r.bound ? r.bound : GL_PIXEL_PACK_BUFFER, 0);
        ASSERT_EQ(fake::calls().size(), 1u);
        EXPECT_TRUE(on(fake::calls()[0], worker));
        EXPECT_EQ(fake::calls()[0].args.back(), fake::bits(r.pointer));
    }
}

}  // namespace
