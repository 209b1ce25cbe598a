#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
#
# Tests completion in interactive shells. $1: source directory; $2: directory of the programs.
set -eu

scripts=$1/tools/completion
PATH=$2:$PATH
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
touch some-file.plist
export PATH TERM=dumb INPUTRC=/dev/null HISTFILE=

# The typed text, and the line after the tab key.
cat >table <<'END'
telvoractl con|telvoractl consent
telvoractl consent sh|telvoractl consent show
telvoractl defaults write com.zandor.telvora logL|telvoractl defaults write com.zandor.telvora logLevel
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

# $1: setup commands; the rest: the shell's command line. After each completion, ^A and "echo" turn the line into the
# argument of a command, whose output differs from the echoed input by its quotes.
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
