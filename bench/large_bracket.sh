#!/usr/bin/env bash
# Fuses one large bracket with lumora-fuse and prints its wall time, CPU time
# and peak resident memory as measured by GNU time. The bracket is the
# shipped samples/belgium_house scaled with bicubic interpolation to a 4:3
# picture of N megapixels (default 50: 8165x6124) and written as JPEG of
# quality 95 by peers/make_bracket, as bench/peer_comparison.sh does; it is
# made once in the work folder and reused. lumora-fuse runs with its library
# look (both passes, the highlight pass too, as timed so far) and writes a
# JPEG of quality 95.
#
#   bash bench/large_bracket.sh                       50 MP, 2 threads
#   bash bench/large_bracket.sh --mp 24 --threads 4
#   bash bench/large_bracket.sh --work-dir /scratch/large --build-dir build-large
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
root=$(cd "$here/.." && pwd)
mp=50
threads=2
work_dir=/tmp/lumora-large-bench
build_dir=$root/build-bench

die() { echo "large_bracket: $*" >&2; exit 1; }
note() { echo "large_bracket: $*" >&2; }
while [ $# -gt 0 ]; do
  case "$1" in
    --mp) mp=${2:?--mp needs a value}; shift 2 ;;
    --threads) threads=${2:?--threads needs a value}; shift 2 ;;
    --work-dir) work_dir=${2:?--work-dir needs a folder}; shift 2 ;;
    --build-dir) build_dir=${2:?--build-dir needs a folder}; shift 2 ;;
    -h|--help) sed -n '2,13p' "${BASH_SOURCE[0]}" | sed 's/^# \{0,1\}//'; exit 0 ;;
    *) die "unknown argument '$1' (try --help)" ;;
  esac
done
[[ "$mp" =~ ^[0-9]+$ ]] && [ "$mp" -ge 1 ] && [ "$mp" -le 100 ] || die "--mp: '$mp' is not 1 to 100 megapixels"
[[ "$threads" =~ ^[1-9][0-9]*$ ]] || die "--threads: '$threads' is not a positive whole number"
[ -x /usr/bin/time ] || die "needs GNU time as /usr/bin/time (Debian package 'time')"
dpkg-query -W -f='${Status}' libopencv-dev 2>/dev/null | grep -q "install ok installed" ||
  die "needs OpenCV to make the bracket (Debian package libopencv-dev; bench/peer_comparison.sh installs it)"

bash "$root/scripts/install-deps.sh" >&2
mkdir -p "$work_dir" "$build_dir"
log_dir=$work_dir/logs
mkdir -p "$log_dir"
note "building make_bracket and lumora-fuse (Release) in $build_dir"
{
  cmake -S "$here/peers" -B "$build_dir/peer-tools" -G Ninja -DCMAKE_BUILD_TYPE=Release &&
  cmake --build "$build_dir/peer-tools" --target make_bracket -j2 &&
  cmake -S "$root" -B "$build_dir" -G Ninja -DCMAKE_BUILD_TYPE=Release -DLUMORA_BUILD_BENCHMARKS=OFF \
    -DLUMORA_BUILD_TESTS=OFF -DLUMORA_BUILD_TOOLS=ON &&
  cmake --build "$build_dir" --target lumora-fuse -j2
} > "$log_dir/build.log" 2>&1 || { tail -n 30 "$log_dir/build.log" >&2; die "build failed (see $log_dir/build.log)"; }

read -r w h < <(awk -v mp="$mp" 'BEGIN { w = sqrt(mp * 1e6 * 4 / 3); printf "%d %d\n", int(w + 0.5), int(w * 3 / 4 + 0.5) }')
bracket=$work_dir/bracket-${mp}mp
if ! { [ "$(cat "$bracket/size" 2>/dev/null)" = "${w}x${h}" ] &&
       [ -s "$bracket/0_dark.jpg" ] && [ -s "$bracket/1_mid.jpg" ] && [ -s "$bracket/2_bright.jpg" ]; }; then
  note "making the ${mp} MP bracket (${w}x${h}, JPEG q95) in $bracket"
  mkdir -p "$bracket"
  rm -f "$bracket/size"
  "$build_dir/peer-tools/make_bracket" "$root/samples/belgium_house" "$w" "$h" "$bracket" 95 ||
    die "make_bracket failed"
  echo "${w}x${h}" > "$bracket/size"
fi

result=$work_dir/fused-${mp}mp.jpg
timing=$log_dir/fuse-${mp}mp.time
rm -f "$result"
note "fusing ${w}x${h} with $threads threads"
env -u OMP_NUM_THREADS /usr/bin/time -o "$timing" -f '%e %M %U %S' \
  "$build_dir/tools/lumora-fuse" --quiet --look library --threads "$threads" \
  "$bracket/0_dark.jpg" "$bracket/1_mid.jpg" "$bracket/2_bright.jpg" -o "$result" ||
  die "lumora-fuse failed (exit $?)"
[ -s "$result" ] || die "lumora-fuse wrote no $result"
read -r secs kib user sys < <(tail -n 1 "$timing")
total_kib=$(awk '/^MemTotal:/ { print $2 }' /proc/meminfo)
awk -v mp="$mp" -v w="$w" -v h="$h" -v t="$threads" -v s="$secs" -v k="$kib" -v u="$user" -v y="$sys" \
    -v m="$total_kib" 'BEGIN {
  printf "%d MP (%dx%d), 3 JPEG exposures, %d threads: %.1f s wall, %.1f s CPU, peak %.0f MiB", mp, w, h, t, s, u + y, k / 1024
  printf " (%.1f bytes a pixel; machine %.1f GiB)\n", k * 1024 / (w * h), m / 1048576 }'
echo "result: $result"
