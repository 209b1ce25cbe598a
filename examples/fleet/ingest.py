#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Takes the posts of devices from nginx, and puts them into the stream.

The answer is 204 once the stream has acknowledged the message, and 429 otherwise: the device keeps the message then,
and posts it again with the same Idempotency-Key. The stream drops what it has taken before. The body passes
unread.

usage: ingest.py SOCKET CERTIFICATES PORT...
"""
import random
import re
import sys

from aiohttp import web

import jetstream

MOST_BYTES = 7 << 20  # nginx refuses larger ones; less than max_payload of nats.conf
KEY = re.compile('"([0-9a-fA-F-]{36})"')


async def take(request: web.Request) -> web.Response:
    key = KEY.fullmatch(request.headers.get("Idempotency-Key", ""))
    if key is None:
        return web.Response(status=400, text="Idempotency-Key is missing: devices need the setting outboxBytes\n")
    body = await request.read()
    try:
        await request.app["stream"].publish("events", body, {"Nats-Msg-Id": key[1]})
    except OSError:  # also TimeoutError
        return web.Response(status=429, headers={"Retry-After": str(random.randint(1, 10))})
    return web.Response(status=204)


async def connect(app: web.Application) -> None:
    app["stream"] = jetstream.JetStream([int(port) for port in sys.argv[3:]], jetstream.context(sys.argv[2], "glue"))


if __name__ == "__main__":
    application = web.Application(client_max_size=MOST_BYTES)
    application.router.add_post("/events", take)
    application.on_startup.append(connect)
    web.run_app(application, path=sys.argv[1], access_log=None)
