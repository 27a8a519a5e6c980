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
no_json=-DCMAKE_DISABLE_FIND_PACKAGE_nlohmann_json=ON
no_c=-DCMAKE_C_COMPILER=
no_python=-DCMAKE_DISABLE_FIND_PACKAGE_Python3=ON
# The words want nlohmann_json before Python; one that is found and never built is enough.
mkdir "$work/json"
echo 'add_library(nlohmann_json::nlohmann_json INTERFACE IMPORTED)' \
  >"$work/json/nlohmann_jsonConfig.cmake"
echo 'set(PACKAGE_VERSION_COMPATIBLE TRUE)' >"$work/json/nlohmann_jsonConfigVersion.cmake"
json=-Dnlohmann_json_DIR=$work/json

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
nlohmann_json 3.10 or later: examples/words" "$no_gtest" "$no_json" "$no_c" "$no_python"
# With these alone, no test and no example is a target.
targets=$(cmake --build "$work/build" --target help)
! grep -E '_tests|example_|words' <<<"$targets" || fail "there are targets of tests or examples"
grep -q qx_runtime <<<"$targets" || fail "the library is no target"

leaves_out "Python: the test words_command_line" "$no_gtest" "$json" "$no_python"
refuses GoogleTest -DQX_BUILD_TESTS=ON "$no_gtest"
refuses "a C compiler" -DQX_BUILD_EXAMPLES=ON "$no_c"
refuses "nlohmann_json 3.10 or later" -DQX_BUILD_EXAMPLES=ON "$no_json"
refuses Python -DQX_BUILD_TESTS=ON "$json" "$no_python"

# The packages of parts that are OFF are not searched for, and not named.
configure -DQX_BUILD_TESTS=OFF -DQX_BUILD_EXAMPLES=OFF "$no_gtest" "$no_json" "$no_c" ||
  fail "the library alone cannot be configured"
! grep -F 'left out' "$work/log" || fail "something is left out that nobody asked for"
