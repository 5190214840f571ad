#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, AddressSanitizer, UndefinedBehavior-
# Sanitizer) in build-fuzz and runs each for a bounded time, one after the
# other, on a scratch copy of its seed corpus (tests/fuzz/corpus stays as
# committed). Usage: bash scripts/fuzz.sh [SECONDS_PER_TARGET] (default 120).
# Prints the inputs run per target; exits 1 when any target found a crash,
# whose input is then kept in build-fuzz/crashes/.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${LUMORA_FUZZ_BUILD_DIR:-$root/build-fuzz}
seconds=${1:-120}
targets=(fuzz_read_image fuzz_options fuzz_fusion)

# clang, its libFuzzer and sanitizer runtimes and libomp are among them.
bash "$root/scripts/install-deps.sh"

CC=clang CXX=clang++ cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DLUMORA_BUILD_FUZZERS=ON -DLUMORA_BUILD_TESTS=OFF -DLUMORA_BUILD_BENCHMARKS=OFF \
  -DLUMORA_WITH_OPENCL=OFF >/dev/null
cmake --build "$build" -j"$(nproc)" --target "${targets[@]}"

mkdir -p "$build/crashes" "$build/logs"
declare -A extra=([fuzz_read_image]="-max_len=16384 -dict=$root/tests/fuzz/fuzz_read_image.dict"
                  [fuzz_options]="-max_len=4096" [fuzz_fusion]="-max_len=16384")
failed=0
summary=""
for t in "${targets[@]}"; do
  corpus="$build/corpus/$t"
  mkdir -p "$corpus"
  cp -n "$root/tests/fuzz/corpus/$t/"* "$corpus/"
  log="$build/logs/$t.log"
  echo "fuzzing $t for ${seconds} s (log: $log)" >&2
  status=0
  # The fusion library writes its commentary to the standard error stream,
  # hence a log file per target.
  "$build/tests/fuzz/$t" -max_total_time="$seconds" -timeout=30 -rss_limit_mb=2048 -malloc_limit_mb=2048 \
    -print_final_stats=1 -artifact_prefix="$build/crashes/$t-" ${extra[$t]} "$corpus" >"$log" 2>&1 || status=$?
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
  # A crash ends the run before the final statistics: take the last status line.
  [ -n "$runs" ] || runs=$(sed -n 's/^#\([0-9][0-9]*\)[[:space:]].*/\1/p' "$log" | tail -n 1)
  result="ok"
  if [ "$status" -ne 0 ]; then
    failed=1
    result="FOUND A CRASH (exit $status): $(grep -m1 -E '^(==[0-9]+==ERROR|SUMMARY|lumora fuzz:)' "$log" || true)"
    result="$result; input kept as $(ls -t "$build/crashes/$t-"* 2>/dev/null | head -n 1)"
  fi
  summary+=$(printf '%-16s %10s inputs run  %s' "$t" "${runs:-?}" "$result")$'\n'
done
printf '\n%s' "$summary"
exit "$failed"
