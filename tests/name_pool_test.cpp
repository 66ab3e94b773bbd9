// Vertex-array and transform-feedback names handed out from pools filled on
// the worker, the Delete wrappers that copy their name arrays, and the
// vertex-array shadow they keep.

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <thread>
#include <unordered_set>
#include <vector>

#include "kam_wrappers.h"
#include "runtime/KAMThreadLocal.h"
#include "shadow/GLCaches.h"
#include "support.h"

using namespace android;

namespace {

// Driver handlers that generate names from a running counter, so that every
// name handed out can be traced back to one generation.
void installGenerators(GLuint& next) {
    for (const char* name : {"glGenVertexArrays", "glGenTransformFeedbacks"})
        fake::setHandler(name, [&next](const fake::Call& c) {
            auto* out = fake::fromBits<GLuint*>(c.args[1]);
            for (uint64_t i = 0; i < c.args[0]; ++i) out[i] = next++;
            return uint64_t{0};
        });
}

std::vector<GLuint> poolOf(GLCaches& caches, int type) {
    return std::vector<GLuint>(caches.mPools[type], caches.mPools[type] + GLCaches::kPoolSize);
}

// ------------------------------------------------------------------ GLCaches

class PoolTest : public ::testing::Test {
protected:
    void SetUp() override {
        support::initLayer();
        fake::clearHandlers();
        installGenerators(next);
        fake::reset();
    }
    void TearDown() override { fake::clearHandlers(); }

    GLuint next = 100;
    GLCaches caches;
};

TEST_F(PoolTest, StartsEmptyAndTheFirstRefillGeneratesEightOfEachKind) {
    GLuint out[1] = {};
    for (int type : {0, 1}) {
        EXPECT_EQ(GLCaches::getSize(caches.mPools[type], 8), 0);
        EXPECT_EQ(GLCaches::getUsedSize(caches.mPools[type], 8), 8);
        EXPECT_FALSE(caches.getCaches(type, 1, out));
    }
    caches.swapBuffer();
    const auto calls = fake::calls();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].name, "glGenVertexArrays");
    EXPECT_EQ(calls[1].name, "glGenTransformFeedbacks");
    for (int type : {0, 1}) {
        EXPECT_EQ(calls[type].args, (std::vector<uint64_t>{8, fake::bits(caches.mPools[type])}));
        EXPECT_EQ(GLCaches::getSize(caches.mPools[type], 8), 8);
    }
}

TEST_F(PoolTest, RefillGeneratesExactlyTheTakenEntries) {
    caches.swapBuffer();
    const std::vector<GLuint> full = poolOf(caches, 0);
    GLuint out[3] = {};
    ASSERT_TRUE(caches.getCaches(0, 3, out));
    EXPECT_EQ(std::vector<GLuint>(out, out + 3), std::vector<GLuint>(full.begin(), full.begin() + 3));
    EXPECT_EQ(GLCaches::getSize(caches.mPools[0], 8), 5);
    EXPECT_EQ(GLCaches::getUsedSize(caches.mPools[0], 8), 3);
    // The next take continues above the names already handed out.
    GLuint more[2] = {};
    ASSERT_TRUE(caches.getCaches(0, 2, more));
    EXPECT_EQ(more[0], full[3]);
    EXPECT_EQ(more[1], full[4]);

    fake::reset();
    caches.swapBuffer();
    const auto calls = fake::calls();
    ASSERT_EQ(calls.size(), 1u);  // the transform-feedback pool is full
    EXPECT_EQ(calls[0].name, "glGenVertexArrays");
    EXPECT_EQ(calls[0].args, (std::vector<uint64_t>{5, fake::bits(caches.mPools[0])}));
    EXPECT_EQ(GLCaches::getSize(caches.mPools[0], 8), 8);
    const std::vector<GLuint> refilled = poolOf(caches, 0);
    EXPECT_EQ(std::vector<GLuint>(refilled.begin() + 5, refilled.end()),
              std::vector<GLuint>(full.begin() + 5, full.end()));
}

TEST_F(PoolTest, RequestsThePoolCannotServeLeaveItAlone) {
    caches.swapBuffer();
    GLuint six[6] = {};
    ASSERT_TRUE(caches.getCaches(1, 6, six));  // 2 left in pool 1
    const struct {
        const char* what;
        int type, n;
        bool ok;
        int leftInPool0, leftInPool1;
    } rows[] = {
        {"n 0 succeeds untouched", 0, 0, true, 8, 2},
        {"negative n succeeds untouched", 0, -3, true, 8, 2},
        {"more than the pool size", 0, 9, false, 8, 2},
        {"more than what is left", 1, 3, false, 8, 2},
        {"type 2", 2, 1, false, 8, 2},
        {"type 7", 7, 1, false, 8, 2},
        {"exactly what is left", 1, 2, true, 8, 0},
        {"the whole pool", 0, 8, true, 0, 0},
        {"an empty pool", 0, 1, false, 0, 0},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.what);
        GLuint out[16];
        std::fill(out, out + 16, 0xDEADu);
        EXPECT_EQ(caches.getCaches(r.type, r.n, out), r.ok);
        if (!r.ok || r.n <= 0) {
            EXPECT_EQ(out[0], 0xDEADu);
        }
        EXPECT_EQ(GLCaches::getSize(caches.mPools[0], 8), r.leftInPool0);
        EXPECT_EQ(GLCaches::getSize(caches.mPools[1], 8), r.leftInPool1);
    }
}

// ------------------------------------------------------------------ Gen wrappers

class NamePoolWrapperTest : public ::testing::Test {
protected:
    void SetUp() override {
        fake::clearHandlers();
        fake::setResult(0);
        worker = ctx.worker()->postSync([] { return pthread_self(); }, "whoami");
        installGenerators(next);
        fake::reset();
    }
    void TearDown() override { fake::clearHandlers(); }

    bool onWorker(const fake::Call& c) const { return pthread_equal(c.thread, worker) != 0; }
    GLCaches& caches() { return ctx.get()->mCaches; }
    std::unordered_set<GLuint>& vertexArrays() { return ctx.get()->mBindings.vertexArrays; }

    GLuint next = 500;
    support::ActiveContext ctx;
    pthread_t worker{};
};

struct GenKind {
    const char* origin;
    int type;
    void (*gen)(GLsizei, GLuint*);
};
const GenKind genKinds[] = {{"glGenVertexArrays", 0, kam_glGenVertexArrays_opt},
                            {"glGenTransformFeedbacks", 1, kam_glGenTransformFeedbacks_opt}};

TEST_F(NamePoolWrapperTest, BeforeTheFirstFrameBoundaryNamesComeFromTheWorker) {
    for (const GenKind& k : genKinds) {
        SCOPED_TRACE(k.origin);
        fake::reset();
        GLuint out[2] = {};
        k.gen(2, out);
        const auto calls = fake::calls();  // no drain: the wrapper waited
        ASSERT_EQ(calls.size(), 1u);
        EXPECT_EQ(calls[0].name, k.origin);
        EXPECT_TRUE(onWorker(calls[0]));
        EXPECT_EQ(calls[0].args, (std::vector<uint64_t>{2, fake::bits(out)}));
        EXPECT_NE(out[0], 0u);
    }
}

TEST_F(NamePoolWrapperTest, AfterAFrameBoundaryNamesComeFromThePoolWithoutAGlCall) {
    ctx.frameBoundary();
    for (const GenKind& k : genKinds) {
        SCOPED_TRACE(k.origin);
        const std::vector<GLuint> pool = poolOf(caches(), k.type);
        fake::reset();
        GLuint out[3] = {};
        k.gen(3, out);
        ctx.drain();
        EXPECT_TRUE(fake::calls().empty());
        EXPECT_EQ(std::vector<GLuint>(out, out + 3), std::vector<GLuint>(pool.begin(), pool.begin() + 3));

        // Nine never fit a pool of eight: the worker generates them.
        GLuint nine[9] = {};
        k.gen(9, nine);
        const auto calls = fake::calls();
        ASSERT_EQ(calls.size(), 1u);
        EXPECT_TRUE(onWorker(calls[0]));
        EXPECT_EQ(calls[0].args[0], 9u);
        EXPECT_EQ(GLCaches::getSize(caches().mPools[k.type], 8), 5);

        // n 0 neither calls the GL nor touches the pool.
        fake::reset();
        k.gen(0, out);
        EXPECT_TRUE(fake::calls().empty());
        EXPECT_EQ(GLCaches::getSize(caches().mPools[k.type], 8), 5);
    }
    fake::reset();
    ctx.frameBoundary();
    const auto refill = fake::calls();
    ASSERT_EQ(refill.size(), 2u);
    EXPECT_EQ(refill[0].args[0], 3u);
    EXPECT_EQ(refill[1].args[0], 3u);
}

TEST_F(NamePoolWrapperTest, VertexArraysExistOnceBoundAsTheDriverSays) {
    // The driver answers glIsVertexArray with true only after a generated
    // name was bound once; the shadow must agree on every generation path.
    GLuint fromWorker[2] = {}, fromPool[2] = {};
    kam_glGenVertexArrays_opt(2, fromWorker);
    ctx.frameBoundary();
    kam_glGenVertexArrays_opt(2, fromPool);
    KAMThreadLocal* t = gThreadRecord;
    t->mActiveContext = nullptr;  // attached, offload not running
    GLuint fromOrigin[1] = {};
    kam_glGenVertexArrays_opt(1, fromOrigin);
    t->mActiveContext = ctx.get();
    const GLuint names[] = {fromWorker[0], fromWorker[1], fromPool[0], fromPool[1], fromOrigin[0]};
    for (GLuint name : names) EXPECT_EQ(isVertexArrayFromShadow(name), GL_FALSE) << name;
    for (GLuint name : names) kam_glBindVertexArray(name);
    kam_glBindVertexArray(0);
    for (GLuint name : names) EXPECT_EQ(isVertexArrayFromShadow(name), GL_TRUE) << name;
    EXPECT_EQ(vertexArrays().size(), 5u);
    EXPECT_EQ(ctx.get()->mBindings.currentVertexArray, 0u);
}

TEST_F(NamePoolWrapperTest, DeletedNamesNeverReturnToThePool) {
    ctx.frameBoundary();
    GLuint names[8] = {};
    kam_glGenVertexArrays_opt(8, names);
    kam_glDeleteVertexArrays_opt(8, names);
    ctx.drain();
    EXPECT_EQ(GLCaches::getSize(caches().mPools[0], 8), 0);
    ctx.frameBoundary();
    for (GLuint n : poolOf(caches(), 0))
        for (GLuint deleted : names) EXPECT_NE(n, deleted);
}

// ------------------------------------------------------------------ Delete wrappers

// Names whose last entry is followed by an inaccessible page: a copy longer
// than n names faults.
class GuardedNames {
public:
    explicit GuardedNames(int n) {
        const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        mBase = static_cast<uint8_t*>(mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        mprotect(mBase + page, page, PROT_NONE);
        mNames = reinterpret_cast<GLuint*>(mBase + page) - n;
        mPage = page;
    }
    ~GuardedNames() { munmap(mBase, 2 * mPage); }
    GLuint* names() const { return mNames; }

private:
    uint8_t* mBase = nullptr;
    GLuint* mNames = nullptr;
    size_t mPage = 0;
};

struct DeleteKind {
    const char* origin;
    void (*del)(GLsizei, const GLuint*);
};
const DeleteKind deleteKinds[] = {
    {"glDeleteVertexArrays", kam_glDeleteVertexArrays_opt},   {"glDeleteTransformFeedbacks", kam_glDeleteTransformFeedbacks_opt},
    {"glDeleteFramebuffers", kam_glDeleteFramebuffers_opt},   {"glDeleteRenderbuffers", kam_glDeleteRenderbuffers_opt},
    {"glDeleteTextures", kam_glDeleteTextures_opt},           {"glDeleteSamplers", kam_glDeleteSamplers_opt},
    {"glDeleteProgramPipelines", kam_glDeleteProgramPipelines_opt}, {"glDeleteQueries", kam_glDeleteQueries_opt},
};

TEST_F(NamePoolWrapperTest, DeletesCopyTheirNamesBeforeReturning) {
    for (const DeleteKind& k : deleteKinds) {
        SCOPED_TRACE(k.origin);
        GuardedNames g(3);
        GLuint* names = g.names();
        names[0] = 11, names[1] = 12, names[2] = 13;
        std::vector<GLuint> replayed;
        fake::setHandler(k.origin, [&](const fake::Call& c) {
            auto* p = fake::fromBits<const GLuint*>(c.args[1]);
            replayed.assign(p, p + c.args[0]);
            return uint64_t{0};
        });
        fake::reset();
        k.del(3, names);
        const bool nothingYet = fake::calls().empty();
        names[0] = names[1] = names[2] = 0;  // the caller reuses its array at once
        ctx.drain();
        EXPECT_TRUE(nothingYet) << "a delete with a copy must not wait";
        const auto calls = fake::calls();
        ASSERT_EQ(calls.size(), 1u);
        EXPECT_TRUE(onWorker(calls[0]));
        EXPECT_NE(calls[0].args[1], fake::bits(names));
        EXPECT_EQ(replayed, (std::vector<GLuint>{11, 12, 13}));
        fake::clearHandlers();
    }
}

TEST_F(NamePoolWrapperTest, DeletesWithoutACopyWaitOrRecordTheirPointer) {
    GLuint names[2] = {21, 22};
    const struct {
        const char* what;
        GLsizei n;
        const GLuint* pointer;
        bool waits;
    } rows[] = {
        {"n 0 waits", 0, names, true},
        {"negative n waits", -1, names, true},
        {"null is recorded", 2, nullptr, false},
        {"small pointer is recorded", 2, reinterpret_cast<const GLuint*>(0x40), false},
    };
    for (const DeleteKind& k : deleteKinds)
        for (const auto& r : rows) {
            SCOPED_TRACE(std::string(k.origin) + ": " + r.what);
            fake::reset();
            k.del(r.n, r.pointer);
            const auto atReturn = fake::calls();
            ctx.drain();
            const auto after = fake::calls();
            ASSERT_EQ(after.size(), 1u);
            EXPECT_EQ(after[0].name, k.origin);
            EXPECT_TRUE(onWorker(after[0]));
            EXPECT_EQ(atReturn.size(), r.waits ? 1u : 0u);
            EXPECT_EQ(after[0].args, (std::vector<uint64_t>{fake::bits(r.n), fake::bits(r.pointer)}));
        }
}

TEST_F(NamePoolWrapperTest, DeletingVertexArraysPrunesTheShadow) {
    const struct {
        const char* what;
        GLuint bound;
        std::vector<GLuint> deleted;
        GLuint boundAfter;
        std::vector<GLuint> left;
    } rows[] = {
        {"the bound one resets the binding", 2, {2}, 0, {1, 3}},
        {"another leaves the binding", 2, {3}, 2, {1, 2}},
        {"several at once", 3, {1, 3}, 0, {2}},
        {"unknown names change nothing", 1, {9}, 1, {1, 2, 3}},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.what);
        vertexArrays() = {1, 2, 3};
        ctx.get()->mBindings.currentVertexArray = r.bound;
        fake::reset();
        kam_glDeleteVertexArrays_opt(static_cast<GLsizei>(r.deleted.size()), r.deleted.data());
        ctx.drain();
        EXPECT_EQ(ctx.get()->mBindings.currentVertexArray, r.boundAfter);
        EXPECT_EQ(vertexArrays(), std::unordered_set<GLuint>(r.left.begin(), r.left.end()));
        for (GLuint name : {1u, 2u, 3u, 9u}) {
            const bool present = std::find(r.left.begin(), r.left.end(), name) != r.left.end();
            EXPECT_EQ(isVertexArrayFromShadow(name), present ? GL_TRUE : GL_FALSE) << name;
        }
        // The answers came from the shadow alone.
        const auto calls = fake::calls();
        ASSERT_EQ(calls.size(), 1u);
        EXPECT_EQ(calls[0].name, "glDeleteVertexArrays");
    }
    vertexArrays().clear();
    EXPECT_EQ(isVertexArrayFromShadow(1), GL_FALSE);
}

TEST(VertexArrayShadow, WithoutAContextTheDriverAnswers) {
    support::initLayer();
    fake::setHandler("glIsVertexArray", [](const fake::Call&) { return uint64_t{GL_TRUE}; });
    GLboolean answer = GL_FALSE;
    size_t calls = 0;
    std::thread([&] {
        fake::reset();
        answer = isVertexArrayFromShadow(4);
        calls = fake::calls().size();
    }).join();
    fake::clearHandlers();
    EXPECT_EQ(answer, GL_TRUE);
    EXPECT_EQ(calls, 1u);
}

}  // namespace
