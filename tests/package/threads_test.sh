#!/usr/bin/env bash
# Compiles the engine and the threads program under the thread sanitizer, and runs it.
# usage: threads_test.sh SOURCE_DIRECTORY COMPILER
set -euo pipefail
cd "$1"
compiler=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# build ENGINE PROGRAM
build() {
  "$compiler" -std=c++20 -O1 -g1 -ffp-contract=off -DQX_FP_CONTRACT_OFF -fsanitize=thread -I"$1" \
    -Iinclude -Itests "$1"/*/*.cpp tests/sanitizers/threads.cpp -lpthread -o "$2"
}
# The sanitizer wants addresses where the system does not put them at random.
run() { TSAN_OPTIONS=halt_on_error=1 setarch -R "$1"; }
build engine "$work/threads"
run "$work/threads"

# It sees a race: an engine whose reads write to the index.
cp -r engine "$work/racing"
sed -i 's/^  const auto slots = static_cast<std::int32_t>(k);$/&\n  ++const_cast<QxIndex*>(index)->user_tag;/' \
  "$work/racing/interface/current_reads.cpp"
! diff -r engine "$work/racing" >/dev/null || { echo "threads_test: no fault planted" >&2; exit 1; }
build "$work/racing" "$work/racing_threads"
! run "$work/racing_threads" >"$work/log" 2>&1 ||
  { echo "threads_test: a race is not noticed" >&2; exit 1; }
grep -q 'data race' "$work/log" || { cat "$work/log" >&2; exit 1; }
