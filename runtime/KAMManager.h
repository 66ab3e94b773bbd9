#pragma once

#include <atomic>
#include <string>

#include <utils/RefBase.h>

#include "loader/KAMLoader.h"

namespace android {

class KAMContext;
class KAMThreadLocal;

// Process-wide offload policy: which threads and contexts are offloaded, and
// when offload starts and stops.
class KAM_EXPORT KAMManager : public virtual RefBase {
public:
    static KAMManager* INSTANCE;

    void initMTR(std::string name, bool debuggable, std::string args);
    bool makeCurrentPre(void* eglContext, void* drawSurface);
    void makeCurrentPost(void* eglContext);
    void startMTR(KAMContext* ctx, sp<KAMThreadLocal> tls);
    void stopMTR(KAMContext* ctx, sp<KAMThreadLocal> tls);
    void onContextReleased(KAMContext* ctx);
    void onThreadReleased(std::string& name, int tid, void* eglContext);
    bool isSurface(void* surface);
    void swapBuffers();
    bool isNeedMTR();
    void updateMTR(int flags);

    std::string mName;
    bool mEnabled = false;
    bool mClientArrays = false;
    std::atomic<bool> mNeedMTR{true};
    std::atomic<bool> mWorkerRunning{false};

private:
    void letGo(KAMContext* ctx, const char* label = "eglMakeCurrent");
};

}  // namespace android
