# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
#
# bash completion for telvoractl and telvora-bag.

_telvora() {
    local line
    COMPREPLY=()
    while IFS= read -r line; do
        if [[ $line == "<files>" ]]; then
            compopt -o default
        else
            COMPREPLY+=("${line%%$'\t'*}")
        fi
    done < <("$1" --complete "${COMP_WORDS[@]:1:COMP_CWORD}" 2>/dev/null)
}

complete -F _telvora telvoractl telvora-bag
