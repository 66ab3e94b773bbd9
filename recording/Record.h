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

// Builds the command in the arena, where it is also the queue entry, and
// links it behind the last one; only a synchronous post (or a long enough
// run of them) wakes a sleeping worker.
template <class B, class... A>
inline void kamRecordPost(KAMContext* c, bool sync, A... args) {
    static_assert(alignof(B) <= KAMMemory::kAlignment, "the frame arena cannot place this command");
    B* cmd = new (c->mMemory.malloc(sizeof(B), nullptr)) B(args...);
    c->mWorker->postRecorded(cmd, sync);
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
