#!/usr/bin/env bash
# The shared libraries export their public C names and nothing else.
# Usage: check_exports.sh LIBRARY NAME...
set -euo pipefail
lib=$1; shift
expected=$(printf '%s\n' "$@" | sort)
actual=$(nm -D --defined-only "$lib" | awk '{print $3}' | sed 's/@.*//' | grep -v '^$' | sort -u)
if [ "$actual" != "$expected" ]; then
  echo "exports of $lib differ from the public interface:" >&2
  diff <(echo "$expected") <(echo "$actual") >&2 || true
  exit 1
fi
echo "$lib exports exactly $# public names"
