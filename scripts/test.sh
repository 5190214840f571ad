#!/usr/bin/env bash
# Installs what is missing, then builds and runs the test suite in seven
# stages: the ordinary build; its whole-fusion checks again on the plain
# reference path; the OpenCL level pass on PoCL, its own tests and the
# whole-fusion checks with every level on the device; an arm64 cross build
# whose SIMD-against-plain tests run under qemu-user (NEON and SVE);
# AddressSanitizer with UndefinedBehaviorSanitizer and leak
# checking, in the build whose allocations can be made to fail one by one;
# the fuzzers, each for a short fixed time, so that what a harness promises
# cannot drift from the code unnoticed; ThreadSanitizer (clang, LLVM's OpenMP
# runtime with its race-detection tool) over the tests that run thread teams.
# Prints each stage's time.
#
#   bash scripts/test.sh                 all stages
#   LUMORA_TEST_STAGES="unit asan" bash scripts/test.sh    some of them
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
stages=${LUMORA_TEST_STAGES:-unit plain opencl arm64 asan fuzz tsan}
jobs=$(nproc)
timings=()

configure_build_test() {  # build dir, ctest arguments after "--", cmake arguments before
    local dir=$1; shift
    local cmake_args=() ctest_args=()
    while [ $# -gt 0 ] && [ "$1" != "--" ]; do cmake_args+=("$1"); shift; done
    [ $# -gt 0 ] && shift
    ctest_args=("$@")
    cmake -S "$root" -B "$dir" -G Ninja "${cmake_args[@]}"
    cmake --build "$dir" -j"$jobs"
    ctest --test-dir "$dir" --output-on-failure -j"$jobs" "${ctest_args[@]}"
}

run_stage() {
    local name=$1; shift
    local start=$SECONDS
    echo "=== stage $name ===" >&2
    "$@"
    timings+=("$name: $((SECONDS - start)) s")
}

unit() {
    configure_build_test "${LUMORA_BUILD_DIR:-$root/build}" \
        -DCMAKE_BUILD_TYPE=RelWithDebInfo -DLUMORA_BUILD_TESTS=ON
}

# The whole-fusion golden checks again, every loop on the plain per-pixel
# reference (the test main's switch): the reference must hold the goldens
# too, not only the fast path that the other tests compare with it.
plain() {
    LUMORA_TEST_PLAIN_PATH=1 configure_build_test "${LUMORA_BUILD_DIR:-$root/build}" \
        -DCMAKE_BUILD_TYPE=RelWithDebInfo -DLUMORA_BUILD_TESTS=ON -- -R '^Fusion(Sample|Protocol)\.'
}

# The OpenCL level pass on the CPU device PoCL (installed with the other
# packages): its tests against the plain pass, which skip where no device is
# found, so the stage first insists on one; then the whole-fusion golden
# checks with every level on device 0 (LUMORA_TEST_DEVICE, the test main's
# switch).
opencl() {
    local dir="${LUMORA_BUILD_DIR:-$root/build}"
    configure_build_test "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DLUMORA_BUILD_TESTS=ON \
        -DLUMORA_WITH_OPENCL=ON -- -R 'LevelPassDevice|FusionDevice|DeviceChoice'
    if ! "$dir/tools/lumora-fuse" --list-devices | grep -q '^opencl:0 '; then
        echo "opencl: no OpenCL device (is pocl-opencl-icd installed?)" >&2
        return 1
    fi
    LUMORA_TEST_DEVICE=0 ctest --test-dir "$dir" --output-on-failure -j"$jobs" \
        -R '^Fusion(Sample|Protocol|Device)\.'
}

# The sanitizer builds leave OpenCL out (the backend then reports no device):
# the OpenCL runtime is not built for them, and the opencl stage covers the
# device pass.
asan() {
    local flags="-fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer"
    ASAN_OPTIONS=detect_leaks=1:strict_string_checks=1:detect_stack_use_after_return=1 \
    UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    configure_build_test "$root/build-asan" \
        -DCMAKE_BUILD_TYPE=RelWithDebInfo -DLUMORA_BUILD_TESTS=ON -DLUMORA_ALLOCATION_FAULTS=ON \
        -DLUMORA_WITH_OPENCL=OFF \
        "-DCMAKE_C_FLAGS=$flags" "-DCMAKE_CXX_FLAGS=$flags" \
        "-DCMAKE_EXE_LINKER_FLAGS=$flags" "-DCMAKE_SHARED_LINKER_FLAGS=$flags"
}

# The arm64 cross build's SIMD-against-plain tests on small images under
# qemu-user, each test program run once (scripts/test-arm64.sh).
arm64() {
    bash "$root/scripts/test-arm64.sh" --simd
}

# Each libFuzzer target for LUMORA_FUZZ_SECONDS (30 by default) from its
# committed seeds; any input that breaks a promise fails the stage.
fuzz() {
    bash "$root/scripts/fuzz.sh" "${LUMORA_FUZZ_SECONDS:-30}"
}

tsan() {
    local flags="-fsanitize=thread"
    local archer
    archer=$(ls /usr/lib/llvm-*/lib/libarcher.so 2>/dev/null | sort -V | tail -n1)
    # Death tests fork a process that aborts on purpose; they say nothing
    # about races and are left to the other stages.
    CC=clang CXX=clang++ OMP_TOOL_LIBRARIES="$archer" \
    TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 ignore_noninstrumented_modules=1" \
    configure_build_test "$root/build-tsan" \
        -DCMAKE_BUILD_TYPE=RelWithDebInfo -DLUMORA_BUILD_TESTS=ON -DLUMORA_BUILD_TOOLS=OFF \
        -DLUMORA_WITH_OPENCL=OFF \
        "-DCMAKE_C_FLAGS=$flags" "-DCMAKE_CXX_FLAGS=$flags" \
        "-DCMAKE_EXE_LINKER_FLAGS=$flags" "-DCMAKE_SHARED_LINKER_FLAGS=$flags" \
        -- -E "Death|SharedLibrary|HostLibrary"
}

run_stage install bash "$root/scripts/install-deps.sh"
for stage in $stages; do
    run_stage "$stage" "$stage"
done
printf 'stage times: %s\n' "${timings[@]}"
