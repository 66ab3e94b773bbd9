#pragma once

#include <functional>

namespace android {

class Bridge;

// One unit handed to a worker. A bridge item points at a recorded command in
// the frame arena and is never freed on its own; a function item is heap
// allocated, named, and deleted by the worker once it has run.
struct WorkItem {
    Bridge* bridge = nullptr;
    const char* name = nullptr;
    std::function<void()> func;

    explicit WorkItem(Bridge* b) : bridge(b) {}
    template <class F>
    WorkItem(const char* n, F&& f) : name(n), func(std::forward<F>(f)) {}
};

}  // namespace android
