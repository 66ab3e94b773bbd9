// GL calls on an offloaded thread: every wrapper served by its kind, and the
// copy rules of the wrappers that take client memory.

#include <gtest/gtest.h>
#include <dlfcn.h>
#include <semaphore.h>

#include <atomic>
#include <cstring>
#include <fstream>
#include <functional>
#include <limits>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "call_cases.h"
#include "kam_bridges.h"
#include "kam_wrappers.h"
#include "loader/KAMLoader.h"
#include "support.h"

using namespace android;

namespace {

pthread_t workerThread(support::ActiveContext& ctx) {
    return ctx.worker()->postSync([] { return pthread_self(); }, "whoami");
}

bool onThread(const fake::Call& c, pthread_t t) { return pthread_equal(c.thread, t) != 0; }

class RecordingTest : public ::testing::Test {
protected:
    void SetUp() override {
        fake::reset();
        fake::clearHandlers();
        fake::setResult(0);
        worker = workerThread(ctx);
        self = pthread_self();
        fake::reset();
    }
    void TearDown() override { fake::clearHandlers(); }

    // Calls and their state: as the wrapper returned, and once the worker has
    // replayed everything.
    struct Seen {
        std::vector<fake::Call> atReturn;
        std::vector<fake::Call> after;
    };
    template <class F>
    Seen run(F&& call) {
        fake::reset();
        call();
        Seen s{fake::calls(), {}};
        ctx.drain();
        s.after = fake::calls();
        return s;
    }

    support::ActiveContext ctx;
    pthread_t worker{};
    pthread_t self{};
};

// Every GL name of the interposed table, through the entry the loader
// installed, on an offloaded thread.
TEST_F(RecordingTest, EveryGlNameIsServedByItsKind) {
    KAMLoader* loader = KAMLoader::getInstance();
    int counted[6] = {};
    for (int k = 0; k < cases::glCaseCount; ++k) {
        const cases::Case& c = cases::offloadCases[k];
        const std::string name = c.name, kind = c.kind;
        SCOPED_TRACE(name + " (" + kind + ")");
        // Own tests: the finish and the error probe here, the pixel store
        // (issued on both threads) and the vertex-array query (answered from
        // shadow state) with the shadow state's tests.
        // Mapping follows the buffer bindings shadowed by earlier cases, and
        // the integer attribute pointer replays as the attribute pointer:
        // both have their own tests too.
        if (name == "glFinish" || name == "glGetError" || name == "glPixelStorei" || name == "glIsVertexArray" ||
            name == "glMapBufferRange" || name == "glUnmapBuffer" || name == "glVertexAttribIPointer") {
            continue;
        }
        // Earlier cases bind vertex arrays the layer never saw made, whose
        // element buffer a draw would ask the driver about first.
        ctx.get()->mBindings.currentVertexArray = 0;
        fake::setResult(0x600 + k);
        cases::Outcome out;
        Seen s = run([&] { c.call(loader->mKamGl[k], out); });
        if (!c.isVoid) {
            EXPECT_EQ(out.result, out.expected);
        }
        ASSERT_EQ(s.after.size(), 1u);
        const fake::Call& call = s.after[0];
        std::vector<uint64_t> args = out.args;
        std::string called = name;
        if (kind == "bounds") {
            called = name.substr(0, name.size() - 6);
            args.pop_back();
        }
        EXPECT_EQ(call.name, called);

        const bool copies = kind == "copy" && out.copyBytes >= 1;
        if (kind == "recorded" || copies) {
            // Recorded: nothing reached the driver while the caller ran; the
            // worker replayed it with the same values.
            EXPECT_TRUE(s.atReturn.empty());
            EXPECT_TRUE(onThread(call, worker));
            if (copies) {
                const void* original = reinterpret_cast<const void*>(args[out.copyArg]);
                const void* copy = reinterpret_cast<const void*>(call.args[out.copyArg]);
                EXPECT_NE(copy, original);
                EXPECT_EQ(memcmp(copy, original, static_cast<size_t>(out.copyBytes)), 0);
                args[out.copyArg] = call.args[out.copyArg];
            }
            EXPECT_EQ(call.args, args);
            ++counted[copies ? 1 : 0];
        } else if (kind == "origin") {
            ASSERT_EQ(s.atReturn.size(), 1u);
            EXPECT_TRUE(onThread(call, self));
            EXPECT_EQ(call.args, args);
            ++counted[2];
        } else {
            // Synchronous: the worker made the call, with the caller's own
            // pointers, before the wrapper returned.
            ASSERT_EQ(s.atReturn.size(), 1u) << "must wait for the worker";
            EXPECT_TRUE(onThread(call, worker));
            EXPECT_EQ(call.args, args);
            ++counted[3];
        }
        if (k % 64 == 0) ctx.frameBoundary();
    }
    // Every kind was exercised in numbers.
    EXPECT_GT(counted[0], 400);
    EXPECT_GT(counted[1], 50);
    EXPECT_GT(counted[2], 30);
    EXPECT_GT(counted[3], 400);
}

// Whichever thread serves each call, calls acting on the same object reach
// the driver in the application's order: a call served at once on the
// calling thread must not overtake one recorded for the worker.
TEST_F(RecordingTest, ObjectCallsReachTheDriverInTheApplicationsOrder) {
    KAMLoader* loader = KAMLoader::getInstance();
#define KAM_CALL(NAME) reinterpret_cast<kam_pfn_##NAME>(loader->mKamGl[kGl_##NAME])
    GLint v = 0;
    struct Row {
        const char* first;
        const char* then;
        std::function<void()> a, b;
    };
    const Row rows[] = {
        {"glProgramParameteri", "glLinkProgram", [&] { KAM_CALL(glProgramParameteri)(3, GL_PROGRAM_SEPARABLE, 1); },
         [&] { KAM_CALL(glLinkProgram)(3); }},
        {"glProgramParameteriEXT", "glProgramBinary", [&] { KAM_CALL(glProgramParameteriEXT)(3, 0x8257, 1); },
         [&] { KAM_CALL(glProgramBinary)(3, 1, &v, 4); }},
        {"glValidateProgram", "glGetProgramiv", [&] { KAM_CALL(glValidateProgram)(3); },
         [&] { KAM_CALL(glGetProgramiv)(3, GL_VALIDATE_STATUS, &v); }},
        {"glDetachShader", "glLinkProgram", [&] { KAM_CALL(glDetachShader)(3, 4); }, [&] { KAM_CALL(glLinkProgram)(3); }},
        {"glUniform1f", "glLinkProgram", [&] { KAM_CALL(glUniform1f)(0, 1.0f); }, [&] { KAM_CALL(glLinkProgram)(3); }},
        {"glUniformBlockBinding", "glGetActiveUniformBlockiv", [&] { KAM_CALL(glUniformBlockBinding)(3, 0, 2); },
         [&] { KAM_CALL(glGetActiveUniformBlockiv)(3, 0, GL_UNIFORM_BLOCK_BINDING, &v); }},
        {"glDeleteProgram", "glGetProgramiv", [&] { KAM_CALL(glDeleteProgram)(3); },
         [&] { KAM_CALL(glGetProgramiv)(3, GL_DELETE_STATUS, &v); }},
        {"glBindTexture", "glIsTexture", [&] { KAM_CALL(glBindTexture)(GL_TEXTURE_2D, 5); },
         [&] { KAM_CALL(glIsTexture)(5); }},
        {"glBindRenderbuffer", "glIsRenderbuffer", [&] { KAM_CALL(glBindRenderbuffer)(GL_RENDERBUFFER, 5); },
         [&] { KAM_CALL(glIsRenderbuffer)(5); }},
        {"glBindFramebuffer", "glIsFramebuffer", [&] { KAM_CALL(glBindFramebuffer)(GL_FRAMEBUFFER, 5); },
         [&] { KAM_CALL(glIsFramebuffer)(5); }},
        {"glBindSampler", "glIsSampler", [&] { KAM_CALL(glBindSampler)(0, 5); }, [&] { KAM_CALL(glIsSampler)(5); }},
        {"glBindBuffer", "glIsBuffer", [&] { KAM_CALL(glBindBuffer)(GL_COPY_READ_BUFFER, 5); },
         [&] { KAM_CALL(glIsBuffer)(5); }},
        {"glEnable", "glIsEnabled", [&] { KAM_CALL(glEnable)(GL_BLEND); }, [&] { KAM_CALL(glIsEnabled)(GL_BLEND); }},
        {"glDeleteShader", "glGetShaderiv", [&] { KAM_CALL(glDeleteShader)(4); },
         [&] { KAM_CALL(glGetShaderiv)(4, GL_DELETE_STATUS, &v); }},
    };
#undef KAM_CALL
    for (const Row& row : rows) {
        SCOPED_TRACE(std::string(row.first) + " then " + row.then);
        Seen s = run([&] {
            row.a();
            row.b();
        });
        ASSERT_EQ(s.after.size(), 2u);
        EXPECT_EQ(s.after[0].name, row.first);
        EXPECT_EQ(s.after[1].name, row.then);
    }
}

// Every wrapper the generator lists is in the library, in the numbers per
// kind and form that api/gl_exports.txt pins; the plain forms beside _opt
// ones wait for the worker.
TEST_F(RecordingTest, ExportedWrappersAreThePinnedInventory) {
    std::map<std::string, int> found, pinned;
    for (int i = 0; i < cases::exportCaseCount; ++i) {
        const cases::ExportCase& e = cases::exportCases[i];
        EXPECT_NE(dlsym(RTLD_DEFAULT, e.symbol), nullptr) << e.symbol;
        ++found[std::string(e.kind) + " " + e.form];
    }
    std::ifstream in(KAM_API_DIR "/gl_exports.txt");
    for (std::string line, kind, form; std::getline(in, line);) {
        std::istringstream words(line);
        int n = 0;
        if (line.empty() || line[0] == '#' || !(words >> kind >> form >> n)) continue;
        pinned[kind + " " + form] = n;
    }
    EXPECT_EQ(found, pinned);
    for (int i = 0; i < cases::plainTooCaseCount; ++i) {
        const cases::Case& c = cases::plainTooCases[i];
        SCOPED_TRACE(c.name);
        void* fn = dlsym(RTLD_DEFAULT, (std::string("kam_") + c.name).c_str());
        ASSERT_NE(fn, nullptr);
        cases::Outcome out;
        Seen s = run([&] { c.call(fn, out); });
        ASSERT_EQ(s.atReturn.size(), 1u) << "must wait for the worker";
        EXPECT_EQ(s.atReturn[0].name, c.name);
        EXPECT_TRUE(onThread(s.atReturn[0], worker));
    }
}

TEST_F(RecordingTest, CopiesAreTakenBeforeTheWrapperReturns) {
    float values[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    const float before[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    std::vector<float> replayed;
    fake::setHandler("glUniform4fv", [&](const fake::Call& c) {
        auto* p = reinterpret_cast<const float*>(c.args[2]);
        replayed.assign(p, p + 4 * c.args[1]);
        return 0;
    });
    fake::reset();
    kam_glUniform4fv_opt(5, 2, values);
    for (float& v : values) v = -1;  // the caller reuses its array at once
    ctx.drain();
    EXPECT_EQ(replayed, std::vector<float>(before, before + 8));
}

TEST_F(RecordingTest, CopySizeRules) {
    float data[64];
    for (int i = 0; i < 64; ++i) data[i] = static_cast<float>(i);
    const GLchar label[] = "label-with-terminator";
    struct Row {
        const char* what;
        std::function<void()> call;
        const char* name;
        size_t pointerArg;
        long long bytes;  // expected copy, 0: synchronous with the caller's pointer
    };
    const Row rows[] = {
        {"uniform vec4 x2", [&] { kam_glUniform4fv_opt(1, 2, data); }, "glUniform4fv", 2, 32},
        {"matrix 3x4 x3", [&] { kam_glUniformMatrix3x4fv_opt(1, 3, GL_FALSE, data); }, "glUniformMatrix3x4fv", 3, 144},
        {"program matrix x3", [&] { kam_glProgramUniformMatrix4fv_opt(1, 2, 3, GL_FALSE, data); },
         "glProgramUniformMatrix4fv", 4, 192},
        {"program vec3 x5", [&] { kam_glProgramUniform3fv_opt(1, 2, 5, data); }, "glProgramUniform3fv", 3, 60},
        {"clear depth: still 16", [&] { kam_glClearBufferfv_opt(GL_DEPTH, 0, data); }, "glClearBufferfv", 2, 16},
        {"fog colour: one value", [&] { kam_glFogfv_opt(GL_FOG_COLOR, data); }, "glFogfv", 1, 4},
        {"border colour", [&] { kam_glTexParameterfv_opt(GL_TEXTURE_2D, GL_TEXTURE_BORDER_COLOR, data); },
         "glTexParameterfv", 2, 16},
        {"min filter", [&] { kam_glTexParameterfv_opt(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, data); },
         "glTexParameterfv", 2, 4},
        {"swizzle A on a sampler", [&] { kam_glSamplerParameterfv_opt(3, GL_TEXTURE_SWIZZLE_A, data); },
         "glSamplerParameterfv", 2, 4},
        {"base level goes synchronous", [&] { kam_glTexParameterfv_opt(GL_TEXTURE_2D, GL_TEXTURE_BASE_LEVEL, data); },
         "glTexParameterfv", 2, 0},
        {"unknown pname goes synchronous", [&] { kam_glSamplerParameterIiv_opt(3, 0x1234, reinterpret_cast<GLint*>(data)); },
         "glSamplerParameterIiv", 2, 0},
        {"count 0 goes synchronous", [&] { kam_glUniform4fv_opt(1, 0, data); }, "glUniform4fv", 2, 0},
        {"negative count goes synchronous", [&] { kam_glUniform1fv_opt(1, -4, data); }, "glUniform1fv", 2, 0},
        {"draw buffers", [&] { kam_glDrawBuffers_opt(3, reinterpret_cast<GLenum*>(data)); }, "glDrawBuffers", 1, 12},
        {"label length 0: strlen + 1", [&] { kam_glLabelObjectEXT_opt(GL_BUFFER_OBJECT_EXT, 4, 0, label); },
         "glLabelObjectEXT", 3, static_cast<long long>(sizeof label)},
        {"label with length", [&] { kam_glLabelObjectEXT_opt(GL_BUFFER_OBJECT_EXT, 4, 5, label); }, "glLabelObjectEXT",
         3, 5},
        {"marker length 0", [&] { kam_glPushGroupMarkerEXT_opt(0, label); }, "glPushGroupMarkerEXT", 1,
         static_cast<long long>(sizeof label)},
        {"vertex attrib 3", [&] { kam_glVertexAttrib3fv_opt(2, data); }, "glVertexAttrib3fv", 1, 12},
        {"invalidate 2 attachments", [&] { kam_glInvalidateFramebuffer_opt(GL_FRAMEBUFFER, 2, reinterpret_cast<GLenum*>(data)); },
         "glInvalidateFramebuffer", 2, 8},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        Seen s = run(row.call);
        ASSERT_EQ(s.after.size(), 1u);
        const fake::Call& c = s.after[0];
        EXPECT_EQ(c.name, row.name);
        EXPECT_TRUE(onThread(c, worker));
        const uint64_t original = c.name == "glLabelObjectEXT" || c.name == "glPushGroupMarkerEXT"
                                      ? reinterpret_cast<uintptr_t>(label)
                                      : reinterpret_cast<uintptr_t>(data);
        if (row.bytes == 0) {
            EXPECT_EQ(s.atReturn.size(), 1u) << "synchronous";
            EXPECT_EQ(c.args[row.pointerArg], original);
            continue;
        }
        EXPECT_TRUE(s.atReturn.empty()) << "recorded";
        uint64_t copy = c.args[row.pointerArg];
        ASSERT_NE(copy, original);
        auto* mem = &ctx.get()->mMemory;
        // The copy is exactly as long as the rule says: the next allocation
        // (the following command's item) starts right after it, rounded to 8.
        EXPECT_TRUE(copy >= reinterpret_cast<uintptr_t>(mem->mBase) && copy < reinterpret_cast<uintptr_t>(mem->mEnd));
        EXPECT_EQ(memcmp(reinterpret_cast<void*>(copy), reinterpret_cast<void*>(original), row.bytes), 0);
    }
}

TEST_F(RecordingTest, CopyTakesExactlyTheRuleFromTheArena) {
    // A frame's arena usage tells how much a wrapper took: the copy and the
    // command object (its own queue entry), nothing else.
    float data[48] = {};
    auto* mem = &ctx.get()->mMemory;
    ctx.frameBoundary();
    kam_glProgramUniformMatrix4fv_opt(1, 2, 3, GL_FALSE, data);  // count 3: three matrices
    ctx.frameBoundary();
    EXPECT_EQ(mem->mLastUsed, static_cast<int32_t>(192 + sizeof(glProgramUniformMatrix4fv_Bridge)));
    kam_glUniform3iv_opt(1, 3, reinterpret_cast<const GLint*>(data));  // 36 bytes, rounded up to 40
    ctx.frameBoundary();
    EXPECT_EQ(mem->mLastUsed, static_cast<int32_t>(40 + sizeof(glUniform3iv_Bridge)));
}

TEST_F(RecordingTest, NullAndSmallPointersAreRecordedAsTheyAre) {
    for (uintptr_t p : {uintptr_t(0), uintptr_t(0x40), uintptr_t(0x10000)}) {
        SCOPED_TRACE(p);
        Seen s = run([&] { kam_glUniform4fv_opt(1, 2, reinterpret_cast<const GLfloat*>(p)); });
        EXPECT_TRUE(s.atReturn.empty());
        ASSERT_EQ(s.after.size(), 1u);
        EXPECT_EQ(s.after[0].args[2], p);
    }
    // An offset into a bound element buffer records the draw.
    Seen s = run([&] { kam_glDrawElements_opt(GL_TRIANGLES, 6, GL_UNSIGNED_SHORT, reinterpret_cast<void*>(12)); });
    EXPECT_TRUE(s.atReturn.empty());
    ASSERT_EQ(s.after.size(), 1u);
    EXPECT_EQ(s.after[0].args[3], 12u);
}

TEST_F(RecordingTest, FinishWakesTheWorkerAndDoesNotWait) {
    std::atomic<bool> go{false}, holding{false};
    ctx.worker()->post(new WorkItem("hold",
                                    [&go, &holding] {
                                        holding.store(true);
                                        while (!go.load()) {
                                        }
                                    }),
                       true);
    while (!holding.load()) {
    }
    fake::reset();
    kam_glUniform1i_opt(0, 1);
    kam_glFinish();  // returns although the worker is held
    EXPECT_TRUE(fake::calls().empty());
    // A wake-up point of its own, not left for the 129th post.
    EXPECT_EQ(ctx.worker()->pending(), 0);
    go.store(true);
    ctx.drain();
    auto calls = fake::calls();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[1].name, "glFinish");
    EXPECT_TRUE(onThread(calls[1], worker));
}

TEST_F(RecordingTest, ManyRecordedCallsReplayInOrderAcrossWakeUps) {
    std::vector<uint64_t> seen;
    fake::setHandler("glUniform1i", [&](const fake::Call& c) {
        seen.push_back(c.args[1]);
        return 0;
    });
    for (int i = 0; i < 1000; ++i) kam_glUniform1i_opt(0, i);
    ctx.drain();
    ASSERT_EQ(seen.size(), 1000u);
    for (int i = 0; i < 1000; ++i) ASSERT_EQ(seen[i], static_cast<uint64_t>(i));
}

}  // namespace
