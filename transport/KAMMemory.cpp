#include "transport/KAMMemory.h"

#include <malloc.h>
#include <cstdlib>
#include <cstring>

namespace android {

KAMMemory::~KAMMemory() {
    swapBuffer();
    free(mBase);
    mLastUsed = 0;
    mCursor = mFrameStart = mEnd = mBase = nullptr;
    std::vector<void*>().swap(mLargeBlocks);
}

bool KAMMemory::prepare() {
    if (mBase) return true;
    void* block = memalign(kAlignment, kBlockSize);
    if (!block) return false;
    // Touch every page now so the first offloaded frames do not page-fault.
    memset(block, 0, kBlockSize);
    mBase = static_cast<uint8_t*>(block);
    mCursor = mFrameStart = mBase;
    mEnd = mBase + kBlockSize;
    return true;
}

void* KAMMemory::overflow(size_t size, const void* src) {
    void* p = memalign(kAlignment, size);
    if (!p) return nullptr;
    mLargeBlocks.push_back(p);
    if (src) memcpy(p, src, size);
    return p;
}

void KAMMemory::swapBuffer() {
    mLastUsed = static_cast<int32_t>(mCursor - mFrameStart);
    mCursor = mFrameStart;
    for (void* p : mLargeBlocks) free(p);
    mLargeBlocks.clear();
}

}  // namespace android
