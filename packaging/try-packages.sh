#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
#
# On a machine with nothing of ours: installs the packages that lie in /tmp, reports through the service as its
# manager would run it, then purges it. try-packages runs it in a root of its own.
set -eu
export PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive
runtime=/run/telvora
socket=$runtime/com.zandor.telvorad

fail() {
    echo "$*" >&2
    [ ! -e telvorad.log ] || cat telvorad.log >&2
    exit 1
}
as() {
    user=$1
    shift
    setpriv --reuid "$user" --regid "$user" --init-groups "$@"
}
# The sockets as the units describe them; returns when they listen.
activate() {
    as telvora systemd-socket-activate --listen="$socket" --listen="$socket.Status" \
        --fdname=com.zandor.telvorad.socket:com.zandor.telvorad.Status \
        -E SSL_CERT_FILE="$LAB_CA" -E LC_ALL=en_US.UTF-8 /usr/sbin/telvorad 2>telvorad.log &
    daemon=$!
    until grep -q 'com.zandor.telvorad.Status as 4' telvorad.log; do kill -0 "$daemon" || fail "no sockets"; done
    chgrp telvora-admin "$socket.Status"
    chmod 0660 "$socket" "$socket.Status"
}
report() {
    as "$1" telvoractl send --client-type 8 --require-user-info --client-name tester --category 4 --type 2 \
        --payload "greeting=$2"
}

# The set of a device first, which must come without what only laboratories need; then the rest.
sizes() { dpkg-query -W -f '${Package} ${Installed-Size}\n' | sort; }
installPackages() {
    apt-get -q -y install --no-install-recommends "$@" >/srv/install.log 2>&1 || { cat /srv/install.log; exit 1; }
}
apt-get -q update >/dev/null
sizes >/srv/before
installPackages /tmp/telvorad_*.deb /tmp/libtelvora1_*.deb /tmp/telvoractl_*.deb
sizes | comm -13 /srv/before - | awk '{ print; sum += $2 } END { print "A device'"'"'s set, installed KiB:", sum }'
! sizes | grep -E '^(libcpp-httplib|telvora-lab|telvora-tools)' || fail "a device needs none of these"
installPackages /tmp/*.deb

for user in app:telvora admin:telvora-admin stranger:nogroup; do
    useradd --groups "${user#*:}" "${user%:*}"
done
install -d -o telvora -g telvora -m 0700 /var/lib/telvora # the unit's StateDirectory=
mkdir -p /srv/lab/bags
cd /srv/lab

mkfifo lab.env
telvora-lab serve --dir lab --signed-bags bags --env-file lab.env --ignore-input >arrived.json &
lab=$!
. ./lab.env
chmod -R a+rX lab
telvora-bag keygen --key bag.pem --public /usr/share/telvora/publicKey.der
cat >bag.json <<END
{"version": "1.0", "release": {"httpPost": {"clients": [{"post_url": "$LAB_EVENTS", "locale_whitelist": "US",
    "sampling_threshold": 1.0, "event_threshold": 49, "filters": [{"key": "name", "action": "sha256"}]}]}}}
END
telvora-bag sign --key bag.pem bag.json bags/dravik
telvoractl defaults write com.zandor.telvora telvora_storebag_url string "$LAB_BAGS"
telvoractl defaults write com.zandor.telvora idleMilliseconds integer 2000
telvoractl consent on

for life in first second; do
    activate
    ! report stranger refused 2>refusal || fail "let a stranger in"
    report app "$life" || fail "no report"
    as admin telvoractl status || fail "no status"
    ! as app telvoractl status 2>refusal || fail "told a client its status"
    wait "$daemon" || fail "did not end well when idle"
done
kill "$lab" && wait "$lab"
for life in first second; do
    [ "$(grep -c "\"greeting\": \"$life\"" arrived.json)" = 1 ] || { cat arrived.json; fail "lost the $life report"; }
done

rm /usr/share/telvora/publicKey.der
dpkg --purge telvora-lab telvora-tools telvoractl libtelvora-dev libtelvora1 telvorad >/dev/null
for left in /etc/telvora /var/lib/telvora /var/log/telvora "$runtime" /usr/share/telvora /usr/sbin/telvorad; do
    [ ! -e "$left" ] || fail "left behind: $(ls -lR "$left")"
done
