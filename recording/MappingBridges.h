#pragma once

// Command classes written by hand: the buffer-mapping calls carry the
// shadow's bookkeeping to the worker, and the vertex attribute pointer is
// declared beside them.

#include "loader/KAMLoader.h"
#include "recording/Bridge.h"
#include "runtime/KAMContext.h"

namespace android {

class glMapBufferRange_Bridge final : public Bridge {
public:
    glMapBufferRange_Bridge(GLenum target_, GLintptr offset_, GLsizeiptr length_, GLbitfield access_,
                            KAMContext* context_, const MappedInfo& info_)
        : target(target_), offset(offset_), length(length_), access(access_), context(context_), info(info_) {}
    void run() override {
        void* mapped = KAM_GL(glMapBufferRange)(target, offset, length, access);
        if (context) context->mBindings.mapBufferRangePost(target, &info, mapped);
    }
    const char* getName() override { return "glMapBufferRange"; }
    GLenum target;
    GLintptr offset;
    GLsizeiptr length;
    GLbitfield access;
    KAMContext* context;
    MappedInfo info;
};

class glFlushMappedBufferRange_Bridge final : public Bridge {
public:
    glFlushMappedBufferRange_Bridge(GLenum target_, GLintptr offset_, GLsizeiptr length_, KAMContext* context_,
                                    const MappedInfo& info_)
        : target(target_), offset(offset_), length(length_), context(context_), info(info_) {}
    void run() override {
        if (context) context->mBindings.flushMappedBufferRangePost(target, offset, length, &info);
        KAM_GL(glFlushMappedBufferRange)(target, offset, length);
    }
    const char* getName() override { return "glFlushMappedBufferRange"; }
    GLenum target;
    GLintptr offset;
    GLsizeiptr length;
    KAMContext* context;
    MappedInfo info;
};

class glUnmapBuffer_Bridge final : public Bridge {
public:
    glUnmapBuffer_Bridge(GLenum target_, KAMContext* context_, const MappedInfo& info_)
        : target(target_), context(context_), info(info_) {}
    void run() override {
        // The shadow's bytes must land before the driver lets go of the
        // real mapping.
        if (context) context->mBindings.unmapBufferPost(target, &info);
        KAM_GL(glUnmapBuffer)(target);
    }
    const char* getName() override { return "glUnmapBuffer"; }
    GLenum target;
    KAMContext* context;
    MappedInfo info;
};

class glVertexAttribPointer_Bridge final : public Bridge {
public:
    glVertexAttribPointer_Bridge(GLuint index_, GLint size_, GLenum type_, GLboolean normalized_, GLsizei stride_,
                                 const void* pointer_)
        : index(index_), size(size_), type(type_), normalized(normalized_), stride(stride_), pointer(pointer_) {}
    void run() override { KAM_GL(glVertexAttribPointer)(index, size, type, normalized, stride, pointer); }
    const char* getName() override { return "glVertexAttribPointer"; }
    GLuint index;
    GLint size;
    GLenum type;
    GLboolean normalized;
    GLsizei stride;
    const void* pointer;
};

}  // namespace android
