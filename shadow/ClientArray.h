#pragma once

#include <GLES3/gl32.h>

#include "loader/Export.h"

namespace android {

// The last client-memory vertex attribute pointer the application set for
// one attribute index; the pointer goes null when the attribute stops
// reading client memory.
class ClientArray {
public:
    virtual ~ClientArray() = default;

    GLuint index = 0;
    GLint size = 0;
    GLenum type = 0;
    GLboolean normalized = GL_FALSE;
    GLsizei stride = 0;
    const void* pointer = nullptr;
};

// Bytes per component of a vertex attribute or index type; 0 for types the
// layer does not size. Packed types count per component here; the vertex
// copy sizes packed attributes as one word per vertex itself.
KAM_EXPORT int kamTypeSize(GLenum type);

// Copies the client vertex data an indexed draw of count indices can reach
// into the frame arena and records pointers to the copies. The label is the
// caller's name, for traces.
KAM_EXPORT void applyAttribs(const char* label, GLsizei count, GLenum type, const void* indices);

}  // namespace android
