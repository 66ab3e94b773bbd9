#include "loader/KAMLoader.h"

#include <dlfcn.h>

#include <cstring>
#include <string_view>
#include <unordered_map>

#include "loader/GlSlot.h"
#include "runtime/KAMLog.h"

namespace android {

void* gOriginGl[kKamGlCount];
void* gOriginEgl[kKamEglCount];

KAMLoader* KAMLoader::getInstance() {
    static KAMLoader instance;
    return &instance;
}

const char* kamLibraryPath() {
#if defined(__ANDROID__)
    return "/system/lib/libKAM.so";
#else
    static const char* path = [] {
        Dl_info info{};
        return dladdr(reinterpret_cast<void*>(&kamLibraryPath), &info) && info.dli_fname ? info.dli_fname : "";
    }();
    return path;
#endif
}

void KAMLoader::init(const char* const* eglNames, void* eglTable, const char* const* glNames, void* glTable,
                     void* extra) {
    std::lock_guard<std::mutex> guard(mLock);
    if (mInitialised) return;
    mPlatformEglTable = eglTable;
    memcpy(mOriginEgl, eglTable, sizeof(mOriginEgl));
    mPlatformGlTable = glTable;
    memcpy(mOriginGl, glTable, sizeof(mOriginGl));
    mNoContextGlTable = extra;
    // The origin entries every wrapper calls are the process's: only its own
    // loader, the one the platform hands its tables to, may set them.
    if (this == getInstance()) resolveOrigins(eglNames, glNames);
    initKamLocked(eglNames, glNames);
    mInitialised = true;
}

void KAMLoader::initKamLocked(const char* const* eglNames, const char* const* glNames) {
    // glibc refuses a mode of 0; the library is loaded already, so this only
    // takes a reference to it.
    void* handle = dlopen(kamLibraryPath(), RTLD_LAZY);
    if (!handle) {
        // Interposed tables left empty would send every call to null.
        mMissingEntries = true;
        const char* why = dlerror();
        KAM_LOGE("Can't open the layer's own library %s (%s): offload stays off", kamLibraryPath(),
                 why ? why : "no reason given");
        return;
    }
    initKamTableLocked(mKamEgl, mOriginEgl, eglNames, handle);
    initKamTableLocked(mKamGl, mOriginGl, glNames, handle);
    dlclose(handle);
}

void KAMLoader::initKamTableLocked(void* kamTable, void* originTable, const char* const* names, void* handle) {
    auto** kam = static_cast<void**>(kamTable);
    auto** origin = static_cast<void**>(originTable);
    for (int k = 0; names[k]; ++k) {
        if (void* entry = dlsymKamApi(names[k], handle)) {
            kam[k] = entry;
        } else {
            kam[k] = origin[k];
            mMissingEntries = true;
            KAM_LOGW("Can't find kam api, use origin api instead for %s", names[k]);
        }
    }
}

void* KAMLoader::dlsymKamApi(std::string name, void* handle) {
    void* entry = dlsym(handle, ("kam_" + name + "_opt").c_str());
    if (!entry) entry = dlsym(handle, ("kam_" + name).c_str());
    return entry;
}

void KAMLoader::resolveOrigins(const char* const* eglNames, const char* const* glNames) {
    auto resolve = [](const char* const* names, int tableSize, void** table, const char* const* known,
                      int knownCount, void** out) {
        std::unordered_map<std::string_view, int> position;
        for (int k = 0; k < tableSize && names[k]; ++k) position.emplace(names[k], k);
        for (int id = 0; id < knownCount; ++id) {
            auto it = position.find(known[id]);
            out[id] = it == position.end() ? nullptr : table[it->second];
        }
    };
    resolve(eglNames, kEglTableSize, mOriginEgl, kKamEglNames, kKamEglCount, gOriginEgl);
    resolve(glNames, kGlTableSize, mOriginGl, kKamGlNames, kKamGlCount, gOriginGl);
}

void KAMLoader::useKamEgl() {
    std::lock_guard<std::mutex> guard(mLock);
    if (mEglSwitched) return;
    memcpy(mPlatformEglTable, mKamEgl, sizeof(mKamEgl));
    mEglSwitched = true;
}

void KAMLoader::attachGlContext() { setGlSlot(mKamGl); }

void KAMLoader::detachGlContext(bool noContext) { setGlSlot(noContext ? mNoContextGlTable : mPlatformGlTable); }

}  // namespace android
