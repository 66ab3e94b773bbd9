#!/usr/bin/env bash
# Cross-builds the layer, the host platform libraries and the unit tests for
# 32-bit ARM (Debian armhf) and runs the unit tests under qemu-arm:
#   scripts/armhf.sh [ctest arguments...]
# Build tree: build-armhf/ (or $KAM_ARMHF_BUILD_DIR). The end-to-end tests
# need an X server and Mesa of the target's architecture: not built here.
# Exit codes: 0 all tests passed, 77 skipped because the armhf dependencies
# cannot be installed (the reason is printed), anything else a failure.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${KAM_ARMHF_BUILD_DIR:-$root/build-armhf}
jobs=${KAM_JOBS:-2}
triplet=arm-linux-gnueabihf
start=$SECONDS
phase() { echo "armhf: [$((SECONDS - start)) s] $*" >&2; }

phase "dependencies"
# The host's own packages (cmake, the EGL/GLES headers, GoogleTest's
# sources) first: the main build needs them too, so a failure here is the
# package infrastructure's, reported as a skip like the armhf group's.
if ! bash "$root/scripts/install-deps.sh"; then
  echo "armhf: cannot install dependencies: the host packages (scripts/install-deps.sh) failed, see above" >&2
  echo "armhf: SKIPPED" >&2
  exit 77
fi
rc=0
bash "$root/scripts/install-deps.sh" armhf || rc=$?
if [[ $rc -eq 77 ]]; then
  echo "armhf: SKIPPED (see the reason above)" >&2
  exit 77
elif [[ $rc -ne 0 ]]; then
  echo "armhf: installing the dependencies failed (exit $rc)" >&2
  exit "$rc"
fi
mkdir -p "$build"

# Debian's armhf libbacktrace (under libutils) names an ARM 7z.so among its
# needed libraries; p7zip-full cannot be installed for two architectures at
# once, so its armhf package is unpacked aside, for the linker and for the
# emulated loader (LD_LIBRARY_PATH comes before the library's RUNPATH).
libdirs=()
androiddir=/usr/lib/$triplet/android
# (No `grep -q` on a pipe here: it quits at the first match, readelf dies of
# SIGPIPE, and with pipefail the test reads as "not needed".)
needed=$(readelf -d "$androiddir"/lib*.so.0 2>/dev/null || true)
if [[ $needed == *'Shared library: [7z.so]'* ]]; then
  p7zip=$build/p7zip
  if [[ ! -f $p7zip/usr/lib/p7zip/7z.so ]]; then
    phase "unpacking p7zip-full:armhf aside for 7z.so"
    rm -rf "$p7zip" && mkdir -p "$p7zip/deb"
    if ! (cd "$p7zip/deb" && apt-get download -qq p7zip-full:armhf >/dev/null 2>"$p7zip/download.log"); then
      echo "armhf: cannot install dependencies: apt-get download p7zip-full:armhf: $(tail -n1 "$p7zip/download.log")" >&2
      echo "armhf: SKIPPED" >&2
      exit 77
    fi
    dpkg-deb -x "$p7zip"/deb/p7zip-full_*.deb "$p7zip"
  fi
  libdirs+=("$p7zip/usr/lib/p7zip")
fi

toolchain=$root/cmake/armhf-toolchain.cmake
# No -L: the Android packages bring the armhf libc (libc6:armhf) with its
# loader at /lib/ld-linux-armhf.so.3; pointing qemu at the cross toolchain's
# copy instead mixes two libcs in one process, and it crashes.
emulator="qemu-arm"
linkflags=""
if [[ ${#libdirs[@]} -gt 0 ]]; then
  path=$(IFS=:; echo "${libdirs[*]}")
  linkflags="-Wl,-rpath-link,$path"
  emulator="$emulator;-E;LD_LIBRARY_PATH=$path"
fi

# GoogleTest from Debian's sources, built with the cross compiler.
gtest=$build/gtest
if [[ ! -f $gtest/lib/cmake/GTest/GTestConfig.cmake ]]; then
  phase "GoogleTest for armhf"
  cmake -S /usr/src/googletest -B "$build/googletest" -DCMAKE_TOOLCHAIN_FILE="$toolchain" \
    -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX="$gtest" -DCMAKE_POSITION_INDEPENDENT_CODE=ON >/dev/null
  cmake --build "$build/googletest" -j"$jobs" >/dev/null
  cmake --install "$build/googletest" >/dev/null
fi

# The layer and the platform take only headers from EGL and GLES (shared by
# every architecture): the host's egl.pc and glesv2.pc answer for them, and
# the platform is told where an armhf system keeps the libraries it opens.
headers=$build/pkgconfig-headers
mkdir -p "$headers"
for pc in egl glesv2; do
  ln -sf "$(pkg-config --variable=pcfiledir $pc)/$pc.pc" "$headers/$pc.pc"
done
export PKG_CONFIG_LIBDIR=/usr/lib/$triplet/pkgconfig:/usr/share/pkgconfig:$headers
system=/usr/lib/$triplet

phase "configure"
cmake -S "$root" -B "$build/layer" -DCMAKE_TOOLCHAIN_FILE="$toolchain" \
  -DKAM_SYSTEM_libEGL_so_1=$system/libEGL.so.1 -DKAM_SYSTEM_libGLESv2_so_2=$system/libGLESv2.so.2 \
  -DKAM_SYSTEM_libGLESv1_CM_so_1=$system/libGLESv1_CM.so.1 \
  -DCMAKE_BUILD_TYPE=${KAM_BUILD_TYPE:-RelWithDebInfo} \
  -DKAM_BUILD_DEMO=OFF -DKAM_BUILD_BENCH=OFF -DKAM_BUILD_E2E=OFF \
  -DGTest_DIR="$gtest/lib/cmake/GTest" \
  -DCMAKE_CROSSCOMPILING_EMULATOR="$emulator" \
  -DCMAKE_EXE_LINKER_FLAGS="$linkflags" -DCMAKE_SHARED_LINKER_FLAGS="$linkflags" >/dev/null

phase "build: libKAM.so, the host platform, kam_unit_tests"
cmake --build "$build/layer" -j"$jobs" --target KAM kam_platform kam_unit_tests
[[ $(readelf -h "$build/layer/lib/libKAM.so") =~ Machine:\ *ARM$'\n' ]] \
  || { echo "armhf: libKAM.so is not a 32-bit ARM library" >&2; exit 1; }

phase "unit tests under qemu-arm"
# The same test counts as natively: emulated, the slowest test takes a few
# seconds.
cd "$build/layer"
ctest --output-on-failure -j"$jobs" --timeout 300 "$@"
phase "done"
