// kam_frame_bench: the same CPU-bound, game-shaped GLES 3 frame in three
// modes in one invocation, to show what the layer buys the render thread.
//
//   direct    the system's libEGL/libGLESv2, no layer
//   kam       through kam-run (the host platform and the layer), measured
//             only once offload is active
//   glthread  direct, with Mesa's own GL threading (mesa_glthread=true)
//
// The parent re-executes itself once per mode and round (modes alternate
// within a round, so slow drifts of a shared machine hit every mode alike),
// gives every child the same llvmpipe thread count and the same calibrated
// amount of "game logic", and collects one result line from each. Every
// child renders one extra frame with a fixed index after its measurement and
// reports a checksum of its pixels; all checksums must agree, since a
// benchmark of a layer that renders wrongly is worthless.

#include <EGL/egl.h>
#include <GLES3/gl3.h>
#include <dirent.h>
#include <fcntl.h>
#include <malloc.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "gles_window.h"
#include "workload.h"

extern char **environ;

using namespace glesapp;

namespace {

// The render thread's name: the layer names its worker after the thread that
// created the context. Threads the driver starts inherit it too, so the
// worker shows as a new thread with this name once the driver's are there.
constexpr const char *kThreadName = "kfb-render";

struct Options {
    long draws = 2000;
    long work_us = -1;       // -1: not given
    double work_ratio = -1;  // app work as a multiple of direct driver time per frame
    long work_iters = -1;    // children: calibrated by the parent
    long frames = 200;
    long warmup = 30;
    long rounds = 3;
    int width = 320;
    int height = 240;
    int lp_threads = -1;  // -1: not given, the number of CPUs
    double offload_timeout_s = 30;
    bool logic_first = false;
    bool csv = false;
    bool csv_header = true;
    std::string modes = "direct,kam,glthread";
    std::string kam_run;
    std::string child_mode;  // set in a child
};

void usage(FILE *out) {
    std::fprintf(out,
                 "usage: kam_frame_bench [options]\n"
                 "  --draws N          draw calls per frame (default 2000)\n"
                 "  --work-us U        game-logic CPU work per frame in microseconds (default 0)\n"
                 "  --work-ratio R     instead: R times the direct mode's app-thread time per frame at no work\n"
                 "                     (measured by an extra direct run first)\n"
                 "  --logic-first      all game logic before the frame's first GL call (update, then render)\n"
                 "                     instead of in eight slices between the draws\n"
                 "  --frames F         measured frames per run (default 200)\n"
                 "  --warmup W         full frames before measuring (default 30; kam first runs light frames until\n"
                 "                     offload is active)\n"
                 "  --size WxH         window size (default 320x240)\n"
                 "  --rounds R         rounds over the modes (default 3)\n"
                 "  --modes LIST       comma-separated subset of direct,kam,glthread\n"
                 "  --lp-threads T     LP_NUM_THREADS for every mode (default: the number of CPUs; 0 rasterizes on the\n"
                 "                     thread that calls the driver)\n"
                 "  --kam-run PATH     the layer's launcher (default: ../kam-run next to this program)\n"
                 "  --offload-timeout S  give up waiting for offload after S seconds (default 30)\n"
                 "  --csv              CSV (header + one row per mode) instead of the table\n"
                 "  --no-header        with --csv, no header row\n");
}


bool parse_double(const char *s, double min, double max, double *out) {
    if (!s || !*s) return false;
    char *end = nullptr;
    double v = std::strtod(s, &end);
    if (*end != '\0' || !(v >= min && v <= max)) return false;
    *out = v;
    return true;
}

bool parse_size(const char *s, int *w, int *h) {
    const char *x = std::strchr(s, 'x');
    if (!x) return false;
    long lw = 0, lh = 0;
    if (!parse_long(std::string(s, x - s).c_str(), 1, 8192, &lw) || !parse_long(x + 1, 1, 8192, &lh)) return false;
    *w = static_cast<int>(lw);
    *h = static_cast<int>(lh);
    return true;
}

int parse_args(int argc, char **argv, Options *o) {
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        auto value = [&]() -> const char * { return i + 1 < argc ? argv[++i] : nullptr; };
        auto bad = [&](const char *v) {
            std::fprintf(stderr, "kam_frame_bench: bad or missing value for %s: '%s'\n", arg.c_str(), v ? v : "");
            return -1;
        };
        long l = 0;
        if (arg == "--help" || arg == "-h") {
            usage(stdout);
            return 1;
        } else if (arg == "--logic-first") {
            o->logic_first = true;
        } else if (arg == "--csv") {
            o->csv = true;
        } else if (arg == "--no-header") {
            o->csv_header = false;
        } else if (arg == "--draws") {
            const char *v = value();
            if (!parse_long(v, 1, 10000000L, &o->draws)) return bad(v);
        } else if (arg == "--work-us") {
            const char *v = value();
            if (!parse_long(v, 0, 10000000L, &o->work_us)) return bad(v);
        } else if (arg == "--work-ratio") {
            const char *v = value();
            if (!parse_double(v, 0, 1000, &o->work_ratio)) return bad(v);
        } else if (arg == "--work-iters") {
            const char *v = value();
            if (!parse_long(v, 0, 1L << 50, &o->work_iters)) return bad(v);
        } else if (arg == "--frames") {
            const char *v = value();
            if (!parse_long(v, 1, 100000000L, &o->frames)) return bad(v);
        } else if (arg == "--warmup") {
            const char *v = value();
            if (!parse_long(v, 0, 100000000L, &o->warmup)) return bad(v);
        } else if (arg == "--rounds") {
            const char *v = value();
            if (!parse_long(v, 1, 1000, &o->rounds)) return bad(v);
        } else if (arg == "--lp-threads") {
            const char *v = value();
            if (!parse_long(v, 0, 64, &l)) return bad(v);
            o->lp_threads = static_cast<int>(l);
        } else if (arg == "--offload-timeout") {
            const char *v = value();
            if (!parse_double(v, 1, 3600, &o->offload_timeout_s)) return bad(v);
        } else if (arg == "--size") {
            const char *v = value();
            if (!v || !parse_size(v, &o->width, &o->height)) return bad(v);
        } else if (arg == "--modes") {
            const char *v = value();
            if (!v || !*v) return bad(v);
            o->modes = v;
        } else if (arg == "--kam-run") {
            const char *v = value();
            if (!v || !*v) return bad(v);
            o->kam_run = v;
        } else if (arg == "--child") {
            const char *v = value();
            if (!v || !*v) return bad(v);
            o->child_mode = v;
        } else {
            std::fprintf(stderr, "kam_frame_bench: unknown option '%s'\n", argv[i]);
            usage(stderr);
            return -1;
        }
    }
    if (o->work_us >= 0 && o->work_ratio >= 0) {
        std::fprintf(stderr, "kam_frame_bench: --work-us and --work-ratio exclude each other\n");
        return -1;
    }
    return 0;
}


// Counts the threads of this process that carry the render thread's name.
int threads_named_like_us() {
    int n = 0;
    DIR *d = opendir("/proc/self/task");
    if (!d) return 0;
    while (dirent *e = readdir(d)) {
        if (e->d_name[0] == '.') continue;
        std::ifstream f(std::string("/proc/self/task/") + e->d_name + "/comm");
        std::string name;
        std::getline(f, name);
        if (name == kThreadName) ++n;
    }
    closedir(d);
    return n;
}

int run_child(const Options &o) {
    // See kam-demo: with glibc's default trim threshold llvmpipe's per-frame
    // allocations are handed back to the kernel and refaulted every frame.
    mallopt(M_TRIM_THRESHOLD, 256 * 1024 * 1024);
    prctl(PR_SET_NAME, kThreadName, 0, 0, 0);

    Platform plat;
    if (!setup_platform(&plat, {"kam_frame_bench", o.width, o.height, true})) {
        teardown_platform(&plat);
        return 1;
    }
    Scene scene;
    if (!create_scene(&scene, "kam_frame_bench")) {
        teardown_platform(&plat);
        return 1;
    }
    const uint64_t work_iters = o.work_iters > 0 ? static_cast<uint64_t>(o.work_iters) : 0;
    const bool want_offload = o.child_mode == "kam";

    long frame = 0;
    bool ok = true;
    // Where the application thread's time goes, summed over the measured
    // frames: game logic, GL calls (through the layer: recording, and at the
    // frame's first call waiting until the worker has finished the frame
    // before), and the swap (through the layer: queueing it).
    FrameLogic logic;
    double gl_s = 0, swap_s = 0;
    bool measuring = false;
    auto one_frame = [&](long index, long draws, uint64_t iters) {
        const double t0 = clock_seconds(CLOCK_MONOTONIC);
        const double logic0 = logic.seconds;
        render_frame(&scene, index, draws, o.width, o.height, iters, measuring ? &logic : nullptr, o.logic_first);
        const double t1 = clock_seconds(CLOCK_MONOTONIC);
        if (!eglSwapBuffers(plat.dpy, plat.surf)) {
            egl_fail("eglSwapBuffers");
            ok = false;
        }
        if (measuring) {
            gl_s += (t1 - t0) - (logic.seconds - logic0);
            swap_s += clock_seconds(CLOCK_MONOTONIC) - t1;
        }
    };

    // Through the layer, offload starts only after the frame-rate meter has
    // seen three one-second periods above its minimum rate, which the
    // heaviest settings here do not reach. So the kam mode first runs light
    // frames (like a game's menu before the level) until the worker exists,
    // and a few more so that it is current on the real context.
    int offload = -1;
    if (want_offload) {
        const long light = std::min(o.draws, 500L);
        const double t0 = clock_seconds(CLOCK_MONOTONIC);
        int baseline_threads = 0;
        long after_start = -1;
        for (; ok && clock_seconds(CLOCK_MONOTONIC) - t0 < o.offload_timeout_s; ++frame) {
            if (frame == 2) baseline_threads = threads_named_like_us();
            if (frame > 2 && after_start < 0 && threads_named_like_us() > baseline_threads) after_start = frame;
            if (after_start >= 0 && frame - after_start >= 5) break;
            one_frame(frame, light, 0);
        }
        offload = after_start >= 0 ? 1 : 0;
    }
    // The same warm-up at full load in every mode.
    for (long k = 0; k < o.warmup && ok; ++k, ++frame) one_frame(frame, o.draws, work_iters);
    std::fprintf(stderr, "kfb: measuring from frame %ld\n", frame);

    std::vector<double> frame_ms;
    frame_ms.reserve(static_cast<size_t>(o.frames));
    const pid_t worker = want_offload ? find_worker_thread() : 0;
    const double worker0 = worker ? thread_cpu_seconds(worker) : 0;
    measuring = true;
    const double cpu0 = clock_seconds(CLOCK_THREAD_CPUTIME_ID);
    const double proc0 = clock_seconds(CLOCK_PROCESS_CPUTIME_ID);
    const double wall0 = clock_seconds(CLOCK_MONOTONIC);
    double prev = wall0;
    for (long k = 0; k < o.frames && ok; ++k, ++frame) {
        one_frame(frame, o.draws, work_iters);
        const double now = clock_seconds(CLOCK_MONOTONIC);
        frame_ms.push_back((now - prev) * 1e3);
        prev = now;
    }
    const double cpu1 = clock_seconds(CLOCK_THREAD_CPUTIME_ID);
    measuring = false;
    glFinish();
    const double wall1 = clock_seconds(CLOCK_MONOTONIC);
    const double proc1 = clock_seconds(CLOCK_PROCESS_CPUTIME_ID);
    const double worker_s = worker ? thread_cpu_seconds(worker) - worker0 : -1e-3 * static_cast<double>(o.frames);

    // The check frame: fixed index, read back before the swap.
    std::vector<uint8_t> px;
    const uint64_t sum = render_check_frame(&scene, o.draws, o.width, o.height, &px);
    GLenum err = glGetError();
    if (err != GL_NO_ERROR) {
        std::fprintf(stderr, "kam_frame_bench: GL error 0x%04x\n", err);
        ok = false;
    }
    std::string version = std::string(reinterpret_cast<const char *>(glGetString(GL_VERSION))) + " | " +
                          reinterpret_cast<const char *>(glGetString(GL_RENDERER));
    eglSwapBuffers(plat.dpy, plat.surf);
    teardown_platform(&plat);
    if (!ok || frame_ms.empty()) return 1;

    std::printf("VERSION %s\n", version.c_str());
    std::sort(frame_ms.begin(), frame_ms.end());
    const size_t n = frame_ms.size();
    const double median = n % 2 ? frame_ms[n / 2] : 0.5 * (frame_ms[n / 2 - 1] + frame_ms[n / 2]);
    const double p99 = frame_ms[std::min(n - 1, static_cast<size_t>(std::ceil(0.99 * n)) - 1)];
    std::printf("RESULT mode=%s fps=%.3f frame_ms_median=%.4f frame_ms_p99=%.4f app_cpu_ms=%.4f proc_cpu_ms=%.4f "
                "offload=%d checksum=%016llx logic_ms=%.4f gl_ms=%.4f swap_ms=%.4f worker_ms=%.4f\n",
                o.child_mode.c_str(), static_cast<double>(n) / (wall1 - wall0), median, p99,
                (cpu1 - cpu0) * 1e3 / static_cast<double>(n), (proc1 - proc0) * 1e3 / static_cast<double>(n), offload,
                static_cast<unsigned long long>(sum), logic.seconds * 1e3 / static_cast<double>(n),
                gl_s * 1e3 / static_cast<double>(n), swap_s * 1e3 / static_cast<double>(n),
                worker_s * 1e3 / static_cast<double>(n));
    return 0;
}

// ---------------------------------------------------------------------------
// Parent

struct Result {
    double fps = 0, median = 0, p99 = 0, app_cpu = 0, proc_cpu = 0;
    double logic = 0, gl = 0, swap = 0, worker = -1;
    int offload = -1;
    std::string checksum, version;
    bool ok = false;
    std::string why;
};

std::string self_path() {
    char buf[4096];
    ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
    if (n <= 0) return "";
    buf[n] = 0;
    return buf;
}

std::string read_file(const std::string &path) {
    std::ifstream f(path);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

std::string field(const std::string &line, const std::string &key) {
    size_t p = line.find(" " + key + "=");
    if (p == std::string::npos) return "";
    p += key.size() + 2;
    return line.substr(p, line.find(' ', p) - p);
}

// Runs one child and parses its result line. The layer's log (stderr, with
// --verbose) must show the worker started before the child began measuring.
Result run_mode(const Options &o, const std::string &mode, long work_iters, long frames, const std::string &tmpdir) {
    Result r;
    const std::string self = self_path();
    std::vector<std::string> args;
    if (mode == "kam") args = {o.kam_run, "--verbose"};
    args.insert(args.end(), {self, "--child", mode, "--draws", std::to_string(o.draws), "--work-iters",
                             std::to_string(work_iters), "--frames", std::to_string(frames), "--warmup",
                             std::to_string(o.warmup), "--size",
                             std::to_string(o.width) + "x" + std::to_string(o.height), "--offload-timeout",
                             std::to_string(o.offload_timeout_s)});
    if (o.logic_first) args.push_back("--logic-first");

    std::vector<std::string> env;
    for (char **e = environ; *e; ++e) {
        std::string v = *e;
        if (v.rfind("mesa_glthread=", 0) == 0 || v.rfind("LP_NUM_THREADS=", 0) == 0 || v.rfind("KAM_", 0) == 0)
            continue;
        env.push_back(v);
    }
    env.push_back("LP_NUM_THREADS=" + std::to_string(o.lp_threads));
    if (mode == "glthread") env.push_back("mesa_glthread=true");

    const std::string out_path = tmpdir + "/" + mode + ".out", err_path = tmpdir + "/" + mode + ".err";
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 1, out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&fa, 2, err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    std::vector<char *> argv, envp;
    for (auto &a : args) argv.push_back(const_cast<char *>(a.c_str()));
    argv.push_back(nullptr);
    for (auto &e : env) envp.push_back(const_cast<char *>(e.c_str()));
    envp.push_back(nullptr);
    pid_t pid = 0;
    int rc = posix_spawn(&pid, argv[0], &fa, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&fa);
    if (rc != 0) {
        r.why = std::string("cannot start ") + argv[0] + ": " + std::strerror(rc);
        return r;
    }
    int status = 0;
    waitpid(pid, &status, 0);
    const std::string out = read_file(out_path), err = read_file(err_path);
    size_t at = out.find("RESULT ");
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0 || at == std::string::npos) {
        r.why = "child failed: " + err.substr(err.size() > 600 ? err.size() - 600 : 0);
        return r;
    }
    std::string line = out.substr(at, out.find('\n', at) - at) + " ";
    size_t v = out.find("VERSION ");
    if (v != std::string::npos) r.version = out.substr(v + 8, out.find('\n', v) - v - 8);
    r.fps = std::atof(field(line, "fps").c_str());
    r.median = std::atof(field(line, "frame_ms_median").c_str());
    r.p99 = std::atof(field(line, "frame_ms_p99").c_str());
    r.app_cpu = std::atof(field(line, "app_cpu_ms").c_str());
    r.proc_cpu = std::atof(field(line, "proc_cpu_ms").c_str());
    r.offload = std::atoi(field(line, "offload").c_str());
    r.logic = std::atof(field(line, "logic_ms").c_str());
    r.gl = std::atof(field(line, "gl_ms").c_str());
    r.swap = std::atof(field(line, "swap_ms").c_str());
    r.worker = std::atof(field(line, "worker_ms").c_str());
    r.checksum = field(line, "checksum");
    if (mode == "kam") {
        size_t started = err.find("KAMWorker started -> ");
        size_t measuring = err.find("kfb: measuring");
        if (r.offload != 1 || started == std::string::npos || started > measuring) {
            r.why = "offload was not active when measuring began (is the frame rate below the layer's minimum?)";
            return r;
        }
        if (err.find("is stopped") != std::string::npos) {
            r.why = "offload stopped during the run";
            return r;
        }
    }
    r.ok = true;
    return r;
}

double median_of(std::vector<double> v) {
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    const size_t n = v.size();
    return n % 2 ? v[n / 2] : 0.5 * (v[n / 2 - 1] + v[n / 2]);
}

int run_parent(Options o) {
    if (o.lp_threads < 0) o.lp_threads = static_cast<int>(sysconf(_SC_NPROCESSORS_ONLN));
    if (o.kam_run.empty()) {
        std::string self = self_path();
        std::string dir = self.substr(0, self.rfind('/'));
        o.kam_run = dir.substr(0, dir.rfind('/')) + "/kam-run";
    }
    std::vector<std::string> modes;
    {
        std::stringstream ss(o.modes);
        std::string m;
        while (std::getline(ss, m, ','))
            if (m == "direct" || m == "kam" || m == "glthread") {
                modes.push_back(m);
            } else {
                std::fprintf(stderr, "kam_frame_bench: unknown mode '%s'\n", m.c_str());
                return 2;
            }
    }
    if (access(o.kam_run.c_str(), X_OK) != 0 &&
        std::find(modes.begin(), modes.end(), "kam") != modes.end()) {
        std::fprintf(stderr, "kam_frame_bench: %s is not executable (use --kam-run)\n", o.kam_run.c_str());
        return 2;
    }
    char tmpl[] = "/tmp/kam_frame_bench.XXXXXX";
    if (!mkdtemp(tmpl)) {
        std::perror("mkdtemp");
        return 1;
    }
    const std::string tmpdir = tmpl;

    const double ipu = work_iterations_per_us();
    long work_us = o.work_us > 0 ? o.work_us : 0;
    double direct_driver_ms = -1;
    if (o.work_ratio > 0) {
        // The "driver work" a ratio refers to: the direct mode's app-thread
        // time per frame with no game logic.
        Result cal = run_mode(o, "direct", 0, std::max(20L, o.frames / 2), tmpdir);
        if (!cal.ok) {
            std::fprintf(stderr, "kam_frame_bench: calibration run: %s\n", cal.why.c_str());
            return 1;
        }
        direct_driver_ms = cal.app_cpu;
        work_us = std::lround(o.work_ratio * cal.app_cpu * 1000.0);
    }
    const long work_iters = std::lround(ipu * static_cast<double>(work_us));

    if (!o.csv) {
        std::printf("kam_frame_bench: %ld draws/frame, %ld us game logic/frame", o.draws, work_us);
        if (o.work_ratio >= 0) std::printf(" (%.2f x direct driver time %.3f ms)", o.work_ratio, direct_driver_ms);
        if (o.logic_first) std::printf(" before the first GL call");
        std::printf(", %dx%d, %ld frames after %ld warm-up, %ld rounds, LP_NUM_THREADS=%d\n", o.width, o.height,
                    o.frames, o.warmup, o.rounds, o.lp_threads);
        std::fflush(stdout);
    }

    std::map<std::string, std::vector<Result>> results;
    std::vector<std::string> checksums;
    std::string version;
    bool failed = false;
    for (long round = 0; round < o.rounds; ++round)
        for (const std::string &mode : modes) {
            Result r = run_mode(o, mode, work_iters, o.frames, tmpdir);
            if (!r.ok) {
                std::fprintf(stderr, "kam_frame_bench: %s, round %ld: %s\n", mode.c_str(), round + 1, r.why.c_str());
                failed = true;
                continue;
            }
            checksums.push_back(r.checksum);
            if (mode == "direct") version = r.version;
            results[mode].push_back(r);
        }
    for (const std::string &mode : modes) {
        unlink((tmpdir + "/" + mode + ".out").c_str());
        unlink((tmpdir + "/" + mode + ".err").c_str());
    }
    rmdir(tmpdir.c_str());

    bool same = !checksums.empty() && std::all_of(checksums.begin(), checksums.end(),
                                                  [&](const std::string &c) { return c == checksums[0]; });
    struct Summary {
        double fps, median, p99, app_cpu, proc_cpu;
        size_t runs;
        double logic, gl, swap, worker;
    };
    std::map<std::string, Summary> sum;
    for (auto &[mode, rs] : results) {
        std::vector<double> fps, med, p99, cpu, proc, logic, gl, swap, worker;
        for (auto &r : rs) {
            logic.push_back(r.logic);
            gl.push_back(r.gl);
            swap.push_back(r.swap);
            worker.push_back(r.worker);
            fps.push_back(r.fps);
            med.push_back(r.median);
            p99.push_back(r.p99);
            cpu.push_back(r.app_cpu);
            proc.push_back(r.proc_cpu);
        }
        sum[mode] = {median_of(fps), median_of(med),   median_of(p99), median_of(cpu),  median_of(proc),
                     rs.size(),      median_of(logic), median_of(gl),  median_of(swap), median_of(worker)};
    }
    auto ratio = [&](const char *a, const char *b, double Summary::*f) {
        return sum.count(a) && sum.count(b) && sum[b].*f > 0 ? sum[a].*f / (sum[b].*f) : 0.0;
    };

    // How close a mode comes to what the cores allow: the frame time that its
    // whole-process CPU per frame would take spread over every core, over
    // the frame time it reached.
    const double cores = static_cast<double>(sysconf(_SC_NPROCESSORS_ONLN));
    auto efficiency = [&](const Summary &s) { return s.fps > 0 ? (s.proc_cpu / cores) / (1000.0 / s.fps) : 0.0; };

    if (o.csv) {
        if (o.csv_header)
            std::printf("mode,draws,work_us,fps,frame_ms_median,frame_ms_p99,app_cpu_ms,runs,lp_threads,"
                        "pixels_match,proc_cpu_ms,efficiency,logic_ms,gl_ms,swap_ms,worker_ms\n");
        for (const std::string &mode : modes) {
            if (!sum.count(mode)) continue;
            const Summary &s = sum[mode];
            std::printf("%s,%ld,%ld,%.3f,%.4f,%.4f,%.4f,%zu,%d,%d,%.4f,%.4f,%.4f,%.4f,%.4f,%.4f\n", mode.c_str(),
                        o.draws, work_us, s.fps, s.median, s.p99, s.app_cpu, s.runs, o.lp_threads, same ? 1 : 0,
                        s.proc_cpu, efficiency(s), s.logic, s.gl, s.swap, s.worker);
        }
    } else {
        std::printf("driver: %s\n\n", version.c_str());
        std::printf("%-10s %10s %16s %13s %19s %18s %11s %5s\n", "mode", "fps", "frame ms median", "frame ms p99",
                    "app-thread CPU ms", "process CPU ms", "efficiency", "runs");
        for (const std::string &mode : modes) {
            if (!sum.count(mode)) continue;
            const Summary &s = sum[mode];
            std::printf("%-10s %10.2f %16.3f %13.3f %19.3f %18.3f %10.0f%% %5zu\n", mode.c_str(), s.fps, s.median,
                        s.p99, s.app_cpu, s.proc_cpu, 100 * efficiency(s), s.runs);
        }
        std::printf("\n(medians over the rounds; efficiency: process CPU per frame / %.0f cores, over frame time)\n",
                    cores);
        std::printf("\nper frame, ms    app: game logic   GL calls   swap (waiting)   worker: replaying   idle\n");
        for (const std::string &mode : modes) {
            if (!sum.count(mode)) continue;
            const Summary &s = sum[mode];
            const double frame = s.fps > 0 ? 1000.0 / s.fps : 0;
            if (s.worker >= 0)
                std::printf("%-16s %16.3f %10.3f %16.3f %19.3f %6.3f\n", mode.c_str(), s.logic, s.gl, s.swap,
                            s.worker, std::max(0.0, frame - s.worker));
            else
                std::printf("%-16s %16.3f %10.3f %16.3f %19s %6s\n", mode.c_str(), s.logic, s.gl, s.swap, "-", "-");
        }
        if (sum.count("kam") && sum.count("direct"))
            std::printf("\nkam/direct:   fps x%.3f   app-thread CPU/frame x%.3f\n", ratio("kam", "direct", &Summary::fps),
                        ratio("kam", "direct", &Summary::app_cpu));
        if (sum.count("kam") && sum.count("glthread"))
            std::printf("kam/glthread: fps x%.3f   app-thread CPU/frame x%.3f\n",
                        ratio("kam", "glthread", &Summary::fps), ratio("kam", "glthread", &Summary::app_cpu));
        std::printf("check frame: %s across %zu runs\n", same ? "identical" : "DIFFERS", checksums.size());
        for (const std::string &mode : modes) {
            if (!sum.count(mode)) continue;
            const Summary &s = sum[mode];
            std::printf("RESULT mode=%s draws=%ld work_us=%ld fps=%.3f frame_ms_median=%.4f frame_ms_p99=%.4f "
                        "app_cpu_ms=%.4f proc_cpu_ms=%.4f lp_threads=%d pixels_match=%d efficiency=%.4f logic_ms=%.4f "
                        "gl_ms=%.4f swap_ms=%.4f worker_ms=%.4f\n",
                        mode.c_str(), o.draws, work_us, s.fps, s.median, s.p99, s.app_cpu, s.proc_cpu, o.lp_threads,
                        same ? 1 : 0, efficiency(s), s.logic, s.gl, s.swap, s.worker);
        }
    }
    if (!same) std::fprintf(stderr, "kam_frame_bench: the check frame differs between runs\n");
    return failed || !same ? 1 : 0;
}

}  // namespace

int main(int argc, char **argv) {
    Options o;
    int parsed = parse_args(argc, argv, &o);
    if (parsed != 0) return parsed > 0 ? 0 : 2;
    if (!o.child_mode.empty()) return run_child(o);
    return run_parent(o);
}
