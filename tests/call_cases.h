#pragma once

// Generated cases: each calls one table entry with distinct arguments and
// reports what it passed and what came back.

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
// The same names with small argument values, for an offloaded thread.
extern const Case offloadCases[];
// The synchronous plain forms of names that also have an _opt form.
extern const Case plainTooCases[];
extern const int plainTooCaseCount;
extern const Case eglCases[];
extern const int glCaseCount;
extern const int eglCaseCount;

// Every exported GL wrapper, with the kind and form the generator gave it.
struct ExportCase {
    const char* symbol;
    const char* kind;
    const char* form;  // opt, plain, or plain-too (a plain form beside an _opt one)
};
extern const ExportCase exportCases[];
extern const int exportCaseCount;

struct BridgeCase {
    const char* name;
    void (*build)(Outcome& out, const char*& name);
};
extern const BridgeCase bridgeCases[];
extern const int bridgeCaseCount;

// Readable memory for pointer arguments: copies made by the layer read it.
const void* testPointer(uintptr_t seed);

using fake::bits;

}  // namespace cases
