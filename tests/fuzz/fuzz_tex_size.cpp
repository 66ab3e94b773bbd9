// Upload sizes from hostile pixel-store state and image sizes, for every
// format/type pair the layer sizes: no undefined arithmetic (the fuzz build
// runs UBSan), and no size for a pair the layer does not know. Exact sizes,
// wrapped ones included, are the unit tests' table.

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdlib>

#include "shadow/Params.h"
#include "shadow/TexSize.h"
#include "support.h"

using namespace android;

namespace {

// Interesting values first: the provider picks from the table most of the time.
int value(FuzzedDataProvider& in) {
    static constexpr int kEdges[] = {0, 1, -1, 2, 3, 4, 8, 0x7FFF, 0x8000, 0x10000, 0x10001, 0x40000000,
                                     0x3FFFFFFF, -0x3FFFFFFF, 0x7FFFFFFF, -0x7FFFFFFF - 1, 4096, 16384};
    if (in.ConsumeBool()) return kEdges[in.ConsumeIntegralInRange<size_t>(0, sizeof kEdges / sizeof *kEdges - 1)];
    return in.ConsumeIntegral<int>();
}

unsigned int enumValue(FuzzedDataProvider& in, const unsigned int* table, size_t n) {
    return in.ConsumeBool() ? table[in.ConsumeIntegralInRange<size_t>(0, n - 1)] : in.ConsumeIntegral<unsigned int>();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static constexpr unsigned int kFormats[] = {GL_RED, GL_ALPHA, GL_LUMINANCE, GL_RED_INTEGER, GL_LUMINANCE_ALPHA,
                                                GL_RG, GL_RG_INTEGER, GL_RGB, GL_RGB_INTEGER, GL_RGBA, 0x80E1,
                                                GL_RGBA_INTEGER, GL_DEPTH_COMPONENT, GL_DEPTH_STENCIL, GL_GREEN,
                                                GL_STENCIL_INDEX8, 0};
    static constexpr unsigned int kTypes[] = {GL_BYTE, GL_UNSIGNED_BYTE, GL_SHORT, GL_UNSIGNED_SHORT, GL_INT,
                                              GL_UNSIGNED_INT, GL_FLOAT, GL_HALF_FLOAT, 0x8D61, 0x1407, 0x140A,
                                              GL_UNSIGNED_SHORT_5_6_5, GL_UNSIGNED_SHORT_4_4_4_4,
                                              GL_UNSIGNED_SHORT_5_5_5_1, 0x8365, 0x8366,
                                              GL_UNSIGNED_INT_2_10_10_10_REV, GL_UNSIGNED_INT_10F_11F_11F_REV,
                                              GL_UNSIGNED_INT_5_9_9_9_REV, GL_UNSIGNED_INT_24_8,
                                              GL_FLOAT_32_UNSIGNED_INT_24_8_REV, 0x8367, 0};
    // Loaded as in a process: the layer needs its platform around it.
    support::initLayer();
    FuzzedDataProvider in(data, size);
    Params p;
    p.mUnpackAlignment = in.ConsumeBool() ? 1 << in.ConsumeIntegralInRange(0, 3) : value(in);
    p.mUnpackRowLength = value(in);
    p.mUnpackImageHeight = value(in);
    p.mUnpackSkipPixels = value(in);
    p.mUnpackSkipRows = value(in);
    p.mUnpackSkipImages = value(in);
    const int w = value(in), h = value(in), d = value(in);
    const unsigned int format = enumValue(in, kFormats, sizeof kFormats / sizeof *kFormats);
    const unsigned int type = enumValue(in, kTypes, sizeof kTypes / sizeof *kTypes);

    const int got = texSize(p, w, h, d, format, type);
    const int bpp = texBytesPerPixel(format, type);
    // Bytes per pixel never exceed a depth-stencil float pixel; no image is
    // sized for an unknown pair.
    if (bpp < 0 || bpp > 16 || (bpp == 0 && got != 0)) abort();
    return 0;
}
