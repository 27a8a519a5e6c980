# Steps of a check, run and counted. To be sourced, with the file for their output in $log; a check
# ends by `finish NAME`.
passed=0
failed=0

# step NAME COMMAND...; the last line of the output says what was done.
step() {
  local name=$1
  shift
  if "$@" >"$log" 2>&1; then
    passed=$((passed + 1))
    echo "$name: passed; $(tail -n 1 "$log")"
  else
    failed=$((failed + 1))
    echo "$name: failed" >&2
    tail -n 40 "$log" >&2
  fi
}

finish() {
  echo "$1: $passed passed, $failed failed"
  [ "$failed" -eq 0 ]
}
