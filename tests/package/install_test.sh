#!/usr/bin/env bash
# Installs the library, moves the prefix, and builds and runs hosts in C and C++ that find it there by
# CMake and by pkg-config; then hosts that take the source tree into their own build, of which one installs
# the library with its own.
# usage: install_test.sh SOURCE_DIRECTORY
set -euo pipefail
source_directory=$(realpath "$1")
consumer=$source_directory/tests/package/consumer
service=$source_directory/examples/service/service.cpp
service_test=$source_directory/examples/service/service_test.sh
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
passed=0
# What is compiled only to be found is not optimised.
release=(-G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_C_FLAGS_RELEASE= -DCMAKE_CXX_FLAGS_RELEASE=)

fail() {
  echo "install_test: $*" >&2
  [ ! -s "$work/log" ] || tail -n 30 "$work/log" >&2
  exit 1
}
quietly() { "$@" >"$work/log" 2>&1 || fail "$* failed"; }
# The hosts' answer.
answers() { [ "$("$@")" = "id 4, score 0.50" ] || fail "$* answers differently"; passed=$((passed + 1)); }
serves() { quietly "$service_test" "$service" "$1"; passed=$((passed + 1)); }
exists() { [ -e "$1" ] || fail "$1 is not installed"; passed=$((passed + 1)); }

# install_into FOLDER [OPTION]...: FOLDER/usr is the prefix, which is then moved to FOLDER/moved.
install_into() {
  local folder=$1
  shift
  quietly cmake -S "$source_directory" -B "$folder/build" "${release[@]}" \
    -DQX_BUILD_TESTS=OFF -DQX_BUILD_EXAMPLES=OFF -DCMAKE_INSTALL_PREFIX=/usr "$@"
  quietly cmake --build "$folder/build"
  quietly env DESTDIR="$folder" cmake --install "$folder/build"
  [ -z "$(grep -rl "$work" "$folder/usr")" ] || fail "installed files name the folder of the build"
  cp -a "$folder/usr" "$folder/moved"
  quietly env DESTDIR="$folder" cmake --build "$folder/build" --target uninstall
  [ -z "$(find "$folder/usr" -not -type d -o -name 'qx_*')" ] || fail "not all is uninstalled"
  rm -rf "$folder"/{usr,build}
}

# consume NAME [OPTION]...: builds the consumer and runs its hosts.
consume() {
  local build=$work/consume-$1
  shift
  quietly cmake -S "$consumer" -B "$build" "${release[@]}" "$@"
  quietly cmake --build "$build" --target c_shared c_static cpp_shared cpp_static
  local host
  for host in c_shared c_static cpp_shared cpp_static; do answers "$build/$host"; done
}

# The shared and the static library, found in a moved prefix.
install_into "$work/both"
prefix=$work/both/moved
libdir=$(dirname "$(find "$prefix" -name libqx_runtime.so)")
for file in "$prefix/include/qx_runtime.h" "$libdir"/libqx_runtime.{a,so,so.1} \
  "$prefix/share/man/man7/qx_runtime.7" "$prefix/share/man/man3/qx_index_search_full.3"; do
  exists "$file"
done
[ "$(readlink "$libdir/libqx_runtime.so")" = libqx_runtime.so.1 ] || fail "no versioned links"
[ "$(find "$prefix/share/man/man3" -name '*.3' | wc -l)" -eq 30 ] || fail "not 30 manual pages"
consume find -DCMAKE_PREFIX_PATH="$prefix"

# pkg_config COMPILER SOURCE: with the shared library and with the static one.
pkg_config() {
  local flags
  export PKG_CONFIG_PATH=$libdir/pkgconfig
  read -ra flags < <(pkg-config --cflags --libs qx_runtime)
  quietly "$1" "$2" "${flags[@]}" -o "$work/host"
  answers env LD_LIBRARY_PATH="$libdir" "$work/host"
  read -ra flags < <(pkg-config --static --cflags --libs qx_runtime)
  quietly "$1" -static "$2" "${flags[@]}" -o "$work/host"
  answers "$work/host"
}
pkg_config gcc "$consumer/host.c"
pkg_config g++ "$consumer/host.cpp"
# The collection, for a program in C++20, and for none before.
for file in "$prefix"/include/qx_collection.{h,hpp} "$libdir"/libqx_collection.{so,so.1}; do exists "$file"; done
quietly cmake --build "$work/consume-find" --target service
serves "$work/consume-find/service"
read -ra flags < <(pkg-config --cflags --libs qx_collection)
quietly g++ -std=c++20 -Wall -Wextra -Wpedantic -Werror "$service" "${flags[@]}" \
  -Wl,-rpath,"$libdir" -o "$work/service"
serves "$work/service"
! g++ -std=c++17 -fsyntax-only -x c++ "$prefix/include/qx_collection.hpp" 2>"$work/log" ||
  fail "qx_collection.hpp is taken by C++17"
[ "$(grep ': error:' "$work/log" | grep -c 'needs C++20')" -eq "$(grep -c ': error:' "$work/log")" ] ||
  fail "qx_collection.hpp does not say which C++ it needs"
quietly mandoc -T lint -W warning "$prefix"/share/man/man*/*

# Another folder for libraries, no shared library, and no collection.
install_into "$work/static" -DBUILD_SHARED_LIBS=OFF -DQX_BUILD_COLLECTION=OFF -DCMAKE_INSTALL_LIBDIR=lib/of/its/own
prefix=$work/static/moved
libdir=$prefix/lib/of/its/own
exists "$libdir/libqx_runtime.a"
[ -z "$(find "$prefix" -name '*.so*' -o -name '*collection*')" ] || fail "there is a shared library, or the collection"
consume static -DCMAKE_PREFIX_PATH="$prefix" -Dqx_runtime_DIR="$libdir/cmake/qx_runtime"
PKG_CONFIG_PATH=$libdir/pkgconfig
read -ra flags < <(pkg-config --cflags --libs qx_runtime)
quietly gcc "$consumer/host.c" "${flags[@]}" -o "$work/host"
answers "$work/host"

# The source tree as a part of the consumer's build, which installs and tests nothing of it.
consume subdirectory -DSOURCE="$source_directory"
consume fetched -DSOURCE="$source_directory" -DFETCH=ON
[ ! -e "$work/consume-subdirectory/qx_runtime/tests" ] || fail "a consumer builds the tests"

# A library of another project that installs and exports itself, with this one, and is then found.
quietly cmake -S "$consumer/exported" -B "$work/exported" "${release[@]}" \
  -DSOURCE="$source_directory" -DQX_INSTALL=ON -DCMAKE_INSTALL_PREFIX="$work/exporter" -DCMAKE_INSTALL_LIBDIR=lib
quietly cmake --build "$work/exported"
quietly cmake --install "$work/exported"
quietly cmake -S "$consumer/exported" -B "$work/importer" -G Ninja -DCMAKE_PREFIX_PATH="$work/exporter"
quietly cmake --build "$work/importer"
answers "$work/importer/importer"

# The different options -O that an object file was compiled with, as its compiler recorded them.
recorded() {
  readelf -p .GCC.command.line "$1" >"$work/record"
  grep -q 'GNU C' "$work/record" || fail "$1 has no record of its compiler"
  { grep -oE -- ' -O[^ ]*' "$work/record" || true; } | sort -u | tr -d '\n '
}

# optimised NAME LIBRARY HOST FLAGS [OPTION]...: the source tree as a part of a build with these
# flags and options. The library is then compiled with the options LIBRARY, and the consumer's own
# code with HOST.
optimised() {
  local build=$work/optimised-$1 library=$2 host=$3 flags="-frecord-gcc-switches $4" found
  shift 4
  quietly cmake -S "$consumer" -B "$build" -G Ninja -DSOURCE="$source_directory" \
    -DCMAKE_C_FLAGS="$flags" -DCMAKE_CXX_FLAGS="$flags" "$@"
  quietly cmake --build "$build" --target c_static qx_runtime
  found=$(recorded "$(find "$build" -name libqx_runtime.so)")
  [ "$found" = "$library" ] || fail "$build: the library has '$found', not '$library'"
  found=$(recorded "$build/CMakeFiles/c_static.dir/host.c.o")
  [ "$found" = "$host" ] || fail "$build: the consumer has '$found', not '$host'"
  passed=$((passed + 1))
}
optimised unchosen -O3 "" ""
optimised unchosen_fetched -O3 "" "" -DFETCH=ON
optimised debug "" "" "" -DCMAKE_BUILD_TYPE=Debug
optimised by_flags -O1 -O1 -O1

echo "install_test: $passed passed, 0 failed"
