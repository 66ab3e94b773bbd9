// kam-soak-app: a long, bounded run of a game-like frame that keeps creating
// and dropping GL objects while a layer's offload is switched off and on
// under it, to catch what only shows after thousands of frames: a wrong pixel
// in some frame, memory that grows, a thread or an EGL object left behind.
//
// Every frame depends only on its index. Each frame's read-back is printed as
// "frame N HASH" on stdout, so a direct run and a run through a layer can be
// compared line by line. Objects persist across frames and pixel-store state
// is set on some frames only, so state set while offloaded is used while not,
// and the other way round. --warmup-seconds clears and swaps after
// --warmup-after frames until the layer offloads the thread (at most S s);
// those frames print nothing.
//
// The program itself checks, and says on stderr:
//   - resident memory after the warm-up: the highest VmRSS of the second half
//     of the frames may exceed the highest of the first half by at most
//     --rss-slack-kb (a leak check; the numbers are printed either way);
//   - after the context, the surface and the display are gone: the number of
//     threads (printed, for the caller to compare with a direct run) and,
//     through a layer's host platform, that no EGL context or surface record
//     is left.

#include <EGL/egl.h>
#include <GLES3/gl3.h>
#include <dirent.h>
#include <dlfcn.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
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
    long frames = 3000;
    long toggle_every = 7;
    long warmup_after = 30;
    double warmup_seconds = 0.0;
    long rss_slack_kb = 1024;
    int size = 96;
};

double now_seconds() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

long rss_kb() {
    FILE *f = std::fopen("/proc/self/status", "r");
    if (!f)
        return -1;
    char line[256];
    long kb = -1;
    while (std::fgets(line, sizeof line, f))
        if (std::sscanf(line, "VmRSS: %ld kB", &kb) == 1)
            break;
    std::fclose(f);
    return kb;
}

int thread_count() {
    DIR *d = opendir("/proc/self/task");
    if (!d)
        return -1;
    int n = 0;
    while (dirent *e = readdir(d))
        if (e->d_name[0] != '.')
            ++n;
    closedir(d);
    return n;
}

bool parse_num(const char *s, double min, double max, double *out) {
    if (!s || !*s)
        return false;
    errno = 0;
    char *end = nullptr;
    double v = std::strtod(s, &end);
    if (errno != 0 || *end != '\0' || v < min || v > max)
        return false;
    *out = v;
    return true;
}

int parse_args(int argc, char **argv, Options *o) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const char *v = i + 1 < argc ? argv[i + 1] : nullptr;
        double d = 0;
        auto num = [&](double min, double max) {
            ++i;
            if (parse_num(v, min, max, &d))
                return true;
            std::fprintf(stderr, "kam-soak-app: bad value for %s: '%s'\n", arg.c_str(), v ? v : "");
            return false;
        };
        if (arg == "--frames") {
            if (!num(1, 1e8)) return -1;
            o->frames = static_cast<long>(d);
        } else if (arg == "--toggle-every") {
            if (!num(0, 1e8)) return -1;
            o->toggle_every = static_cast<long>(d);
        } else if (arg == "--warmup-after") {
            if (!num(0, 1e8)) return -1;
            o->warmup_after = static_cast<long>(d);
        } else if (arg == "--warmup-seconds") {
            if (!num(0, 600)) return -1;
            o->warmup_seconds = d;
        } else if (arg == "--rss-slack-kb") {
            if (!num(0, 1e9)) return -1;
            o->rss_slack_kb = static_cast<long>(d);
        } else if (arg == "--size") {
            if (!num(16, 1024)) return -1;
            o->size = static_cast<int>(d);
        } else {
            std::fprintf(stderr,
                         "usage: kam-soak-app [--frames N] [--toggle-every K] [--warmup-after F]\n"
                         "                    [--warmup-seconds S] [--rss-slack-kb KB] [--size PX]\n");
            return arg == "--help" ? 1 : -1;
        }
    }
    return 0;
}

uint64_t fnv(uint64_t h, const void *data, size_t n) {
    const auto *p = static_cast<const uint8_t *>(data);
    for (size_t i = 0; i < n; ++i)
        h = (h ^ p[i]) * 1099511628211ull;
    return h;
}

uint8_t pattern(uint32_t f, size_t i) {
    uint32_t x = f * 2654435761u + static_cast<uint32_t>(i) * 40503u;
    return static_cast<uint8_t>((x >> 13) ^ (x >> 5));
}

// One vertex as the shaders take it: position and a normalised colour.
struct Vertex {
    float x, y;
    uint8_t r, g, b, a;
};

const char *kVs = R"(#version 300 es
layout(location = 0) in vec2 a_pos;
layout(location = 1) in vec4 a_color;
out vec4 v_color;
out vec2 v_uv;
void main() {
    v_color = a_color;
    v_uv = a_pos * 0.5 + 0.5;
    gl_Position = vec4(a_pos, 0.0, 1.0);
}
)";

const char *kFs = R"(#version 300 es
precision mediump float;
in vec4 v_color;
in vec2 v_uv;
uniform sampler2D u_tex;
uniform float u_mix;
out vec4 o_color;
void main() {
    o_color = mix(v_color, texture(u_tex, v_uv), u_mix);
}
)";

constexpr int kTex = 32;

struct Scene {
    GLuint prog = 0;
    GLint u_mix = -1;
    GLuint tex = 0;   // sub-image uploads with the current unpack state
    GLuint vbo = 0;   // rewritten through a mapping every frame
    // The unpack state the program last set: it changes on some frames only.
    int align = 4, row_length = 0, skip_pixels = 0, skip_rows = 0;
};

bool create_scene(Scene *s) {
    s->prog = link_program(kVs, kFs, "soak");
    if (!s->prog)
        return false;
    s->u_mix = glGetUniformLocation(s->prog, "u_mix");
    glUseProgram(s->prog);
    glUniform1i(glGetUniformLocation(s->prog, "u_tex"), 0);
    glGenTextures(1, &s->tex);
    glBindTexture(GL_TEXTURE_2D, s->tex);
    std::vector<uint8_t> init(kTex * kTex * 4);
    for (size_t i = 0; i < init.size(); ++i)
        init[i] = pattern(0xFFFF, i);
    glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA8, kTex, kTex, 0, GL_RGBA, GL_UNSIGNED_BYTE, init.data());
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_NEAREST);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_NEAREST);
    glGenBuffers(1, &s->vbo);
    glBindBuffer(GL_ARRAY_BUFFER, s->vbo);
    glBufferData(GL_ARRAY_BUFFER, 64 * sizeof(Vertex), nullptr, GL_DYNAMIC_DRAW);
    glBindBuffer(GL_ARRAY_BUFFER, 0);
    return glGetError() == GL_NO_ERROR;
}

void destroy_scene(Scene *s) {
    glDeleteBuffers(1, &s->vbo);
    glDeleteTextures(1, &s->tex);
    glDeleteProgram(s->prog);
}

void point_attribs() {
    glEnableVertexAttribArray(0);
    glEnableVertexAttribArray(1);
    glVertexAttribPointer(0, 2, GL_FLOAT, GL_FALSE, sizeof(Vertex), reinterpret_cast<void *>(0));
    glVertexAttribPointer(1, 4, GL_UNSIGNED_BYTE, GL_TRUE, sizeof(Vertex), reinterpret_cast<void *>(8));
}

void quad(Vertex *v, float x0, float y0, float x1, float y1, uint32_t seed) {
    const float xs[4] = {x0, x1, x0, x1}, ys[4] = {y0, y0, y1, y1};
    for (int i = 0; i < 4; ++i)
        v[i] = {xs[i], ys[i], pattern(seed, 4 * i), pattern(seed, 4 * i + 1), pattern(seed, 4 * i + 2), 255};
}

float coord(uint32_t f, uint32_t k) { return static_cast<float>((f * k) % 160) / 100.0f - 0.8f; }

// Unpack state changes on some frames only, then a sub-image upload from
// client memory laid out for that state.
void upload(Scene &s, uint32_t f) {
    if (f % 2 == 0) s.align = 1 << ((f / 2) % 4);
    if (f % 3 == 0) s.row_length = (f / 3) % 2 ? 0 : 40;
    if (f % 5 == 0) s.skip_pixels = static_cast<int>((f / 5) % 3);
    if (f % 7 == 0) s.skip_rows = static_cast<int>((f / 7) % 4);
    glPixelStorei(GL_UNPACK_ALIGNMENT, s.align);
    glPixelStorei(GL_UNPACK_ROW_LENGTH, s.row_length);
    glPixelStorei(GL_UNPACK_SKIP_PIXELS, s.skip_pixels);
    glPixelStorei(GL_UNPACK_SKIP_ROWS, s.skip_rows);
    const int w = 5 + static_cast<int>(f % 17), h = 4 + static_cast<int>((f * 7) % 19);
    const int x = static_cast<int>((f * 5) % (kTex - w + 1)), y = static_cast<int>((f * 3) % (kTex - h + 1));
    const int rl = s.row_length ? s.row_length : w;
    const size_t stride = (static_cast<size_t>(rl) * 4 + s.align - 1) / s.align * s.align;
    std::vector<uint8_t> src(stride * static_cast<size_t>(s.skip_rows + h) + 64);
    for (size_t i = 0; i < src.size(); ++i)
        src[i] = pattern(f, i);
    glBindTexture(GL_TEXTURE_2D, s.tex);
    glTexSubImage2D(GL_TEXTURE_2D, 0, x, y, w, h, GL_RGBA, GL_UNSIGNED_BYTE, src.data());
}

void render(Scene &s, uint32_t f, int size) {
    glViewport(0, 0, size, size);
    glClearColor(static_cast<float>(f % 7) / 7.0f, 0.2f, static_cast<float>(f % 11) / 11.0f, 1.0f);
    glClear(GL_COLOR_BUFFER_BIT);
    glUseProgram(s.prog);
    glActiveTexture(GL_TEXTURE0);
    upload(s, f);

    // A vertex array made and dropped every frame, over the buffer that is
    // rewritten through a mapping.
    GLuint vao = 0;
    glGenVertexArrays(1, &vao);
    glBindVertexArray(vao);
    glBindBuffer(GL_ARRAY_BUFFER, s.vbo);
    const GLbitfield access =
        f % 4 == 0 ? GL_MAP_WRITE_BIT | GL_MAP_INVALIDATE_BUFFER_BIT | GL_MAP_FLUSH_EXPLICIT_BIT
                   : GL_MAP_WRITE_BIT | GL_MAP_INVALIDATE_RANGE_BIT;
    auto *v = static_cast<Vertex *>(glMapBufferRange(GL_ARRAY_BUFFER, 0, 8 * sizeof(Vertex), access));
    if (v) {
        quad(v, coord(f, 3), coord(f, 5), coord(f, 3) + 0.9f, coord(f, 5) + 0.7f, f);
        quad(v + 4, coord(f, 13), coord(f, 7), coord(f, 13) + 0.5f, coord(f, 7) + 1.0f, f + 1);
        if (access & GL_MAP_FLUSH_EXPLICIT_BIT)
            glFlushMappedBufferRange(GL_ARRAY_BUFFER, 0, 8 * sizeof(Vertex));
        glUnmapBuffer(GL_ARRAY_BUFFER);
    }
    point_attribs();
    glUniform1f(s.u_mix, 0.6f);
    glBindTexture(GL_TEXTURE_2D, s.tex);
    glDrawArrays(GL_TRIANGLE_STRIP, 0, 4);
    glUniform1f(s.u_mix, 0.0f);
    glDrawArrays(GL_TRIANGLE_STRIP, 4, 4);
    glBindVertexArray(0);
    glDeleteVertexArrays(1, &vao);

    // A buffer with its data given up front, drawn once and deleted, and a
    // texture made for one draw.
    Vertex tmp[4];
    quad(tmp, coord(f, 17), coord(f, 11), coord(f, 17) + 0.4f, coord(f, 11) + 0.4f, f + 2);
    GLuint buf = 0, tex = 0, vao2 = 0;
    glGenBuffers(1, &buf);
    glGenVertexArrays(1, &vao2);
    glBindVertexArray(vao2);
    glBindBuffer(GL_ARRAY_BUFFER, buf);
    glBufferData(GL_ARRAY_BUFFER, sizeof tmp, tmp, GL_STREAM_DRAW);
    point_attribs();
    glGenTextures(1, &tex);
    glBindTexture(GL_TEXTURE_2D, tex);
    uint8_t texels[4 * 4 * 4];
    for (size_t i = 0; i < sizeof texels; ++i)
        texels[i] = pattern(f + 3, i);
    glPixelStorei(GL_UNPACK_ROW_LENGTH, 0);
    glPixelStorei(GL_UNPACK_SKIP_PIXELS, 0);
    glPixelStorei(GL_UNPACK_SKIP_ROWS, 0);
    glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA8, 4, 4, 0, GL_RGBA, GL_UNSIGNED_BYTE, texels);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_NEAREST);
    glUniform1f(s.u_mix, 1.0f);
    glDrawArrays(GL_TRIANGLE_STRIP, 0, 4);
    glBindVertexArray(0);
    glDeleteVertexArrays(1, &vao2);
    glDeleteTextures(1, &tex);
    glDeleteBuffers(1, &buf);
    // The program's own unpack state stays what it set last.
    glPixelStorei(GL_UNPACK_ROW_LENGTH, s.row_length);
    glPixelStorei(GL_UNPACK_SKIP_PIXELS, s.skip_pixels);
    glPixelStorei(GL_UNPACK_SKIP_ROWS, s.skip_rows);

    // Every third frame a large buffer is mapped, written and deleted while
    // still mapped: the delete unmaps it.
    if (f % 3 == 0) {
        GLuint big = 0;
        const GLsizeiptr bytes = 64 * 1024;
        glGenBuffers(1, &big);
        glBindBuffer(GL_ARRAY_BUFFER, big);
        glBufferData(GL_ARRAY_BUFFER, bytes, nullptr, GL_DYNAMIC_DRAW);
        void *p = glMapBufferRange(GL_ARRAY_BUFFER, 0, bytes, GL_MAP_WRITE_BIT | GL_MAP_INVALIDATE_BUFFER_BIT);
        if (p)
            std::memset(p, static_cast<int>(f & 0xFF), static_cast<size_t>(bytes));
        glDeleteBuffers(1, &big);
    }
    glBindBuffer(GL_ARRAY_BUFFER, 0);
}

using UpdateMtrFn = void (*)(int);
using RecordCountsFn = void (*)(int *, int *);

}  // namespace

int main(int argc, char **argv) {
    Options opt;
    const int parsed = parse_args(argc, argv, &opt);
    if (parsed != 0)
        return parsed > 0 ? 0 : 2;

    const int threads_before = thread_count();
    Platform plat;
    if (!setup_platform(&plat, {"kam-soak-app", opt.size, opt.size, false})) {
        teardown_platform(&plat);
        return 1;
    }
    // Only a layer's host platform has these; directly on the driver the
    // program just renders.
    auto update_mtr = reinterpret_cast<UpdateMtrFn>(dlsym(RTLD_DEFAULT, "kam_platform_update_mtr"));
    auto record_counts = reinterpret_cast<RecordCountsFn>(dlsym(RTLD_DEFAULT, "kam_platform_record_counts"));

    Scene scene;
    bool ok = create_scene(&scene);
    if (!ok)
        std::fprintf(stderr, "kam-soak-app: could not create the scene\n");

    const size_t n = static_cast<size_t>(opt.size) * static_cast<size_t>(opt.size) * 4;
    std::vector<uint8_t> pixels(n);
    std::vector<long> rss;
    int toggles = 0;
    const double t0 = now_seconds();
    for (long frame = 0; ok && frame < opt.frames; ++frame) {
        if (frame == opt.warmup_after && opt.warmup_seconds > 0) {
            const double w0 = now_seconds();
            long warm = 0;
            auto offloaded = reinterpret_cast<int (*)()>(dlsym(RTLD_DEFAULT, "kam_platform_thread_offloaded"));
            while (ok && now_seconds() - w0 < opt.warmup_seconds && !(offloaded && offloaded())) {
                glClear(GL_COLOR_BUFFER_BIT);
                ok = eglSwapBuffers(plat.dpy, plat.surf) == EGL_TRUE;
                ++warm;
            }
            std::fprintf(stderr, "kam-soak-app: warm-up done after %ld frames\n", warm);
        }
        // Switched only after the warm-up, which is when the layer decides.
        if (update_mtr && opt.toggle_every > 0 && frame > opt.warmup_after &&
            (frame - opt.warmup_after) % opt.toggle_every == 0)
            update_mtr(++toggles % 2);

        const uint32_t f = static_cast<uint32_t>(frame);
        render(scene, f, opt.size);
        glPixelStorei(GL_PACK_ALIGNMENT, 1);
        glReadPixels(0, 0, opt.size, opt.size, GL_RGBA, GL_UNSIGNED_BYTE, pixels.data());
        std::printf("frame %ld %016llx\n", frame,
                    static_cast<unsigned long long>(fnv(1469598103934665603ull, pixels.data(), n)));
        if (!eglSwapBuffers(plat.dpy, plat.surf)) {
            egl_fail("eglSwapBuffers");
            ok = false;
        }
        if (frame >= opt.warmup_after)
            rss.push_back(rss_kb());
    }
    if (update_mtr)
        update_mtr(1);
    const GLenum err = glGetError();
    if (err != GL_NO_ERROR) {
        std::fprintf(stderr, "kam-soak-app: GL error 0x%04x during the run\n", err);
        ok = false;
    }
    const double seconds = now_seconds() - t0;
    destroy_scene(&scene);
    teardown_platform(&plat);
    std::fflush(stdout);

    const int threads_after = thread_count();
    long first = 0, second = 0, peak = 0;
    for (size_t i = 0; i < rss.size(); ++i) {
        long &half = i < rss.size() / 2 ? first : second;
        half = std::max(half, rss[i]);
        peak = std::max(peak, rss[i]);
    }
    std::fprintf(stderr,
                 "kam-soak-app: frames=%ld seconds=%.1f toggles=%d rss_peak_kb=%ld rss_final_kb=%ld "
                 "rss_first_half_max_kb=%ld rss_second_half_max_kb=%ld threads_before=%d threads_after=%d\n",
                 opt.frames, seconds, toggles, peak, rss_kb(), first, second, threads_before, threads_after);
    if (second > first + opt.rss_slack_kb) {
        std::fprintf(stderr, "kam-soak-app: resident memory kept growing: %ld kB more in the second half\n",
                     second - first);
        ok = false;
    }
    if (record_counts) {
        int contexts = -1, surfaces = -1;
        record_counts(&contexts, &surfaces);
        std::fprintf(stderr, "kam-soak-app: egl_context_records=%d egl_surface_records=%d\n", contexts, surfaces);
        if (contexts != 0 || surfaces != 0) {
            std::fprintf(stderr, "kam-soak-app: EGL records left behind\n");
            ok = false;
        }
    }
    return ok ? 0 : 1;
}
