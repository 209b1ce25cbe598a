#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
#
# Checks that manual pages are well formed, contain every option of their program, and have examples in C that compile.
# $1: source directory; $2: directory of the programs; $3: a generated page; $4: directory of further ones.
set -eu

manuals=$1/docs/man
programs=$2
mandoc -Tlint -Wwarning "$manuals"/*.[1-9] "$3" "$4"/*.[37]
for page in "$4"/*.3; do
    sed -n '/^\.Sh EXAMPLES/,$ { /^\.Bd/,/^\.Ed/ { /^\./d; s/\\e/\\/g; p; } }' "$page" |
        cc -std=c11 -Wall -Wextra -Wpedantic -Werror -fsyntax-only -I "$1/include" -x c - || { echo "$page"; exit 1; }
done

# Prints the options of a program and of all its commands.
optionsOf() {
    {
        "$1" --help
        "$1" --help | sed -n '/^Subcommands:/,/^$/s/^  \([a-z-]*\) .*/\1/p' | while read -r command; do
            "$1" "$command" --help
        done
    } | grep -oE '^  (-[a-z],)?--[a-z-]+' | sed 's/.*--/--/' | sort -u
}

status=0
for program in telvoractl telvora-bag telvora-lab telvora-bench telvora-bench-dashboard; do
    [ -x "$programs/$program" ] || continue
    page=$(mandoc -Tascii "$manuals/${program%-dashboard}.1" | sed 's/.\x08//g')
    for option in $(optionsOf "$programs/$program"); do
        [ "$option" != --help ] || continue
        printf '%s' "$page" | grep -qE -e "$option([^a-z-]|\$)" && continue
        echo "$program: the manual page does not have $option"
        status=1
    done
done
exit $status
