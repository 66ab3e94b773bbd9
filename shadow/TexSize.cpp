#include "shadow/TexSize.h"

#include <cstdint>

#include "runtime/KAMContext.h"
#include "shadow/Params.h"

namespace android {

namespace {

// Desktop type names that can reach an ES driver through odd callers; they
// have no size the layer could copy.
constexpr unsigned int kGl2Bytes = 0x1407;
constexpr unsigned int kGl3Bytes = 0x1408;
constexpr unsigned int kGl4Bytes = 0x1409;
constexpr unsigned int kGlDouble = 0x140A;
constexpr unsigned int kGlHalfFloatOes = 0x8D61;
constexpr unsigned int kGlBgraExt = 0x80E1;
constexpr unsigned int kGlUnsignedShort4444Rev = 0x8365;
constexpr unsigned int kGlUnsignedShort1555Rev = 0x8366;

int componentBytes(unsigned int type) {
    switch (type) {
        case GL_BYTE: case GL_UNSIGNED_BYTE: return 1;
        case GL_SHORT: case GL_UNSIGNED_SHORT: case GL_HALF_FLOAT: case kGlHalfFloatOes: return 2;
        case GL_INT: case GL_UNSIGNED_INT: case GL_FLOAT: return 4;
        case kGl2Bytes: case kGl3Bytes: case kGl4Bytes: case kGlDouble: return 0;
        default: return -1;  // not a plain component type
    }
}

int components(unsigned int format) {
    switch (format) {
        case GL_RED: case GL_ALPHA: case GL_LUMINANCE: case GL_RED_INTEGER: return 1;
        case GL_LUMINANCE_ALPHA: case GL_RG: case GL_RG_INTEGER: return 2;
        case GL_RGB: case GL_RGB_INTEGER: return 3;
        case GL_RGBA: case kGlBgraExt: case GL_RGBA_INTEGER: return 4;
        default: return 0;
    }
}

int packedBytes(int components, unsigned int type) {
    if (components == 3) {
        switch (type) {
            case GL_UNSIGNED_SHORT_5_6_5: return 2;
            case GL_UNSIGNED_INT_10F_11F_11F_REV: case GL_UNSIGNED_INT_5_9_9_9_REV: return 4;
            default: return 0;
        }
    }
    if (components == 4) {
        switch (type) {
            case GL_UNSIGNED_SHORT_4_4_4_4: case GL_UNSIGNED_SHORT_5_5_5_1:
            case kGlUnsignedShort4444Rev: case kGlUnsignedShort1555Rev: return 2;
            case GL_UNSIGNED_INT_2_10_10_10_REV: return 4;
            default: return 0;
        }
    }
    return 0;
}

}  // namespace

int texBytesPerPixel(unsigned int format, unsigned int type) {
    if (format == GL_DEPTH_COMPONENT) {
        // GL_INT is deliberately unsized here: the lookup runs from
        // GL_UNSIGNED_SHORT over four consecutive types and GL_INT's slot is 0.
        static constexpr int kDepth[4] = {2, 0, 4, 4};  // USHORT, INT, UINT, FLOAT
        const unsigned int i = type - GL_UNSIGNED_SHORT;
        return i < 4 ? kDepth[i] : 0;
    }
    if (format == GL_DEPTH_STENCIL) {
        if (type == GL_UNSIGNED_INT_24_8) return 4;
        if (type == GL_FLOAT_32_UNSIGNED_INT_24_8_REV) return 8;
        return 0;
    }
    const int n = components(format);
    if (n == 0) return 0;
    const int size = componentBytes(type);
    return size >= 0 ? n * size : packedBytes(n, type);
}

int texSize(const Params& p, int width, int height, int depth, unsigned int format, unsigned int type) {
    const int bpp = texBytesPerPixel(format, type);
    if (bpp == 0) return 0;
    // Unsigned so that wrap-around is defined; the result is the 32-bit
    // signed value a plain int computation would give.
    const uint32_t w = static_cast<uint32_t>(width), h = static_cast<uint32_t>(height);
    const uint32_t d = static_cast<uint32_t>(depth), b = static_cast<uint32_t>(bpp);
    const uint32_t rowPixels = static_cast<uint32_t>(p.mUnpackRowLength > 0 ? p.mUnpackRowLength : width);
    const uint32_t rowBytes = b * rowPixels;
    const uint32_t align = static_cast<uint32_t>(p.mUnpackAlignment);
    const uint32_t rowStride = p.mUnpackAlignment > 0 ? (rowBytes + align - 1) & ~(align - 1) : rowBytes;
    const uint32_t imageRows = static_cast<uint32_t>(p.mUnpackImageHeight > 0 ? p.mUnpackImageHeight : height);
    const uint32_t skipImages = static_cast<uint32_t>(p.mUnpackSkipImages);
    const uint32_t rows = h + static_cast<uint32_t>(p.mUnpackSkipRows) + (skipImages + d - 1) * imageRows - 1;
    const uint32_t size = b * (w + static_cast<uint32_t>(p.mUnpackSkipPixels)) + rows * rowStride;
    return static_cast<int>(static_cast<int32_t>(size));
}

int texSize(KAMContext* ctx, int width, int height, int depth, unsigned int format, unsigned int type) {
    return texSize(ctx->mParams, width, height, depth, format, type);
}

}  // namespace android
