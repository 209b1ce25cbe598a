#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""The first report, in Python (Debian's python3-telvora)."""
import telvora

with telvora.Session() as session:
    session.set_info(telvora.session_info(client_type=8, session_id=3, batch=True), telvora.user_info("first-report"))
    if not session.start().result(30):
        raise SystemExit("No backend reports: 'telvoractl doctor --client-type 8' shows the reason.")
    session.send(5, 6, {"fruit": "quince"})
    print("The report:", session.flush().result(30))
