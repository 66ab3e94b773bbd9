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
    switch (pname) {
        case GL_UNPACK_ROW_LENGTH: mUnpackRowLength = param; return true;
        case GL_UNPACK_SKIP_ROWS: mUnpackSkipRows = param; return true;
        case GL_UNPACK_SKIP_PIXELS: mUnpackSkipPixels = param; return true;
        case GL_UNPACK_ALIGNMENT: mUnpackAlignment = param; return true;
        case GL_UNPACK_SKIP_IMAGES: mUnpackSkipImages = param; return true;
        case GL_UNPACK_IMAGE_HEIGHT: mUnpackImageHeight = param; return true;
        default: return false;
    }
}

}  // namespace android
