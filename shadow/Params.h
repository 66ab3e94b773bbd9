#pragma once

#include <GLES3/gl32.h>

namespace android {

// Snapshot of the unpack pixel-store state, taken when offload starts and
// kept current by the pixel-store wrapper.
class Params {
public:
    void init();
    // Values that belong to the calling thread's current context and are
    // therefore answered there, also while offload runs.
    static bool isShared(GLenum pname) { return pname == GL_SAMPLES || pname == GL_MAX_ARRAY_TEXTURE_LAYERS; }

    GLint mUnpackAlignment = 4;
    GLint mUnpackRowLength = 0;
    GLint mUnpackImageHeight = 0;
    GLint mUnpackSkipPixels = 0;
    GLint mUnpackSkipRows = 0;
    GLint mUnpackSkipImages = 0;
};

}  // namespace android
