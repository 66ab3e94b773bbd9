#include "gles_window.h"

#include <X11/Xutil.h>
#include <png.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace glesapp {
namespace {

const char *gTitle = "gles-app";

__attribute__((format(printf, 1, 2))) void report(const char *fmt, ...) {
    std::fprintf(stderr, "%s: ", gTitle);
    va_list ap;
    va_start(ap, fmt);
    std::vfprintf(stderr, fmt, ap);
    va_end(ap);
}

}  // namespace

static GLuint compile_shader(GLenum type, const char *src, const char *name) {
    GLuint sh = glCreateShader(type);
    if (!sh) {
        report("glCreateShader failed for %s\n", name);
        return 0;
    }
    glShaderSource(sh, 1, &src, nullptr);
    glCompileShader(sh);
    GLint ok = GL_FALSE;
    glGetShaderiv(sh, GL_COMPILE_STATUS, &ok);
    if (ok != GL_TRUE) {
        GLint len = 0;
        glGetShaderiv(sh, GL_INFO_LOG_LENGTH, &len);
        std::vector<char> log(static_cast<size_t>(len > 1 ? len : 1), '\0');
        glGetShaderInfoLog(sh, static_cast<GLsizei>(log.size()), nullptr, log.data());
        report("failed to compile %s:\n%s\n", name, log.data());
        glDeleteShader(sh);
        return 0;
    }
    return sh;
}

GLuint link_program(const char *vs_src, const char *fs_src, const char *name) {
    std::string vs_name = std::string(name) + " vertex shader";
    std::string fs_name = std::string(name) + " fragment shader";
    GLuint vs = compile_shader(GL_VERTEX_SHADER, vs_src, vs_name.c_str());
    if (!vs)
        return 0;
    GLuint fs = compile_shader(GL_FRAGMENT_SHADER, fs_src, fs_name.c_str());
    if (!fs) {
        glDeleteShader(vs);
        return 0;
    }
    GLuint prog = glCreateProgram();
    glAttachShader(prog, vs);
    glAttachShader(prog, fs);
    glLinkProgram(prog);
    // The program keeps the compiled stages alive; flag them for deletion now
    // so teardown only has programs to free.
    glDeleteShader(vs);
    glDeleteShader(fs);
    GLint ok = GL_FALSE;
    glGetProgramiv(prog, GL_LINK_STATUS, &ok);
    if (ok != GL_TRUE) {
        GLint len = 0;
        glGetProgramiv(prog, GL_INFO_LOG_LENGTH, &len);
        std::vector<char> log(static_cast<size_t>(len > 1 ? len : 1), '\0');
        glGetProgramInfoLog(prog, static_cast<GLsizei>(log.size()), nullptr, log.data());
        report("failed to link %s program:\n%s\n", name, log.data());
        glDeleteProgram(prog);
        return 0;
    }
    return prog;
}

bool write_png(const std::string &path, int w, int h, const std::vector<uint8_t> &rgba_bottom_up) {
    FILE *fp = std::fopen(path.c_str(), "wb");
    if (!fp) {
        report("cannot open '%s' for writing: %s\n", path.c_str(),
                     std::strerror(errno));
        return false;
    }
    // GL rows start at the bottom of the image; PNG rows start at the top.
    std::vector<png_bytep> rows(static_cast<size_t>(h));
    const size_t stride = static_cast<size_t>(w) * 4;
    for (int y = 0; y < h; ++y)
        rows[static_cast<size_t>(y)] =
            const_cast<png_bytep>(rgba_bottom_up.data() + static_cast<size_t>(h - 1 - y) * stride);

    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png ? png_create_info_struct(png) : nullptr;
    if (!png || !info) {
        report("libpng initialisation failed\n");
        png_destroy_write_struct(&png, &info);
        std::fclose(fp);
        return false;
    }
    if (setjmp(png_jmpbuf(png))) {
        report("libpng failed while writing '%s'\n", path.c_str());
        png_destroy_write_struct(&png, &info);
        std::fclose(fp);
        return false;
    }
    png_init_io(png, fp);
    png_set_IHDR(png, info, static_cast<png_uint_32>(w), static_cast<png_uint_32>(h), 8,
                 PNG_COLOR_TYPE_RGBA, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
                 PNG_FILTER_TYPE_DEFAULT);
    png_write_info(png, info);
    png_write_image(png, rows.data());
    png_write_end(png, nullptr);
    png_destroy_write_struct(&png, &info);
    if (std::fclose(fp) != 0) {
        report("error closing '%s': %s\n", path.c_str(), std::strerror(errno));
        return false;
    }
    return true;
}

static const char *egl_error_string(EGLint e) {
    switch (e) {
    case EGL_SUCCESS: return "EGL_SUCCESS";
    case EGL_NOT_INITIALIZED: return "EGL_NOT_INITIALIZED";
    case EGL_BAD_ACCESS: return "EGL_BAD_ACCESS";
    case EGL_BAD_ALLOC: return "EGL_BAD_ALLOC";
    case EGL_BAD_ATTRIBUTE: return "EGL_BAD_ATTRIBUTE";
    case EGL_BAD_CONFIG: return "EGL_BAD_CONFIG";
    case EGL_BAD_CONTEXT: return "EGL_BAD_CONTEXT";
    case EGL_BAD_CURRENT_SURFACE: return "EGL_BAD_CURRENT_SURFACE";
    case EGL_BAD_DISPLAY: return "EGL_BAD_DISPLAY";
    case EGL_BAD_MATCH: return "EGL_BAD_MATCH";
    case EGL_BAD_NATIVE_PIXMAP: return "EGL_BAD_NATIVE_PIXMAP";
    case EGL_BAD_NATIVE_WINDOW: return "EGL_BAD_NATIVE_WINDOW";
    case EGL_BAD_PARAMETER: return "EGL_BAD_PARAMETER";
    case EGL_BAD_SURFACE: return "EGL_BAD_SURFACE";
    case EGL_CONTEXT_LOST: return "EGL_CONTEXT_LOST";
    default: return "unknown EGL error";
    }
}

bool egl_fail(const char *what) {
    EGLint e = eglGetError();
    report("%s failed: %s (0x%04x)\n", what, egl_error_string(e), e);
    return false;
}

// Mesa sorts deep-colour (10-10-10-2) configs ahead of 8-8-8-8 ones even when
// 8 bits are requested, and a wrong pick would change the read-back bytes,
// so every candidate is checked exactly rather than trusting the first.
static bool choose_config(Platform *p, bool depth, XVisualInfo *vis_out) {
    const EGLint attribs[] = {
        EGL_SURFACE_TYPE, EGL_WINDOW_BIT,
        EGL_RENDERABLE_TYPE, EGL_OPENGL_ES3_BIT,
        EGL_RED_SIZE, 8,
        EGL_GREEN_SIZE, 8,
        EGL_BLUE_SIZE, 8,
        EGL_ALPHA_SIZE, 8,
        EGL_DEPTH_SIZE, depth ? 16 : 0,
        EGL_NONE,
    };
    EGLint count = 0;
    if (!eglChooseConfig(p->dpy, attribs, nullptr, 0, &count))
        return egl_fail("eglChooseConfig");
    if (count <= 0) {
        report("no EGL config supports an ES3 window with RGBA8%s\n", depth ? " and depth" : "");
        return false;
    }
    std::vector<EGLConfig> configs(static_cast<size_t>(count));
    if (!eglChooseConfig(p->dpy, attribs, configs.data(), count, &count))
        return egl_fail("eglChooseConfig");

    // Prefer a 24-bit depth buffer, accept 16; or take any when none is wanted.
    for (EGLint want_depth : {24, 16}) {
        if (!depth && want_depth != 24) break;
        for (EGLint i = 0; i < count; ++i) {
            EGLint r = 0, g = 0, b = 0, a = 0, d = 0, vid = 0;
            eglGetConfigAttrib(p->dpy, configs[i], EGL_RED_SIZE, &r);
            eglGetConfigAttrib(p->dpy, configs[i], EGL_GREEN_SIZE, &g);
            eglGetConfigAttrib(p->dpy, configs[i], EGL_BLUE_SIZE, &b);
            eglGetConfigAttrib(p->dpy, configs[i], EGL_ALPHA_SIZE, &a);
            eglGetConfigAttrib(p->dpy, configs[i], EGL_DEPTH_SIZE, &d);
            eglGetConfigAttrib(p->dpy, configs[i], EGL_NATIVE_VISUAL_ID, &vid);
            if (r != 8 || g != 8 || b != 8 || a != 8 || (depth && d != want_depth))
                continue;

            XVisualInfo tmpl{};
            int nvis = 0;
            XVisualInfo *vi = nullptr;
            if (vid != 0) {
                tmpl.visualid = static_cast<VisualID>(vid);
                vi = XGetVisualInfo(p->xdpy, VisualIDMask, &tmpl, &nvis);
            } else {
                tmpl.visualid = XVisualIDFromVisual(DefaultVisual(p->xdpy, DefaultScreen(p->xdpy)));
                vi = XGetVisualInfo(p->xdpy, VisualIDMask, &tmpl, &nvis);
            }
            if (!vi || nvis < 1) {
                if (vi)
                    XFree(vi);
                continue;
            }
            *vis_out = vi[0];
            XFree(vi);
            p->config = configs[i];
            return true;
        }
    }
    report(
                 "none of the %d EGL configs offered is exactly RGBA 8-8-8-8%s and a usable X visual\n", count,
                 depth ? " with a 24 or 16 bit depth buffer" : "");
    return false;
}

bool setup_platform(Platform *p, const WindowSpec &spec) {
    gTitle = spec.title;
    p->xdpy = XOpenDisplay(nullptr);
    if (!p->xdpy) {
        const char *name = std::getenv("DISPLAY");
        report("cannot open X display '%s'\n", name ? name : "(DISPLAY unset)");
        return false;
    }

    // The handle passed to eglGetDisplay is an Xlib Display; make sure the
    // loader does not try to interpret it as some other platform's display.
    setenv("EGL_PLATFORM", "x11", 0);
    p->dpy = eglGetDisplay(reinterpret_cast<EGLNativeDisplayType>(p->xdpy));
    if (p->dpy == EGL_NO_DISPLAY)
        return egl_fail("eglGetDisplay");
    EGLint major = 0, minor = 0;
    if (!eglInitialize(p->dpy, &major, &minor))
        return egl_fail("eglInitialize");
    p->egl_initialized = true;
    if (!eglBindAPI(EGL_OPENGL_ES_API))
        return egl_fail("eglBindAPI(EGL_OPENGL_ES_API)");

    XVisualInfo vis{};
    if (!choose_config(p, spec.depth, &vis))
        return false;

    const int screen = DefaultScreen(p->xdpy);
    const Window root = RootWindow(p->xdpy, screen);
    // The config's visual may be deeper than the root's (32-bit ARGB), which
    // requires an explicit colormap and border pixel or XCreateWindow fails.
    p->cmap = XCreateColormap(p->xdpy, root, vis.visual, AllocNone);
    XSetWindowAttributes swa{};
    swa.colormap = p->cmap;
    swa.background_pixel = 0;
    swa.border_pixel = 0;
    swa.event_mask = StructureNotifyMask;
    p->win = XCreateWindow(p->xdpy, root, 0, 0, static_cast<unsigned>(spec.width),
                           static_cast<unsigned>(spec.height), 0, vis.depth, InputOutput, vis.visual,
                           CWColormap | CWBackPixel | CWBorderPixel | CWEventMask, &swa);
    if (!p->win) {
        report("XCreateWindow failed\n");
        return false;
    }
    XStoreName(p->xdpy, p->win, spec.title);
    // Fix the size so a window manager, if any, does not resize the surface
    // under us and change the read-back dimensions.
    XSizeHints hints{};
    hints.flags = PSize | PMinSize | PMaxSize;
    hints.width = hints.min_width = hints.max_width = spec.width;
    hints.height = hints.min_height = hints.max_height = spec.height;
    XSetWMNormalHints(p->xdpy, p->win, &hints);
    XMapWindow(p->xdpy, p->win);
    XEvent ev{};
    do {
        XWindowEvent(p->xdpy, p->win, StructureNotifyMask, &ev);
    } while (ev.type != MapNotify);

    static const EGLint ctx_attribs[] = {EGL_CONTEXT_CLIENT_VERSION, 3, EGL_NONE};
    p->ctx = eglCreateContext(p->dpy, p->config, EGL_NO_CONTEXT, ctx_attribs);
    if (p->ctx == EGL_NO_CONTEXT)
        return egl_fail("eglCreateContext (OpenGL ES 3.0)");

    p->surf = eglCreateWindowSurface(p->dpy, p->config, static_cast<EGLNativeWindowType>(p->win), nullptr);
    if (p->surf == EGL_NO_SURFACE)
        return egl_fail("eglCreateWindowSurface");

    if (!eglMakeCurrent(p->dpy, p->surf, p->surf, p->ctx))
        return egl_fail("eglMakeCurrent");
    if (!eglSwapInterval(p->dpy, 0))
        return egl_fail("eglSwapInterval(0)");
    return true;
}

void teardown_platform(Platform *p) {
    if (p->dpy != EGL_NO_DISPLAY && p->egl_initialized) {
        eglMakeCurrent(p->dpy, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
        if (p->surf != EGL_NO_SURFACE)
            eglDestroySurface(p->dpy, p->surf);
        if (p->ctx != EGL_NO_CONTEXT)
            eglDestroyContext(p->dpy, p->ctx);
        eglTerminate(p->dpy);
        eglReleaseThread();
    }
    p->surf = EGL_NO_SURFACE;
    p->ctx = EGL_NO_CONTEXT;
    p->dpy = EGL_NO_DISPLAY;
    if (p->xdpy) {
        if (p->win)
            XDestroyWindow(p->xdpy, p->win);
        if (p->cmap)
            XFreeColormap(p->xdpy, p->cmap);
        XCloseDisplay(p->xdpy);
    }
    p->win = 0;
    p->cmap = 0;
    p->xdpy = nullptr;
}

bool parse_long(const char *s, long min, long max, long *out) {
    if (!s || !*s) return false;
    errno = 0;
    char *end = nullptr;
    long v = std::strtol(s, &end, 10);
    if (errno != 0 || *end != '\0' || v < min || v > max) return false;
    *out = v;
    return true;
}

double clock_seconds(clockid_t id) {
    timespec ts{};
    clock_gettime(id, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

}  // namespace glesapp
