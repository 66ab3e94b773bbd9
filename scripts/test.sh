#!/usr/bin/env bash
# Builds and runs every test: unit tests against the fake driver, then the
# end-to-end runs of real programs on Mesa under Xvfb.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${KAM_BUILD_DIR:-$root/build}
bash "$root/scripts/build.sh"
cd "$build"
ctest --output-on-failure -j"$(nproc)" "$@"
