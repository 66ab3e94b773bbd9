// Client vertex arrays and draws on an offloaded thread: the draw is replayed
// after the application has moved on, so what it reads from client memory is
// copied into the frame arena first.

#include <cstring>

#include "kam_bridges.h"
#include "recording/Record.h"
#include "shadow/ClientArray.h"

namespace android {

int kamTypeSize(GLenum type) {
    switch (type) {
        case GL_BYTE:
        case GL_UNSIGNED_BYTE:
            return 1;
        case GL_SHORT:
        case GL_UNSIGNED_SHORT:
        case GL_HALF_FLOAT:
        case GL_UNSIGNED_SHORT_4_4_4_4:
        case GL_UNSIGNED_SHORT_5_5_5_1:
        case GL_UNSIGNED_SHORT_5_6_5:
        case GL_HALF_FLOAT_OES:
            return 2;
        case GL_INT:
        case GL_UNSIGNED_INT:
        case GL_FLOAT:
        case GL_UNSIGNED_INT_2_10_10_10_REV:
        case GL_UNSIGNED_INT_24_8:
        case GL_UNSIGNED_INT_10F_11F_11F_REV:
        case GL_UNSIGNED_INT_5_9_9_9_REV:
        case GL_FIXED:
            return 4;
        case GL_FLOAT_32_UNSIGNED_INT_24_8_REV:
            return 8;
        default:
            return 0;
    }
}

namespace {

template <class T>
int64_t maxIndexOf(const void* indices, GLsizei count, bool restart) {
    const T* p = static_cast<const T*>(indices);
    // With fixed-index restart on, the type's largest value ends a primitive
    // and names no vertex.
    const T restartIndex = static_cast<T>(~T(0));
    int64_t best = 0;
    for (GLsizei i = 0; i < count; ++i) {
        if (restart && p[i] == restartIndex) continue;
        // 32-bit indices compare as signed: a primitive-restart index or
        // garbage at the top of the range must not make the copy huge.
        const int64_t v =
            sizeof(T) == 4 ? static_cast<int64_t>(static_cast<int32_t>(p[i])) : static_cast<int64_t>(p[i]);
        if (v > best) best = v;
    }
    return best;
}

// An attribute the next draw reads from client memory: its pointer was set
// in the vertex array bound now, and it was not disabled since.
bool isLive(const KAMContext* c, const ClientArray* a) {
    return a != nullptr && a->pointer != nullptr && a->enabled && a->vertexArray == c->mBindings.currentVertexArray;
}

bool liveClientArrays(const KAMContext* c) {
    for (int slot = 0; slot < KAMContext::kAttribSlots; ++slot)
        if (isLive(c, c->mAttribArrays[slot])) return true;
    return false;
}

// Packed types hold the whole vertex in one word: counting their size per
// component would read past the application's array.
size_t elemSizeOf(const ClientArray* a) {
    const bool packed = a->type == GL_UNSIGNED_INT_2_10_10_10_REV || a->type == GL_INT_2_10_10_10_REV;
    return packed ? 4 : static_cast<size_t>(kamTypeSize(a->type)) * static_cast<size_t>(a->size);
}

// The worker takes an attribute pointer for client memory (a copy, or the
// application's own) only with no array buffer bound: the application may
// have one bound by the time it draws. Its binding comes back after.
class ArrayBufferAside {
public:
    explicit ArrayBufferAside(KAMContext* c) : mContext(c), mBound(c->mBindings.getBindingBuffer(GL_ARRAY_BUFFER)) {
        if (mBound != 0) kamRecord<glBindBuffer_Bridge>(c, GLenum(GL_ARRAY_BUFFER), GLuint(0));
    }
    ~ArrayBufferAside() {
        if (mBound != 0) kamRecord<glBindBuffer_Bridge>(mContext, GLenum(GL_ARRAY_BUFFER), mBound);
    }

private:
    KAMContext* mContext;
    GLuint mBound;
};

// An integer attribute gets every pointer through its own call on the
// worker too: glVertexAttribPointer would hand the shader floats.
void recordPointer(KAMContext* c, bool integer, GLuint index, GLint size, GLenum type, GLboolean normalized,
                   GLsizei stride, const void* pointer) {
    if (integer)
        kamRecord<glVertexAttribIPointer_Bridge>(c, index, size, type, stride, pointer);
    else
        kamRecord<glVertexAttribPointer_Bridge>(c, index, size, type, normalized, stride, pointer);
}

// Copies vertices first .. first + vertices - 1 of every live client array
// into the arena, packed, and points the worker's attribute at the copy.
// False when a copy cannot be made; the draw must then wait.
bool copyVertices(KAMContext* c, size_t first, size_t vertices) {
    ArrayBufferAside aside(c);
    for (int slot = 0; slot < KAMContext::kAttribSlots; ++slot) {
        ClientArray* a = c->mAttribArrays[slot];
        if (!isLive(c, a)) continue;
        const size_t elemSize = elemSizeOf(a);
        const size_t step = a->stride != 0 ? static_cast<size_t>(a->stride) : elemSize;
        // Where size_t is 32 bits the products can wrap to a few bytes, which
        // the copy below would overrun: no copy then.
        size_t total, skip, skipped;
        if (elemSize == 0 || __builtin_mul_overflow(elemSize, vertices, &total) ||
            __builtin_mul_overflow(step, first, &skip) || __builtin_mul_overflow(elemSize, first, &skipped))
            return false;
        uint8_t* copy = static_cast<uint8_t*>(c->mMemory.malloc(total, nullptr));
        if (copy == nullptr) return false;
        const uint8_t* src = static_cast<const uint8_t*>(a->pointer) + skip;
        if (step == elemSize) {
            memcpy(copy, src, total);
        } else {
            for (size_t v = 0; v < vertices; ++v) memcpy(copy + v * elemSize, src + v * step, elemSize);
        }
        // The worker reads vertex first at the start of the copy.
        const void* base = reinterpret_cast<const void*>(reinterpret_cast<uintptr_t>(copy) - skipped);
        recordPointer(c, a->integer, a->index, a->size, a->type, a->normalized, GLsizei(0), base);
        a->copied = true;
    }
    return true;
}

// A draw that reads client memory without copies runs while the caller
// waits: first the worker's attributes get the application's own pointers
// back where earlier draws left them on copies.
template <class F>
void drawNow(KAMContext* c, const char* label, F&& draw) {
    {
        ArrayBufferAside aside(c);
        for (int slot = 0; slot < KAMContext::kAttribRecords; ++slot) {
            ClientArray* a = c->mAttribArrays[slot];
            if (a == nullptr || !a->copied) continue;
            recordPointer(c, a->integer, a->index, a->size, a->type, a->normalized, a->stride, a->pointer);
            a->copied = false;
        }
    }
    c->mWorker->postSync(draw, label);
}

}  // namespace

bool applyAttribs(const char*, GLsizei count, GLenum type, const void* indices) {
    KAMContext* c = activeContext();
    if (c == nullptr || !liveClientArrays(c)) return true;
    // Without emulation, or with indices the layer cannot read (a bound
    // element buffer), the vertices a draw reaches are unknown: it waits.
    if (!c->mClientArrays || !kamIsClientMemory(indices) || c->mBindings.getBindingBuffer(GL_ELEMENT_ARRAY_BUFFER) != 0)
        return false;
    if (count < 1) return true;
    int64_t maxIndex;
    const bool restart = c->mPrimitiveRestart;
    switch (type) {
        case GL_UNSIGNED_BYTE: maxIndex = maxIndexOf<uint8_t>(indices, count, restart); break;
        case GL_UNSIGNED_SHORT: maxIndex = maxIndexOf<uint16_t>(indices, count, restart); break;
        case GL_UNSIGNED_INT: maxIndex = maxIndexOf<uint32_t>(indices, count, restart); break;
        default: return false;
    }
    return copyVertices(c, 0, static_cast<size_t>(maxIndex) + 1);
}

}  // namespace android

using namespace android;

namespace {

// Indexed draws: indices in client memory are copied (the vertex data only
// where the caller asked applyAttribs first). A copy that cannot be made
// runs the draw on the worker with the caller's pointer: false then.
template <class Sync>
bool copyIndices(KAMContext* c, const char* label, GLsizei count, GLenum type, const void*& indices, Sync&& sync) {
    if (!kamIsClientMemory(indices) || c->mBindings.getBindingBuffer(GL_ELEMENT_ARRAY_BUFFER) != 0) return true;
    // Only the three index types are read by the GL; any other type is an
    // error there, and nothing here may read on its behalf.
    const int indexBytes = type == GL_UNSIGNED_BYTE ? 1 : type == GL_UNSIGNED_SHORT ? 2 : type == GL_UNSIGNED_INT ? 4 : 0;
    const long long bytes = static_cast<long long>(indexBytes) * count;
    size_t size;  // no copy where the size does not fit size_t (32-bit targets)
    const void* copy =
        bytes >= 1 && !__builtin_add_overflow(bytes, 0, &size) ? c->mMemory.malloc(size, indices) : nullptr;
    if (copy == nullptr) {
        c->mWorker->postSync(sync, label);
        return false;
    }
    indices = copy;
    return true;
}

// A client-memory indirect command is not sized by the layer: those draws
// wait for the worker.
bool indirectFromClient(KAMContext* c, const void* indirect) {
    return kamIsClientMemory(indirect) && c->mBindings.getBindingBuffer(GL_DRAW_INDIRECT_BUFFER) == 0;
}

// A call the GL rejects leaves the attribute as it was; the record must not
// take its values either, or a later draw copies by them.
bool attribAccepted(GLint size, GLenum type, GLsizei stride, bool integer) {
    if (size < 1 || size > 4 || stride < 0) return false;
    switch (type) {
        case GL_BYTE: case GL_UNSIGNED_BYTE: case GL_SHORT: case GL_UNSIGNED_SHORT: case GL_INT:
        case GL_UNSIGNED_INT:
            return true;
        case GL_FLOAT: case GL_HALF_FLOAT: case GL_HALF_FLOAT_OES: case GL_FIXED:
            return !integer;
        case GL_INT_2_10_10_10_REV: case GL_UNSIGNED_INT_2_10_10_10_REV:
            return size == 4 && !integer;
        default:
            return false;
    }
}

// Tracked with or without emulation: without it, draws from client memory
// must wait for the worker.
void setPointer(KAMContext* c, GLuint index, GLint size, GLenum type, GLboolean normalized, bool integer, GLsizei stride,
                const void* pointer) {
    if (index <= 16 && attribAccepted(size, type, stride, integer)) {
        ClientArray*& a = c->mAttribArrays[index];
        const GLuint vertexArray = c->mBindings.currentVertexArray;
        // With an array buffer bound the pointer is an offset into it, however large.
        if (c->mBindings.getBindingBuffer(GL_ARRAY_BUFFER) != 0 || !kamIsClientMemory(pointer)) {
            if (a != nullptr && a->vertexArray == vertexArray) {
                a->pointer = nullptr;
                a->copied = false;
            }
        } else {
            if (a == nullptr) a = new ClientArray();
            if (a->vertexArray != vertexArray) a->enabled = true;
            a->index = index;
            a->size = size;
            a->type = type;
            a->normalized = normalized;
            a->integer = integer;
            a->stride = stride;
            a->pointer = pointer;
            a->vertexArray = vertexArray;
            a->copied = false;
        }
    }
    recordPointer(c, integer, index, size, type, normalized, stride, pointer);
}

}  // namespace

extern "C" {

KAM_EXPORT void kam_glVertexAttribPointer_opt(GLuint index, GLint size, GLenum type, GLboolean normalized,
                                              GLsizei stride, const void* pointer) {
    KAMContext* c = activeContext();
    if (c == nullptr) return KAM_GL(glVertexAttribPointer)(index, size, type, normalized, stride, pointer);
    setPointer(c, index, size, type, normalized, false, stride, pointer);
}

// One record per index serves both kinds; it remembers which call set it.
KAM_EXPORT void kam_glVertexAttribIPointer_opt(GLuint index, GLint size, GLenum type, GLsizei stride,
                                               const void* pointer) {
    KAMContext* c = activeContext();
    if (c == nullptr) return KAM_GL(glVertexAttribIPointer)(index, size, type, stride, pointer);
    setPointer(c, index, size, type, GL_FALSE, true, stride, pointer);
}

// A disabled attribute keeps its pointer: enabled again, it reads the same
// client memory.
#define KAM_ATTRIB_ENABLE(NAME, ENABLED) \
    KAM_EXPORT void kam_##NAME##_opt(GLuint index) { \
        KAMContext* c = activeContext(); \
        if (c == nullptr) return KAM_GL(NAME)(index); \
        kamRecord<NAME##_Bridge>(c, index); \
        ClientArray* a = index <= 16 ? c->mAttribArrays[index] : nullptr; \
        if (a != nullptr && a->vertexArray == c->mBindings.currentVertexArray) a->enabled = ENABLED; \
    }
KAM_ATTRIB_ENABLE(glEnableVertexAttribArray, true)
KAM_ATTRIB_ENABLE(glDisableVertexAttribArray, false)

// Fixed-index primitive restart decides which index values name vertices.
#define KAM_CAPABILITY(NAME, ENABLED) \
    KAM_EXPORT void kam_##NAME##_opt(GLenum cap) { \
        KAMContext* c = activeContext(); \
        if (c == nullptr) return KAM_GL(NAME)(cap); \
        if (cap == GL_PRIMITIVE_RESTART_FIXED_INDEX) c->mPrimitiveRestart = ENABLED; \
        kamRecord<NAME##_Bridge>(c, cap); \
    }
KAM_CAPABILITY(glEnable, true)
KAM_CAPABILITY(glDisable, false)

KAM_EXPORT void kam_glDrawArrays_opt(GLenum mode, GLint first, GLsizei count) {
    KAMContext* c = activeContext();
    if (c == nullptr) return KAM_GL(glDrawArrays)(mode, first, count);
    if (count >= 1 && liveClientArrays(c) &&
        (!c->mClientArrays || first < 0 ||
         !copyVertices(c, static_cast<size_t>(first), static_cast<size_t>(count))))
        return drawNow(c, "kam_glDrawArrays_opt", [&] { KAM_GL(glDrawArrays)(mode, first, count); });
    kamRecord<glDrawArrays_Bridge>(c, mode, first, count);
}

// Instanced draws from client arrays wait: per-instance attributes reach
// vertices the layer does not size.
#define KAM_DRAW_ARRAYS_INSTANCED(NAME) \
    KAM_EXPORT void kam_##NAME##_opt(GLenum mode, GLint first, GLsizei count, GLsizei instancecount) { \
        KAMContext* c = activeContext(); \
        if (c == nullptr) return KAM_GL(NAME)(mode, first, count, instancecount); \
        if (liveClientArrays(c)) \
            return drawNow(c, "kam_" #NAME "_opt", [&] { KAM_GL(NAME)(mode, first, count, instancecount); }); \
        kamRecord<NAME##_Bridge>(c, mode, first, count, instancecount); \
    }
KAM_DRAW_ARRAYS_INSTANCED(glDrawArraysInstanced)
KAM_DRAW_ARRAYS_INSTANCED(glDrawArraysInstancedEXT)
KAM_DRAW_ARRAYS_INSTANCED(glDrawArraysInstancedANGLE)
KAM_DRAW_ARRAYS_INSTANCED(glDrawArraysInstancedNV)

KAM_EXPORT void kam_glDrawElements_opt(GLenum mode, GLsizei count, GLenum type, const void* indices) {
    KAMContext* c = activeContext();
    if (c == nullptr) return KAM_GL(glDrawElements)(mode, count, type, indices);
    auto draw = [&] { KAM_GL(glDrawElements)(mode, count, type, indices); };
    if (!applyAttribs("glDrawElements", count, type, indices)) return drawNow(c, "kam_glDrawElements_opt", draw);
    if (copyIndices(c, "kam_glDrawElements_opt", count, type, indices, draw))
        kamRecord<glDrawElements_Bridge>(c, mode, count, type, indices);
}

KAM_EXPORT void kam_glDrawRangeElements_opt(GLenum mode, GLuint start, GLuint end, GLsizei count, GLenum type,
                                            const void* indices) {
    KAMContext* c = activeContext();
    if (c == nullptr) return KAM_GL(glDrawRangeElements)(mode, start, end, count, type, indices);
    auto draw = [&] { KAM_GL(glDrawRangeElements)(mode, start, end, count, type, indices); };
    if (!applyAttribs("glDrawRangeElements", count, type, indices))
        return drawNow(c, "kam_glDrawRangeElements_opt", draw);
    if (copyIndices(c, "kam_glDrawRangeElements_opt", count, type, indices, draw))
        kamRecord<glDrawRangeElements_Bridge>(c, mode, start, end, count, type, indices);
}

// The instanced and base-vertex draws copy their indices only; from client
// arrays they wait.
#define KAM_DRAW_INSTANCED(NAME) \
    KAM_EXPORT void kam_##NAME##_opt(GLenum mode, GLsizei count, GLenum type, const void* indices, \
                                     GLsizei instancecount) { \
        KAMContext* c = activeContext(); \
        if (c == nullptr) return KAM_GL(NAME)(mode, count, type, indices, instancecount); \
        auto draw = [&] { KAM_GL(NAME)(mode, count, type, indices, instancecount); }; \
        if (liveClientArrays(c)) return drawNow(c, "kam_" #NAME "_opt", draw); \
        if (copyIndices(c, "kam_" #NAME "_opt", count, type, indices, draw)) \
            kamRecord<NAME##_Bridge>(c, mode, count, type, indices, instancecount); \
    }

#define KAM_DRAW_BASE_VERTEX(NAME) \
    KAM_EXPORT void kam_##NAME##_opt(GLenum mode, GLsizei count, GLenum type, const void* indices, \
                                     GLint basevertex) { \
        KAMContext* c = activeContext(); \
        if (c == nullptr) return KAM_GL(NAME)(mode, count, type, indices, basevertex); \
        auto draw = [&] { KAM_GL(NAME)(mode, count, type, indices, basevertex); }; \
        if (liveClientArrays(c)) return drawNow(c, "kam_" #NAME "_opt", draw); \
        if (copyIndices(c, "kam_" #NAME "_opt", count, type, indices, draw)) \
            kamRecord<NAME##_Bridge>(c, mode, count, type, indices, basevertex); \
    }

#define KAM_DRAW_RANGE_BASE_VERTEX(NAME) \
    KAM_EXPORT void kam_##NAME##_opt(GLenum mode, GLuint start, GLuint end, GLsizei count, GLenum type, \
                                     const void* indices, GLint basevertex) { \
        KAMContext* c = activeContext(); \
        if (c == nullptr) return KAM_GL(NAME)(mode, start, end, count, type, indices, basevertex); \
        auto draw = [&] { KAM_GL(NAME)(mode, start, end, count, type, indices, basevertex); }; \
        if (liveClientArrays(c)) return drawNow(c, "kam_" #NAME "_opt", draw); \
        if (copyIndices(c, "kam_" #NAME "_opt", count, type, indices, draw)) \
            kamRecord<NAME##_Bridge>(c, mode, start, end, count, type, indices, basevertex); \
    }

#define KAM_DRAW_INSTANCED_BASE_VERTEX(NAME) \
    KAM_EXPORT void kam_##NAME##_opt(GLenum mode, GLsizei count, GLenum type, const void* indices, \
                                     GLsizei instancecount, GLint basevertex) { \
        KAMContext* c = activeContext(); \
        if (c == nullptr) return KAM_GL(NAME)(mode, count, type, indices, instancecount, basevertex); \
        auto draw = [&] { KAM_GL(NAME)(mode, count, type, indices, instancecount, basevertex); }; \
        if (liveClientArrays(c)) return drawNow(c, "kam_" #NAME "_opt", draw); \
        if (copyIndices(c, "kam_" #NAME "_opt", count, type, indices, draw)) \
            kamRecord<NAME##_Bridge>(c, mode, count, type, indices, instancecount, basevertex); \
    }

KAM_DRAW_INSTANCED(glDrawElementsInstanced)
KAM_DRAW_BASE_VERTEX(glDrawElementsBaseVertex)
KAM_DRAW_BASE_VERTEX(glDrawElementsBaseVertexOES)
KAM_DRAW_RANGE_BASE_VERTEX(glDrawRangeElementsBaseVertex)
KAM_DRAW_RANGE_BASE_VERTEX(glDrawRangeElementsBaseVertexOES)
KAM_DRAW_INSTANCED_BASE_VERTEX(glDrawElementsInstancedBaseVertex)
KAM_DRAW_INSTANCED_BASE_VERTEX(glDrawElementsInstancedBaseVertexOES)

KAM_EXPORT void kam_glDrawArraysIndirect_opt(GLenum mode, const void* indirect) {
    KAMContext* c = activeContext();
    if (c == nullptr) return KAM_GL(glDrawArraysIndirect)(mode, indirect);
    if (indirectFromClient(c, indirect))
        return c->mWorker->postSync([&] { KAM_GL(glDrawArraysIndirect)(mode, indirect); },
                                    "kam_glDrawArraysIndirect_opt");
    kamRecord<glDrawArraysIndirect_Bridge>(c, mode, indirect);
}

KAM_EXPORT void kam_glDrawElementsIndirect_opt(GLenum mode, GLenum type, const void* indirect) {
    KAMContext* c = activeContext();
    if (c == nullptr) return KAM_GL(glDrawElementsIndirect)(mode, type, indirect);
    if (indirectFromClient(c, indirect))
        return c->mWorker->postSync([&] { KAM_GL(glDrawElementsIndirect)(mode, type, indirect); },
                                    "kam_glDrawElementsIndirect_opt");
    kamRecord<glDrawElementsIndirect_Bridge>(c, mode, type, indirect);
}

}  // extern "C"
