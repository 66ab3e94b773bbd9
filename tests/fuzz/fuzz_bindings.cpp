// Buffer mapping shadow under fuzzed sequences of binds, maps (hostile ranges
// included), writes, flushes, unmaps, deletes and frame boundaries, with the
// worker's halves run at fuzzed points later. What lands in the driver's
// memory must match a model of the GL's behaviour, and no step may touch
// memory outside the shadow blocks and the driver's mappings.

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
    // What the app wrote into the current record's block, by buffer offset;
    // a deleted record keeps its own for the commands in flight.
    std::shared_ptr<std::vector<uint8_t>> app = std::make_shared<std::vector<uint8_t>>(kSize, 0);
    bool mapped = false;
    bool inRange = false;  // the driver's map succeeds
    uint8_t* pointer = nullptr;
    int64_t offset = 0, length = 0;
    GLbitfield access = 0;
};

struct Pending {
    int kind;  // 0 map, 1 flush, 2 unmap
    GLuint buffer;
    MappedInfo mi;
    int64_t offset, length;
    bool inRange;
    std::shared_ptr<std::vector<uint8_t>> app;
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

    auto replayOne = [&] {
        Pending p = queue.front();
        queue.pop_front();
        Model& m = model[p.buffer];
        if (p.kind == 0) {
            // The driver maps only ranges inside the buffer.
            b.mapBufferRangePost(GL_ARRAY_BUFFER, &p.mi, p.inRange ? driver[p.buffer].data() + p.mi.offset : nullptr);
        } else if (p.kind == 1) {
            const bool lands = p.inRange && (p.mi.access & GL_MAP_FLUSH_EXPLICIT_BIT) && p.offset >= 0 &&
                               p.length >= 0 && p.offset <= p.mi.length && p.length <= p.mi.length - p.offset;
            b.flushMappedBufferRangePost(GL_ARRAY_BUFFER, p.offset, p.length, &p.mi);
            if (lands) {
                const int64_t at = p.mi.offset + p.offset;
                memcpy(m.real.data() + at, p.app->data() + at, static_cast<size_t>(p.length));
            }
        } else {
            const bool flushed = p.mi.info->flushed;
            b.unmapBufferPost(GL_ARRAY_BUFFER, &p.mi);
            if (p.inRange && !((p.mi.access & GL_MAP_FLUSH_EXPLICIT_BIT) && flushed))
                memcpy(m.real.data() + p.mi.offset, p.app->data() + p.mi.offset, p.mi.length);
        }
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
                // Ends that fit in 32 bits but lie far past any buffer here
                // only cost a large shadow block: left out to keep runs fast.
                // Negative and wrapping ranges stay.
                if (offset >= 0 && length >= 0 && offset <= 0xFFFFFFFFLL && length <= 0xFFFFFFFFLL &&
                    offset + length > 4 * kSize && offset + length <= 0xFFFFFFFFLL)
                    break;
                const GLbitfield access = GL_MAP_WRITE_BIT | (in.ConsumeBool() ? GL_MAP_FLUSH_EXPLICIT_BIT : 0);
                MappedInfo* mi = b.mapBufferRangePre(GL_ARRAY_BUFFER, offset, length, access, step);
                const bool valid = offset >= 0 && length >= 1 && offset < kSize && length <= kSize - offset;
                if (m.mapped) {
                    if (mi != nullptr) fail();  // already mapped
                    break;
                }
                // A range the GL rejects must not get a shadow that cannot
                // hold it; one inside the buffer must be served.
                if (valid && mi == nullptr) fail();
                if (mi == nullptr) break;
                const int64_t capacity = mi->info->capacity;
                if (offset < 0 || length < 0 || offset > capacity || length > capacity - offset) fail();
                m.mapped = true;
                m.inRange = valid;
                m.pointer = mi->info->shadow + offset;
                m.offset = offset;
                m.length = length;
                m.access = access;
                if (valid) {
                    for (int64_t i = 0; i < length; ++i)
                        (*m.app)[offset + i] = m.pointer[i] = static_cast<uint8_t>(step + i);
                }
                queue.push_back({0, current, *mi, 0, 0, valid, m.app});
                break;
            }
            case 2:  // write part of the mapping
                if (m.mapped && m.inRange) {
                    const int64_t at = in.ConsumeIntegralInRange<int64_t>(0, m.length - 1);
                    const int64_t n = in.ConsumeIntegralInRange<int64_t>(1, m.length - at);
                    const uint8_t v = in.ConsumeIntegral<uint8_t>();
                    for (int64_t i = 0; i < n; ++i) (*m.app)[m.offset + at + i] = m.pointer[at + i] = v;
                }
                break;
            case 3: {  // flush, sometimes outside the mapping
                const int64_t at = rangeValue(in, m.length + 8), n = rangeValue(in, 16);
                MappedInfo* mi = b.flushMappedBufferRangePre(GL_ARRAY_BUFFER, at, n);
                if (m.mapped != (mi != nullptr)) fail();
                if (mi != nullptr) queue.push_back({1, current, *mi, at, n, m.inRange, m.app});
                break;
            }
            case 4: {  // unmap
                MappedInfo* mi = b.unmapBufferPre(GL_ARRAY_BUFFER);
                if (m.mapped != (mi != nullptr)) fail();
                if (mi == nullptr) break;
                m.mapped = false;
                queue.push_back({2, current, *mi, 0, 0, m.inRange, m.app});
                break;
            }
            case 5:  // the worker catches up a little
                for (int n = in.ConsumeIntegralInRange(0, 3); n > 0 && !queue.empty(); --n) replayOne();
                break;
            case 6:  // frame boundary: everything queued has run
                while (!queue.empty()) replayOne();
                b.swapBuffer();
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
                m.app = std::make_shared<std::vector<uint8_t>>(kSize, 0);
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
