# SPDX-License-Identifier: Apache-2.0
"""The fleet: servers, daemons and programs, and what can be asked of them while they run."""
from __future__ import annotations

import asyncio
import inspect
import json
import pathlib
import sys
import time
from collections.abc import Callable
from typing import Any

import asyncpg

import jetstream
from daemons import OUTBOX, POSTS, Daemon, sum_of
from processes import Process
from servers import HERE, NODES, Servers

PATIENCE = 600  # seconds for a step, which takes much longer on a machine with other work


async def until(goal: str, condition: Callable[[], Any]) -> Any:
    """Waits for a true result of a function, which may be asynchronous. Failures count as false."""
    deadline = time.monotonic() + PATIENCE
    failure: object = ""
    while time.monotonic() < deadline:
        try:
            result = condition()
            if inspect.isawaitable(result):
                result = await result
            if result:
                return result
        except (OSError, asyncpg.PostgresError, asyncpg.InterfaceError) as error:
            failure = error
        await asyncio.sleep(0.25)
    raise SystemExit(f"not within {PATIENCE} s: {goal}; {failure}")


class Fleet:
    """The caller ends it, also after a failure of its start."""

    def __init__(self, directory: pathlib.Path) -> None:
        self.directory = directory
        self.servers = Servers(directory)
        self.daemons: list[Daemon] = []
        self._programs: list[Process] = []
        self._begun = time.monotonic()

    def say(self, text: str) -> None:
        print(f"{time.monotonic() - self._begun:5.0f} s  {text}", flush=True)

    def end(self) -> None:
        """Ends all processes."""
        processes = [*self._programs, *(daemon.process for daemon in self.daemons)]
        for process in processes:
            process.interrupt()
        for process in processes:
            process.end()
        self.servers.end()

    async def start(self, size: int) -> None:
        self.servers.start()
        self.stream = jetstream.JetStream(self.servers.node_ports, jetstream.context(self.servers.keys, "glue"))
        await until("a stream", lambda: self.servers.make_stream(self.stream))
        self.database = await until("a database", self.servers.make_tables)
        self.servers.start_store()
        sockets = [self.directory / f"ingest-{number}.socket" for number in range(len(self.servers.workers))]
        await until("the ingest", lambda: all(socket.exists() for socket in sockets))
        await until("nginx", (self.directory / "nginx.pid").exists)
        self.say(f"servers run: nginx, {len(sockets)} ingests, {NODES} nodes of the stream, the store, PostgreSQL")
        self.servers.probe()
        self.daemons += [Daemon(self.servers, number) for number in range(size)]
        await until("the daemons", lambda: all(daemon.socket.exists() for daemon in self.daemons))
        self.say(f"{size} daemons run")

    def run_programs(self, run: str, pause: float) -> Process:
        """A program for each device, which sends a batch after each pause, in seconds."""
        arguments = (run, pause, self.directory / f"{run}.json", *(daemon.socket for daemon in self.daemons))
        program = Process(self.directory / f"{run}.log", sys.executable, HERE / "devices.py", *arguments)
        self._programs.append(program)
        return program

    async def stop_programs(self, program: Process, run: str) -> dict[str, Any]:
        """The programs' own count of their reports."""
        program.interrupt()
        await until("the programs' end", lambda: program.has_ended)
        if status := program.wait():
            raise SystemExit(f"the programs: exit status {status}")
        return dict(json.loads((self.directory / f"{run}.json").read_text()))

    async def stop_daemons(self) -> list[dict[str, Any]]:
        """Ends them when they keep nothing. Their ledgers."""
        await until("empty outboxes", self._has_posted_all)
        for daemon in self.daemons:
            daemon.process.interrupt()
        for daemon in self.daemons:
            if status := daemon.process.wait():
                raise SystemExit(f"{daemon.directory}: exit status {status}")
        return [daemon.last_accounts() for daemon in self.daemons]

    async def _has_posted_all(self) -> bool:
        accounts = await self.accounts()
        (posts, _), (kept, _) = sum_of(accounts, POSTS), sum_of(accounts, OUTBOX)
        return posts["inFlight"] + posts["held"] + kept["inFlight"] + kept["held"] == 0

    async def accounts(self) -> list[dict[str, Any]]:
        """The ledgers of all daemons. Fails if one does not answer in time."""
        return [await daemon.accounts() for daemon in self.daemons]

    async def kept(self) -> int:
        """The number of reports that went to the outboxes."""
        return sum_of(await until("the ledgers", self.accounts), POSTS)[0]["kept"]

    def answered(self, status: str) -> int:
        """The number of posts that nginx has answered so."""
        with (self.directory / "access.log").open() as log:
            return sum(line.startswith(status) and line.endswith("/events\n") for line in log)

    async def until_answered(self, status: str) -> None:
        """Waits for as many more such answers as there are devices."""
        goal = self.answered(status) + len(self.daemons)
        await until(f"{goal} answers {status}", lambda: self.answered(status) >= goal)

    async def backlog(self) -> int:
        """Messages of the stream that the store has not acknowledged."""
        consumer = await self.stream.api("CONSUMER.INFO.EVENTS.store")
        return int(consumer["num_pending"] + consumer["num_ack_pending"])

    async def rows(self) -> int:
        return int(await self.database.fetchval("SELECT count(*) FROM events"))

    async def until_stored(self) -> None:
        async def is_stored() -> bool:
            return await self.backlog() == 0

        await until("the store has all messages", is_stored)

    async def nodes(self) -> tuple[int, bool]:
        """The node that leads the stream, and whether all others are up to date."""
        cluster = (await self.stream.api("STREAM.INFO.EVENTS"))["cluster"]
        if "leader" not in cluster:
            raise ConnectionError("the stream has no leader")
        others = cluster.get("replicas", [])
        current = len(others) == NODES - 1 and all(one["current"] and not one.get("offline") for one in others)
        return int(cluster["leader"].removeprefix("node-")), current

    async def leader(self) -> int:
        return int((await until("a leader of the stream", self.nodes))[0])

    async def until_replicated(self) -> None:
        async def is_replicated() -> bool:
            return (await self.nodes())[1]

        await until("nodes that are up to date", is_replicated)
