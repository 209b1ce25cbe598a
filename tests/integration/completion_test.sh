#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
#
# Presses the tab key in real shells. $1: the source directory; $2: that of the programs.
set -eu

scripts=$1/tools/completion
PATH=$2:$PATH
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
touch some-file.plist
export PATH TERM=dumb INPUTRC=/dev/null HISTFILE=

# What is typed before the key, and what the line is after it.
cat >table <<'END'
telvoractl con|telvoractl consent
telvoractl consent sh|telvoractl consent show
telvoractl defaults write com.zandor.telvora logLevel int|telvoractl defaults write com.zandor.telvora logLevel integer
telvoractl upload --client-t|telvoractl upload --client-type
telvoractl send --type 3 --pay|telvoractl send --type 3 --payload
telvoractl flush --client-type 8 --js|telvoractl flush --client-type 8 --json
telvora-bag ver|telvora-bag verify
telvora-bag explain --consent y|telvora-bag explain --consent yes
telvora-bag sign --key some-f|telvora-bag sign --key some-file.plist
telvora-bag show some-f|telvora-bag show some-file.plist
telvoractl nothing-li|telvoractl nothing-li
END

# $1: what the shell reads first; the rest: the shell. Each line is completed and, from its beginning (^A), made
# the argument of an echo whose output can't be mistaken for what was typed.
expectCompletions() {
    { echo "$1"
      while IFS='|' read -r typed _; do printf '%s\t\001echo RES""ULT: \n' "$typed"; done <table
      echo exit
    } >input
    shift
    script -qec "$*" /dev/null <input >output 2>&1 || :
    tr -d '\r' <output | grep -o '^RESULT: .*' | sed 's/^RESULT: //; s/ *$//' >completed || :
    cut -d'|' -f2 table | diff - completed || { echo "$*"; cat -v output; exit 1; }
}

expectCompletions ". $scripts/telvora.bash" bash --norc -i
expectCompletions "fpath=($scripts \$fpath); autoload -U compinit; compinit -D -u" zsh -f -i
