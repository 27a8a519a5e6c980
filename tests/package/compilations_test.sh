#!/usr/bin/env bash
# Compiles the engine by every optimisation that reorders arithmetic, and plays call sequences on each, in
# which the host sets a floating-point environment for each call. Options under
# which results would change must be refused by the compiler.
# usage: compilations_test.sh SOURCE_DIRECTORY COMPILER OBJECT_OF_CALL_SEQUENCES...
set -euo pipefail
cd "$1"
compiler=$2
shift 2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
passed=0
contract=(-ffp-contract=off -DQX_FP_CONTRACT_OFF)
links=("$@" -lgtest -lpthread)

fail() { echo "compilations_test: $*" >&2; exit 1; }
compile() { "$compiler" -std=c++20 -DNDEBUG -Iinclude "$@"; }
# build_player ENGINE OPTION...: builds the tests with an engine of these options.
build_player() { compile "${contract[@]}" -I"$1" "${@:2}" "$1"/*/*.cpp "${links[@]}" -o "$work/player"; }
plays() { "$work/player" --gtest_brief=1 --count 250 "$@" >"$work/log" 2>&1; }
# expect_to_play WAY
expect_to_play() {
  plays || { tail -n 40 "$work/log" >&2; fail "$1 fails"; }
  passed=$((passed + 1))
}

# A clang without a linker for it cannot optimise at link time.
ways=("-O0" "-O1" "-O2" "-O3" "-Os" "-O3 -march=native")
echo 'int main() { return 0; }' >"$work/empty.cpp"
if "$compiler" -flto -O2 "$work/empty.cpp" -o "$work/empty" 2>"$work/log"; then
  ways+=("-O2 -flto" "-O3 -flto")
else
  echo "compilations_test: $compiler cannot optimise at link time here; left out"
fi
for way in "${ways[@]}"; do
  # shellcheck disable=SC2086  # the way is a list of options
  build_player engine $way
  expect_to_play "$way"
done

# The call sequences notice an engine that computes in whatever environment the host has set.
cp -r engine "$work/careless"
sed -i '/^  const DefaultFpEnvironment environment;$/d' "$work/careless/support/fp_environment.h"
! diff -r engine "$work/careless" >/dev/null || fail "no fault planted"
build_player "$work/careless" -O2
! plays --trace || fail "the call sequences do not notice the host's environment"
passed=$((passed + 1))

# refuses TEXT OPTION...: the compiler must refuse the engine, and say this.
refuses() {
  local text=$1
  shift
  ! compile -Iengine -fsyntax-only "$@" engine/kernels/portable.cpp 2>"$work/log" ||
    fail "the engine compiles with $*"
  grep -q "$text" "$work/log" || { cat "$work/log" >&2; exit 1; }
  passed=$((passed + 1))
}
refuses ffp-contract=off -O2
refuses ffast-math "${contract[@]}" -ffast-math
refuses ffast-math "${contract[@]}" -Ofast
refuses ffast-math "${contract[@]}" -ffinite-math-only
if "$compiler" --version | grep -q 'Free Software Foundation'; then
  refuses ffast-math "${contract[@]}" -fno-signed-zeros
  refuses ffast-math "${contract[@]}" -freciprocal-math
  refuses ffast-math "${contract[@]}" -funsafe-math-optimizations
fi

echo "compilations_test: $passed passed, 0 failed"
