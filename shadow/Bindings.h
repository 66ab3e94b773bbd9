#pragma once

#include <GLES3/gl32.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "loader/Export.h"

namespace android {

struct BufferInfo;

// One mapping of a buffer. Commands carry it by value so the worker never
// reads the application thread's current mapping, which a later map may have
// replaced by the time the command runs.
struct MappedInfo {
    BufferInfo* info = nullptr;
    uint32_t frame = 0;
    uint32_t offset = 0;
    uint32_t length = 0;
    uint32_t access = 0;
    // What a flush or unmap hands the worker: the written bytes as they were
    // when the application made the call, kept apart from the shadow block,
    // which the application may map and write again before the worker gets
    // there. Null: nothing to copy.
    const uint8_t* data = nullptr;
    // The bytes could not be kept: the call must run while the caller waits,
    // data then pointing into the shadow block.
    uint8_t wait = 0;
};

// Shadow of one buffer the application has mapped. The record outlives the
// mapping so that the next map reuses its block.
struct KAM_EXPORT BufferInfo {
    explicit BufferInfo(GLuint name) : buffer(name) { mapping.info = this; }
    ~BufferInfo();
    BufferInfo(const BufferInfo&) = delete;
    BufferInfo& operator=(const BufferInfo&) = delete;

    GLuint buffer = 0;
    uint32_t capacity = 0;
    uint8_t* shadow = nullptr;
    uint32_t lastUsedFrame = 0;
    uint8_t shadowMapped = 0;
    uint8_t directMapped = 0;
    // A flush of the current mapping was handed to the worker (application
    // thread only): its unmap then copies nothing.
    uint8_t flushed = 0;
    std::atomic<int32_t> refs{0};
    // The driver's size of the buffer, -1 while not known.
    int64_t size = -1;
    void* mappedPointer = nullptr;
    MappedInfo mapping;
};

// Buffer binding and mapping shadow of one offloaded context. Everything but
// the *Post members runs on the application thread; the posts run on the
// worker from the recorded map, flush and unmap commands.
class KAM_EXPORT Bindings {
public:
    // Shadow blocks are only trimmed above this total, and only when idle
    // for this many frames: apps remap the same buffers every frame.
    static constexpr uint64_t kTrimThreshold = 16000000;
    static constexpr uint32_t kTrimIdleFrames = 100;

    // The layer attaches at the context's first make-current, before the
    // application can have bound anything in the default vertex array.
    Bindings() { elementBuffers[0] = 0; }
    ~Bindings();
    Bindings(const Bindings&) = delete;
    Bindings& operator=(const Bindings&) = delete;

    // The buffer name bound to target, 0 when none. The element-array
    // binding belongs to the bound vertex array; one the layer has not seen
    // set is asked of the driver once.
    GLuint getBindingBuffer(GLenum target) {
        if (target == GL_ELEMENT_ARRAY_BUFFER) return elementBuffer();
        auto it = targets.find(target);
        return it == targets.end() ? 0 : it->second;
    }
    void bindBuffer(GLenum target, GLuint buffer) {
        if (target == GL_ELEMENT_ARRAY_BUFFER)
            elementBuffers[currentVertexArray] = buffer;
        else
            targets[target] = buffer;
    }
    BufferInfo* getBufferInfo(GLenum target);

    GLuint elementBuffer();
    void bindVertexArray(GLuint array);
    // Names fresh from the driver: no element buffer yet.
    void vertexArraysGenerated(GLsizei n, const GLuint* arrays);
    void deleteVertexArrays(GLsizei n, const GLuint* arrays);
    // glBufferData on target: the size is known from now on.
    void bufferData(GLenum target, GLsizeiptr size);

    // Null: map on the worker while the caller waits. A mapping with the
    // directMapped flag: map on the calling thread, where the buffer is now
    // bound (pixel-buffer reads, and ranges the driver rejects, so that the
    // application's context gets the driver's answer and error); if that map
    // fails, directMapFailed. Otherwise a shadow mapping.
    MappedInfo* mapBufferRangePre(GLenum target, GLintptr offset, GLsizeiptr length, GLbitfield access,
                                  uint32_t frame);
    void directMapFailed(GLenum target, BufferInfo* info);
    MappedInfo* flushMappedBufferRangePre(GLenum target, GLintptr offset, GLsizeiptr length);
    MappedInfo* unmapBufferPre(GLenum target);
    void deleteBuffers(GLsizei n, const GLuint* names);

    // Worker halves of the mapping calls.
    void mapBufferRangePost(GLenum target, MappedInfo* mi, void* mapped);
    void flushMappedBufferRangePost(GLenum target, GLintptr offset, GLsizeiptr length, MappedInfo* mi);
    void unmapBufferPost(GLenum target, MappedInfo* mi);

    // Frees buffer records whose deletion waited for the frame boundary.
    void swapBuffer();
    // Releases shadow memory of records idle for long.
    void trimMemory(uint32_t frameCount);

    // Vertex-array names the application owns, and the one it bound last:
    // answered without the driver while the real context is on the worker.
    std::unordered_set<GLuint> vertexArrays;
    GLuint currentVertexArray = 0;
    // Element-array buffer of each vertex array whose binding is known; a
    // vertex array made before the context was attached has no entry until
    // the driver is asked.
    std::unordered_map<GLuint, GLuint> elementBuffers;

    // Set by the owning context. askDriver answers an integer query in call
    // order (after everything recorded so far has run): glGetIntegerv(pname)
    // when target is 0, else glGetBufferParameteri64v(target, pname).
    // keepBytes copies bytes into memory that lives until the worker has
    // replayed the current frame (null when it cannot).
    std::function<int64_t(GLenum target, GLenum pname)> askDriver;
    std::function<void*(size_t bytes, const void* src)> keepBytes;

    uint64_t allocatedBytes = 0;
    std::unordered_map<GLenum, GLuint> targets;
    std::unordered_map<GLuint, BufferInfo*> buffers;
    std::vector<BufferInfo*> pendingFree;

private:
    void keep(MappedInfo& mi, const uint8_t* src, size_t bytes);
};

}  // namespace android
