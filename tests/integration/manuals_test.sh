#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
#
# Checks that manual pages are well formed and contain every option of their program. $1: source directory;
# $2: directory of the programs; the rest: generated pages.
set -eu

manuals=$1/docs/man
programs=$2
shift 2
mandoc -Tlint -Wwarning "$manuals"/*.[1-9] "$@"

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
