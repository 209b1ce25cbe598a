#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""The first report, in Python: plain D-Bus (Debian's python3-gi), without any library of telvorad's.

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
    "TelvoraSessionInfoSessionID": GLib.Variant("u", 3),
}
call("SetSessionInfo", "(a{sv}aa{sv}asb)", info, [], [], False)
print("These backends report:", call("StartConfig"))
call("SendMessageWithCategory", "(qqaa{sv})", 5, 6, [{"fruit": GLib.Variant("s", "quince")}])
print("The report:", call("FlushMessages"))
