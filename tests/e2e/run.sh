#!/usr/bin/env bash
# End-to-end checks: real GLES programs, with and without the layer, on Mesa
# in an X window. Starts a private Xvfb when there is no display.
#   run.sh TEST BUILD_DIR
set -uo pipefail

test_name=$1
build=$(cd "$2" && pwd)
if [[ -z "${DISPLAY:-}" ]]; then
  exec xvfb-run -a -s "-screen 0 1280x1024x24 -nolisten tcp" bash "$0" "$@"
fi

kam_run="$build/kam-run"
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }
app="$build/kam-e2e-app"
left() { sed -n 's/.*threads_left=\([-0-9]*\).*/\1/p' "$out/$1.log"; }
threads_kept() { (($(left kam) <= $(left direct))) || fail "threads left behind: $(left direct) directly, $(left kam) through the layer"; }
# kam-e2e-app frames directly and through kam-run (options $1) with the
# program's arguments: every frame the same, no thread left behind.
frames_both() {
  local opts=$1
  shift
  "$app" frames "$@" >"$out/direct.txt" 2>"$out/direct.log" || fail "directly: $(tail -3 "$out/direct.log")"
  "$kam_run" --verbose $opts "$app" frames "$@" >"$out/kam.txt" 2>"$out/kam.log" \
    || fail "through kam-run: $(grep -v '^_V_KAM' "$out/kam.log" | tail -3)"
  [[ $(grep -c '^frame ' "$out/direct.txt") -gt 30 ]] || fail "the direct run printed no frames"
  diff -q "$out/direct.txt" "$out/kam.txt" >/dev/null || fail "frames differ through the layer: $(diff "$out/direct.txt" "$out/kam.txt" | sed -n 2p)"
  threads_kept
}

case "$test_name" in
  glmark2_validate)
    # --validate never swaps, so this checks the platform and the pass-through
    # path on every scene, not offload.
    glmark2-es2 --validate >"$out/direct.txt" 2>&1 || fail "glmark2 without the layer failed"
    "$kam_run" glmark2-es2 --validate >"$out/kam.txt" 2>"$out/kam.log" || fail "glmark2 through kam-run failed: $(tail -5 "$out/kam.log")"
    grep "Validation" "$out/direct.txt" >"$out/direct.v"
    grep "Validation" "$out/kam.txt" >"$out/kam.v"
    [[ -s "$out/direct.v" ]] || fail "glmark2 printed no validation results"
    diff "$out/direct.v" "$out/kam.v" || fail "validation results differ through the layer"
    ;;
  demo_png)
    # Through the layer the demo renders on until frames went through the
    # worker for a second (a statistics line) before the last one is saved.
    "$build/kam-demo" --frames 500 --png "$out/direct.png" --quiet || fail "demo without the layer failed"
    "$kam_run" --verbose "$build/kam-demo" --frames 500 --until-offloaded 30 --png "$out/kam.png" --quiet 2>"$out/kam.log" \
      || fail "demo through kam-run failed: $(tail -5 "$out/kam.log")"
    grep -q "KAMWorker started -> " "$out/kam.log" || fail "offload never became active: $(cat "$out/kam.log")"
    # The statistics count what the application thread posted to the worker
    # in a frame: thousands of GL calls, not a handful of control items.
    size=$(sed -n 's/.* size=\([0-9]*\).*/\1/p' "$out/kam.log" | tail -n1)
    [[ -n "$size" && "$size" -gt 1000 ]] || fail "the worker got too few commands per frame: ${size:-none}"
    cmp "$out/direct.png" "$out/kam.png" || fail "the last frame differs through the layer"
    ;;
  demo_toggle)
    # Offload switched off and on every 100 frames through the platform's
    # updateMTR; the frames must not notice. 300 offloaded frames take at
    # least three phases on.
    "$build/kam-demo" --frames 500 --toggle-every 100 --png "$out/direct.png" --quiet || fail "demo without the layer failed"
    "$kam_run" --verbose "$build/kam-demo" --frames 500 --toggle-every 100 --until-offloaded 300 --png "$out/kam.png" --quiet 2>"$out/kam.log" \
      || fail "demo through kam-run failed: $(tail -5 "$out/kam.log")"
    starts=$(grep -c "KAMWorker started -> " "$out/kam.log")
    stops=$(grep -c "is stopped EGLContext=" "$out/kam.log")
    [[ $starts -ge 2 && $stops -ge 1 ]] || fail "offload was not toggled (started $starts, stopped $stops times)"
    grep -q "updateMTR kam-demo flags=0x0" "$out/kam.log" || fail "no updateMTR from the program"
    cmp "$out/direct.png" "$out/kam.png" || fail "the last frame differs through the layer"
    ;;
  glmark2_offload)
    # Every default scene in a window, in one context so that offload stays
    # on, round and round until each scene ran once offloaded. The scene list
    # is glmark2's own default list.
    glmark2-es2 --reuse-context -s 320x240 -b :duration=0.05 >"$out/list.txt" 2>&1 || fail "glmark2 without the layer failed"
    sed -n 's/^\[\([^]]*\)\] \(.*\): FPS.*/\1:\2/p' "$out/list.txt" | sed 's/:<default>$//' >"$out/scenes"
    n=$(wc -l <"$out/scenes")
    [[ $n -ge 20 ]] || fail "could not read glmark2's default scenes ($n)"
    sed 's/$/:duration=0.7/; s/^\([^:]*\)::/\1:/' "$out/scenes" >"$out/bench.txt"
    "$kam_run" --verbose stdbuf -oL glmark2-es2 --run-forever --reuse-context -s 320x240 -f "$out/bench.txt" >"$out/kam.txt" 2>&1 &
    pid=$!
    offloaded_results() { sed -n '/KAMWorker started -> /,$p' "$out/kam.txt" | grep -c "FPS:"; }
    end=$((SECONDS + 240))
    while kill -0 $pid 2>/dev/null && [[ $(offloaded_results) -lt $n && $SECONDS -lt $end ]]; do sleep 0.5; done
    kill $pid 2>/dev/null || fail "glmark2 through kam-run ended: $(tail -5 "$out/kam.txt")"
    wait $pid 2>/dev/null
    [[ $(offloaded_results) -ge $n ]] || fail "$(offloaded_results) of $n scenes ran offloaded"
    ! grep -q "is stopped" "$out/kam.txt" || fail "offload stopped during the run"
    grep -q " fps=" "$out/kam.txt" || fail "no statistics line"
    ;;
  shadow_state)
    # GL calls whose meaning depends on state captured when they are made
    # (the rows of kam-e2e-app frames), with client vertex-array emulation on
    # ("--args 1"); then client draws and objects with it off, the default,
    # where draws from client memory wait for the worker.
    frames_both "--args 1" --size 256 --frames 300
    ! grep -q "is stopped" "$out/kam.log" || fail "offload stopped during the run"
    frames_both "" --size 256 --frames 100 --rows client-draws,names
    ;;
  soak)
    # Thousands of frames, offload switched off and on every few frames and
    # objects made and dropped every frame; the program checks that resident
    # memory levels off.
    frames_both "" --frames "${KAM_SOAK_FRAMES:-40000}" --toggle-every 7 --rows uploads,names,buffers,maps,elements
    starts=$(grep -c "KAMWorker started -> " "$out/kam.log")
    stops=$(grep -c "is stopped EGLContext=" "$out/kam.log")
    [[ $starts -ge 10 && $stops -ge 10 ]] || fail "offload was not toggled (started $starts, stopped $stops times)"
    grep -h "rss_" "$out/direct.log" "$out/kam.log"
    ;;
  lifecycle)
    # Context, thread and window lifecycle while offloaded, each scenario with
    # its pixels and messages; directly first, to check the program itself.
    "$app" lifecycle >"$out/direct.txt" 2>"$out/direct.log" || fail "lifecycle directly: $(grep FAIL "$out/direct.txt")"
    "$kam_run" --verbose "$app" lifecycle >"$out/kam.txt" 2>"$out/kam.log"
    rc=$?
    cat "$out/kam.txt"
    [[ $rc -eq 0 ]] || fail "lifecycle through kam-run ended with $rc: $(grep FAIL "$out/kam.txt") $(tail -3 "$out/kam.log")"
    [[ $(grep -c '^PASS ' "$out/kam.txt") -eq $(grep -c '^PASS ' "$out/direct.txt") ]] || fail "not every scenario ran"
    threads_kept
    ;;
  platform_bindings)
    # A process that loaded the desktop GL library first (programs that can
    # use GLX and EGL): the platform's libraries still bind their own gl* and
    # egl* references to themselves, and a GLES program reports the same.
    gl=$(ls /usr/lib/*/libGL.so.1 | head -n1)
    es2info=$(command -v es2_info || ls /usr/bin/es2_info.* 2>/dev/null | head -n1)
    LD_PRELOAD="$gl" "$es2info" >"$out/direct.txt" 2>&1 || fail "es2_info without the layer failed"
    LD_DEBUG=bindings LD_DEBUG_OUTPUT="$out/ld" LD_PRELOAD="$gl" "$kam_run" "$es2info" >"$out/kam.txt" 2>&1 \
      || fail "es2_info through kam-run failed: $(tail -3 "$out/kam.txt")"
    foreign=$(cat "$out"/ld.* | grep "binding file $build/lib/" | grep -v " to $build/lib/" | grep "symbol \`e\?gl" | head -n3)
    [[ -z "$foreign" ]] || fail "the platform binds its own names elsewhere: $foreign"
    diff "$out/direct.txt" "$out/kam.txt" || fail "es2_info reports differently through the layer"
    # apitrace's eglretrace (waffle) replays on GLX unless told otherwise: it
    # loads libGL.so.1, makes GLX contexts current and takes GL functions
    # from eglGetProcAddress and libGLESv2 - ours here. The demo's first
    # frame differs between direct replays too; its last one does not.
    apitrace trace --api egl -o "$out/demo.trace" "$build/kam-demo" --frames 3 --quiet >"$out/trace.log" 2>&1 \
      || fail "could not record the demo: $(tail -3 "$out/trace.log")"
    mkdir -p "$out/replay-direct" "$out/replay-kam"
    eglretrace -S frame -s "$out/replay-direct/" "$out/demo.trace" >"$out/replay-direct.log" 2>&1 \
      || fail "eglretrace without the layer failed: $(tail -3 "$out/replay-direct.log")"
    "$kam_run" eglretrace -S frame -s "$out/replay-kam/" "$out/demo.trace" >"$out/replay-kam.log" 2>&1 \
      || fail "eglretrace through kam-run failed: $(tail -3 "$out/replay-kam.log")"
    last=$(ls "$out/replay-direct" | tail -n1)
    [[ -n "$last" ]] || fail "eglretrace wrote no snapshot"
    cmp <(pngtopnm "$out/replay-direct/$last") <(pngtopnm "$out/replay-kam/$last" 2>/dev/null) \
      || fail "eglretrace's last frame differs through kam-run"
    ;;
  *)
    fail "unknown test $test_name"
    ;;
esac
echo "PASS: $test_name"
