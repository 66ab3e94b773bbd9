#pragma once

namespace android {

// Pools of object names generated ahead of time on the worker.
class GLCaches {
public:
    void swapBuffer() {}
};

}  // namespace android
