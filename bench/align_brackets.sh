#!/usr/bin/env bash
# What the alignment check and --align say on every bracket of a folder of
# brackets (three frames each, and the whole series where a bracket has a
# full/ folder), with the check's processor time on one thread.
#
#   bash bench/align_brackets.sh build/tools/lumora-fuse ../shared/data/brackets
set -euo pipefail
tool=$(realpath "$1")
brackets=$2
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
printf '| bracket / frames | check (processor s, 1 thread) | check says | --align says |\n|---|---|---|---|\n'
for dir in "$brackets"/*/; do
    name=$(basename "$dir")
    for set in three full; do
        if [ $set = three ]; then
            mapfile -t frames < <(find "$dir" -maxdepth 1 -type f -name '[0-9]_*' | sort)
        else
            [ -d "$dir/full" ] || continue
            mapfile -t frames < <(find "$dir/full" -maxdepth 1 -type f | sort)
        fi
        # The check alone: the fusion is cut short by a loupe of one pixel,
        # and the processor time of the same run under -q (no check) is
        # taken off.
        /usr/bin/time -f "%U %S" -o "$out/q.t" "$tool" -q --threads 1 --loupe 0,0,1,1 "${frames[@]}" -o "$out/q.png" 2>/dev/null
        /usr/bin/time -f "%U %S" -o "$out/c.t" "$tool" --threads 1 --loupe 0,0,1,1 "${frames[@]}" -o "$out/c.png" 2>"$out/c.err"
        check=$(grep "out of line" "$out/c.err" || true)
        seconds=$(awk 'NR == FNR { q = $1 + $2; next } { print $1 + $2 - q }' "$out/q.t" "$out/c.t")
        aligned=$("$tool" --align "${frames[@]}" -o "$out/a.png" 2>&1 >/dev/null | grep "aligned " || true)
        printf '| %s (%s) | %.2f | %s | %s |\n' "$name" "$set" "$seconds" \
            "${check:-none}" "${aligned//$dir/}"
    done
done
