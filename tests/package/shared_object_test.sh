#!/usr/bin/env bash
# Checks the shared library from outside: what it exports, imports, links and is called.
# usage: shared_object_test.sh LIBRARY SANITIZED(0|1) [SONAME]
#   NM in the environment is the nm to call, for libraries of other CPUs.
set -euo pipefail
export LC_ALL=C  # one order of names everywhere
library=$1
sanitized=$2
expected_soname=${3-libqx_runtime.so.1}
nm=${NM:-nm}
here=$(dirname "$0")
failed=0

wrong() { echo "shared_object_test: $*" >&2; failed=1; }

# The sanitizers add symbols of their own; the rest of a sanitized library is checked all the same.
"$nm" --dynamic --defined-only --format=posix "$library" | awk '{ print $1 }' | sort |
  { [ "$sanitized" = 1 ] && grep '^qx_' || cat; } |
  diff "$here/exported_symbols.txt" - >&2 ||
  wrong "the exported symbols differ from the stored list (< stored, > found)"

soname=$(readelf --dynamic "$library" | sed -n 's/.*SONAME.*\[\(.*\)\]/\1/p')
[ "$soname" = "$expected_soname" ] || wrong "the SONAME is '$soname'"
[ "$sanitized" = 1 ] && exit $failed

# Everything that the library may call: the heap, blocks of memory, and one line to standard error.
# No thread, lock, file or socket function is among them.
unexpected=$("$nm" --dynamic --undefined-only --format=posix "$library" |
  awk '$2 == "U" { sub("@.*", "", $1); print $1 }' | sort | comm -13 "$here/imported_symbols.txt" -)
[ -z "$unexpected" ] || wrong "it imports what it may not call:" $unexpected

for needed in $(readelf --dynamic "$library" | sed -n 's/.*NEEDED.*\[\(.*\)\]/\1/p'); do
  case $needed in
    libc.so.* | libm.so.* | libgcc_s.so.* | libstdc++.so.* | ld-linux*) ;;
    *) wrong "it links $needed" ;;
  esac
done
exit $failed
