#!/usr/bin/env bash
# Compiles the public header alone in every language mode, with g++/gcc and clang, every warning an
# error, and checks that it declares exactly the exported functions.
# usage: header_test.sh INCLUDE_DIRECTORY
set -euo pipefail
export LC_ALL=C  # one order of names everywhere
header="$1/qx_runtime.h"
flags=(-fsyntax-only -pedantic -Wall -Wextra -Werror)

for compiler in gcc clang; do
  for mode in c99 c11 c17; do
    "$compiler" -x c -std=$mode "${flags[@]}" -Wstrict-prototypes "$header"
  done
done
for compiler in g++ clang++; do
  for mode in c++11 c++14 c++17 c++20 c++2b; do
    "$compiler" -x c++ -std=$mode "${flags[@]}" "$header"
  done
done

gcc -x c -std=c99 -E -P "$header" | grep -oE '\bqx_[a-z_]+ *\(' | tr -d ' (' | sort |
  diff "$(dirname "$0")/exported_symbols.txt" - >&2 ||
  { echo "header_test: the declared functions differ from the stored list" >&2; exit 1; }
