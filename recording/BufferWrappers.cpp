// Buffer entry points on an offloaded thread: bindings are shadowed so that
// maps return at once with shadow memory, uploads copy their data, and the
// worker moves the written bytes into the real mapping.

#include <climits>
#include <cstring>

#include "kam_bridges.h"
#include "recording/Record.h"

using namespace android;

namespace {

// The indexed binding points set the generic binding as well, as in the GL:
// maps through the generic one then find the buffer without the worker.
bool isIndexedTarget(GLenum target) {
    return target == GL_UNIFORM_BUFFER || target == GL_TRANSFORM_FEEDBACK_BUFFER ||
           target == GL_SHADER_STORAGE_BUFFER || target == GL_ATOMIC_COUNTER_BUFFER;
}

}  // namespace

extern "C" {

// The binding is shadowed even before offload starts: apps bind their
// buffers while loading, long before the first offloaded frame maps one.
KAM_EXPORT void kam_glBindBuffer_opt(GLenum target, GLuint buffer) {
    KAMContext* c = attachedContext();
    if (c == nullptr) return KAM_GL(glBindBuffer)(target, buffer);
    c->mBindings.bindBuffer(target, buffer);
    if (activeContext() != nullptr)
        kamRecord<glBindBuffer_Bridge>(c, target, buffer);
    else
        KAM_GL(glBindBuffer)(target, buffer);
}

KAM_EXPORT void kam_glBindBufferBase_opt(GLenum target, GLuint index, GLuint buffer) {
    KAMContext* c = attachedContext();
    if (c == nullptr) return KAM_GL(glBindBufferBase)(target, index, buffer);
    if (isIndexedTarget(target)) c->mBindings.bindBuffer(target, buffer);
    if (activeContext() != nullptr)
        kamRecord<glBindBufferBase_Bridge>(c, target, index, buffer);
    else
        KAM_GL(glBindBufferBase)(target, index, buffer);
}

KAM_EXPORT void kam_glBindBufferRange_opt(GLenum target, GLuint index, GLuint buffer, GLintptr offset,
                                          GLsizeiptr size) {
    KAMContext* c = attachedContext();
    if (c == nullptr) return KAM_GL(glBindBufferRange)(target, index, buffer, offset, size);
    // A range the GL refuses binds nothing (buffer 0 takes no range).
    if (isIndexedTarget(target) && (buffer == 0 || (offset >= 0 && size > 0))) c->mBindings.bindBuffer(target, buffer);
    if (activeContext() != nullptr)
        kamRecord<glBindBufferRange_Bridge>(c, target, index, buffer, offset, size);
    else
        KAM_GL(glBindBufferRange)(target, index, buffer, offset, size);
}

KAM_EXPORT void kam_glBindVertexArray(GLuint array) {
    KAMContext* c = attachedContext();
    if (c == nullptr) return KAM_GL(glBindVertexArray)(array);
    c->mBindings.bindVertexArray(array);
    if (activeContext() != nullptr)
        kamRecord<glBindVertexArray_Bridge>(c, array);
    else
        KAM_GL(glBindVertexArray)(array);
}

KAM_EXPORT void kam_glBindVertexArrayOES_opt(GLuint array) {
    KAMContext* c = attachedContext();
    if (c == nullptr) return KAM_GL(glBindVertexArrayOES)(array);
    c->mBindings.bindVertexArray(array);
    if (activeContext() != nullptr)
        kamRecord<glBindVertexArrayOES_Bridge>(c, array);
    else
        KAM_GL(glBindVertexArrayOES)(array);
}

KAM_EXPORT void kam_glDeleteVertexArraysOES(GLsizei n, const GLuint* arrays) {
    KAMContext* c = activeContext();
    if (c == nullptr)
        KAM_GL(glDeleteVertexArraysOES)(n, arrays);
    else
        c->mWorker->postSync([&] { KAM_GL(glDeleteVertexArraysOES)(n, arrays); }, "kam_glDeleteVertexArraysOES");
    KAMContext* attached = attachedContext();
    if (attached != nullptr && kamIsClientMemory(arrays)) attached->mBindings.deleteVertexArrays(n, arrays);
}

KAM_EXPORT void kam_glDeleteBuffers_opt(GLsizei n, const GLuint* buffers) {
    KAMContext* c = attachedContext();
    if (c == nullptr) return KAM_GL(glDeleteBuffers)(n, buffers);
    // Small values are not names the layer may read; the driver judges them.
    if (kamIsClientMemory(buffers)) c->mBindings.deleteBuffers(n, buffers);
    if (activeContext() == nullptr) return KAM_GL(glDeleteBuffers)(n, buffers);
    void* copy = nullptr;
    // The bound keeps n * 4 from wrapping where size_t is 32 bits.
    if (n >= 1 && n <= INT_MAX / 4 && kamIsClientMemory(buffers))
        copy = c->mMemory.malloc(static_cast<size_t>(n) * sizeof(GLuint), buffers);
    if (copy == nullptr) {
        c->mWorker->postSync([&] { KAM_GL(glDeleteBuffers)(n, buffers); }, "kam_glDeleteBuffers_opt");
        return;
    }
    kamRecord<glDeleteBuffers_Bridge>(c, n, static_cast<const GLuint*>(copy));
}

KAM_EXPORT void kam_glBufferData_opt(GLenum target, GLsizeiptr size, const void* data, GLenum usage) {
    KAMContext* c = activeContext();
    if (__builtin_expect(c == nullptr, 1)) {
        if (KAMContext* attached = attachedContext()) attached->mBindings.bufferData(target, size);
        return KAM_GL(glBufferData)(target, size, data, usage);
    }
    c->mBindings.bufferData(target, size);
    if (kamIsClientMemory(data)) {
        void* copy = size >= 1 ? c->mMemory.malloc(static_cast<size_t>(size), data) : nullptr;
        if (copy == nullptr) {
            c->mWorker->postSync([&] { KAM_GL(glBufferData)(target, size, data, usage); }, "kam_glBufferData_opt");
            return;
        }
        data = copy;
    }
    kamRecord<glBufferData_Bridge>(c, target, size, data, usage);
}

KAM_EXPORT void kam_glBufferSubData_opt(GLenum target, GLintptr offset, GLsizeiptr size, const void* data) {
    KAMContext* c = activeContext();
    if (__builtin_expect(c == nullptr, 1)) return KAM_GL(glBufferSubData)(target, offset, size, data);
    if (kamIsClientMemory(data)) {
        void* copy = size >= 1 ? c->mMemory.malloc(static_cast<size_t>(size), data) : nullptr;
        if (copy == nullptr) {
            c->mWorker->postSync([&] { KAM_GL(glBufferSubData)(target, offset, size, data); },
                                 "kam_glBufferSubData_opt");
            return;
        }
        data = copy;
    }
    kamRecord<glBufferSubData_Bridge>(c, target, offset, size, data);
}

KAM_EXPORT void* kam_glMapBufferRange_opt(GLenum target, GLintptr offset, GLsizeiptr length, GLbitfield access) {
    KAMContext* c = activeContext();
    if (c == nullptr) return KAM_GL(glMapBufferRange)(target, offset, length, access);
    MappedInfo* mi = c->mBindings.mapBufferRangePre(target, offset, length, access, c->mFrameCount);
    if (mi == nullptr)
        return c->mWorker->postSync([&] { return KAM_GL(glMapBufferRange)(target, offset, length, access); },
                                    "kam_glMapBufferRange_opt");
    BufferInfo* info = mi->info;
    if (info->directMapped) {
        void* mapped = KAM_GL(glMapBufferRange)(target, offset, length, access);
        if (mapped == nullptr) c->mBindings.directMapFailed(target, info);
        return mapped;
    }
    kamRecord<glMapBufferRange_Bridge>(c, target, offset, length, access, c, *mi);
    return info->shadow + offset;
}

KAM_EXPORT void kam_glFlushMappedBufferRange_opt(GLenum target, GLintptr offset, GLsizeiptr length) {
    KAMContext* c = activeContext();
    if (c == nullptr) return KAM_GL(glFlushMappedBufferRange)(target, offset, length);
    MappedInfo* mi = c->mBindings.flushMappedBufferRangePre(target, offset, length);
    if (mi == nullptr) {
        c->mWorker->postSync([&] { KAM_GL(glFlushMappedBufferRange)(target, offset, length); },
                             "kam_glFlushMappedBufferRange_opt");
        return;
    }
    if (mi->info->directMapped) return KAM_GL(glFlushMappedBufferRange)(target, offset, length);
    if (mi->wait) {
        // No arena for the bytes: the worker copies from the shadow block
        // while the caller keeps off it.
        glFlushMappedBufferRange_Bridge now(target, offset, length, c, *mi);
        c->mWorker->postSync([&] { now.run(); }, "kam_glFlushMappedBufferRange_opt");
        return;
    }
    kamRecord<glFlushMappedBufferRange_Bridge>(c, target, offset, length, c, *mi);
}

KAM_EXPORT GLboolean kam_glUnmapBuffer_opt(GLenum target) {
    KAMContext* c = activeContext();
    if (c == nullptr) return KAM_GL(glUnmapBuffer)(target);
    MappedInfo* mi = c->mBindings.unmapBufferPre(target);
    if (mi == nullptr)
        return c->mWorker->postSync([&] { return KAM_GL(glUnmapBuffer)(target); }, "kam_glUnmapBuffer_opt");
    BufferInfo* info = mi->info;
    if (info->directMapped) {
        KAM_GL(glUnmapBuffer)(target);
        KAM_GL(glBindBuffer)(target, 0);
        info->directMapped = 0;
        return GL_TRUE;
    }
    if (mi->wait) {
        glUnmapBuffer_Bridge now(target, c, *mi);
        c->mWorker->postSync([&] { now.run(); }, "kam_glUnmapBuffer_opt");
        return GL_TRUE;
    }
    kamRecord<glUnmapBuffer_Bridge>(c, target, c, *mi);
    return GL_TRUE;
}

}  // extern "C"
