#include "fake_driver.h"

#include <atomic>
#include <mutex>

namespace fake {
namespace {
std::mutex gLock;
std::vector<Call> gCalls;
uint64_t gResult = 0;
std::atomic<bool> gRecording{true};
}  // namespace

void setRecording(bool on) { gRecording.store(on, std::memory_order_relaxed); }

void record(const char* name, std::initializer_list<uint64_t> args) {
    if (!gRecording.load(std::memory_order_relaxed)) return;
    std::lock_guard<std::mutex> guard(gLock);
    gCalls.push_back({name, args, pthread_self()});
}

std::vector<Call> calls() {
    std::lock_guard<std::mutex> guard(gLock);
    return gCalls;
}

void reset() {
    std::lock_guard<std::mutex> guard(gLock);
    gCalls.clear();
}

void setResult(uint64_t value) {
    std::lock_guard<std::mutex> guard(gLock);
    gResult = value;
}

uint64_t result() {
    std::lock_guard<std::mutex> guard(gLock);
    return gResult;
}

}  // namespace fake
