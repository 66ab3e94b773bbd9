// Client vertex arrays under hostile attribute calls and index data: every
// client buffer is allocated with exactly the bytes the draw reaches by the
// GL's own rule, so any copy reading further trips AddressSanitizer. The draw
// must still reach the driver.

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdlib>
#include <memory>
#include <vector>

#include "kam_wrappers.h"
#include "support.h"

using namespace android;

namespace {

support::ActiveContext& context() {
    // Never destroyed: the worker outlives every input.
    static support::ActiveContext* ctx = [] {
        auto* c = new support::ActiveContext();
        c->get()->mClientArrays = true;
        return c;
    }();
    return *ctx;
}

// Bytes per vertex the GL reads for a valid (size, type), 0 for an invalid
// pair: the call is then rejected and the attribute keeps its state.
int vertexBytes(GLint size, GLenum type) {
    if (size < 1 || size > 4) return 0;
    switch (type) {
        case GL_BYTE: case GL_UNSIGNED_BYTE: return size;
        case GL_SHORT: case GL_UNSIGNED_SHORT: case GL_HALF_FLOAT: case GL_HALF_FLOAT_OES: return 2 * size;
        case GL_INT: case GL_UNSIGNED_INT: case GL_FLOAT: case GL_FIXED: return 4 * size;
        case GL_INT_2_10_10_10_REV: case GL_UNSIGNED_INT_2_10_10_10_REV: return size == 4 ? 4 : 0;
        default: return 0;
    }
}

struct Attrib {
    GLint size;
    GLenum type;
    GLsizei stride;
    int kind;  // 0 client memory, 1 null, 2 small offset
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    support::ActiveContext& ctx = context();
    KAMContext* c = ctx.get();
    support::clearLog();
    FuzzedDataProvider in(data, size);

    // The draw first: the client buffers are sized from the indices it reads.
    static constexpr GLenum kIndexTypes[] = {GL_UNSIGNED_BYTE, GL_UNSIGNED_SHORT, GL_UNSIGNED_INT, GL_FLOAT, 0};
    const GLenum indexType = in.PickValueInArray(kIndexTypes);
    const int indexBytes = indexType == GL_UNSIGNED_BYTE ? 1 : indexType == GL_UNSIGNED_SHORT ? 2 : 4;
    const GLsizei count = in.ConsumeBool() ? in.PickValueInArray({0, -1, -0x7FFFFFFF - 1, 1})
                                           : in.ConsumeIntegralInRange<GLsizei>(1, 64);
    std::unique_ptr<uint8_t[]> indices(new uint8_t[count > 0 ? static_cast<size_t>(count) * indexBytes : 0]);
    int64_t maxIndex = 0;
    for (GLsizei i = 0; i < count; ++i) {
        uint32_t v;
        if (indexType == GL_UNSIGNED_BYTE) {
            v = in.ConsumeIntegral<uint8_t>();
            indices[i] = static_cast<uint8_t>(v);
        } else if (indexType == GL_UNSIGNED_SHORT) {
            v = in.ConsumeIntegral<uint16_t>();
            memcpy(&indices[2 * i], &v, 2);
        } else {
            // The restart index is skipped by the GL; others stay in reach.
            v = in.ConsumeBool() ? 0xFFFFFFFFu : in.ConsumeIntegralInRange<uint32_t>(0, 4095);
            memcpy(&indices[4 * i], &v, 4);
            if (v == 0xFFFFFFFFu) continue;
        }
        if (v > maxIndex) maxIndex = v;
    }
    const bool elementBuffer = in.ConsumeIntegralInRange(0, 7) == 0;
    const int indexKind = in.ConsumeIntegralInRange(0, 5);  // mostly client memory

    // Attribute calls, some of which the GL rejects; a rejected call leaves
    // the attribute as it was.
    std::vector<std::unique_ptr<uint8_t[]>> buffers;
    const int calls = in.ConsumeIntegralInRange(0, 6);
    static constexpr GLenum kTypes[] = {GL_BYTE, GL_UNSIGNED_BYTE, GL_SHORT, GL_UNSIGNED_SHORT, GL_INT,
                                        GL_UNSIGNED_INT, GL_FLOAT, GL_HALF_FLOAT, GL_HALF_FLOAT_OES, GL_FIXED,
                                        GL_INT_2_10_10_10_REV, GL_UNSIGNED_INT_2_10_10_10_REV,
                                        GL_UNSIGNED_INT_24_8, 0x1234};
    for (int k = 0; k < calls; ++k) {
        const GLuint index = in.ConsumeIntegralInRange<GLuint>(0, 18);
        if (in.ConsumeIntegralInRange(0, 7) == 0) {
            kam_glDisableVertexAttribArray_opt(index);
            continue;
        }
        Attrib a;
        a.size = in.ConsumeBool() ? in.ConsumeIntegralInRange(1, 4)
                                  : in.PickValueInArray({0, -1, 5, 0x80E1, 0x7FFFFFFF, -0x7FFFFFFF - 1});
        a.type = in.PickValueInArray(kTypes);
        const int vb = vertexBytes(a.size, a.type);
        a.stride = in.ConsumeBool() ? in.PickValueInArray({0, vb, vb + 1, 1, 255, 2048, -1, -4, -0x7FFFFFFF - 1})
                                    : in.ConsumeIntegralInRange(0, 64);
        a.kind = in.ConsumeIntegralInRange(0, 3) == 0 ? in.ConsumeIntegralInRange(1, 2) : 0;
        const bool valid = vb != 0 && a.stride >= 0 && index < 16;
        const void* pointer = a.kind == 1 ? nullptr : reinterpret_cast<const void*>(uintptr_t{0x10000});
        if (a.kind == 0) {
            // Exactly what the draw reads: up to the largest index. A call
            // the GL rejects gets a buffer the GL never reads.
            const size_t step = a.stride != 0 ? static_cast<size_t>(a.stride) : static_cast<size_t>(vb);
            const size_t bytes = valid ? static_cast<size_t>(maxIndex) * step + vb : 0;
            buffers.emplace_back(new uint8_t[bytes]);
            memset(buffers.back().get(), 0x5A, bytes);
            pointer = buffers.back().get();
        }
        kam_glVertexAttribPointer_opt(index, a.size, a.type, GL_FALSE, a.stride, pointer);
    }

    if (elementBuffer) kam_glBindBuffer_opt(GL_ELEMENT_ARRAY_BUFFER, 7);
    const void* indexPointer = indexKind == 0 ? nullptr
                               : indexKind == 1 ? reinterpret_cast<const void*>(uintptr_t{0x10000})
                                                : indices.get();
    const GLenum mode = GL_TRIANGLES;
    fake::reset();
    if (in.ConsumeBool())
        kam_glDrawElements_opt(mode, count, indexType, indexPointer);
    else
        kam_glDrawRangeElements_opt(mode, 0, static_cast<GLuint>(maxIndex), count, indexType, indexPointer);
    ctx.drain();
    int draws = 0;
    for (const fake::Call& call : fake::calls())
        if ((call.name == "glDrawElements" || call.name == "glDrawRangeElements") &&
            call.args[0] == mode && static_cast<GLsizei>(call.args[call.args.size() - 3]) == count)
            ++draws;
    if (draws != 1) abort();

    // Back to a clean slate for the next input.
    if (elementBuffer) kam_glBindBuffer_opt(GL_ELEMENT_ARRAY_BUFFER, 0);
    for (int i = 0; i < KAMContext::kAttribRecords; ++i)
        if (c->mAttribArrays[i] != nullptr) c->mAttribArrays[i]->pointer = nullptr;
    ctx.frameBoundary();
    fake::reset();
    return 0;
}
