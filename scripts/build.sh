#!/usr/bin/env bash
# Installs what is missing, configures and builds everything into build/
# (or $KAM_BUILD_DIR).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${KAM_BUILD_DIR:-$root/build}
bash "$root/scripts/install-deps.sh"
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=${KAM_BUILD_TYPE:-RelWithDebInfo} >/dev/null
cmake --build "$build" -j"$(nproc)"
