#!/usr/bin/env bash
# Runs tests on an emulated x86-64 CPU without AVX and FMA: the library must load and answer there.
# usage: without_avx_test.sh EMULATOR INTERNAL_TESTS CALL_SEQUENCE_TESTS CONTRACT_TESTS
set -euo pipefail
emulate=("$1" -cpu Nehalem)

# The emulated CPU must really be without: the AVX2 kernel's tests then skip themselves.
report=$("${emulate[@]}" "$2" --gtest_filter='*RoundsOnceInEachStep*:Dispatch.*') ||
  { echo "$report" >&2; exit 1; }
grep -q 'SKIPPED.*RoundsOnceInEachStep/avx2' <<<"$report" ||
  { echo "without_avx_test: the AVX2 kernel was not skipped" >&2; exit 1; }

"${emulate[@]}" "$3" --count 300
"${emulate[@]}" "$4" --gtest_brief=1
