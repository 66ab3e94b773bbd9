#pragma once

#include <GLES3/gl32.h>

#include "loader/Export.h"

namespace android {

class KAMContext;
class Params;

// Bytes per pixel of an unpacked (format, type) pair; 0 for pairs the layer
// does not size, which sends their uploads down the synchronous path.
KAM_EXPORT int texBytesPerPixel(unsigned int format, unsigned int type);

// Offset one past the last byte an unpack of this image reads from client
// memory under the given pixel-store values. Plain 32-bit arithmetic with
// wrap-around: odd inputs give 0 or a negative size, which callers cannot copy.
KAM_EXPORT int texSize(const Params& params, int width, int height, int depth, unsigned int format,
                       unsigned int type);
KAM_EXPORT int texSize(KAMContext* ctx, int width, int height, int depth, unsigned int format, unsigned int type);

}  // namespace android
