#!/usr/bin/env bash
# Runs the service, and compares the last line that it prints with its opening comment.
# usage: service_test.sh SOURCE PROGRAM
set -euo pipefail
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

"$2" "$work/items" >"$work/printed"
diff <(sed -n 's/^\/\/   //p' "$1") <(tail -n 1 "$work/printed") >&2
