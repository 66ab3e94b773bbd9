// Preloaded by kam-run. An X window can be destroyed at any moment, while an
// offloaded thread's last swap may still be queued on the layer's worker:
// presenting into a destroyed window is a fatal X error for the whole
// process. Android's windows are reference-counted by their EGL surfaces, so
// the problem does not exist there; here the platform drains the calling
// thread's worker before the window goes.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stddef.h>

typedef int (*DestroyWindowFn)(void*, unsigned long);
typedef void (*WindowGoingFn)(unsigned long);

static WindowGoingFn platformHook(void) {
    WindowGoingFn fn = (WindowGoingFn)dlsym(RTLD_DEFAULT, "kam_platform_native_window_destroyed");
    if (fn) return fn;
    // Programs that dlopen EGL keep the platform out of the global scope.
    void* egl = dlopen(KAM_PLATFORM_EGL, RTLD_LAZY | RTLD_NOLOAD);
    if (!egl) return NULL;
    fn = (WindowGoingFn)dlsym(egl, "kam_platform_native_window_destroyed");
    dlclose(egl);
    return fn;
}

__attribute__((visibility("default"))) int XDestroyWindow(void* display, unsigned long window) {
    static DestroyWindowFn real;
    if (!real) real = (DestroyWindowFn)dlsym(RTLD_NEXT, "XDestroyWindow");
    WindowGoingFn hook = platformHook();
    if (hook) hook(window);
    return real ? real(display, window) : 0;
}
