#pragma once

#include "loader/Export.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace android {

// Per-context bump arena for one frame's work items, commands and copies of
// client memory. Everything is released at once at the frame boundary, on the
// worker, while the recording thread is blocked in the frame task.
class KAM_EXPORT KAMMemory {
public:
    static constexpr size_t kBlockSize = 0x2000000;      // 32 MiB
    static constexpr size_t kLargeRequest = 0x40000;     // 256 KiB
    static constexpr intptr_t kLargeFrameLimit = 0x1000000;  // 16 MiB
    // Every block starts on this boundary, in the arena and in the separate
    // blocks alike: enough for the 64-bit members of command classes, which
    // 32-bit ARM loads with ldrd/vldr (8-aligned) and places at offset 8.
    static constexpr size_t kAlignment = 8;

    KAMMemory() = default;
    ~KAMMemory();
    KAMMemory(const KAMMemory&) = delete;
    KAMMemory& operator=(const KAMMemory&) = delete;

    bool prepare();
    void* malloc(size_t size, const void* src);
    void swapBuffer();

    uint8_t* mCursor = nullptr;
    uint8_t* mFrameStart = nullptr;
    uint8_t* mEnd = nullptr;
    uint8_t* mBase = nullptr;
    int32_t mLastUsed = 0;
    std::vector<void*> mLargeBlocks;

private:
    void* overflow(size_t size, const void* src);
};

// The arena path is the one every recorded call takes; keep it inline.
inline void* KAMMemory::malloc(size_t size, const void* src) {
    if (size == 0) return nullptr;
    if (size >= kLargeRequest && (mCursor - mFrameStart) > kLargeFrameLimit) return overflow(size, src);
    uintptr_t rounded = (reinterpret_cast<uintptr_t>(mCursor) + (kAlignment - 1)) & ~uintptr_t(kAlignment - 1);
    mCursor = reinterpret_cast<uint8_t*>(rounded);
    // Unsigned compare written as a subtraction so that a huge size cannot wrap
    // the end pointer around.
    if (rounded != 0 && size <= static_cast<size_t>(reinterpret_cast<uintptr_t>(mEnd) - rounded)) {
        mCursor = reinterpret_cast<uint8_t*>(rounded + size);
        void* p = reinterpret_cast<void*>(rounded);
        if (src) __builtin_memcpy(p, src, size);
        return p;
    }
    return overflow(size, src);
}

}  // namespace android
