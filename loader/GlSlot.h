#pragma once

// The calling thread's current GL dispatch table belongs to the platform's EGL
// loader; the layer only writes it on attach and detach.
#if defined(__ANDROID__)
#include <bionic/tls.h>
namespace android {
inline void setGlSlot(void* table) { reinterpret_cast<void**>(__get_tls())[4] = table; }
inline void* getGlSlot() { return reinterpret_cast<void**>(__get_tls())[4]; }
}  // namespace android
#else
// On Linux the host platform exports its per-thread slot under this name.
extern "C" __thread void* kam_platform_gl_slot;
namespace android {
inline void setGlSlot(void* table) { kam_platform_gl_slot = table; }
inline void* getGlSlot() { return kam_platform_gl_slot; }
}  // namespace android
#endif
