#pragma once

// The host platform: a Linux stand-in for Android's EGL loader. It owns the
// records behind EGLContext and EGLSurface handles, the EGL table the public
// egl* functions dispatch through, the per-thread GL table slot, and the
// driver tables it hands to the layer.

#include <EGL/egl.h>
#include <EGL/eglext.h>

#include "kam_api.h"

#define KAM_PUBLIC __attribute__((visibility("default")))

extern "C" {
// The calling thread's current GL table (an array of kam_platform_gl_table_size
// entries); null on a thread that never made a context current.
extern KAM_PUBLIC __thread void* kam_platform_gl_slot __attribute__((tls_model("initial-exec")));
extern KAM_PUBLIC void* kam_platform_egl_table[86];
extern KAM_PUBLIC void* kam_platform_no_context_table[1276];
extern KAM_PUBLIC const char* const kam_platform_gl_names[];
extern KAM_PUBLIC const char* const kam_platform_egl_names[];
// Switches offload off (bit 0 clear) or on (bit 0 set) in a running process.
KAM_PUBLIC void kam_platform_update_mtr(int flags);
// For test programs: how many context and surface records exist (including
// the layer's own placeholders, destroyed ones still bound to a thread), and
// whether the calling thread's GL calls are currently offloaded.
KAM_PUBLIC void kam_platform_native_window_destroyed(unsigned long window);
KAM_PUBLIC void kam_platform_record_counts(int* contexts, int* surfaces);
KAM_PUBLIC int kam_platform_thread_offloaded(void);
}

namespace kamplatform {

struct PublicProc {
    const char* name;
    void* proc;
};

extern void* gDriverEgl[];
extern const char* const kDriverEglNames[];
extern const PublicProc kPublicEgl[];
extern const int kPublicEglCount;

void ensureInit();
// Warnings of calls that reach no driver, and the tables of entries that
// answer them with zeros (generated with every entry point's prototype).
void noContextCall();
void unimplementedCall();
void fillNoContextTable(void** table);
void fillMissingEntries(void** table);
void fillEglTable(void** table);
EGLSurface unwrapSurface(EGLSurface surface);
EGLContext unwrapContext(EGLContext context);

}  // namespace kamplatform

extern "C" {
// Every GL entry point of the platform by name, sorted (eglGetProcAddress).
extern const kamplatform::PublicProc kam_platform_gl_procs[];
extern const int kam_platform_gl_proc_count;
}

inline void* const* kam_platform_gl_table() {
    void* t = kam_platform_gl_slot;
    return static_cast<void* const*>(t ? t : static_cast<void*>(kam_platform_no_context_table));
}
