#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""The first report over plain D-Bus (Debian's python3-gi), without a library of telvorad's.

The wire contract is com.zandor.telvorad.xml, in /usr/share/dbus-1/interfaces.
"""
import os

from gi.repository import Gio, GLib

SOCKET = os.environ.get("TELVORA_SOCKET", "/run/telvora/com.zandor.telvorad")
bus = Gio.DBusConnection.new_for_address_sync(
    f"unix:path={SOCKET}", Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT, None, None
)


def call(method, signature="()", *arguments):
    body = GLib.Variant(signature, arguments)
    interface = "com.zandor.telvorad.ClientSessionInterface"
    answer = bus.call_sync(None, "/com/zandor/telvorad", interface, method, body, None, 0, 30_000, None)
    return answer.unpack()


info = {
    "TelvoraSessionInfoClientType": GLib.Variant("i", 8),  # selects the configuration
    "TelvoraSessionInfoSessionID": GLib.Variant("u", 4),
    "TelvoraSessionInfoRequireUserInfo": GLib.Variant("b", True),  # else consent is not asked
}
user = {"TelvoraUserInfoClientName": GLib.Variant("s", "first-report")}
call("SetSessionInfo", "(a{sv}aa{sv}asb)", info, [user], [], False)
(backends,) = call("StartConfig")
if not any(backends):  # no list: no configuration; an empty one: no backend reports
    raise SystemExit("No backend reports: 'telvoractl doctor --client-type 8' shows the reason.")
print("These backends report:", *backends[0])
call("SendMessageWithCategory", "(qqaa{sv})", 5, 6, [{"fruit": GLib.Variant("s", "quince")}])
print("The report:", call("FlushMessages"))
