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
  # the compatibility suite: more real programs, a GL tracer and replayer,
  # and the X server's image of the screen
  mpv apitrace libsdl2-tests x11-apps netpbm
  # the demo's PNG output
  libpng-dev
  # tests and benchmarks
  googletest libgtest-dev libgmock-dev libbenchmark-dev
  # the performance report's plots and profiles
  gnuplot-nox valgrind linux-perf
)

# Optional group, `install-deps.sh armhf`: the 32-bit ARM cross build and its
# emulated test run (scripts/armhf.sh). The cross compiler and qemu are host
# packages; the Android libraries come from the armhf architecture
# (multiarch). The layer needs only the EGL/GLES headers, which are the same
# for every architecture: the armhf EGL/GLES packages would drag in Mesa,
# whose armhf dependencies often lag behind the host's security updates. Debian's armhf index is sometimes inconsistent
# for a while, so a failure here is reported with its reason and exit code
# 77, which the callers treat as "skipped", never as success.
if [[ ${1:-} == armhf ]]; then
  ARMHF_PACKAGES=(
    g++-arm-linux-gnueabihf qemu-user
    android-libutils-dev:armhf android-libcutils-dev:armhf android-liblog-dev:armhf
  )
  missing=()
  for p in "${ARMHF_PACKAGES[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
  done
  [[ ${#missing[@]} -eq 0 ]] && exit 0
  skip() { echo "armhf: cannot install dependencies: $*" >&2; exit 77; }
  SUDO=""
  if [[ $(id -u) -ne 0 ]]; then
    sudo -n true 2>/dev/null || skip "not root and no password-less sudo"
    SUDO="sudo"
  fi
  export DEBIAN_FRONTEND=noninteractive
  echo "install-deps: installing ${missing[*]}" >&2
  if ! dpkg --print-foreign-architectures | grep -qx armhf; then
    $SUDO dpkg --add-architecture armhf || skip "dpkg --add-architecture armhf failed (multiarch unavailable)"
    # Given up, the architecture goes again: its index would otherwise make
    # every later 'apt-get update' on this machine fail with it.
    skip() {
      $SUDO dpkg --remove-architecture armhf 2>/dev/null || true
      echo "armhf: cannot install dependencies: $*" >&2
      exit 77
    }
  fi
  log=$(mktemp)
  # A failed update may still leave usable lists (one inconsistent index
  # among several): the install below decides.
  if ! $SUDO apt-get -o DPkg::Lock::Timeout=600 update -qq >"$log" 2>&1; then
    update_error=$(grep -m1 -E '^(E|W):' "$log" || tail -n1 "$log")
    echo "install-deps: 'apt-get update' failed (${update_error}); trying the install with the lists there are" >&2
  fi
  if ! $SUDO apt-get -o DPkg::Lock::Timeout=600 install -y -qq --no-install-recommends "${missing[@]}" >"$log" 2>&1; then
    reason=$(grep -m1 -E '^E:' "$log" || tail -n1 "$log")
    rm -f "$log"
    skip "apt-get install ${missing[*]}: ${reason}${update_error:+ (after a failed update: ${update_error})}"
  fi
  rm -f "$log"
  exit 0
fi

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
# With the armhf architecture enabled (install-deps.sh armhf) its index alone
# can fail the update while the host's lists are fresh: the install decides.
if ! $SUDO apt-get -o DPkg::Lock::Timeout=600 update -qq; then
  echo "install-deps: 'apt-get update' failed (see above); trying the install with the lists there are" >&2
fi
if ! $SUDO apt-get -o DPkg::Lock::Timeout=600 install -y -qq --no-install-recommends "${missing[@]}" >/dev/null; then
  echo "install-deps: could not install: ${missing[*]}" >&2
  exit 1
fi
