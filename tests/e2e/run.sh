#!/usr/bin/env bash
# End-to-end checks: GLES programs with and without the layer, on Mesa under X
# (a private Xvfb without a display).   run.sh TEST BUILD_DIR
set -uo pipefail
test_name=$1 build=$(cd "$2" && pwd)
# A random first display number: tests started side by side would otherwise race for the same free one.
[[ -n "${DISPLAY:-}" ]] || exec xvfb-run -a -n $((100 + RANDOM % 900)) -s "-screen 0 1280x1024x24 -nolisten tcp" bash "$0" "$@"

kam_run="$build/kam-run" app="$build/kam-e2e-app"
out=$(mktemp -d)
# A failed run keeps its logs and images under $build/e2e-failed/ for a look.
trap 'rc=$?; ((rc)) && rm -rf "$build/e2e-failed/$test_name" && mkdir -p "$build/e2e-failed" && mv "$out" "$build/e2e-failed/$test_name"; rm -rf "$out"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }
count() { grep -c "$1" "$out/kam.log"; }
# "$@" directly ($out/direct.*), then through kam-run $kam_opts ($out/kam.*).
both() {
  "$@" >"$out/direct.txt" 2>"$out/direct.log" || fail "$1 without the layer: $(grep -h FAIL "$out/direct.txt"; tail -3 "$out/direct.log")"
  "$kam_run" $kam_opts "$@" >"$out/kam.txt" 2>"$out/kam.log" || fail "$1 through kam-run: $(grep -h FAIL "$out/kam.txt"; grep -v '^_V_KAM' "$out/kam.log" | tail -3)"
}
left() { sed -n 's/.*threads_left=\([-0-9]*\).*/\1/p' "$out/$1.log"; }
threads_kept() { (($(left kam) <= $(left direct))) || fail "threads left: $(left direct) directly, $(left kam) through the layer"; }
# kam-e2e-app frames: every frame the same through the layer.
frames_both() {
  both "$app" frames "$@"
  [[ $(grep -c '^frame ' "$out/direct.txt") -gt 30 ]] || fail "the direct run printed no frames"
  diff -q "$out/direct.txt" "$out/kam.txt" >/dev/null || fail "frames differ through the layer: $(diff "$out/direct.txt" "$out/kam.txt" | sed -n 2p)"
  threads_kept
}

kam_opts=--verbose
case "$test_name" in
  demo_png | demo_toggle)
    # Through the layer until frames went through the worker for a second (a
    # statistics line); demo_toggle switches offload every 100 frames, once it
    # was active, through updateMTR; 300 offloaded frames take three phases on.
    args=(--frames 500 --quiet) offloaded=30
    [[ $test_name == demo_toggle ]] && args+=(--toggle-every 100) offloaded=300
    "$build/kam-demo" "${args[@]}" --png "$out/direct.png" || fail "demo without the layer failed"
    "$kam_run" --verbose "$build/kam-demo" "${args[@]}" --until-offloaded $offloaded --png "$out/kam.png" 2>"$out/kam.log" \
      || fail "demo through kam-run failed: $(tail -5 "$out/kam.log")"
    cmp "$out/direct.png" "$out/kam.png" || fail "the last frame differs through the layer"
    if [[ $test_name == demo_png ]]; then
      # Posts per frame counted by the statistics: GL calls, not control items.
      size=$(sed -n 's/.* size=\([0-9]*\).*/\1/p' "$out/kam.log" | tail -n1)
      [[ -n "$size" && "$size" -gt 1000 ]] || fail "the worker got too few commands per frame: ${size:-none}"
    else
      (($(count "KAMWorker started -> ") >= 2 && $(count "is stopped EGLContext=") >= 1)) || fail "offload was not toggled"
      grep -q "updateMTR kam-demo flags=0x0" "$out/kam.log" || fail "no updateMTR from the program"
    fi
    ;;
  glmark2_offload)
    # glmark2's default scenes in one context, round and round until each ran offloaded.
    glmark2-es2 --reuse-context -s 320x240 -b :duration=0.05 >"$out/list.txt" 2>&1 || fail "glmark2 without the layer failed"
    sed -n 's/^\[\([^]]*\)\] \(.*\): FPS.*/\1:\2/p' "$out/list.txt" | sed 's/:<default>$//' >"$out/scenes"
    n=$(wc -l <"$out/scenes")
    ((n >= 20)) || fail "could not read glmark2's default scenes ($n)"
    sed 's/$/:duration=0.7/; s/^\([^:]*\)::/\1:/' "$out/scenes" >"$out/bench.txt"
    "$kam_run" --verbose stdbuf -oL glmark2-es2 --run-forever --reuse-context -s 320x240 -f "$out/bench.txt" >"$out/kam.log" 2>&1 &
    pid=$!
    offloaded() { sed -n '/KAMWorker started -> /,$p' "$out/kam.log" | grep -c "FPS:"; }
    end=$((SECONDS + 240))
    while kill -0 $pid 2>/dev/null && (($(offloaded) < n && SECONDS < end)); do sleep 0.5; done
    kill $pid 2>/dev/null || fail "glmark2 through kam-run ended: $(tail -5 "$out/kam.log")"
    wait $pid 2>/dev/null
    (($(offloaded) >= n)) || fail "$(offloaded) of $n scenes ran offloaded"
    ((! $(count "is stopped"))) || fail "offload stopped during the run"
    grep -q " fps=" "$out/kam.log" || fail "no statistics line"
    ;;
  shadow_state)
    # Calls whose meaning depends on state captured at the call, with client
    # vertex-array emulation on ("--args 1"); then client draws with it off
    # (the default), where they wait for the worker.
    kam_opts="--verbose --args 1" frames_both --size 256 --frames 300
    ((! $(count "is stopped"))) || fail "offload stopped during the run"
    frames_both --size 256 --frames 100 --rows client-draws
    ;;
  soak)
    # Thousands of frames, offload switched every few; resident memory levels off.
    frames_both --frames "${KAM_SOAK_FRAMES:-40000}" --toggle-every 7 --rows uploads,maps,elements
    (($(count "KAMWorker started -> ") >= 10 && $(count "is stopped EGLContext=") >= 10)) || fail "offload was not toggled"
    grep -h "rss_" "$out/direct.log" "$out/kam.log"
    ;;
  lifecycle)
    # Context, thread and window lifecycle while offloaded (directly too).
    both "$app" lifecycle
    cat "$out/kam.txt"
    (($(grep -c '^PASS ' "$out/kam.txt") == $(grep -c '^PASS ' "$out/direct.txt"))) || fail "not every scenario ran"
    threads_kept
    ;;
  platform_bindings)
    # With the desktop GL library loaded first the platform's libraries still
    # bind their own gl* and egl* names, and a GLES program reports the same.
    gl=$(ls /usr/lib/*/libGL.so.1 | head -n1)
    es2info=$(command -v es2_info || ls /usr/bin/es2_info.* 2>/dev/null | head -n1)
    kam_opts="" LD_DEBUG=bindings LD_DEBUG_OUTPUT="$out/ld" LD_PRELOAD="$gl" both "$es2info"
    foreign=$(cat "$out"/ld.* | grep "binding file $build/lib/" | grep -v " to $build/lib/" | grep "symbol \`e\?gl" | head -n3)
    [[ -z "$foreign" ]] || fail "the platform binds its own names elsewhere: $foreign"
    diff "$out/direct.txt" "$out/kam.txt" || fail "es2_info reports differently through the layer"
    # eglretrace (waffle) on GLX loads libGL.so.1 and takes GL functions from
    # our eglGetProcAddress and libGLESv2. Only the demo's last frame is stable.
    apitrace trace --api egl -o "$out/demo.trace" "$build/kam-demo" --frames 3 --quiet >"$out/trace.log" 2>&1 \
      || fail "could not record the demo: $(tail -3 "$out/trace.log")"
    mkdir -p "$out/direct" "$out/kam"
    for run in direct kam; do
      $([[ $run == kam ]] && echo "$kam_run") eglretrace -S frame -s "$out/$run/" "$out/demo.trace" >"$out/$run.log" 2>&1 \
        || fail "eglretrace ($run) failed: $(tail -3 "$out/$run.log")"
    done
    last=$(ls "$out/direct" | tail -n1)
    [[ -n "$last" ]] || fail "eglretrace wrote no snapshot"
    cmp <(pngtopnm "$out/direct/$last") <(pngtopnm "$out/kam/$last" 2>/dev/null) || fail "eglretrace's last frame differs through kam-run"
    ;;
  *) fail "unknown test $test_name" ;;
esac
echo "PASS: $test_name"
