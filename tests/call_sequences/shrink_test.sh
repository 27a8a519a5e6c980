#!/usr/bin/env bash
# Plants a fault in the engine, lets the random call sequences find it, and takes the shrunk replay: it must be
# C99 of few calls, fail with the fault and pass without. Also plays whole call sequences as programs.
# usage: shrink_test.sh FAULTY_CALL_SEQUENCE_TESTS SOURCE_DIRECTORY STATIC_LIBRARY C_COMPILER CXX_COMPILER
set -euo pipefail
program=$1
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
"$cxx" -std=c++20 -I"$source_directory/include" -c "$source_directory/tests/call_sequences/faults.cpp" \
  -o "$work/faults.o"

# FAULT MOST_CALLS
try_fault() {
  replay="$work/$1.c"
  if QX_PLANTED_FAULT=$1 "$program" --count 2000 --replay "$replay" >"$work/log" 2>&1; then
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

# Whole call sequences as programs: each function is there, and the engine agrees.
for seed in $(seq 20); do
  "$program" --seed "$seed" --program "$work/whole.c"
  "$cc" -std=c99 -Wall -Wextra -Wpedantic -Werror -I"$source_directory/include" -c "$work/whole.c" \
    -o "$work/whole.o"
  "$cxx" "$work/whole.o" "$library" -lm -o "$work/whole"
  (ulimit -c 0; "$work/whole") || fail "the call sequence of seed $seed differs as a program"
  cat "$work/whole.c" >>"$work/all.c"
done
functions=$(grep -o 'qx_\(index\|runtime\|tuner\)_[a-z_]*(' "$work/all.c" | sort -u | wc -l)
[ "$functions" -eq 30 ] || fail "$functions functions in all call sequences"
echo "shrink_test: 23 passed, 0 failed"
