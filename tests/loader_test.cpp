// The loader's hand-over of tables and names, checked on private loader
// objects so that every case starts uninitialised.

#include <gtest/gtest.h>
#include <log/log.h>

#include <dlfcn.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include "fake_driver.h"
#include "loader/KAMLoader.h"
#include "support.h"

using android::KAMLoader;

namespace {
std::atomic<bool> gSelfOpenFails{false};
}  // namespace

// The loader opens its own library to look its entry points up; this
// definition in the executable comes before the C library's for the whole
// process, so a test can make that one open fail.
extern "C" void* dlopen(const char* path, int mode) {
    using Open = void* (*)(const char*, int);
    static const Open next = reinterpret_cast<Open>(dlsym(RTLD_NEXT, "dlopen"));
    if (gSelfOpenFails.load() && path && strcmp(path, android::kamLibraryPath()) == 0) return nullptr;
    return next(path, mode);
}

namespace {

struct Tables {
    void* egl[fake::kEglTableSize];
    void* gl[fake::kGlTableSize];
    Tables() {
        std::copy(std::begin(fake::eglTable), std::end(fake::eglTable), egl);
        std::copy(std::begin(fake::glTable), std::end(fake::glTable), gl);
    }
};

class LoaderTest : public ::testing::Test {
protected:
    void SetUp() override { support::clearLog(); }
    // The origin entries every wrapper calls belong to the process's loader:
    // a private one must leave them as they were, whatever it was given.
    void TearDown() override {
        EXPECT_TRUE(std::equal(originGl.begin(), originGl.end(), std::begin(android::gOriginGl)));
        EXPECT_TRUE(std::equal(originEgl.begin(), originEgl.end(), std::begin(android::gOriginEgl)));
    }
    const std::vector<void*> originGl = std::vector<void*>(std::begin(android::gOriginGl), std::end(android::gOriginGl));
    const std::vector<void*> originEgl = std::vector<void*>(std::begin(android::gOriginEgl), std::end(android::gOriginEgl));
    std::unique_ptr<KAMLoader> loader = std::make_unique<KAMLoader>();
    Tables tables;
};

// A name array that ends early leaves the later entries null; a name the
// layer has no entry for gets the origin entry, with a warning; a library
// that cannot be opened leaves every entry null. The copies are of the full
// tables whatever the names say.
TEST_F(LoaderTest, ShortOrUnknownNamesOrNoLibrary) {
    const struct { const char* extraName; bool openFails; int resolved; const char* logged; int priority; } rows[] = {
        {nullptr, false, 10, nullptr, 0},
        {"glNotAnEntryPoint", false, 11, "Can't find kam api, use origin api instead for glNotAnEntryPoint", ANDROID_LOG_WARN},
        {nullptr, true, 0, "Can't open the layer's own library", ANDROID_LOG_ERROR}};
    for (const auto& r : rows) {
        SCOPED_TRACE(r.logged ? r.logged : "short names");
        std::vector<const char*> names(kam_platform_gl_names, kam_platform_gl_names + 10);
        if (r.extraName) names.push_back(r.extraName);
        names.push_back(nullptr);
        support::clearLog();
        loader = std::make_unique<KAMLoader>();
        gSelfOpenFails = r.openFails;
        loader->init(kam_platform_egl_names, tables.egl, names.data(), tables.gl, nullptr);
        gSelfOpenFails = false;
        EXPECT_TRUE(loader->mInitialised);
        EXPECT_EQ(loader->mMissingEntries, r.logged != nullptr);
        for (int k = 0; k < fake::kGlTableSize; ++k) ASSERT_EQ(loader->mKamGl[k] != nullptr, k < r.resolved) << k;
        if (r.extraName) { EXPECT_EQ(loader->mKamGl[10], tables.gl[10]); }
        EXPECT_EQ(loader->mOriginGl[500], fake::glTable[500]);
        EXPECT_EQ(support::countLog("Can't"), r.logged != nullptr);
        if (r.logged) { EXPECT_EQ(support::countLog(r.logged, r.priority), 1); }
    }
}

// The platform's tables are taken once: a second init changes nothing. The
// switch to the layer's EGL entries copies once, never over what the
// platform wrote since; attach and detach write only the caller's slot.
TEST_F(LoaderTest, TablesAreTakenOnceAndEachSwitchWritesOnlyItsTarget) {
    loader->init(kam_platform_egl_names, tables.egl, kam_platform_gl_names, tables.gl, support::noContextTable);
    Tables other;
    loader->init(kam_platform_egl_names, other.egl, kam_platform_gl_names, other.gl, nullptr);
    EXPECT_EQ(tables.egl[0], fake::eglTable[0]);
    loader->useKamEgl();
    for (int k = 0; k < fake::kEglTableSize; ++k) ASSERT_EQ(tables.egl[k], loader->mKamEgl[k]) << k;
    tables.egl[5] = reinterpret_cast<void*>(0x42);
    loader->useKamEgl();
    EXPECT_EQ(tables.egl[5], reinterpret_cast<void*>(0x42));
    EXPECT_EQ(loader->mOriginEgl[0], fake::eglTable[0]);

    kam_platform_gl_slot = nullptr;
    loader->attachGlContext();
    EXPECT_EQ(kam_platform_gl_slot, loader->mKamGl);
    void* otherThreadSlot = reinterpret_cast<void*>(1);
    std::thread([&] { otherThreadSlot = kam_platform_gl_slot; }).join();
    EXPECT_EQ(otherThreadSlot, nullptr);
    loader->detachGlContext(false);
    EXPECT_EQ(kam_platform_gl_slot, tables.gl);
    loader->detachGlContext(true);
    EXPECT_EQ(kam_platform_gl_slot, support::noContextTable);
}

}  // namespace
