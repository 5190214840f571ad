#!/usr/bin/env bash
# Fuses every real photo bracket of the team's shared data with lumora-fuse's
# defaults on 2 threads, and prints one line per bracket: its name, picture
# size, the frames used, seconds, peak memory and how the tool ended. Exits
# non-zero when any fusion fails, crashes or writes nothing.
#
# Each scene folder holds three picked exposures (0_dark, 1_mid, 2_bright:
# PNG, JPEG or PackBits TIFF). Scenes whose full/ set has more frames (9 or
# 15) are fused a second time from that set: its darkest, middle and
# brightest frames by the mean luma that the scene's SOURCE.txt lists per
# frame, or in file-name order when it lists none.
#
#   bash scripts/check_brackets.sh                   outputs in build-brackets/out/
#   bash scripts/check_brackets.sh --out DIR         outputs in DIR
#   bash scripts/check_brackets.sh --brackets DIR    another folder of scenes
#
# The brackets are third-party photographs kept beside the repository
# (../shared/data/brackets/), never in it: a clone without them is told so.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
brackets=$root/../shared/data/brackets
build=$root/build-brackets
out=""
threads=2

die() { echo "check_brackets: $*" >&2; exit 1; }
while [ $# -gt 0 ]; do
  case "$1" in
    --out) out=${2:?--out needs a folder}; shift 2 ;;
    --brackets) brackets=${2:?--brackets needs a folder}; shift 2 ;;
    --build-dir) build=${2:?--build-dir needs a folder}; shift 2 ;;
    -h|--help) sed -n '2,19p' "${BASH_SOURCE[0]}" | sed 's/^# \{0,1\}//'; exit 0 ;;
    *) die "unknown argument '$1' (try --help)" ;;
  esac
done
out=${out:-$build/out}

[ -d "$brackets" ] ||
  die "no brackets at $brackets: the real photo brackets are not part of the repository (give --brackets DIR)"
[ -x /usr/bin/time ] || die "needs GNU time as /usr/bin/time (Debian package 'time')"

bash "$root/scripts/install-deps.sh" >&2
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DLUMORA_BUILD_TESTS=OFF >&2
cmake --build "$build" --target lumora-fuse -j2 >&2
tool=$build/tools/lumora-fuse
mkdir -p "$out"
logs=$out/logs
mkdir -p "$logs"

# Width x height of a PNG, from its header.
png_size() {
  local b
  read -r -a b < <(od -An -tu1 -j16 -N8 "$1")
  echo "$(( (b[0] << 24) | (b[1] << 16) | (b[2] << 8) | b[3] ))x$(( (b[4] << 24) | (b[5] << 16) | (b[6] << 8) | b[7] ))"
}

failures=0
printf '%-26s %-9s %-48s %7s %8s  %s\n' bracket size frames seconds "peak MiB" status
fuse() {  # name, frames...
  local name=$1; shift
  local result="$out/${name//\//-}.png" log="$logs/${name//\//-}.log" timing="$logs/${name//\//-}.time"
  local frames="" f status=0 secs="-" kib=0 size="-"
  for f in "$@"; do frames+="${frames:+ }$(basename "$f")"; done
  rm -f "$result"
  /usr/bin/time -o "$timing" -f '%e %M' "$tool" --quiet --threads "$threads" "$@" -o "$result" > "$log" 2>&1 ||
    status=$?
  read -r secs kib < <(tail -n 1 "$timing") || true
  local verdict=ok
  if [ "$status" -gt 128 ]; then verdict="CRASHED (signal $((status - 128)))"
  elif [ "$status" -ne 0 ]; then verdict="FAILED (exit $status): $(head -n 1 "$log")"
  elif [ ! -s "$result" ]; then verdict="FAILED: no output"
  else size=$(png_size "$result"); fi
  [ "$verdict" = ok ] || failures=$((failures + 1))
  [[ "$kib" =~ ^[0-9]+$ ]] || kib=0
  printf '%-26s %-9s %-48s %7s %8d  %s\n' "$name" "$size" "$frames" "$secs" $((kib / 1024)) "$verdict"
}

# The frames of a full set, darkest first: by the mean luma listed in
# SOURCE.txt ("<file> <W>x<H> <mean luma> ..."), or by name.
ordered_frames() {
  local full=$1/full names f present=0
  mapfile -t names < <(awk 'tolower($1) ~ /\.(png|jpe?g|tiff?)$/ && $2 ~ /^[0-9]+x[0-9]+$/ && $3 ~ /^[0-9.]+$/ {
                              print $3, $1 }' "$1/SOURCE.txt" 2>/dev/null | sort -n -k1,1 | cut -d' ' -f2-)
  for f in "${names[@]}"; do [ -f "$full/$f" ] && present=$((present + 1)); done
  if [ "$present" -gt 0 ] && [ "$present" -eq "$(find "$full" -maxdepth 1 -type f | wc -l)" ]; then
    for f in "${names[@]}"; do echo "$full/$f"; done
  else
    find "$full" -maxdepth 1 -type f | sort
  fi
}

found=0
for scene in "$brackets"/*/; do
  scene=${scene%/}
  name=$(basename "$scene")
  picks=()
  for p in 0_dark 1_mid 2_bright; do
    f=$(find "$scene" -maxdepth 1 -type f -name "$p.*" | head -n 1)
    [ -n "$f" ] && picks+=("$f")
  done
  [ ${#picks[@]} -eq 3 ] || continue
  found=$((found + 1))
  fuse "$name" "${picks[@]}"
  if [ -d "$scene/full" ]; then
    mapfile -t all < <(ordered_frames "$scene")
    n=${#all[@]}
    [ "$n" -gt 4 ] && fuse "$name/full" "${all[0]}" "${all[n / 2]}" "${all[n - 1]}"
  fi
done
[ "$found" -gt 0 ] || die "no scene folder with 0_dark, 1_mid and 2_bright exposures in $brackets"
echo "outputs and logs: $out"
[ "$failures" -eq 0 ] || die "$failures bracket(s) failed"
