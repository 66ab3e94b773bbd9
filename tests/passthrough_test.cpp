// Every GL and EGL name of the platform's tables reaches a kam_ entry, and on
// a thread that is not offloaded that entry is the origin call: same thread,
// same arguments, same result.

#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "call_cases.h"
#include "loader/KAMLoader.h"
#include "support.h"

namespace {

using cases::Case;
using cases::Outcome;

struct Expectation {
    std::string name;
    size_t argCount;
};

// The bounded pointer calls forward to the unbounded wrapper without their
// trailing count.
Expectation expectedCall(const Case& c, size_t argCount) {
    std::string name = c.name;
    if (std::string(c.kind) == "bounds") return {name.substr(0, name.size() - 6), argCount - 1};
    return {name, argCount};
}

void checkPassThrough(const Case& c, void* entry, uint64_t resultSeed) {
    SCOPED_TRACE(c.name);
    ASSERT_NE(entry, nullptr);
    fake::reset();
    fake::setResult(resultSeed);
    Outcome out;
    c.call(entry, out);
    auto calls = fake::calls();
    Expectation want = expectedCall(c, out.args.size());
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].name, want.name);
    EXPECT_TRUE(pthread_equal(calls[0].thread, pthread_self()));
    std::vector<uint64_t> args(out.args.begin(), out.args.begin() + want.argCount);
    EXPECT_EQ(calls[0].args, args);
    if (!c.isVoid) {
        EXPECT_EQ(out.result, out.expected);
    }
}

class PassThroughTest : public ::testing::Test {
protected:
    void SetUp() override { support::initLayer(); }
};

TEST_F(PassThroughTest, EveryGlNameWithoutThreadRecord) {
    auto* loader = android::KAMLoader::getInstance();
    ASSERT_FALSE(loader->mMissingEntries);
    // A fresh thread has never made a context current: no record at all.
    std::thread([&] {
        for (int k = 0; k < cases::glCaseCount; ++k)
            checkPassThrough(cases::glCases[k], loader->mKamGl[k], 0x5000 + k);
    }).join();
}

TEST_F(PassThroughTest, EveryEglNameWithoutThreadRecord) {
    auto* loader = android::KAMLoader::getInstance();
    std::thread([&] {
        for (int k = 0; k < cases::eglCaseCount; ++k)
            checkPassThrough(cases::eglCases[k], loader->mKamEgl[k], 0x7000 + k);
    }).join();
}

TEST_F(PassThroughTest, CaseTablesFollowThePlatformOrder) {
    for (int k = 0; k < cases::glCaseCount; ++k) ASSERT_STREQ(cases::glCases[k].name, kam_platform_gl_names[k]);
    EXPECT_EQ(kam_platform_gl_names[cases::glCaseCount], nullptr);
    EXPECT_LE(cases::glCaseCount, fake::kGlTableSize);
    for (int k = 0; k < cases::eglCaseCount; ++k) ASSERT_STREQ(cases::eglCases[k].name, kam_platform_egl_names[k]);
    EXPECT_EQ(cases::eglCaseCount, fake::kEglTableSize);
}

}  // namespace
