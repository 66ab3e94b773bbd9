#pragma once

// What the layer relies on of the platform EGL layer's objects behind an
// EGLContext and an EGLSurface handle. The handles the application sees are
// pointers to these records. The layer reads the words named here (display at
// word 3, read and draw surface at words 6 and 7, native window at word 5 of a
// surface) and keeps one reference of its own in each context record.

#include <EGL/egl.h>

#include <cstddef>
#include <string>
#include <vector>

#include <utils/StrongPointer.h>

namespace android {

class KAMContext;

struct PlatformContextRecord {
    void* magic;                 // word 0: identifies a live record
    EGLContext driverContext;    // word 1
    EGLConfig config;            // word 2
    EGLDisplay display;          // word 3
    void* reserved4;             // word 4
    void* reserved5;             // word 5
    EGLSurface read;             // word 6: last surfaces bound with this context
    EGLSurface draw;             // word 7
    int clientVersion;
    char creatorName[16];        // name of the thread that created the context
    sp<KAMContext> kamContext;   // the layer's offload context, if any
    std::string extensions;      // GL_EXTENSIONS as the platform reports it
    std::vector<std::string> extensionList;
};

struct PlatformSurfaceRecord {
    void* magic;                 // word 0
    EGLSurface driverSurface;    // word 1
    EGLDisplay display;          // word 2
    EGLConfig config;            // word 3
    void* reserved4;             // word 4
    void* nativeWindow;          // word 5: non-null for window surfaces
};

// The records hold library types, so they are not standard layout; the
// leading words are plain pointers all the same, laid out in order.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winvalid-offsetof"
static_assert(offsetof(PlatformContextRecord, display) == 3 * sizeof(void*), "display is word 3");
static_assert(offsetof(PlatformContextRecord, read) == 6 * sizeof(void*), "read surface is word 6");
static_assert(offsetof(PlatformContextRecord, draw) == 7 * sizeof(void*), "draw surface is word 7");
static_assert(offsetof(PlatformSurfaceRecord, nativeWindow) == 5 * sizeof(void*), "native window is word 5");
#pragma GCC diagnostic pop

inline PlatformContextRecord* contextRecord(void* eglContext) {
    return static_cast<PlatformContextRecord*>(eglContext);
}

}  // namespace android
