# SPDX-License-Identifier: Apache-2.0
"""Processor time and bytes of the servers for each report, and for each new connection of a device."""
from __future__ import annotations

import asyncio
import pathlib
import re
import time

from fleet import Fleet

HANDSHAKE_SECONDS = 5


class Costs:
    """Begins at its construction."""

    def __init__(self, fleet: Fleet, reports: int) -> None:
        self._fleet = fleet
        self._reports = reports  # in the database
        self._time = time.monotonic()
        self._log = _log_sums(fleet.directory / "access.log")
        self._seconds = self._processor_seconds()

    def _processor_seconds(self) -> dict[str, float]:
        groups = self._fleet.servers.processes()
        groups["daemons"] = [daemon.process for daemon in self._fleet.daemons]
        return {name: sum(process.seconds() for process in group) for name, group in groups.items()}

    def print(self, reports: int) -> None:
        """`reports`: in the database now, when the store has all."""
        reports -= self._reports
        duration = time.monotonic() - self._time
        log = _log_sums(self._fleet.directory / "access.log")
        posts, received, sent = (now - then for now, then in zip(log, self._log))
        print(f"         {reports} reports in {posts} posts in {duration:.1f} s: {reports / duration:.0f} reports/s")
        print(f"         bytes of HTTP for a post: {received / posts:.0f} up, {sent / posts:.0f} down;"
              f" for a report: {received / reports:.0f} up")
        for name, seconds in self._processor_seconds().items():
            seconds -= self._seconds[name]
            print(f"         {name:10} {seconds / posts * 1e6:6.0f} µs/post {seconds / reports * 1e6:6.1f} µs/report")


def _log_sums(log: pathlib.Path) -> tuple[int, int, int]:
    """Posts, bytes of their requests, bytes of their answers; without TLS."""
    with log.open() as lines:
        posts = [line.split() for line in lines if line.endswith("/events\n")]
    return len(posts), sum(int(post[1]) for post in posts), sum(int(post[2]) for post in posts)


async def print_handshakes(fleet: Fleet) -> None:
    """Devices that report a few times a day make a new connection each time, with both certificates."""
    etc = fleet.daemons[0].directory / "etc"
    address = ("-connect", f"localhost:{fleet.servers.port}", "-CAfile", etc / "servers.pem")
    device = ("-cert", etc / "device-0.pem", "-key", etc / "device-0.key")
    begun = fleet.servers.nginx.seconds()
    output = await _openssl("s_time", *address, *device, "-new", "-time", HANDSHAKE_SECONDS)
    seconds = fleet.servers.nginx.seconds() - begun
    connections = int(re.findall(r"(\d+) connections in \d+ real seconds", output)[0])
    output = await _openssl("s_client", *address, *device)
    received, sent = re.findall(r"handshake has read (\d+) bytes and written (\d+)", output)[0]
    cost = seconds / connections * 1e6
    print(f"         a new connection: {cost:.0f} µs of nginx, {sent} bytes up, {received} down")


async def _openssl(*arguments: object) -> str:
    command = ("openssl", *(str(argument) for argument in arguments))
    process = await asyncio.create_subprocess_exec(
        *command, stdin=asyncio.subprocess.DEVNULL, stdout=asyncio.subprocess.PIPE, stderr=asyncio.subprocess.STDOUT
    )
    return (await process.communicate())[0].decode(errors="replace")


async def print_sizes(fleet: Fleet) -> None:
    rows, table, messages = await fleet.database.fetchrow(
        "SELECT count(*), pg_total_relation_size('events'), count(DISTINCT message) FROM events"
    )
    print(f"database: {rows} rows of {table / rows:.0f} bytes with their index, from {messages} messages")
