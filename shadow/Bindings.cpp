#include "shadow/Bindings.h"

#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "loader/KAMLoader.h"
#include "runtime/KAMLog.h"

namespace android {

namespace {

constexpr uint32_t kMinShadowBlock = 64;

void freePending(std::vector<BufferInfo*>& pending) {
    for (BufferInfo* b : pending) {
        const int32_t refs = b->refs.load();
        // A command that never completed its reference (a failed flush keeps
        // it on purpose) cannot touch the record any more: the frame it
        // belonged to has been replayed.
        if (refs >= 1) KAM_LOGE("Delete a mapped buffer=%d bufSize=%d refs=%d", b->buffer, b->capacity, refs);
        delete b;
    }
    pending.clear();
}

}  // namespace

BufferInfo::~BufferInfo() { free(shadow); }

Bindings::~Bindings() {
    for (auto& entry : buffers) delete entry.second;
    buffers.clear();
    freePending(pendingFree);
}

BufferInfo* Bindings::getBufferInfo(GLenum target) const {
    const GLuint buffer = getBindingBuffer(target);
    if (buffer == 0) return nullptr;
    auto it = buffers.find(buffer);
    return it == buffers.end() ? nullptr : it->second;
}

uint32_t Bindings::bufferSize(GLenum target, GLuint buffer) {
    GLint size = 0;
    KAM_GL(glBindBuffer)(target, buffer);
    KAM_GL(glGetBufferParameteriv)(target, GL_BUFFER_SIZE, &size);
    KAM_GL(glBindBuffer)(target, 0);
    return static_cast<uint32_t>(size);
}

MappedInfo* Bindings::mapBufferRangePre(GLenum target, GLintptr offset, GLsizeiptr length, GLbitfield access,
                                        uint32_t frame) {
    const GLuint buffer = getBindingBuffer(target);
    if (buffer == 0) {
        KAM_LOGE("glMapBufferRange : Target is binded a unkwon buffer, target=0x%X access=0x%X offset=%d size=%d "
                 "buffer=%d",
                 target, access, static_cast<int>(offset), static_cast<int>(length), 0);
        return nullptr;
    }
    // Ranges the GL rejects, and ones whose end does not fit the 32-bit
    // bookkeeping, go to the driver, which reports the error: a shadow sized
    // from a wrapped end would be smaller than the range handed out.
    if (offset < 0 || length < 0 || static_cast<uint64_t>(offset) + static_cast<uint64_t>(length) > UINT32_MAX)
        return nullptr;
    BufferInfo* info = nullptr;
    auto it = buffers.find(buffer);
    if (it != buffers.end()) {
        info = it->second;
        if (info->shadowMapped || info->directMapped) {
            KAM_LOGE("glMapBufferRange : Buffer is already mapped, target=0x%X access=0x%X offset=%d size=%d "
                     "buffer=%d",
                     target, access, static_cast<int>(offset), static_cast<int>(length), buffer);
            return nullptr;
        }
    }
    const uint32_t need = static_cast<uint32_t>(offset) + static_cast<uint32_t>(length);

    // Pixel-buffer reads come back from the GPU: the calling thread maps the
    // real buffer (its context shares objects with the real one) rather than
    // waiting on the worker for every readback.
    if ((target == GL_PIXEL_PACK_BUFFER || target == GL_PIXEL_UNPACK_BUFFER) && access == GL_MAP_READ_BIT) {
        GLint size = 0;
        KAM_GL(glBindBuffer)(target, buffer);
        KAM_GL(glGetBufferParameteriv)(target, GL_BUFFER_SIZE, &size);
        if (static_cast<uint32_t>(size) < need) {
            KAM_GL(glBindBuffer)(target, 0);
            return nullptr;
        }
        if (info == nullptr) {
            info = new BufferInfo(buffer);
            buffers[buffer] = info;
        }
        info->directMapped = 1;
        return &info->mapping;
    }
    // Other reads need the real contents: synchronous.
    if (access & GL_MAP_READ_BIT) return nullptr;

    if (info == nullptr) {
        info = new BufferInfo(buffer);
        buffers[buffer] = info;
    }
    if (info->capacity == 0) {
        const uint32_t size = std::max(need, kMinShadowBlock);
        void* block = memalign(8, size);
        if (block == nullptr) return nullptr;
        allocatedBytes += size;
        info->capacity = size;
        info->shadow = static_cast<uint8_t*>(block);
    } else if (need > info->capacity) {
        // Grow to the whole buffer at once, so ranges that creep along it do
        // not realloc on every map.
        const uint32_t size = std::max(bufferSize(target, buffer), need);
        info->lockShadow();
        void* block = realloc(info->shadow, size);
        if (block == nullptr) {
            info->unlockShadow();
            return nullptr;
        }
        info->shadow = static_cast<uint8_t*>(block);
        info->unlockShadow();
        allocatedBytes += size - info->capacity;
        info->capacity = size;
    }
    info->shadowMapped = 1;
    info->directMapped = 0;
    info->mapping.frame = frame;
    info->mapping.offset = static_cast<uint32_t>(offset);
    info->mapping.length = static_cast<uint32_t>(length);
    info->mapping.access = access;
    info->lastUsedFrame = frame;
    info->refs.fetch_add(1);
    return &info->mapping;
}

MappedInfo* Bindings::flushMappedBufferRangePre(GLenum target, GLintptr, GLsizeiptr) {
    BufferInfo* info = getBufferInfo(target);
    if (info == nullptr) return nullptr;
    if (info->shadowMapped) {
        info->refs.fetch_add(1);
        return &info->mapping;
    }
    return info->directMapped ? &info->mapping : nullptr;
}

MappedInfo* Bindings::unmapBufferPre(GLenum target) {
    BufferInfo* info = getBufferInfo(target);
    if (info == nullptr) return nullptr;
    if (info->shadowMapped) {
        info->shadowMapped = 0;
        info->refs.fetch_add(1);
        return &info->mapping;
    }
    return info->directMapped ? &info->mapping : nullptr;
}

void Bindings::deleteBuffers(GLsizei n, const GLuint* names) {
    if (n < 1 || names == nullptr) return;
    for (GLsizei i = 0; i < n; ++i) {
        const GLuint name = names[i];
        for (auto& binding : targets)
            if (binding.second == name) binding.second = 0;
        auto it = buffers.find(name);
        if (it == buffers.end()) continue;
        BufferInfo* info = it->second;
        allocatedBytes -= info->capacity;
        // Commands still in the queue point at the record; the frame
        // boundary is the first moment none can.
        if (info->refs.load() < 1)
            delete info;
        else
            pendingFree.push_back(info);
        buffers.erase(it);
    }
}

void Bindings::mapBufferRangePost(GLenum, MappedInfo* mi, void* mapped) {
    if (mi == nullptr) return;
    mi->info->mappedPointer = mapped;
    mi->info->refs.fetch_sub(1);
}

void Bindings::flushMappedBufferRangePost(GLenum, GLintptr offset, GLsizeiptr length, MappedInfo* mi) {
    if (mi == nullptr) return;
    BufferInfo* info = mi->info;
    if (info->mappedPointer == nullptr || !(mi->access & GL_MAP_FLUSH_EXPLICIT_BIT)) return;
    // A range the GL rejects (negative, or past the mapping) copies nothing;
    // 32-bit sums would let a negative offset wrap into range.
    if (offset < 0 || length < 0 || static_cast<uint64_t>(offset) + static_cast<uint64_t>(length) > mi->length)
        return;
    info->lockShadow();
    memcpy(static_cast<uint8_t*>(info->mappedPointer) + offset, info->shadow + mi->offset + offset,
           static_cast<size_t>(length));
    info->unlockShadow();
    info->flushed = 1;
    info->refs.fetch_sub(1);
}

void Bindings::unmapBufferPost(GLenum target, MappedInfo* mi) {
    if (mi == nullptr) return;
    BufferInfo* info = mi->info;
    if (info->mappedPointer == nullptr) {
        KAM_LOGE("glUnmapBuffer error target=0x%X addr=%p buffer=%d", target, info->mappedPointer, info->buffer);
    } else if (!((mi->access & GL_MAP_FLUSH_EXPLICIT_BIT) && info->flushed)) {
        // An explicit-flush mapping that was never flushed still gets its
        // whole range: apps that forget the flush would otherwise lose data.
        info->lockShadow();
        memcpy(info->mappedPointer, info->shadow + mi->offset, mi->length);
        info->unlockShadow();
    }
    info->mappedPointer = nullptr;
    info->flushed = 0;
    info->refs.fetch_sub(1);
}

void Bindings::swapBuffer() { freePending(pendingFree); }

void Bindings::trimMemory(uint32_t frame) {
    KAM_LOGD("Buffer Allocated: %lld BufferInfoSize:%d", static_cast<long long>(allocatedBytes),
             static_cast<int>(buffers.size()));
    if (allocatedBytes <= kTrimThreshold) return;
    for (auto it = buffers.begin(); it != buffers.end();) {
        BufferInfo* info = it->second;
        // A pixel-buffer read mapping holds no reference but is still open
        // on the calling thread: evicting it would lose its unmap.
        const bool busy = info->refs.load() >= 1 || info->shadowMapped || info->directMapped;
        if (!busy && frame - info->lastUsedFrame >= kTrimIdleFrames) {
            allocatedBytes -= info->capacity;
            delete info;
            it = buffers.erase(it);
        } else {
            ++it;
        }
    }
}

}  // namespace android
