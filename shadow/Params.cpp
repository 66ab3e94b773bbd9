#include "shadow/Params.h"

#include "loader/KAMLoader.h"

namespace android {

void Params::init() {
    auto get = KAM_GL(glGetIntegerv);
    get(GL_UNPACK_ALIGNMENT, &mUnpackAlignment);
    get(GL_UNPACK_ROW_LENGTH, &mUnpackRowLength);
    get(GL_UNPACK_IMAGE_HEIGHT, &mUnpackImageHeight);
    get(GL_UNPACK_SKIP_PIXELS, &mUnpackSkipPixels);
    get(GL_UNPACK_SKIP_ROWS, &mUnpackSkipRows);
    get(GL_UNPACK_SKIP_IMAGES, &mUnpackSkipImages);
}

}  // namespace android
