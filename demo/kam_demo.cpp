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
#include "workload.h"

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
    long warmup = 60;
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
                 "  --toggle-every K  every K frames once offloaded, call kam_platform_update_mtr(0/1) if the layer exports it\n"
                 "  --until-offloaded N  through the layer: render until N frames were offloaded (over at least\n"
                 "                    a second), instead of --frames (an error if offload has not started after 60 seconds)\n"
                 "  --warmup N        without offload: frames left out of the steady figures (default 60)\n"
                 "  --png PATH        write a fixed check frame, rendered after the run, to PATH as PNG\n"
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
        } else if (arg == "--warmup") {
            const char *v = need_value("--warmup");
            if (!v) return -1;
            if (!parse_long(v, 0, 100000000L, &o->warmup)) return bad("--warmup", v);
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
    if (!create_scene(&scene, "kam-demo")) {
        destroy_scene(&scene);
        teardown_platform(&plat);
        return 1;
    }

    // Looked up at run time so the demo also runs directly on the driver,
    // where the symbol simply does not exist.
    UpdateMtrFn update_mtr = nullptr;
    if (opt.toggle_every > 0)
        update_mtr = reinterpret_cast<UpdateMtrFn>(dlsym(RTLD_DEFAULT, "kam_platform_update_mtr"));
    if (opt.until_offloaded > 0 && thread_offloaded() < 0) {
        std::fprintf(stderr, "kam-demo: --until-offloaded needs the layer's platform (run through kam-run)\n");
        destroy_scene(&scene);
        teardown_platform(&plat);
        return 2;
    }

    uint64_t work_iters = 0;
    if (opt.work_us > 0)
        work_iters = static_cast<uint64_t>(work_iterations_per_us() * static_cast<double>(opt.work_us));

    bool ok = true;
    int toggles = 0;

    // The steady part of the run: the frames rendered while offloaded when
    // the layer offloads this thread, else the frames after the warm-up.
    // The frames before offload starts run on the driver directly and say
    // nothing about the layer. The worker's CPU is read over the same frames.
    long steady_frames = 0, offloaded_frames = 0;
    double steady_wall = 0, steady_cpu = 0, worker_cpu = 0;
    pid_t worker = 0;
    double worker_at = 0;

    const double wall0 = clock_seconds(CLOCK_MONOTONIC);
    const double cpu0 = clock_seconds(CLOCK_THREAD_CPUTIME_ID);
    // Offloaded for at least a second as well: the layer's once-a-second
    // statistics line has then been printed, whatever the frame rate.
    double offloaded_since = 0;
    long frame = 0, first_offloaded = -1;
    for (;; ++frame) {
        if (opt.until_offloaded > 0 ? offloaded_frames >= opt.until_offloaded &&
                                          clock_seconds(CLOCK_MONOTONIC) - offloaded_since >= 1.0
                                    : frame >= opt.frames)
            break;
        if (opt.until_offloaded > 0 && offloaded_frames == 0 && clock_seconds(CLOCK_MONOTONIC) - wall0 > 60) {
            std::fprintf(stderr, "kam-demo: offload did not start within 60 seconds\n");
            ok = false;
            break;
        }
        const bool offloaded = thread_offloaded() == 1;
        if (offloaded && first_offloaded < 0) first_offloaded = frame;
        // Switched only once offload has been active: starting it takes the
        // meter seconds of steady frames, which a switch every K frames from
        // the first would never leave a slow (sanitized) run.
        if (update_mtr && first_offloaded >= 0 && frame > first_offloaded &&
            (frame - first_offloaded) % opt.toggle_every == 0) {
            update_mtr(toggles % 2);
            ++toggles;
        }
        const bool steady = offloaded || (thread_offloaded() < 0 && frame >= opt.warmup);
        if (offloaded && worker == 0 && (worker = find_worker_thread()) != 0) worker_at = thread_cpu_seconds(worker);
        if (offloaded && offloaded_since == 0) offloaded_since = clock_seconds(CLOCK_MONOTONIC);
        const double t0 = clock_seconds(CLOCK_MONOTONIC);
        const double c0 = clock_seconds(CLOCK_THREAD_CPUTIME_ID);

        render_frame(&scene, frame, opt.draws, surf_w, surf_h, work_iters);

        if (!eglSwapBuffers(plat.dpy, plat.surf)) {
            egl_fail("eglSwapBuffers");
            ok = false;
            break;
        }
        if (steady) {
            ++steady_frames;
            offloaded_frames += offloaded;
            steady_wall += clock_seconds(CLOCK_MONOTONIC) - t0;
            steady_cpu += clock_seconds(CLOCK_THREAD_CPUTIME_ID) - c0;
        }
    }
    if (worker) worker_cpu = thread_cpu_seconds(worker) - worker_at;
    const double cpu1 = clock_seconds(CLOCK_THREAD_CPUTIME_ID);
    glFinish();
    const double wall1 = clock_seconds(CLOCK_MONOTONIC);

    // The check frame has a fixed index, so runs of any length compare.
    std::vector<uint8_t> pixels;
    if (ok && !opt.png_path.empty()) {
        render_check_frame(&scene, opt.draws, surf_w, surf_h, &pixels);
        eglSwapBuffers(plat.dpy, plat.surf);
    }

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
        const double frames = static_cast<double>(frame);
        const double fps = seconds > 0 ? frames / seconds : 0.0;
        const double cpu_ms = frame ? (cpu1 - cpu0) * 1000.0 / frames : 0.0;
        const double sf = static_cast<double>(steady_frames);
        std::printf("frames=%ld seconds=%.3f fps=%.2f app_cpu_ms_per_frame=%.3f steady_frames=%ld "
                    "offloaded_frames=%ld steady_fps=%.2f steady_app_cpu_ms=%.3f worker_cpu_ms=%.3f\n",
                    frame, seconds, fps, cpu_ms, steady_frames, offloaded_frames,
                    steady_wall > 0 ? sf / steady_wall : 0.0, steady_frames ? steady_cpu * 1000.0 / sf : 0.0,
                    steady_frames && worker ? worker_cpu * 1000.0 / sf : 0.0);
    }
    return ok ? 0 : 1;
}
