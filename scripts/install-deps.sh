#!/usr/bin/env bash
# Installs the Debian packages that Lumora Fusion needs to build, test and
# run, when they are missing. Does nothing (and touches no package list) when
# everything is present.
set -euo pipefail

packages=(
  g++ cmake ninja-build pkg-config          # toolchain
  libjpeg62-turbo-dev libpng-dev libtiff-dev  # image files
  libexiv2-dev                              # metadata (EXIF, XMP, ICC) for the CLI
  libcli11-dev                              # command-line parsing
  libopencv-core-dev libopencv-imgproc-dev  # the CLI's frame alignment
  libopencv-photo-dev libopencv-video-dev
  libhwy-dev                                # SIMD dispatch
  ocl-icd-opencl-dev opencl-headers         # the OpenCL level pass (optional)
  pocl-opencl-icd clinfo                    # a CPU OpenCL device for its tests
  libgtest-dev libgmock-dev libbenchmark-dev  # tests and benchmarks
  clang libclang-rt-dev libomp-dev          # thread sanitizer and fuzzing builds
  python3-dev pybind11-dev python3-pybind11 # the Python module lumora
  python3-numpy python3-pytest python3-distributed
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "Installing missing packages: ${missing[*]}" >&2
sudo=""
if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
