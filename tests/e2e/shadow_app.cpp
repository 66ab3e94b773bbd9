// kam-shadow-app: a GLES 3.0 program whose every frame leans on the GL state
// that a layer queuing GL calls for another thread has to capture at call
// time: pixel-store state, client memory read or written by the call
// (uploads, read-backs, client vertex arrays and indices), buffer mappings,
// and object names created and deleted on the application thread.
//
// Everything drawn and read back depends only on the frame index, so two runs
// with the same --frames print the same checksum line and the same last frame
// (--png), whether or not the calls go through a layer. --features selects
// groups of calls so that a difference can be narrowed down to one group.
// --warmup-seconds renders plain cleared frames, after --warmup-after frames,
// until the layer offloads the thread (at most S seconds); they leave no trace in
// the output, so runs with different warm-ups still compare equal.

#include <EGL/egl.h>
#include <EGL/eglext.h>
#include <dlfcn.h>
#include <GLES3/gl31.h>
#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <time.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include "gles_window.h"

using namespace glesapp;

namespace {

enum Feature : unsigned {
    kUnpack2D = 1u << 0,      // 2D uploads with row length, skips, alignment
    kTex3D = 1u << 1,         // 3D uploads with image height and skipped images
    kReadClient = 1u << 2,    // glReadPixels into client memory with pack state
    kReadPbo = 1u << 3,       // glReadPixels into a pack buffer, mapped for reading
    kMapWrite = 1u << 4,      // write mappings: invalidate, explicit flush
    kObjects = 1u << 5,       // vertex array / transform feedback names
    kClientArrays = 1u << 6,  // client vertex arrays and client indices
    kBuffers = 1u << 7,       // glBufferData / SubData / Copy / delete
    kUnpackPbo = 1u << 8,     // uploads sourced from a pixel unpack buffer
    kTracked = 1u << 9,       // element buffers per vertex array, several maps a frame, indexed bindings
    kAllFeatures = (1u << 10) - 1,
};

const char *const kFeatureNames[] = {
    "unpack2d", "tex3d", "read-client", "read-pbo", "map-write",
    "objects", "client-arrays", "buffers", "unpack-pbo", "tracked",
};

struct Options {
    long frames = 600;
    unsigned features = kAllFeatures;
    double warmup_seconds = 0.0;
    long warmup_after = 0;
    std::string png_path;
    bool check_errors = false;
};

constexpr int kWidth = 256;
constexpr int kHeight = 256;

void usage(FILE *out) {
    std::fprintf(out,
                 "usage: kam-shadow-app [options]\n"
                 "  --frames N          frames to render (default 600)\n"
                 "  --png PATH          write the last frame to PATH as PNG\n"
                 "  --features MASK     groups of GL calls to make each frame (default 0x%x):\n",
                 kAllFeatures);
    for (unsigned i = 0; i < sizeof(kFeatureNames) / sizeof(kFeatureNames[0]); ++i)
        std::fprintf(out, "                        0x%03x %s\n", 1u << i, kFeatureNames[i]);
    std::fprintf(out,
                 "  --warmup-seconds S  clear and swap until offloaded, at most S seconds, before frame --warmup-after\n"
                 "  --warmup-after K    frames to render before the warm-up (default 0)\n"
                 "  --check-errors      call glGetError after every group and name the first that fails\n"
                 "  --help              show this text\n");
}

bool parse_ulong(const char *s, unsigned long min, unsigned long max, unsigned long *out) {
    if (!s || !*s || *s == '-')
        return false;
    errno = 0;
    char *end = nullptr;
    unsigned long v = std::strtoul(s, &end, 0);
    if (errno != 0 || *end != '\0' || v < min || v > max)
        return false;
    *out = v;
    return true;
}

// Returns 0 to continue, 1 when --help was handled, -1 on a bad command line.
int parse_args(int argc, char **argv, Options *o) {
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        auto value = [&]() -> const char * {
            if (i + 1 >= argc) {
                std::fprintf(stderr, "kam-shadow-app: %s needs a value\n", arg.c_str());
                return nullptr;
            }
            return argv[++i];
        };
        unsigned long v = 0;
        if (arg == "--help" || arg == "-h") {
            usage(stdout);
            return 1;
        } else if (arg == "--check-errors") {
            o->check_errors = true;
        } else if (arg == "--frames") {
            const char *s = value();
            if (!parse_ulong(s, 1, 100000000ul, &v)) {
                std::fprintf(stderr, "kam-shadow-app: bad value for --frames: '%s'\n", s ? s : "");
                return -1;
            }
            o->frames = static_cast<long>(v);
        } else if (arg == "--features") {
            const char *s = value();
            if (!parse_ulong(s, 0, kAllFeatures, &v)) {
                std::fprintf(stderr, "kam-shadow-app: bad value for --features: '%s'\n", s ? s : "");
                return -1;
            }
            o->features = static_cast<unsigned>(v);
        } else if (arg == "--warmup-seconds") {
            const char *s = value();
            if (!parse_ulong(s, 0, 3600, &v)) {
                std::fprintf(stderr, "kam-shadow-app: bad value for --warmup-seconds: '%s'\n", s ? s : "");
                return -1;
            }
            o->warmup_seconds = static_cast<double>(v);
        } else if (arg == "--warmup-after") {
            const char *s = value();
            if (!parse_ulong(s, 0, 100000000ul, &v)) {
                std::fprintf(stderr, "kam-shadow-app: bad value for --warmup-after: '%s'\n", s ? s : "");
                return -1;
            }
            o->warmup_after = static_cast<long>(v);
        } else if (arg == "--png") {
            const char *s = value();
            if (!s || !*s) {
                std::fprintf(stderr, "kam-shadow-app: --png needs a path\n");
                return -1;
            }
            o->png_path = s;
        } else {
            std::fprintf(stderr, "kam-shadow-app: unknown option '%s'\n", argv[i]);
            usage(stderr);
            return -1;
        }
    }
    return 0;
}

double now_seconds() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

// ---------------------------------------------------------------------------
// Determinism helpers

uint32_t mix(uint32_t a, uint32_t b) {
    uint32_t x = a * 0x9E3779B1u ^ (b + 0x7F4A7C15u + (a << 6) + (a >> 2));
    x ^= x >> 16;
    x *= 0x85EBCA6Bu;
    x ^= x >> 13;
    x *= 0xC2B2AE35u;
    x ^= x >> 16;
    return x;
}

struct Checksum {
    uint64_t h = 0xCBF29CE484222325ull;
    void bytes(const void *p, size_t n) {
        const uint8_t *b = static_cast<const uint8_t *>(p);
        for (size_t i = 0; i < n; ++i) {
            h ^= b[i];
            h *= 0x100000001B3ull;
        }
    }
    void value(uint32_t v) { bytes(&v, sizeof v); }
};

size_t align_up(size_t v, size_t a) { return (v + a - 1) / a * a; }

// Bytes a transfer touches for the given pixel-store state, computed by the
// application so that the client buffer is exactly as large as the call may
// read or write: anything the layer reads beyond it, or fails to copy before
// the buffer is reused, shows up as different pixels.
size_t transfer_size(int w, int h, int d, int bpp, int row_length, int image_height, int skip_pixels,
                     int skip_rows, int skip_images, int alignment) {
    const size_t row_pixels = static_cast<size_t>(row_length > 0 ? row_length : w);
    const size_t rows = static_cast<size_t>(image_height > 0 ? image_height : h);
    const size_t stride = align_up(row_pixels * static_cast<size_t>(bpp), static_cast<size_t>(alignment));
    const size_t image_stride = stride * rows;
    return static_cast<size_t>(skip_images + d - 1) * image_stride + static_cast<size_t>(skip_rows + h - 1) * stride +
           static_cast<size_t>(skip_pixels + w) * static_cast<size_t>(bpp);
}

// A heap block that is scribbled over and freed as soon as the call that
// received it returns, which is exactly when a queuing layer must already
// own a copy.
struct ClientBlock {
    uint8_t *p = nullptr;
    size_t n = 0;
    explicit ClientBlock(size_t size) : p(static_cast<uint8_t *>(std::malloc(size ? size : 1))), n(size) {}
    ~ClientBlock() {
        if (p)
            std::memset(p, 0xDB, n);
        std::free(p);
    }
    ClientBlock(const ClientBlock &) = delete;
    ClientBlock &operator=(const ClientBlock &) = delete;
    void fill(uint32_t seed) {
        for (size_t i = 0; i < n; ++i)
            p[i] = static_cast<uint8_t>(mix(seed, static_cast<uint32_t>(i)) >> 24);
    }
    void scribble() { std::memset(p, 0x5A, n); }
};

// ---------------------------------------------------------------------------
// Shaders

const char *kVsTex = R"(#version 300 es
layout(location = 0) in vec2 a_pos;
uniform vec4 u_rect;
out vec2 v_uv;
void main() {
    v_uv = a_pos;
    gl_Position = vec4(u_rect.xy + a_pos * u_rect.zw, 0.0, 1.0);
}
)";

const char *kFsTex2D = R"(#version 300 es
precision mediump float;
in vec2 v_uv;
uniform sampler2D u_tex;
out vec4 o_color;
void main() {
    o_color = texture(u_tex, v_uv);
}
)";

const char *kFsTex3D = R"(#version 300 es
precision mediump float;
precision mediump sampler3D;
in vec2 v_uv;
uniform sampler3D u_tex;
uniform float u_r;
out vec4 o_color;
void main() {
    o_color = texture(u_tex, vec3(v_uv, u_r));
}
)";

const char *kVsColor = R"(#version 300 es
layout(location = 0) in vec2 a_pos;
layout(location = 1) in vec4 a_color;
uniform vec4 u_rect;
out vec4 v_color;
void main() {
    v_color = a_color;
    gl_Position = vec4(u_rect.xy + a_pos * u_rect.zw, 0.0, 1.0);
}
)";

const char *kFsColor = R"(#version 300 es
precision mediump float;
in vec4 v_color;
out vec4 o_color;
void main() {
    o_color = v_color;
}
)";

// ---------------------------------------------------------------------------
// Scene

// Layout: the window is a 4x4 grid of cells, one or more per group, so a
// difference in the PNG points at the group that produced it.
void cell_rect(int cx, int cy, float out[4]) {
    out[0] = -1.0f + 0.5f * static_cast<float>(cx) + 0.01f;
    out[1] = -1.0f + 0.5f * static_cast<float>(cy) + 0.01f;
    out[2] = 0.48f;
    out[3] = 0.48f;
}

struct Vtx {
    float x, y;
    uint8_t rgba[4];
};
static_assert(sizeof(Vtx) == 12, "Vtx is packed as the attribute layout expects");

// Interleaved with a field no attribute reads, so the stride is not the
// attributes' combined size.
struct ClientVtx {
    float x, y;
    float unused;
    uint8_t rgba[4];
    uint32_t tag;
};
static_assert(sizeof(ClientVtx) == 20, "ClientVtx has the stride the draws assume");

constexpr int kMapVerts = 96;
constexpr int kBufVerts = 48;
// Tracked-state group: triangles per draw, and where its element buffer
// keeps its indices (past 64 KiB, which a layer must not take for a client
// pointer).
constexpr int kTrkVerts = 12;
constexpr GLsizeiptr kTrkIndexOffset = 0x10000 + 64;
constexpr GLsizeiptr kTrkBytes = kTrkVerts * sizeof(Vtx);

struct Scene {
    GLuint prog_tex2d = 0, prog_tex3d = 0, prog_color = 0;
    GLint tex2d_rect = -1, tex2d_sampler = -1;
    GLint tex3d_rect = -1, tex3d_sampler = -1, tex3d_r = -1;
    GLint color_rect = -1;

    GLuint quad_vbo = 0, quad_vao = 0;
    GLuint tex_rgb = 0, tex_sub = 0, tex_r8 = 0, tex_3d = 0;
    GLuint unpack_pbo = 0;
    GLuint pack_pbo[2] = {0, 0};
    GLuint map_vbo = 0, map_vao = 0;
    GLuint buf_src = 0, buf_sub = 0, buf_copy = 0, buf_vao = 0;
    GLuint color_vbo = 0;
    GLuint trk_vao = 0, trk_vbo = 0, trk_ebo = 0, trk_draw_vao = 0, trk_map = 0, trk_ring = 0, trk_tf = 0;
    GLuint trk_ubo[2] = {0, 0};

    struct Named {
        GLuint name;
        bool bound;
    };
    std::deque<Named> vaos;
    std::deque<GLuint> tfos;
    bool deleted_mapped = false;
};

void bind_quad_vao(const Scene &s) { glBindVertexArray(s.quad_vao); }

void draw_tex2d(const Scene &s, GLuint tex, int cx, int cy) {
    float r[4];
    cell_rect(cx, cy, r);
    glUseProgram(s.prog_tex2d);
    glUniform4fv(s.tex2d_rect, 1, r);
    glActiveTexture(GL_TEXTURE0);
    glBindTexture(GL_TEXTURE_2D, tex);
    bind_quad_vao(s);
    glDrawArrays(GL_TRIANGLE_STRIP, 0, 4);
    glBindVertexArray(0);
}

void set_nearest(GLenum target) {
    glTexParameteri(target, GL_TEXTURE_MIN_FILTER, GL_NEAREST);
    glTexParameteri(target, GL_TEXTURE_MAG_FILTER, GL_NEAREST);
    glTexParameteri(target, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
    glTexParameteri(target, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
    if (target == GL_TEXTURE_3D)
        glTexParameteri(target, GL_TEXTURE_WRAP_R, GL_CLAMP_TO_EDGE);
}

// Small triangles spread over [0,1]^2, each a different colour.
void make_triangle(uint32_t seed, float xy[6], uint8_t rgba[4]) {
    const float cx = 0.1f + 0.8f * static_cast<float>(mix(seed, 1) & 1023) / 1023.0f;
    const float cy = 0.1f + 0.8f * static_cast<float>(mix(seed, 2) & 1023) / 1023.0f;
    const float sz = 0.05f + 0.15f * static_cast<float>(mix(seed, 3) & 255) / 255.0f;
    xy[0] = cx - sz;
    xy[1] = cy - sz;
    xy[2] = cx + sz;
    xy[3] = cy - sz * 0.5f;
    xy[4] = cx;
    xy[5] = cy + sz;
    const uint32_t c = mix(seed, 4);
    rgba[0] = static_cast<uint8_t>(c);
    rgba[1] = static_cast<uint8_t>(c >> 8);
    rgba[2] = static_cast<uint8_t>(c >> 16);
    rgba[3] = 255;
}

void fill_vtx(Vtx *v, int count, uint32_t seed) {
    for (int t = 0; t + 3 <= count; t += 3) {
        float xy[6];
        uint8_t c[4];
        make_triangle(mix(seed, static_cast<uint32_t>(t)), xy, c);
        for (int k = 0; k < 3; ++k) {
            v[t + k].x = xy[2 * k];
            v[t + k].y = xy[2 * k + 1];
            std::memcpy(v[t + k].rgba, c, 4);
        }
    }
}

void point_color_attribs(GLuint vbo, GLintptr first_byte) {
    glBindBuffer(GL_ARRAY_BUFFER, vbo);
    glVertexAttribPointer(0, 2, GL_FLOAT, GL_FALSE, sizeof(Vtx), reinterpret_cast<const void *>(first_byte));
    glVertexAttribPointer(1, 4, GL_UNSIGNED_BYTE, GL_TRUE, sizeof(Vtx),
                          reinterpret_cast<const void *>(first_byte + 8));
    glEnableVertexAttribArray(0);
    glEnableVertexAttribArray(1);
    glBindBuffer(GL_ARRAY_BUFFER, 0);
}

void use_color(const Scene &s, int cx, int cy) {
    float r[4];
    cell_rect(cx, cy, r);
    glUseProgram(s.prog_color);
    glUniform4fv(s.color_rect, 1, r);
}

bool create_scene(Scene *s) {
    s->prog_tex2d = link_program(kVsTex, kFsTex2D, "2D texture");
    s->prog_tex3d = link_program(kVsTex, kFsTex3D, "3D texture");
    s->prog_color = link_program(kVsColor, kFsColor, "colour");
    if (!s->prog_tex2d || !s->prog_tex3d || !s->prog_color)
        return false;
    s->tex2d_rect = glGetUniformLocation(s->prog_tex2d, "u_rect");
    s->tex2d_sampler = glGetUniformLocation(s->prog_tex2d, "u_tex");
    s->tex3d_rect = glGetUniformLocation(s->prog_tex3d, "u_rect");
    s->tex3d_sampler = glGetUniformLocation(s->prog_tex3d, "u_tex");
    s->tex3d_r = glGetUniformLocation(s->prog_tex3d, "u_r");
    s->color_rect = glGetUniformLocation(s->prog_color, "u_rect");
    glUseProgram(s->prog_tex2d);
    glUniform1i(s->tex2d_sampler, 0);
    glUseProgram(s->prog_tex3d);
    glUniform1i(s->tex3d_sampler, 1);
    glUseProgram(0);

    static const float quad[8] = {0, 0, 1, 0, 0, 1, 1, 1};
    glGenBuffers(1, &s->quad_vbo);
    glBindBuffer(GL_ARRAY_BUFFER, s->quad_vbo);
    glBufferData(GL_ARRAY_BUFFER, sizeof quad, quad, GL_STATIC_DRAW);
    glGenVertexArrays(1, &s->quad_vao);
    glBindVertexArray(s->quad_vao);
    glVertexAttribPointer(0, 2, GL_FLOAT, GL_FALSE, 0, nullptr);
    glEnableVertexAttribArray(0);
    glVertexAttrib4f(1, 1, 1, 1, 1);
    glBindVertexArray(0);
    glBindBuffer(GL_ARRAY_BUFFER, 0);

    GLuint tex[4];
    glGenTextures(4, tex);
    s->tex_rgb = tex[0];
    s->tex_sub = tex[1];
    s->tex_r8 = tex[2];
    s->tex_3d = tex[3];
    glPixelStorei(GL_UNPACK_ALIGNMENT, 1);
    glBindTexture(GL_TEXTURE_2D, s->tex_rgb);
    set_nearest(GL_TEXTURE_2D);
    // Sub-image targets start from defined contents so that every texel
    // that was never overwritten is still the same in both runs.
    std::vector<uint8_t> zeros(32 * 32 * 4, 0x40);
    glBindTexture(GL_TEXTURE_2D, s->tex_sub);
    set_nearest(GL_TEXTURE_2D);
    glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA8, 32, 32, 0, GL_RGBA, GL_UNSIGNED_BYTE, zeros.data());
    glBindTexture(GL_TEXTURE_2D, s->tex_r8);
    set_nearest(GL_TEXTURE_2D);
    glTexImage2D(GL_TEXTURE_2D, 0, GL_R8, 9, 5, 0, GL_RED, GL_UNSIGNED_BYTE, zeros.data());
    glBindTexture(GL_TEXTURE_2D, 0);
    glActiveTexture(GL_TEXTURE1);
    glBindTexture(GL_TEXTURE_3D, s->tex_3d);
    set_nearest(GL_TEXTURE_3D);
    glTexImage3D(GL_TEXTURE_3D, 0, GL_RGBA8, 5, 4, 3, 0, GL_RGBA, GL_UNSIGNED_BYTE, zeros.data());
    glActiveTexture(GL_TEXTURE0);
    glPixelStorei(GL_UNPACK_ALIGNMENT, 4);

    glGenBuffers(1, &s->unpack_pbo);
    glBindBuffer(GL_PIXEL_UNPACK_BUFFER, s->unpack_pbo);
    glBufferData(GL_PIXEL_UNPACK_BUFFER, 256, nullptr, GL_STREAM_DRAW);
    glBindBuffer(GL_PIXEL_UNPACK_BUFFER, 0);

    glGenBuffers(2, s->pack_pbo);
    for (GLuint b : s->pack_pbo) {
        glBindBuffer(GL_PIXEL_PACK_BUFFER, b);
        glBufferData(GL_PIXEL_PACK_BUFFER, 16 + 16 * 8 * 4, nullptr, GL_STREAM_READ);
    }
    glBindBuffer(GL_PIXEL_PACK_BUFFER, 0);

    glGenBuffers(1, &s->map_vbo);
    glBindBuffer(GL_ARRAY_BUFFER, s->map_vbo);
    glBufferData(GL_ARRAY_BUFFER, kMapVerts * sizeof(Vtx), nullptr, GL_DYNAMIC_DRAW);
    glBindBuffer(GL_ARRAY_BUFFER, 0);
    glGenVertexArrays(1, &s->map_vao);
    glBindVertexArray(s->map_vao);
    point_color_attribs(s->map_vbo, 0);
    glBindVertexArray(0);

    glGenBuffers(1, &s->buf_src);
    glGenBuffers(1, &s->buf_sub);
    glGenBuffers(1, &s->buf_copy);
    glGenVertexArrays(1, &s->buf_vao);

    // Colours for the draw that mixes a buffer attribute with a client one.
    std::vector<uint8_t> colors(128 * 4);
    for (size_t i = 0; i < colors.size(); ++i)
        colors[i] = static_cast<uint8_t>((i % 4 == 3) ? 255 : mix(99, static_cast<uint32_t>(i)) >> 24);
    glGenBuffers(1, &s->color_vbo);
    glBindBuffer(GL_ARRAY_BUFFER, s->color_vbo);
    glBufferData(GL_ARRAY_BUFFER, static_cast<GLsizeiptr>(colors.size()), colors.data(), GL_STATIC_DRAW);
    glBindBuffer(GL_ARRAY_BUFFER, 0);

    // Tracked-state group. The element buffer is bound inside trk_vao only.
    glGenVertexArrays(1, &s->trk_vao);
    glGenVertexArrays(1, &s->trk_draw_vao);
    glGenBuffers(1, &s->trk_vbo);
    glGenBuffers(1, &s->trk_ebo);
    glGenBuffers(1, &s->trk_map);
    glGenBuffers(1, &s->trk_ring);
    glGenBuffers(1, &s->trk_tf);
    glGenBuffers(2, s->trk_ubo);
    {
        std::vector<Vtx> v(kTrkVerts);
        fill_vtx(v.data(), kTrkVerts, 0x900);
        glBindBuffer(GL_ARRAY_BUFFER, s->trk_vbo);
        glBufferData(GL_ARRAY_BUFFER, kTrkBytes, v.data(), GL_STATIC_DRAW);
        std::vector<GLushort> idx(static_cast<size_t>(kTrkIndexOffset) / 2 + kTrkVerts + 8, 0);
        for (int i = 0; i < kTrkVerts + 8; ++i)
            idx[static_cast<size_t>(kTrkIndexOffset) / 2 + static_cast<size_t>(i)] = static_cast<GLushort>((i + 3) % kTrkVerts);
        glBindVertexArray(s->trk_vao);
        point_color_attribs(s->trk_vbo, 0);
        glBindBuffer(GL_ELEMENT_ARRAY_BUFFER, s->trk_ebo);
        glBufferData(GL_ELEMENT_ARRAY_BUFFER, static_cast<GLsizeiptr>(idx.size() * 2), idx.data(), GL_STATIC_DRAW);
        glBindVertexArray(0);
    }
    glBindBuffer(GL_ARRAY_BUFFER, s->trk_map);
    glBufferData(GL_ARRAY_BUFFER, kTrkBytes, nullptr, GL_DYNAMIC_DRAW);
    glBindBuffer(GL_ARRAY_BUFFER, s->trk_ring);
    glBufferData(GL_ARRAY_BUFFER, 4 * kTrkBytes, nullptr, GL_STREAM_DRAW);
    glBindBuffer(GL_ARRAY_BUFFER, 0);
    glBindBuffer(GL_TRANSFORM_FEEDBACK_BUFFER, s->trk_tf);
    glBufferData(GL_TRANSFORM_FEEDBACK_BUFFER, kTrkBytes, nullptr, GL_DYNAMIC_DRAW);
    glBindBuffer(GL_TRANSFORM_FEEDBACK_BUFFER, 0);
    // Left bound to the second uniform buffer: the frames bind by index.
    for (GLuint u : s->trk_ubo) {
        glBindBuffer(GL_UNIFORM_BUFFER, u);
        glBufferData(GL_UNIFORM_BUFFER, kTrkBytes, nullptr, GL_DYNAMIC_DRAW);
    }

    GLenum err = glGetError();
    if (err != GL_NO_ERROR) {
        std::fprintf(stderr, "kam-shadow-app: GL error 0x%04x while creating the scene\n", err);
        return false;
    }
    return true;
}

void destroy_scene(Scene *s) {
    glBindVertexArray(0);
    for (const auto &v : s->vaos)
        glDeleteVertexArrays(1, &v.name);
    for (GLuint t : s->tfos)
        glDeleteTransformFeedbacks(1, &t);
    GLuint vaos[5] = {s->quad_vao, s->map_vao, s->buf_vao, s->trk_vao, s->trk_draw_vao};
    glDeleteVertexArrays(5, vaos);
    GLuint bufs[9] = {s->quad_vbo, s->unpack_pbo, s->pack_pbo[0], s->pack_pbo[1], s->map_vbo,
                      s->buf_src,  s->buf_sub,    s->buf_copy,    s->color_vbo};
    glDeleteBuffers(9, bufs);
    GLuint trk[7] = {s->trk_vbo, s->trk_ebo, s->trk_map, s->trk_ring, s->trk_tf, s->trk_ubo[0], s->trk_ubo[1]};
    glDeleteBuffers(7, trk);
    GLuint tex[4] = {s->tex_rgb, s->tex_sub, s->tex_r8, s->tex_3d};
    glDeleteTextures(4, tex);
    glDeleteProgram(s->prog_tex2d);
    glDeleteProgram(s->prog_tex3d);
    glDeleteProgram(s->prog_color);
}

void reset_unpack() {
    glPixelStorei(GL_UNPACK_ALIGNMENT, 4);
    glPixelStorei(GL_UNPACK_ROW_LENGTH, 0);
    glPixelStorei(GL_UNPACK_SKIP_PIXELS, 0);
    glPixelStorei(GL_UNPACK_SKIP_ROWS, 0);
    glPixelStorei(GL_UNPACK_IMAGE_HEIGHT, 0);
    glPixelStorei(GL_UNPACK_SKIP_IMAGES, 0);
}

void reset_pack() {
    glPixelStorei(GL_PACK_ALIGNMENT, 4);
    glPixelStorei(GL_PACK_ROW_LENGTH, 0);
    glPixelStorei(GL_PACK_SKIP_PIXELS, 0);
    glPixelStorei(GL_PACK_SKIP_ROWS, 0);
}

void set_unpack(int alignment, int row_length, int skip_pixels, int skip_rows, int image_height,
                int skip_images) {
    glPixelStorei(GL_UNPACK_ALIGNMENT, alignment);
    glPixelStorei(GL_UNPACK_ROW_LENGTH, row_length);
    glPixelStorei(GL_UNPACK_SKIP_PIXELS, skip_pixels);
    glPixelStorei(GL_UNPACK_SKIP_ROWS, skip_rows);
    glPixelStorei(GL_UNPACK_IMAGE_HEIGHT, image_height);
    glPixelStorei(GL_UNPACK_SKIP_IMAGES, skip_images);
}

// ---------------------------------------------------------------------------
// Per-frame groups. Each depends on the frame index f only.

void frame_unpack2d(Scene &s, uint32_t f) {
    const int align = 1 << (f % 4);
    glActiveTexture(GL_TEXTURE0);

    // 13x7 RGB: three bytes a pixel, so the row padding changes with every
    // alignment value.
    {
        const int rl = 15 + static_cast<int>(f % 5), sp = static_cast<int>(f % 3),
                  sr = static_cast<int>((f / 3) % 4);
        ClientBlock b(transfer_size(13, 7, 1, 3, rl, 0, sp, sr, 0, align));
        b.fill(mix(f, 0x100));
        set_unpack(align, rl, sp, sr, 0, 0);
        glBindTexture(GL_TEXTURE_2D, s.tex_rgb);
        glTexImage2D(GL_TEXTURE_2D, 0, GL_RGB8, 13, 7, 0, GL_RGB, GL_UNSIGNED_BYTE, b.p);
        b.scribble();
    }
    // 11x9 RGBA into a persistent 32x32 texture at a moving offset; the
    // texture accumulates every frame's upload.
    {
        const int sp = static_cast<int>((f / 2) % 4), sr = static_cast<int>(f % 3);
        const int rl = 11 + sp + static_cast<int>(f % 7);
        ClientBlock b(transfer_size(11, 9, 1, 4, rl, 0, sp, sr, 0, align));
        b.fill(mix(f, 0x200));
        set_unpack(align, rl, sp, sr, 0, 0);
        glBindTexture(GL_TEXTURE_2D, s.tex_sub);
        glTexSubImage2D(GL_TEXTURE_2D, 0, static_cast<GLint>((f * 5) % 22), static_cast<GLint>((f * 3) % 24), 11, 9,
                        GL_RGBA, GL_UNSIGNED_BYTE, b.p);
        b.scribble();
    }
    // 9x5 single-channel with tightly described rows: only the alignment
    // decides the row stride.
    {
        ClientBlock b(transfer_size(9, 5, 1, 1, 0, 0, 0, 0, 0, align));
        b.fill(mix(f, 0x300));
        set_unpack(align, 0, 0, 0, 0, 0);
        glBindTexture(GL_TEXTURE_2D, s.tex_r8);
        glTexImage2D(GL_TEXTURE_2D, 0, GL_R8, 9, 5, 0, GL_RED, GL_UNSIGNED_BYTE, b.p);
        b.scribble();

        const int a2 = 1 << ((f + 1) % 4);
        ClientBlock c(transfer_size(3, 3, 1, 1, 5, 0, 1, 1, 0, a2));
        c.fill(mix(f, 0x301));
        set_unpack(a2, 5, 1, 1, 0, 0);
        glTexSubImage2D(GL_TEXTURE_2D, 0, static_cast<GLint>(f % 7), static_cast<GLint>(f % 3), 3, 3, GL_RED,
                        GL_UNSIGNED_BYTE, c.p);
        c.scribble();
    }
    reset_unpack();
    glBindTexture(GL_TEXTURE_2D, 0);

    draw_tex2d(s, s.tex_rgb, 0, 0);
    draw_tex2d(s, s.tex_sub, 1, 0);
    draw_tex2d(s, s.tex_r8, 2, 0);
}

void frame_unpack_pbo(Scene &s, uint32_t f) {
    // With an unpack buffer bound the pointer argument is an offset into it,
    // and the same pixel-store state applies; there is no client memory to
    // copy.
    uint8_t data[256];
    for (int i = 0; i < 256; ++i)
        data[i] = static_cast<uint8_t>(mix(f, 0x400 + static_cast<uint32_t>(i)) >> 24);
    glBindBuffer(GL_PIXEL_UNPACK_BUFFER, s.unpack_pbo);
    glBufferSubData(GL_PIXEL_UNPACK_BUFFER, 0, sizeof data, data);
    std::memset(data, 0x77, sizeof data);
    set_unpack(1, 7, 2, 1, 0, 0);
    glActiveTexture(GL_TEXTURE0);
    glBindTexture(GL_TEXTURE_2D, s.tex_sub);
    glTexSubImage2D(GL_TEXTURE_2D, 0, static_cast<GLint>((f * 7) % 28), static_cast<GLint>((f * 11) % 29), 4, 3,
                    GL_RGBA, GL_UNSIGNED_BYTE, reinterpret_cast<const void *>(static_cast<uintptr_t>(5 + f % 9)));
    glBindTexture(GL_TEXTURE_2D, 0);
    glBindBuffer(GL_PIXEL_UNPACK_BUFFER, 0);
    reset_unpack();
    draw_tex2d(s, s.tex_sub, 3, 0);
}

void frame_tex3d(Scene &s, uint32_t f) {
    const int align = 1 << ((f + 2) % 4);
    glActiveTexture(GL_TEXTURE1);
    glBindTexture(GL_TEXTURE_3D, s.tex_3d);
    {
        const int rl = 7, ih = 6, sp = 1, sr = static_cast<int>(f % 2), si = 1 + static_cast<int>(f % 2);
        ClientBlock b(transfer_size(5, 4, 3, 4, rl, ih, sp, sr, si, align));
        b.fill(mix(f, 0x500));
        set_unpack(align, rl, sp, sr, ih, si);
        glTexImage3D(GL_TEXTURE_3D, 0, GL_RGBA8, 5, 4, 3, 0, GL_RGBA, GL_UNSIGNED_BYTE, b.p);
        b.scribble();
    }
    {
        const int rl = 4, ih = 3, sp = 1, sr = 0, si = static_cast<int>(f % 3);
        ClientBlock b(transfer_size(3, 2, 2, 4, rl, ih, sp, sr, si, 8));
        b.fill(mix(f, 0x501));
        set_unpack(8, rl, sp, sr, ih, si);
        glTexSubImage3D(GL_TEXTURE_3D, 0, 1, static_cast<GLint>(f % 3), static_cast<GLint>(f % 2), 3, 2, 2, GL_RGBA,
                        GL_UNSIGNED_BYTE, b.p);
        b.scribble();
    }
    reset_unpack();
    glActiveTexture(GL_TEXTURE0);

    glUseProgram(s.prog_tex3d);
    bind_quad_vao(s);
    for (int slice = 0; slice < 3; ++slice) {
        float r[4];
        cell_rect(slice, 1, r);
        glUniform4fv(s.tex3d_rect, 1, r);
        glUniform1f(s.tex3d_r, (static_cast<float>(slice) + 0.5f) / 3.0f);
        glDrawArrays(GL_TRIANGLE_STRIP, 0, 4);
    }
    glBindVertexArray(0);
}

void frame_map_write(Scene &s, uint32_t f, Checksum &sum) {
    const int half = kMapVerts / 2;
    glBindBuffer(GL_ARRAY_BUFFER, s.map_vbo);
    // Odd frames orphan the whole store, even frames only the range written.
    const GLbitfield inval = (f % 2) ? GL_MAP_INVALIDATE_BUFFER_BIT : GL_MAP_INVALIDATE_RANGE_BIT;
    void *p = glMapBufferRange(GL_ARRAY_BUFFER, 0, half * sizeof(Vtx), GL_MAP_WRITE_BIT | inval);
    if (p)
        fill_vtx(static_cast<Vtx *>(p), half, mix(f, 0x600));
    sum.value(p ? 1u : 0u);
    sum.value(glUnmapBuffer(GL_ARRAY_BUFFER));

    // Everything in the range is written but only two pieces are flushed;
    // only those are drawn, since the rest is undefined after unmapping.
    p = glMapBufferRange(GL_ARRAY_BUFFER, half * sizeof(Vtx), half * sizeof(Vtx),
                         GL_MAP_WRITE_BIT | GL_MAP_FLUSH_EXPLICIT_BIT);
    if (p) {
        fill_vtx(static_cast<Vtx *>(p), half, mix(f, 0x601));
        glFlushMappedBufferRange(GL_ARRAY_BUFFER, 0, 12 * sizeof(Vtx));
        glFlushMappedBufferRange(GL_ARRAY_BUFFER, 24 * sizeof(Vtx), 12 * sizeof(Vtx));
    }
    sum.value(p ? 1u : 0u);
    sum.value(glUnmapBuffer(GL_ARRAY_BUFFER));
    glBindBuffer(GL_ARRAY_BUFFER, 0);

    glBindVertexArray(s.map_vao);
    use_color(s, 3, 1);
    glDrawArrays(GL_TRIANGLES, 0, half);
    use_color(s, 0, 2);
    glDrawArrays(GL_TRIANGLES, half, 12);
    glDrawArrays(GL_TRIANGLES, half + 24, 12);
    glBindVertexArray(0);
}

void frame_objects(Scene &s, uint32_t f, Checksum &sum) {
    // Generated names become objects only when first bound, so the answers
    // differ between the two names of a pair. Both lists are kept short so
    // that a frame costs the same at the end of a long run as at the start.
    if (f % 3 == 0) {
        GLuint n[2];
        glGenVertexArrays(2, n);
        glBindVertexArray(n[0]);
        glBindBuffer(GL_ARRAY_BUFFER, s.quad_vbo);
        glVertexAttribPointer(0, 2, GL_FLOAT, GL_FALSE, 0, nullptr);
        glEnableVertexAttribArray(0);
        glBindBuffer(GL_ARRAY_BUFFER, 0);
        glBindVertexArray(0);
        s.vaos.push_back({n[0], true});
        s.vaos.push_back({n[1], false});
    }
    if ((f % 5 == 0 && s.vaos.size() > 4) || s.vaos.size() > 12) {
        GLuint n[2] = {s.vaos[0].name, s.vaos[1].name};
        s.vaos.pop_front();
        s.vaos.pop_front();
        glDeleteVertexArrays(2, n);
        sum.value(glIsVertexArray(n[0]));
        sum.value(glIsVertexArray(n[1]));
    }
    // Deleting the bound vertex array falls back to the default one.
    if (f % 11 == 10 && !s.vaos.empty()) {
        GLuint n = s.vaos.back().name;
        s.vaos.pop_back();
        glBindVertexArray(n);
        glDeleteVertexArrays(1, &n);
        GLint binding = -1;
        glGetIntegerv(GL_VERTEX_ARRAY_BINDING, &binding);
        sum.value(static_cast<uint32_t>(binding));
        sum.value(glIsVertexArray(n));
    }
    for (const auto &v : s.vaos)
        sum.value(glIsVertexArray(v.name) == (v.bound ? GL_TRUE : GL_FALSE) ? 0xA1u : 0xA0u);

    for (const auto &v : s.vaos) {
        if (!v.bound)
            continue;
        glBindVertexArray(v.name);
        // Colour from the frame, not the name: a layer that generates names
        // ahead of time hands out other (equally valid) numbers.
        glVertexAttrib4f(1, static_cast<float>(f % 7) / 6.0f, 0.5f, static_cast<float>(f % 5) / 4.0f, 1.0f);
        float r[4];
        cell_rect(1, 2, r);
        r[0] += 0.06f * static_cast<float>(f % 5);
        r[2] = 0.2f;
        r[3] = 0.2f;
        glUseProgram(s.prog_color);
        glUniform4fv(s.color_rect, 1, r);
        glDrawArrays(GL_TRIANGLE_STRIP, 0, 4);
        glBindVertexArray(0);
        break;
    }

    if (f % 4 == 0) {
        GLuint t = 0;
        glGenTransformFeedbacks(1, &t);
        sum.value(glIsTransformFeedback(t));
        glBindTransformFeedback(GL_TRANSFORM_FEEDBACK, t);
        glBindTransformFeedback(GL_TRANSFORM_FEEDBACK, 0);
        sum.value(glIsTransformFeedback(t));
        s.tfos.push_back(t);
    }
    if ((f % 6 == 5 && s.tfos.size() > 2) || s.tfos.size() > 6) {
        GLuint t = s.tfos.front();
        s.tfos.pop_front();
        glDeleteTransformFeedbacks(1, &t);
        sum.value(glIsTransformFeedback(t));
    }
}

void frame_client_arrays(Scene &s, uint32_t f) {
    constexpr int kVerts = 96;
    static ClientBlock vb(kVerts * sizeof(ClientVtx));
    ClientVtx *v = reinterpret_cast<ClientVtx *>(vb.p);
    for (int t = 0; t < kVerts; t += 3) {
        float xy[6];
        uint8_t c[4];
        make_triangle(mix(f, 0x700 + static_cast<uint32_t>(t)), xy, c);
        for (int k = 0; k < 3; ++k) {
            v[t + k].x = xy[2 * k];
            v[t + k].y = xy[2 * k + 1];
            v[t + k].unused = -1.0f;
            std::memcpy(v[t + k].rgba, c, 4);
            v[t + k].tag = 0xDEADBEEFu;
        }
    }
    // Wrecks the vertices a finished draw used, so only a copy taken when
    // the draw was made can still produce the right pixels.
    auto wreck = [&](int first, int count) {
        for (int i = first; i < first + count; ++i) {
            v[i].x = 1.0e6f;
            v[i].y = -1.0e6f;
            std::memset(v[i].rgba, 0, 4);
        }
    };

    glBindVertexArray(0);
    glBindBuffer(GL_ARRAY_BUFFER, 0);
    glVertexAttribPointer(0, 2, GL_FLOAT, GL_FALSE, sizeof(ClientVtx), &v[0].x);
    glVertexAttribPointer(1, 4, GL_UNSIGNED_BYTE, GL_TRUE, sizeof(ClientVtx), v[0].rgba);
    glEnableVertexAttribArray(0);
    glEnableVertexAttribArray(1);
    use_color(s, 2, 2);

    // 16-bit client indices over vertices 3..20, not starting at zero.
    {
        GLushort idx[18];
        for (int i = 0; i < 18; ++i)
            idx[i] = static_cast<GLushort>(3 + (i / 3) * 3 + (2 - i % 3));
        glDrawElements(GL_TRIANGLES, 18, GL_UNSIGNED_SHORT, idx);
        std::memset(idx, 0xFF, sizeof idx);
        wreck(3, 18);
    }
    use_color(s, 3, 2);
    // 32-bit client indices over 24..44, in reverse triangle order.
    {
        std::vector<GLuint> idx(21);
        for (int i = 0; i < 21; ++i)
            idx[static_cast<size_t>(i)] = static_cast<GLuint>(24 + (6 - i / 3) * 3 + i % 3);
        glDrawElements(GL_TRIANGLES, 21, GL_UNSIGNED_INT, idx.data());
        std::fill(idx.begin(), idx.end(), 0xFFFFFFF0u);
        wreck(24, 21);
    }
    use_color(s, 0, 3);
    // Declared range 48..65 with indices inside it.
    {
        GLushort idx[18];
        for (int i = 0; i < 18; ++i)
            idx[i] = static_cast<GLushort>(48 + i);
        glDrawRangeElements(GL_TRIANGLES, 48, 65, 18, GL_UNSIGNED_SHORT, idx);
        std::memset(idx, 0xEE, sizeof idx);
        wreck(48, 18);
    }
    // Plain arrays draw with a non-zero first vertex, after the indexed
    // draws, from the same strided arrays; wrecked as soon as it returns.
    glDrawArrays(GL_TRIANGLES, 66, 12);
    wreck(66, 12);

    use_color(s, 1, 3);
    // Positions from client memory, colours from a buffer.
    {
        glBindBuffer(GL_ARRAY_BUFFER, s.color_vbo);
        glVertexAttribPointer(1, 4, GL_UNSIGNED_BYTE, GL_TRUE, 0, reinterpret_cast<const void *>(4 * (f % 8)));
        glBindBuffer(GL_ARRAY_BUFFER, 0);
        GLushort idx[6] = {78, 79, 80, 81, 82, 83};
        glDrawElements(GL_TRIANGLES, 6, GL_UNSIGNED_SHORT, idx);
        wreck(78, 6);
    }
    // A constant colour with the array disabled.
    {
        glDisableVertexAttribArray(1);
        glVertexAttrib4f(1, 0.25f, static_cast<float>(f % 4) / 3.0f, 0.75f, 1.0f);
        glVertexAttribPointer(0, 2, GL_FLOAT, GL_FALSE, sizeof(ClientVtx), &v[0].x);
        glDrawArrays(GL_TRIANGLES, 84, 12);
        wreck(84, 12);
    }
    glDisableVertexAttribArray(0);
    glDisableVertexAttribArray(1);
    glVertexAttrib4f(1, 1, 1, 1, 1);
}

// A small framebuffer of its own for the scenarios below, read back into the
// checksum after each of them.
void bind_small_target() {
    static GLuint fbo = 0;
    if (fbo == 0) {
        GLuint rb = 0;
        glGenRenderbuffers(1, &rb);
        glBindRenderbuffer(GL_RENDERBUFFER, rb);
        glRenderbufferStorage(GL_RENDERBUFFER, GL_RGBA8, 12, 12);
        glGenFramebuffers(1, &fbo);
        glBindFramebuffer(GL_FRAMEBUFFER, fbo);
        glFramebufferRenderbuffer(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_RENDERBUFFER, rb);
    }
    glBindFramebuffer(GL_FRAMEBUFFER, fbo);
    glViewport(0, 0, 12, 12);
    glClearColor(0.0f, 0.0f, 0.0f, 1.0f);
    glClear(GL_COLOR_BUFFER_BIT);
}

void read_small_target(Checksum &sum) {
    uint8_t px[12 * 12 * 4];
    glReadPixels(0, 0, 12, 12, GL_RGBA, GL_UNSIGNED_BYTE, px);
    sum.bytes(px, sizeof px);
    glBindFramebuffer(GL_FRAMEBUFFER, 0);
    glViewport(0, 0, kWidth, kHeight);
}

const char *kVsArray = R"(#version 310 es
layout(location = 0) in vec2 a_pos;
void main() {
    gl_Position = vec4(a_pos * 2.0 - 1.0, 0.0, 1.0);
}
)";

// Each column takes one entry of a uniform array.
const char *kFsArray = R"(#version 310 es
precision mediump float;
uniform vec4 u_c[3];
out vec4 o_color;
void main() {
    o_color = u_c[int(gl_FragCoord.x) % 3];
}
)";

GLuint compile_shader(GLenum type, const char *src) {
    GLuint sh = glCreateShader(type);
    glShaderSource(sh, 1, &src, nullptr);
    glCompileShader(sh);
    return sh;
}

// Program objects made on the application thread: a link parameter set and
// a shader detached around the link, validation, enables, the existence of
// objects after their first bind and after their deletion, each queried at
// once; and a uniform array set with glProgramUniform4fv from an array that
// is overwritten as soon as the call returns.
void frame_programs(const Scene &s, uint32_t f, Checksum &sum) {
    static GLuint array_prog = 0;
    static GLint array_loc = -1;
    if (f % 25 == 0) {
        const GLuint vs = compile_shader(GL_VERTEX_SHADER, kVsArray);
        const GLuint fs = compile_shader(GL_FRAGMENT_SHADER, kFsArray);
        const GLuint p = glCreateProgram();
        glAttachShader(p, vs);
        glAttachShader(p, fs);
        glProgramParameteri(p, GL_PROGRAM_BINARY_RETRIEVABLE_HINT, GL_TRUE);
        glLinkProgram(p);
        glDetachShader(p, vs);
        GLint v[10] = {};
        glGetProgramiv(p, GL_LINK_STATUS, &v[0]);
        glGetProgramiv(p, GL_PROGRAM_BINARY_RETRIEVABLE_HINT, &v[1]);
        glGetProgramiv(p, GL_ATTACHED_SHADERS, &v[2]);
        glValidateProgram(p);
        glGetProgramiv(p, GL_VALIDATE_STATUS, &v[3]);
        glEnable(GL_SCISSOR_TEST);
        v[4] = glIsEnabled(GL_SCISSOR_TEST);
        glDisable(GL_SCISSOR_TEST);
        v[5] = glIsEnabled(GL_SCISSOR_TEST);
        GLuint t = 0;
        glGenTextures(1, &t);
        glBindTexture(GL_TEXTURE_2D, t);
        v[6] = glIsTexture(t);
        glBindTexture(GL_TEXTURE_2D, 0);
        glDeleteTextures(1, &t);
        v[7] = glIsTexture(t);
        glDeleteShader(vs);
        glDeleteShader(fs);
        if (array_prog != 0) {
            glDeleteProgram(array_prog);
            v[8] = glIsProgram(array_prog);
        }
        array_prog = p;
        array_loc = glGetUniformLocation(p, "u_c");
        v[9] = array_loc;
        sum.bytes(v, sizeof v);
    }
    float c[12];
    for (int i = 0; i < 12; ++i)
        c[i] = static_cast<float>(mix(f, 0x900 + static_cast<uint32_t>(i)) >> 24) / 255.0f;
    glProgramUniform4fv(array_prog, array_loc, 3, c);
    std::fill(c, c + 12, 0.5f);
    bind_small_target();
    glUseProgram(array_prog);
    bind_quad_vao(s);
    glDrawArrays(GL_TRIANGLE_STRIP, 0, 4);
    glBindVertexArray(0);
    glUseProgram(0);
    read_small_target(sum);
}

// Client arrays in layouts a layer has to size itself, rewritten as soon as
// each draw returns: GL_FIXED positions with a stride drawn by glDrawArrays
// and glDrawElements, and 16-bit indices with the fixed restart index.
void frame_client_draws(const Scene &s, uint32_t f, Checksum &sum) {
    struct FixedVtx {
        GLfixed x, y;
        uint32_t pad;
    };
    constexpr int kVerts = 8;
    ClientBlock vb(kVerts * sizeof(FixedVtx));
    FixedVtx *v = reinterpret_cast<FixedVtx *>(vb.p);
    for (int i = 0; i < kVerts; ++i) {
        const uint32_t r = mix(f, 0xA00 + static_cast<uint32_t>(i));
        v[i].x = static_cast<GLfixed>((r & 0xFFFF) - 0x8000) * 2;  // -1 .. 1 in 16.16
        v[i].y = static_cast<GLfixed>((r >> 16) - 0x8000) * 2;
        v[i].pad = 0xDEADBEEFu;
    }
    bind_small_target();
    glBindVertexArray(0);
    glBindBuffer(GL_ARRAY_BUFFER, 0);
    float full[4] = {-1.0f, -1.0f, 1.0f, 1.0f};
    glUseProgram(s.prog_color);
    glUniform4fv(s.color_rect, 1, full);
    glVertexAttrib4f(1, static_cast<float>(f % 7) / 6.0f, 0.5f, 1.0f, 1.0f);
    glVertexAttribPointer(0, 2, GL_FIXED, GL_FALSE, sizeof(FixedVtx), &v[0].x);
    glEnableVertexAttribArray(0);
    glDrawArrays(GL_TRIANGLES, 1, 3);
    std::memset(vb.p, 0x11, vb.n);
    read_small_target(sum);

    for (int i = 0; i < kVerts; ++i) {
        const uint32_t r = mix(f, 0xB00 + static_cast<uint32_t>(i));
        v[i].x = static_cast<GLfixed>((r & 0xFFFF) - 0x8000) * 2;
        v[i].y = static_cast<GLfixed>((r >> 16) - 0x8000) * 2;
    }
    bind_small_target();
    glEnable(GL_PRIMITIVE_RESTART_FIXED_INDEX);
    GLushort idx[7] = {0, 1, 2, 0xFFFF, 3, 4, 5};
    glUseProgram(s.prog_color);
    glDrawElements(GL_TRIANGLE_STRIP, 7, GL_UNSIGNED_SHORT, idx);
    std::memset(vb.p, 0x22, vb.n);
    std::memset(idx, 0x33, sizeof idx);
    glDisable(GL_PRIMITIVE_RESTART_FIXED_INDEX);
    glDisableVertexAttribArray(0);
    glVertexAttrib4f(1, 1, 1, 1, 1);
    glUseProgram(0);
    read_small_target(sum);
}

void frame_buffers(Scene &s, uint32_t f, Checksum &sum) {
    const GLsizeiptr bytes = kBufVerts * sizeof(Vtx);
    {
        ClientBlock b(static_cast<size_t>(bytes));
        fill_vtx(reinterpret_cast<Vtx *>(b.p), kBufVerts, mix(f, 0x800));
        glBindBuffer(GL_ARRAY_BUFFER, s.buf_src);
        glBufferData(GL_ARRAY_BUFFER, bytes, b.p, GL_STREAM_DRAW);
        b.scribble();
    }
    glBindBuffer(GL_ARRAY_BUFFER, s.buf_sub);
    glBufferData(GL_ARRAY_BUFFER, bytes, nullptr, GL_DYNAMIC_DRAW);
    for (int part = 0; part < 2; ++part) {
        ClientBlock b(static_cast<size_t>(bytes / 2));
        fill_vtx(reinterpret_cast<Vtx *>(b.p), kBufVerts / 2, mix(f, 0x810 + static_cast<uint32_t>(part)));
        glBufferSubData(GL_ARRAY_BUFFER, part * (bytes / 2), bytes / 2, b.p);
        b.scribble();
    }
    glBindBuffer(GL_ARRAY_BUFFER, 0);

    // The copy target is deleted and made again now and then, so its name
    // may come back recycled.
    if (f % 7 == 0) {
        // No glIsBuffer right after the delete: a layer may answer it on the
        // calling thread before its worker has replayed the deletion.
        glDeleteBuffers(1, &s.buf_copy);
        glGenBuffers(1, &s.buf_copy);
        glBindBuffer(GL_COPY_WRITE_BUFFER, s.buf_copy);
        glBufferData(GL_COPY_WRITE_BUFFER, bytes, nullptr, GL_DYNAMIC_COPY);
        glBindBuffer(GL_COPY_WRITE_BUFFER, 0);
    }
    glBindBuffer(GL_COPY_READ_BUFFER, s.buf_src);
    glBindBuffer(GL_COPY_WRITE_BUFFER, s.buf_copy);
    glCopyBufferSubData(GL_COPY_READ_BUFFER, GL_COPY_WRITE_BUFFER, 0, bytes / 2, bytes / 2);
    glBindBuffer(GL_COPY_READ_BUFFER, s.buf_sub);
    glCopyBufferSubData(GL_COPY_READ_BUFFER, GL_COPY_WRITE_BUFFER, bytes / 2, 0, bytes / 2);
    glBindBuffer(GL_COPY_READ_BUFFER, 0);
    glBindBuffer(GL_COPY_WRITE_BUFFER, 0);

    // Deleting a mapped buffer unmaps it; the binding falls back to zero.
    if (!s.deleted_mapped && f == 50) {
        GLuint d = 0;
        glGenBuffers(1, &d);
        glBindBuffer(GL_ARRAY_BUFFER, d);
        glBufferData(GL_ARRAY_BUFFER, 4096, nullptr, GL_DYNAMIC_DRAW);
        void *p = glMapBufferRange(GL_ARRAY_BUFFER, 0, 4096, GL_MAP_WRITE_BIT | GL_MAP_INVALIDATE_BUFFER_BIT);
        if (p)
            std::memset(p, 0x3C, 4096);
        sum.value(p ? 1u : 0u);
        glDeleteBuffers(1, &d);
        GLint binding = -1;
        glGetIntegerv(GL_ARRAY_BUFFER_BINDING, &binding);
        sum.value(static_cast<uint32_t>(binding));
        s.deleted_mapped = true;
    }

    glBindVertexArray(s.buf_vao);
    point_color_attribs(s.buf_src, 0);
    use_color(s, 2, 3);
    glDrawArrays(GL_TRIANGLES, 0, kBufVerts);
    point_color_attribs(s.buf_sub, 0);
    use_color(s, 3, 3);
    glDrawArrays(GL_TRIANGLES, 0, kBufVerts);
    point_color_attribs(s.buf_copy, 0);
    use_color(s, 3, 3);
    glDrawArrays(GL_TRIANGLES, 0, kBufVerts);
    glBindVertexArray(0);
}

// Buffer state that outlives single calls: the element buffer of each vertex
// array, several mappings of one or more buffers in a frame (each drawn from
// before the next), indexed bindings, and a range past a buffer's end.
void frame_tracked(Scene &s, uint32_t f, Checksum &sum) {
    int strip = 0;
    auto next_rect = [&] {
        const float r[4] = {-1.0f + 0.18f * static_cast<float>(strip++), 0.86f, 0.17f, 0.13f};
        glUniform4fv(s.color_rect, 1, r);
    };
    glUseProgram(s.prog_color);

    // The default vertex array drops its element buffer (a common clean-up);
    // trk_vao keeps its own and draws from it at an offset past 64 KiB.
    glBindVertexArray(0);
    glBindBuffer(GL_ELEMENT_ARRAY_BUFFER, 0);
    glBindVertexArray(s.trk_vao);
    next_rect();
    glDrawElements(GL_TRIANGLES, kTrkVerts, GL_UNSIGNED_SHORT,
                   reinterpret_cast<const void *>(kTrkIndexOffset + 2 * static_cast<GLsizeiptr>(f % 8)));
    // The reverse: trk_vao's element buffer is bound there, and the default
    // vertex array draws from client indices, scribbled over at once.
    glBindBuffer(GL_ELEMENT_ARRAY_BUFFER, s.trk_ebo);
    glBindVertexArray(0);
    point_color_attribs(s.trk_vbo, 0);
    {
        GLushort idx[kTrkVerts];
        for (int i = 0; i < kTrkVerts; ++i)
            idx[i] = static_cast<GLushort>((i + static_cast<int>(f % 3) * 3) % kTrkVerts);
        next_rect();
        glDrawElements(GL_TRIANGLES, kTrkVerts, GL_UNSIGNED_SHORT, idx);
        std::memset(idx, 0xFF, sizeof idx);
    }
    glDisableVertexAttribArray(0);
    glDisableVertexAttribArray(1);

    // Maps and draws: each draw must see its own mapping's data.
    glBindVertexArray(s.trk_draw_vao);
    auto fill_and_draw = [&](GLenum target, GLintptr offset, GLbitfield access, uint32_t seed, GLuint drawn) {
        void *p = glMapBufferRange(target, offset, kTrkBytes, GL_MAP_WRITE_BIT | access);
        sum.value(p ? 1u : 0u);
        if (p)
            fill_vtx(static_cast<Vtx *>(p), kTrkVerts, mix(f, seed));
        sum.value(glUnmapBuffer(target));
        point_color_attribs(drawn, offset);
        next_rect();
        glDrawArrays(GL_TRIANGLES, 0, kTrkVerts);
    };
    // One buffer twice, the second time orphaning it.
    glBindBuffer(GL_ARRAY_BUFFER, s.trk_map);
    fill_and_draw(GL_ARRAY_BUFFER, 0, 0, 0x910, s.trk_map);
    glBindBuffer(GL_ARRAY_BUFFER, s.trk_map);
    fill_and_draw(GL_ARRAY_BUFFER, 0, GL_MAP_INVALIDATE_BUFFER_BIT, 0x911, s.trk_map);
    // Two buffers bound by index, mapped through the generic binding that
    // the indexed one sets; and a range binding of the feedback target.
    for (int k = 0; k < 2; ++k) {
        glBindBufferBase(GL_UNIFORM_BUFFER, static_cast<GLuint>(k), s.trk_ubo[k]);
        fill_and_draw(GL_UNIFORM_BUFFER, 0, 0, 0x920 + static_cast<uint32_t>(k), s.trk_ubo[k]);
    }
    glBindBufferRange(GL_TRANSFORM_FEEDBACK_BUFFER, 0, s.trk_tf, 0, kTrkBytes);
    fill_and_draw(GL_TRANSFORM_FEEDBACK_BUFFER, 0, GL_MAP_INVALIDATE_RANGE_BIT, 0x930, s.trk_tf);
    glBindBufferBase(GL_TRANSFORM_FEEDBACK_BUFFER, 0, 0);
    // A streaming ring: orphaned at its start, then unsynchronized maps at
    // successive offsets.
    for (int k = 0; k < 4; ++k) {
        glBindBuffer(GL_ARRAY_BUFFER, s.trk_ring);
        const GLbitfield access = k == 0 ? GL_MAP_INVALIDATE_BUFFER_BIT
                                         : GL_MAP_UNSYNCHRONIZED_BIT | GL_MAP_INVALIDATE_RANGE_BIT;
        fill_and_draw(GL_ARRAY_BUFFER, k * kTrkBytes, access, 0x940 + static_cast<uint32_t>(k), s.trk_ring);
    }
    glBindVertexArray(0);

    // Past the end: the driver's answer, error included.
    glBindBuffer(GL_ARRAY_BUFFER, s.trk_map);
    void *p = glMapBufferRange(GL_ARRAY_BUFFER, 0, kTrkBytes + 1, GL_MAP_WRITE_BIT);
    sum.value(p ? 1u : 0u);
    sum.value(glGetError());
    if (p)
        glUnmapBuffer(GL_ARRAY_BUFFER);
    glBindBuffer(GL_ARRAY_BUFFER, 0);
}

void frame_read_client(uint32_t f, Checksum &sum) {
    const int align = 1 << (f % 4);
    const int rl = 9 + static_cast<int>(f % 3), sp = static_cast<int>(f % 2), sr = static_cast<int>(f % 3);
    const size_t n = transfer_size(7, 5, 1, 4, rl, 0, sp, sr, 0, align);
    // Filled first so that bytes the read must leave alone (row padding,
    // skipped pixels) are checked as well.
    std::vector<uint8_t> buf(n, 0xA5);
    glPixelStorei(GL_PACK_ALIGNMENT, align);
    glPixelStorei(GL_PACK_ROW_LENGTH, rl);
    glPixelStorei(GL_PACK_SKIP_PIXELS, sp);
    glPixelStorei(GL_PACK_SKIP_ROWS, sr);
    glReadPixels(static_cast<GLint>((f * 37) % 249), static_cast<GLint>((f * 53) % 251), 7, 5, GL_RGBA,
                 GL_UNSIGNED_BYTE, buf.data());
    reset_pack();
    sum.bytes(buf.data(), buf.size());
}

// Waits until the GL commands issued so far have executed, the way an EGL
// application makes a pixel buffer written by the GL safe to read: a layer
// may execute them on another thread, and a read mapping of a pack buffer
// may be served on this one.
void wait_for_gl() {
    static auto create = reinterpret_cast<PFNEGLCREATESYNCKHRPROC>(eglGetProcAddress("eglCreateSyncKHR"));
    static auto wait = reinterpret_cast<PFNEGLCLIENTWAITSYNCKHRPROC>(eglGetProcAddress("eglClientWaitSyncKHR"));
    static auto destroy = reinterpret_cast<PFNEGLDESTROYSYNCKHRPROC>(eglGetProcAddress("eglDestroySyncKHR"));
    if (!create || !wait || !destroy) {
        glFinish();
        return;
    }
    EGLDisplay dpy = eglGetCurrentDisplay();
    EGLSyncKHR fence = create(dpy, EGL_SYNC_FENCE_KHR, nullptr);
    if (fence == EGL_NO_SYNC_KHR) {
        glFinish();
        return;
    }
    wait(dpy, fence, EGL_SYNC_FLUSH_COMMANDS_BIT_KHR, EGL_FOREVER_KHR);
    destroy(dpy, fence);
}

void map_pack(const Scene &s, int which, Checksum &sum) {
    wait_for_gl();
    glBindBuffer(GL_PIXEL_PACK_BUFFER, s.pack_pbo[which]);
    const void *p = glMapBufferRange(GL_PIXEL_PACK_BUFFER, 16, 16 * 8 * 4, GL_MAP_READ_BIT);
    sum.value(p ? 1u : 0u);
    if (p)
        sum.bytes(p, 16 * 8 * 4);
    sum.value(glUnmapBuffer(GL_PIXEL_PACK_BUFFER));
    glBindBuffer(GL_PIXEL_PACK_BUFFER, 0);
}

// Reads this frame into one buffer and maps the one filled the frame before,
// the usual way to read back without waiting.
void frame_read_pbo(const Scene &s, uint32_t f, bool last, Checksum &sum) {
    const int cur = static_cast<int>(f % 2);
    glBindBuffer(GL_PIXEL_PACK_BUFFER, s.pack_pbo[cur]);
    glReadPixels(static_cast<GLint>((f * 29) % 240), static_cast<GLint>((f * 17) % 248), 16, 8, GL_RGBA,
                 GL_UNSIGNED_BYTE, reinterpret_cast<void *>(static_cast<uintptr_t>(16)));
    glBindBuffer(GL_PIXEL_PACK_BUFFER, 0);
    if (f > 0)
        map_pack(s, 1 - cur, sum);
    if (last)
        map_pack(s, cur, sum);
}

}  // namespace

int main(int argc, char **argv) {
    Options opt;
    const int parsed = parse_args(argc, argv, &opt);
    if (parsed > 0)
        return 0;
    if (parsed < 0)
        return 2;

    Platform plat;
    if (!setup_platform(&plat, {"kam-shadow-app", kWidth, kHeight, false})) {
        teardown_platform(&plat);
        return 1;
    }
    EGLint surf_w = 0, surf_h = 0;
    eglQuerySurface(plat.dpy, plat.surf, EGL_WIDTH, &surf_w);
    eglQuerySurface(plat.dpy, plat.surf, EGL_HEIGHT, &surf_h);
    if (surf_w != kWidth || surf_h != kHeight) {
        std::fprintf(stderr, "kam-shadow-app: window surface is %dx%d, expected %dx%d\n", surf_w, surf_h, kWidth,
                     kHeight);
        teardown_platform(&plat);
        return 1;
    }

    Scene scene;
    if (!create_scene(&scene)) {
        destroy_scene(&scene);
        teardown_platform(&plat);
        return 1;
    }

    Checksum sum;
    std::vector<uint8_t> pixels;
    bool ok = true;
    const char *error_group = nullptr;
    GLenum error_code = GL_NO_ERROR;
    long error_frame = -1;
    auto check = [&](const char *group, long frame) {
        if (!opt.check_errors || error_group)
            return;
        GLenum e = glGetError();
        if (e != GL_NO_ERROR) {
            error_group = group;
            error_code = e;
            error_frame = frame;
        }
    };

    const double t0 = now_seconds();
    for (long frame = 0; ok && frame < opt.frames; ++frame) {
        // Objects made and state set by the frames before the warm-up are
        // used by the frames after it, which is where a layer takes over.
        if (frame == opt.warmup_after && opt.warmup_seconds > 0) {
            const double w0 = now_seconds();
            long warm = 0;
            auto offloaded = reinterpret_cast<int (*)()>(dlsym(RTLD_DEFAULT, "kam_platform_thread_offloaded"));
            glClearColor(0.0f, 0.0f, 0.0f, 1.0f);
            while (ok && now_seconds() - w0 < opt.warmup_seconds && !(offloaded && offloaded())) {
                glClear(GL_COLOR_BUFFER_BIT);
                if (!eglSwapBuffers(plat.dpy, plat.surf)) {
                    egl_fail("eglSwapBuffers");
                    ok = false;
                }
                ++warm;
            }
            std::fprintf(stderr, "kam-shadow-app: warm-up done after %ld frames\n", warm);
            if (!ok)
                break;
        }
        const uint32_t f = static_cast<uint32_t>(frame);
        const bool last = frame == opt.frames - 1;
        glViewport(0, 0, kWidth, kHeight);
        glClearColor(static_cast<float>(f % 5) / 8.0f, 0.1f, static_cast<float>(f % 3) / 6.0f, 1.0f);
        glClear(GL_COLOR_BUFFER_BIT);

        if (opt.features & kUnpack2D) {
            frame_unpack2d(scene, f);
            check("unpack2d", frame);
        }
        if (opt.features & kUnpackPbo) {
            frame_unpack_pbo(scene, f);
            check("unpack-pbo", frame);
        }
        if (opt.features & kTex3D) {
            frame_tex3d(scene, f);
            check("tex3d", frame);
        }
        if (opt.features & kMapWrite) {
            frame_map_write(scene, f, sum);
            check("map-write", frame);
        }
        if (opt.features & kObjects) {
            frame_objects(scene, f, sum);
            frame_programs(scene, f, sum);
            check("objects", frame);
        }
        if (opt.features & kClientArrays) {
            frame_client_arrays(scene, f);
            frame_client_draws(scene, f, sum);
            check("client-arrays", frame);
        }
        if (opt.features & kBuffers) {
            frame_buffers(scene, f, sum);
            check("buffers", frame);
        }
        if (opt.features & kTracked) {
            frame_tracked(scene, f, sum);
            check("tracked", frame);
        }
        if (opt.features & kReadClient) {
            frame_read_client(f, sum);
            check("read-client", frame);
        }
        if (opt.features & kReadPbo) {
            frame_read_pbo(scene, f, last, sum);
            check("read-pbo", frame);
        }

        if (last) {
            pixels.assign(static_cast<size_t>(kWidth) * kHeight * 4, 0);
            glPixelStorei(GL_PACK_ALIGNMENT, 1);
            glReadPixels(0, 0, kWidth, kHeight, GL_RGBA, GL_UNSIGNED_BYTE, pixels.data());
            glPixelStorei(GL_PACK_ALIGNMENT, 4);
        }
        if (!eglSwapBuffers(plat.dpy, plat.surf)) {
            egl_fail("eglSwapBuffers");
            ok = false;
            break;
        }
    }
    glFinish();
    const double seconds = now_seconds() - t0;

    // Once at the end: a query every frame would force a round trip through
    // a layer that queues GL work, which --check-errors accepts for the sake
    // of naming the failing group.
    const GLenum err = glGetError();
    sum.value(err);
    if (error_group) {
        std::fprintf(stderr, "kam-shadow-app: GL error 0x%04x in group %s at frame %ld\n", error_code, error_group,
                     error_frame);
        ok = false;
    } else if (err != GL_NO_ERROR) {
        std::fprintf(stderr, "kam-shadow-app: GL error 0x%04x during rendering\n", err);
        ok = false;
    }
    if (ok && !pixels.empty())
        sum.bytes(pixels.data(), pixels.size());
    if (ok && !opt.png_path.empty() && !write_png(opt.png_path, kWidth, kHeight, pixels))
        ok = false;

    destroy_scene(&scene);
    teardown_platform(&plat);

    std::printf("checksum=%016llx\n", static_cast<unsigned long long>(sum.h));
    std::fprintf(stderr, "kam-shadow-app: frames=%ld features=0x%x seconds=%.3f\n", opt.frames, opt.features,
                 seconds);
    return ok ? 0 : 1;
}
