# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=sh disable=SC2086  # names without blanks
#
# Boots with Landlock switched off: the daemon logs one line and stays down, and programs are refused at once.
# shellcheck source=tests/machine/lib.sh
. /srv/try/machine/lib.sh
reason='main: sandbox_init() fails: Landlock is switched off: add "landlock" to the lsm= list'
refused() {
    status=0
    as app telvoractl send --client-type 8 --category 4 --type 2 >/dev/null 2>/tmp/refusal || status=$?
    [ "$status" = 3 ] || fail "status $status instead of 3: $(cat /tmp/refusal)"
}

step "the sockets listen until a program connects"
for socket in $unit.socket $unit.Status.socket; do
    expect "$socket does not listen" is $socket active
done
mark
refused
await is $unit.service failed
await is $unit.socket inactive
await is $unit.Status.socket inactive
[ "$(property ExecMainStatus) $(property NRestarts)" = "255 0" ] || fail "$(systemctl status $unit.service)"
[ "$(lines | grep -c 'main: ')" = 1 ] || fail "not one line: $(lines)"
systemctl status --no-pager -l $unit.service | grep -qF "$reason" || fail "systemctl status does not say why"

step "the next program is refused without another start"
refused
[ "$(lines | grep -c 'main: ')" = 1 ] || fail "started again: $(lines)"
