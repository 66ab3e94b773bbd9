// libEGL's own copy of the GL entry points, handed out by eglGetProcAddress
// (glmark2 takes every GL function that way); hidden so that the GLES
// libraries stay the ones that export them.
#define KAM_STUB_VISIBILITY "hidden"
#define KAM_STUB_PROC_TABLE 1
#include "platform_gl_stubs.cpp"
