#include "shadow/Params.h"

#include "loader/KAMLoader.h"

namespace android {

void Params::init() {
    auto get = KAM_GL(glGetIntegerv);
    get(GL_UNPACK_ROW_LENGTH, &mUnpackRowLength);
    get(GL_UNPACK_ALIGNMENT, &mUnpackAlignment);
    get(GL_UNPACK_IMAGE_HEIGHT, &mUnpackImageHeight);
    get(GL_UNPACK_SKIP_PIXELS, &mUnpackSkipPixels);
    get(GL_UNPACK_SKIP_ROWS, &mUnpackSkipRows);
    get(GL_UNPACK_SKIP_IMAGES, &mUnpackSkipImages);
}

bool Params::store(GLenum pname, GLint param) {
    GLint* field = nullptr;
    switch (pname) {
        case GL_UNPACK_ROW_LENGTH: field = &mUnpackRowLength; break;
        case GL_UNPACK_SKIP_ROWS: field = &mUnpackSkipRows; break;
        case GL_UNPACK_SKIP_PIXELS: field = &mUnpackSkipPixels; break;
        case GL_UNPACK_ALIGNMENT: field = &mUnpackAlignment; break;
        case GL_UNPACK_SKIP_IMAGES: field = &mUnpackSkipImages; break;
        case GL_UNPACK_IMAGE_HEIGHT: field = &mUnpackImageHeight; break;
        default: return false;
    }
    // The GL rejects negative values and alignments other than 1, 2, 4 and
    // 8 and keeps its state: so does the snapshot, or uploads would be sized
    // by values the driver never applies.
    const bool alignmentOk = param == 1 || param == 2 || param == 4 || param == 8;
    if (param >= 0 && (pname != GL_UNPACK_ALIGNMENT || alignmentOk)) *field = param;
    return true;
}

}  // namespace android
