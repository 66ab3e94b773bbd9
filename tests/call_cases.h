#pragma once

// Generated cases (api/generate.py): each calls one table entry with distinct
// arguments and reports what it passed and what came back.

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <vector>

#include "fake_driver.h"

namespace cases {

struct Outcome {
    std::vector<uint64_t> args;
    uint64_t result = 0;
    uint64_t expected = 0;
    // Copy wrappers: which argument points at client memory, and how many
    // bytes of it the layer should copy (below 1: none, the call waits; -1
    // also for copies that depend on shadowed state).
    int copyArg = -1;
    long long copyBytes = 0;
    // Recorded calls and copies: the size of the command in the arena.
    size_t bridgeSize = 0;
};

struct Case {
    const char* name;
    const char* kind;  // recorded, copy, sync, origin, special, bounds; EGL: pass, sync, async, local, special
    const char* form;  // opt or plain
    bool isVoid;
    bool byRule;
    void (*call)(void* fn, Outcome& out);
};

extern const Case glCases[];
extern const Case eglCases[];
extern const int glCaseCount;
extern const int eglCaseCount;
// The same GL names with small argument values, for an offloaded thread.
extern const Case offloadCases[];

// Readable memory for pointer arguments: copies made by the layer read it.
const void* testPointer(uintptr_t seed);

using fake::bits;

// Hostile arguments for every copying wrapper with a size rule: every
// integer the rule reads is count, every enum enumValue; the pointer is asked
// for the rule's byte count (false: none can be given, the case is skipped).
struct BadArgs {
    long long count;
    uint32_t enumValue;
    bool (*pointer)(long long bytes, const void** out, void* user);
    void* user;
};
struct BadCall {
    std::vector<uint64_t> args;  // as passed, bit patterns
    int pointerArg = -1;
    long long ruleBytes = 0;
    bool skipped = false;
};
struct BadCase {
    const char* name;
    void (*run)(const BadArgs& a, BadCall& c);
};
extern const BadCase badCases[];
extern const int badCaseCount;
// Text that size rules measuring a string find at the caller's pointer.
constexpr char kBadText[] = "kam-bad-input";

// Exactly `bytes` (at most kLargest) of the caller's memory, followed by an
// inaccessible page: a copy that reads further faults.
class Guarded {
public:
    static constexpr long long kLargest = 64ll << 20;
    explicit Guarded(long long bytes) {
        const size_t page = size_t(sysconf(_SC_PAGESIZE)), n = size_t(bytes < 0 ? 0 : bytes);
        mLength = (n + page - 1) / page * page + page;
        mBase = static_cast<uint8_t*>(mmap(nullptr, mLength, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        mprotect(mBase + mLength - page, page, PROT_NONE);
        mData = mBase + mLength - page - n;
        for (size_t i = 0; i < n; ++i) mData[i] = kBadText[i % sizeof kBadText];
    }
    ~Guarded() { munmap(mBase, mLength); }
    uint8_t* data() const { return mData; }

private:
    uint8_t *mBase, *mData;
    size_t mLength;
};

}  // namespace cases
