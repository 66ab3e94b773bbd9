// Queries: answered from the context record, on the calling thread or on
// the worker.

#include <gtest/gtest.h>

#include <functional>
#include <thread>
#include <vector>

#include "kam_wrappers.h"
#include "runtime/KAMThreadLocal.h"
#include "support.h"

namespace {

class QueryTest : public ::testing::Test {
protected:
    void SetUp() override {
        fake::clearHandlers();
        fake::setResult(0);
        worker = ctx.worker()->postSync([] { return pthread_self(); }, "whoami");
        fake::reset();
        support::clearLog();
    }
    // Runs one query and checks its single driver call: table, thread.
    void expectOne(const char* name, const std::function<void()>& query, bool egl, bool onWorker) {
        fake::reset();
        query();
        auto calls = fake::calls();
        ASSERT_EQ(calls.size(), 1u) << name << " answered before returning";
        EXPECT_EQ(calls[0].name, name);
        EXPECT_EQ(calls[0].egl, egl) << name << (egl ? " must use the EGL table" : " must use the GL table");
        EXPECT_EQ(pthread_equal(calls[0].thread, worker) != 0, onWorker) << name;
    }

    support::ActiveContext ctx;  // the record lists two extensions
    pthread_t worker{};
};

TEST_F(QueryTest, ExtensionsComeFromTheRecordWithoutAGlCall) {
    GLint i = -1; GLboolean b = GL_FALSE; GLfloat f = -1; GLint64 l = -1;
    kam_glGetIntegerv_opt(GL_NUM_EXTENSIONS, &i);
    kam_glGetBooleanv_opt(GL_NUM_EXTENSIONS, &b);
    kam_glGetFloatv_opt(GL_NUM_EXTENSIONS, &f);
    ctx.get()->mActive = 0;  // attached but idle: still the record
    kam_glGetInteger64v_opt(GL_NUM_EXTENSIONS, &l);
    ctx.get()->mActive = 1;
    ctx.drain();
    EXPECT_TRUE(i == 2 && b == GL_TRUE && f == 2.0f && l == 2) << i << " " << int(b) << " " << f << " " << l;
    EXPECT_STREQ(reinterpret_cast<const char*>(kam_glGetString_opt(GL_EXTENSIONS)), "GL_OES_test_one GL_EXT_test_two");
    EXPECT_STREQ(reinterpret_cast<const char*>(kam_glGetStringi_opt(GL_EXTENSIONS, 1)), "GL_EXT_test_two");
    EXPECT_EQ(kam_glGetStringi_opt(GL_EXTENSIONS, 2), nullptr);  // index equal to the count
    EXPECT_EQ(kam_glGetStringi_opt(GL_EXTENSIONS, 0xFFFFFFFFu), nullptr);
    EXPECT_TRUE(fake::calls().empty());
    ctx.record.extensionList.clear();
    kam_glGetBooleanv_opt(GL_NUM_EXTENSIONS, &b);
    EXPECT_EQ(b, GL_FALSE);
}

// The driver's entries for these names differ between the EGL and GL tables.
// Values both contexts share are read on the calling thread.
TEST_F(QueryTest, EachQueryUsesItsTableOnItsThread) {
    static GLint64 buf[4];
    const std::vector<GLenum> sharedValues{GL_SAMPLES, GL_MAX_ARRAY_TEXTURE_LAYERS};
#define KAM_STATE_ROW(N, T) {#N, [](GLenum p) { kam_##N##_opt(p, (T*)buf); }, [](GLenum p) { kam_##N(p, (T*)buf); }, sharedValues}
    struct Row { const char* name; void (*opt)(GLenum), (*plain)(GLenum); std::vector<GLenum> shared; } rows[] = {KAM_STATE_ROW(glGetBooleanv, GLboolean), KAM_STATE_ROW(glGetFloatv, GLfloat),
                KAM_STATE_ROW(glGetIntegerv, GLint), KAM_STATE_ROW(glGetInteger64v, GLint64),
                {"glGetString", [](GLenum p) { kam_glGetString_opt(p); }, [](GLenum p) { kam_glGetString(p); }, {}},
                {"glGetStringi", [](GLenum p) { kam_glGetStringi_opt(p, 0); }, [](GLenum p) { kam_glGetStringi(p, 0); }, {}}};
    for (const Row& r : rows) {
        expectOne(r.name, [&] { r.opt(GL_VIEWPORT); }, false, true);
        expectOne(r.name, [&] { r.plain(GL_VIEWPORT); }, true, true);
        for (GLenum pname : r.shared) expectOne(r.name, [&] { r.opt(pname); }, false, false);
        ctx.get()->mActive = 0, android::gThreadRecord->mActiveContext = nullptr;  // attached, idle
        expectOne(r.name, [&] { r.opt(GL_VIEWPORT); }, false, false);
        expectOne(r.name, [&] { r.plain(GL_VIEWPORT); }, true, false);
        ctx.get()->mActive = 1, android::gThreadRecord->mActiveContext = ctx.get();
        std::thread([&] {  // no context at all
            expectOne(r.name, [&] { r.opt(GL_VIEWPORT); }, true, false);
            expectOne(r.name, [&] { r.plain(GL_VIEWPORT); }, true, false);
        }).join();
    }
}

}  // namespace
