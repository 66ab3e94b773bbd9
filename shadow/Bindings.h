#pragma once

#include <GLES3/gl32.h>

#include <cstdint>
#include <unordered_set>

#include "loader/Export.h"

namespace android {

// What a recorded map, flush or unmap carries to the worker about the
// mapping it belongs to.
struct MappedInfo {
    GLuint buffer = 0;
    void* shadow = nullptr;
    GLintptr offset = 0;
    GLsizeiptr length = 0;
    GLbitfield access = 0;
};

// Buffer binding and mapping shadow of one offloaded context.
class KAM_EXPORT Bindings {
public:
    // Frees buffer records whose deletion waited for the frame boundary.
    void swapBuffer() {}
    // Releases shadow memory of records idle for long.
    void trimMemory(uint32_t frameCount) { (void)frameCount; }

    // Worker halves of the mapping calls.
    void mapBufferRangePost(GLenum target, MappedInfo* info, void* mapped) { (void)target, (void)info, (void)mapped; }
    void flushMappedBufferRangePost(GLenum target, GLintptr offset, GLsizeiptr length, MappedInfo* info) {
        (void)target, (void)offset, (void)length, (void)info;
    }
    void unmapBufferPost(MappedInfo* info) { (void)info; }

    // Vertex-array names the application owns, and the one it bound last:
    // answered without the driver while the real context is on the worker.
    std::unordered_set<GLuint> vertexArrays;
    GLuint currentVertexArray = 0;
};

}  // namespace android
