#include "egl/FpsUpdater.h"

#include <utils/Timers.h>

namespace android {

uint32_t FpsUpdater::nowMs() {
    return static_cast<uint32_t>(static_cast<int64_t>(systemTime(SYSTEM_TIME_MONOTONIC)) / 1000000);
}

uint32_t (*FpsUpdater::sClock)() = &FpsUpdater::nowMs;

// Counts the frame; true when at least a period's worth of time has passed
// since the period opened. The very first call only opens the period (and the
// frame it counted stays in it).
bool FpsUpdater::closePeriod(uint32_t* elapsed, uint32_t* now) {
    mFrames += 1;
    *now = sClock();
    if (mLastMs == 0) {
        mLastMs = *now;
        return false;
    }
    *elapsed = *now - mLastMs;
    return *elapsed >= kPeriodMs;
}

bool FpsUpdater::update() {
    uint32_t elapsed = 0, now = 0;
    if (!closePeriod(&elapsed, &now)) return false;
    mRate = static_cast<float>(static_cast<float>(mFrames) * 1000.0 / static_cast<float>(elapsed));
    mFrames = 0;
    mLastMs = now;
    return true;
}

bool FpsUpdater::detectMTR() {
    if (!update()) return false;
    if (getFps() < kMinFps) {
        mHits = 0;
        return false;
    }
    int32_t old = mHits;
    mHits = old + 1;
    if (old >= kPeriodsNeeded - 1) {
        mHits = 0;
        return true;
    }
    return false;
}

}  // namespace android
