#!/usr/bin/env bash
# Compiles the program of a library's README as it is printed, runs it, and compares its output with
# the printed one.
# usage: readme_host_test.sh SOURCE_DIRECTORY SHARED_LIBRARY COMPILER [RUNNER]...
#   COMPILER  compiles C, and may bring options
#   RUNNER    an emulator and its options, for a compiler of another CPU
set -euo pipefail
source_directory=$1
library_directory=$(dirname "$2")
library=$(basename "${2%%.so*}")
library=${library#lib}
read -ra compiler <<<"$3"
runner=("${@:4}")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# The block of C that includes the library's header, and the unnamed block after it.
awk -v header="#include \"$library.h\"" -v host="$work/host.c" -v expected="$work/expected" '
  /^```c$/ { inside = "c"; block = ""; next }
  /^```$/ && inside == "c" { inside = ""; if (index(block, header)) { printf "%s", block >host; found = 1 }; next }
  /^```$/ && inside == "" && found { inside = "output"; block = ""; next }
  /^```$/ && inside == "output" { printf "%s", block >expected; exit }
  inside != "" { block = block $0 "\n" }' "$source_directory/README.md" "$source_directory/collection/README.md"
[ -s "$work/host.c" ] && [ -s "$work/expected" ]

"${compiler[@]}" -std=c99 -Wall -Wextra -pedantic -Werror "$work/host.c" \
  -I"$source_directory/include" -I"$source_directory/collection/include" \
  -L"$library_directory" "-l$library" \
  -Wl,-rpath,"$library_directory" -o "$work/host"
"${runner[@]}" "$work/host" >"$work/printed"
diff "$work/expected" "$work/printed" >&2
