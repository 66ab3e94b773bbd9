// Queries on an offloaded thread: answered from the context record, on the
// calling thread, on the worker, or by the error probe.

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "kam_wrappers.h"
#include "runtime/KAMLog.h"
#include "support.h"

using namespace android;

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
    void TearDown() override { fake::clearHandlers(); }

    bool onWorker(const fake::Call& c) const { return pthread_equal(c.thread, worker) != 0; }

    support::ActiveContext ctx;  // the record lists two extensions
    pthread_t worker{};
};

TEST_F(QueryTest, ExtensionCountComesFromTheRecordWithoutAGlCall) {
    GLint i = -1;
    GLboolean b = GL_FALSE;
    GLfloat f = -1;
    GLint64 l = -1;
    kam_glGetIntegerv_opt(GL_NUM_EXTENSIONS, &i);
    kam_glGetBooleanv_opt(GL_NUM_EXTENSIONS, &b);
    kam_glGetFloatv_opt(GL_NUM_EXTENSIONS, &f);
    kam_glGetInteger64v_opt(GL_NUM_EXTENSIONS, &l);
    ctx.drain();
    EXPECT_EQ(i, 2);
    EXPECT_EQ(b, GL_TRUE);
    EXPECT_EQ(f, 2.0f);
    EXPECT_EQ(l, 2);
    EXPECT_TRUE(fake::calls().empty());

    ctx.record.extensionList.clear();
    kam_glGetBooleanv_opt(GL_NUM_EXTENSIONS, &b);
    EXPECT_EQ(b, GL_FALSE);
}

TEST_F(QueryTest, SharedValuesAreReadOnTheCallingThreadOthersOnTheWorker) {
    struct Row {
        GLenum pname;
        bool callingThread;
    } rows[] = {{GL_SAMPLES, true}, {GL_MAX_ARRAY_TEXTURE_LAYERS, true}, {GL_VIEWPORT, false},
                {GL_UNPACK_ALIGNMENT, false}};
    for (const Row& row : rows) {
        SCOPED_TRACE(row.pname);
        fake::reset();
        GLint v[4] = {};
        kam_glGetIntegerv_opt(row.pname, v);
        auto calls = fake::calls();
        ASSERT_EQ(calls.size(), 1u) << "answered before returning";
        EXPECT_EQ(calls[0].name, "glGetIntegerv");
        EXPECT_EQ(pthread_equal(calls[0].thread, pthread_self()) != 0, row.callingThread);
        EXPECT_EQ(onWorker(calls[0]), !row.callingThread);
        EXPECT_EQ(calls[0].args[1], reinterpret_cast<uintptr_t>(v));
    }
}

TEST_F(QueryTest, AttachedButIdleContextQueriesTheCallingThread) {
    ctx.get()->mActive = 0;
    GLint v = 0;
    kam_glGetIntegerv_opt(GL_VIEWPORT, &v);
    kam_glGetIntegerv_opt(GL_NUM_EXTENSIONS, &v);
    ctx.get()->mActive = 1;
    auto calls = fake::calls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_TRUE(pthread_equal(calls[0].thread, pthread_self()));
    EXPECT_EQ(v, 2);
}

TEST_F(QueryTest, ExtensionStringsComeFromTheRecord) {
    EXPECT_STREQ(reinterpret_cast<const char*>(kam_glGetString_opt(GL_EXTENSIONS)), "GL_OES_test_one GL_EXT_test_two");
    EXPECT_STREQ(reinterpret_cast<const char*>(kam_glGetStringi_opt(GL_EXTENSIONS, 1)), "GL_EXT_test_two");
    EXPECT_EQ(kam_glGetStringi_opt(GL_EXTENSIONS, 2), nullptr);  // index equal to the count
    EXPECT_EQ(kam_glGetStringi_opt(GL_EXTENSIONS, 0xFFFFFFFFu), nullptr);
    EXPECT_TRUE(fake::calls().empty());

    static const char renderer[] = "fake renderer";
    fake::setResult(reinterpret_cast<uintptr_t>(renderer));
    EXPECT_EQ(reinterpret_cast<const char*>(kam_glGetString_opt(GL_RENDERER)), renderer);
    auto calls = fake::calls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_TRUE(onWorker(calls[0]));
}

TEST_F(QueryTest, ErrorProbeReturnsTheCallersErrorAndLogsTheWorkersOnce) {
    fake::setHandler("glGetError", [this](const fake::Call& c) -> uint64_t {
        return pthread_equal(c.thread, worker) ? GL_INVALID_OPERATION : GL_INVALID_ENUM;
    });
    kam_glUniform1f_opt(4, 1.0f);
    EXPECT_EQ(kam_glGetError_opt(), static_cast<GLenum>(GL_INVALID_ENUM));
    ctx.drain();
    auto lines = support::logLines();
    int found = 0;
    for (const auto& l : lines) {
        if (l.text == "glUniform1f glGetError=0x502") {
            ++found;
            EXPECT_EQ(l.priority, ANDROID_LOG_ERROR);
        }
    }
    EXPECT_EQ(found, 1);
    // Nothing is logged when the worker's context has no error.
    fake::clearHandlers();
    support::clearLog();
    kam_glGetError_opt();
    ctx.drain();
    EXPECT_EQ(support::countLog("glGetError="), 0);
}

TEST_F(QueryTest, OriginOnlyQueriesStayOnTheCallingThread) {
    kam_glGetProgramiv(1, GL_LINK_STATUS, nullptr);
    kam_glGetUniformLocation(1, "u");
    kam_glGetShaderiv(1, GL_COMPILE_STATUS, nullptr);
    auto calls = fake::calls();
    ASSERT_EQ(calls.size(), 3u);
    for (const auto& c : calls) EXPECT_TRUE(pthread_equal(c.thread, pthread_self())) << c.name;
}

TEST_F(QueryTest, IndexedEnableQueriesWaitForTheWorker) {
    fake::setResult(GL_TRUE);
    EXPECT_EQ(kam_glIsEnablediEXT_opt(GL_BLEND, 1), GL_TRUE);
    EXPECT_EQ(kam_glIsEnabledi(GL_BLEND, 2), GL_TRUE);
    auto calls = fake::calls();
    ASSERT_EQ(calls.size(), 2u);
    for (const auto& c : calls) EXPECT_TRUE(onWorker(c)) << c.name;
}

}  // namespace
