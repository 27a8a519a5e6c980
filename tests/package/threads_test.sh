#!/usr/bin/env bash
# Compiles the engine, the collection and their threads programs under the thread sanitizer, and runs
# them.
# usage: threads_test.sh SOURCE_DIRECTORY COMPILER HAS_COLLECTION
set -euo pipefail
cd "$1"
compiler=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# build ENGINE PROGRAM SOURCES...
build() {
  "$compiler" -std=c++20 -O1 -g1 -ffp-contract=off -DQX_FP_CONTRACT_OFF -fsanitize=thread -I"$1" \
    -Iinclude -Itests "$1"/*/*.cpp "${@:3}" -lpthread -o "$2"
}
# build_collection COLLECTION PROGRAM
build_collection() {
  build engine "$2" -I"$1" -I"$1/include" "$1"/*/*.cpp tests/sanitizers/collection_threads.cpp -lxxhash
}
# The sanitizer wants addresses where the system does not put them at random.
run() { TSAN_OPTIONS=halt_on_error=1 setarch -R "$@"; }
build engine "$work/threads" tests/sanitizers/threads.cpp
run "$work/threads"

# It sees a race: an engine whose reads write to the index.
cp -r engine "$work/racing"
sed -i 's/^  const auto slots = static_cast<std::int32_t>(k);$/&\n  ++const_cast<QxIndex*>(index)->user_tag;/' \
  "$work/racing/interface/current_reads.cpp"
! diff -r engine "$work/racing" >/dev/null || { echo "threads_test: no fault planted" >&2; exit 1; }
build "$work/racing" "$work/racing_threads" tests/sanitizers/threads.cpp
! run "$work/racing_threads" >"$work/log" 2>&1 ||
  { echo "threads_test: a race is not noticed" >&2; exit 1; }
grep -q 'data race' "$work/log" || { cat "$work/log" >&2; exit 1; }

[ "$3" = 1 ] || exit 0
build_collection collection "$work/collection_threads"
run "$work/collection_threads" 1

# The same of a collection whose states are released under their readers.
cp -r collection "$work/torn"
sed -i '/readers\.fetch_/d' "$work/torn/threads/published.h"
! diff -r collection "$work/torn" >/dev/null || { echo "threads_test: no fault planted" >&2; exit 1; }
build_collection "$work/torn" "$work/torn_threads"
! run "$work/torn_threads" 1 >"$work/log" 2>&1 ||
  { echo "threads_test: a torn state is not noticed" >&2; exit 1; }
grep -q 'data race\|heap-use-after-free' "$work/log" || { cat "$work/log" >&2; exit 1; }
