#!/usr/bin/env bash
# Runs an example and compares what it prints, and which functions it introduces, with its opening
# comment; it must be short. usage: example_test.sh SOURCE PROGRAM
set -euo pipefail
source=$1
program=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

"$program" >"$work/printed"
sed -n '/^ \* Prints:$/,/^ \*\/$/p' "$source" | sed '1d; $d; s/^ \*   //' >"$work/said"
diff "$work/said" "$work/printed" >&2

comment_end=$(grep -n -m 1 '^ \*/$' "$source" | cut -d: -f1)
said=$(head -n "$comment_end" "$source" | sed -n '/Introduces:/,/^ \*$/p' |
  grep -o 'qx_\(index\|runtime\|tuner\)_[a-z_]*')
for function in $said; do
  tail -n "+$comment_end" "$source" | grep -q "$function(" || {
    echo "example_test: $function is introduced and not called" >&2
    exit 1
  }
done
[ "$(wc -l <"$source")" -lt 60 ] || { echo "example_test: 60 lines or more" >&2; exit 1; }
