#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
#
# usage: build_examples.sh BUILD EXAMPLES TO CC CXX FLAGS
#
# Installs BUILD to TO/prefix, copies the EXAMPLES to TO, and builds them there against it: all with their Makefile, and
# the one in C++ with find_package, too.
set -eu
build=$1 examples=$2 to=$3 cc=$4 cxx=$5 flags=$6

rm -rf "$to"
mkdir "$to"
cp -r "$examples/." "$to"
cmake --install "$build" --prefix "$to/prefix" >/dev/null
libdir=$(dirname "$(dirname "$(find "$to/prefix" -name telvora.pc)")")
[ "$libdir" = "$to/prefix/lib" ] || ln -sfn "$libdir" "$to/prefix/lib"
# A build with sanitizers links further libraries, and builds no examples in Rust and Go.
if [ -z "$flags" ]; then
    if ldd "$libdir/libtelvora.so" | grep -E 'curl|ssl|crypto|expat|seccomp|cap-ng|libz[.]so'; then exit 1; fi
else
    export RUSTC=false-rustc GO=false-go
fi

export PKG_CONFIG_PATH="$libdir/pkgconfig" GOCACHE="$to/go-cache" PATH="/usr/bin:$PATH"
all="$flags -Wall -Wextra -Wpedantic -Werror"
for header in "$to"/prefix/include/telvora/*.hpp; do
    # shellcheck disable=SC2086  # several flags
    "$cxx" -std=c++20 $all -I "$to/prefix/include" -fsyntax-only -include "$header" -x c++ /dev/null
done
make -s -C "$to" CC="$cc" CXX="$cxx" CFLAGS="$all" CXXFLAGS="$all"

cmake -S "$to/cpp" -B "$to/cpp/build" -DCMAKE_PREFIX_PATH="$to/prefix" -DCMAKE_CXX_COMPILER="$cxx" \
    -DCMAKE_CXX_FLAGS="$all" >/dev/null
cmake --build "$to/cpp/build" >/dev/null
