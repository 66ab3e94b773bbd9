// Every GL and EGL name of the platform's tables gets the layer's entry (the
// _opt form over the plain one), which on a thread that never made a context
// current is the origin call: same thread, same arguments, same result.

#include <gtest/gtest.h>

#include <dlfcn.h>

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
    const struct { const cases::Case* cases; int count; const char* const* names; void* const* entries; } tables[] = {
        {cases::glCases, cases::glCaseCount, kam_platform_gl_names, loader->mKamGl},
        {cases::eglCases, cases::eglCaseCount, kam_platform_egl_names, loader->mKamEgl}};
    std::thread([&] {
        for (const auto& t : tables) {
            EXPECT_EQ(t.names[t.count], nullptr);
            for (int k = 0; k < t.count; ++k) {
                const cases::Case& c = t.cases[k];
                SCOPED_TRACE(c.name);
                ASSERT_NE(t.entries[k], nullptr);
                ASSERT_EQ(t.entries[k], dlsym(RTLD_DEFAULT, ("kam_" + std::string(c.name) + (strcmp(c.form, "opt") == 0 ? "_opt" : "")).c_str()));
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
