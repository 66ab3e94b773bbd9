#pragma once

// The game-shaped frame that the demo and the frame benchmark both render:
// two programs, four textures, an indexed quad and a dynamic triangle buffer;
// per frame one texture upload and one buffer update; per draw uniform
// updates and frequent state changes (program, texture, blend, depth, vertex
// array), with "game logic" CPU work in slices between batches of draws.
// Rendering depends on nothing but the frame index and the draw count, so
// every run, with or without a layer, produces the same pixels.

#include <GLES3/gl3.h>

#include <sys/types.h>

#include <cstdint>
#include <vector>

namespace glesapp {

// Deterministic CPU work whose result never reaches rendering: a fixed
// iteration count costs the same CPU in every mode, like real game logic.
void busy_work(uint64_t iterations, uint64_t seed);
// Iterations per microsecond of this thread's CPU time, measured once.
double work_iterations_per_us();

struct Scene {
    GLuint prog[2] = {0, 0};
    GLint loc_offset_scale = -1, loc_depth = -1, loc_xform = -1;
    GLint loc_color[2] = {-1, -1};
    GLuint tex[4] = {};
    GLuint vao[2] = {0, 0};
    GLuint quad_vbo = 0, quad_ebo = 0, tri_vbo = 0;
    std::vector<uint8_t> upload;
    std::vector<float> tri_vertices;
};

// On failure it has said why on stderr (prefixed with who).
bool create_scene(Scene *s, const char *who);
void destroy_scene(Scene *s);

// Wall time the application thread spent in a frame's game logic (seconds),
// added to by render_frame when given.
struct FrameLogic {
    double seconds = 0;
};

void render_frame(Scene *s, long frame, long draws, int width, int height, uint64_t work_iters,
                  FrameLogic *logic = nullptr, bool logic_first = false);

// Renders the fixed check frame and returns a checksum of its pixels (read
// back before the swap, which the caller then does); the pixels go to *px.
uint64_t render_check_frame(Scene *s, long draws, int width, int height, std::vector<uint8_t> *px);

// CPU seconds of another thread of this process (0 when it is gone).
double thread_cpu_seconds(pid_t tid);
// The thread of this process, other than the caller, that carries the
// caller's thread name: the layer's worker, named after the thread that
// created the context. 0 when there is none.
pid_t find_worker_thread();

// The host platform's answer to "are this thread's GL calls offloaded?",
// looked up at run time so that the program runs on the plain driver too,
// where it answers -1.
int thread_offloaded();

}  // namespace glesapp
