// Counts the layer's synchronous posts by name, for any program run through
// the layer: every synchronous post marks a trace section named after its work
// item when the graphics trace tag is on, so this library turns the tag on and
// counts the sections instead of tracing them.
//
//   LD_PRELOAD=build/libkam-sync-count.so build/kam-run build/kam-demo
//
// At exit it prints, on standard error, the posts that woke the worker at once
// per frame (the frame task "swapBuffers" counts the frames) and the names
// that made them: synchronous calls the application thread waited for, and
// the few that only wake the worker (the queued swap, glFinish).

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace {

struct Counts {
    std::mutex lock;
    std::map<std::string, uint64_t> byName;
    ~Counts() {
        uint64_t frames = byName.count("swapBuffers") ? byName["swapBuffers"] : 0;
        uint64_t total = 0;
        std::vector<std::pair<uint64_t, std::string>> sorted;
        for (const auto& [name, n] : byName) {
            if (name != "swapBuffers") total += n;
            sorted.emplace_back(n, name);
        }
        std::sort(sorted.rbegin(), sorted.rend());
        fprintf(stderr, "kam-sync-count: %llu immediate posts (synchronous calls and wake-ups) besides %llu frame tasks",
                (unsigned long long)total,
                (unsigned long long)frames);
        if (frames) fprintf(stderr, " (%.2f per offloaded frame)", static_cast<double>(total) / frames);
        fprintf(stderr, "\n");
        for (const auto& [n, name] : sorted) fprintf(stderr, "kam-sync-count: %10llu %s\n", (unsigned long long)n, name.c_str());
    }
};

Counts& counts() {
    static Counts c;
    return c;
}

}  // namespace

extern "C" {

// The graphics tag (bit 1) is on. Builds of cutils whose tag test is inline
// read the two variables instead: marked ready, they never open the kernel's
// trace file.
__attribute__((visibility("default"))) uint64_t atrace_get_enabled_tags() { return 1u << 1; }
__attribute__((visibility("default"))) uint64_t atrace_enabled_tags = 1u << 1;
__attribute__((visibility("default"))) bool atrace_is_ready = true;

__attribute__((visibility("default"))) void atrace_begin_body(const char* name) {
    Counts& c = counts();
    std::lock_guard<std::mutex> guard(c.lock);
    ++c.byName[name ? name : "?"];
}

__attribute__((visibility("default"))) void atrace_end_body() {}
}
