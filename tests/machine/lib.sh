# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=sh disable=SC2034,SC2086  # used by the scripts that include this; names without blanks
#
# Functions of the scripts that run on the machine, as root.
export PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive
try=/srv/try
unit=com.zandor.telvorad

fail() {
    echo "FAILED: $*"
    exit 1
}
step() {
    echo "== $(cut -d ' ' -f 1 /proc/uptime) $*"
}
as() {
    user=$1
    shift
    runuser --user "$user" -- "$@"
}
expect() {
    what=$1
    shift
    "$@" || fail "$what"
}
# Repeats the command until it succeeds.
await() {
    patience=$(($(cut -d . -f 1 /proc/uptime) + 120))
    until "$@" >/dev/null 2>&1; do
        [ "$(cut -d . -f 1 /proc/uptime)" -lt "$patience" ] || fail "waited in vain: $*"
        udevadm settle # gives way to the other processes
    done
}
is() {
    [ "$(systemctl is-active "$1")" = "$2" ]
}
property() {
    systemctl show --property "$1" --value $unit.service
}
# Sets the position from which lines() prints the service's log.
mark() {
    journalctl --sync
    cursor=$(journalctl -n 1 --show-cursor -q -o cat | sed -n 's/^-- cursor: //p')
}
lines() {
    journalctl --sync
    journalctl -u $unit.service -o cat --no-pager -q --after-cursor "$cursor"
}
logged() {
    lines | grep -qF -- "$1"
}
report() {
    who=$1
    shift
    as "$who" telvoractl send --client-type 8 --client-name tester --category 4 --type 2 "$@" \
        >/tmp/report || { cat /tmp/report; return 1; }
}
install() {
    apt-get -q -y install --no-install-recommends "$@" >/tmp/apt.log 2>&1 || { cat /tmp/apt.log; fail "apt-get install $*"; }
}
