// kam-demo: a small GLES 3.0 program shaped like a CPU-bound game frame.
//
// It exists to give libKAM something realistic to chew on: thousands of tiny
// draws per frame, each with its own uniforms and frequent state changes,
// plus a per-frame texture and buffer upload and optional "game logic" CPU
// work. Rendering depends only on the frame index, so two runs produce the
// same pixels and the last frame can be compared byte for byte (--png).

#include <EGL/egl.h>
#include <GLES3/gl3.h>
#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <dlfcn.h>
#include <malloc.h>
#include <time.h>

#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "gles_window.h"

using namespace glesapp;

namespace {

struct Options {
    long frames = 300;
    long draws = 2000;
    int width = 640;
    int height = 480;
    long work_us = 0;
    long toggle_every = 0;
    long until_offloaded = 0;
    std::string png_path;
    bool quiet = false;
    bool malloc_tune = true;
};

void usage(FILE *out) {
    std::fprintf(out,
                 "usage: kam-demo [options]\n"
                 "  --frames N        frames to render (default 300)\n"
                 "  --draws N         draw calls per frame (default 2000)\n"
                 "  --size WxH        window size (default 640x480)\n"
                 "  --work-us N       simulated game-logic CPU work per frame, in microseconds (default 0)\n"
                 "  --toggle-every K  every K frames call kam_platform_update_mtr(0/1) if the layer exports it\n"
                 "  --until-offloaded N  before the last frame, render on until N frames went through the layer's\n"
                 "                    worker (kam_platform_thread_offloaded) over at least a second; gives up after 120 s\n"
                 "  --png PATH        write the last frame to PATH as PNG\n"
                 "  --quiet           do not print the summary line\n"
                 "  --no-malloc-tune  leave glibc's heap trimming at its default\n"
                 "  --help            show this text\n");
}


bool parse_size(const char *s, int *w, int *h) {
    const char *x = std::strchr(s, 'x');
    if (!x)
        return false;
    std::string ws(s, x - s);
    long lw = 0, lh = 0;
    if (!parse_long(ws.c_str(), 1, 16384, &lw) || !parse_long(x + 1, 1, 16384, &lh))
        return false;
    *w = static_cast<int>(lw);
    *h = static_cast<int>(lh);
    return true;
}

// Returns 0 to continue, 1 when --help was handled, -1 on a bad command line.
int parse_args(int argc, char **argv, Options *o) {
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        std::string val;
        bool has_inline = false;
        size_t eq = arg.find('=');
        if (arg.rfind("--", 0) == 0 && eq != std::string::npos) {
            val = arg.substr(eq + 1);
            arg = arg.substr(0, eq);
            has_inline = true;
        }
        auto need_value = [&](const char *name) -> const char * {
            if (has_inline)
                return val.c_str();
            if (i + 1 >= argc) {
                std::fprintf(stderr, "kam-demo: %s needs a value\n", name);
                return nullptr;
            }
            return argv[++i];
        };
        auto bad = [&](const char *name, const char *v) {
            std::fprintf(stderr, "kam-demo: bad value for %s: '%s'\n", name, v ? v : "");
            return -1;
        };

        if (arg == "--help" || arg == "-h") {
            usage(stdout);
            return 1;
        } else if (arg == "--quiet") {
            o->quiet = true;
        } else if (arg == "--no-malloc-tune") {
            o->malloc_tune = false;
        } else if (arg == "--frames") {
            const char *v = need_value("--frames");
            if (!v) return -1;
            if (!parse_long(v, 1, 100000000L, &o->frames)) return bad("--frames", v);
        } else if (arg == "--draws") {
            const char *v = need_value("--draws");
            if (!v) return -1;
            if (!parse_long(v, 0, 10000000L, &o->draws)) return bad("--draws", v);
        } else if (arg == "--work-us") {
            const char *v = need_value("--work-us");
            if (!v) return -1;
            if (!parse_long(v, 0, 10000000L, &o->work_us)) return bad("--work-us", v);
        } else if (arg == "--toggle-every") {
            const char *v = need_value("--toggle-every");
            if (!v) return -1;
            if (!parse_long(v, 1, 100000000L, &o->toggle_every)) return bad("--toggle-every", v);
        } else if (arg == "--until-offloaded") {
            const char *v = need_value("--until-offloaded");
            if (!v) return -1;
            if (!parse_long(v, 1, 100000000L, &o->until_offloaded)) return bad("--until-offloaded", v);
        } else if (arg == "--size") {
            const char *v = need_value("--size");
            if (!v) return -1;
            if (!parse_size(v, &o->width, &o->height)) return bad("--size", v);
        } else if (arg == "--png") {
            const char *v = need_value("--png");
            if (!v) return -1;
            if (!*v) return bad("--png", v);
            o->png_path = v;
        } else {
            std::fprintf(stderr, "kam-demo: unknown option '%s'\n", argv[i]);
            usage(stderr);
            return -1;
        }
    }
    return 0;
}


// ---------------------------------------------------------------------------
// Simulated game logic. The result is written to a volatile sink so the
// compiler cannot drop the loop; it never feeds into rendering because the
// iteration count comes from a timing calibration and would otherwise make
// the output differ between runs.

volatile double g_work_sink = 0.0;

void busy_work(uint64_t iterations, uint64_t seed) {
    uint64_t x = seed * 0x9E3779B97F4A7C15ull + 1;
    double acc = 0.0;
    for (uint64_t i = 0; i < iterations; ++i) {
        x ^= x << 13;
        x ^= x >> 7;
        x ^= x << 17;
        acc = acc * 0.999 + static_cast<double>(x & 0xFFFF) * 1.0e-4;
    }
    g_work_sink = g_work_sink + acc;
}

// Iterations per microsecond of thread CPU time, measured once so that
// --work-us costs a fixed amount of work per frame, like real game logic,
// rather than spinning on a clock.
double calibrate_work() {
    uint64_t iters = 1u << 14;
    for (;;) {
        double t0 = clock_seconds(CLOCK_THREAD_CPUTIME_ID);
        busy_work(iters, 7);
        double dt = clock_seconds(CLOCK_THREAD_CPUTIME_ID) - t0;
        if (dt >= 0.02 || iters >= (1ull << 34))
            return dt > 0 ? static_cast<double>(iters) / (dt * 1e6) : 1000.0;
        iters *= 2;
    }
}

// ---------------------------------------------------------------------------
// GL helpers

const char *kVsOffset = R"(#version 300 es
layout(location = 0) in vec2 a_pos;
layout(location = 1) in vec2 a_uv;
uniform vec4 u_offset_scale;
out vec2 v_uv;
void main() {
    v_uv = a_uv;
    gl_Position = vec4(a_pos * u_offset_scale.zw + u_offset_scale.xy, 0.0, 1.0);
}
)";

const char *kFsOffset = R"(#version 300 es
precision mediump float;
in vec2 v_uv;
uniform sampler2D u_tex;
uniform vec4 u_color;
out vec4 o_color;
void main() {
    vec4 t = texture(u_tex, v_uv);
    o_color = vec4(t.rgb * u_color.rgb, u_color.a);
}
)";

const char *kVsMatrix = R"(#version 300 es
layout(location = 0) in vec2 a_pos;
layout(location = 1) in vec2 a_uv;
uniform mat4 u_xform;
out vec2 v_uv;
void main() {
    v_uv = a_uv;
    gl_Position = u_xform * vec4(a_pos, 0.0, 1.0);
}
)";

const char *kFsMatrix = R"(#version 300 es
precision mediump float;
in vec2 v_uv;
uniform sampler2D u_tex;
uniform vec4 u_color;
out vec4 o_color;
void main() {
    vec4 t = texture(u_tex, v_uv * 2.0);
    vec3 rim = vec3(0.6 + 0.4 * v_uv.y);
    o_color = vec4(mix(u_color.rgb, t.bgr, 0.45) * rim, u_color.a);
}
)";

// ---------------------------------------------------------------------------
// Scene

constexpr int kTexSize = 64;
constexpr int kNumTextures = 4;
constexpr int kNumTriangles = 16;
constexpr int kFloatsPerVertex = 4;  // x, y, u, v

struct Scene {
    GLuint prog[2] = {0, 0};
    GLint loc_offset_scale = -1;
    GLint loc_color[2] = {-1, -1};
    GLint loc_xform = -1;
    GLuint tex[kNumTextures] = {};
    GLuint vao[2] = {0, 0};  // 0: indexed quad, 1: dynamic triangles
    GLuint quad_vbo = 0;
    GLuint quad_ebo = 0;
    GLuint tri_vbo = 0;
    std::vector<uint8_t> upload;       // per-frame texture contents
    std::vector<float> tri_vertices;   // per-frame triangle contents
};

void fill_static_texture(int which, std::vector<uint8_t> *px) {
    px->resize(kTexSize * kTexSize * 4);
    for (int y = 0; y < kTexSize; ++y) {
        for (int x = 0; x < kTexSize; ++x) {
            uint8_t *p = px->data() + (y * kTexSize + x) * 4;
            switch (which) {
            case 1: {  // checkerboard
                bool on = ((x / 8) ^ (y / 8)) & 1;
                p[0] = on ? 240 : 40;
                p[1] = on ? 200 : 60;
                p[2] = on ? 90 : 160;
                break;
            }
            case 2: {  // diagonal stripes
                bool on = ((x + y) / 6) & 1;
                p[0] = on ? 80 : 230;
                p[1] = on ? 220 : 120;
                p[2] = on ? 230 : 70;
                break;
            }
            default: {  // radial-ish gradient
                int dx = x - kTexSize / 2, dy = y - kTexSize / 2;
                int d = dx * dx + dy * dy;
                int v = 255 - (d * 255) / (2 * (kTexSize / 2) * (kTexSize / 2));
                p[0] = static_cast<uint8_t>(v);
                p[1] = static_cast<uint8_t>((v * 3) / 4);
                p[2] = static_cast<uint8_t>(255 - v / 2);
                break;
            }
            }
            p[3] = 255;
        }
    }
}

// Integer-only pattern so the uploaded texels depend on nothing but the frame.
void fill_animated_texture(long frame, std::vector<uint8_t> *px) {
    px->resize(kTexSize * kTexSize * 4);
    const unsigned f = static_cast<unsigned>(frame);
    for (int y = 0; y < kTexSize; ++y) {
        for (int x = 0; x < kTexSize; ++x) {
            uint8_t *p = px->data() + (y * kTexSize + x) * 4;
            unsigned ux = static_cast<unsigned>(x), uy = static_cast<unsigned>(y);
            p[0] = static_cast<uint8_t>(((ux + f * 2) ^ uy) * 4);
            p[1] = static_cast<uint8_t>((ux * uy + f * 5) & 0xFF);
            p[2] = static_cast<uint8_t>(((uy + f) ^ (ux * 3)) * 3);
            p[3] = 255;
        }
    }
}

void fill_triangles(long frame, std::vector<float> *v) {
    v->resize(kNumTriangles * 3 * kFloatsPerVertex);
    const double t = static_cast<double>(frame) * 0.05;
    for (int i = 0; i < kNumTriangles; ++i) {
        const double base = t * (1.0 + 0.1 * i) + i * 0.7;
        for (int k = 0; k < 3; ++k) {
            const double a = base + k * (2.0 * M_PI / 3.0);
            const double r = 0.8 + 0.2 * std::sin(t * 1.3 + i + k);
            float *p = v->data() + (i * 3 + k) * kFloatsPerVertex;
            p[0] = static_cast<float>(r * std::cos(a));
            p[1] = static_cast<float>(r * std::sin(a));
            p[2] = static_cast<float>(0.5 + 0.5 * std::cos(a));
            p[3] = static_cast<float>(0.5 + 0.5 * std::sin(a));
        }
    }
}

bool create_scene(Scene *s) {
    s->prog[0] = link_program(kVsOffset, kFsOffset, "offset/scale");
    if (!s->prog[0])
        return false;
    s->prog[1] = link_program(kVsMatrix, kFsMatrix, "matrix");
    if (!s->prog[1])
        return false;

    s->loc_offset_scale = glGetUniformLocation(s->prog[0], "u_offset_scale");
    s->loc_color[0] = glGetUniformLocation(s->prog[0], "u_color");
    s->loc_xform = glGetUniformLocation(s->prog[1], "u_xform");
    s->loc_color[1] = glGetUniformLocation(s->prog[1], "u_color");
    if (s->loc_offset_scale < 0 || s->loc_color[0] < 0 || s->loc_xform < 0 || s->loc_color[1] < 0) {
        std::fprintf(stderr, "kam-demo: a shader uniform was not found after linking\n");
        return false;
    }
    for (GLuint p : s->prog) {
        glUseProgram(p);
        glUniform1i(glGetUniformLocation(p, "u_tex"), 0);
    }

    glGenTextures(kNumTextures, s->tex);
    std::vector<uint8_t> px;
    for (int i = 0; i < kNumTextures; ++i) {
        if (i == 0)
            fill_animated_texture(0, &px);
        else
            fill_static_texture(i, &px);
        glBindTexture(GL_TEXTURE_2D, s->tex[i]);
        glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA8, kTexSize, kTexSize, 0, GL_RGBA, GL_UNSIGNED_BYTE,
                     px.data());
        glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
        glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_LINEAR);
        glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_REPEAT);
        glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_REPEAT);
    }

    static const float quad[] = {
        -1.f, -1.f, 0.f, 0.f,
         1.f, -1.f, 1.f, 0.f,
         1.f,  1.f, 1.f, 1.f,
        -1.f,  1.f, 0.f, 1.f,
    };
    static const GLushort quad_idx[] = {0, 1, 2, 0, 2, 3};
    const GLsizei stride = kFloatsPerVertex * sizeof(float);
    const void *uv_offset = reinterpret_cast<const void *>(2 * sizeof(float));

    glGenVertexArrays(2, s->vao);
    glGenBuffers(1, &s->quad_vbo);
    glGenBuffers(1, &s->quad_ebo);
    glGenBuffers(1, &s->tri_vbo);

    glBindVertexArray(s->vao[0]);
    glBindBuffer(GL_ARRAY_BUFFER, s->quad_vbo);
    glBufferData(GL_ARRAY_BUFFER, sizeof(quad), quad, GL_STATIC_DRAW);
    glBindBuffer(GL_ELEMENT_ARRAY_BUFFER, s->quad_ebo);
    glBufferData(GL_ELEMENT_ARRAY_BUFFER, sizeof(quad_idx), quad_idx, GL_STATIC_DRAW);
    glEnableVertexAttribArray(0);
    glVertexAttribPointer(0, 2, GL_FLOAT, GL_FALSE, stride, nullptr);
    glEnableVertexAttribArray(1);
    glVertexAttribPointer(1, 2, GL_FLOAT, GL_FALSE, stride, uv_offset);

    fill_triangles(0, &s->tri_vertices);
    glBindVertexArray(s->vao[1]);
    glBindBuffer(GL_ARRAY_BUFFER, s->tri_vbo);
    glBufferData(GL_ARRAY_BUFFER, static_cast<GLsizeiptr>(s->tri_vertices.size() * sizeof(float)),
                 s->tri_vertices.data(), GL_DYNAMIC_DRAW);
    glEnableVertexAttribArray(0);
    glVertexAttribPointer(0, 2, GL_FLOAT, GL_FALSE, stride, nullptr);
    glEnableVertexAttribArray(1);
    glVertexAttribPointer(1, 2, GL_FLOAT, GL_FALSE, stride, uv_offset);
    glBindVertexArray(0);

    GLenum err = glGetError();
    if (err != GL_NO_ERROR) {
        std::fprintf(stderr, "kam-demo: GL error 0x%04x while creating the scene\n", err);
        return false;
    }
    return true;
}

void destroy_scene(Scene *s) {
    glBindVertexArray(0);
    glBindBuffer(GL_ARRAY_BUFFER, 0);
    glBindTexture(GL_TEXTURE_2D, 0);
    glUseProgram(0);
    if (s->vao[0] || s->vao[1])
        glDeleteVertexArrays(2, s->vao);
    if (s->quad_vbo)
        glDeleteBuffers(1, &s->quad_vbo);
    if (s->quad_ebo)
        glDeleteBuffers(1, &s->quad_ebo);
    if (s->tri_vbo)
        glDeleteBuffers(1, &s->tri_vbo);
    if (s->tex[0])
        glDeleteTextures(kNumTextures, s->tex);
    for (GLuint &p : s->prog) {
        if (p)
            glDeleteProgram(p);
        p = 0;
    }
    *s = Scene{};
}

// One frame's worth of GL traffic. State is tracked the way an engine's
// renderer would, so redundant binds are skipped but real changes are
// frequent: programs swap every 24 draws, textures every 5, blending toggles
// every 7 and the geometry alternates between indexed quads and triangles.
void render_frame(Scene *s, long frame, long draws, int width, int height, uint64_t work_iters) {
    const double t = static_cast<double>(frame);

    glViewport(0, 0, width, height);
    glClearColor(0.08f + 0.06f * static_cast<float>(std::sin(t * 0.02)), 0.10f,
                 0.16f + 0.06f * static_cast<float>(std::cos(t * 0.017)), 1.0f);
    glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);

    // Per-frame streaming uploads, as a game would for an animated texture
    // and skinned/particle vertices.
    fill_animated_texture(frame, &s->upload);
    glActiveTexture(GL_TEXTURE0);
    glBindTexture(GL_TEXTURE_2D, s->tex[0]);
    glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, kTexSize, kTexSize, GL_RGBA, GL_UNSIGNED_BYTE,
                    s->upload.data());
    fill_triangles(frame, &s->tri_vertices);
    glBindBuffer(GL_ARRAY_BUFFER, s->tri_vbo);
    glBufferSubData(GL_ARRAY_BUFFER, 0,
                    static_cast<GLsizeiptr>(s->tri_vertices.size() * sizeof(float)),
                    s->tri_vertices.data());

    // Blending must leave the framebuffer's alpha at 1 so the read-back image
    // is opaque regardless of how many translucent draws overlapped.
    glBlendFuncSeparate(GL_SRC_ALPHA, GL_ONE_MINUS_SRC_ALPHA, GL_ZERO, GL_ONE);
    glDisable(GL_BLEND);
    glDisable(GL_DEPTH_TEST);

    const long n = draws > 0 ? draws : 1;
    const double aspect = static_cast<double>(width) / static_cast<double>(height);
    long cols = static_cast<long>(std::ceil(std::sqrt(static_cast<double>(n) * aspect)));
    if (cols < 1)
        cols = 1;
    const long rows = (n + cols - 1) / cols;
    const double cw = 2.0 / static_cast<double>(cols);
    const double ch = 2.0 / static_cast<double>(rows);

    // Game logic runs in slices between draw batches, like an engine that
    // interleaves simulation and submission on one thread.
    constexpr long kWorkChunks = 8;
    long next_chunk = 0;
    auto run_chunks_until = [&](long upto) {
        while (next_chunk < upto) {
            const uint64_t slice = work_iters / kWorkChunks +
                                   (static_cast<uint64_t>(next_chunk) < work_iters % kWorkChunks ? 1 : 0);
            if (slice)
                busy_work(slice, static_cast<uint64_t>(frame) * kWorkChunks + next_chunk);
            ++next_chunk;
        }
    };

    int cur_prog = -1, cur_tex = 0, cur_vao = -1;
    bool blend_on = false;

    for (long i = 0; i < draws; ++i) {
        if (work_iters)
            run_chunks_until((i * kWorkChunks) / draws + 1);

        const int want_prog = static_cast<int>((i / 24) % 2);
        const int want_tex = static_cast<int>((i / 5 + frame / 30) % kNumTextures);
        const bool want_blend = (i / 7) % 3 == 0;
        const int want_vao = (i % 3 == 2) ? 1 : 0;

        if (want_prog != cur_prog) {
            glUseProgram(s->prog[want_prog]);
            cur_prog = want_prog;
        }
        if (want_tex != cur_tex) {
            glBindTexture(GL_TEXTURE_2D, s->tex[want_tex]);
            cur_tex = want_tex;
        }
        if (want_blend != blend_on) {
            if (want_blend)
                glEnable(GL_BLEND);
            else
                glDisable(GL_BLEND);
            blend_on = want_blend;
        }
        if (want_vao != cur_vao) {
            glBindVertexArray(s->vao[want_vao]);
            cur_vao = want_vao;
        }

        const long col = i % cols;
        const long row = i / cols;
        const double phase = t * 0.05 + static_cast<double>(i) * 0.37;
        const double cx = -1.0 + (static_cast<double>(col) + 0.5) * cw + 0.15 * cw * std::sin(phase);
        const double cy = -1.0 + (static_cast<double>(row) + 0.5) * ch + 0.15 * ch * std::cos(phase * 1.3);
        const double scale = 0.32 + 0.1 * std::sin(phase * 0.7);
        const float alpha = want_blend ? 0.55f : 1.0f;
        const float r = static_cast<float>(0.55 + 0.45 * std::sin(phase * 0.9));
        const float g = static_cast<float>(0.55 + 0.45 * std::sin(phase * 0.9 + 2.1));
        const float b = static_cast<float>(0.55 + 0.45 * std::sin(phase * 0.9 + 4.2));
        glUniform4f(s->loc_color[want_prog], r, g, b, alpha);

        if (want_prog == 0) {
            glUniform4f(s->loc_offset_scale, static_cast<float>(cx), static_cast<float>(cy),
                        static_cast<float>(scale * cw), static_cast<float>(scale * ch));
        } else {
            const double ang = t * 0.03 + static_cast<double>(i) * 0.1;
            const double c = std::cos(ang), sn = std::sin(ang);
            const double sx = scale * cw, sy = scale * ch;
            // Column-major rotate-then-scale-then-translate.
            const float m[16] = {
                static_cast<float>(c * sx),  static_cast<float>(sn * sy), 0.f, 0.f,
                static_cast<float>(-sn * sx), static_cast<float>(c * sy), 0.f, 0.f,
                0.f, 0.f, 1.f, 0.f,
                static_cast<float>(cx), static_cast<float>(cy), 0.f, 1.f,
            };
            glUniformMatrix4fv(s->loc_xform, 1, GL_FALSE, m);
        }

        if (want_vao == 0) {
            glDrawElements(GL_TRIANGLES, 6, GL_UNSIGNED_SHORT, nullptr);
        } else {
            const GLint first = static_cast<GLint>((i + frame) % kNumTriangles) * 3;
            glDrawArrays(GL_TRIANGLES, first, 3);
        }
    }
    if (work_iters) {
        if (draws > 0)
            run_chunks_until(kWorkChunks);
        else
            busy_work(work_iters, static_cast<uint64_t>(frame));
    }

    glBindVertexArray(0);
    glDisable(GL_BLEND);
}

using UpdateMtrFn = void (*)(int);

}  // namespace

int main(int argc, char **argv) {
    Options opt;
    int parsed = parse_args(argc, argv, &opt);
    if (parsed > 0)
        return 0;
    if (parsed < 0)
        return 2;

    // The software rasterizer allocates and frees large blocks every frame.
    // With glibc's default 128 KiB trim threshold the heap is handed back to
    // the kernel and refaulted over and over, which on llvmpipe made the
    // per-frame CPU cost two to three times higher and let it swing that
    // much between identical runs. A generous threshold keeps the numbers
    // about the GL call stream rather than the allocator; it applies to
    // every arena, so driver work moved to another thread benefits alike.
    if (opt.malloc_tune)
        mallopt(M_TRIM_THRESHOLD, 256 * 1024 * 1024);

    Platform plat;
    if (!setup_platform(&plat, {"kam-demo", opt.width, opt.height, true})) {
        teardown_platform(&plat);
        return 1;
    }

    EGLint surf_w = opt.width, surf_h = opt.height;
    eglQuerySurface(plat.dpy, plat.surf, EGL_WIDTH, &surf_w);
    eglQuerySurface(plat.dpy, plat.surf, EGL_HEIGHT, &surf_h);
    if (surf_w <= 0 || surf_h <= 0) {
        std::fprintf(stderr, "kam-demo: window surface has an unusable size %dx%d\n", surf_w, surf_h);
        teardown_platform(&plat);
        return 1;
    }

    Scene scene;
    if (!create_scene(&scene)) {
        destroy_scene(&scene);
        teardown_platform(&plat);
        return 1;
    }

    // Looked up at run time so the demo also runs directly on the driver,
    // where the symbol simply does not exist.
    UpdateMtrFn update_mtr = nullptr;
    if (opt.toggle_every > 0)
        update_mtr = reinterpret_cast<UpdateMtrFn>(dlsym(RTLD_DEFAULT, "kam_platform_update_mtr"));

    uint64_t work_iters = 0;
    if (opt.work_us > 0)
        work_iters = static_cast<uint64_t>(calibrate_work() * static_cast<double>(opt.work_us));

    // --until-offloaded waits for the layer by condition rather than by a
    // frame count that suits one machine's speed.
    using OffloadedFn = int (*)();
    OffloadedFn offloaded = nullptr;
    if (opt.until_offloaded > 0) {
        offloaded = reinterpret_cast<OffloadedFn>(dlsym(RTLD_DEFAULT, "kam_platform_thread_offloaded"));
        if (!offloaded)
            std::fprintf(stderr, "kam-demo: --until-offloaded needs the layer (kam_platform_thread_offloaded)\n");
    }
    long offloaded_frames = 0;
    double offloaded_since = 0.0;

    std::vector<uint8_t> pixels;
    bool ok = opt.until_offloaded == 0 || offloaded;
    int toggles = 0;
    long rendered = 0;

    const double wall0 = clock_seconds(CLOCK_MONOTONIC);
    const double cpu0 = clock_seconds(CLOCK_THREAD_CPUTIME_ID);
    // Frames past the second-to-last go on until enough were offloaded; the
    // last one then has the same frame number as without the option.
    for (long i = 0; ok; ++i) {
        const double now = clock_seconds(CLOCK_MONOTONIC);
        if (offloaded && offloaded() && offloaded_frames++ == 0)
            offloaded_since = now;
        const bool waiting =
            offloaded && (offloaded_frames < opt.until_offloaded || now - offloaded_since < 1.0);
        if (waiting && now - wall0 > 120.0) {
            std::fprintf(stderr, "kam-demo: %ld frames offloaded after 120 s\n", offloaded_frames);
            ok = false;
            break;
        }
        const bool last = i >= opt.frames - 1 && !waiting;
        const long frame = last ? opt.frames - 1 : i;
        if (update_mtr && i > 0 && i % opt.toggle_every == 0) {
            update_mtr(toggles % 2);
            ++toggles;
        }

        render_frame(&scene, frame, opt.draws, surf_w, surf_h, work_iters);
        ++rendered;

        if (last && !opt.png_path.empty()) {
            pixels.assign(static_cast<size_t>(surf_w) * static_cast<size_t>(surf_h) * 4, 0);
            glPixelStorei(GL_PACK_ALIGNMENT, 1);
            glReadPixels(0, 0, surf_w, surf_h, GL_RGBA, GL_UNSIGNED_BYTE, pixels.data());
        }

        if (!eglSwapBuffers(plat.dpy, plat.surf)) {
            egl_fail("eglSwapBuffers");
            ok = false;
            break;
        }
        if (last)
            break;
    }
    if (offloaded)
        std::fprintf(stderr, "kam-demo: %ld of %ld frames offloaded\n", offloaded_frames, rendered);
    const double cpu1 = clock_seconds(CLOCK_THREAD_CPUTIME_ID);
    glFinish();
    const double wall1 = clock_seconds(CLOCK_MONOTONIC);

    // Checked once at the end rather than per frame: a per-frame query would
    // force a round trip through any layer that queues GL work.
    GLenum err = glGetError();
    if (err != GL_NO_ERROR) {
        std::fprintf(stderr, "kam-demo: GL error 0x%04x during rendering\n", err);
        ok = false;
    }

    if (ok && !opt.png_path.empty() && !write_png(opt.png_path, surf_w, surf_h, pixels))
        ok = false;

    destroy_scene(&scene);
    teardown_platform(&plat);

    if (ok && !opt.quiet) {
        const double seconds = wall1 - wall0;
        const double fps = seconds > 0 ? static_cast<double>(rendered) / seconds : 0.0;
        const double cpu_ms = (cpu1 - cpu0) * 1000.0 / static_cast<double>(rendered);
        std::printf("frames=%ld seconds=%.3f fps=%.2f app_cpu_ms_per_frame=%.3f\n", rendered, seconds, fps,
                    cpu_ms);
    }
    return ok ? 0 : 1;
}
