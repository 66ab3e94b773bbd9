#pragma once

// A driver for tests: origin tables whose every entry records its name, its
// arguments (as bit patterns) and the calling thread, and returns a value the
// test chose.

#include <pthread.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <string>
#include <type_traits>
#include <vector>

#include "kam_api.h"

namespace fake {

constexpr int kGlTableSize = 1276;
constexpr int kEglTableSize = 86;

struct Call {
    std::string name;
    std::vector<uint64_t> args;
    pthread_t thread;
    bool egl = false;  // came through the EGL table
};

// Tables in the platform's order (the order of kam_platform_*_names).
extern void* glTable[kGlTableSize];
extern void* eglTable[kEglTableSize];

// Logs the call and returns what the entry answers: the handler's value when
// a handler is set for the name, else the common result.
uint64_t record(const char* name, std::initializer_list<uint64_t> args, bool egl = false);
// A handler sees the call (arguments as bit patterns: pointers can be written
// through) and returns the entry's result bits. Handlers run on the calling
// thread, outside the log's lock.
using Handler = std::function<uint64_t(const Call&)>;
void setHandler(const std::string& name, Handler handler);
void clearHandlers();
// Benchmarks switch recording off: entries then only return.
void setRecording(bool on);
std::vector<Call> calls();
std::vector<Call> named(const std::vector<Call>& from, const std::string& name);
void reset();
// The calls of the given names (all when empty) as "thread:name(args)"
// ("egl.name" through the EGL table's own GL entries; without "(args)"
// unless withArgs), space-separated; threads and argument values print as
// named by alias(), others in hex. Order, thread and arguments in one comparison.
std::string trace(std::initializer_list<const char*> names = {}, bool withArgs = true);
void alias(uint64_t value, const std::string& name);
void aliasThread(pthread_t thread, const std::string& name);
void clearAliases();
// What every fake entry returns, converted to its result type.
void setResult(uint64_t value);
uint64_t result();

template <class T>
uint64_t bits(T v) {
    uint64_t u = 0;
    if constexpr (std::is_pointer_v<T>) u = reinterpret_cast<uintptr_t>(v);
    else if constexpr (std::is_floating_point_v<T>) memcpy(&u, &v, sizeof v);
    else u = static_cast<uint64_t>(v);
    return u;
}

template <class T>
T fromBits(uint64_t v) {
    if constexpr (std::is_pointer_v<T>) return reinterpret_cast<T>(static_cast<uintptr_t>(v));
    else return static_cast<T>(v);
}

template <class T>
T resultAs() {
    return fromBits<T>(result());
}

}  // namespace fake
