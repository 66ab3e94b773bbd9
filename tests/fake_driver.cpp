#include "fake_driver.h"

#include <atomic>
#include <map>
#include <mutex>

namespace fake {
namespace {
std::mutex gLock;
std::vector<Call> gCalls;
std::atomic<uint64_t> gResult{0};
std::atomic<bool> gRecording{true};
std::map<std::string, Handler> gHandlers;
}  // namespace

void setRecording(bool on) { gRecording.store(on, std::memory_order_relaxed); }

uint64_t record(const char* name, std::initializer_list<uint64_t> args, bool egl) {
    if (!gRecording.load(std::memory_order_relaxed)) return gResult.load(std::memory_order_relaxed);
    Call call{name, args, pthread_self(), egl};
    Handler handler;
    uint64_t value;
    {
        std::lock_guard<std::mutex> guard(gLock);
        gCalls.push_back(call);
        value = gResult;
        auto it = gHandlers.find(call.name);
        if (it != gHandlers.end()) handler = it->second;
    }
    return handler ? handler(call) : value;
}

void setHandler(const std::string& name, Handler handler) {
    std::lock_guard<std::mutex> guard(gLock);
    gHandlers[name] = std::move(handler);
}

void clearHandlers() {
    std::lock_guard<std::mutex> guard(gLock);
    gHandlers.clear();
}

std::vector<Call> calls() {
    std::lock_guard<std::mutex> guard(gLock);
    return gCalls;
}

std::vector<Call> named(const std::vector<Call>& from, const std::string& name) {
    std::vector<Call> out;
    for (const Call& c : from)
        if (c.name == name) out.push_back(c);
    return out;
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
