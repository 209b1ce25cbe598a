# SPDX-License-Identifier: Apache-2.0
"""Processor time and bytes of the servers for each report, between two moments."""
from __future__ import annotations

import pathlib
import time

from fleet import Fleet


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
        posts, received, sent = (now - then for now, then in zip(_log_sums(self._fleet.directory / "access.log"), self._log))
        print(f"         {reports} reports in {posts} posts in {duration:.1f} s: {reports / duration:.0f} reports/s")
        print(f"         bytes of HTTP for a post: {received / posts:.0f} up, {sent / posts:.0f} down;"
              f" for a report: {received / reports:.0f} up")  # fmt: skip
        for name, seconds in self._processor_seconds().items():
            seconds -= self._seconds[name]
            print(f"         {name:10} {seconds / posts * 1e6:6.0f} µs/post {seconds / reports * 1e6:6.1f} µs/report")


def _log_sums(log: pathlib.Path) -> tuple[int, int, int]:
    """Posts, bytes of their requests, bytes of their answers; without TLS."""
    with log.open() as lines:
        posts = [line.split() for line in lines if line.endswith("/events\n")]
    return len(posts), sum(int(post[1]) for post in posts), sum(int(post[2]) for post in posts)
