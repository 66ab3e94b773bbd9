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
    // Set by glVertexAttribIPointer: the shader reads integers, and every
    // pointer the worker is given for it goes through that call too.
    bool integer = false;
    GLsizei stride = 0;
    const void* pointer = nullptr;
    // The vertex array bound when the pointer was set: the array it belongs to.
    GLuint vertexArray = 0;
    // Whether the application's last enable or disable enabled the attribute;
    // unknown counts as enabled.
    bool enabled = true;
    // Whether the worker's attribute points at a copy in the arena rather
    // than at the application's memory.
    bool copied = false;
};

// Bytes per component of a vertex attribute or index type; 0 for types the
// layer does not size. Packed types count per component here; the vertex
// copy sizes packed attributes as one word per vertex itself.
KAM_EXPORT int kamTypeSize(GLenum type);

// Copies the client vertex data an indexed draw of count indices can reach
// into the frame arena and records pointers to the copies. The label is the
// caller's name, for traces. False when some client data cannot be copied:
// the draw must then run while the caller waits.
KAM_EXPORT bool applyAttribs(const char* label, GLsizei count, GLenum type, const void* indices);

}  // namespace android
