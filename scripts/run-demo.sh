#!/usr/bin/env bash
# The main job: a game-shaped frame (2000 draws and game logic on the render
# thread) through the layer, with the layer's live log, then the same frames
# without it, and the last frames compared. The game logic is calibrated as
# the frame benchmark's balanced point: as much CPU per frame as the driver
# takes on the render thread without the layer (measured by a short direct
# run first). Through the layer only the offloaded frames count: the frames
# before offload starts (the frame-rate meter's three one-second periods)
# run on the driver directly.
#   scripts/run-demo.sh [OFFLOADED_FRAMES]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${KAM_BUILD_DIR:-$root/build}
frames=${1:-600}
warmup=60

if [[ -z "${DISPLAY:-}" ]]; then
  bash "$root/scripts/build.sh"
  exec xvfb-run -a -s "-screen 0 1280x1024x24 -nolisten tcp" env KAM_SKIP_BUILD=1 bash "$0" "$@"
fi
[[ -n "${KAM_SKIP_BUILD:-}" ]] || bash "$root/scripts/build.sh"

out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
field() { sed -n "s/\(.* \|^\)$1=\([0-9.]*\).*/\2/p" "$2"; }

"$build/kam-demo" --frames $((warmup + 120)) --warmup "$warmup" >"$out/calibration.txt"
work_us=$(awk -v ms="$(field steady_app_cpu_ms "$out/calibration.txt")" 'BEGIN { printf "%d", ms * 1000 + 0.5 }')
echo "== game logic: $work_us us per frame (the direct render thread's driver time per frame, measured first) =="

echo "== kam-demo through the layer (kam-run --verbose), until $frames frames were offloaded =="
"$build/kam-run" --verbose "$build/kam-demo" --work-us "$work_us" --until-offloaded "$frames" --png "$out/kam.png" \
  >"$out/kam.txt" 2> >(tee "$out/kam.log" >&2)
echo
echo "== kam-demo without the layer, $warmup warm-up frames and $frames measured =="
"$build/kam-demo" --work-us "$work_us" --frames $((warmup + frames)) --warmup "$warmup" --png "$out/direct.png" \
  >"$out/direct.txt"

echo
printf '%-34s %10s %26s %24s\n' "" "fps" "app-thread CPU ms/frame" "worker CPU ms/frame"
printf '%-34s %10s %26s %24s\n' "direct ($frames frames after warm-up)" "$(field steady_fps "$out/direct.txt")" \
  "$(field steady_app_cpu_ms "$out/direct.txt")" "-"
printf '%-34s %10s %26s %24s\n' "libKAM ($(field offloaded_frames "$out/kam.txt") offloaded frames)" \
  "$(field steady_fps "$out/kam.txt")" "$(field steady_app_cpu_ms "$out/kam.txt")" "$(field worker_cpu_ms "$out/kam.txt")"
awk -v d="$(field steady_fps "$out/direct.txt")" -v k="$(field steady_fps "$out/kam.txt")" \
    -v dc="$(field steady_app_cpu_ms "$out/direct.txt")" -v kc="$(field steady_app_cpu_ms "$out/kam.txt")" \
    'BEGIN {
  if (d > 0) printf "libKAM/direct: fps x%.2f\n", k / d
  printf "render thread: %.2f of its %.2f ms of CPU per frame freed (game logic included in both)\n", dc - kc, dc
}'
echo "(whole libKAM run, offload start included: $(field frames "$out/kam.txt") frames at $(field fps "$out/kam.txt") fps)"
if grep -q "KAMWorker started -> " "$out/kam.log"; then echo "offload: active"; else echo "offload: never started"; fi
if cmp -s "$out/direct.png" "$out/kam.png"; then
  echo "check frame: byte-identical with and without the layer"
else
  echo "check frame: DIFFERS with the layer" >&2
  exit 1
fi
