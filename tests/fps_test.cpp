// The frame-rate meter that gates the worker start and paces the statistics,
// and the platform's switch that says whether offload should run at all.

#include <gtest/gtest.h>
#include <log/log.h>

#include <cstdint>
#include <string>

#include "egl/FpsUpdater.h"
#include "runtime/KAMManager.h"
#include "support.h"

using android::FpsUpdater;
using android::KAMManager;

namespace {

uint32_t gNowMs = 0;

// One call from a given state. Both phases count frames and close periods
// alike; statistics (update) leave the run of hits alone, detection counts a
// closed period at a rounded 8 fps or more and starts at the third in a row.
TEST(FpsMeterTest, OneCallFromAState) {
    const uint32_t kWrap = UINT32_MAX - 499;  // 500 ms before the counter wraps
    // updated, detected: what each phase returns.
    const struct Row { const char* what; uint32_t lastMs, frames; int32_t hits; uint32_t now; bool updated, detected; int fps;
                       uint32_t framesAfter, lastAfter; int32_t detectHitsAfter; } rows[] = {
        {"the first call only opens the period", 0, 0, 2, 5000, false, false, 0, 1, 5000, 2},
        {"an open period grows", 5000, 1, 2, 5999, false, false, 0, 2, 5000, 2},
        {"a period closes at one second, its opening frame in it", 5000, 2, 1, 6000, true, false, 3, 0, 6000, 0},
        {"over the whole elapsed time", 10000, 59, 1, 12500, true, false, 24, 0, 12500, 2},
        {"the counter wraps, open", kWrap, 19, 0, 499, false, false, 0, 20, kWrap, 0},
        {"the counter wraps, closed", kWrap, 20, 0, 500, true, false, 21, 0, 500, 1},
        {"7.49 rounds down: the run restarts", 20000, 748, 1, 120000, true, false, 7, 0, 120000, 0},
        {"7.5 rounds up", 20000, 749, 1, 120000, true, false, 8, 0, 120000, 2},
        {"the third hit starts the worker", 20000, 7, 2, 21000, true, true, 8, 0, 21000, 0},
        {"a slow third period does not", 20000, 6, 2, 21000, true, false, 7, 0, 21000, 0},
    };
    const auto realClock = FpsUpdater::sClock;
    FpsUpdater::sClock = [] { return gNowMs; };
    for (const Row& r : rows)
        for (bool detect : {false, true}) {
            SCOPED_TRACE(std::string(r.what) + (detect ? " (detectMTR)" : " (update)"));
            FpsUpdater m;
            m.mLastMs = r.lastMs, m.mFrames = r.frames, m.mHits = r.hits;
            gNowMs = r.now;
            EXPECT_EQ(detect ? m.detectMTR() : m.update(), detect ? r.detected : r.updated);
            EXPECT_EQ(m.getFps(), r.fps);
            EXPECT_EQ(m.mFrames, r.framesAfter);
            EXPECT_EQ(m.mLastMs, r.lastAfter);
            EXPECT_EQ(m.mHits, detect ? r.detectHitsAfter : r.hits);
        }
    FpsUpdater::sClock = realClock;
}

TEST(FpsSwitchTest, OnlyBitZeroSaysOffloadIsWanted) {
    support::initLayer();
    KAMManager* manager = KAMManager::INSTANCE;
    const bool saved = manager->mNeedMTR.load();
    const struct { int flags; bool need; const char* logged; } rows[] = {
        {2, false, "0x2"}, {1, true, "0x1"}, {0, false, "0x0"}, {3, true, "0x3"}, {0x100, false, "0x100"}, {-1, true, "0xFFFFFFFF"}};
    for (const auto& r : rows) {
        SCOPED_TRACE(r.logged);
        manager->mNeedMTR.store(!r.need);
        support::clearLog();
        manager->updateMTR(r.flags);
        EXPECT_EQ(manager->isNeedMTR(), r.need);
        EXPECT_EQ(support::exactLog("updateMTR " + manager->mName + " flags=" + r.logged, ANDROID_LOG_DEBUG), 1);
        EXPECT_EQ(support::logLines().size(), 1u);
    }
    manager->mNeedMTR.store(saved);
}

}  // namespace
