#include "workload.h"

#include <dirent.h>
#include <dlfcn.h>
#include <sys/prctl.h>
#include <time.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include "gles_window.h"

namespace glesapp {

namespace {

constexpr long kCheckFrame = 12345;

const char *kVsOffset = R"(#version 300 es
layout(location = 0) in vec2 a_pos;
layout(location = 1) in vec2 a_uv;
uniform vec4 u_offset_scale;
uniform float u_depth;
out vec2 v_uv;
void main() {
    v_uv = a_uv;
    gl_Position = vec4(a_pos * u_offset_scale.zw + u_offset_scale.xy, u_depth, 1.0);
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
    o_color = vec4(mix(u_color.rgb, t.bgr, 0.45) * (0.6 + 0.4 * v_uv.y), u_color.a);
}
)";

constexpr int kTexSize = 64;
constexpr int kNumTextures = 4;
constexpr int kNumTriangles = 16;
constexpr int kFloatsPerVertex = 4;
static_assert(sizeof(Scene::tex) / sizeof(GLuint) == kNumTextures, "one name per texture");

void fill_texture(long seed, std::vector<uint8_t> *px) {
    px->resize(kTexSize * kTexSize * 4);
    const unsigned f = static_cast<unsigned>(seed);
    for (unsigned y = 0; y < kTexSize; ++y)
        for (unsigned x = 0; x < kTexSize; ++x) {
            uint8_t *p = px->data() + (y * kTexSize + x) * 4;
            p[0] = static_cast<uint8_t>(((x + f * 2) ^ y) * 4);
            p[1] = static_cast<uint8_t>((x * y + f * 5) & 0xFF);
            p[2] = static_cast<uint8_t>(((y + f) ^ (x * 3)) * 3);
            p[3] = 255;
        }
}

// Integer arithmetic only, so that every mode uploads the same bytes.
void fill_triangles(long frame, std::vector<float> *v) {
    v->resize(kNumTriangles * 3 * kFloatsPerVertex);
    for (int i = 0; i < kNumTriangles; ++i)
        for (int k = 0; k < 3; ++k) {
            const int a = static_cast<int>((frame * 3 + i * 37 + k * 120) % 360);
            float *p = v->data() + (i * 3 + k) * kFloatsPerVertex;
            const double rad = a * M_PI / 180.0;
            p[0] = static_cast<float>(0.9 * std::cos(rad));
            p[1] = static_cast<float>(0.9 * std::sin(rad));
            p[2] = static_cast<float>(k == 1);
            p[3] = static_cast<float>(k == 2);
        }
}

// Per-draw values come from small integer tables so that they are cheap
// (the workload is the GL call stream, not trigonometry) and identical in
// every mode.
float unit(long i, int salt) { return static_cast<float>((i * 2654435761u + salt * 40503u) % 1000u) / 1000.0f; }

std::string thread_name(const std::string &task) {
    std::ifstream f("/proc/self/task/" + task + "/comm");
    std::string name;
    std::getline(f, name);
    return name;
}

volatile double g_work_sink = 0.0;

}  // namespace

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

double work_iterations_per_us() {
    uint64_t iters = 1u << 14;
    for (;;) {
        double t0 = clock_seconds(CLOCK_THREAD_CPUTIME_ID);
        busy_work(iters, 7);
        double dt = clock_seconds(CLOCK_THREAD_CPUTIME_ID) - t0;
        if (dt >= 0.05 || iters >= (1ull << 34)) return dt > 0 ? static_cast<double>(iters) / (dt * 1e6) : 1000.0;
        iters *= 2;
    }
}

bool create_scene(Scene *s, const char *who) {
    s->prog[0] = link_program(kVsOffset, kFsOffset, "offset/scale");
    s->prog[1] = link_program(kVsMatrix, kFsMatrix, "matrix");
    if (!s->prog[0] || !s->prog[1]) return false;
    s->loc_offset_scale = glGetUniformLocation(s->prog[0], "u_offset_scale");
    s->loc_depth = glGetUniformLocation(s->prog[0], "u_depth");
    s->loc_color[0] = glGetUniformLocation(s->prog[0], "u_color");
    s->loc_xform = glGetUniformLocation(s->prog[1], "u_xform");
    s->loc_color[1] = glGetUniformLocation(s->prog[1], "u_color");
    for (GLuint p : s->prog) {
        glUseProgram(p);
        glUniform1i(glGetUniformLocation(p, "u_tex"), 0);
    }
    glGenTextures(kNumTextures, s->tex);
    std::vector<uint8_t> px;
    for (int i = 0; i < kNumTextures; ++i) {
        fill_texture(1000 + i * 77, &px);
        glBindTexture(GL_TEXTURE_2D, s->tex[i]);
        glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA8, kTexSize, kTexSize, 0, GL_RGBA, GL_UNSIGNED_BYTE, px.data());
        glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
        glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_LINEAR);
    }
    static const float quad[] = {-1, -1, 0, 0, 1, -1, 1, 0, 1, 1, 1, 1, -1, 1, 0, 1};
    static const GLushort quad_idx[] = {0, 1, 2, 0, 2, 3};
    const GLsizei stride = kFloatsPerVertex * sizeof(float);
    const void *uv = reinterpret_cast<const void *>(2 * sizeof(float));
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
    glVertexAttribPointer(1, 2, GL_FLOAT, GL_FALSE, stride, uv);
    fill_triangles(0, &s->tri_vertices);
    glBindVertexArray(s->vao[1]);
    glBindBuffer(GL_ARRAY_BUFFER, s->tri_vbo);
    glBufferData(GL_ARRAY_BUFFER, static_cast<GLsizeiptr>(s->tri_vertices.size() * sizeof(float)),
                 s->tri_vertices.data(), GL_DYNAMIC_DRAW);
    glEnableVertexAttribArray(0);
    glVertexAttribPointer(0, 2, GL_FLOAT, GL_FALSE, stride, nullptr);
    glEnableVertexAttribArray(1);
    glVertexAttribPointer(1, 2, GL_FLOAT, GL_FALSE, stride, uv);
    glBindVertexArray(0);
    GLenum err = glGetError();
    if (err != GL_NO_ERROR) {
        std::fprintf(stderr, "%s: GL error 0x%04x while creating the scene\n", who, err);
        return false;
    }
    return true;
}

void destroy_scene(Scene *s) {
    glBindVertexArray(0);
    glUseProgram(0);
    if (s->vao[0] || s->vao[1]) glDeleteVertexArrays(2, s->vao);
    if (s->quad_vbo) glDeleteBuffers(1, &s->quad_vbo);
    if (s->quad_ebo) glDeleteBuffers(1, &s->quad_ebo);
    if (s->tri_vbo) glDeleteBuffers(1, &s->tri_vbo);
    if (s->tex[0]) glDeleteTextures(kNumTextures, s->tex);
    for (GLuint p : s->prog)
        if (p) glDeleteProgram(p);
    *s = Scene{};
}

void render_frame(Scene *s, long frame, long draws, int width, int height, uint64_t work_iters, FrameLogic *logic,
                  bool logic_first) {
    // Game logic runs in slices between batches of draws, as in an engine
    // that interleaves simulation and submission on one thread, or all of it
    // before the first GL call, as in one that updates, then renders.
    constexpr long kSlices = 8;
    long next_slice = 0;
    auto run_slices_until = [&](long upto) {
        for (; next_slice < upto; ++next_slice) {
            uint64_t n = work_iters / kSlices + (static_cast<uint64_t>(next_slice) < work_iters % kSlices ? 1 : 0);
            if (!n) continue;
            const double t0 = logic ? clock_seconds(CLOCK_MONOTONIC) : 0;
            busy_work(n, static_cast<uint64_t>(frame * kSlices + next_slice));
            if (logic) logic->seconds += clock_seconds(CLOCK_MONOTONIC) - t0;
        }
    };
    if (logic_first) run_slices_until(kSlices);

    glViewport(0, 0, width, height);
    glClearColor(0.1f, 0.12f, 0.18f, 1.0f);
    glClearDepthf(1.0f);
    glDepthMask(GL_TRUE);
    glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);

    // Streaming uploads, as a game's animated texture and particle vertices.
    fill_texture(frame, &s->upload);
    glActiveTexture(GL_TEXTURE0);
    glBindTexture(GL_TEXTURE_2D, s->tex[0]);
    glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, kTexSize, kTexSize, GL_RGBA, GL_UNSIGNED_BYTE, s->upload.data());
    fill_triangles(frame, &s->tri_vertices);
    glBindBuffer(GL_ARRAY_BUFFER, s->tri_vbo);
    glBufferSubData(GL_ARRAY_BUFFER, 0, static_cast<GLsizeiptr>(s->tri_vertices.size() * sizeof(float)),
                    s->tri_vertices.data());

    glBlendFuncSeparate(GL_SRC_ALPHA, GL_ONE_MINUS_SRC_ALPHA, GL_ZERO, GL_ONE);
    glDepthFunc(GL_LEQUAL);
    glDisable(GL_BLEND);
    glDisable(GL_DEPTH_TEST);

    long cols = static_cast<long>(std::ceil(std::sqrt(static_cast<double>(draws) * width / height)));
    if (cols < 1) cols = 1;
    const long rows = (draws + cols - 1) / cols;
    const float cw = 2.0f / static_cast<float>(cols), ch = 2.0f / static_cast<float>(rows);

    int cur_prog = -1, cur_tex = 0, cur_vao = -1;
    bool blend = false, depth = false;
    for (long i = 0; i < draws; ++i) {
        if (work_iters) run_slices_until(i * kSlices / draws + 1);
        const int want_prog = static_cast<int>((i / 24) % 2);
        const int want_tex = static_cast<int>((i / 5 + frame / 30) % kNumTextures);
        const bool want_blend = (i / 7) % 3 == 0;
        const bool want_depth = (i / 11) % 2 == 0;
        const int want_vao = (i % 3 == 2) ? 1 : 0;
        if (want_prog != cur_prog) glUseProgram(s->prog[cur_prog = want_prog]);
        if (want_tex != cur_tex) glBindTexture(GL_TEXTURE_2D, s->tex[cur_tex = want_tex]);
        if (want_blend != blend) {
            (want_blend ? glEnable : glDisable)(GL_BLEND);
            blend = want_blend;
        }
        if (want_depth != depth) {
            (want_depth ? glEnable : glDisable)(GL_DEPTH_TEST);
            depth = want_depth;
        }
        if (want_vao != cur_vao) glBindVertexArray(s->vao[cur_vao = want_vao]);

        const float cx = -1.0f + (static_cast<float>(i % cols) + 0.5f) * cw + 0.2f * cw * (unit(i + frame, 1) - 0.5f);
        const float cy = -1.0f + (static_cast<float>(i / cols) + 0.5f) * ch + 0.2f * ch * (unit(i + frame, 2) - 0.5f);
        const float scale = 0.3f + 0.15f * unit(i, 3);
        glUniform4f(s->loc_color[want_prog], unit(i, 4), unit(i, 5), unit(i, 6), want_blend ? 0.55f : 1.0f);
        if (want_prog == 0) {
            glUniform1f(s->loc_depth, unit(i, 7) * 2.0f - 1.0f);
            glUniform4f(s->loc_offset_scale, cx, cy, scale * cw, scale * ch);
        } else {
            const float c = unit(i + frame, 8) * 2 - 1, sn = std::sqrt(1 - c * c);
            const float sx = scale * cw, sy = scale * ch;
            const float m[16] = {c * sx, sn * sy, 0, 0, -sn * sx, c * sy, 0, 0, 0, 0, 1, 0, cx, cy, 0, 1};
            glUniformMatrix4fv(s->loc_xform, 1, GL_FALSE, m);
        }
        if (want_vao == 0)
            glDrawElements(GL_TRIANGLES, 6, GL_UNSIGNED_SHORT, nullptr);
        else
            glDrawArrays(GL_TRIANGLES, static_cast<GLint>((i + frame) % kNumTriangles) * 3, 3);
    }
    if (work_iters) run_slices_until(kSlices);
    glBindVertexArray(0);
    glDisable(GL_BLEND);
    glDisable(GL_DEPTH_TEST);
}

uint64_t render_check_frame(Scene *s, long draws, int width, int height, std::vector<uint8_t> *px) {
    render_frame(s, kCheckFrame, draws, width, height, 0);
    px->assign(static_cast<size_t>(width) * height * 4, 0);
    glPixelStorei(GL_PACK_ALIGNMENT, 1);
    glReadPixels(0, 0, width, height, GL_RGBA, GL_UNSIGNED_BYTE, px->data());
    uint64_t sum = 1469598103934665603ull;
    for (uint8_t b : *px) sum = (sum ^ b) * 1099511628211ull;
    return sum;
}

double thread_cpu_seconds(pid_t tid) {
    // The kernel's CPU clock of one thread of this process (what
    // pthread_getcpuclockid builds from a thread id).
    const clockid_t id = static_cast<clockid_t>((~static_cast<unsigned>(tid) << 3) | 6);
    timespec ts{};
    if (clock_gettime(id, &ts) != 0) return 0;
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

pid_t find_worker_thread() {
    char self[16] = {};
    prctl(PR_GET_NAME, self, 0, 0, 0);
    const std::string me = std::to_string(gettid());
    pid_t found = 0;
    DIR *d = opendir("/proc/self/task");
    if (!d) return 0;
    while (dirent *e = readdir(d)) {
        if (e->d_name[0] == '.' || me == e->d_name) continue;
        if (thread_name(e->d_name) == self) found = static_cast<pid_t>(std::atol(e->d_name));
    }
    closedir(d);
    return found;
}

int thread_offloaded() {
    using Fn = int (*)();
    static Fn fn = reinterpret_cast<Fn>(dlsym(RTLD_DEFAULT, "kam_platform_thread_offloaded"));
    return fn ? fn() : -1;
}

}  // namespace glesapp
