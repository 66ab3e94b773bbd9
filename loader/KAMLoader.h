#pragma once

#include <mutex>
#include <string>

#include "kam_api.h"  // generated: entry ids, names, function types
#include "loader/Export.h"

namespace android {

// Sizes of the platform's hook tables; the name arrays it hands over may be
// shorter (null terminated) but never longer.
constexpr int kEglTableSize = 86;
constexpr int kGlTableSize = 1276;

class KAM_EXPORT KAMLoader {
public:
    static KAMLoader* getInstance();

    void init(const char* const* eglNames, void* eglTable, const char* const* glNames, void* glTable, void* extra);
    void initKamTableLocked(void* kamTable, void* originTable, const char* const* names, void* handle);
    void* dlsymKamApi(std::string name, void* handle);
    void initKamLocked(const char* const* eglNames, const char* const* glNames);
    void useKamEgl();
    void attachGlContext();
    void detachGlContext(bool noContext);

    std::mutex mLock;
    bool mInitialised = false;
    bool mMissingEntries = false;
    bool mEglSwitched = false;
    void* mPlatformEglTable = nullptr;
    void* mOriginEgl[kEglTableSize] = {};
    void* mKamEgl[kEglTableSize] = {};
    void* mPlatformGlTable = nullptr;
    void* mOriginGl[kGlTableSize] = {};
    void* mKamGl[kGlTableSize] = {};
    void* mNoContextGlTable = nullptr;

private:
    void resolveOrigins(const char* const* eglNames, const char* const* glNames);
};

// Origin entries by the layer's own entry id (kam_api.h), resolved from the
// platform's name order once in init. Every wrapper calls through these: a
// plain global array keeps the hot path free of the singleton's guard.
extern KAM_EXPORT void* gOriginGl[kKamGlCount];
extern KAM_EXPORT void* gOriginEgl[kKamEglCount];

// The file the loader opens to look its own entry points up. Android installs
// the layer at a fixed path; elsewhere it is wherever this library was loaded
// from.
KAM_EXPORT const char* kamLibraryPath();

}  // namespace android

// Origin call by name: KAM_GL(glUniform1f)(loc, v).
#define KAM_GL(name) (reinterpret_cast<kam_pfn_##name>(::android::gOriginGl[::android::kGl_##name]))
#define KAM_EGL(name) (reinterpret_cast<kam_pfn_##name>(::android::gOriginEgl[::android::kEgl_##name]))
