# SPDX-License-Identifier: Apache-2.0
"""Reports from a program to telvorad.

    import telvora

    with telvora.Session() as session:
        session.set_info(telvora.session_info(client_type=8, session_id=1, batch=True), telvora.user_info("player"))
        if not session.start().result(30):
            print("No backend takes the reports: is there a configuration for client type 8?")
        session.send(5, 6, {"fruit": "quince"})
        print(session.flush().result(30))

The rules of telvora/telvora.h for connections, forks and the environment apply; telvora(3) is an overview.
"""
from telvora import keys
from telvora._library import BackendError, Status, TelvoraError, version
from telvora._recorder import Recorder
from telvora._session import ConnectionChange, ConnectionEvent, Message, Session
from telvora._values import Dictionary, Value, child_info, session_info, user_info

__all__ = [
    "BackendError",
    "ConnectionChange",
    "ConnectionEvent",
    "Dictionary",
    "Message",
    "Recorder",
    "Session",
    "Status",
    "TelvoraError",
    "Value",
    "child_info",
    "keys",
    "session_info",
    "user_info",
    "version",
]
