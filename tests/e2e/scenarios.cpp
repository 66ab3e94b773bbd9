// kam-e2e-app: the end-to-end scenarios, run by tests/e2e/run.sh directly and through kam-run.
//   frames [--rows a,b] [--frames N] [--size PX] [--toggle-every K]: kRows, GL calls whose meaning depends on state
// a queuing layer captures at the call (client memory is rewritten as each returns); "frame N HASH" compares with
// a direct run. Through a layer frame kWarmup waits for offload, then switched every K frames; the second half may
// hold 2 MiB more resident memory at most (the heap grows in 1 MiB steps now and then).
//   lifecycle: kScenarios, contexts, threads and windows while offloaded, with pixel and log checks.
// Both end with "threads_left=T egl_records=R"; a layer ERROR no scenario asks for is a failure.

#include <EGL/egl.h>
#include <EGL/eglext.h>
#include <GLES3/gl32.h>
#include <X11/Xutil.h>
#include <dlfcn.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstring>
#include <functional>
#include <mutex>
#include <sstream>
#include <thread>
#include <vector>

#include "gles_window.h"

using namespace glesapp;

namespace {
std::mutex gLogLock;
std::vector<std::string> gLog;  // the layer's lines as "L text", L the level's letter
bool gKeepLog = true;           // else its ERROR lines only
}  // namespace

// The layer's log comes here instead of liblog's stderr writer.
extern "C" __attribute__((visibility("default"))) int __android_log_print(int prio, const char *tag, const char *fmt, ...) {
    char text[1024];
    va_list ap;
    va_start(ap, fmt), vsnprintf(text, sizeof text, fmt, ap), va_end(ap);
    std::fprintf(stderr, "%s %d %s\n", tag ? tag : "", prio, text);
    std::lock_guard<std::mutex> guard(gLogLock);
    if (tag && std::strcmp(tag, "_V_KAM") == 0 && (gKeepLog || (prio & 7) == 6))
        gLog.push_back(std::string(1, "??VDIWEF"[prio & 7]) + " " + text);
    return 1;
}

namespace {

int gSize = 64;
Platform gP;
int (*gOffloaded)() = nullptr;  // the host platform's; null directly on the driver
EGLBoolean (*gPresent)(EGLDisplay, EGLSurface) = eglSwapBuffers;
std::mutex gWhyLock;
std::string gWhy;  // the first failure

bool fail(const std::string &why) {
    std::lock_guard<std::mutex> guard(gWhyLock);
    return gWhy = gWhy.empty() ? why : gWhy, false;
}
bool offloaded() { return gOffloaded && gOffloaded(); }
double now() { return clock_seconds(CLOCK_MONOTONIC); }

// A number of /proc/self/status: "VmRSS:" (kB), "Threads:".
long status(const char *key) {
    FILE *f = std::fopen("/proc/self/status", "r");
    char line[256];
    long v = -1;
    while (f && std::fgets(line, sizeof line, f))
        if (std::strncmp(line, key, std::strlen(key)) == 0) v = std::atol(line + std::strlen(key));
    return f && std::fclose(f), v;
}

// Frames with known pixels: two halves in colours from a running seed, one
// row read back and checked.
std::atomic<uint32_t> gSeed{0}, gLastSeed{0};
void colours(uint32_t seed, uint8_t c[2][3]) {
    const uint8_t v[2][3] = {{204, static_cast<uint8_t>(51 * (seed % 4)), 0},
                             {static_cast<uint8_t>(51 * (seed % 5)), 102, static_cast<uint8_t>(255 - 51 * (seed % 3))}};
    std::memcpy(c, v, sizeof v);
}

bool frames(EGLSurface s, int n) {
    for (int i = 0; i < n; ++i) {
        const uint32_t seed = gSeed++;
        uint8_t c[2][3], px[4 * 1024];
        colours(seed, c);
        glViewport(0, 0, gSize, gSize), glEnable(GL_SCISSOR_TEST);
        for (int half = 0; half < 2; ++half) {
            glScissor(half * gSize / 2, 0, gSize / 2, gSize);
            glClearColor(c[half][0] / 255.0f, c[half][1] / 255.0f, c[half][2] / 255.0f, 1.0f), glClear(GL_COLOR_BUFFER_BIT);
        }
        glDisable(GL_SCISSOR_TEST), glReadPixels(0, gSize / 2, gSize, 1, GL_RGBA, GL_UNSIGNED_BYTE, px);
        for (int x = 0; x < gSize; ++x)
            if (std::memcmp(px + 4 * x, c[x >= gSize / 2], 3) != 0 || px[4 * x + 3] != 255)
                return fail("frame " + std::to_string(seed) + ": pixel " + std::to_string(x) + " is wrong");
        gLastSeed = seed;
        if (!gPresent(gP.dpy, s)) return fail("eglSwapBuffers failed");
    }
    return true;
}

// Renders until the layer offloads this thread (it measures the frame rate
// for a few seconds first), then a few frames more.
bool until_offloaded(EGLSurface s) {
    for (const double t0 = now(); gOffloaded && !gOffloaded();)
        if (!frames(s, 1) || (now() - t0 > 120 && !fail("offload never became active"))) return false;
    return frames(s, 10);
}

struct Sum {
    uint64_t h = 1469598103934665603ull;
    void bytes(const void *p, size_t n) { while (n--) h = (h ^ *static_cast<const uint8_t *>(p)) * 1099511628211ull, p = static_cast<const uint8_t *>(p) + 1; }
    void value(uint32_t v) { bytes(&v, sizeof v); }
};

uint32_t mix(uint32_t a, uint32_t b) {
    const uint32_t x = (a * 0x9E3779B1u ^ (b + 0x7F4A7C15u)) * 0x85EBCA6Bu;
    return (x ^ (x >> 13)) * 0xC2B2AE35u;
}

// Positions as floats and as 16.16 fixed point: a draw reads with a stride
// that is not its attributes' size.
struct Vtx { float x, y; GLfixed fx, fy; uint8_t rgba[4]; };

// Small triangles over [0,1]^2, one colour each.
void fill(Vtx *v, int n, uint32_t seed) {
    for (int i = 0; i < n; ++i) {
        const uint32_t t = mix(seed, static_cast<uint32_t>(i / 3)), k = static_cast<uint32_t>(i % 3);
        const float sz = 0.05f + 0.15f * static_cast<float>(mix(t, 3) & 255) / 255.0f;
        const float x = 0.1f + 0.8f * static_cast<float>(mix(t, 1) & 1023) / 1023.0f + (k == 0 ? -sz : k == 1 ? sz : 0);
        const float y = 0.1f + 0.8f * static_cast<float>(mix(t, 2) & 1023) / 1023.0f + (k == 2 ? sz : k == 1 ? -sz / 2 : -sz);
        v[i] = {x, y, static_cast<GLfixed>(x * 65536), static_cast<GLfixed>(y * 65536),
                {static_cast<uint8_t>(t), static_cast<uint8_t>(t >> 8), static_cast<uint8_t>(t >> 16), 255}};
    }
}

// Mode 0: the vertex colour (from integer bytes where they are set, w not 0);
// 1: a 2D texture; 2: a layer of a 3D texture.
const char *kVs = "#version 300 es\nlayout(location = 0) in vec2 a_pos; layout(location = 1) in vec4 a_color; uniform vec4 u_rect;"
                  "layout(location = 2) in uvec4 a_bytes; out vec2 v_uv; out vec4 v_color; void main() { v_uv = a_pos;"
                  "v_color = a_bytes.w == 0u ? a_color : vec4(a_bytes) / 255.0;"
                  "gl_Position = vec4(u_rect.xy + a_pos * u_rect.zw, 0.0, 1.0); }";
const char *kFs = "#version 300 es\nprecision mediump float; precision mediump sampler3D; in vec2 v_uv; in vec4 v_color;"
                  "uniform int u_mode; uniform float u_layer; uniform sampler2D u_t2; uniform sampler3D u_t3; out vec4 o;"
                  "void main() { o = u_mode == 0 ? v_color : u_mode == 1 ? texture(u_t2, v_uv) : texture(u_t3, vec3(v_uv, u_layer)); }";

enum Buf { kQuad, kColours, kVbo, kUnpack, kEbo, kMap, kFlush, kGone, kRing, kTf, kUbo0, kUbo1, kBufs };
constexpr GLsizeiptr kBytes = 12 * sizeof(Vtx);  // what a draw from a buffer reads
constexpr GLsizeiptr kFar = 0x10000 + 64;       // past 64 KiB: no client pointer

struct Scene {
    GLuint prog = 0, vao = 0, ebo_vao = 0, tex[4] = {}, bufs[kBufs] = {};
    GLint rect = -1, mode = -1, layer = -1, cell = 0, unpack[6] = {4, 0, 0, 0, 0, 0};  // unpack: what the uploads last set
};

// Each draw of a frame in a cell of its own (8 by 8): a difference in the
// pixels points at its draw.
void cell(Scene &s, int mode = 0, float layer = 0) {
    const int n = s.cell++ % 64;
    const float r[4] = {-1 + 0.25f * (n % 8) + 0.01f, -1 + 0.25f * static_cast<float>(n / 8) + 0.01f, 0.23f, 0.23f};
    glUseProgram(s.prog), glUniform4fv(s.rect, 1, r), glUniform1i(s.mode, mode), glUniform1f(s.layer, layer);
}

// Vertices from buf at offset; with quad, the unit square in a constant colour.
void point(GLuint buf, GLintptr offset, bool quad = false) {
    glBindBuffer(GL_ARRAY_BUFFER, buf);
    glVertexAttribPointer(0, 2, GL_FLOAT, GL_FALSE, quad ? 0 : sizeof(Vtx), reinterpret_cast<const void *>(offset));
    glVertexAttribPointer(1, 4, GL_UNSIGNED_BYTE, GL_TRUE, sizeof(Vtx), reinterpret_cast<const void *>(offset + 16));
    glEnableVertexAttribArray(0), (quad ? glDisableVertexAttribArray : glEnableVertexAttribArray)(1);
}

bool create(Scene &s) {
    if (!(s.prog = link_program(kVs, kFs, "scene"))) return false;
    s.rect = glGetUniformLocation(s.prog, "u_rect"), s.mode = glGetUniformLocation(s.prog, "u_mode");
    s.layer = glGetUniformLocation(s.prog, "u_layer");
    glUseProgram(s.prog), glUniform1i(glGetUniformLocation(s.prog, "u_t3"), 1), glVertexAttribI4ui(2, 0, 0, 0, 0);
    // Colours, vertices, the square, and indices past 64 KiB, in one block.
    std::vector<uint8_t> data(kFar + 64);
    for (size_t i = 0; i < 512; ++i) data[i] = static_cast<uint8_t>(i % 4 == 3 ? 255 : mix(99, static_cast<uint32_t>(i)) >> 24);
    fill(reinterpret_cast<Vtx *>(&data[512]), 12, 0x900);
    for (int i = 0; i < 8; ++i) reinterpret_cast<float *>(&data[1024])[i] = static_cast<float>(0x0E4 >> i & 1);  // 0,0 1,0 0,1 1,1
    for (int i = 0; i < 32; ++i) reinterpret_cast<GLushort *>(&data[kFar])[i] = static_cast<GLushort>((i + 3) % 12);
    glGenBuffers(kBufs, s.bufs);
    const GLsizeiptr sizes[kBufs] = {32, 512, kBytes, 0, 0, kBytes, kBytes, 0, kFar + 4 * kBytes, kBytes, kBytes, kBytes};
    const size_t at[3] = {1024, 0, 512};  // of kQuad, kColours, kVbo
    for (int i = 0; i < kBufs; ++i)
        if (glBindBuffer(GL_COPY_WRITE_BUFFER, s.bufs[i]), sizes[i])
            glBufferData(GL_COPY_WRITE_BUFFER, sizes[i], i <= kVbo ? &data[at[i]] : nullptr, GL_DYNAMIC_DRAW);
    // The element buffer is bound in ebo_vao only.
    glGenVertexArrays(1, &s.vao), glGenVertexArrays(1, &s.ebo_vao), glBindVertexArray(s.ebo_vao);
    point(s.bufs[kVbo], 0);
    glBindBuffer(GL_ELEMENT_ARRAY_BUFFER, s.bufs[kEbo]);
    glBufferData(GL_ELEMENT_ARRAY_BUFFER, static_cast<GLsizeiptr>(data.size()), data.data(), GL_STATIC_DRAW);
    glBindVertexArray(0), glGenTextures(4, s.tex);
    for (int t = 0; t < 4; ++t)
        glBindTexture(t == 3 ? GL_TEXTURE_3D : GL_TEXTURE_2D, s.tex[t]), glTexParameteri(t == 3 ? GL_TEXTURE_3D : GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_NEAREST);
    std::fill(data.begin(), data.end(), 0x40);  // sub-image uploads land on defined texels
    glBindTexture(GL_TEXTURE_2D, s.tex[1]), glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA8, 32, 32, 0, GL_RGBA, GL_UNSIGNED_BYTE, data.data());
    return glGetError() == GL_NO_ERROR || fail("GL error while creating the scene");
}

// A pixel-store value or offset of frame f: base + f % mod.
struct P { int base, mod; int at(uint32_t f) const { return base + static_cast<int>(f % static_cast<uint32_t>(mod)); } };
constexpr P k0{0, 1};
struct Upload {  // tex 3: the 3D texture
    int tex; GLenum ifmt, fmt; int bpp, w, h, d; bool sub, pbo;
    P align_log2, row_length, skip_pixels, skip_rows, image_height, skip_images, x, y, z;
};
const Upload kUploads[] = {
    // Three bytes a pixel: the row padding changes with every alignment.
    {0, GL_RGB8, GL_RGB, 3, 13, 7, 1, false, false, {0, 4}, {15, 5}, {0, 3}, {0, 4}, k0, k0, k0, k0, k0},
    // Into a texture at a moving offset: it keeps every frame's upload.
    {1, GL_RGBA8, GL_RGBA, 4, 11, 9, 1, true, false, {0, 4}, {15, 7}, {0, 4}, {0, 3}, k0, k0, {0, 22}, {0, 24}, k0},
    // Tight rows: only the alignment decides the stride.
    {2, GL_R8, GL_RED, 1, 9, 5, 1, false, false, {0, 4}, k0, k0, k0, k0, k0, k0, k0, k0},
    {2, GL_R8, GL_RED, 1, 3, 3, 1, true, false, {0, 2}, {5, 1}, {1, 1}, {1, 1}, k0, k0, {0, 7}, {0, 3}, k0},
    // From an unpack buffer: the pointer is an offset, the same state applies.
    {1, GL_RGBA8, GL_RGBA, 4, 4, 3, 1, true, true, k0, {7, 1}, {2, 1}, {1, 1}, k0, k0, {0, 28}, {0, 29}, k0},
    {3, GL_RGBA8, GL_RGBA, 4, 5, 4, 3, false, false, {0, 4}, {7, 1}, {1, 1}, {0, 2}, {6, 1}, {1, 2}, k0, k0, k0},
    {3, GL_RGBA8, GL_RGBA, 4, 3, 2, 2, true, false, {3, 1}, {4, 1}, {1, 1}, k0, {3, 1}, {0, 3}, {1, 1}, {0, 3}, {0, 2}},
};

// Pixel-store state is set only where it changes, as applications that cache
// it do: state set in one frame is used in later ones, offloaded or not. The
// client block is exactly as large as the call may read.
void uploads(Scene &s, uint32_t f, Sum &) {
    static const GLenum kNames[6] = {GL_UNPACK_ALIGNMENT, GL_UNPACK_ROW_LENGTH,   GL_UNPACK_SKIP_PIXELS,
                                     GL_UNPACK_SKIP_ROWS, GL_UNPACK_IMAGE_HEIGHT, GL_UNPACK_SKIP_IMAGES};
    for (const Upload &u : kUploads) {
        const GLint v[6] = {1 << u.align_log2.at(f), u.row_length.at(f),   u.skip_pixels.at(f),
                            u.skip_rows.at(f),       u.image_height.at(f), u.skip_images.at(f)};
        for (int i = 0; i < 6; ++i)
            if (s.unpack[i] != v[i]) glPixelStorei(kNames[i], s.unpack[i] = v[i]);
        const size_t row = (static_cast<size_t>((v[1] ? v[1] : u.w) * u.bpp + v[0] - 1)) / v[0] * v[0];
        const size_t n = static_cast<size_t>(v[5] + u.d - 1) * row * (v[4] ? v[4] : u.h) +
                         static_cast<size_t>(v[3] + u.h - 1) * row + static_cast<size_t>((v[2] + u.w) * u.bpp);
        std::vector<uint8_t> b(n);
        for (size_t i = 0; i < n; ++i) b[i] = static_cast<uint8_t>(mix(f * 8 + static_cast<uint32_t>(&u - kUploads), static_cast<uint32_t>(i)) >> 24);
        const uintptr_t offset = 5 + f % 9;
        if (u.pbo) {
            glBindBuffer(GL_PIXEL_UNPACK_BUFFER, s.bufs[kUnpack]);
            glBufferData(GL_PIXEL_UNPACK_BUFFER, static_cast<GLsizeiptr>(offset + n), nullptr, GL_STREAM_DRAW);
            glBufferSubData(GL_PIXEL_UNPACK_BUFFER, static_cast<GLintptr>(offset), static_cast<GLsizeiptr>(n), b.data());
        }
        const void *src = u.pbo ? reinterpret_cast<const void *>(offset) : b.data();
        const GLenum target = u.tex == 3 ? GL_TEXTURE_3D : GL_TEXTURE_2D;
        glActiveTexture(u.tex == 3 ? GL_TEXTURE1 : GL_TEXTURE0), glBindTexture(target, s.tex[u.tex]);
        if (u.tex == 3 && u.sub)
            glTexSubImage3D(target, 0, u.x.at(f), u.y.at(f), u.z.at(f), u.w, u.h, u.d, u.fmt, GL_UNSIGNED_BYTE, src);
        else if (u.tex == 3)
            glTexImage3D(target, 0, static_cast<GLint>(u.ifmt), u.w, u.h, u.d, 0, u.fmt, GL_UNSIGNED_BYTE, src);
        else if (u.sub)
            glTexSubImage2D(target, 0, u.x.at(f), u.y.at(f), u.w, u.h, u.fmt, GL_UNSIGNED_BYTE, src);
        else
            glTexImage2D(target, 0, static_cast<GLint>(u.ifmt), u.w, u.h, 0, u.fmt, GL_UNSIGNED_BYTE, src);
        std::fill(b.begin(), b.end(), 0x5A), glBindBuffer(GL_PIXEL_UNPACK_BUFFER, 0);
    }
    glBindVertexArray(s.vao), point(s.bufs[kQuad], 0, true), glActiveTexture(GL_TEXTURE0);
    for (int t = 0; t < 6; ++t) {
        if (t < 3) glBindTexture(GL_TEXTURE_2D, s.tex[t]);
        cell(s, t < 3 ? 1 : 2, (static_cast<float>(t - 3) + 0.5f) / 3.0f), glDrawArrays(GL_TRIANGLE_STRIP, 0, 4);
    }
    glBindVertexArray(0);
}

// Draws from client memory ('c' colours from it too, 'i' as integers, 'b' from
// a buffer left bound, 'k' a constant); vertices and indices are rewritten as each returns.
struct ClientDraw { GLenum mode, index_type; int first, count; char colour; bool fixed, range, restart; };  // index type 0: glDrawArrays
const ClientDraw kClientDraws[] = {
    {GL_TRIANGLES, GL_UNSIGNED_SHORT, 3, 18, 'c', false, false, false}, {GL_TRIANGLES, GL_UNSIGNED_INT, 24, 21, 'c', false, false, false},
    {GL_TRIANGLES, GL_UNSIGNED_SHORT, 48, 18, 'c', false, true, false}, {GL_TRIANGLES, 0, 66, 12, 'c', false, false, false},
    {GL_TRIANGLES, GL_UNSIGNED_SHORT, 78, 6, 'b', false, false, false}, {GL_TRIANGLES, 0, 84, 12, 'k', false, false, false},
    {GL_TRIANGLES, GL_UNSIGNED_SHORT, 30, 12, 'i', false, false, false}, {GL_TRIANGLES, 0, 87, 9, 'i', false, false, false},
    {GL_TRIANGLES, 0, 1, 3, 'k', true, false, false},                   {GL_TRIANGLE_STRIP, GL_UNSIGNED_SHORT, 0, 7, 'k', true, false, true},
};

void client_draws(Scene &s, uint32_t f, Sum &) {
    std::vector<Vtx> v(96);
    glBindVertexArray(0);
    for (const ClientDraw &d : kClientDraws) {
        fill(v.data(), 96, mix(f, 0x700)), glBindBuffer(GL_ARRAY_BUFFER, 0), glEnableVertexAttribArray(0);
        glVertexAttribPointer(0, 2, d.fixed ? GL_FIXED : GL_FLOAT, GL_FALSE, sizeof(Vtx), d.fixed ? &v[0].fx : static_cast<void *>(&v[0].x));
        if (d.colour == 'i') glVertexAttribIPointer(2, 4, GL_UNSIGNED_BYTE, sizeof(Vtx), v[0].rgba), glEnableVertexAttribArray(2);
        if (d.colour == 'b') glBindBuffer(GL_ARRAY_BUFFER, s.bufs[kColours]);
        glVertexAttribPointer(1, 4, GL_UNSIGNED_BYTE, GL_TRUE, d.colour == 'b' ? 0 : sizeof(Vtx),
                              d.colour == 'b' ? reinterpret_cast<void *>(static_cast<uintptr_t>(4 * (f % 8))) : v[0].rgba);
        (d.colour == 'k' || d.colour == 'i' ? glDisableVertexAttribArray : glEnableVertexAttribArray)(1);
        glVertexAttrib4f(1, 0.25f, static_cast<float>(f % 4) / 3.0f, 0.75f, 1.0f);
        std::vector<GLuint> idx32(static_cast<size_t>(d.count));
        for (int i = 0; i < d.count; ++i) idx32[static_cast<size_t>(i)] = d.restart && i == 3 ? 0xFFFFFFFFu : static_cast<GLuint>(d.first + i);
        std::vector<GLushort> idx16(idx32.begin(), idx32.end());
        const void *idx = d.index_type == GL_UNSIGNED_INT ? static_cast<void *>(idx32.data()) : idx16.data();
        if (cell(s), d.restart) glEnable(GL_PRIMITIVE_RESTART_FIXED_INDEX);
        if (!d.index_type) glDrawArrays(d.mode, d.first, d.count);
        else if (d.range) glDrawRangeElements(d.mode, static_cast<GLuint>(d.first), static_cast<GLuint>(d.first + d.count - 1), d.count, d.index_type, idx);
        else glDrawElements(d.mode, d.count, d.index_type, idx);
        glDisable(GL_PRIMITIVE_RESTART_FIXED_INDEX), glDisableVertexAttribArray(2), std::memset(v.data(), 0x5A, v.size() * sizeof(Vtx));
        std::fill(idx32.begin(), idx32.end(), 0xFFFFFFF0u), std::fill(idx16.begin(), idx16.end(), 0xEEEE);
    }
    glDisableVertexAttribArray(0), glDisableVertexAttribArray(1);
}

// Mappings, each drawn from before the next (in a vertex array made for the
// frame: its name may come back). A mapped buffer deleted is unmapped, and
// the binding falls back to zero.
struct Map { GLenum target; int buf; GLintptr offset; GLbitfield access; };
constexpr GLbitfield kStream = GL_MAP_UNSYNCHRONIZED_BIT | GL_MAP_INVALIDATE_RANGE_BIT;
const Map kMaps[] = {
    // One buffer twice, the second time orphaned; all of one written and the
    // second half flushed: only that is defined, and drawn.
    {GL_ARRAY_BUFFER, kMap, 0, 0}, {GL_ARRAY_BUFFER, kMap, 0, GL_MAP_INVALIDATE_BUFFER_BIT}, {GL_ARRAY_BUFFER, kFlush, 0, GL_MAP_FLUSH_EXPLICIT_BIT},
    {GL_ARRAY_BUFFER, kGone, 0, GL_MAP_INVALIDATE_BUFFER_BIT},
    // Bound by index (or range), mapped through the generic binding that sets.
    {GL_UNIFORM_BUFFER, kUbo0, 0, 0}, {GL_UNIFORM_BUFFER, kUbo1, 0, 0}, {GL_TRANSFORM_FEEDBACK_BUFFER, kTf, 0, GL_MAP_INVALIDATE_RANGE_BIT},
    // A streaming ring past 64 KiB: orphaned, then unsynchronized maps on.
    {GL_ARRAY_BUFFER, kRing, kFar, GL_MAP_INVALIDATE_BUFFER_BIT}, {GL_ARRAY_BUFFER, kRing, kFar + kBytes, kStream},
    {GL_ARRAY_BUFFER, kRing, kFar + 2 * kBytes, kStream}, {GL_ARRAY_BUFFER, kRing, kFar + 3 * kBytes, kStream},
};

void maps(Scene &s, uint32_t f, Sum &sum) {
    GLuint vao = 0;
    glGenVertexArrays(1, &vao), glBindVertexArray(vao);
    for (const Map &m : kMaps) {
        if (m.buf == kGone) glGenBuffers(1, &s.bufs[kGone]), glBindBuffer(m.target, s.bufs[kGone]), glBufferData(m.target, kBytes, nullptr, GL_STREAM_DRAW);
        const GLuint b = s.bufs[m.buf];
        const bool flush = m.access & GL_MAP_FLUSH_EXPLICIT_BIT;
        if (m.target == GL_UNIFORM_BUFFER) glBindBufferBase(m.target, static_cast<GLuint>(m.buf - kUbo0), b);
        else if (m.target == GL_TRANSFORM_FEEDBACK_BUFFER) glBindBufferRange(m.target, 0, b, 0, kBytes);
        else glBindBuffer(m.target, b);
        void *p = glMapBufferRange(m.target, m.offset, kBytes, GL_MAP_WRITE_BIT | m.access);
        if (p) fill(static_cast<Vtx *>(p), 12, mix(f, static_cast<uint32_t>(&m - kMaps)));
        if (p && flush) glFlushMappedBufferRange(m.target, kBytes / 2, kBytes / 2);
        if (GLint bound = -1; m.buf == kGone) glDeleteBuffers(1, &b), glGetIntegerv(GL_ARRAY_BUFFER_BINDING, &bound), sum.value(static_cast<uint32_t>(bound));
        else sum.value((p != nullptr) | glUnmapBuffer(m.target) << 1), point(b, m.offset), cell(s), glDrawArrays(GL_TRIANGLES, flush ? 6 : 0, flush ? 6 : 12);
    }
    glBindBufferBase(GL_TRANSFORM_FEEDBACK_BUFFER, 0, 0), glBindVertexArray(0), glDeleteVertexArrays(1, &vao);
    sum.value(glIsVertexArray(vao));
}

// The element buffer belongs to the vertex array: the default one drops its
// own, ebo_vao draws from its own past 64 KiB; then the other way round,
// ebo_vao's bound there and the default one drawing from client indices.
void elements(Scene &s, uint32_t f, Sum &) {
    GLushort idx[12];
    for (int i = 0; i < 12; ++i) idx[i] = static_cast<GLushort>((i + static_cast<int>(f % 3) * 3) % 12);
    glBindVertexArray(0), glBindBuffer(GL_ELEMENT_ARRAY_BUFFER, 0), glBindVertexArray(s.ebo_vao), cell(s);
    glDrawElements(GL_TRIANGLES, 12, GL_UNSIGNED_SHORT, reinterpret_cast<const void *>(static_cast<uintptr_t>(kFar + 2 * (f % 8))));
    glBindBuffer(GL_ELEMENT_ARRAY_BUFFER, s.bufs[kEbo]), glBindVertexArray(0), point(s.bufs[kVbo], 0), cell(s);
    glDrawElements(GL_TRIANGLES, 12, GL_UNSIGNED_SHORT, idx);
    std::memset(idx, 0xFF, sizeof idx), glDisableVertexAttribArray(0), glDisableVertexAttribArray(1);
}

// Extension names: the platform's record of the context answers them.
void strings(Scene &, uint32_t, Sum &sum) {
    GLint n = 0;
    glGetIntegerv(GL_NUM_EXTENSIONS, &n), sum.value(static_cast<uint32_t>(n));
    for (GLint i = 0; i < n; ++i)
        if (const char *e = reinterpret_cast<const char *>(glGetStringi(GL_EXTENSIONS, static_cast<GLuint>(i)))) sum.bytes(e, std::strlen(e) + 1);
}

struct Row { const char *name; void (*run)(Scene &, uint32_t, Sum &); };
const Row kRows[] = {{"uploads", uploads}, {"client-draws", client_draws}, {"maps", maps}, {"elements", elements}, {"strings", strings}};

struct Options { bool lifecycle = false; long frames = 300, size = 64, toggle_every = 0; std::vector<const Row *> rows; };

constexpr long kWarmup = 30;  // frames before offload; their objects are used after it

bool run_frames(const Options &o) {
    Scene s;
    if (!create(s)) return false;
    auto update_mtr = reinterpret_cast<void (*)(int)>(dlsym(RTLD_DEFAULT, "kam_platform_update_mtr"));
    std::vector<uint8_t> px(static_cast<size_t>(gSize * gSize * 4));
    long half[2] = {0, 0};  // the highest resident memory of each half after the warm-up
    int toggles = 0, ok = 1;
    for (long frame = 0; ok && frame < o.frames; ++frame) {
        if (frame == kWarmup && !until_offloaded(gP.surf)) break;
        if (update_mtr && o.toggle_every > 0 && frame > kWarmup && (frame - kWarmup) % o.toggle_every == 0)
            update_mtr(++toggles % 2);
        const uint32_t f = static_cast<uint32_t>(frame);
        Sum sum = (s.cell = 0, Sum());
        glClearColor(static_cast<float>(f % 5) / 8.0f, 0.1f, static_cast<float>(f % 3) / 6.0f, 1.0f);
        glViewport(0, 0, gSize, gSize), glClear(GL_COLOR_BUFFER_BIT);
        for (const Row *r : o.rows) r->run(s, f, sum);
        glReadPixels(0, 0, gSize, gSize, GL_RGBA, GL_UNSIGNED_BYTE, px.data()), sum.bytes(px.data(), px.size());
        std::printf("frame %ld %016llx\n", frame, static_cast<unsigned long long>(sum.h));
        ok = eglSwapBuffers(gP.dpy, gP.surf) || egl_fail("eglSwapBuffers");
        long &h = half[2 * (frame - kWarmup) >= o.frames - kWarmup];
        if (frame >= kWarmup) h = std::max(h, status("VmRSS:"));
    }
    if (const GLenum e = (update_mtr ? update_mtr(1) : void(), glGetError())) ok = fail("GL error " + std::to_string(e));
    std::fprintf(stderr, "kam-e2e-app: frames=%ld toggles=%d rss_first_half_max_kb=%ld rss_second_half_max_kb=%ld\n",
                 o.frames, toggles, half[0], half[1]);
    return (half[1] <= half[0] + 2048 || fail("resident memory kept growing")) && ok && gWhy.empty();
}

EGLContext new_context() {
    // The version after another attribute: the platform walks the list.
    static const EGLint attribs[] = {EGL_CONTEXT_MINOR_VERSION_KHR, 0, EGL_CONTEXT_CLIENT_VERSION, 3, EGL_NONE};
    EGLContext c = eglCreateContext(gP.dpy, gP.config, EGL_NO_CONTEXT, attribs);
    return c != EGL_NO_CONTEXT || fail("eglCreateContext failed") ? c : EGL_NO_CONTEXT;
}
constexpr Window kPbuffer = 1;  // for new_surface: a pbuffer, not a window
EGLSurface new_surface(Window w = 0) {
    static const EGLint pbuffer[] = {EGL_WIDTH, 64, EGL_HEIGHT, 64, EGL_NONE};
    EGLSurface s = w == kPbuffer ? eglCreatePbufferSurface(gP.dpy, gP.config, pbuffer)
                                 : eglCreateWindowSurface(gP.dpy, gP.config, static_cast<EGLNativeWindowType>(w ? w : gP.win), nullptr);
    return s != EGL_NO_SURFACE || fail("no surface") ? s : EGL_NO_SURFACE;
}
bool make_current(EGLSurface s, EGLContext c) { return eglMakeCurrent(gP.dpy, s, s, c) || fail("eglMakeCurrent failed"); }
void release() { eglMakeCurrent(gP.dpy, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT); }
void destroy(EGLSurface s, EGLContext c = EGL_NO_CONTEXT) {
    (s != EGL_NO_SURFACE && eglDestroySurface(gP.dpy, s)), (c != EGL_NO_CONTEXT && eglDestroyContext(gP.dpy, c));
}
void on_thread(const char *name, const std::function<void()> &body) {
    std::thread([&] { prctl(PR_SET_NAME, name, 0, 0, 0), body(); }).join();
}

// A context and a surface on w (default: the shared window) current for the
// body, then released and destroyed (unless the body cleared them).
using Body = std::function<void(EGLContext &, EGLSurface &)>;
void in_context(const Body &body, Window w = 0) {
    EGLContext c = new_context();
    EGLSurface s = new_surface(w);
    if (make_current(s, c)) body(c, s);
    release(), destroy(s, c), eglReleaseThread();
}
void with_context(const char *thread, const Body &body, Window w = 0) { on_thread(thread, [&] { in_context(body, w); }); }
void five_frames(EGLContext &, EGLSurface &s) { frames(s, 5); }

// A context destroyed while current stays usable until released (without
// presenting); then the thread makes a new one current on the same window,
// as a program with a context per scene does, and that one is offloaded too.
void after_destroyed(EGLContext &c, EGLSurface &s) {
    gPresent = [](EGLDisplay, EGLSurface) -> EGLBoolean { return EGL_TRUE; };
    frames(s, 10), gPresent = eglSwapBuffers;
    if ((c = new_context()) != EGL_NO_CONTEXT && make_current(s, c)) until_offloaded(s);
}

// Renders for a while on a thread or context the layer must leave alone.
void never_offloaded(EGLContext &, EGLSurface &s) {
    if (eglGetCurrentSurface(EGL_READ) != s) return void(fail("eglGetCurrentSurface(EGL_READ) is not the surface made current"));
    for (const double t0 = now(); gOffloaded && now() - t0 < 4.5 && frames(s, 1);)
        if (offloaded()) return void(fail("the thread was offloaded"));
}

// Holds the worker in the driver's debug callback (a recorded call that
// fails) until the thread has switched contexts, or for a second at most.
std::atomic<bool> gSwitched{false}, gHeld{false};
void GL_APIENTRY hold_worker(GLenum, GLenum, GLuint, GLenum, GLsizei, const GLchar *, const void *) {
    for (int i = 0; i < 100 && !gSwitched; ++i) usleep(10000);
    gHeld = true;
}

// A window of its own over the shared one, with its visual.
Window new_window() {
    XWindowAttributes wa{};
    XSetWindowAttributes swa{};
    XGetWindowAttributes(gP.xdpy, gP.win, &wa), swa.colormap = wa.colormap;
    Window w = XCreateWindow(gP.xdpy, DefaultRootWindow(gP.xdpy), 0, 0, 64, 64, 0, wa.depth, InputOutput, wa.visual,
                             CWColormap | CWBackPixel | CWBorderPixel, &swa);
    XMapRaised(gP.xdpy, w), XSync(gP.xdpy, False);
    return w;
}

// The X server shows the last frame presented in w. The driver's image
// reaches it on another connection: look until it shows, for a while.
bool window_shows_last_frame(Window w, const char *when) {
    uint8_t c[2][3];
    auto rgb = [](const uint8_t *v) { return static_cast<unsigned long>(v[0]) << 16 | v[1] << 8 | v[2]; };
    for (int tries = (colours(gLastSeed, c), 0); tries < 200; ++tries, usleep(50000)) {
        XSync(gP.xdpy, False);
        XImage *img = XGetImage(gP.xdpy, w, 0, 0, 64, 64, AllPlanes, ZPixmap);
        if (!img) return fail("XGetImage failed");
        const bool shown = (XGetPixel(img, 0, 32) & 0xffffff) == rgb(c[0]) && (XGetPixel(img, 63, 32) & 0xffffff) == rgb(c[1]);
        if (XDestroyImage(img), shown) return true;
    }
    return fail(std::string("the window does not show the last frame ") + when);
}

// Extension entry points taken by name; a swap with damage is a frame too.
PFNEGLSWAPBUFFERSWITHDAMAGEEXTPROC gSwapWithDamage;
EGLBoolean swap_with_damage(EGLDisplay dpy, EGLSurface s) {
    EGLint rect[4] = {0, 0, gSize, gSize};
    return gSwapWithDamage(dpy, s, rect, 1);
}

// The render thread ends while offloaded, on window w.
void exit_offloaded(const char *name, EGLContext &c, EGLSurface &s, Window w = 0) {
    on_thread(name, [&] { (c = new_context()) && (s = new_surface(w)) && make_current(s, c) && until_offloaded(s); });
}

// The body runs in a context on a thread of that name (or `other` runs);
// offload starts that often; must: "L text", L the level's letter.
struct Scenario {
    const char *name; int starts; std::vector<const char *> must, mustNot;
    const char *thread; Body body; std::function<void()> other; Window surface;
};
const Scenario kScenarios[] = {
    {"destroy-from-owner", 2, {"D KAMContext is released EGLContext=", "D version=3"}, {"is stopped"}, "lc-owner",
     [](EGLContext &c, EGLSurface &s) { until_offloaded(s) && (eglDestroyContext(gP.dpy, c), after_destroyed(c, s), true); }, nullptr, 0},
    {"thread-exits-while-attached", true, {"D onThreadReleased:[<lc-exit>,", "D KAMContext is released EGLContext="}, {"is stopped"},
     nullptr, nullptr, [] {
         EGLContext c = EGL_NO_CONTEXT;
         EGLSurface s = EGL_NO_SURFACE;
         exit_offloaded("lc-exit", c, s), destroy(s, c), with_context("lc-after-exit", five_frames);
     }, 0},
    // Presenting with damage all along: a failed make-current leaves the
    // thread's binding as it was; released, the thread is not offloaded,
    // and it is again as soon as it takes the context back.
    {"present-with-damage-release-and-take-back", true, {}, {"is stopped"}, "lc-release", [](EGLContext &c, EGLSurface &s) {
         gSwapWithDamage = reinterpret_cast<PFNEGLSWAPBUFFERSWITHDAMAGEEXTPROC>(eglGetProcAddress("eglSwapBuffersWithDamageEXT"));
         auto label = reinterpret_cast<PFNEGLLABELOBJECTKHRPROC>(eglGetProcAddress("eglLabelObjectKHR"));
         if (!gSwapWithDamage || !label) return void(fail("no eglSwapBuffersWithDamageEXT or eglLabelObjectKHR"));
         if (label(gP.dpy, EGL_OBJECT_CONTEXT_KHR, c, nullptr) != EGL_SUCCESS || label(gP.dpy, EGL_OBJECT_SURFACE_KHR, s, nullptr) != EGL_SUCCESS)
             return void(fail("eglLabelObjectKHR refused the context or the surface"));
         EGLContext other = new_context();
         EGLSurface bad = reinterpret_cast<EGLSurface>(static_cast<uintptr_t>(0x4b4b4b40));
         if (gPresent = swap_with_damage, !until_offloaded(s))
             ;
         else if (eglMakeCurrent(gP.dpy, bad, bad, other) || eglGetError() != EGL_BAD_SURFACE)
             fail("eglMakeCurrent took a bad surface, or not with EGL_BAD_SURFACE");
         else if (eglGetCurrentContext() != c || eglGetCurrentSurface(EGL_DRAW) != s || (gOffloaded && !offloaded()))
             fail("the failed eglMakeCurrent changed the current context or stopped offload");
         else if (frames(s, 10) && (release(), offloaded()))
             fail("offloaded without a current context");
         else if (make_current(s, c) && gOffloaded && !offloaded())
             fail("not offloaded again after taking the context back");
         frames(s, 30), gPresent = eglSwapBuffers, destroy(EGL_NO_SURFACE, other);
     }, nullptr, 0},
    // From the offloaded context to another window context the layer measured
    // before: the switch drains the first one's queue (it may hold the last
    // swap, and the application may destroy that window next).
    {"second-window-context", true, {"D <lc-window2> EGLContext is changed"}, {"is stopped"}, nullptr, nullptr, [] {
         const Window w = new_window();
         gSwitched = gHeld = false;
         with_context("lc-window2", [w](EGLContext &c2, EGLSurface &s2) {
             EGLContext c1 = new_context();
             EGLSurface s1 = new_surface(w);
             if (frames(s2, 2) && make_current(s1, c1) && until_offloaded(s1)) {
                 glEnable(GL_DEBUG_OUTPUT), glDebugMessageCallback(hold_worker, nullptr);
                 frames(s1, 1), glLineWidth(-1.0f);
                 if (make_current(s2, c2)) {
                     if (gOffloaded && !gHeld) fail("the first context's queue was not drained by the switch");
                     window_shows_last_frame(w, "after switching to the other window context");
                     gSwitched = true, frames(s2, 5);
                 }
             }
             gSwitched = true;
             release(), XDestroyWindow(gP.xdpy, w), destroy(s1, c1);
         });
     }, 0},
    // eglReleaseThread on an offloaded thread: the last frame is on the
    // screen when it returns, so the window may go at once.
    {"release-thread-then-window-gone", true, {}, {"is stopped"}, nullptr, nullptr, [] {
         const Window w = new_window();
         with_context("lc-relthread", [w](EGLContext &, EGLSurface &s) {
             if (until_offloaded(s)) eglReleaseThread(), window_shows_last_frame(w, "after eglReleaseThread");
             XDestroyWindow(gP.xdpy, w);
         }, w);
     }, 0},
    // The main thread destroys the window, then the surface and the context:
    // what the platform does before a window goes (kam-run's X window guard
    // calls it from XDestroyWindow) puts the last frame on the screen first.
    {"render-thread-gone-window-gone", true, {}, {"is stopped"}, nullptr, nullptr, [] {
         const Window w = new_window();
         EGLContext c = EGL_NO_CONTEXT;
         EGLSurface s = EGL_NO_SURFACE;
         exit_offloaded("lc-gone", c, s, w);
         if (auto going = reinterpret_cast<void (*)(unsigned long)>(dlsym(RTLD_DEFAULT, "kam_platform_native_window_destroyed")))
             going(w), window_shows_last_frame(w, "when it is destroyed");
         XDestroyWindow(gP.xdpy, w), destroy(s, c);
     }, 0},
    {"pbuffer-only-context", false, {}, {"RenderThread is marked"}, "lc-pbuffer", never_offloaded, nullptr, kPbuffer},
    {"thread-named-RenderThread", false, {"D iniTLS <RenderThread> skip=1"}, {"RenderThread is marked"}, "RenderThread", never_offloaded, nullptr, 0},
};

// What the layer logged from line `from` on against what a run expects.
std::string check_log(size_t from, int starts_wanted, const std::vector<const char *> &must, const std::vector<const char *> &mustNot) {
    std::unique_lock<std::mutex> guard(gLogLock);
    const std::vector<std::string> lines(gLog.begin() + static_cast<long>(from), gLog.end());
    guard.unlock();
    auto has = [](const std::string &l, const std::string &m, bool level) { return (!level || !l.compare(0, 2, m, 0, 2)) && l.find(m.substr(level ? 2 : 0)) != std::string::npos; };
    auto count = [&](const char *m, bool level) { return std::count_if(lines.begin(), lines.end(), [&](const std::string &l) { return has(l, m, level); }); };
    const long starts = count("KAMWorker started -> ", false);
    if (starts_wanted >= 0 && starts != starts_wanted) return "offload started " + std::to_string(starts) + " times";
    for (const char *m : must) if (!count(m, true)) return std::string("no message \"") + m + "\"";
    for (const char *m : mustNot) if (count(m, false)) return std::string("unexpected message \"") + m + "\"";
    for (const std::string &l : lines)
        if (l[0] == 'E' && std::none_of(must.begin(), must.end(), [&](const char *m) { return has(l, m, true); }))
            return "error message \"" + l + "\"";
    return "";
}

bool run_lifecycle() {
    release(), destroy(gP.surf, gP.ctx);  // the scenarios make their own contexts and surfaces on the window
    gP.surf = EGL_NO_SURFACE, gP.ctx = EGL_NO_CONTEXT;
    int failed = 0;
    for (const Scenario &sc : kScenarios) {
        std::unique_lock<std::mutex> guard(gLogLock);
        const size_t from = gLog.size();
        guard.unlock(), gWhy.clear(), std::fprintf(stderr, "kam-e2e-app: --- %s\n", sc.name);
        if (sc.thread) with_context(sc.thread, sc.body, sc.surface); else sc.other();
        const std::string why = gWhy.empty() && gOffloaded ? check_log(from, sc.starts, sc.must, sc.mustNot) : gWhy;
        failed += !why.empty(), std::printf(why.empty() ? "PASS %s\n" : "FAIL %s: %s\n", sc.name, why.c_str()), std::fflush(stdout);
    }
    return failed == 0;
}

bool parse(int argc, char **argv, Options *o) {
    if (argc < 2 || argc % 2 != 0) return false;
    o->lifecycle = std::strcmp(argv[1], "lifecycle") == 0;
    for (int i = 2; i < argc; i += 2) {
        const std::string k = argv[i];
        std::istringstream names(argv[i + 1]);
        for (std::string n; k == "--rows" && std::getline(names, n, ',');) {
            const Row *r = std::find_if(std::begin(kRows), std::end(kRows), [&](const Row &row) { return n == row.name; });
            if (r == std::end(kRows)) return false;
            o->rows.push_back(r);
        }
        if (k != "--rows" && !(k == "--frames" && parse_long(argv[i + 1], kWarmup + 2, 100000000, &o->frames)) &&
            !(k == "--size" && parse_long(argv[i + 1], 64, 1024, &o->size)) &&
            !(k == "--toggle-every" && parse_long(argv[i + 1], 0, 100000000, &o->toggle_every)))
            return false;
    }
    if (o->rows.empty())
        for (const Row &r : kRows) o->rows.push_back(&r);
    return o->lifecycle || std::strcmp(argv[1], "frames") == 0;
}

}  // namespace

int main(int argc, char **argv) {
    Options o;
    if (!parse(argc, argv, &o))
        return std::fprintf(stderr, "usage: kam-e2e-app frames [--rows a,b,...] [--frames N] [--size PX] [--toggle-every K]\n"
                                    "       kam-e2e-app lifecycle\n"), 2;
    const long threads_before = status("Threads:");
    gSize = static_cast<int>(o.size), gKeepLog = o.lifecycle;
    gOffloaded = reinterpret_cast<int (*)()>(dlsym(RTLD_DEFAULT, "kam_platform_thread_offloaded"));
    const bool ok = setup_platform(&gP, {"kam-e2e-app", gSize, gSize, false}) && (o.lifecycle ? run_lifecycle() : run_frames(o));
    if (!gWhy.empty()) std::fprintf(stderr, "kam-e2e-app: %s\n", gWhy.c_str());
    teardown_platform(&gP), std::fflush(stdout);
    int records[2] = {0, 0};
    // Filled with -1 first: a count the platform does not write shows.
    if (auto counts = reinterpret_cast<void (*)(int *, int *)>(dlsym(RTLD_DEFAULT, "kam_platform_record_counts")))
        records[0] = records[1] = -1, counts(&records[0], &records[1]);
    const std::string why = gOffloaded && !o.lifecycle ? check_log(0, -1, {}, {}) : "";
    if (!why.empty()) std::fprintf(stderr, "kam-e2e-app: %s\n", why.c_str());
    std::fprintf(stderr, "kam-e2e-app: threads_left=%ld egl_records=%d\n", status("Threads:") - threads_before, records[0] + records[1]);
    return ok && why.empty() && records[0] + records[1] == 0 ? 0 : 1;
}
