#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
#
# Runs the shell example of the README, and compares the one in Python with the tested file. $1: source directory;
# $2: directory of the programs, which is linked to the place that the README names.
set -eu

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# shellcheck disable=SC2016  # fences of a code block
sed -n '/^```sh$/,/^```$/p' "$1/README.md" | sed '/^```/d' >"$work/path.sh"
# shellcheck disable=SC2016
sed -n '/^```python$/,/^```$/ { /^```/d; p; }' "$1/README.md" >"$work/example.py"
sed '1,/^"""/d' "$1/examples/python/first_report.py" | diff "$work/example.py" -
mkdir -p "$work/build/release"
ln -s "$2" "$work/build/release/bin"
cd "$work"
# Ends the started programs if the example fails halfway.
# shellcheck disable=SC2016  # expanded by the inner shell
run='trap "kill \$lab \$daemon 2>/dev/null || :" EXIT; lab=; daemon=; . ./path.sh'
TMPDIR="$work" timeout --kill-after=5 100 sh -c "$run" >output 2>&1 || { cat output "$work"/tmp.*/telvorad.log; exit 1; }

grep -q '"greeting": "hello"' output || { cat output; exit 1; }
digest=$(printf Ada | sha256sum | cut -d' ' -f1)
grep -q "\"name\": \"$digest\"" output || { cat output; exit 1; }
