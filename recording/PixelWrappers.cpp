// Texture uploads and pixel reads that take client memory, the pixel-store
// wrapper that keeps the unpack snapshot current, and the Gen/Delete wrappers
// of the object kinds served from name pools or sharing their delete shape.

#include <climits>

#include "kam_bridges.h"
#include "recording/Record.h"
#include "shadow/GLCaches.h"
#include "shadow/Params.h"
#include "shadow/TexSize.h"

using namespace android;

namespace {

// The one place that asks the buffer shadow whether an upload's pointer is an
// offset into a bound pixel buffer.
inline GLuint boundBuffer(KAMContext* c, GLenum target) { return c->mBindings.getBindingBuffer(target); }

// Puts an arena copy of the caller's pixels in place of its pointer. Offsets
// (small values, or any value while a pixel buffer is bound) stay as they are.
// False when no copy can be made and the call must run synchronously with the
// caller's own pointer.
template <class Size>
inline bool stagePixels(KAMContext* c, GLenum bufferTarget, const void*& pixels, Size size) {
    if (!kamIsClientMemory(pixels) || boundBuffer(c, bufferTarget) != 0) return true;
    const long long bytes = size();
    void* copy = bytes >= 1 ? c->mMemory.malloc(static_cast<size_t>(bytes), pixels) : nullptr;
    if (copy == nullptr) return false;
    pixels = copy;
    return true;
}

// Bytes an upload reads. An image the GL rejects for a negative size reads
// nothing, however the 32-bit arithmetic wraps, and nor does an empty one,
// whatever rows or images the unpack state skips. Two-dimensional images skip
// no images whatever the unpack state says: the GL applies image height and
// skipped images to 3D images only.
int uploadSize3D(KAMContext* c, GLsizei width, GLsizei height, GLsizei depth, GLenum format, GLenum type) {
    if (width < 1 || height < 1 || depth < 1) return 0;
    return texSize(c, width, height, depth, format, type);
}

int uploadSize2D(KAMContext* c, GLsizei width, GLsizei height, GLenum format, GLenum type) {
    if (width < 1 || height < 1) return 0;
    Params p = c->mParams;
    p.mUnpackSkipImages = 0;
    return texSize(p, width, height, 1, format, type);
}

// Delete wrappers: the name array is copied so that the caller may reuse it.
template <class B, class Origin>
inline void recordDelete(KAMContext* c, GLsizei n, const GLuint* names, Origin origin, const char* wname) {
    if (kamIsClientMemory(names)) {
        // The bound keeps n * 4 from wrapping where size_t is 32 bits.
        void* copy = n >= 1 && n <= INT_MAX / 4
                         ? c->mMemory.malloc(static_cast<size_t>(n) * sizeof(GLuint), names)
                         : nullptr;
        if (copy == nullptr) {
            c->mWorker->postSync([&] { origin(n, names); }, wname);
            return;
        }
        names = static_cast<const GLuint*>(copy);
    }
    kamRecord<B>(c, n, names);
}

}  // namespace

namespace android {

GLboolean isVertexArrayFromShadow(GLuint array) {
    KAMContext* c = attachedContext();
    if (c == nullptr) return KAM_GL(glIsVertexArray)(array);
    return c->mBindings.vertexArrays.count(array) != 0 ? GL_TRUE : GL_FALSE;
}

}  // namespace android

extern "C" {

// ---------------------------------------------------------------- pixel store

KAM_EXPORT void kam_glPixelStorei_opt(GLenum pname, GLint param) {
    KAMThreadLocal* t = gThreadRecord;
    KAMContext* c = t ? t->mContext : nullptr;
    if (c == nullptr) return KAM_GL(glPixelStorei)(pname, param);
    c->mParams.store(pname, param);
    // Issued here as well: the placeholder context the thread sits on while
    // offloaded, and the real one while it is not, keep the same state.
    KAM_GL(glPixelStorei)(pname, param);
    if (t->mActiveContext != nullptr) kamRecord<glPixelStorei_Bridge>(t->mActiveContext, pname, param);
}

// ---------------------------------------------------------------- uploads

KAM_EXPORT void kam_glTexImage2D_opt(GLenum target, GLint level, GLint internalformat, GLsizei width, GLsizei height,
                                     GLint border, GLenum format, GLenum type, const void* pixels) {
    KAMContext* c = activeContext();
    if (__builtin_expect(c == nullptr, 1))
        return KAM_GL(glTexImage2D)(target, level, internalformat, width, height, border, format, type, pixels);
    if (!stagePixels(c, GL_PIXEL_UNPACK_BUFFER, pixels, [&] { return uploadSize2D(c, width, height, format, type); })) {
        c->mWorker->postSync(
            [&] { KAM_GL(glTexImage2D)(target, level, internalformat, width, height, border, format, type, pixels); },
            "kam_glTexImage2D_opt");
        return;
    }
    kamRecord<glTexImage2D_Bridge>(c, target, level, internalformat, width, height, border, format, type, pixels);
}

KAM_EXPORT void kam_glTexSubImage2D_opt(GLenum target, GLint level, GLint xoffset, GLint yoffset, GLsizei width,
                                        GLsizei height, GLenum format, GLenum type, const void* pixels) {
    KAMContext* c = activeContext();
    if (__builtin_expect(c == nullptr, 1))
        return KAM_GL(glTexSubImage2D)(target, level, xoffset, yoffset, width, height, format, type, pixels);
    if (!stagePixels(c, GL_PIXEL_UNPACK_BUFFER, pixels, [&] { return uploadSize2D(c, width, height, format, type); })) {
        c->mWorker->postSync(
            [&] { KAM_GL(glTexSubImage2D)(target, level, xoffset, yoffset, width, height, format, type, pixels); },
            "kam_glTexSubImage2D_opt");
        return;
    }
    kamRecord<glTexSubImage2D_Bridge>(c, target, level, xoffset, yoffset, width, height, format, type, pixels);
}

KAM_EXPORT void kam_glTexImage3D_opt(GLenum target, GLint level, GLint internalformat, GLsizei width, GLsizei height,
                                     GLsizei depth, GLint border, GLenum format, GLenum type, const void* pixels) {
    KAMContext* c = activeContext();
    if (__builtin_expect(c == nullptr, 1))
        return KAM_GL(glTexImage3D)(target, level, internalformat, width, height, depth, border, format, type, pixels);
    if (!stagePixels(c, GL_PIXEL_UNPACK_BUFFER, pixels,
                     [&] { return uploadSize3D(c, width, height, depth, format, type); })) {
        c->mWorker->postSync(
            [&] {
                KAM_GL(glTexImage3D)(target, level, internalformat, width, height, depth, border, format, type, pixels);
            },
            "kam_glTexImage3D_opt");
        return;
    }
    kamRecord<glTexImage3D_Bridge>(c, target, level, internalformat, width, height, depth, border, format, type,
                                   pixels);
}

KAM_EXPORT void kam_glTexSubImage3D_opt(GLenum target, GLint level, GLint xoffset, GLint yoffset, GLint zoffset,
                                        GLsizei width, GLsizei height, GLsizei depth, GLenum format, GLenum type,
                                        const void* pixels) {
    KAMContext* c = activeContext();
    if (__builtin_expect(c == nullptr, 1))
        return KAM_GL(glTexSubImage3D)(target, level, xoffset, yoffset, zoffset, width, height, depth, format, type,
                                       pixels);
    if (!stagePixels(c, GL_PIXEL_UNPACK_BUFFER, pixels,
                     [&] { return uploadSize3D(c, width, height, depth, format, type); })) {
        c->mWorker->postSync(
            [&] {
                KAM_GL(glTexSubImage3D)(target, level, xoffset, yoffset, zoffset, width, height, depth, format, type,
                                        pixels);
            },
            "kam_glTexSubImage3D_opt");
        return;
    }
    kamRecord<glTexSubImage3D_Bridge>(c, target, level, xoffset, yoffset, zoffset, width, height, depth, format, type,
                                      pixels);
}

KAM_EXPORT void kam_glCompressedTexImage2D_opt(GLenum target, GLint level, GLenum internalformat, GLsizei width,
                                               GLsizei height, GLint border, GLsizei imageSize, const void* data) {
    KAMContext* c = activeContext();
    if (__builtin_expect(c == nullptr, 1))
        return KAM_GL(glCompressedTexImage2D)(target, level, internalformat, width, height, border, imageSize, data);
    if (!stagePixels(c, GL_PIXEL_UNPACK_BUFFER, data, [&] { return imageSize; })) {
        c->mWorker->postSync(
            [&] {
                KAM_GL(glCompressedTexImage2D)(target, level, internalformat, width, height, border, imageSize, data);
            },
            "kam_glCompressedTexImage2D_opt");
        return;
    }
    kamRecord<glCompressedTexImage2D_Bridge>(c, target, level, internalformat, width, height, border, imageSize, data);
}

KAM_EXPORT void kam_glCompressedTexSubImage2D_opt(GLenum target, GLint level, GLint xoffset, GLint yoffset,
                                                  GLsizei width, GLsizei height, GLenum format, GLsizei imageSize,
                                                  const void* data) {
    KAMContext* c = activeContext();
    if (__builtin_expect(c == nullptr, 1))
        return KAM_GL(glCompressedTexSubImage2D)(target, level, xoffset, yoffset, width, height, format, imageSize,
                                                 data);
    if (!stagePixels(c, GL_PIXEL_UNPACK_BUFFER, data, [&] { return imageSize; })) {
        c->mWorker->postSync(
            [&] {
                KAM_GL(glCompressedTexSubImage2D)(target, level, xoffset, yoffset, width, height, format, imageSize,
                                                  data);
            },
            "kam_glCompressedTexSubImage2D_opt");
        return;
    }
    kamRecord<glCompressedTexSubImage2D_Bridge>(c, target, level, xoffset, yoffset, width, height, format, imageSize,
                                                data);
}

KAM_EXPORT void kam_glCompressedTexImage3D_opt(GLenum target, GLint level, GLenum internalformat, GLsizei width,
                                               GLsizei height, GLsizei depth, GLint border, GLsizei imageSize,
                                               const void* data) {
    KAMContext* c = activeContext();
    if (__builtin_expect(c == nullptr, 1))
        return KAM_GL(glCompressedTexImage3D)(target, level, internalformat, width, height, depth, border, imageSize,
                                              data);
    if (!stagePixels(c, GL_PIXEL_UNPACK_BUFFER, data, [&] { return imageSize; })) {
        c->mWorker->postSync(
            [&] {
                KAM_GL(glCompressedTexImage3D)(target, level, internalformat, width, height, depth, border, imageSize,
                                               data);
            },
            "kam_glCompressedTexImage3D_opt");
        return;
    }
    kamRecord<glCompressedTexImage3D_Bridge>(c, target, level, internalformat, width, height, depth, border, imageSize,
                                             data);
}

KAM_EXPORT void kam_glCompressedTexSubImage3D_opt(GLenum target, GLint level, GLint xoffset, GLint yoffset,
                                                  GLint zoffset, GLsizei width, GLsizei height, GLsizei depth,
                                                  GLenum format, GLsizei imageSize, const void* data) {
    KAMContext* c = activeContext();
    if (__builtin_expect(c == nullptr, 1))
        return KAM_GL(glCompressedTexSubImage3D)(target, level, xoffset, yoffset, zoffset, width, height, depth,
                                                 format, imageSize, data);
    if (!stagePixels(c, GL_PIXEL_UNPACK_BUFFER, data, [&] { return imageSize; })) {
        c->mWorker->postSync(
            [&] {
                KAM_GL(glCompressedTexSubImage3D)(target, level, xoffset, yoffset, zoffset, width, height, depth,
                                                  format, imageSize, data);
            },
            "kam_glCompressedTexSubImage3D_opt");
        return;
    }
    kamRecord<glCompressedTexSubImage3D_Bridge>(c, target, level, xoffset, yoffset, zoffset, width, height, depth,
                                                format, imageSize, data);
}

// ---------------------------------------------------------------- reads

KAM_EXPORT void kam_glReadPixels_opt(GLint x, GLint y, GLsizei width, GLsizei height, GLenum format, GLenum type,
                                     void* pixels) {
    KAMContext* c = activeContext();
    if (__builtin_expect(c == nullptr, 1)) return KAM_GL(glReadPixels)(x, y, width, height, format, type, pixels);
    // The caller reads its memory as soon as we return, so a read into client
    // memory has to be done by then.
    if (kamIsClientMemory(pixels) && boundBuffer(c, GL_PIXEL_PACK_BUFFER) == 0) {
        c->mWorker->postSync([&] { KAM_GL(glReadPixels)(x, y, width, height, format, type, pixels); },
                             "kam_glReadPixels_opt");
        return;
    }
    kamRecord<glReadPixels_Bridge>(c, x, y, width, height, format, type, pixels);
}

// ---------------------------------------------------------------- name pools

KAM_EXPORT void kam_glGenVertexArrays_opt(GLsizei n, GLuint* arrays) {
    KAMContext* c = activeContext();
    if (__builtin_expect(c == nullptr, 1)) {
        KAM_GL(glGenVertexArrays)(n, arrays);
        return;
    }
    // Names are only written into client memory; the driver judges the rest.
    if (!kamIsClientMemory(arrays) || !c->mCaches.getCaches(GLCaches::kVertexArrays, n, arrays))
        c->mWorker->postSync([&] { KAM_GL(glGenVertexArrays)(n, arrays); }, "kam_glGenVertexArrays_opt");
    if (kamIsClientMemory(arrays)) c->mBindings.vertexArraysGenerated(n, arrays);
}

KAM_EXPORT void kam_glGenTransformFeedbacks_opt(GLsizei n, GLuint* ids) {
    KAMContext* c = activeContext();
    if (__builtin_expect(c == nullptr, 1)) return KAM_GL(glGenTransformFeedbacks)(n, ids);
    if (!kamIsClientMemory(ids) || !c->mCaches.getCaches(GLCaches::kTransformFeedbacks, n, ids))
        c->mWorker->postSync([&] { KAM_GL(glGenTransformFeedbacks)(n, ids); }, "kam_glGenTransformFeedbacks_opt");
}

// ---------------------------------------------------------------- deletes

KAM_EXPORT void kam_glDeleteVertexArrays_opt(GLsizei n, const GLuint* arrays) {
    KAMContext* c = activeContext();
    if (__builtin_expect(c == nullptr, 1)) {
        KAM_GL(glDeleteVertexArrays)(n, arrays);
    } else {
        recordDelete<glDeleteVertexArrays_Bridge>(
            c, n, arrays, [](GLsizei k, const GLuint* p) { KAM_GL(glDeleteVertexArrays)(k, p); },
            "kam_glDeleteVertexArrays_opt");
    }
    KAMContext* attached = attachedContext();
    if (attached == nullptr || !kamIsClientMemory(arrays)) return;
    attached->mBindings.deleteVertexArrays(n, arrays);
}

#define KAM_DELETE_WRAPPER(NAME)                                                                               \
    KAM_EXPORT void kam_##NAME##_opt(GLsizei n, const GLuint* names) {                                         \
        KAMContext* c = activeContext();                                                                       \
        if (__builtin_expect(c == nullptr, 1)) return KAM_GL(NAME)(n, names);                                  \
        recordDelete<NAME##_Bridge>(c, n, names, [](GLsizei k, const GLuint* p) { KAM_GL(NAME)(k, p); },       \
                                    "kam_" #NAME "_opt");                                                      \
    }

KAM_DELETE_WRAPPER(glDeleteTransformFeedbacks)
KAM_DELETE_WRAPPER(glDeleteFramebuffers)
KAM_DELETE_WRAPPER(glDeleteRenderbuffers)
KAM_DELETE_WRAPPER(glDeleteTextures)
KAM_DELETE_WRAPPER(glDeleteSamplers)
KAM_DELETE_WRAPPER(glDeleteProgramPipelines)
KAM_DELETE_WRAPPER(glDeleteQueries)

#undef KAM_DELETE_WRAPPER

}  // extern "C"
