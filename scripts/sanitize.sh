#!/usr/bin/env bash
# Builds the unit tests with sanitizers and runs them:
#   scripts/sanitize.sh address,undefined
#   scripts/sanitize.sh thread
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
kind=${1:?usage: sanitize.sh address,undefined|thread}
build="$root/build-${kind//,/-}"
bash "$root/scripts/install-deps.sh"
cmake -S "$root" -B "$build" -DKAM_SANITIZE="$kind" -DKAM_BUILD_DEMO=OFF -DKAM_BUILD_BENCH=OFF \
  -DCMAKE_BUILD_TYPE=Debug >/dev/null
cmake --build "$build" -j"$(nproc)" --target kam_unit_tests
# The arena's out-of-memory path is tested with an impossible request: the
# sanitizer must report it as a failed allocation, not abort.
export ASAN_OPTIONS=allocator_may_return_null=1:detect_leaks=1
export TSAN_OPTIONS=allocator_may_return_null=1:halt_on_error=1:second_deadlock_stack=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
"$build/tests/kam_unit_tests" --gtest_brief=1
