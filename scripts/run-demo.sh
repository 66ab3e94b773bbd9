#!/usr/bin/env bash
# The main job: the demo through the layer, with the layer's live log, then
# the same frames without it, side by side, and the last frames compared.
#   scripts/run-demo.sh [FRAMES]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${KAM_BUILD_DIR:-$root/build}
frames=${1:-900}

if [[ -z "${DISPLAY:-}" ]]; then
  bash "$root/scripts/build.sh"
  exec xvfb-run -a -s "-screen 0 1280x1024x24 -nolisten tcp" env KAM_SKIP_BUILD=1 bash "$0" "$@"
fi
[[ -n "${KAM_SKIP_BUILD:-}" ]] || bash "$root/scripts/build.sh"

out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT

echo "== kam-demo through the layer (kam-run --verbose), $frames frames =="
"$build/kam-run" --verbose "$build/kam-demo" --frames "$frames" --png "$out/kam.png" >"$out/kam.txt" \
  2> >(tee "$out/kam.log" >&2)
echo
echo "== kam-demo without the layer, $frames frames =="
"$build/kam-demo" --frames "$frames" --png "$out/direct.png" >"$out/direct.txt"

field() { sed -n "s/.*$1=\([0-9.]*\).*/\1/p" "$2"; }
echo
printf '%-12s %10s %26s\n' "" "fps" "app-thread CPU ms/frame"
printf '%-12s %10s %26s\n' "direct" "$(field fps "$out/direct.txt")" "$(field app_cpu_ms_per_frame "$out/direct.txt")"
printf '%-12s %10s %26s\n' "libKAM" "$(field fps "$out/kam.txt")" "$(field app_cpu_ms_per_frame "$out/kam.txt")"
echo "(both figures cover the whole run; offload starts after the frame-rate meter's three one-second periods)"
if grep -q "KAMWorker started -> " "$out/kam.log"; then echo "offload: active"; else echo "offload: never started"; fi
if cmp -s "$out/direct.png" "$out/kam.png"; then
  echo "last frame: byte-identical with and without the layer"
else
  echo "last frame: DIFFERS with the layer" >&2
  exit 1
fi
