// Buffer mapping shadow under fuzzed sequences of binds, maps (hostile ranges
// included), writes, flushes, unmaps, deletes and frame boundaries, with the
// worker's halves run at fuzzed points later. What lands in the driver's
// memory must match a model of the GL's behaviour: each flush and unmap lands
// the bytes the app had written when it made the call, ranges the GL rejects
// are left to the driver, and no step may touch memory outside the shadow
// blocks, the kept copies and the driver's mappings.

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdlib>
#include <deque>
#include <memory>
#include <vector>

#include "shadow/Bindings.h"
#include "support.h"

using namespace android;

namespace {

constexpr GLuint kBuffers = 3;
constexpr int64_t kSize = 512;

struct Model {
    std::vector<uint8_t> real = std::vector<uint8_t>(kSize, 0);
    std::vector<uint8_t> app = std::vector<uint8_t>(kSize, 0);  // what the app wrote, by buffer offset
    bool mapped = false, flushed = false;
    uint8_t* pointer = nullptr;
    int64_t offset = 0, length = 0;
    GLbitfield access = 0;
};

// A command waiting for the worker, with the bytes it must land at buffer
// offset `at` (none: nothing lands).
struct Pending {
    int kind;  // 0 map, 1 flush, 2 unmap
    GLuint buffer;
    MappedInfo mi;
    int64_t offset, length;
    int64_t at;
    std::vector<uint8_t> bytes;
};

// Ranges: mostly inside the buffer, else values the GL rejects or that wrap
// in 32 bits.
int64_t rangeValue(FuzzedDataProvider& in, int64_t small) {
    if (in.ConsumeIntegralInRange(0, 3) != 0) return in.ConsumeIntegralInRange<int64_t>(0, small);
    return in.PickValueInArray<int64_t>({-1, -16, 0, kSize, kSize + 1, 0xFFFFFFF0LL, 0x7FFFFFFFLL, 0x80000000LL,
                                         0x100000000LL, 0x100000010LL, -0x80000000LL, INT64_MIN, INT64_MAX});
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    support::initLayer();
    support::clearLog();
    FuzzedDataProvider in(data, size);
    Model model[kBuffers + 1];
    std::vector<uint8_t> driver[kBuffers + 1];
    for (auto& d : driver) d.assign(kSize, 0);
    std::deque<Pending> queue;
    auto fail = [] { abort(); };
    std::unique_ptr<Bindings> owner(new Bindings());
    Bindings& b = *owner;
    // The driver's size, and memory that outlives the frame, as the context
    // provides them.
    int asks = 0;
    b.askDriver = [&](GLenum, GLenum) -> int64_t {
        ++asks;
        return kSize;
    };
    std::deque<std::vector<uint8_t>> kept;
    b.keepBytes = [&](size_t n, const void* src) -> void* {
        auto* from = static_cast<const uint8_t*>(src);
        return kept.emplace_back(from, from + n).data();
    };
    auto appBytes = [&](const Model& m, int64_t at, int64_t n) {
        return std::vector<uint8_t>(m.app.begin() + at, m.app.begin() + at + n);
    };

    auto replayOne = [&] {
        Pending p = queue.front();
        queue.pop_front();
        if (p.kind == 0) b.mapBufferRangePost(GL_ARRAY_BUFFER, &p.mi, driver[p.buffer].data() + p.mi.offset);
        if (p.kind == 1) b.flushMappedBufferRangePost(GL_ARRAY_BUFFER, p.offset, p.length, &p.mi);
        if (p.kind == 2) b.unmapBufferPost(GL_ARRAY_BUFFER, &p.mi);
        std::copy(p.bytes.begin(), p.bytes.end(), model[p.buffer].real.begin() + p.at);
    };

    GLuint current = 1;
    b.bindBuffer(GL_ARRAY_BUFFER, current);
    for (uint32_t step = 0; step < 256 && in.remaining_bytes() > 0; ++step) {
        Model& m = model[current];
        switch (in.ConsumeIntegralInRange(0, 7)) {
            case 0:  // bind another buffer
                current = in.ConsumeIntegralInRange<GLuint>(1, kBuffers);
                b.bindBuffer(GL_ARRAY_BUFFER, current);
                break;
            case 1: {  // map, and fill what the GL would have mapped
                const int64_t offset = rangeValue(in, kSize - 1);
                const int64_t length = rangeValue(in, kSize);
                const GLbitfield access = GL_MAP_WRITE_BIT | (in.ConsumeBool() ? GL_MAP_FLUSH_EXPLICIT_BIT : 0);
                const uint64_t before = b.allocatedBytes;
                const int asksBefore = asks;
                MappedInfo* mi = b.mapBufferRangePre(GL_ARRAY_BUFFER, offset, length, access, step);
                const bool valid = offset >= 0 && length >= 1 && offset < kSize && length <= kSize - offset;
                if (m.mapped) {
                    if (mi != nullptr) fail();  // already mapped
                    break;
                }
                if (mi == nullptr) fail();
                // A range the GL rejects goes to the driver on the calling
                // thread (which refuses it here) and gets no shadow memory.
                if (!valid) {
                    if (!mi->info->directMapped || b.allocatedBytes != before) fail();
                    b.directMapFailed(GL_ARRAY_BUFFER, mi->info);
                    break;
                }
                // The size is asked at most once for a range it allows.
                if (asks > asksBefore + 1 || mi->info->directMapped) fail();
                const int64_t capacity = mi->info->capacity;
                if (offset > capacity || length > capacity - offset) fail();
                m.mapped = true;
                m.flushed = false;
                m.pointer = mi->info->shadow + offset;
                m.offset = offset;
                m.length = length;
                m.access = access;
                for (int64_t i = 0; i < length; ++i) m.app[offset + i] = m.pointer[i] = static_cast<uint8_t>(step + i);
                queue.push_back({0, current, *mi, 0, 0, 0, {}});
                break;
            }
            case 2:  // write part of the mapping
                if (m.mapped) {
                    const int64_t at = in.ConsumeIntegralInRange<int64_t>(0, m.length - 1);
                    const int64_t n = in.ConsumeIntegralInRange<int64_t>(1, m.length - at);
                    const uint8_t v = in.ConsumeIntegral<uint8_t>();
                    for (int64_t i = 0; i < n; ++i) m.app[m.offset + at + i] = m.pointer[at + i] = v;
                }
                break;
            case 3: {  // flush, sometimes outside the mapping
                const int64_t at = rangeValue(in, m.length + 8), n = rangeValue(in, 16);
                MappedInfo* mi = b.flushMappedBufferRangePre(GL_ARRAY_BUFFER, at, n);
                if (m.mapped != (mi != nullptr)) fail();
                if (mi == nullptr) break;
                const bool lands = (m.access & GL_MAP_FLUSH_EXPLICIT_BIT) && at >= 0 && n >= 0 && at <= m.length &&
                                   n <= m.length - at;
                m.flushed = m.flushed || lands;
                queue.push_back({1, current, *mi, at, n, m.offset + (lands ? at : 0),
                                 lands ? appBytes(m, m.offset + at, n) : std::vector<uint8_t>()});
                break;
            }
            case 4: {  // unmap
                MappedInfo* mi = b.unmapBufferPre(GL_ARRAY_BUFFER);
                if (m.mapped != (mi != nullptr)) fail();
                if (mi == nullptr) break;
                m.mapped = false;
                const bool lands = !((m.access & GL_MAP_FLUSH_EXPLICIT_BIT) && m.flushed);
                queue.push_back({2, current, *mi, 0, 0, m.offset,
                                 lands ? appBytes(m, m.offset, m.length) : std::vector<uint8_t>()});
                break;
            }
            case 5:  // the worker catches up a little
                for (int n = in.ConsumeIntegralInRange(0, 3); n > 0 && !queue.empty(); --n) replayOne();
                break;
            case 6:  // frame boundary: everything queued has run
                while (!queue.empty()) replayOne();
                b.swapBuffer();
                kept.clear();
                if (!b.pendingFree.empty()) fail();
                break;
            case 7: {  // delete, with hostile counts and names now and then
                const GLuint names[] = {0, current, 99, current, 0};
                const GLsizei n = in.PickValueInArray<GLsizei>({-1, 0, 1, 2, 4});
                const GLuint* list = in.ConsumeBool() ? names + 1 : names;
                b.deleteBuffers(n, n >= 1 ? list : nullptr);
                const bool gone = n >= 1 && (list == names + 1 || n >= 2);
                if (!gone) break;
                if (b.getBindingBuffer(GL_ARRAY_BUFFER) != 0) fail();
                m.mapped = false;  // the app's mapping is gone with the record
                b.bindBuffer(GL_ARRAY_BUFFER, current);
                break;
            }
        }
        uint64_t sum = 0;
        for (auto& e : b.buffers) sum += e.second->capacity;
        if (b.allocatedBytes != sum) fail();
        if (queue.empty())
            for (GLuint k = 1; k <= kBuffers; ++k)
                if (driver[k] != model[k].real) fail();
    }
    while (!queue.empty()) replayOne();
    for (GLuint k = 1; k <= kBuffers; ++k)
        if (driver[k] != model[k].real) fail();
    return 0;
}
