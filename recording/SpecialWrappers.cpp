// GL wrappers whose behaviour on an offloaded thread is not one of the
// generated kinds: the finish that does not wait, the error probe, and the
// state queries the layer can answer from the platform's context record.

#include "kam_bridges.h"
#include "recording/Record.h"
#include "runtime/KAMLog.h"
#include "runtime/PlatformRecords.h"
#include "shadow/GLCaches.h"

using namespace android;

namespace {

// Queries look at the attached context (offloaded or not), not only at the
// active one: GL_NUM_EXTENSIONS and GL_EXTENSIONS come from the record either
// way.
template <class T>
void writeExtensionCount(KAMContext* c, T* params) {
    *params = static_cast<T>(contextRecord(c->mEglContext)->extensionList.size());
}

template <>
void writeExtensionCount<GLboolean>(KAMContext* c, GLboolean* params) {
    *params = contextRecord(c->mEglContext)->extensionList.empty() ? GL_FALSE : GL_TRUE;
}

}  // namespace

#define KAM_STATE_QUERY(NAME, TYPE)                                                                   \
    extern "C" KAM_EXPORT void kam_##NAME##_opt(GLenum pname, TYPE* params) {                        \
        KAMContext* c = attachedContext();                                                            \
        if (c == nullptr) return KAM_EGL(NAME)(pname, params);                                        \
        if (pname == GL_NUM_EXTENSIONS) return writeExtensionCount(c, params);                        \
        if (c->mActive && !Params::isShared(pname))                                                   \
            return c->mWorker->postSync([&] { KAM_GL(NAME)(pname, params); }, "kam_" #NAME "_opt"); \
        KAM_GL(NAME)(pname, params);                                                                  \
    }                                                                                                 \
    extern "C" KAM_EXPORT void kam_##NAME(GLenum pname, TYPE* params) {                              \
        KAMContext* c = activeContext();                                                              \
        if (c == nullptr) return KAM_EGL(NAME)(pname, params);                                        \
        c->mWorker->postSync([&] { KAM_EGL(NAME)(pname, params); }, "kam_" #NAME);                  \
    }

KAM_STATE_QUERY(glGetBooleanv, GLboolean)
KAM_STATE_QUERY(glGetFloatv, GLfloat)
KAM_STATE_QUERY(glGetIntegerv, GLint)
KAM_STATE_QUERY(glGetInteger64v, GLint64)

extern "C" {

KAM_EXPORT const GLubyte* kam_glGetString_opt(GLenum name) {
    KAMContext* c = attachedContext();
    if (c == nullptr) return KAM_EGL(glGetString)(name);
    if (name == GL_EXTENSIONS)
        return reinterpret_cast<const GLubyte*>(contextRecord(c->mEglContext)->extensions.c_str());
    if (c->mActive) return c->mWorker->postSync([&] { return KAM_GL(glGetString)(name); }, "kam_glGetString_opt");
    return KAM_GL(glGetString)(name);
}

KAM_EXPORT const GLubyte* kam_glGetStringi_opt(GLenum name, GLuint index) {
    KAMContext* c = attachedContext();
    if (c == nullptr) return KAM_EGL(glGetStringi)(name, index);
    if (name == GL_EXTENSIONS) {
        const auto& list = contextRecord(c->mEglContext)->extensionList;
        return index < list.size() ? reinterpret_cast<const GLubyte*>(list[index].c_str()) : nullptr;
    }
    if (c->mActive)
        return c->mWorker->postSync([&] { return KAM_GL(glGetStringi)(name, index); }, "kam_glGetStringi_opt");
    return KAM_GL(glGetStringi)(name, index);
}

KAM_EXPORT const GLubyte* kam_glGetString(GLenum name) {
    KAMContext* c = activeContext();
    if (c == nullptr) return KAM_EGL(glGetString)(name);
    return c->mWorker->postSync([&] { return KAM_EGL(glGetString)(name); }, "kam_glGetString");
}

KAM_EXPORT const GLubyte* kam_glGetStringi(GLenum name, GLuint index) {
    KAMContext* c = activeContext();
    if (c == nullptr) return KAM_EGL(glGetStringi)(name, index);
    return c->mWorker->postSync([&] { return KAM_EGL(glGetStringi)(name, index); }, "kam_glGetStringi");
}

// The application never blocks on the GPU: the finish is queued and wakes the
// worker, and the caller goes on.
KAM_EXPORT void kam_glFinish(void) {
    KAMContext* c = activeContext();
    if (c == nullptr) return KAM_GL(glFinish)();
    kamRecordPost<glFinish_Bridge>(c, true);
}

// The application sees the errors of its own (placeholder) context; errors of
// replayed commands are only logged, with the command that ran last.
KAM_EXPORT GLenum kam_glGetError_opt(void) {
    KAMContext* c = activeContext();
    if (c != nullptr) {
        KAMWorker* w = c->mWorker.get();
        c->mWorker->post(new WorkItem("kam_glGetError_opt",
                                      [w] {
                                          GLenum error = KAM_GL(glGetError)();
                                          if (error != GL_NO_ERROR)
                                              KAM_LOGE("%s glGetError=0x%X", w->lastName(), error);
                                      }),
                         false);
    }
    return KAM_GL(glGetError)();
}

// Answered from the names the application was given, without the driver.
KAM_EXPORT GLboolean kam_glIsVertexArray_opt(GLuint array) { return isVertexArrayFromShadow(array); }

}  // extern "C"
