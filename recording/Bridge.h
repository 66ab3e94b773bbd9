#pragma once

#include <cstdint>

namespace android {

// A recorded GL call. Instances live in the frame arena and are recycled with
// it, so no destructor is ever run on them.
//
// A command is also its own queue entry: the worker's queue is a list running
// through mNext, so recording a call writes one arena record and nothing
// else. Only the worker's queue touches mNext (with atomic builtins: the
// producer links the next command while the worker may be reading it).
class Bridge {
public:
    Bridge() = default;
    Bridge(const Bridge&) : mNext(0) {}
    Bridge& operator=(const Bridge&) { return *this; }
    virtual ~Bridge() = default;
    virtual void run() = 0;
    virtual const char* getName() = 0;

    uintptr_t mNext = 0;
};

}  // namespace android
