#!/usr/bin/env bash
# Times lumora-fuse against two peers on the same exposure bracket:
#   lumora-fuse   this project's tool, its library look (two passes, as timed so far)
#   enfuse        Debian's enfuse, its defaults (JPEG quality 95 like the others)
#   mertens       OpenCV's MergeMertens with its default weights (bench/peers/)
# at several sizes, every tool on 2 threads, runs interleaved (run 1 of every
# tool, then run 2, ...). Prints the median wall time, the ratio to lumora-fuse
# and the peak resident memory, as measured by GNU time.
#
# Installs what is missing (enfuse, libopencv-dev, time and the project's own
# build dependencies), builds lumora-fuse and the peer programs, and makes the
# scaled brackets once in the work directory. Run it on an otherwise idle
# machine: the numbers mean little when other jobs share the cores.
set -euo pipefail

here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
root="$(cd "$here/.." && pwd)"

sizes="1,4,12,24,12t,24t"
runs_small=5          # runs at sizes below 12 MP
runs_large=3          # runs at 12 MP and above
runs_override=""
work_dir="/tmp/lumora-peer-bench"
build_dir="$root/build-bench"
build_type="Release"
threads=2
tools_wanted="lumora-fuse,enfuse,mertens"

usage() {
  cat <<EOF
Usage: bench/peer_comparison.sh [OPTION]...
Times lumora-fuse, enfuse and OpenCV's Mertens fusion on the sample bracket
scaled to several sizes (JPEG inputs, quality 95).

  --sizes LIST       megapixel sizes, comma-separated (default $sizes); a size of
                     N MP is the 4:3 picture of about N million pixels
                     (1 = 1155x866, 4 = 2309x1732, 12 = 4000x3000,
                     24 = 5657x4243); a size ending in t (12t) is the
                     textured bracket: the upscale with fine texture and a
                     little per-pixel noise, as a real photograph has
  --runs N           runs of each tool at every size (default: $runs_small below
                     12 MP, $runs_large from 12 MP on)
  --threads N        threads for every tool (default $threads)
  --tools LIST       tools to time, comma-separated (default $tools_wanted)
  --work-dir DIR     brackets, outputs and logs (default $work_dir); the
                     brackets are made once and reused
  --build-dir DIR    build directory for lumora-fuse (default $build_dir);
                     the peer programs go to DIR/peer-tools
  --build-type TYPE  CMake build type for lumora-fuse (default $build_type)
  --quick            smoke run: 1 MP, 1 run
  -h, --help         show this help
EOF
}

die() { echo "peer_comparison: $*" >&2; exit 1; }
note() { echo "peer_comparison: $*" >&2; }

while [ $# -gt 0 ]; do
  case "$1" in
    --sizes) sizes="${2:?--sizes needs a value}"; shift 2 ;;
    --runs) runs_override="${2:?--runs needs a value}"; shift 2 ;;
    --threads) threads="${2:?--threads needs a value}"; shift 2 ;;
    --tools) tools_wanted="${2:?--tools needs a value}"; shift 2 ;;
    --work-dir) work_dir="${2:?--work-dir needs a value}"; shift 2 ;;
    --build-dir) build_dir="${2:?--build-dir needs a value}"; shift 2 ;;
    --build-type) build_type="${2:?--build-type needs a value}"; shift 2 ;;
    --quick) sizes="1"; runs_override="1"; shift ;;
    -h|--help) usage; exit 0 ;;
    *) usage >&2; die "unknown argument '$1'" ;;
  esac
done

[[ "$threads" =~ ^[1-9][0-9]*$ ]] || die "--threads: '$threads' is not a positive whole number"
[ -z "$runs_override" ] || [[ "$runs_override" =~ ^[1-9][0-9]*$ ]] ||
  die "--runs: '$runs_override' is not a positive whole number"
IFS=, read -r -a size_list <<< "$sizes"
[ ${#size_list[@]} -gt 0 ] || die "--sizes is empty"
for s in "${size_list[@]}"; do
  [[ "$s" =~ ^[0-9]+(\.[0-9]+)?t?$ ]] && awk -v s="${s%t}" 'BEGIN { exit !(s > 0 && s <= 100) }' ||
    die "--sizes: '$s' is not a size in megapixels (above 0, up to 100, t for textured)"
done
IFS=, read -r -a tool_list <<< "$tools_wanted"
for t in "${tool_list[@]}"; do
  case "$t" in lumora-fuse|enfuse|mertens) ;; *) die "--tools: unknown tool '$t'" ;; esac
done
want() { [[ ",$tools_wanted," == *",$1,"* ]]; }

# --- Packages ---------------------------------------------------------------
# The peers and GNU time; apt-get update only when something is missing.
peer_packages=(enfuse libopencv-dev time)
missing=()
for p in "${peer_packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  note "installing missing packages: ${missing[*]}"
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  $sudo apt-get update -qq
  $sudo env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >&2
fi
if want lumora-fuse; then
  bash "$root/scripts/install-deps.sh"
fi
gnu_time=/usr/bin/time
[ -x "$gnu_time" ] || die "$gnu_time is missing (package time)"

# --- Builds -----------------------------------------------------------------
mkdir -p "$work_dir" "$build_dir"
work_dir="$(cd "$work_dir" && pwd)"
build_dir="$(cd "$build_dir" && pwd)"
log_dir="$work_dir/logs"
mkdir -p "$log_dir"

peer_build="$build_dir/peer-tools"
note "building the peer programs in $peer_build"
cmake -S "$here/peers" -B "$peer_build" -G Ninja -DCMAKE_BUILD_TYPE=Release \
  > "$log_dir/peer-configure.log" 2>&1 || { cat "$log_dir/peer-configure.log" >&2; die "peer configure failed"; }
cmake --build "$peer_build" -j2 > "$log_dir/peer-build.log" 2>&1 ||
  { cat "$log_dir/peer-build.log" >&2; die "peer build failed"; }
mertens_bin="$peer_build/mertens_fuse"
make_bracket_bin="$peer_build/make_bracket"

lumora_bin=""
skipped=""
if want lumora-fuse; then
  note "building lumora-fuse ($build_type) in $build_dir"
  if cmake -S "$root" -B "$build_dir" -G Ninja -DCMAKE_BUILD_TYPE="$build_type" \
       -DLUMORA_BUILD_BENCHMARKS=OFF -DLUMORA_BUILD_TESTS=OFF -DLUMORA_BUILD_TOOLS=ON \
       > "$log_dir/lumora-configure.log" 2>&1 &&
     cmake --build "$build_dir" --target lumora-fuse -j2 > "$log_dir/lumora-build.log" 2>&1; then
    [ -x "$build_dir/tools/lumora-fuse" ] && lumora_bin="$build_dir/tools/lumora-fuse"
  fi
  if [ -z "$lumora_bin" ]; then
    note "SKIPPING lumora-fuse: it did not configure or build (see $log_dir/lumora-configure.log"
    note "  and $log_dir/lumora-build.log); the other tools are timed without it, and no ratio is shown"
    tool_list=("${tool_list[@]/lumora-fuse}")
    skipped="lumora-fuse was skipped: it did not build (see $log_dir/lumora-*.log)"
  fi
fi
enfuse_bin=""
if want enfuse; then
  enfuse_bin="$(command -v enfuse)" || die "enfuse is not on PATH"
fi
active=()
for t in "${tool_list[@]}"; do [ -n "$t" ] && active+=("$t"); done
[ ${#active[@]} -gt 0 ] || die "no tool left to time"

# --- Brackets ---------------------------------------------------------------
# N MP is the 4:3 picture of N million pixels, each side rounded to the nearest pixel.
dims() { awk -v mp="$1" 'BEGIN { w = sqrt(mp * 1e6 * 4 / 3); printf "%d %d\n", int(w + 0.5), int(w * 3 / 4 + 0.5) }'; }
sample="$root/samples/belgium_house"
for f in 0_dark 1_mid 2_bright; do [ -f "$sample/$f.png" ] || die "missing sample $sample/$f.png"; done

bracket_dir() { echo "$work_dir/bracket-${1}mp"; }
for s in "${size_list[@]}"; do
  read -r w h < <(dims "${s%t}")
  texture=smooth
  [[ "$s" == *t ]] && texture=textured
  dir="$(bracket_dir "$s")"
  if [ -s "$dir/0_dark.jpg" ] && [ -s "$dir/1_mid.jpg" ] && [ -s "$dir/2_bright.jpg" ] &&
     [ "$(cat "$dir/size" 2>/dev/null)" = "${w}x${h}" ]; then
    continue
  fi
  note "making the ${s%t} MP $texture bracket (${w}x${h}, JPEG q95) in $dir"
  mkdir -p "$dir"
  rm -f "$dir/size"
  "$make_bracket_bin" "$sample" "$w" "$h" "$dir" 95 "$texture" || die "make_bracket failed for ${s} MP"
  for f in 0_dark 1_mid 2_bright; do [ -s "$dir/$f.jpg" ] || die "make_bracket wrote no $dir/$f.jpg"; done
  echo "${w}x${h}" > "$dir/size"
done

# --- Runs -------------------------------------------------------------------
results="$work_dir/results.tsv"   # size tool run wall_s max_rss_kib cpu_s
: > "$results"

# One timed run; the tool's own output goes to a log, GNU time's line to a file:
# wall seconds, maximum resident set size in KiB, user and system CPU seconds.
time_format='%e %M %U %S'
run_tool() {
  local tool="$1" dir="$2" out="$3" log="$4" timing="$5"
  local in=("$dir/0_dark.jpg" "$dir/1_mid.jpg" "$dir/2_bright.jpg")
  case "$tool" in
    lumora-fuse)
      env -u OMP_NUM_THREADS "$gnu_time" -o "$timing" -f "$time_format" \
        "$lumora_bin" --look library --threads "$threads" "${in[@]}" -o "$out" ;;
    enfuse)
      # Debian's enfuse 4.2 is built with OpenMP and has no thread option of its
      # own: the team size comes from OMP_NUM_THREADS (one thread per CPU when
      # unset). Its fusion defaults stay; only the JPEG quality is raised from
      # libjpeg's 75 to the 95 that the other two write.
      OMP_NUM_THREADS="$threads" "$gnu_time" -o "$timing" -f "$time_format" \
        "$enfuse_bin" --compression=95 -o "$out" "${in[@]}" ;;
    mertens)
      env -u OMP_NUM_THREADS "$gnu_time" -o "$timing" -f "$time_format" \
        "$mertens_bin" --threads "$threads" "${in[@]}" -o "$out" ;;
  esac > "$log" 2>&1
}

for s in "${size_list[@]}"; do
  dir="$(bracket_dir "$s")"
  if [ -n "$runs_override" ]; then runs="$runs_override"
  elif awk -v s="${s%t}" 'BEGIN { exit !(s >= 12) }'; then runs="$runs_large"
  else runs="$runs_small"; fi
  out_dir="$work_dir/out-${s}mp"
  mkdir -p "$out_dir"
  note "${s} MP ($(cat "$dir/size")): $runs run(s) of ${active[*]}, $threads threads"
  for ((r = 1; r <= runs; r++)); do
    for t in "${active[@]}"; do
      out="$out_dir/$t.jpg"
      log="$log_dir/${s}mp-$t-run$r.log"
      timing="$log_dir/${s}mp-$t-run$r.time"
      rm -f "$out" "$timing"
      if ! run_tool "$t" "$dir" "$out" "$log" "$timing"; then
        tail -n 20 "$log" >&2 || true
        die "$t failed at ${s} MP, run $r (log: $log)"
      fi
      [ -s "$out" ] || die "$t wrote no output $out at ${s} MP, run $r (log: $log)"
      read -r secs kib user sys < <(tail -n 1 "$timing") || die "no timing from GNU time in $timing"
      [[ "$secs" =~ ^[0-9.]+$ && "$kib" =~ ^[0-9]+$ && "$user" =~ ^[0-9.]+$ && "$sys" =~ ^[0-9.]+$ ]] ||
        die "odd timing line in $timing: $(cat "$timing")"
      cpu="$(awk -v u="$user" -v s="$sys" 'BEGIN { printf "%.2f", u + s }')"
      printf '%s\t%s\t%d\t%s\t%s\t%s\n' "$s" "$t" "$r" "$secs" "$kib" "$cpu" >> "$results"
      note "  run $r $t: ${secs} s wall, ${cpu} s CPU, $((kib / 1024)) MiB"
    done
  done
done

# --- Table ------------------------------------------------------------------
# Per size and tool: median wall time, its ratio to lumora-fuse's median at
# that size, median CPU time (user + system; less disturbed than the wall time
# when other jobs share the cores) and the largest maximum resident set size.
echo
echo "Peer comparison: $(nproc) cores, $threads threads per tool, medians over the runs," \
     "load average at the end $(cut -d' ' -f1-3 /proc/loadavg)"
awk -F'\t' -v order="${active[*]}" '
  function median(key, col,   n, i, j, x, a) {
    n = count[key]
    for (i = 1; i <= n; i++) {          # insertion sort of one column
      x = val[key, i, col]
      for (j = i - 1; j >= 1 && a[j] > x; j--) a[j + 1] = a[j]
      a[j + 1] = x
    }
    return (n % 2) ? a[(n + 1) / 2] : (a[n / 2] + a[n / 2 + 1]) / 2
  }
  { key = $1 SUBSEP $2; n = ++count[key]; val[key, n, 4] = $4; val[key, n, 6] = $6
    if (!(key in rss) || $5 + 0 > rss[key]) rss[key] = $5 + 0
    if (!($1 in seen)) { seen[$1] = 1; sizes[++ns] = $1 } }
  END {
    nt = split(order, tools, " ")
    printf "%-12s %-12s %4s %9s %10s %8s %9s\n", "size", "tool", "runs", "wall s", "vs lumora", "CPU s", "peak MiB"
    for (i = 1; i <= ns; i++) {
      s = sizes[i]; base = ((s SUBSEP "lumora-fuse") in count) ? median(s SUBSEP "lumora-fuse", 4) : 0
      for (j = 1; j <= nt; j++) {
        key = s SUBSEP tools[j]; if (!(key in count)) continue
        wall = median(key, 4)
        r = (base > 0) ? wall / base : -1
        ratio = (r < 0) ? "-" : sprintf((r >= 10) ? "%.1fx" : (r >= 0.1) ? "%.2fx" : "%.3fx", r)
        label = (s ~ /t$/) ? substr(s, 1, length(s) - 1) " MP tex" : s " MP"
        printf "%-12s %-12s %4d %9.2f %10s %8.2f %9.0f\n", label, tools[j], count[key], wall, ratio,
               median(key, 6), rss[key] / 1024
      }
    }
  }' "$results"
[ -z "$skipped" ] || echo "$skipped"
echo
echo "Raw runs: $results; outputs: $work_dir/out-*mp/; logs: $log_dir/"
