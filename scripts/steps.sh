# What the project's commands share: packages, quiet builds, and steps that are counted. Sourced at
# the top of the repository; ./check does that for the files of checks/. A check is
#
#   start CHECK; build_preset release TARGET; step NAME COMMAND...; finish
passed=0
failed=0
skipped=0

# begin NAME: what follows is logged in build/NAME.log.
begin() {
  check=$1
  log=$PWD/build/$check.log
  mkdir -p build
  : >"$log"
  exec 3>&2  # seen from inside of a step too
}

# start CHECK: installs its packages, and says how long it takes.
start() {
  begin "$1"
  local entry=check-$1 minutes
  [ "$1" != check ] || entry=check
  minutes=$(awk -v block="$entry" 'BEGIN { RS = "" } $1 == block' scripts/commands.txt |
    sed -n 's/^minutes *//p')
  echo "== $check: about $minutes minute$([ "$minutes" = 1 ] || echo s) on two cores"
  scripts/install_packages "$entry"
}

# usage OPTIONS: the end of a check that was called otherwise.
usage() {
  echo "usage: ./check $(basename "$0")${1:+ $1}" >&2
  exit 2
}

# numbers NAMES ARGUMENT...: `--NAME N` sets the variable of that name to a whole number from 1 on.
numbers() {
  local names=$1
  while shift && [ $# -gt 0 ]; do
    [[ " $names " == *" ${1#--} "* && $1 == --* && ${2:-} =~ ^[1-9][0-9]{0,11}$ ]] ||
      usage "$(sed 's/[a-z]*/[--& N]/g' <<<"$names")"
    printf -v "${1#--}" %s "$2"
    shift
  done
}

# quietly COMMAND...: its output goes to the log, which is shown where it fails; that is the end.
quietly() {
  if ! "$@" >>"$log" 2>&1; then
    tail -n 60 "$log" >&3
    echo "$check: the build failed; the whole output is in $log" >&3
    exit 1
  fi
}

# build_preset PRESET TARGET...: as the preset says, whatever number of call sequences the folder had.
build_preset() {
  quietly cmake --preset "$1" -UQX_CALL_SEQUENCES
  quietly cmake --build --preset "$1" --target "${@:2}"
}

# build_folder SOURCE FOLDER TARGETS OPTION...: a build of its own, by Ninja. A folder that another
# checkout configured, or that was left half configured, starts afresh.
build_folder() {
  local configured=
  [ ! -f "$2/build.ninja" ] || configured=$(sed -n 's/^CMAKE_HOME_DIRECTORY:INTERNAL=//p' "$2/CMakeCache.txt")
  [ "$configured" = "$(realpath "$1")" ] || rm -rf "$2"
  quietly cmake -S "$1" -B "$2" -G Ninja "${@:4}"
  # shellcheck disable=SC2086
  quietly cmake --build "$2" --target $3
}

# step NAME COMMAND...; the last line of the output says what was done.
step() {
  local name=$1
  shift
  if "$@" >"$log.step" 2>&1; then
    passed=$((passed + 1))
    echo "$name: passed; $(tail -n 1 "$log.step")"
  else
    failed=$((failed + 1))
    echo "$name: failed" >&2
    tail -n 40 "$log.step" >&2
  fi
  cat "$log.step" >>"$log"
}

# run_ctest PRESET OPTION...: each test counts. What fails is shown.
run_ctest() {
  local lost total show=--quiet
  [ ! -t 1 ] || show=--progress
  ctest --preset "$1" --parallel "$(nproc)" --timeout 3600 "$show" --output-log "$log.ctest" "${@:2}" ||
    sed '/^ *Start /d; /   Passed /d' "$log.ctest" | tail -n 200 >&2
  if read -r lost total < <(sed -n \
    's/.* tests passed, \([0-9]*\) tests failed out of \([0-9]*\)/\1 \2/p' "$log.ctest"); then
    passed=$((passed + total - lost))
    failed=$((failed + lost))
    echo "$1: $((total - lost)) of $total tests passed"
  else
    failed=$((failed + 1))
    echo "$check: the $1 tests did not finish" >&2
  fi
}

# count COMMAND...: a step that prints for itself.
count() {
  if "$@"; then passed=$((passed + 1)); else failed=$((failed + 1)); fi
}

# skip NAME TOOL
skip() {
  skipped=$((skipped + 1))
  echo "$1: skipped, for want of $2"
}

finish() {
  [ "$skipped" -eq 0 ] || echo "$check: $skipped skipped"
  echo "$check: $passed passed, $failed failed"
  [ "$failed" -eq 0 ]
}
