#!/usr/bin/env bash
# Configures the project where packages are missing: parts that need them are left out by name, and
# with ON a missing package ends the configuration.
# usage: configure_test.sh SOURCE_DIRECTORY COMPILER
set -euo pipefail
source_directory=$1
compiler=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
no_gtest=-DCMAKE_DISABLE_FIND_PACKAGE_GTest=ON
no_c=-DCMAKE_C_COMPILER=
no_python=-DCMAKE_DISABLE_FIND_PACKAGE_Python3=ON

fail() {
  echo "configure_test: $*" >&2
  cat "$work/log" >&2
  exit 1
}
configure() {
  rm -rf "$work/build"
  cmake -S "$source_directory" -B "$work/build" -DCMAKE_CXX_COMPILER="$compiler" "$@" \
    >"$work/log" 2>&1
}
# leaves_out PARTS OPTION...: configures, and names each line of PARTS as left out.
leaves_out() {
  local what
  configure "${@:2}" || fail "it cannot be configured with ${*:2}"
  while read -r what; do
    grep -qxF -- "-- qx_runtime: left out, for want of $what" "$work/log" || fail "unsaid: $what"
  done <<<"$1"
}
# refuses MISSING OPTION...: does not configure, because of the missing packages.
refuses() {
  ! configure "${@:2}" || fail "it is configured with ${*:2}"
  grep -qF "qx_runtime: $1 is missing" "$work/log" || fail "unsaid with ${*:2}: $1"
}

leaves_out "GoogleTest: the tests of the library
a C compiler: examples/c
Python: the test words_command_line" "$no_gtest" "$no_c" "$no_python"
# With these alone, no test and no example in C is a target.
targets=$(cmake --build "$work/build" --target help)
! grep -E '_tests|example_' <<<"$targets" || fail "there are targets of tests or of examples in C"
grep -q qx_runtime <<<"$targets" || fail "the library is no target"

refuses GoogleTest -DQX_BUILD_TESTS=ON "$no_gtest"
refuses "a C compiler" -DQX_BUILD_EXAMPLES=ON "$no_c"
refuses Python -DQX_BUILD_TESTS=ON "$no_python"

# The packages of parts that are OFF are not searched for, and not named.
configure -DQX_BUILD_TESTS=OFF -DQX_BUILD_EXAMPLES=OFF "$no_gtest" "$no_c" ||
  fail "the library alone cannot be configured"
! grep -F 'left out' "$work/log" || fail "something is left out that nobody asked for"
