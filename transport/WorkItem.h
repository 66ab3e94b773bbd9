#pragma once

#include <functional>

#include "recording/Bridge.h"

namespace android {

// A named function posted to a worker: heap allocated, and freed by the
// worker once it has run. Recorded commands are posted as they are, from the
// frame arena.
class WorkItem final : public Bridge {
public:
    template <class F>
    WorkItem(const char* n, F&& f) : name(n), func(std::forward<F>(f)) {}
    void run() override {
        func();  // an empty function throws: fatal, as intended
        func = nullptr;  // what it captured goes now; the item itself when the worker has moved past it
    }
    const char* getName() override { return name; }

    const char* name = nullptr;
    std::function<void()> func;
};

}  // namespace android
