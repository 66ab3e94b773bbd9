// Every GL and EGL name of the platform's tables, in the platform's order,
// reaches a kam_ entry, and on a thread that never made a context current
// that entry is the origin call: same thread, same arguments, same result
// (the bounded pointer calls forward without their trailing count).

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>

#include "call_cases.h"
#include "loader/KAMLoader.h"
#include "support.h"

TEST(PassThroughTest, EveryNameWithoutAThreadRecord) {
    support::initLayer();
    auto* loader = android::KAMLoader::getInstance();
    ASSERT_FALSE(loader->mMissingEntries);
    EXPECT_EQ(cases::eglCaseCount, fake::kEglTableSize);
    const struct { const cases::Case* cases; int count; const char* const* names; void* const* entries; int tableSize; } tables[] = {
        {cases::glCases, cases::glCaseCount, kam_platform_gl_names, loader->mKamGl, fake::kGlTableSize},
        {cases::eglCases, cases::eglCaseCount, kam_platform_egl_names, loader->mKamEgl, fake::kEglTableSize}};
    std::thread([&] {
        for (const auto& t : tables) {
            EXPECT_EQ(t.names[t.count], nullptr);
            EXPECT_LE(t.count, t.tableSize);
            for (int k = 0; k < t.count; ++k) {
                const cases::Case& c = t.cases[k];
                SCOPED_TRACE(c.name);
                ASSERT_STREQ(c.name, t.names[k]);
                ASSERT_NE(t.entries[k], nullptr);
                fake::reset(), fake::setResult(0x5000 + k);
                cases::Outcome out;
                c.call(t.entries[k], out);
                const bool bounds = strcmp(c.kind, "bounds") == 0;
                const auto calls = fake::calls();
                ASSERT_EQ(calls.size(), 1u);
                EXPECT_EQ(calls[0].name, std::string(c.name, strlen(c.name) - (bounds ? 6 : 0)));
                EXPECT_TRUE(pthread_equal(calls[0].thread, pthread_self()));
                EXPECT_EQ(calls[0].args, std::vector<uint64_t>(out.args.begin(), out.args.end() - bounds));
                if (!c.isVoid) { EXPECT_EQ(out.result, out.expected); }
            }
        }
    }).join();
}
