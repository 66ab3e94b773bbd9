#pragma once

#include <GLES3/gl32.h>

#include <atomic>
#include <cstdint>
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
};

// Shadow of one buffer the application has mapped. The record outlives the
// mapping so that the next map reuses its block.
struct KAM_EXPORT BufferInfo {
    explicit BufferInfo(GLuint name) : buffer(name) { mapping.info = this; }
    ~BufferInfo();
    BufferInfo(const BufferInfo&) = delete;
    BufferInfo& operator=(const BufferInfo&) = delete;

    // Guards the block against a realloc on the application thread while the
    // worker copies out of it; held only around those two operations.
    void lockShadow() {
        uint8_t expected = 0;
        while (!lock.compare_exchange_weak(expected, 1, std::memory_order_acquire)) expected = 0;
    }
    void unlockShadow() { lock.store(0, std::memory_order_release); }

    GLuint buffer = 0;
    uint32_t capacity = 0;
    uint8_t* shadow = nullptr;
    uint32_t lastUsedFrame = 0;
    uint8_t shadowMapped = 0;
    uint8_t directMapped = 0;
    uint8_t flushed = 0;
    std::atomic<int32_t> refs{0};
    std::atomic<uint8_t> lock{0};
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

    Bindings() = default;
    ~Bindings();
    Bindings(const Bindings&) = delete;
    Bindings& operator=(const Bindings&) = delete;

    // The buffer name bound to target, 0 when none.
    GLuint getBindingBuffer(GLenum target) const {
        auto it = targets.find(target);
        return it == targets.end() ? 0 : it->second;
    }
    void bindBuffer(GLenum target, GLuint buffer) { targets[target] = buffer; }
    BufferInfo* getBufferInfo(GLenum target) const;
    // The driver's size of buffer, asked on the calling thread; the target is
    // left unbound afterwards.
    static uint32_t bufferSize(GLenum target, GLuint buffer);

    MappedInfo* mapBufferRangePre(GLenum target, GLintptr offset, GLsizeiptr length, GLbitfield access,
                                  uint32_t frame);
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

    uint64_t allocatedBytes = 0;
    std::unordered_map<GLenum, GLuint> targets;
    std::unordered_map<GLuint, BufferInfo*> buffers;
    std::vector<BufferInfo*> pendingFree;
};

}  // namespace android
