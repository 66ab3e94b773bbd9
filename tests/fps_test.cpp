// The frame-rate meter that gates the worker start and paces the statistics,
// and the platform's switch that says whether offload should run at all.

#include <gtest/gtest.h>
#include <log/log.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "egl/FpsUpdater.h"
#include "runtime/KAMManager.h"
#include "support.h"

using android::FpsUpdater;
using android::KAMManager;

namespace {

uint32_t gNowMs = 0;
uint32_t fakeClock() { return gNowMs; }

// Both phases count frames and close periods the same way; only what they do
// with a closed period differs.
struct Phase {
    const char* name;
    bool (FpsUpdater::*count)();
};
const Phase kPhases[] = {{"update", &FpsUpdater::update}, {"detectMTR", &FpsUpdater::detectMTR}};

class FpsMeterTest : public ::testing::Test {
protected:
    void SetUp() override {
        savedClock = FpsUpdater::sClock;
        FpsUpdater::sClock = &fakeClock;
        gNowMs = 0;
    }
    void TearDown() override { FpsUpdater::sClock = savedClock; }

    // One period at the given rate: the frames before the last one keep it
    // open, the last one lands exactly a second after the period began.
    static bool period(FpsUpdater& m, int fps) {
        for (int i = 1; i < fps; ++i) {
            if (m.detectMTR()) return true;
        }
        gNowMs += 1000;
        return m.detectMTR();
    }

    uint32_t (*savedClock)() = nullptr;
};

TEST_F(FpsMeterTest, FirstCallOnlyOpensThePeriodAndKeepsItsFrame) {
    for (const Phase& p : kPhases) {
        SCOPED_TRACE(p.name);
        FpsUpdater m;
        gNowMs = 5000;
        EXPECT_FALSE((m.*p.count)());
        EXPECT_EQ(m.mLastMs, 5000u);
        EXPECT_EQ(m.mFrames, 1u);
        // Even a second later the opening call does not count as a period.
        FpsUpdater late;
        gNowMs = 900000;
        EXPECT_FALSE((late.*p.count)());
        EXPECT_EQ(late.mRate, 0.0f);
    }
}

TEST_F(FpsMeterTest, PeriodClosesAtOneSecondNotBefore) {
    for (const Phase& p : kPhases) {
        SCOPED_TRACE(p.name);
        FpsUpdater m;
        gNowMs = 5000;
        (m.*p.count)();
        gNowMs = 5999;
        EXPECT_FALSE((m.*p.count)());
        EXPECT_EQ(m.mLastMs, 5000u);  // the open period keeps growing
        EXPECT_EQ(m.mFrames, 2u);
        gNowMs = 6000;
        bool closed = (m.*p.count)();
        if (p.count == &FpsUpdater::update) {
            EXPECT_TRUE(closed);
        }
        // The opening frame belongs to the first period: three frames in it.
        EXPECT_EQ(m.mRate, 3.0f);
        EXPECT_EQ(m.mFrames, 0u);
        EXPECT_EQ(m.mLastMs, 6000u);
    }
}

// Statistics close a period over the whole elapsed time and leave the run of
// detection hits alone (one frame a second would reset it).
TEST_F(FpsMeterTest, RateIsComputedOverTheWholeElapsedTime) {
    FpsUpdater m;
    m.mLastMs = 10000;
    m.mFrames = 59;
    m.mHits = 2;
    gNowMs = 12500;
    EXPECT_TRUE(m.update());
    EXPECT_FLOAT_EQ(m.mRate, 24.0f);  // 60 frames over 2.5 s
    EXPECT_EQ(m.getFps(), 24);
    gNowMs = 13500;
    EXPECT_TRUE(m.update());
    EXPECT_EQ(m.mHits, 2);
}

TEST_F(FpsMeterTest, RoundedRateDecidesAHit) {
    struct Row {
        uint32_t frames;
        uint32_t elapsedMs;
        int fps;
        int32_t hitsBefore;
        int32_t hitsAfter;
        bool start;
    } rows[] = {
        {749, 100000, 7, 1, 0, false},  // 7.49 rounds down: the run of hits restarts
        {750, 100000, 8, 1, 2, false},  // 7.5 rounds up: counts
        {15, 2000, 8, 0, 1, false},
        {7, 1000, 7, 2, 0, false},
        {8, 1000, 8, 2, 0, true},  // the third hit in a row starts the worker
        {60, 1000, 60, 2, 0, true},
        {1, 1000, 1, 1, 0, false},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(std::to_string(r.frames) + " frames in " + std::to_string(r.elapsedMs) + " ms");
        FpsUpdater m;
        m.mLastMs = 20000;
        m.mFrames = r.frames - 1;  // the call below counts the last frame
        m.mHits = r.hitsBefore;
        gNowMs = 20000 + r.elapsedMs;
        EXPECT_EQ(m.detectMTR(), r.start);
        EXPECT_EQ(m.getFps(), r.fps);
        EXPECT_EQ(m.mHits, r.hitsAfter);
    }
}

TEST_F(FpsMeterTest, ThreeGoodPeriodsInARowAfterABadOne) {
    FpsUpdater m;
    gNowMs = 1000;
    std::vector<bool> starts;
    starts.push_back(m.detectMTR());
    for (int fps : {10, 10, 5, 10, 10, 10}) starts.push_back(period(m, fps));
    EXPECT_EQ(starts, (std::vector<bool>{false, false, false, false, false, false, true}));
    // After a start the count begins again from nothing.
    EXPECT_EQ(m.mHits, 0);
    EXPECT_FALSE(period(m, 10));
    EXPECT_FALSE(period(m, 10));
    EXPECT_TRUE(period(m, 10));
}

TEST_F(FpsMeterTest, WrapOfTheMillisecondCounterIsHarmless) {
    for (const Phase& p : kPhases) {
        SCOPED_TRACE(p.name);
        FpsUpdater m;
        m.mLastMs = UINT32_MAX - 499;  // 500 ms before the counter wraps
        m.mFrames = 19;
        gNowMs = 499;
        EXPECT_FALSE((m.*p.count)());
        EXPECT_EQ(m.mLastMs, UINT32_MAX - 499);
        gNowMs = 500;
        (m.*p.count)();
        EXPECT_EQ(m.mLastMs, 500u);
        EXPECT_FLOAT_EQ(m.mRate, 21.0f);  // 21 frames over exactly 1000 ms
    }
}

class FpsSwitchTest : public ::testing::Test {
protected:
    void SetUp() override {
        support::initLayer();
        support::clearLog();
        saved = manager->mNeedMTR.load();
    }
    void TearDown() override { manager->mNeedMTR.store(saved); }
    KAMManager* manager = KAMManager::INSTANCE;
    bool saved = true;
};

TEST_F(FpsSwitchTest, OnlyBitZeroSaysOffloadIsWanted) {
    struct Row {
        int flags;
        bool need;
        const char* logged;
    } rows[] = {{2, false, "0x2"}, {1, true, "0x1"}, {0, false, "0x0"}, {3, true, "0x3"}, {0x100, false, "0x100"},
                {-1, true, "0xFFFFFFFF"}};
    for (const Row& r : rows) {
        SCOPED_TRACE(r.logged);
        manager->mNeedMTR.store(!r.need);
        support::clearLog();
        manager->updateMTR(r.flags);
        EXPECT_EQ(manager->mNeedMTR.load(), r.need);
        EXPECT_EQ(manager->isNeedMTR(), r.need);
        std::string line = "updateMTR " + manager->mName + " flags=" + r.logged;
        auto lines = support::logLines();
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0].text, line);
        EXPECT_EQ(lines[0].priority, ANDROID_LOG_DEBUG);
        EXPECT_EQ(lines[0].tag, "_V_KAM");
    }
}

}  // namespace
