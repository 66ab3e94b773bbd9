// What recording costs the application thread, what replay does on the
// worker, and what a synchronous round trip takes. Run:
//   build/bench/kam_transport_bench

#include <benchmark/benchmark.h>
#include <pthread.h>
#include <sched.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <vector>

#include "kam_wrappers.h"
#include "loader/KAMLoader.h"
#include "support.h"

using namespace android;

namespace {
// The flag that holds the worker lives on a line of its own: on the
// benchmark's stack the spinning worker kept stealing the line the calls
// push their return addresses to.
struct alignas(64) HoldFlag {
    std::atomic<bool> go{false};
};
HoldFlag gHold;
}  // namespace

namespace {

// Two cores: the application thread on one, the worker on the other, as a
// device's scheduler would place a busy render thread and its worker. Left to
// itself this VM's scheduler sometimes stacks both on one core, and the
// figures then swing by a factor of five between runs.
void pinApart(support::ActiveContext& ctx) {
    if (sysconf(_SC_NPROCESSORS_ONLN) < 2) return;
    auto pin = [](int cpu) {
        cpu_set_t set;
        CPU_ZERO(&set);
        CPU_SET(cpu, &set);
        pthread_setaffinity_np(pthread_self(), sizeof set, &set);
    };
    pin(0);
    ctx.worker()->postSync([&] { pin(1); }, "pin");
}

// The arena holds a frame; a frame boundary every so many recorded calls
// keeps a long benchmark inside it, as a real frame loop would.
constexpr int64_t kCallsPerFrame = 100000;

void frameBoundaryEvery(benchmark::State& state, support::ActiveContext& ctx, int64_t& n) {
    if (++n % kCallsPerFrame == 0) {
        state.PauseTiming();
        ctx.frameBoundary();
        state.ResumeTiming();
    }
}

void BM_DirectOriginCall_glUniform1f(benchmark::State& state) {
    support::initLayer();
    fake::setRecording(false);
    auto fn = KAM_GL(glUniform1f);
    float v = 0.5f;
    for (auto _ : state) {
        fn(3, v);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_DirectOriginCall_glUniform1f);

void BM_PassThrough_glUniform1f(benchmark::State& state) {
    support::initLayer();
    fake::setRecording(false);
    for (auto _ : state) kam_glUniform1f_opt(3, 0.5f);
}
BENCHMARK(BM_PassThrough_glUniform1f);

void BM_Record_glUniform1f(benchmark::State& state) {
    fake::setRecording(false);
    support::ActiveContext ctx;
    pinApart(ctx);
    int64_t n = 0;
    for (auto _ : state) {
        kam_glUniform1f_opt(3, 0.5f);
        frameBoundaryEvery(state, ctx, n);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Record_glUniform1f);

void BM_Record_glUniformMatrix4fv_64B(benchmark::State& state) {
    fake::setRecording(false);
    support::ActiveContext ctx;
    pinApart(ctx);
    float m[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
    int64_t n = 0;
    for (auto _ : state) {
        kam_glUniformMatrix4fv_opt(2, 1, GL_FALSE, m);
        frameBoundaryEvery(state, ctx, n);
    }
    state.SetBytesProcessed(state.iterations() * 64);
}
BENCHMARK(BM_Record_glUniformMatrix4fv_64B);

// The worker is held by a blocking item while a batch is recorded, then
// released; the time until a synchronous probe returns is replay alone.
void BM_ReplayThroughput(benchmark::State& state) {
    fake::setRecording(false);
    support::ActiveContext ctx;
    pinApart(ctx);
    const int64_t batch = state.range(0);
    for (auto _ : state) {
        gHold.go.store(false);
        ctx.worker()->post(new WorkItem("hold", [] {
                               while (!gHold.go.load(std::memory_order_acquire)) {
                               }
                           }),
                           true);
        for (int64_t i = 0; i < batch; ++i) kam_glUniform1f_opt(3, 0.5f);
        timespec a{}, b{};
        clock_gettime(CLOCK_MONOTONIC, &a);
        gHold.go.store(true, std::memory_order_release);
        ctx.drain();
        clock_gettime(CLOCK_MONOTONIC, &b);
        state.SetIterationTime((b.tv_sec - a.tv_sec) + (b.tv_nsec - a.tv_nsec) * 1e-9);
        ctx.frameBoundary();
    }
    state.SetItemsProcessed(state.iterations() * batch);
}
BENCHMARK(BM_ReplayThroughput)->Arg(100000)->UseManualTime();

void BM_PostSyncRoundTrip(benchmark::State& state) {
    fake::setRecording(false);
    support::ActiveContext ctx;
    pinApart(ctx);
    std::vector<double> ns;
    ns.reserve(1 << 20);
    for (auto _ : state) {
        timespec a{}, b{};
        clock_gettime(CLOCK_MONOTONIC, &a);
        ctx.worker()->postSync([] {}, "roundtrip");
        clock_gettime(CLOCK_MONOTONIC, &b);
        ns.push_back((b.tv_sec - a.tv_sec) * 1e9 + (b.tv_nsec - a.tv_nsec));
    }
    std::sort(ns.begin(), ns.end());
    if (!ns.empty()) {
        state.counters["p50_ns"] = ns[ns.size() / 2];
        state.counters["p99_ns"] = ns[ns.size() * 99 / 100];
    }
}
BENCHMARK(BM_PostSyncRoundTrip);

}  // namespace



namespace {
// Recording with the worker held: the producer's own cost without a
// consumer on the other core.
void BM_RecordWorkerHeld_glUniform1f(benchmark::State& state) {
    fake::setRecording(false);
    support::ActiveContext ctx;
    pinApart(ctx);
    const int64_t batch = 50000;
    for (auto _ : state) {
        state.PauseTiming();
        gHold.go.store(false);
        ctx.worker()->post(new WorkItem("hold", [] {
                               while (!gHold.go.load(std::memory_order_acquire)) {
                               }
                           }),
                           true);
        state.ResumeTiming();
        for (int64_t i = 0; i < batch; ++i) kam_glUniform1f_opt(3, 0.5f);
        state.PauseTiming();
        gHold.go.store(true);
        ctx.frameBoundary();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * batch);
}
BENCHMARK(BM_RecordWorkerHeld_glUniform1f);
}  // namespace
BENCHMARK_MAIN();
