// Preloaded by kam-compare: blocks the render thread for good on a
// presented frame, which the direct run (animated by frame number) reproduces:
// KAM_STOP_OFFLOADED=N once N frames went through the layer's worker, or
// KAM_STOP_FRAME=M; KAM_STOP_FILE then gets "frame=M offloaded=K".
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

static long frame, offloaded;
static int (*thread_offloaded)(void);

// The platform's libEGL is often dlopen'ed privately (SDL): not in the
// global scope.
static int frame_offloaded(void) {
    static int looked;
    void *egl = looked++ ? NULL : dlopen("libEGL.so.1", RTLD_LAZY | RTLD_NOLOAD);
    if (egl) thread_offloaded = (int (*)(void))dlsym(egl, "kam_platform_thread_offloaded");
    return thread_offloaded && thread_offloaded();
}

static void presented(int was_offloaded) {
    const char *at = getenv("KAM_STOP_FRAME"), *after = getenv("KAM_STOP_OFFLOADED");
    const long this_frame = frame++;
    offloaded += was_offloaded;
    if (at ? this_frame != atol(at) : !(after && was_offloaded && offloaded >= atol(after))) return;
    // A layer may still hold the swap: glFinish returns once it is presented.
    void *gles = dlopen("libGLESv2.so.2", RTLD_LAZY);
    void (*finish)(void) = gles ? (void (*)(void))dlsym(gles, "glFinish") : NULL;
    if (finish) finish();
    const char *path = getenv("KAM_STOP_FILE");
    FILE *f = path ? fopen(path, "w") : NULL;
    if (f) fprintf(f, "frame=%ld offloaded=%ld\n", this_frame, offloaded), fclose(f);
    for (;;) pause();
}

unsigned eglSwapBuffers(void *dpy, void *surface) {
    unsigned (*next)(void *, void *) = (unsigned (*)(void *, void *))dlsym(RTLD_NEXT, "eglSwapBuffers");
    int was = frame_offloaded();
    unsigned ok = next(dpy, surface);
    return presented(was), ok;
}

void SDL_GL_SwapWindow(void *window) {
    void (*next)(void *) = (void (*)(void *))dlsym(RTLD_NEXT, "SDL_GL_SwapWindow");
    int was = frame_offloaded();
    next(window), presented(was);
}
