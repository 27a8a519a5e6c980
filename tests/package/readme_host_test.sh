#!/usr/bin/env bash
# Compiles the README's host as it is printed, runs it, and compares its output with the printed one.
# usage: readme_host_test.sh SOURCE_DIRECTORY SHARED_LIBRARY COMPILER [RUNNER]...
#   COMPILER  compiles C, and may bring options
#   RUNNER    an emulator and its options, for a compiler of another CPU
set -euo pipefail
source_directory=$1
library_directory=$(dirname "$2")
read -ra compiler <<<"$3"
runner=("${@:4}")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# The first block of C, and the first unnamed block after it.
awk '/^```c$/ { inside = 1; next } /^```$/ && inside { exit } inside' \
  "$source_directory/README.md" >"$work/host.c"
awk '/^```c$/ { after = 1; next }
     /^```$/ && after { ++fences; if (fences == 3) exit; next }
     fences == 2' "$source_directory/README.md" >"$work/expected"
[ -s "$work/host.c" ] && [ -s "$work/expected" ]

"${compiler[@]}" -std=c99 -Wall -Wextra -pedantic -Werror "$work/host.c" \
  -I"$source_directory/include" -L"$library_directory" -lqx_runtime \
  -Wl,-rpath,"$library_directory" -o "$work/host"
"${runner[@]}" "$work/host" >"$work/printed"
diff "$work/expected" "$work/printed" >&2
