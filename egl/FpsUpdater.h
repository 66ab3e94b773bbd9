#pragma once

#include "loader/Export.h"

#include <cstdint>

namespace android {

// Frame-rate meter over periods of at least one second. Before offload it
// decides when the worker starts (detectMTR); while offload runs it paces the
// statistics (update).
class KAM_EXPORT FpsUpdater {
public:
    static constexpr uint32_t kPeriodMs = 1000;
    static constexpr int kMinFps = 8;
    static constexpr int kPeriodsNeeded = 3;

    bool update();
    bool detectMTR();
    int getFps() const { return static_cast<int>(mRate + 0.5); }

    // Monotonic milliseconds truncated to 32 bits; period arithmetic is
    // unsigned, so a wrap of the counter is harmless. Replaceable for tests.
    static uint32_t nowMs();
    static uint32_t (*sClock)();

    float mRate = 0.0f;
    uint32_t mFrames = 0;
    uint32_t mLastMs = 0;
    int32_t mHits = 0;

private:
    bool closePeriod(uint32_t* elapsed, uint32_t* now);
};

}  // namespace android
