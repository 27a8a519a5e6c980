#!/usr/bin/env bash
# Plants a fault in the engine, lets the histories find it, and takes the shrunk replay: it must be
# C99 of few calls, fail with the fault and pass without. Also plays whole lives as programs.
# usage: shrink_test.sh FAULTY_HISTORY_TESTS SOURCE_DIRECTORY STATIC_LIBRARY C_COMPILER CXX_COMPILER
set -euo pipefail
histories=$1
source_directory=$2
library=$3
cc=$4
cxx=$5
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() {
  echo "shrink_test: $*" >&2
  exit 1
}

# The same program, with the faults at hand: they are chosen as it runs.
wrap=-Wl
for function in search_mvcc export_visible search_full; do wrap+=,--wrap=qx_index_$function; done
"$cxx" -std=c++20 -I"$source_directory/include" -c "$source_directory/tests/histories/faults.cpp" \
  -o "$work/faults.o"

# FAULT MOST_CALLS
try_fault() {
  replay="$work/$1.c"
  if QX_PLANTED_FAULT=$1 "$histories" --count 2000 --replay "$replay" >"$work/log" 2>&1; then
    fail "$1 was not found"
  fi
  [ -s "$replay" ] || { cat "$work/log" >&2; fail "$1 was not shrunk"; }
  "$cc" -std=c99 -Wall -Wextra -Wpedantic -Werror -I"$source_directory/include" -c "$replay" \
    -o "$work/replay.o"
  "$cxx" "$work/replay.o" "$work/faults.o" "$library" "$wrap" -lm -o "$work/faulty"
  "$cxx" "$work/replay.o" "$library" -lm -o "$work/sound"
  if { (ulimit -c 0; QX_PLANTED_FAULT=$1 "$work/faulty"); } 2>"$work/log"; then
    fail "the replay of $1 passes with the fault"
  fi
  QX_PLANTED_FAULT=none "$work/faulty" || fail "the replay of $1 fails with the fault at rest"
  "$work/sound" || fail "the replay of $1 fails without the fault"
  calls=$(grep -c '^  { /\* [0-9]* \*/$' "$replay")
  [ "$calls" -le "$2" ] || { cat "$replay" >&2; fail "the replay of $1 has $calls calls"; }
  echo "$1: $calls calls, $(wc -l <"$replay") lines"
}

# The fewest calls that show each fault: two of them create and release the index.
try_fault wrong-score 4
try_fault crash 6
try_fault write-beyond 4

# Whole lives as programs: each function is there, and the engine agrees.
for seed in $(seq 20); do
  "$histories" --seed "$seed" --program "$work/life.c"
  "$cc" -std=c99 -Wall -Wextra -Wpedantic -Werror -I"$source_directory/include" -c "$work/life.c" \
    -o "$work/life.o"
  "$cxx" "$work/life.o" "$library" -lm -o "$work/life"
  (ulimit -c 0; "$work/life") || fail "the life of seed $seed differs as a program"
  cat "$work/life.c" >>"$work/lives.c"
done
functions=$(grep -o 'qx_\(index\|runtime\|tuner\)_[a-z_]*(' "$work/lives.c" | sort -u | wc -l)
[ "$functions" -eq 30 ] || fail "$functions functions in all lives"
echo "shrink_test: 23 passed, 0 failed"
