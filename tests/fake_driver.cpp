#include "fake_driver.h"

#include <atomic>
#include <cstdio>
#include <map>
#include <mutex>

namespace fake {
namespace {
std::mutex gLock;
std::vector<Call> gCalls;
std::atomic<uint64_t> gResult{0};
std::atomic<bool> gRecording{true};
std::map<std::string, Handler> gHandlers;
std::map<uint64_t, std::string> gAliases;
std::vector<std::pair<pthread_t, std::string>> gThreads;
}  // namespace

void alias(uint64_t value, const std::string& name) { gAliases[value] = name; }
void aliasThread(pthread_t thread, const std::string& name) {
    for (auto& t : gThreads)
        if (pthread_equal(t.first, thread)) return void(t.second = name);  // an ended thread's id comes back
    gThreads.emplace_back(thread, name);
}
void clearAliases() { gAliases.clear(), gThreads.clear(); }

std::string trace(std::initializer_list<const char*> names, bool withArgs) {
    std::string out;
    for (const Call& c : calls()) {
        bool wanted = names.size() == 0;
        for (const char* n : names) wanted |= c.name == n;
        if (!wanted) continue;
        std::string who = "?";
        for (const auto& t : gThreads)
            if (pthread_equal(t.first, c.thread)) who = t.second;
        out += (out.empty() ? "" : " ") + who + ":" + (c.egl && c.name.compare(0, 2, "gl") == 0 ? "egl." : "") + c.name;
        if (!withArgs) continue;
        out += "(";
        for (size_t i = 0; i < c.args.size(); ++i) {
            char hex[24];
            snprintf(hex, sizeof hex, "%llx", static_cast<unsigned long long>(c.args[i]));
            auto a = gAliases.find(c.args[i]);
            out += (i ? "," : "") + (a != gAliases.end() ? a->second : std::string(hex));
        }
        out += ")";
    }
    return out;
}

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

void setHandler(const std::string& name, Handler handler) { std::lock_guard<std::mutex> guard(gLock); gHandlers[name] = std::move(handler); }

void clearHandlers() { std::lock_guard<std::mutex> guard(gLock); gHandlers.clear(); }

std::vector<Call> calls() { std::lock_guard<std::mutex> guard(gLock); return gCalls; }

std::vector<Call> named(const std::vector<Call>& from, const std::string& name) {
    std::vector<Call> out;
    for (const Call& c : from)
        if (c.name == name) out.push_back(c);
    return out;
}

void reset() { std::lock_guard<std::mutex> guard(gLock); gCalls.clear(); }

void setResult(uint64_t value) { gResult = value; }

uint64_t result() { return gResult; }

}  // namespace fake
