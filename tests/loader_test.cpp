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
#include <string>
#include <vector>

#include "fake_driver.h"
#include "loader/KAMLoader.h"
#include "runtime/KAMLog.h"
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

int position(const char* const* names, const std::string& name) {
    for (int k = 0; names[k]; ++k)
        if (name == names[k]) return k;
    return -1;
}

class LoaderTest : public ::testing::Test {
protected:
    void SetUp() override {
        support::clearLog();
        std::copy(std::begin(android::gOriginGl), std::end(android::gOriginGl), originGl.begin());
        std::copy(std::begin(android::gOriginEgl), std::end(android::gOriginEgl), originEgl.begin());
    }
    // The origin entries every wrapper calls belong to the process's loader:
    // a private one must leave them as they were, whatever it was given.
    void TearDown() override {
        EXPECT_TRUE(std::equal(originGl.begin(), originGl.end(), std::begin(android::gOriginGl)));
        EXPECT_TRUE(std::equal(originEgl.begin(), originEgl.end(), std::begin(android::gOriginEgl)));
    }
    std::vector<void*> originGl = std::vector<void*>(android::kKamGlCount);
    std::vector<void*> originEgl = std::vector<void*>(android::kKamEglCount);
    std::unique_ptr<KAMLoader> loader = std::make_unique<KAMLoader>();
    Tables tables;
};

TEST_F(LoaderTest, RealNameListsResolveEveryEntryWithoutMissing) {
    loader->init(kam_platform_egl_names, tables.egl, kam_platform_gl_names, tables.gl, support::noContextTable);
    EXPECT_TRUE(loader->mInitialised);
    EXPECT_FALSE(loader->mMissingEntries);
    EXPECT_EQ(support::countLog("Can't find kam api"), 0);
    for (int k = 0; kam_platform_gl_names[k]; ++k) {
        ASSERT_NE(loader->mKamGl[k], nullptr) << kam_platform_gl_names[k];
        EXPECT_NE(loader->mKamGl[k], loader->mOriginGl[k]) << kam_platform_gl_names[k];
    }
    for (int k = 0; kam_platform_egl_names[k]; ++k)
        EXPECT_NE(loader->mKamEgl[k], loader->mOriginEgl[k]) << kam_platform_egl_names[k];
}

TEST_F(LoaderTest, SecondInitKeepsTheFirstTables) {
    loader->init(kam_platform_egl_names, tables.egl, kam_platform_gl_names, tables.gl, support::noContextTable);
    Tables other;
    other.gl[0] = reinterpret_cast<void*>(0x1234);
    void* extra = reinterpret_cast<void*>(0x5678);
    loader->init(kam_platform_egl_names, other.egl, kam_platform_gl_names, other.gl, extra);
    EXPECT_EQ(loader->mPlatformGlTable, tables.gl);
    EXPECT_EQ(loader->mPlatformEglTable, tables.egl);
    EXPECT_EQ(loader->mOriginGl[0], fake::glTable[0]);
    EXPECT_EQ(loader->mNoContextGlTable, support::noContextTable);
}

// A name array that ends early leaves the later entries null; a name the
// layer has no entry for gets the origin entry, with a warning. The copies
// are of the full tables whatever the names say.
TEST_F(LoaderTest, ShortOrUnknownNames) {
    for (bool unknown : {false, true}) {
        SCOPED_TRACE(unknown);
        std::vector<const char*> names(kam_platform_gl_names, kam_platform_gl_names + 10);
        if (unknown) names.push_back("glNotAnEntryPoint");
        names.push_back(nullptr);
        support::clearLog();
        loader = std::make_unique<KAMLoader>();
        loader->init(kam_platform_egl_names, tables.egl, names.data(), tables.gl, nullptr);
        EXPECT_EQ(loader->mMissingEntries, unknown);
        for (int k = 0; k < fake::kGlTableSize; ++k)
            ASSERT_EQ(loader->mKamGl[k] != nullptr, k < 10 + unknown) << k;
        if (unknown) { EXPECT_EQ(loader->mKamGl[10], tables.gl[10]); }
        EXPECT_EQ(loader->mOriginGl[500], fake::glTable[500]);
        EXPECT_EQ(support::countLog("Can't find"), unknown);
        EXPECT_EQ(support::exactLog("Can't find kam api, use origin api instead for glNotAnEntryPoint", ANDROID_LOG_WARN), unknown);
    }
}

// Both kam_glGetString_opt and kam_glGetString are exported: the _opt form wins.
TEST_F(LoaderTest, OptFormWinsOverPlainForm) {
    void* self = dlopen(android::kamLibraryPath(), RTLD_LAZY);
    void* opt = dlsym(self, "kam_glGetString_opt");
    ASSERT_TRUE(opt != nullptr && dlsym(self, "kam_glGetString") != nullptr);
    EXPECT_EQ(loader->dlsymKamApi("glGetString", self), opt);
    EXPECT_EQ(loader->dlsymKamApi("glFinish", self), dlsym(self, "kam_glFinish"));
    EXPECT_EQ(loader->dlsymKamApi("glNoSuchEntry", self), nullptr);
    loader->init(kam_platform_egl_names, tables.egl, kam_platform_gl_names, tables.gl, nullptr);
    EXPECT_EQ(loader->mKamGl[position(kam_platform_gl_names, "glGetString")], opt);
    EXPECT_EQ(loader->mKamEgl[position(kam_platform_egl_names, "eglMakeCurrent")], dlsym(self, "kam_eglMakeCurrent_opt"));
    dlclose(self);
}

TEST_F(LoaderTest, LibraryThatCannotBeOpenedKeepsOffloadOff) {
    gSelfOpenFails = true;
    loader->init(kam_platform_egl_names, tables.egl, kam_platform_gl_names, tables.gl, nullptr);
    gSelfOpenFails = false;
    EXPECT_TRUE(loader->mInitialised);
    EXPECT_TRUE(loader->mMissingEntries);
    EXPECT_EQ(loader->mKamGl[0], nullptr);
    EXPECT_EQ(support::countLog("Can't open the layer's own library", ANDROID_LOG_ERROR), 1);
}

TEST_F(LoaderTest, EglSwitchCopiesOnceAndOnlyOnce) {
    loader->init(kam_platform_egl_names, tables.egl, kam_platform_gl_names, tables.gl, nullptr);
    EXPECT_EQ(tables.egl[0], fake::eglTable[0]);
    loader->useKamEgl();
    EXPECT_TRUE(loader->mEglSwitched);
    for (int k = 0; k < fake::kEglTableSize; ++k) ASSERT_EQ(tables.egl[k], loader->mKamEgl[k]) << k;
    // A second switch must not copy again over what the platform wrote since.
    tables.egl[5] = reinterpret_cast<void*>(0x42);
    loader->useKamEgl();
    EXPECT_EQ(tables.egl[5], reinterpret_cast<void*>(0x42));
    // The origin copy keeps the platform's own entries.
    EXPECT_EQ(loader->mOriginEgl[0], fake::eglTable[0]);
}

TEST_F(LoaderTest, AttachAndDetachWriteOnlyTheCallersSlot) {
    loader->init(kam_platform_egl_names, tables.egl, kam_platform_gl_names, tables.gl, nullptr);
    kam_platform_gl_slot = nullptr;
    loader->attachGlContext();
    EXPECT_EQ(kam_platform_gl_slot, loader->mKamGl);
    void* otherThreadSlot = reinterpret_cast<void*>(1);
    std::thread([&] { otherThreadSlot = kam_platform_gl_slot; }).join();
    EXPECT_EQ(otherThreadSlot, nullptr);

    loader->detachGlContext(false);
    EXPECT_EQ(kam_platform_gl_slot, tables.gl);
    loader->attachGlContext();
    // The no-context table was null: detaching installs it anyway.
    loader->detachGlContext(true);
    EXPECT_EQ(kam_platform_gl_slot, nullptr);
}

}  // namespace
