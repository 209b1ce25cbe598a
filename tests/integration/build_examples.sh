#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
#
# usage: build_examples.sh BUILD EXAMPLES TO CC CXX FLAGS
#
# Installs BUILD to TO/prefix, and builds the EXAMPLES against it: the one in C with pkg-config, the one in C++ with
# find_package.
set -eu
build=$1 examples=$2 to=$3 cc=$4 cxx=$5 flags=$6

rm -rf "$to"
cmake --install "$build" --prefix "$to/prefix" >/dev/null
libdir=$(dirname "$(dirname "$(find "$to/prefix" -name telvora.pc)")")
[ "$libdir" = "$to/prefix/lib" ] || ln -sfn "$libdir" "$to/prefix/lib"
# A build with sanitizers links further libraries.
if [ -z "$flags" ] && ldd "$libdir/libtelvora.so" | grep -E 'curl|ssl|crypto|expat|seccomp|cap-ng|libz[.]so'; then exit 1; fi

export PKG_CONFIG_PATH="$libdir/pkgconfig"
mkdir "$to/c"
# shellcheck disable=SC2046,SC2086  # lists of flags
"$cc" $flags -std=c99 -Wall -Wextra -Wpedantic -Werror "$examples/c/first_report.c" \
    $(pkg-config --cflags --libs telvora) -o "$to/c/first_report"

cmake -S "$examples/cpp" -B "$to/cpp" -DCMAKE_PREFIX_PATH="$to/prefix" -DCMAKE_CXX_COMPILER="$cxx" \
    -DCMAKE_CXX_FLAGS="$flags -Wall -Wextra -Wpedantic -Werror" >/dev/null
cmake --build "$to/cpp" >/dev/null
