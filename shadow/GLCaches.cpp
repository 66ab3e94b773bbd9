#include "shadow/GLCaches.h"

#include "loader/KAMLoader.h"
#include "runtime/KAMLog.h"

namespace android {

GLCaches::GLCaches() : mPools(kTypes), mSizes(kTypes, kPoolSize) {
    for (auto& pool : mPools) pool = new unsigned int[kPoolSize]();
}

GLCaches::~GLCaches() {
    for (unsigned int* pool : mPools) delete[] pool;
}

int GLCaches::getUsedSize(const unsigned int* pool, int size) {
    for (int i = size - 1; i >= 0; --i)
        if (pool[i] == 0) return i + 1;
    return 0;
}

bool GLCaches::getCaches(int type, int n, unsigned int* out) {
    if (type >= kTypes) return false;
    return getCachesInternal(type, n, out);
}

bool GLCaches::getCachesInternal(int type, int n, unsigned int* out) {
    std::lock_guard<std::mutex> guard(mLock);
    unsigned int* pool = mPools[type];
    const int size = mSizes[type];
    if (pool == nullptr || size < n) return false;
    const int start = getUsedSize(pool, size);
    if (size - start < n) return false;
    for (int i = 0; i < n; ++i) {
        // The run above the highest empty entry holds no empty one, so this
        // only fires if a refill handed back 0 as a name.
        if (pool[start + i] == 0) {
            KAM_LOGD("genBuffer error type=%d id=%d", type, 0);
            return false;
        }
        out[i] = pool[start + i];
        pool[start + i] = 0;
    }
    return true;
}

void GLCaches::swapBuffer() {
    std::lock_guard<std::mutex> guard(mLock);
    for (int type = 0; type < kTypes; ++type) {
        unsigned int* pool = mPools[type];
        if (pool == nullptr) continue;
        const int used = getUsedSize(pool, mSizes[type]);
        if (used == 0) continue;  // full
        // The names below the run were all handed out, so regenerating from
        // index 0 refills exactly the taken entries and keeps the run whole.
        if (type == kVertexArrays)
            KAM_GL(glGenVertexArrays)(used, pool);
        else
            KAM_GL(glGenTransformFeedbacks)(used, pool);
    }
}

}  // namespace android
