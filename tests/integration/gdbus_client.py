#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""A client on GDBus that shares no code with the daemon.

usage: gdbus_client.py SOCKET

Calls all operations, for client type 8, and checks every answer; then makes invalid calls, and checks that the daemon
refuses them and goes on. Exits with status 0 if all checks succeed.
"""
import sys

from gi.repository import Gio, GLib

PATH = "/com/zandor/telvorad"
SESSION = "com.zandor.telvorad.ClientSessionInterface"
REPLY = """<node><interface name="com.zandor.telvorad.ClientSessionReplyInterface">
  <method name="SendMessageToClient">
    <arg type="aa{sv}" direction="in"/><arg type="d" direction="in"/><arg type="q" direction="in"/>
    <arg type="q" direction="in"/><arg type="aa{sv}" direction="in"/>
  </method></interface></node>"""
TIMEOUT = 60_000

variant = GLib.Variant


def expect(subject, got, wanted):
    if got != wanted:
        raise SystemExit(f"{subject}: got {got!r}, wanted {wanted!r}")


class Client:
    def __init__(self, path):
        flags = Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT
        self.bus = Gio.DBusConnection.new_for_address_sync(f"unix:path={path}", flags, None, None)

    def call(self, method, signature="()", values=(), interface=SESSION):
        reply = self.bus.call_sync(
            None, PATH, interface, method, variant(signature, values), None, Gio.DBusCallFlags.NONE, TIMEOUT, None
        )
        return reply.unpack()

    def error(self, *arguments, **named):
        try:
            answer = self.call(*arguments, **named)
        except GLib.Error as error:
            return Gio.DBusError.get_remote_error(error)
        return f"no error but {answer}"


def all_operations(path):
    client = Client(path)
    deliveries = []
    node = Gio.DBusNodeInfo.new_for_xml(REPLY)
    client.bus.register_object(
        PATH + "/client", node.interfaces[0], lambda *call: deliveries.append(call[5].unpack()), None, None
    )
    info = {
        "TelvoraSessionInfoSessionID": variant("u", 41),
        "TelvoraSessionInfoClientType": variant("i", 8),
        "TelvoraSessionInfoRequireUserInfo": variant("b", True),
        "TelvoraSessionInfoBatchEvent": variant("b", True),
    }
    user = {
        "TelvoraUserInfoClientName": variant("s", "gdbus"),
        "TelvoraUserInfoServiceName": variant("s", "tests"),
    }
    expect("SetSessionInfo", client.call("SetSessionInfo", "(a{sv}aa{sv}asb)", (info, [user], [], True)), ())
    expect("StartConfig", client.call("StartConfig"), ([["httpPost"]],))
    expect("FetchStates", client.call("FetchStates", "(aa{sv})", ([user],)), ([["httpPost"]],))
    expect("FetchDisplayURL", client.call("FetchDisplayURL"), ("URL not available",))
    payload = {
        "text": variant("s", "grüezi"),
        "yes": variant("b", True),
        "byte": variant("y", 255),
        "short": variant("n", -5),
        "word": variant("q", 65535),
        "int": variant("i", -70000),
        "unsigned": variant("u", 4_000_000_000),
        "long": variant("x", -(1 << 40)),
        "huge": variant("t", (1 << 64) - 1),
        "real": variant("d", 0.25),
        "date": variant("(d)", (1000.5,)),
        "data": variant("ay", b"\x00\xff"),
        "list": variant("av", [variant("i", 1), variant("s", "x")]),
        "tree": variant("a{sv}", {"leaf": variant("i", 1)}),
    }
    answer = client.call("SendMessageWithCategory", "(qqaa{sv})", (5, 6, [payload]))
    expect("SendMessageWithCategory answers a string or nothing", len(answer[0]) <= 1, True)
    message = {
        "TelvoraMessageParametersCategory": variant("u", 5),
        "TelvoraMessageParametersType": variant("u", 7),
        "TelvoraMessageParametersPayload": variant("a{sv}", {"n": variant("i", 1)}),
    }
    client.call("SendMessageWithDictionary", "(a{sv})", (message,))
    expect("FlushMessages", client.call("FlushMessages")[1], [])
    expect("FlushMessages again", client.call("FlushMessages")[1], [("TelvoraErrorDomain", -1, "Nothing to flush")])
    client.call("FinishSession")
    expect("UploadFileAtPath", client.call("UploadFileAtPath", "(ss)", ("file:///nowhere", "")), (False,))
    expect("UploadLogData", client.call("UploadLogData", "(av)", ([variant("s", "record")],)), (False, []))
    one_shot = "(a{sv}aa{sv}qqaa{sv})"
    expect(
        "SendMessageWithSessionInfo",
        client.call("SendMessageWithSessionInfo", one_shot, (info, [user], 8, 9, [{"n": variant("i", 2)}])),
        ("finished",),
    )
    while len(deliveries) < 4:  # start, two reports, finish
        GLib.MainContext.default().iteration(True)
    expect("the aggregated reports", [(d[2], d[3]) for d in deliveries[:4]], [(0, 0), (5, 6), (5, 7), (0, 2)])
    expect("user info in a delivery", deliveries[1][4][0]["TelvoraUserInfoClientName"], "gdbus")


def refusals(path):
    client = Client(path)
    invalid = "org.freedesktop.DBus.Error.InvalidArgs"
    expect("a wrong signature", client.error("SendMessageWithCategory", "(s)", ("x",)), invalid)
    expect("no arguments", client.error("SetSessionInfo"), invalid)
    for odd in [variant("g", "s"), variant("o", "/x"), variant("(is)", (1, "x")), variant("a{us}", {1: "x"}),
                variant("h", 0)]:
        answer = client.error("SendMessageWithCategory", "(qqaa{sv})", (1, 1, [{"k": odd}]))
        expect(f"a value of type {odd.get_type_string()}", answer, invalid)
    expect("two values for one", client.error("FetchStates", "(aa{sv})", ([{}, {}],)), invalid)
    expect("an unknown operation", client.error("Nonsense"), "org.freedesktop.DBus.Error.UnknownMethod")
    expect("the connection lives on", client.call("FetchDisplayURL"), ("URL not available",))


if __name__ == "__main__":
    all_operations(sys.argv[1])
    refusals(sys.argv[1])
