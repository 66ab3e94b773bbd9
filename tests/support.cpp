#include "support.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <cstdint>
#include <cstdlib>
#include <atomic>
#include <mutex>

#include <cutils/trace.h>

#include "call_cases.h"
#include "loader/KAMLoader.h"
#include "runtime/KAMManager.h"
#include "runtime/KAMThreadLocal.h"

namespace {
std::atomic<int> gSyncPosts{0};
std::atomic<bool> gTracing{false};
std::atomic<size_t> gMemalignFailsFrom{SIZE_MAX};
std::mutex gLogLock;
std::vector<support::LogLine> gLog;
alignas(64) unsigned char gPointee[1 << 16];
}  // namespace

extern "C" {
// The fake platform's GL slot; the layer writes it on attach and detach.
__attribute__((visibility("default"))) __thread void* kam_platform_gl_slot = nullptr;

// Takes the layer's log lines (the executable's definition wins over liblog's).
__attribute__((visibility("default"))) int __android_log_print(int prio, const char* tag, const char* fmt, ...) {
    char text[1024];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(text, sizeof text, fmt, ap);
    va_end(ap);
    if (getenv("KAM_TEST_LOG")) fprintf(stderr, "%s %d %s\n", tag ? tag : "", prio, text);
    std::lock_guard<std::mutex> guard(gLogLock);
    gLog.push_back({prio, tag ? tag : "", text});
    return 1;
}
}

// The host's libcutils never enables a tag; the program's definitions win.
extern "C" {
__attribute__((visibility("default"))) uint64_t atrace_get_enabled_tags() {
    return gTracing.load(std::memory_order_relaxed) ? ATRACE_TAG_GRAPHICS : 0;
}
__attribute__((visibility("default"))) void atrace_begin_body(const char*) { gSyncPosts.fetch_add(1); }
__attribute__((visibility("default"))) void atrace_end_body() {}
}

// This definition in the executable comes before the C library's for the whole process.
extern "C" __attribute__((visibility("default"))) void* memalign(size_t alignment, size_t size) {
    void* p = nullptr;
    if (size >= gMemalignFailsFrom.load()) return nullptr;
    return posix_memalign(&p, alignment < sizeof(void*) ? sizeof(void*) : alignment, size) == 0 ? p : nullptr;
}

support::MemalignFails::MemalignFails(size_t from) { gMemalignFailsFrom.store(from); }
support::MemalignFails::~MemalignFails() { gMemalignFailsFrom.store(SIZE_MAX); }

namespace support {

void* noContextTable[fake::kGlTableSize];

std::vector<LogLine> logLines() { std::lock_guard<std::mutex> guard(gLogLock); return gLog; }

void clearLog() { std::lock_guard<std::mutex> guard(gLogLock); gLog.clear(); }

int countLog(const std::string& fragment, int priority) {
    int n = 0;
    for (const LogLine& l : logLines())
        if (l.tag == "_V_KAM" && l.text.find(fragment) != std::string::npos && (priority < 0 || l.priority == priority)) ++n;
    return n;
}

int syncPosts() {
    return gTracing.exchange(true) ? gSyncPosts.load() : 0;
}

int exactLog(const std::string& text, int priority) {
    int n = 0;
    for (const LogLine& l : logLines()) n += l.tag == "_V_KAM" && l.text == text && l.priority == priority;
    return n;
}

void initLayer() {
    static std::once_flag once;
    std::call_once(once, [] {
        android::KAMLoader::getInstance()->init(kam_platform_egl_names, fake::eglTable, kam_platform_gl_names,
                                                fake::glTable, noContextTable);
        android::KAMManager::INSTANCE->initMTR("kam-tests", false, "");
    });
}

ActiveContext::ActiveContext() {
    initLayer();
    record.display = reinterpret_cast<EGLDisplay>(0xD15);
    strcpy(record.creatorName, "kam-test");
    record.extensionList = {"GL_OES_test_one", "GL_EXT_test_two"};
    record.extensions = "GL_OES_test_one GL_EXT_test_two";
    mContext = new android::KAMContext(&record, false);  // registers itself in the record
    mContext->mWorker = new android::KAMWorker();
    mContext->mWorker->run("kam-test-worker", -4, 0);
    mContext->mMemory.prepare();
    mContext->mActive = 1;
    android::sp<android::KAMThreadLocal> tls = new android::KAMThreadLocal();
    tls->mName = "kam-test";
    tls->mOnRelease = [](std::string&, int, void*) {};
    android::setThreadRecord(tls);
    tls->attachContext(mContext);
}

ActiveContext::~ActiveContext() {
    drain();
    android::__tls->attachContext(nullptr);
    android::setThreadRecord(nullptr);
    mContext->mActive = 0;
    record.kamContext.clear();  // joins the worker
}

void ActiveContext::drain() {
    mContext->mWorker->postSync([] {}, "drain");
}

void ActiveContext::frameBoundary() {
    android::KAMContext* c = mContext;
    c->mWorker->postSync([c] { c->swapBuffer(); }, "swapBuffers");
}

}  // namespace support

namespace cases {
// Every byte non-zero except one in 64, so strings read from it end soon.
const void* testPointer(uintptr_t seed) {
    static std::once_flag once;
    std::call_once(once, [] {
        for (size_t i = 0; i < sizeof gPointee; ++i) gPointee[i] = (i % 64 == 63) ? 0 : static_cast<unsigned char>(1 + i % 251);
    });
    return gPointee + (seed * 8) % (sizeof gPointee - 8192);
}
}  // namespace cases
