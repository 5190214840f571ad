#!/usr/bin/env bash
# Installs a build into a fresh prefix and checks that the installed tree is
# usable from there: lumora-fuse runs; host.c builds through pkg-config and
# through the CMake package; the programs run with no library path in the
# environment; both hosts give the bytes of the installed tool with its
# library look, and a host with platform functions of its own gets them
# called.
# Usage: check_install.sh BUILD_DIR LIBDIR C_COMPILER CMAKE CMAKE_GENERATOR
set -euo pipefail
build=$1 libdir_name=$2 cc=$3 cmake=$4 generator=$5
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
unset LD_LIBRARY_PATH LD_PRELOAD
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
prefix=$tmp/prefix libdir=$tmp/prefix/$libdir_name
fail() { echo "FAIL: $*" >&2; exit 1; }

"$cmake" --install "$build" --prefix "$prefix" > "$tmp/install.log"
"$prefix/bin/lumora-fuse" --version > "$tmp/version.txt"
grep -q '^lumora-fuse (Lumora Fusion) ' "$tmp/version.txt" || fail "lumora-fuse --version: $(cat "$tmp/version.txt")"
readelf -d "$prefix/bin/lumora-fuse" > "$tmp/tool-dynamic.txt"
grep -E 'R(UN)?PATH' "$tmp/tool-dynamic.txt" | grep -qF '[$ORIGIN/' ||
    fail "lumora-fuse has no \$ORIGIN-relative library path"
# The Python module, where it was built, imports from the prefix's own
# dist-packages and loads the installed libraries through its run path.
for module in "$prefix"/lib/python3*/dist-packages/lumora; do
    [ -d "$module" ] || continue
    PYTHONPATH=$(dirname "$module") /usr/bin/python3 -c 'import lumora; print(lumora.__version__)' \
        > "$tmp/python.txt" 2>&1 || fail "import lumora from the prefix: $(cat "$tmp/python.txt")"
done
# The library leaves the platform functions to the host.
readelf -d "$libdir/liblumorafusion.so" > "$tmp/dynamic.txt"
! grep -q 'NEEDED.*lumorafusion-host' "$tmp/dynamic.txt" ||
    fail "liblumorafusion.so needs the default host: $(grep NEEDED "$tmp/dynamic.txt")"
nm -D --undefined-only "$libdir/liblumorafusion.so" > "$tmp/undefined.txt"
for name in HXwritejpg frgb2hsl fhsl2rgb; do
    grep -qw "$name" "$tmp/undefined.txt" || fail "liblumorafusion.so does not leave $name to the host"
done

# pkg-config finds the .pc files in the prefix; the programs get the library
# folder as their run path on the command line (-Wl,-rpath).
export PKG_CONFIG_PATH=$libdir/pkgconfig
[ "$(pkg-config --variable=prefix lumorafusion)" -ef "$prefix" ] ||
    fail "lumorafusion.pc does not find its prefix: $(pkg-config --variable=prefix lumorafusion)"
rpath=-Wl,-rpath,$(pkg-config --variable=libdir lumorafusion)
# shellcheck disable=SC2046  # pkg-config's words are meant to split
"$cc" -o "$tmp/host-pc" "$here/host.c" $(pkg-config --cflags --libs lumorafusion-host libpng) "$rpath"
# shellcheck disable=SC2046
"$cc" -o "$tmp/host-own" -DOWN_PLATFORM_FUNCTIONS "$here/host.c" \
    $(pkg-config --cflags --libs lumorafusion libpng) "$rpath"
unset PKG_CONFIG_PATH
"$cmake" -S "$here" -B "$tmp/host-cmake" -G "$generator" -DCMAKE_C_COMPILER="$cc" \
    -DCMAKE_PREFIX_PATH="$prefix" > "$tmp/host-cmake.log"
"$cmake" --build "$tmp/host-cmake" > "$tmp/host-cmake-build.log"

for host in host-pc host-own host-cmake/host; do
    mkdir -p "$tmp/out/$host"
    "$tmp/$host" write "$tmp/out/$host" 2> "$tmp/out/$host.err" || {
        cat "$tmp/out/$host.err" >&2
        fail "$host did not fuse"
    }
done
ldd "$tmp/host-own" > "$tmp/host-own.ldd"
! grep -q lumorafusion-host "$tmp/host-own.ldd" || fail "host-own loads the default host"

out=$tmp/out/host-pc
# The library's own defaults are one look of the tool's, not its default.
"$prefix/bin/lumora-fuse" -q --look library "$out"/exposure-{0,1,2}.png -o "$out/tool.png" ||
    fail "the installed lumora-fuse did not fuse"
"$tmp/host-pc" raw "$out/tool.png" "$out/tool.rgb"
cmp "$out/fused.rgb" "$out/tool.rgb" || fail "the pkg-config host and lumora-fuse differ"
cmp "$out/fused.rgb" "$tmp/out/host-cmake/host/fused.rgb" || fail "the two hosts differ"
cmp -s "$out/fused.rgb" "$tmp/out/host-own/fused.rgb" &&
    fail "the host's own HSL conversions made no difference"
echo "installed tree works from $prefix"
