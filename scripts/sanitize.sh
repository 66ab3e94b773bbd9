#!/usr/bin/env bash
# Builds the unit tests with sanitizers and runs them (with address, the
# end-to-end programs as well):
#   scripts/sanitize.sh address,undefined
#   scripts/sanitize.sh thread
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
kind=${1:?usage: sanitize.sh address,undefined|thread}
build="$root/build-${kind//,/-}"
bash "$root/scripts/install-deps.sh"
# Under AddressSanitizer the end-to-end programs run too (the platform then
# loads the system libraries without deep binding, which ASan refuses).
e2e=OFF
[[ $kind == *address* ]] && e2e=ON
cmake -S "$root" -B "$build" -DKAM_SANITIZE="$kind" -DKAM_BUILD_DEMO=$e2e -DKAM_BUILD_E2E=$e2e -DKAM_BUILD_BENCH=OFF \
  -DCMAKE_BUILD_TYPE=Debug >/dev/null
if [[ $e2e == ON ]]; then
  cmake --build "$build" -j"$(nproc)"
else
  cmake --build "$build" -j"$(nproc)" --target kam_unit_tests
fi
# The arena's out-of-memory path is tested with an impossible request: the
# sanitizer must report it as a failed allocation, not abort.
export ASAN_OPTIONS=allocator_may_return_null=1:detect_leaks=1
export TSAN_OPTIONS=allocator_may_return_null=1:halt_on_error=1:second_deadlock_stack=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
"$build/tests/kam_unit_tests" --gtest_brief=1
if [[ $e2e == ON ]]; then
  # Every end-to-end program through the layer. Leaks are not checked there:
  # Mesa and the programs themselves keep allocations until exit. A small
  # quarantine lets the soak program's resident memory level off, as it
  # checks; its frame count is cut to fit the sanitizer's slowness (the plain
  # build runs the full soak). The platform-bindings check records our own
  # (instrumented) demo under apitrace's preload, which must not come before
  # the sanitizer runtime: it runs in the plain build only. Fresh heap blocks
  # are not filled: replayed traces carry bytes the recorded programs never
  # wrote, and the replay through the layer must see what the direct one sees.
  ASAN_OPTIONS=detect_leaks=0:abort_on_error=1:quarantine_size_mb=8:max_malloc_fill_size=0 KAM_SOAK_FRAMES=10000 \
    ctest --test-dir "$build" -L e2e -E '^e2e_platform_bindings$' --output-on-failure
fi
