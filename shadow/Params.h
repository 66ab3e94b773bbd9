#pragma once

#include <GLES3/gl32.h>

#include "loader/Export.h"

namespace android {

// Snapshot of the unpack pixel-store state, taken when offload starts and
// kept current by the pixel-store wrapper on the recording thread. The worker
// never reads it, so it needs no lock.
class KAM_EXPORT Params {
public:
    // Reads the current context's values; called while the application's
    // context is still current on the calling thread.
    void init();
    // Values that belong to the calling thread's current context and are
    // therefore answered there, also while offload runs.
    static bool isShared(GLenum pname) { return pname == GL_SAMPLES || pname == GL_MAX_ARRAY_TEXTURE_LAYERS; }
    // Stores an unpack value; false (nothing stored) for any other pname, the
    // pack ones included, since only uploads are sized from the snapshot.
    bool store(GLenum pname, GLint param);

    // Zero, not the GL defaults: nothing is sized from them before init.
    GLint mUnpackAlignment = 0;
    GLint mUnpackRowLength = 0;
    GLint mUnpackImageHeight = 0;
    GLint mUnpackSkipPixels = 0;
    GLint mUnpackSkipRows = 0;
    GLint mUnpackSkipImages = 0;
};

}  // namespace android
