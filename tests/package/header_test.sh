#!/usr/bin/env bash
# Compiles the public header alone in every language mode, with g++/gcc and clang, every warning an
# error; checks that it declares exactly the exported functions and says of each what it sees, and
# what its constants are.
# usage: header_test.sh INCLUDE_DIRECTORY
set -euo pipefail
export LC_ALL=C  # one order of names everywhere
header="$1/qx_runtime.h"
flags=(-pedantic -Wall -Wextra -Wconversion -Wshadow -Werror)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# The constants have their values, types and bits in both languages, and in conditions of the
# preprocessor too.
cat >"$work/constants.c" <<'CODE'
#include "qx_runtime.h"

#include <string.h>

#if QX_RUNTIME_FORMAT_VERSION != 1 || QX_EMPTY_ID != -1 || QX_MISSING != -1 || \
    QX_MAX_BASE_ID != 1099511627775 || QX_FILTER_ALL != 0 || QX_FILTER_LABEL != 1 || \
    QX_FILTER_COLUMN != 2
#error "a constant has another value"
#endif

int main(void) {
  const float score = QX_EMPTY_SCORE;
  const int64_t numbers[] = {QX_EMPTY_ID, QX_MISSING, QX_MAX_BASE_ID};
  const uint32_t modes[] = {QX_FILTER_ALL, QX_FILTER_LABEL, QX_FILTER_COLUMN};
  uint32_t bits;
  memcpy(&bits, &score, sizeof bits);
  return !(bits == 0xF149F2CA && sizeof(QX_EMPTY_SCORE) == sizeof(float) &&
           sizeof(QX_EMPTY_ID) == sizeof numbers[0] && sizeof(QX_MISSING) == sizeof numbers[0] &&
           sizeof(QX_MAX_BASE_ID) == sizeof numbers[0] && numbers[2] == (INT64_C(1) << 40) - 1 &&
           sizeof(QX_FILTER_COLUMN) == sizeof modes[0]);
}
CODE

# check LANGUAGE STANDARD COMPILER [OPTION]...
check() {
  local options=(-x "$1" "-std=$2" "${flags[@]}" "${@:4}" -I"$(dirname "$header")")
  "$3" "${options[@]}" -fsyntax-only "$header"
  "$3" "${options[@]}" "$work/constants.c" -o "$work/constants"
  "$work/constants" || { echo "header_test: $3 -std=$2: a constant differs" >&2; exit 1; }
}
for mode in c99 c11 c17; do
  for compiler in gcc clang; do check c "$mode" "$compiler" -Wstrict-prototypes; done
done
for mode in c++11 c++14 c++17 c++20 c++2b; do
  for compiler in g++ clang++; do check c++ "$mode" "$compiler"; done
done

symbols=$(dirname "$0")/exported_symbols.txt
sed -n '/^ \* WHAT EACH FUNCTION SEES/,/^ \* CONVENTIONS/p' "$header" | sed '1d; $d' | cut -c33- |
  tr -s ' ' '\n' | sed '/^$/d; /^qx_/!s/^/qx_index_/' | sort | diff "$symbols" - >&2 ||
  { echo "header_test: the table of what functions see has others than the stored list" >&2; exit 1; }
gcc -x c -std=c99 -E -P "$header" | grep -oE '\bqx_[a-z_]+ *\(' | tr -d ' (' | sort |
  diff "$symbols" - >&2 ||
  { echo "header_test: the declared functions differ from the stored list" >&2; exit 1; }
