#pragma once

// The generated hostile-argument cases of the copying wrappers (see
// bad_input_cases.py and bad_input_test.cpp).

#include <cstdint>
#include <vector>

#include "fake_driver.h"

namespace bad {

// Text that size rules measuring a string find at the caller's pointer.
constexpr char kText[] = "kam-bad-input";

struct Args {
    long long count;     // every integer the size rule reads
    uint32_t enumValue;  // every enum and every pname
    // The caller's pointer for a rule of this many bytes; false skips the
    // case (no buffer of that size can be given).
    bool (*pointer)(long long bytes, const void** out, void* user);
    void* user;
};

struct Call {
    std::vector<uint64_t> args;  // as passed, bit patterns
    int pointerArg = -1;
    long long ruleBytes = 0;
    bool skipped = false;
};

struct CopyCase {
    const char* name;
    void (*run)(const Args& a, Call& c);
};

extern const CopyCase copyCases[];
extern const int copyCaseCount;

}  // namespace bad
