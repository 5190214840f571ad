#!/usr/bin/env bash
# Builds the library and its unit tests for arm64 with Debian's cross
# compiler and the arm64 multiarch packages, then runs them under qemu-user
# (ctest calls the emulator that the toolchain file names), so that the NEON
# and SVE code is checked against the plain path byte for byte. Installs what
# is missing first (adding the arm64 architecture to dpkg). No tool, Python
# module, benchmarks or fuzzers: the CLI tests, which need the tool, are left
# out with it. Builds in build-arm64/.
#
#   bash scripts/test-arm64.sh                  every unit test
#   bash scripts/test-arm64.sh -R 'Simd'        ctest arguments pick some
#   bash scripts/test-arm64.sh --simd           the SIMD-against-plain tests on
#                                               small images (the CI stage)
#   QEMU_CPU=max,sve-default-vector-length=32 bash scripts/test-arm64.sh
#                                               SVE_256 as well (=16: SVE2_128)
set -euo pipefail
simd_only=0
if [ "${1:-}" = "--simd" ]; then simd_only=1; shift; fi
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${LUMORA_ARM64_BUILD_DIR:-$root/build-arm64}

packages=(
  g++-aarch64-linux-gnu qemu-user
  libhwy-dev:arm64 libjpeg62-turbo-dev:arm64 libpng-dev:arm64
  libgtest-dev:arm64 libgmock-dev:arm64
  libgomp1:arm64                 # OpenMP at run time, beside libc6:arm64
)
missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing missing packages: ${missing[*]}" >&2
  sudo=""
  if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
  dpkg --print-foreign-architectures | grep -qx arm64 || $sudo dpkg --add-architecture arm64
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

cmake -S "$root" -B "$build" -G Ninja --toolchain "$root/cmake/aarch64-linux-gnu.cmake" \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DLUMORA_BUILD_TESTS=ON -DLUMORA_BUILD_TOOLS=OFF \
    -DLUMORA_BUILD_PYTHON=OFF -DLUMORA_BUILD_BENCHMARKS=OFF -DLUMORA_BUILD_FUZZERS=OFF
cmake --build "$build" -j"$(nproc)"
# --simd: each test program runs once under qemu with the SIMD-against-plain
# tests of small images, so that it fills its 16M-entry colour table once
# (about 25 s under emulation) instead of once a test as ctest's one process
# per test does. Left to the full run: the whole fusions (FusionSimd, about
# four minutes each under emulation) and pyramids (PyramidSimd, half a minute
# each).
if [ "$simd_only" = 1 ]; then
  filter='*LevelPassSimd*:LevelPassRangeReads.*:SmoothingSimd.*:ExposureWeightsSimd.*'
  filter+=':*ReconstructionSimd*:CIELabTable.*'
  programs=(test_filter test_tables test_blend test_image)
  pids=()
  for t in "${programs[@]}"; do
    qemu-aarch64 "$build/tests/$t" --gtest_filter="$filter" > "$build/$t.simd.log" 2>&1 &
    pids+=($!)
  done
  status=0
  for i in "${!programs[@]}"; do
    log="$build/${programs[$i]}.simd.log"
    # A program that passed no test means the filter no longer names its tests.
    if wait "${pids[$i]}" && grep -q '^\[  PASSED  \] [1-9]' "$log"; then
      echo "${programs[$i]}: $(grep '^\[  PASSED  \]' "$log")"
    else
      cat "$log"
      echo "${programs[$i]}: FAILED under qemu-aarch64" >&2
      status=1
    fi
  done
  exit "$status"
fi

# Each SIMD test runs every instruction set that Highway compiled and that
# qemu's CPU offers (its default: SVE2, SVE and NEON). Death tests re-execute
# the test program, which only works where binfmt_misc hands arm64 programs to
# qemu (not in a container): they say nothing about the instruction set and
# are left to the native stages, and so is HostThreads, whose many concurrent
# whole fusions run past ctest's 600 s under emulation.
ctest --test-dir "$build" --output-on-failure -j"$(nproc)" -E 'DeathTest|HostThreads' "$@"
