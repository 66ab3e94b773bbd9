#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, ASan + UBSan) and runs each for a
# bounded time from the corpus kept in git, printing executions per target.
# Fails on any crash, leak, timeout or model mismatch.
#   scripts/fuzz.sh                 every target, 25 s each
#   scripts/fuzz.sh --time 300 bindings
#   scripts/fuzz.sh --keep          also merge new interesting inputs into
#                                   tests/fuzz/corpus/<target>/
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${KAM_FUZZ_BUILD_DIR:-$root/build-fuzz}
seconds=25
keep=0
targets=()
while (($#)); do
  case "$1" in
    --keep) keep=1 ;;
    --time) seconds=$2; shift ;;
    -h|--help) sed -n '2,9p' "$0"; exit 0 ;;
    *) targets+=("$1") ;;
  esac
  shift
done
((${#targets[@]})) || targets=(apply_attribs bindings)

bash "$root/scripts/install-deps.sh"
CC=clang CXX=clang++ cmake -S "$root" -B "$build" -DKAM_FUZZ=ON -DKAM_BUILD_DEMO=OFF -DKAM_BUILD_BENCH=OFF \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j"${KAM_JOBS:-2}" --target "${targets[@]/#/fuzz_}"

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
status=0
summary=()
for t in "${targets[@]}"; do
  kept="$root/tests/fuzz/corpus/$t"
  work="$build/fuzz-work/$t"
  artifacts="$build/fuzz-artifacts"
  mkdir -p "$kept" "$work" "$artifacts"
  log="$build/fuzz-$t.log"
  # New inputs go to the work directory; the kept corpus is only read.
  rc=0
  "$build/tests/fuzz/fuzz_$t" -max_total_time="$seconds" -print_final_stats=1 -max_len=1024 -timeout=20 \
    -rss_limit_mb=4096 -artifact_prefix="$artifacts/$t-" "$work" "$kept" >"$log" 2>&1 || rc=$?
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  cov=$(grep -o 'cov: [0-9]*' "$log" | tail -1 || true)
  if ((rc != 0)); then
    status=1
    summary+=("$t: FAILED (exit $rc) after ${execs:-?} executions, log $log")
    grep -E 'ERROR|SUMMARY|Test unit written|abort' "$log" | head -20 >&2 || true
    continue
  fi
  summary+=("$t: ${execs:-?} executions in ${seconds}s, ${cov:-cov: ?}, corpus $(ls "$work" | wc -l) new + $(ls "$kept" | wc -l) kept")
  if ((keep)); then
    "$build/tests/fuzz/fuzz_$t" -merge=1 -max_len=1024 "$kept" "$work" >>"$log" 2>&1
    echo "$t: kept corpus now $(ls "$kept" | wc -l) files"
  fi
done
printf '%s\n' "${summary[@]}"
exit $status
