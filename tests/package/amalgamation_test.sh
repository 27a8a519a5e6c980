#!/usr/bin/env bash
# Compiles the engine as one file, by one line, where the compiler fuses by default and where it does
# not, and compares the digests of call sequences with the stored ones.
# usage: amalgamation_test.sh SOURCE_DIRECTORY C_COMPILER CXX_COMPILER LIBRARY_OF_CALL_SEQUENCES...
set -euo pipefail
cd "$1"
cc=$2
cxx=$3
links=("${@:4}")
sequences=500 # ten of the stored digests
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
passed=0

fail() { echo "amalgamation_test: $*" >&2; exit 1; }
# compile OPTION...: the one line, and the player of call sequences with it.
compile() {
  "$cxx" -std=c++20 -O3 "$@" -c "$work/qx_runtime.cpp" -o "$work/qx_runtime.o"
  "$cxx" "$work/player.o" "$work/qx_runtime.o" "${links[@]}" -lm -o "$work/player"
}
# gives_the_digests KERNELS
gives_the_digests() {
  "$work/player" "$1" "$sequences" >"$work/played" || fail "$1 ended with status $?"
  diff <(head -n $((sequences / 50)) tests/cpus/digests.txt) "$work/played" >"$work/difference"
}

scripts/amalgamate "$work"
cmp include/qx_runtime.h "$work/qx_runtime.h"
"$cxx" -std=c++20 -O2 -ffp-contract=off -Iengine -Iinclude -Itests -c tests/cpus/main.cpp -o "$work/player.o"

native=(-march=native)
[ "$(uname -m)" = x86_64 ] || native=()
for options in "" "${native[*]} -Wall -Wextra -Wpedantic -Wconversion -Werror" \
  "${native[*]} -ffp-contract=off -DQX_FP_CONTRACT_OFF"; do
  # shellcheck disable=SC2086  # a list of options
  compile $options
  for kernels in "$("$work/player" --best)" portable; do
    gives_the_digests "$kernels" || { cat "$work/difference" >&2; fail "$kernels with '$options'"; }
    passed=$((passed + 1))
  done
done

# By default compilers fuse what they find; here nothing is fused but what is written.
fused() {
  "$cxx" -std=c++20 -O3 -march=native "${@:2}" -I"$work" -c "$1" -o "$work/fused.o"
  objdump -d "$work/fused.o" | grep -c 'vfn\?m\(add\|sub\)'
}
if [ "$(uname -m)" = x86_64 ] && grep -qw fma /proc/cpuinfo; then
  sed '/^#pragma .*\(FP_CONTRACT\|fp-contract\)/d' "$work/qx_runtime.cpp" >"$work/bare.cpp"
  written=$(fused "$work/bare.cpp" -ffp-contract=off)
  [ "$(fused "$work/qx_runtime.cpp")" -eq "$written" ] || fail "the compiler fuses by itself"
  [ "$(fused "$work/bare.cpp")" -gt "$written" ] || fail "it would not be noticed if the compiler did"
  passed=$((passed + 1))
fi

# A host in C.
"$cc" -std=c99 -I"$work" -c tests/package/consumer/host.c -o "$work/host.o"
"$cxx" "$work/host.o" "$work/qx_runtime.o" -o "$work/host"
[ "$("$work/host")" = "id 4, score 0.50" ] || fail "the host answers differently"
passed=$((passed + 1))

echo "amalgamation_test: $passed passed, 0 failed"
