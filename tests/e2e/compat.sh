#!/usr/bin/env bash
# Compatibility: unmodified Debian programs through kam-run, offloaded, show or
# read back what their direct run does.   compat.sh ROW BUILD_DIR
# screen: stop the render thread (libkam-stop-frame.so) once OFFLOADED frames
# went through the worker, and compare the X server's image with the direct
# run's on the same frame; running: the same, not compared (clock-animated);
# retrace: compare the MD5 of every snapshot (that two direct replays agree
# on) of eglretrace replaying an apitrace recording, directly and through
# kam-run (paced until enough ran offloaded).
set -uo pipefail
row=$1 build=$(cd "$2" && pwd)
# Images of the root window: a private server, whatever DISPLAY says.
[[ -n "${KAM_COMPAT_XVFB:-}" ]] || KAM_COMPAT_XVFB=1 exec xvfb-run -a -n $((100 + RANDOM % 900)) -s "-screen 0 1280x1024x24 -nolisten tcp" bash "$0" "$@"

OFFLOADED=30   # frames through the worker before the compared one
FRAMES=300     # frames recorded for a replay
sdl=/usr/libexec/installed-tests/SDL2
es2gears=$(command -v es2gears_x11 || ls /usr/bin/es2gears_x11.* 2>/dev/null | head -n1)
mpv="mpv --no-config --no-terminal --vo=gpu --gpu-context=x11egl --opengl-es=yes --untimed --no-audio --no-osc
     --osd-level=0 --geometry=640x480+0+0 --deband=yes --sigmoid-upscaling=yes --dither-depth=8"
# A still picture: every frame is the same, so any frame number compares.
still="av://lavfi:mandelbrot=s=320x240,loop=loop=-1:size=1"
glmark2="glmark2-es2 --reuse-context -s 320x240"
export SDL_VIDEO_X11_FORCE_EGL=1

# mpv 0.35's 6-tap scalers leave 2 of every 8 floats of their weight texture
# uninitialised (reinit_scaler); GL_LINEAR mixes them in with weight 0, and a
# NaN left there blacks out the picture, directly or through the layer as heap
# use goes: MALLOC_PERTURB_ fills the block with a finite pattern.
# row               | method  | program and arguments
table=$(cat <<'EOF'
testgles2           | screen  | $sdl/testgles2 --geometry 320x240
testgles2_windows   | screen  | $sdl/testgles2 --windows 2 --geometry 320x240
mpv                 | screen  | env MALLOC_PERTURB_=85 $mpv --scale=spline36 $still
es2gears            | running | $es2gears
retrace_testgles2   | retrace | $sdl/testgles2 --geometry 320x240
retrace_mpv         | retrace | env MALLOC_PERTURB_=85 $mpv --scale=spline36 --frames=$FRAMES av://lavfi:testsrc2=s=320x240
retrace_es2gears    | retrace | $es2gears
retrace_glmark2     | retrace | $glmark2 -b shading:shading=phong:duration=1 -b texture:texture-filter=mipmap:duration=1 -b bump:bump-render=normals:duration=1 -b refract:duration=1
EOF
)
line=$(grep -E "^$row +\|" <<<"$table") || { echo "FAIL: unknown row $row" >&2; exit 1; }
IFS='|' read -r _ method cmd <<<"$line"
method=${method// /}
eval "set -- $cmd"

out=$(mktemp -d)
# A failed run keeps its logs and images under $build/e2e-failed/ for a look.
trap 'rc=$?; ((rc)) && rm -rf "$build/e2e-failed/$row" && mkdir -p "$build/e2e-failed" && mv "$out" "$build/e2e-failed/$row"; rm -rf "$out"' EXIT
fail() { echo "FAIL: $row: $*" >&2; exit 1; }
stop_lib="$build/lib/libkam-stop-frame.so"
[[ -f $stop_lib ]] || fail "no $stop_lib"

# Starts "$@" in the background, stopped on a frame (KAM_STOP_* in the
# environment), and waits up to three minutes for it to get there.
stopped() {
  rm -f "$out/stop"
  env LD_PRELOAD="$stop_lib" KAM_STOP_FILE="$out/stop" "$@" &
  pid=$!
  local end=$((SECONDS + 180))
  until [[ -s "$out/stop" ]]; do
    kill -0 "$pid" 2>/dev/null && ((SECONDS < end)) || return 1
    sleep 0.2
  done
}
# Runs stopped, takes the screen (two images in a row alike) into $1.ppm
# unless $2 is "running", and ends the program.
stopped_run() {
  local name=$1 what=$2 i tries=20
  shift 2
  [[ $what == running ]] && tries=0
  stopped "$@" >"$out/$name.log" 2>&1 || fail "$name run never reached its frame: $(tail -5 "$out/$name.log")"
  for ((i = 0; i < tries; i++)); do
    xwd -root -silent | xwdtopnm 2>/dev/null >"$out/$name.ppm"
    cmp -s "$out/$name.ppm" "$out/$name.prev" 2>/dev/null && break
    mv "$out/$name.ppm" "$out/$name.prev"
  done
  [[ $what == running || -f "$out/$name.ppm" ]] || fail "the screen never settled"
  kill -9 "$pid"; wait "$pid" 2>/dev/null
  stop=$(cat "$out/stop")
}
md5s() { grep -xE '[0-9A-F]{32}' "$1"; }

case "$method" in
  screen | running)
    stopped_run kam "$method" env KAM_STOP_OFFLOADED=$OFFLOADED "$build/kam-run" --verbose "$@"
    kam_stop=$stop
    grep -q "KAMWorker started -> " "$out/kam.log" || fail "offload never became active"
    frame=$(sed 's/frame=\([0-9]*\).*/\1/' <<<"$kam_stop")
    stopped_run direct "$method" env KAM_STOP_FRAME="$frame" "$@"
    result="not compared"
    if [[ $method == screen ]]; then
      (($(ppmhist -noheader "$out/direct.ppm" | wc -l) > 2)) || fail "the direct run shows a blank screen: nothing to compare"
      cmp -s "$out/direct.ppm" "$out/kam.ppm" || fail "frame $frame differs through the layer ($kam_stop)"
      result="identical"
    fi
    echo "$row: $kam_stop, screen $result"
    ;;
  retrace)
    # A short trace: the program stops itself or on frame FRAMES; SIGTERM writes it out.
    stopped env LD_PRELOAD="/usr/lib/x86_64-linux-gnu/apitrace/wrappers/egltrace.so:$stop_lib" TRACE_FILE="$out/t.trace" \
      KAM_STOP_FRAME=$FRAMES "$@" >"$out/record.log" 2>&1
    kill -TERM "$pid" 2>/dev/null; wait "$pid" 2>/dev/null
    [[ -s $out/t.trace ]] || fail "no trace recorded: $(tail -5 "$out/record.log")"
    # waffle picks GLX unless told: the replay must reach EGL and the layer.
    export WAFFLE_PLATFORM=x11_egl
    # Replayed directly twice: a snapshot the driver itself does not repeat is
    # left out ("unstable"). Mesa shows eglretrace's first frame from a buffer
    # nothing was drawn into yet, and which heap bytes it holds depends on the
    # run (a cold shader cache changes them): only the first frames may be so.
    for run in direct direct2; do
      eglretrace -s - --snapshot-format=MD5 "$out/t.trace" >"$out/$run.txt" 2>"$out/$run.log" \
        || fail "eglretrace without the layer failed: $(tail -5 "$out/$run.log")"
    done
    unstable=$(md5s "$out/direct.txt" | paste -d' ' - <(md5s "$out/direct2.txt") | awk '$1 != $2 {printf "%d ", NR - 1}')
    masked() { md5s "$1" | awk -v u=" $unstable" 'index(u, " " NR - 1 " ") {$0 = "unstable"} 1'; }
    masked "$out/direct.txt" >"$out/direct.md5"
    frames=$(wc -l <"$out/direct.md5")
    ((frames > OFFLOADED && $(sort -u "$out/direct.md5" | wc -l) > 1)) || fail "the trace has $frames frames, all alike"
    [[ $unstable =~ ^([0-4] )*$ ]] || fail "the direct replay does not repeat its snapshots of frames $unstable"
    # The frame-rate meter needs seconds of frames: paced, slower until enough ran offloaded.
    for pace in 20000 40000 80000 160000; do
      "$build/kam-run" --verbose stdbuf -oL eglretrace --min-frame-duration=$pace -s - --snapshot-format=MD5 \
        "$out/t.trace" >"$out/kam.txt" 2>&1 || fail "eglretrace through kam-run failed: $(grep -v '^[0-9A-F]*$' "$out/kam.txt" | tail -5)"
      offloaded=$(sed -n '/KAMWorker started -> /,$p' "$out/kam.txt" | md5s /dev/stdin | wc -l)
      ((offloaded >= OFFLOADED)) && break
    done
    ((offloaded >= OFFLOADED)) || fail "only $offloaded of $frames frames ran offloaded"
    masked "$out/kam.txt" | diff -q - "$out/direct.md5" >/dev/null \
      || fail "snapshots differ through the layer at frames $(masked "$out/kam.txt" | paste -d' ' - "$out/direct.md5" |
           awk '$1 != $2 {printf "%d ", NR - 1}' | head -c 200)($(md5s "$out/kam.txt" | wc -l) snapshots through the layer,\
 $frames directly, the last $offloaded offloaded)"
    echo "$row: $offloaded of $frames frames offloaded, every snapshot identical${unstable:+ (frames ${unstable% } left out: not repeated directly)}"
    ;;
esac
echo "PASS: $row"
