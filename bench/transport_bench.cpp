// What recording costs the application thread, what replay does on the
// worker, and what a synchronous round trip takes. Run:
//   build/bench/kam_transport_bench

#include <benchmark/benchmark.h>
#include <pthread.h>
#include <sched.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
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

// A frame boundary every period calls: copies stay inside one arena block,
// or a small frame's arena stays cached.
void boundaryEvery(benchmark::State& state, support::ActiveContext& ctx, int64_t& n, int64_t period) {
    if (++n % period == 0) {
        state.PauseTiming();
        ctx.frameBoundary();
        state.ResumeTiming();
    }
}

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

// The same with a frame of 2000 calls, whose arena (about 128 KiB) stays in
// the caches from one frame to the next: the part of the cost above that
// is the first write to arena lines that are not cached.
void BM_Record_glUniform1f_CachedArena(benchmark::State& state) {
    fake::setRecording(false);
    support::ActiveContext ctx;
    pinApart(ctx);
    int64_t n = 0;
    for (auto _ : state) {
        kam_glUniform1f_opt(3, 0.5f);
        boundaryEvery(state, ctx, n, 2000);
    }
    state.SetItemsProcessed(state.iterations());
}

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

namespace {
// The shadow paths: what the application thread pays for calls whose memory
// must be copied or emulated before the wrapper returns. Each iteration is
// one call (or one map-write-flush-unmap sequence), including the copy.


void BM_Record_glTexSubImage2D_64KiB(benchmark::State& state) {
    fake::setRecording(false);
    support::ActiveContext ctx;
    pinApart(ctx);
    std::vector<uint8_t> pixels(128 * 128 * 4, 0x5A);
    int64_t n = 0;
    for (auto _ : state) {
        kam_glTexSubImage2D_opt(GL_TEXTURE_2D, 0, 0, 0, 128, 128, GL_RGBA, GL_UNSIGNED_BYTE, pixels.data());
        boundaryEvery(state, ctx, n, 128);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(pixels.size()));
}
BENCHMARK(BM_Record_glTexSubImage2D_64KiB);
BENCHMARK(BM_Record_glUniform1f_CachedArena);

// Map for writing, fill 4 KiB, flush it, unmap: the app writes into the
// layer's shadow block; the copy into the driver's mapping happens on the
// worker. The fake driver's every entry answers with a real 64 KiB block, so
// the worker's glMapBufferRange has somewhere to copy to.
void BM_Record_MappedBufferWrite_4KiB(benchmark::State& state) {
    fake::setRecording(false);
    support::ActiveContext ctx;
    pinApart(ctx);
    static std::vector<uint8_t> driverBlock(64 * 1024);
    fake::setResult(reinterpret_cast<uintptr_t>(driverBlock.data()));
    std::vector<uint8_t> src(4096, 0x3C);
    kam_glBindBuffer_opt(GL_ARRAY_BUFFER, 7);
    int64_t n = 0;
    for (auto _ : state) {
        void* p = kam_glMapBufferRange_opt(GL_ARRAY_BUFFER, 0, 4096,
                                           GL_MAP_WRITE_BIT | GL_MAP_FLUSH_EXPLICIT_BIT | GL_MAP_INVALIDATE_RANGE_BIT);
        memcpy(p, src.data(), src.size());
        kam_glFlushMappedBufferRange_opt(GL_ARRAY_BUFFER, 0, 4096);
        kam_glUnmapBuffer_opt(GL_ARRAY_BUFFER);
        boundaryEvery(state, ctx, n, 4096);
    }
    ctx.drain();
    fake::setResult(0);
    state.SetBytesProcessed(state.iterations() * 4096);
}
BENCHMARK(BM_Record_MappedBufferWrite_4KiB);

// An indexed draw from client memory with client-array emulation on: the
// wrapper scans the indices, copies the referenced vertices of the enabled
// client attribute and the indices into the arena.
void BM_Record_ClientArrayDrawElements(benchmark::State& state) {
    fake::setRecording(false);
    support::ActiveContext ctx;
    pinApart(ctx);
    ctx.get()->mClientArrays = true;
    const int64_t indices = state.range(0);
    std::vector<float> vertices(static_cast<size_t>(indices) * 4);
    for (size_t i = 0; i < vertices.size(); ++i) vertices[i] = static_cast<float>(i);
    std::vector<GLushort> idx(static_cast<size_t>(indices));
    for (size_t i = 0; i < idx.size(); ++i) idx[i] = static_cast<GLushort>((i * 7) % idx.size());
    kam_glVertexAttribPointer_opt(0, 4, GL_FLOAT, GL_FALSE, 16, vertices.data());
    int64_t n = 0;
    for (auto _ : state) {
        kam_glDrawElements_opt(GL_TRIANGLES, static_cast<GLsizei>(indices), GL_UNSIGNED_SHORT, idx.data());
        boundaryEvery(state, ctx, n, 4096);
    }
    ctx.drain();
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Record_ClientArrayDrawElements)->Arg(36)->Arg(600);

// The same draw with emulation off, the default: it waits for the worker.
void BM_ClientArrayDrawElementsWaits(benchmark::State& state) {
    fake::setRecording(false);
    support::ActiveContext ctx;
    pinApart(ctx);
    ctx.get()->mClientArrays = false;
    const int64_t indices = state.range(0);
    std::vector<float> vertices(static_cast<size_t>(indices) * 4);
    std::vector<GLushort> idx(static_cast<size_t>(indices));
    for (size_t i = 0; i < idx.size(); ++i) idx[i] = static_cast<GLushort>((i * 7) % idx.size());
    kam_glVertexAttribPointer_opt(0, 4, GL_FLOAT, GL_FALSE, 16, vertices.data());
    int64_t n = 0;
    for (auto _ : state) {
        kam_glDrawElements_opt(GL_TRIANGLES, static_cast<GLsizei>(indices), GL_UNSIGNED_SHORT, idx.data());
        boundaryEvery(state, ctx, n, 4096);
    }
    ctx.drain();
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ClientArrayDrawElementsWaits)->Arg(36)->Arg(600);
}  // namespace
BENCHMARK_MAIN();
