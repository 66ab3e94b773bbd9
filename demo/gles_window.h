#pragma once

// What the project's GLES programs (the demo and the end-to-end programs)
// share: an X window with an ES 3 context on an exactly RGBA 8-8-8-8 config,
// program linking with readable errors, and PNG output of a read-back frame.

#include <EGL/egl.h>
#include <GLES3/gl3.h>
#include <X11/Xlib.h>

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

namespace glesapp {

struct Platform {
    Display *xdpy = nullptr;
    Window win = 0;
    Colormap cmap = 0;
    EGLDisplay dpy = EGL_NO_DISPLAY;
    EGLConfig config = nullptr;
    EGLContext ctx = EGL_NO_CONTEXT;
    EGLSurface surf = EGL_NO_SURFACE;
    bool egl_initialized = false;
};

struct WindowSpec {
    const char *title;  // also the prefix of every error message
    int width;
    int height;
    bool depth;  // a 24-bit depth buffer, else 16; without, no depth is asked for
};

// Opens the window, makes the context current with swap interval 0. On
// failure it has said why on stderr; teardown_platform cleans up either way.
bool setup_platform(Platform *p, const WindowSpec &spec);
void teardown_platform(Platform *p);
// Reports the EGL error of a failed call; returns false for `return egl_fail(...)`.
bool egl_fail(const char *what);

GLuint link_program(const char *vs_src, const char *fs_src, const char *name);

// Writes a glReadPixels image (rows bottom-up) as an upright RGBA PNG.
bool write_png(const std::string &path, int w, int h, const std::vector<uint8_t> &rgba_bottom_up);

// A whole decimal number in [min, max]; false (out untouched) otherwise.
bool parse_long(const char *s, long min, long max, long *out);
// clock_gettime(id) in seconds.
double clock_seconds(clockid_t id);

}  // namespace glesapp
