#!/usr/bin/env bash
# Compiles the engine and its tests for AArch64 and runs them under user-mode emulation: the NEON
# kernel must give the bits of the contract, and the engine must agree with the model there.
# usage: aarch64_test.sh SOURCE_DIRECTORY EMULATOR COMPILER GOOGLETEST_SOURCES
set -euo pipefail
source_directory=$1
emulator=$2
compiler=$3
googletest=$4
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$source_directory"

compile() {
  "$compiler" -std=c++20 -O2 -ffp-contract=off -DQX_FP_CONTRACT_OFF -Iengine -Iinclude -Itests \
    -isystem "$googletest/include" -isystem "$googletest" "$@"
}
# Static programs need no AArch64 libraries besides the emulator; the linker's warning about look-ups
# of host names, which GoogleTest could make, does not concern these tests.
link() {
  compile -static "$@" "$work/gtest.o" engine/*/*.cpp tests/support/child.cpp \
    2> >(grep -v 'statically linked applications\|MakeConnection' >&2)
}

compile -c "$googletest/src/gtest-all.cc" -o "$work/gtest.o"
link tests/call_sequences/[!f]*.cpp -o "$work/call_sequence_tests"
link tests/internal/*.cpp "$googletest/src/gtest_main.cc" -o "$work/internal_tests"

"$emulator" "$work/call_sequence_tests" --count 1000
report=$("$emulator" "$work/internal_tests") || { echo "$report" >&2; exit 1; }
grep -q ' OK .*ScoresContiguousRowsByTheContract/neon' <<<"$report" ||
  { echo "aarch64_test: the NEON kernel was not tested" >&2; exit 1; }
