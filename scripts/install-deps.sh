#!/usr/bin/env bash
# Installs every Debian package the project needs to build, run, test and
# benchmark. Safe to run again; does nothing when all are present.
set -euo pipefail

PACKAGES=(
  # build
  build-essential cmake pkg-config python3 git
  # Android's platform libraries (host builds)
  android-libutils-dev android-libcutils-dev android-liblog-dev
  # the driver: Mesa's EGL/GLES through glvnd, llvmpipe
  libegl-dev libgles-dev libegl-mesa0 libgl1-mesa-dri libx11-dev
  # the API description's source
  khronos-api
  # windows without a screen, and real GLES programs to run through the layer
  xvfb xauth mesa-utils-bin glmark2-es2-x11
  # the demo's PNG output
  libpng-dev
  # tests and benchmarks
  googletest libgtest-dev libgmock-dev libbenchmark-dev
  # the performance report's plots and profiles
  gnuplot-nox valgrind linux-perf
  # fuzzing: clang with libFuzzer
  clang libclang-rt-14-dev
)

missing=()
for p in "${PACKAGES[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [[ ${#missing[@]} -eq 0 ]]; then
  exit 0
fi

echo "install-deps: installing ${missing[*]}" >&2
SUDO=""
if [[ $(id -u) -ne 0 ]]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
if ! $SUDO apt-get -o DPkg::Lock::Timeout=600 update -qq; then
  echo "install-deps: 'apt-get update' failed; the package lists above cannot be fetched" >&2
  exit 1
fi
if ! $SUDO apt-get -o DPkg::Lock::Timeout=600 install -y -qq --no-install-recommends "${missing[@]}" >/dev/null; then
  echo "install-deps: could not install: ${missing[*]}" >&2
  exit 1
fi
