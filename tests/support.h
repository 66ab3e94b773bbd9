#pragma once

// What the unit tests share: the fake platform around the layer (the GL slot,
// the name lists, the fake driver tables handed to the loader) and the log.

#include <string>
#include <vector>

#include "fake_driver.h"
#include "runtime/KAMContext.h"
#include "runtime/PlatformRecords.h"

extern "C" {
extern __thread void* kam_platform_gl_slot;
extern const char* const kam_platform_gl_names[];
extern const char* const kam_platform_egl_names[];
}

namespace support {

struct LogLine {
    int priority;
    std::string tag;
    std::string text;
};

std::vector<LogLine> logLines();
void clearLog();
// Lines of the layer's tag whose text contains the fragment, at the given
// android_LogPriority (any priority when negative).
int countLog(const std::string& fragment, int priority = -1);
// Lines of the layer's tag that are exactly the text, at the priority.
int exactLog(const std::string& text, int priority);

// Synchronous posts so far: each marks a trace section on the posting thread
// (the first call switches the graphics trace tag on and returns 0). Whether
// a wrapper waited for the worker, independently of how soon the worker ran.
int syncPosts();

// memalign (the layer's arena and shadow blocks) fails for requests of at
// least `from` bytes while one of these lives, as in a process out of
// address space.
struct MemalignFails {
    explicit MemalignFails(size_t from);
    ~MemalignFails();
};

// The table a detached thread gets, as the fake platform hands it over.
extern void* noContextTable[fake::kGlTableSize];

// Initialises the process-wide loader with the fake driver (once) and
// enables offload; every test that needs the singleton calls this.
void initLayer();

// An offload context in the active state on the calling thread, with its
// worker running and its arena prepared, over the fake driver. The calling
// thread's wrappers record into it until it goes out of scope.
class ActiveContext {
public:
    ActiveContext();
    ~ActiveContext();
    android::KAMContext* get() const { return mContext; }
    android::KAMWorker* worker() const { return mContext->mWorker.get(); }
    // Waits until the worker has replayed everything posted so far.
    void drain();
    // The frame task's per-frame reset, on the worker.
    void frameBoundary();
    // Driver calls made before the wrapper returned; how often it waited for
    // the driver (synchronous posts, calls on the calling thread), whatever a
    // worker that is awake replayed meanwhile; all calls once replayed.
    struct Seen {
        std::vector<fake::Call> atReturn;
        int waits;
        std::vector<fake::Call> after;
    };
    template <class F>
    Seen run(F&& call) {
        drain(), fake::reset();
        const int before = syncPosts();
        call();
        Seen s{fake::calls(), syncPosts() - before, {}};
        for (const fake::Call& c : s.atReturn) s.waits += pthread_equal(c.thread, pthread_self()) != 0;
        drain();
        return s.after = fake::calls(), s;
    }
    android::PlatformContextRecord record{};

private:
    android::KAMContext* mContext = nullptr;
};

}  // namespace support
