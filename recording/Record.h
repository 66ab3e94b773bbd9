#pragma once

// What every generated wrapper needs: the thread record test, the context's
// arena and worker, and the recording step itself.

#include <cstdint>
#include <new>

#include "kam_wrappers.h"
#include "loader/KAMLoader.h"
#include "runtime/KAMContext.h"
#include "runtime/KAMThreadLocal.h"

namespace android {

// Small integers where a pointer is expected are offsets into bound buffers
// (or plain garbage): never client memory to copy.
inline bool kamIsClientMemory(const void* p) { return reinterpret_cast<uintptr_t>(p) > 0x10000; }

// Builds the command in the arena and queues it; only a synchronous post
// wakes the worker at once.
template <class B, class... A>
inline void kamRecordPost(KAMContext* c, bool sync, A... args) {
    static_assert(alignof(B) <= KAMMemory::kAlignment && alignof(WorkItem) <= KAMMemory::kAlignment,
                  "the frame arena cannot place this command");
    void* itemMemory = c->mMemory.malloc(sizeof(WorkItem), nullptr);
    void* cmdMemory = c->mMemory.malloc(sizeof(B), nullptr);
    WorkItem* item = new (itemMemory) WorkItem(new (cmdMemory) B(args...));
    // The post's lock is a full barrier on some CPUs: it waits for these
    // stores to reach the cache. Asking for the next lines now keeps that wait
    // off the following calls.
    __builtin_prefetch(c->mMemory.mCursor + 256, 1, 3);
    c->mWorker->post(item, sync);
}

template <class B, class... A>
inline void kamRecord(KAMContext* c, A... args) {
    kamRecordPost<B>(c, false, args...);
}

// Bytes a texture or sampler parameter array holds, by pname. Zero for the
// names the layer does not size, which sends those calls down the synchronous
// path (GL_TEXTURE_BASE_LEVEL among them).
inline long long texParamBytes(long long pname) {
    switch (pname) {
        case 0x1004:  // GL_TEXTURE_BORDER_COLOR
            return 16;
        case 0x2800: case 0x2801: case 0x2802: case 0x2803:  // MAG/MIN_FILTER, WRAP_S/T
        case 0x8072:                                         // WRAP_R
        case 0x813A: case 0x813B: case 0x813D:               // MIN_LOD, MAX_LOD, MAX_LEVEL
        case 0x884C: case 0x884D:                            // COMPARE_MODE/FUNC
        case 0x8E42: case 0x8E43: case 0x8E44: case 0x8E45:  // SWIZZLE_R..A
            return 4;
        default:
            return 0;
    }
}

}  // namespace android
