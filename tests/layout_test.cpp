// Command classes with 64-bit members in the frame arena. On 32-bit ARM
// (EABI) a GLuint64, GLint64EXT or GLdouble member is 8-aligned, so after an
// odd number of 32-bit words (the vtable pointer counts) the compiler pads
// before it, and the compiler may use ldrd/strd or vldr/vstr for it, which
// need the object itself 8-aligned: the arena must hand out 8-aligned blocks
// and no command class may ask for more. On 64-bit hosts the same classes
// mix 64-bit pointer-sized members (GLintptr, GLsizeiptr, GLsync) with
// 32-bit words. The rows below cover each member order the generated classes
// use: 64-bit values after one, two, three or ten 32-bit words, first, in the
// middle, runs of them, and a byte after one.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <type_traits>

#include "kam_bridges.h"
#include "kam_wrappers.h"
#include "recording/Record.h"
#include "support.h"
#include "transport/KAMMemory.h"

using namespace android;

namespace {

constexpr size_t kArenaAlign = KAMMemory::kAlignment;

static_assert(alignof(GLuint64) == 8 && alignof(GLint64EXT) == 8 && alignof(GLdouble) == 8,
              "64-bit GL values are 8-aligned members on every target the layer is built for");

// A distinct value per argument whose two 32-bit halves both carry bits, so a
// lost or swapped high word shows.
template <class T>
T argValue(int k) {
    if constexpr (std::is_pointer_v<T>) {
        return reinterpret_cast<T>(static_cast<uintptr_t>(0x10000 * (k + 1) + 8));
    } else if constexpr (std::is_floating_point_v<T>) {
        return sizeof(T) == 8 ? static_cast<T>(1.0 + std::ldexp(k + 1.0, -45)) : static_cast<T>(k + 0.5);
    } else if constexpr (sizeof(T) == 8) {
        return static_cast<T>(0xF0E0D0C080000001ull + 0x0101010101010101ull * static_cast<uint64_t>(k));
    } else {
        return static_cast<T>(0x80000001u + static_cast<uint32_t>(k));
    }
}

template <class B, class Pfn>
struct Row;

template <class B, class R, class... A>
struct Row<B, R (*)(A...)> {
    static void check(support::ActiveContext& ctx) {
        KAMMemory& mem = ctx.get()->mMemory;
        KAMMemory unprepared;  // every request goes to a separate block
        // After a copy of client memory of any size, in the block and in a
        // separate block: each placement where the command could land.
        for (size_t before : {1u, 3u, 4u, 7u}) {
            mem.malloc(before, nullptr);
            for (void* p : {mem.malloc(sizeof(B), nullptr), unprepared.malloc(sizeof(B), nullptr)}) {
                EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % kArenaAlign, 0u) << before;
            }
        }
        // The recording path proper: built in the arena, replayed on the worker.
        fake::reset();
        mem.malloc(5, nullptr);
        call(ctx, std::index_sequence_for<A...>{});
        EXPECT_EQ(reinterpret_cast<uintptr_t>(mem.mCursor - sizeof(B)) % kArenaAlign, 0u);
        ctx.drain();
        auto calls = fake::calls();
        ASSERT_EQ(calls.size(), 1u);
        EXPECT_EQ(calls[0].args, expected(std::index_sequence_for<A...>{}));
    }

    template <size_t... K>
    static void call(support::ActiveContext& ctx, std::index_sequence<K...>) {
        kamRecord<B>(ctx.get(), argValue<A>(static_cast<int>(K))...);
    }
    template <size_t... K>
    static std::vector<uint64_t> expected(std::index_sequence<K...>) {
        return {fake::bits(argValue<A>(static_cast<int>(K)))...};
    }
};

#define LAYOUT_ROW(name) {#name, &Row<name##_Bridge, kam_pfn_##name>::check}

struct LayoutCase {
    const char* name;
    void (*check)(support::ActiveContext&);
};

const LayoutCase kLayoutCases[] = {
    LAYOUT_ROW(glWaitSync),                        // pointer, word, 64
    LAYOUT_ROW(glUniform4ui64NV),                  // word, four 64
    LAYOUT_ROW(glProgramUniform2i64NV),            // two words, two 64
    LAYOUT_ROW(glBufferStorageMemEXT),             // word, pointer-sized, word, 64
    LAYOUT_ROW(glBufferPageCommitmentMemNV),       // word, two pointer-sized, word, 64, byte
    LAYOUT_ROW(glImportMemoryFdEXT),               // word, 64, two words
    LAYOUT_ROW(glDrawVkImageNV),                   // 64 first, word, nine floats
    LAYOUT_ROW(glMakeImageHandleResidentNV),       // 64, word
    LAYOUT_ROW(glMatrixFrustumEXT),                // word, six doubles
    LAYOUT_ROW(glTexStorageMem2DMultisampleEXT),   // five words, byte, word, 64
    LAYOUT_ROW(glTexturePageCommitmentMemNV),      // ten words, 64, byte
    LAYOUT_ROW(glBindBufferRange),                 // three words, two pointer-sized
};

TEST(CommandLayoutTest, SixtyFourBitMembersAreArenaAlignedAndReplayExactly) {
    support::ActiveContext ctx;
    for (const LayoutCase& c : kLayoutCases) {
        SCOPED_TRACE(c.name);
        c.check(ctx);
    }
}

}  // namespace

// Where size_t is 32 bits, a client copy sized from a huge index or count
// wraps to a few bytes. The copy must be given up (the driver gets the
// application's pointer, as without the layer) rather than sized by the
// wrapped value or overrun by the strided vertex copy. Such sizes do not
// wrap on 64-bit targets.
TEST(ThirtyTwoBitSizeTest, CopiesTooLargeForSizeTKeepTheApplicationPointer) {
    if (sizeof(size_t) > 4) GTEST_SKIP() << "64-bit size_t: these copy sizes cannot wrap";
    support::ActiveContext ctx;
    fake::reset();
    const uint8_t vertices[16] = {};
    const GLuint indices[] = {0, 0x55555555u};  // 0x55555556 vertices of 3 bytes: 2 bytes wrapped
    ctx.get()->mClientArrays = true;
    kam_glVertexAttribPointer_opt(0, 3, GL_UNSIGNED_BYTE, GL_FALSE, 4, vertices);
    kam_glDrawElements_opt(GL_POINTS, 2, GL_UNSIGNED_INT, indices);
    // 0x40000001 indices of 4 bytes: 4 bytes wrapped. No vertex copy, which
    // would read them all first.
    ctx.get()->mClientArrays = false;
    kam_glDrawElements_opt(GL_POINTS, 0x40000001, GL_UNSIGNED_INT, indices);
    ctx.drain();
    const std::vector<fake::Call> calls = fake::calls();
    int attribs = 0;
    for (const fake::Call& c : calls) {
        if (c.name != "glVertexAttribPointer") continue;
        ++attribs;
        EXPECT_EQ(c.args[5], fake::bits(vertices));
    }
    EXPECT_GE(attribs, 1);  // every pointer the worker was given is the application's
    ASSERT_FALSE(calls.empty());
    EXPECT_EQ(calls.back().name, "glDrawElements");
    EXPECT_EQ(calls.back().args, (std::vector<uint64_t>{GL_POINTS, 0x40000001, GL_UNSIGNED_INT, fake::bits(indices)}));
}
