#!/usr/bin/env bash
# Builds the shared library by the one line of the page on installing, in a copy of the sources, by a
# compiler of choice; looks at it from outside, and runs the README's host with it.
# usage: readme_library_test.sh SOURCE_DIRECTORY COMPILER [RUNNER]...
#   COMPILER  replaces the line's c++, and may have options
#   RUNNER    an emulator and its options, for a compiler of another CPU
set -euo pipefail
source_directory=$(realpath "$1")
compiler=$2
runner=("${@:3}")
here=$source_directory/tests/package
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

line=$(awk '/^## Without CMake$/ { section = 1 }
            /^```$/ && section { if (inside) exit; inside = 1; next }
            inside' "$source_directory/docs/site/pages/install.md")
[[ $line == "c++ "*"-ffp-contract=off "*" -o libqx_runtime.so" ]] ||
  { echo "readme_library_test: install.md has no such line: $line" >&2; exit 1; }

cp -r "$source_directory/engine" "$source_directory/include" "$work"
(cd "$work" && eval "$compiler ${line#c++ }")
library=$work/libqx_runtime.so

# A compiler brings the nm of its CPU. The line names no version, so there is no SONAME.
read -ra words <<<"$compiler"
NM=$("${words[0]}" -print-prog-name=nm) "$here/shared_object_test.sh" "$library" 0 ""
"$here/readme_host_test.sh" "$source_directory" "$library" "$compiler -x c" "${runner[@]}"
