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

BufferInfo* Bindings::getBufferInfo(GLenum target) {
    const GLuint buffer = getBindingBuffer(target);
    if (buffer == 0) return nullptr;
    auto it = buffers.find(buffer);
    return it == buffers.end() ? nullptr : it->second;
}

GLuint Bindings::elementBuffer() {
    auto it = elementBuffers.find(currentVertexArray);
    if (it != elementBuffers.end()) return it->second;
    // Nothing has been bound in this vertex array since the layer first saw
    // it, so the driver's binding is still the vertex array's own.
    const GLuint buffer = askDriver ? static_cast<GLuint>(askDriver(0, GL_ELEMENT_ARRAY_BUFFER_BINDING)) : 0;
    elementBuffers[currentVertexArray] = buffer;
    return buffer;
}

void Bindings::bindVertexArray(GLuint array) {
    currentVertexArray = array;
    // A generated name becomes a vertex-array object when it is first bound,
    // and only then does the driver's glIsVertexArray say yes: the shadow
    // learns names here, not at generation, to give the same answer. Names
    // bound before the context was attached are not known.
    if (array != 0) vertexArrays.insert(array);
}

void Bindings::vertexArraysGenerated(GLsizei n, const GLuint* arrays) {
    for (GLsizei i = 0; i < n; ++i) elementBuffers[arrays[i]] = 0;
}

void Bindings::deleteVertexArrays(GLsizei n, const GLuint* arrays) {
    for (GLsizei i = 0; i < n; ++i) {
        const GLuint array = arrays[i];
        // The default vertex array is never deleted; the GL skips the name.
        if (array == 0) continue;
        vertexArrays.erase(array);
        elementBuffers.erase(array);
        if (array == currentVertexArray) currentVertexArray = 0;
    }
}

void Bindings::bufferData(GLenum target, GLsizeiptr size) {
    if (size < 0) return;  // rejected by the GL: the store is unchanged
    BufferInfo* info = getBufferInfo(target);
    if (info != nullptr) info->size = size;
}

namespace {

constexpr GLbitfield kMapBits = GL_MAP_READ_BIT | GL_MAP_WRITE_BIT | GL_MAP_INVALIDATE_RANGE_BIT |
                                GL_MAP_INVALIDATE_BUFFER_BIT | GL_MAP_FLUSH_EXPLICIT_BIT |
                                GL_MAP_UNSYNCHRONIZED_BIT;

bool rangeInside(int64_t offset, int64_t length, int64_t size) {
    return offset >= 0 && length >= 1 && offset <= size && length <= size - offset;
}

}  // namespace

MappedInfo* Bindings::mapBufferRangePre(GLenum target, GLintptr offset, GLsizeiptr length, GLbitfield access,
                                        uint32_t frame) {
    const GLuint buffer = getBindingBuffer(target);
    if (buffer == 0) {
        KAM_LOGE("glMapBufferRange : Target is binded a unkwon buffer, target=0x%X access=0x%X offset=%d size=%d "
                 "buffer=%d",
                 target, access, static_cast<int>(offset), static_cast<int>(length), 0);
        return nullptr;
    }
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
    auto record = [&] {
        if (info == nullptr) {
            info = new BufferInfo(buffer);
            buffers[buffer] = info;
        }
        return info;
    };
    // The calling thread maps the real buffer (its context shares objects
    // with the real one); the wrapper makes the map.
    auto direct = [&] {
        KAM_GL(glBindBuffer)(target, buffer);
        record()->directMapped = 1;
        return &info->mapping;
    };

    // Pixel-buffer reads come back from the GPU: mapped on the calling
    // thread rather than waiting on the worker for every readback.
    if ((target == GL_PIXEL_PACK_BUFFER || target == GL_PIXEL_UNPACK_BUFFER) && access == GL_MAP_READ_BIT) {
        GLint size = 0;
        KAM_GL(glBindBuffer)(target, buffer);
        KAM_GL(glGetBufferParameteriv)(target, GL_BUFFER_SIZE, &size);
        if (!rangeInside(offset, length, size)) {
            KAM_GL(glBindBuffer)(target, 0);
            return nullptr;
        }
        record()->directMapped = 1;
        return &info->mapping;
    }
    // Other reads need the real contents: synchronous.
    if (access & GL_MAP_READ_BIT) return nullptr;

    // Calls the GL rejects get the driver's own answer, and its error on the
    // application's context. The size is asked in call order, so an upload
    // still queued counts; once known it is kept by bufferData, and asked
    // again before a range is refused.
    if (offset < 0 || length < 1 || !(access & GL_MAP_WRITE_BIT) || (access & ~kMapBits)) return direct();
    if (askDriver) {
        if (record()->size < 0 || !rangeInside(offset, length, info->size))
            info->size = askDriver(target, GL_BUFFER_SIZE);
        if (!rangeInside(offset, length, info->size)) return direct();
    }
    // The 32-bit bookkeeping holds no end past 4 GiB: the worker maps those.
    if (static_cast<uint64_t>(offset) + static_cast<uint64_t>(length) > UINT32_MAX) return nullptr;
    record();
    const uint32_t need = static_cast<uint32_t>(offset) + static_cast<uint32_t>(length);

    if (need > info->capacity) {
        // Grown to the whole buffer at once, so ranges that creep along it
        // do not realloc on every map.
        const uint32_t whole = static_cast<uint32_t>(std::min<int64_t>(std::max<int64_t>(info->size, 0), UINT32_MAX));
        const uint32_t size = info->capacity == 0 ? std::max(need, kMinShadowBlock) : std::max(need, whole);
        // The worker never reads the block (flushes and unmaps hand it
        // copies), so it may move.
        void* block = info->capacity == 0 ? memalign(8, size) : realloc(info->shadow, size);
        if (block == nullptr) return nullptr;
        allocatedBytes += size - info->capacity;
        info->capacity = size;
        info->shadow = static_cast<uint8_t*>(block);
    }
    info->shadowMapped = 1;
    info->directMapped = 0;
    info->flushed = 0;
    info->mapping.frame = frame;
    info->mapping.offset = static_cast<uint32_t>(offset);
    info->mapping.length = static_cast<uint32_t>(length);
    info->mapping.access = access;
    info->mapping.data = nullptr;
    info->mapping.wait = 0;
    info->lastUsedFrame = frame;
    info->refs.fetch_add(1);
    return &info->mapping;
}

void Bindings::directMapFailed(GLenum target, BufferInfo* info) {
    KAM_GL(glBindBuffer)(target, 0);
    info->directMapped = 0;
}

// The bytes the worker must write, copied now: the application may map the
// block again, and write it, before the worker gets to this call.
void Bindings::keep(MappedInfo& mi, const uint8_t* src, size_t bytes) {
    // An empty flush has nothing to keep; its pointer only says it lands.
    void* copy = bytes == 0 ? const_cast<uint8_t*>(src) : keepBytes ? keepBytes(bytes, src) : nullptr;
    mi.data = copy ? static_cast<const uint8_t*>(copy) : src;
    mi.wait = copy ? 0 : 1;
}

MappedInfo* Bindings::flushMappedBufferRangePre(GLenum target, GLintptr offset, GLsizeiptr length) {
    BufferInfo* info = getBufferInfo(target);
    if (info == nullptr) return nullptr;
    if (info->shadowMapped) {
        MappedInfo& mi = info->mapping;
        info->refs.fetch_add(1);
        mi.data = nullptr;
        mi.wait = 0;
        // A range the GL rejects (negative, or past the mapping) copies
        // nothing; 32-bit sums would let a negative offset wrap into range.
        if ((mi.access & GL_MAP_FLUSH_EXPLICIT_BIT) && offset >= 0 && length >= 0 &&
            static_cast<uint64_t>(offset) + static_cast<uint64_t>(length) <= mi.length) {
            keep(mi, info->shadow + mi.offset + offset, static_cast<size_t>(length));
            info->flushed = 1;
        }
        return &mi;
    }
    return info->directMapped ? &info->mapping : nullptr;
}

MappedInfo* Bindings::unmapBufferPre(GLenum target) {
    BufferInfo* info = getBufferInfo(target);
    if (info == nullptr) return nullptr;
    if (info->shadowMapped) {
        MappedInfo& mi = info->mapping;
        info->shadowMapped = 0;
        info->refs.fetch_add(1);
        mi.data = nullptr;
        mi.wait = 0;
        // An explicit-flush mapping that was never flushed still gets its
        // whole range: apps that forget the flush would otherwise lose data.
        if (!((mi.access & GL_MAP_FLUSH_EXPLICIT_BIT) && info->flushed)) keep(mi, info->shadow + mi.offset, mi.length);
        info->flushed = 0;
        return &mi;
    }
    return info->directMapped ? &info->mapping : nullptr;
}

void Bindings::deleteBuffers(GLsizei n, const GLuint* names) {
    if (n < 1 || names == nullptr) return;
    for (GLsizei i = 0; i < n; ++i) {
        const GLuint name = names[i];
        for (auto& binding : targets)
            if (binding.second == name) binding.second = 0;
        // Only the bound vertex array lets go of it; the others keep
        // referring to the deleted buffer, as in the GL.
        auto element = elementBuffers.find(currentVertexArray);
        if (element != elementBuffers.end() && element->second == name) element->second = 0;
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
    // A flush the GL rejects keeps its reference, deliberately (freePending
    // reports such records).
    if (info->mappedPointer == nullptr || mi->data == nullptr) return;
    memcpy(static_cast<uint8_t*>(info->mappedPointer) + offset, mi->data, static_cast<size_t>(length));
    info->refs.fetch_sub(1);
}

void Bindings::unmapBufferPost(GLenum target, MappedInfo* mi) {
    if (mi == nullptr) return;
    BufferInfo* info = mi->info;
    if (info->mappedPointer == nullptr)
        KAM_LOGE("glUnmapBuffer error target=0x%X addr=%p buffer=%d", target, info->mappedPointer, info->buffer);
    else if (mi->data != nullptr)
        memcpy(info->mappedPointer, mi->data, mi->length);
    info->mappedPointer = nullptr;
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
