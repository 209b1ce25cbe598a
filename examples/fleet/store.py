#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Writes the messages of the stream to PostgreSQL, and acknowledges them after the commit.

A message that comes again, from the device or from the stream, has the key of its rows, and changes none.

usage: store.py DATABASE CERTIFICATES PORT...
"""
import asyncio
import contextlib
import sys
import zlib

import asyncpg

import jetstream

MOST_BYTES = 64 << 20  # of a message that is not compressed
INSERT = """
    INSERT INTO events
    SELECT $1::uuid, position, message->>'clientId', to_timestamp((message->>'postTime')::float8), event
    FROM (SELECT $2::jsonb AS message) AS posted, jsonb_array_elements(message->'events') WITH ORDINALITY
         AS element(event, position)
    ON CONFLICT DO NOTHING"""


def text_of(body: bytes) -> str:
    if not body.startswith(b"\x1f\x8b"):
        return body.decode(errors="replace")
    inflate = zlib.decompressobj(31)
    return inflate.decompress(body, MOST_BYTES).decode(errors="replace")


async def insert_each(database: asyncpg.Connection, messages: list[jetstream.Message]) -> None:
    """For a batch with a message that is none: that one goes where people can look at it."""
    for message in messages:
        key = message.field("Nats-Msg-Id")
        try:
            await database.execute(INSERT, key, text_of(message.body))
        except (asyncpg.DataError, zlib.error):
            await database.execute("INSERT INTO unreadable VALUES ($1, $2) ON CONFLICT DO NOTHING", key, message.body)


async def store(database: asyncpg.Connection, messages: list[jetstream.Message]) -> None:
    try:
        rows = [(message.field("Nats-Msg-Id"), text_of(message.body)) for message in messages]
        await database.executemany(INSERT, rows)  # one transaction
    except (asyncpg.DataError, zlib.error):
        await insert_each(database, messages)


async def main(address: str, certificates: str, ports: list[int]) -> None:
    stream = jetstream.JetStream(ports, jetstream.context(certificates, "glue"))
    database = await asyncpg.connect(address, command_timeout=60)
    while True:
        try:
            messages = await stream.fetch("EVENTS", "store", 200, 1)
        except OSError:  # no server of the stream, which also TimeoutError says
            await asyncio.sleep(0.5)
            continue
        await store(database, messages)  # without the database, the program ends
        with contextlib.suppress(ConnectionError):  # the messages come again
            for message in messages:
                stream.acknowledge(message)


if __name__ == "__main__":
    asyncio.run(main(sys.argv[1], sys.argv[2], [int(port) for port in sys.argv[3:]]))
