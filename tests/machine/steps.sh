# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=sh disable=SC2086,SC2154,SC2164  # names without blanks; lib.sh sets variables; runs under set -e
lab=/srv/lab
settings="telvoractl defaults write com.zandor.telvora"

install_packages() {
    step "installing the packages with apt, the device's set first"
    echo "deb [trusted=yes] file:$try/packages ./" >/etc/apt/sources.list
    apt-get -q update >/dev/null
    dpkg-query -W -f '${Package}\n' >/tmp/packages
    install telvorad libtelvora1 telvoractl
    echo "the device's set, in KiB: $(dpkg-query -W -f '${Package} ${Installed-Size}\n' |
        awk 'NR == FNR { old[$1]; next } !($1 in old) { printf "%s %d, ", $1, $2; sum += $2 } END { print "all", sum }' \
            /tmp/packages -)"
    ! dpkg-query -W 'libcpp-httplib*' >/dev/null 2>&1 || fail "the device's set brings a test server"
    install telvora-tools telvora-lab libtelvora-dev
    step "the Python package"
    install python3-telvora
    ! ldd /usr/lib/*/libtelvora.so.1 | grep -E 'curl|ssl|crypto|expat|seccomp|cap-ng|libz[.]so' ||
        fail "applications get the daemon's libraries"
    for socket in $unit.socket $unit.Status.socket; do
        expect "$socket does not listen" is $socket active
        expect "$socket is not enabled" systemctl -q is-enabled $socket
    done
    expect "runs without being asked" is $unit.service inactive
    [ "$(stat -c %U:%G:%a /run/telvora/$unit /run/telvora/$unit.Status | tr '\n' ' ')" = \
        "root:telvora:660 root:telvora-admin:660 " ] || fail "$(ls -l /run/telvora)"
    systemd-analyze security --threshold=15 --no-pager $unit.service >/tmp/security || fail "$(cat /tmp/security)"
    tail -n 1 /tmp/security
    systemd-analyze verify --man=no $unit.service || fail "systemd-analyze verify"
    useradd --create-home --groups telvora app
    useradd --create-home --groups telvora-admin admin
    useradd --create-home stranger
}

# A laboratory on this machine, and a signed bag.
start_laboratory() {
    step "starting the laboratory"
    mkdir -p $lab/bags
    cd $lab
    mkfifo lab.env
    telvora-lab serve --dir lab --signed-bags bags --env-file lab.env --ignore-input >arrived.json 2>lab.log &
    laboratory=$!
    # shellcheck disable=SC1091  # written by telvora-lab
    . ./lab.env
    cp "$LAB_CA" authority.crt
    telvora-bag keygen --key bag.pem --public publicKey.der
    client="{\"post_url\": \"$LAB_EVENTS\", \"locale_whitelist\": \"US\", \"sampling_threshold\": 1.0,
        \"event_threshold\": 49, \"expedite\": 0, \"filters\": [{\"key\": \"name\", \"action\": \"sha256\"}]}"
    cat >bag.json <<END
{"version": "1.0", "release": {"httpPost": {"clients": [$client]}, "uploadServer": {"post_url": "$LAB_UPLOAD"}}}
END
    telvora-bag sign --key bag.pem bag.json bags/dravik
    echo '{"version": "1.0", "release": {"vodex": {}}}' >vodex.json
    telvora-bag sign --key bag.pem vodex.json bags/quillet
    echo LANG=en_US.UTF-8 >/etc/locale.conf
}

# All from the key to the backup, in the guide's order.
administration() {
    step "the commands of the administrator's guide"
    # shellcheck disable=SC2016  # fences of code blocks
    sed -n '/^## The key/,/^## Update/ { /^```sh$/,/^```$/ { /^```/d; p; } }' /usr/share/doc/telvorad/administration.md |
        sed "s|https://bags.example/v1|$LAB_BAGS|" >guide.sh
    sh -eux guide.sh >/tmp/guide 2>&1 || fail "$(cat /tmp/guide)"
    grep -q '"greeting": "hello"' /tmp/guide || fail "$(cat /tmp/guide)"
    tar -tf telvora-backup.tar | grep -q var/lib/telvora/Preferences || fail "the backup lacks the settings"
    [ "$(systemctl show --property Id --value telvorad.service)" = $unit.service ] || fail "telvorad.service is unknown"
    expect "no metrics" grep -q '^telvora_reports_accepted_total{client_type="8",backend="httpPost"} [1-9]' /tmp/guide
    systemd-analyze security --threshold=30 --no-pager telvora-metrics.service telvora-health.service >/tmp/security ||
        fail "$(cat /tmp/security)"
    rm -r /etc/telvora/Preferences /etc/telvora/device.plist
    telvoractl reset-identifiers -y
    systemctl stop telvorad 2>/dev/null
}

activation_and_reports() {
    step "a member of telvora reports over the activated socket"
    mark
    echo "milliseconds from connecting to the first answer, with activation: $(as app $try/bin/client first)"
    expect "not ready" is $unit.service active
    expect "no line of its start" logged "main: Listener resumes with sandbox, start loop."
    report app --payload greeting=first --payload name=Ada
    as app python3 /usr/share/doc/libtelvora-dev/examples/python/first_report.py
    step "a stranger is denied"
    ! report stranger --payload greeting=stranger 2>/tmp/refusal || fail "let a stranger in"
    cat /tmp/refusal
    step "status is for administrators"
    as admin telvoractl status
    ! as app telvoractl status >/dev/null 2>&1 || fail "answered a client"
    step "the doctor names the group that a stranger lacks, and finds a client in order"
    ! as stranger telvoractl doctor --client-type 8 >/tmp/doctor || fail "found a stranger in order"
    expect "the missing group" grep "^11 .* is not in that group" /tmp/doctor
    expect "no failed step" as app telvoractl doctor --client-type 8 --client-name tester
}

consent() {
    step "consent off, on"
    telvoractl consent off
    report app --payload greeting=withoutConsent
    telvoractl consent on
    report app --payload greeting=withConsent
}

# ProtectHome= hides the file from the daemon; the client's descriptor is all that it gets.
upload() {
    step "an upload from a home directory"
    echo "a diary" | as app tee /home/app/diary >/dev/null
    as app chmod 0600 /home/app/diary
    as app telvoractl upload --client-type 8 --client-name tester /home/app/diary
}

reload() {
    step "reload changes the log level"
    for level in 7 6; do
        mark
        $settings logLevel integer $level
        systemctl reload $unit.service
        await logged "main: Logging up to level $level"
        report app --payload greeting=level$level
        case $(lines | grep -c "setSessionInfo: Configuring session") in
            0) [ $level = 6 ] || fail "no debug lines" ;;
            *) [ $level = 7 ] || fail "debug lines are left" ;;
        esac
    done
}

# What an adaptor within the daemon can reach, under the unit, on this kernel.
confinement() {
    step "nothing leaves the sandbox"
    echo secret | as app tee /home/app/secret >/dev/null
    cp $try/escaping.so /usr/lib/escaping.so
    administrators=/etc/telvora/Preferences/com.zandor.telvora.plist # alone may name an adaptor
    mkdir -p "${administrators%/*}"
    echo '<plist version="1.0"><dict><key>vodexAdaptorPath</key><string>/usr/lib/escaping.so</string></dict></plist>' \
        >$administrators
    systemd-socket-activate --listen=@canary /bin/false >/dev/null 2>&1 &
    canary=$!
    await grep -q @canary /proc/net/unix
    mark
    systemctl restart $unit.service
    touch /var/lib/telvora/file
    abi=$(as admin telvoractl --json status | sed -n 's/.*"landlockAbi": *\([0-9]*\).*/\1/p')
    as app telvoractl send --client-type 7 --category 4 --type 2 --payload directory=/home/app --payload own=/var/lib/telvora \
        --payload configuration=/etc/telvora/entitlements.d/50-telvora.plist --payload process:=$canary --payload socket=canary \
        --payload landlockAbi:=$abi
    await logged "escape: done"
    ! lines | grep '^escape ' || fail "the adaptor has another result than it expects, with Landlock ABI $abi"
    as admin telvoractl status | grep '^sandbox'
    [ "$(cat /home/app/secret)" = secret ] || fail "the canary is gone"
    kill $canary 2>/dev/null || true
    rm -r "${administrators%/*}"
}

# Each call that the unit must allow beyond systemd's groups: the daemon names the one that it lacks.
refused_calls() {
    step "a filter that lacks a call is told by its name"
    dropin=/run/systemd/system/$unit.service.d/lacking.conf
    mkdir -p "${dropin%/*}"
    for call in landlock_create_ruleset landlock_add_rule landlock_restrict_self seccomp; do
        systemctl stop $unit.service 2>/dev/null # warns that the sockets start it again
        printf '[Service]\nSystemCallFilter=~%s\n' $call >$dropin
        systemctl daemon-reload
        mark
        ! report app >/dev/null 2>&1 || fail "runs without $call"
        await is $unit.socket inactive
        [ "$(property ExecMainStatus) $(property NRestarts)" = "255 0" ] || fail "$(systemctl status $unit.service)"
        lines | grep "main: sandbox_init() fails: $call(2): Operation not permitted" || fail "no line: $(lines)"
        rm $dropin
        systemctl daemon-reload
        systemctl start $unit.socket $unit.Status.socket
    done
    report app --payload greeting=afterRefusals
}

idle_exit() {
    step "idle exit, and activation again"
    $settings idleMilliseconds integer 1000
    systemctl restart $unit.service
    await is $unit.service inactive
    [ "$(property Result)" = success ] || fail "ended with $(property Result)"
    expect "the socket went too" is $unit.socket active
    telvoractl defaults delete com.zandor.telvora idleMilliseconds
    report app --payload greeting=afterIdleExit
    expect "not activated again" is $unit.service active
}

# The books of both sides: each report arrives, or is counted as lost by the library or by a daemon.
restart_under_load() {
    step "systemctl restart and an upgrade under load"
    mark
    mkfifo /tmp/until
    as app $try/bin/client load </tmp/until >/tmp/load &
    load=$!
    exec 9>/tmp/until
    for _ in 1 2 3; do
        await accepts_many
        systemctl restart $unit.service
    done
    await accepts_many
    upgraded=$(property MainPID)
    install --reinstall telvorad
    for socket in $unit.socket $unit.Status.socket; do
        expect "the upgrade closed $socket" is $socket active
    done
    await accepts_many
    [ "$(property MainPID)" != "$upgraded" ] || fail "the old daemon serves after the upgrade"
    exec 9>&-
    wait $load || fail "the client failed: $(cat /tmp/load)"
    systemctl restart $unit.service # logs the losses of the last daemon, too
    read -r sent lost </tmp/load
    lost_by_daemons=$(lines | sed -n 's/.*main: \([0-9]*\) reports lost of .*/\1/p' | paste -sd + -)
    echo "$sent sent, $lost lost by the library, ${lost_by_daemons:-0} by daemons"
    lines | grep -E 'lost|post error|answered|exited' || true
    ! lines | grep -Eq 'code=(dumped|killed)' || fail "a daemon ended by a signal"
    lost=$((lost + ${lost_by_daemons:-0}))
}
accepts_many() {
    # shellcheck disable=SC2020  # two characters, each becomes a line feed
    [ "$(as admin telvoractl --json status | tr ',{' '\n\n' | sed -n 's/.*"accepted": *\([0-9]*\).*/\1/p' | sort -n | tail -n 1)" -ge 400 ]
}

crash() {
    step "kill -9 and Restart="
    before=$(property MainPID)
    restarts=$(property NRestarts)
    systemctl kill --signal=KILL $unit.service
    await restarted
    report app --payload greeting=afterCrash
    expect "the socket went too" is $unit.socket active
}
restarted() {
    [ "$(property MainPID)" != "$before" ] && [ "$(property NRestarts)" = $((restarts + 1)) ] && is $unit.service active
}

# The service has no network for a while, and dies meanwhile.
outbox() {
    step "what finds no server waits in the outbox"
    $settings outboxBytes integer 1000000
    $settings keepBags boolean true
    systemctl restart $unit.service
    report app --payload greeting=beforeOutbox
    systemctl set-property --runtime $unit.service IPAddressDeny=any
    systemctl restart $unit.service # with the bag that is kept
    ! report app --payload greeting=fromOutbox >/dev/null || fail "a server was reached without a network"
    await outbox_holds '[1-9]'
    [ "$(stat -c %U:%a /var/lib/telvora/outbox.db)" = telvora:600 ] || fail "$(ls -l /var/lib/telvora)"
    before=$(property MainPID)
    restarts=$(property NRestarts)
    systemctl kill --signal=KILL $unit.service
    await restarted
    await outbox_holds '[1-9]'
    systemctl set-property --runtime $unit.service IPAddressDeny=
    report app --payload greeting=afterOutbox # the server's answer brings the others on their way
    await outbox_holds 0
    telvoractl defaults delete com.zandor.telvora outboxBytes
    telvoractl defaults delete com.zandor.telvora keepBags
    systemctl restart $unit.service
    for file in outbox.db Bags; do
        [ ! -e /var/lib/telvora/$file ] || fail "$file is off, but is there"
    done
}
outbox_holds() {
    as admin telvoractl status | grep -Eq "^all so far +outbox +[0-9]+ +[0-9]+ +$1"
}

# Memory as systemd and the kernel count it; a wake-up is a switch to one of the daemon's threads.
costs() {
    step "memory and wake-ups"
    $settings idleMilliseconds integer 3600000 # by default, the daemon ends within a window without clients
    systemctl restart $unit.service
    await is $unit.service active
    cost "idle"
    for count in 1 100; do
        mkfifo /tmp/hold$count
        as app $try/bin/client hold $count </tmp/hold$count >/tmp/held &
        exec 9>/tmp/hold$count
        await grep -q held /tmp/held
        cost "$count sessions"
        exec 9>&-
        wait $!
    done
    if grep -q try.measure /proc/cmdline; then
        as app $try/bin/client load 100000
        cost "after 100,000 reports"
    fi
    telvoractl defaults delete com.zandor.telvora idleMilliseconds
}
cost() {
    seconds=10
    if grep -q try.measure /proc/cmdline; then seconds=60; fi
    process=$(property MainPID)
    switches >/tmp/before
    timeout $seconds tail -f /dev/null || true
    switches >/tmp/after
    wakeups=$(awk 'NR == FNR { before[$1] = $2; next } { sum += $2 - before[$1] } END { print sum * 60 / '$seconds' }' \
        /tmp/before /tmp/after)
    echo "$1: $(sed -n 's/^\(Rss\|Pss\|AnonHugePages\): */\1 /p' "/proc/$process/smaps_rollup" | paste -sd ' ' -)," \
        "$(wc -l </tmp/after) threads," \
        "MemoryCurrent $(($(property MemoryCurrent) / 1024)) kB, $wakeups wake-ups a minute"
}
# A line "THREAD COUNT" for each thread.
switches() {
    grep -H '^voluntary_ctxt_switches' "/proc/$process"/task/*/status
}

purge() {
    step "what arrived"
    systemctl stop $unit.service 2>/dev/null
    kill $laboratory
    wait $laboratory || fail "the laboratory failed: $(cat $lab/lab.log)"
    for greeting in hello first withConsent level7 level6 afterRefusals afterIdleExit afterCrash beforeOutbox fromOutbox \
        afterOutbox; do
        [ "$(grep -c "\"greeting\": \"$greeting\"" $lab/arrived.json)" = 1 ] || fail "not one report \"$greeting\""
    done
    expect "no report of telvora-health.service" grep -q '"reports.8.httpPost.delivered": [1-9]' $lab/arrived.json
    ! grep -E '"(stranger|withoutConsent|Ada)"' $lab/arrived.json || fail "should not have left the machine"
    zgrep -qx "a diary" $lab/lab/uploads/* || fail "no upload: $(ls -lR $lab/lab)"
    sed -n 's/.*"number": \([0-9]*\).*/\1/p' $lab/arrived.json | grep -vx 0 | sort -n >/tmp/numbers
    arrived=$(wc -l </tmp/numbers)
    echo "$arrived of $sent numbered reports arrived, $lost are counted as lost"
    [ -z "$(uniq -d /tmp/numbers)" ] || fail "arrived twice: $(uniq -d /tmp/numbers | paste -sd ' ' -)"
    # shellcheck disable=SC2015  # both conditions
    [ "$arrived" -le "$sent" ] && [ $((arrived + lost)) -ge "$sent" ] || fail "the books do not agree"

    step "purge"
    [ "$(systemctl list-units --failed --no-legend | wc -l)" = 0 ] || fail "$(systemctl list-units --failed)"
    rm /usr/share/telvora/publicKey.der /usr/lib/escaping.so
    apt-get -q -y purge telvorad telvoractl telvora-tools telvora-lab libtelvora-dev libtelvora1 >/dev/null
    for left in /etc/telvora /var/lib/telvora /var/log/telvora /run/telvora /usr/share/telvora /usr/sbin/telvorad; do
        [ ! -e $left ] || fail "left behind: $(ls -lR $left)"
    done
    [ -z "$(systemctl list-units --all --no-legend "$unit*")" ] || fail "$(systemctl list-units --all "$unit*")"
}
