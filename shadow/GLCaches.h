#pragma once

#include <cstdint>
#include <mutex>
#include <vector>

#include <GLES3/gl32.h>

#include "loader/Export.h"

namespace android {

// Pools of vertex-array and transform-feedback names generated ahead of time
// on the worker, so that the application thread can hand names out without
// waiting for it. In each pool the names still available form one run at the
// top; entries below it are 0 (handed out), so names are taken upward from the
// bottom of the run and a refill rewrites the pool from index 0.
class KAM_EXPORT GLCaches {
public:
    static constexpr int kVertexArrays = 0;
    static constexpr int kTransformFeedbacks = 1;
    static constexpr int kTypes = 2;
    static constexpr int kPoolSize = 8;

    GLCaches();
    ~GLCaches();
    GLCaches(const GLCaches&) = delete;
    GLCaches& operator=(const GLCaches&) = delete;

    // Takes n names of a pool into out; false when the pool cannot supply all
    // of them (the caller then generates on the worker).
    bool getCaches(int type, int n, unsigned int* out);
    bool getCachesInternal(int type, int n, unsigned int* out);
    // Entries up to and including the highest empty one.
    static int getUsedSize(const unsigned int* pool, int size);
    // Names still available.
    static int getSize(const unsigned int* pool, int size) { return size - getUsedSize(pool, size); }
    // Tops both pools up; must run where the real context is current (the
    // worker, at the frame boundary).
    void swapBuffer();

    std::vector<unsigned int*> mPools;
    std::vector<int32_t> mSizes;
    std::mutex mLock;
};

// glIsVertexArray answered from the attached context's vertex-array shadow,
// without a GL call; the origin without an attached context.
KAM_EXPORT GLboolean isVertexArrayFromShadow(GLuint array);

}  // namespace android
