# SPDX-License-Identifier: Apache-2.0
"""The servers of the example, below one directory: keys, bags, nginx, the ingest, the stream, PostgreSQL."""
from __future__ import annotations

import pathlib
import signal
import subprocess
import sys
from typing import Any

import asyncpg

import jetstream
from processes import Process, free_ports

HERE = pathlib.Path(__file__).parent
NODES = 3
WORKERS = 2
NANOSECONDS = 10**9
NEW_KEY = ("-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes")
NEW_CERTIFICATE = ("openssl", "req", "-x509", *NEW_KEY, "-days", 1)

# A full stream refuses messages (discard new), rather than to drop those that are not in the database yet. A message
# leaves the stream when the store has acknowledged it (workqueue).
STREAM = {
    "name": "EVENTS",
    "subjects": ["events"],
    "storage": "file",
    "num_replicas": NODES,
    "retention": "workqueue",
    "discard": "new",
    "max_bytes": 1 << 30,
    "duplicate_window": 600 * NANOSECONDS,
}
CONSUMER = {"durable_name": "store", "ack_policy": "explicit", "ack_wait": 10 * NANOSECONDS, "max_ack_pending": 2000}


def run(*arguments: object) -> None:
    """Runs a program to its end. Its output matters only after a failure."""
    command = [str(argument) for argument in arguments]
    result = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    if result.returncode != 0:
        raise SystemExit(f"{' '.join(command)}: exit status {result.returncode}\n{result.stdout}")


def make_authority(keys: pathlib.Path, name: str) -> None:
    files = ("-keyout", keys / f"{name}.key", "-out", keys / f"{name}.pem")
    run(*NEW_CERTIFICATE, "-subj", f"/CN={name}", *files)


def make_certificate(keys: pathlib.Path, authority: str, name: str, to: pathlib.Path) -> None:
    signer = ("-CA", keys / f"{authority}.pem", "-CAkey", keys / f"{authority}.key")
    extensions = ("-addext", "subjectAltName=DNS:localhost,IP:127.0.0.1", "-addext", "basicConstraints=CA:FALSE")
    files = ("-keyout", to / f"{name}.key", "-out", to / f"{name}.pem")
    run(*NEW_CERTIFICATE, *signer, *extensions, "-subj", f"/CN={name}", *files)


class Servers:
    """All servers. The caller ends them, also after a failure of a start."""

    def __init__(self, directory: pathlib.Path) -> None:
        self.directory = directory
        self.keys = directory / "keys"
        self.port, *ports = free_ports(1 + 2 * NODES)
        self.node_ports, self._cluster_ports = ports[:NODES], ports[NODES:]
        self._database_address = f"postgresql://fleet@/postgres?host={directory}"
        self.nodes: list[Process] = []
        self.workers: list[Process] = []

    def processes(self) -> dict[str, list[Process]]:
        own = {name: [process] for name in ("nginx", "store", "database") if (process := self.__dict__.get(name))}
        return {**own, "ingest": self.workers, "stream": self.nodes}

    def end(self) -> None:
        for processes in self.processes().values():
            for process in processes:
                process.end()

    def start(self) -> None:
        """Starts all but the store, which needs the stream and the tables."""
        self.keys.mkdir()
        for authority, names in (("servers", ("nginx", "nats", "glue")), ("devices", ())):
            make_authority(self.keys, authority)
            for name in names:
                make_certificate(self.keys, authority, name, self.keys)
        self._publish_bags()
        self._start_database()
        routes = ",".join(f"nats://127.0.0.1:{port}" for port in self._cluster_ports)
        for number, ports in enumerate(zip(self.node_ports, self._cluster_ports)):
            self.nodes.append(self._node(number, *ports, routes))
        for number in range(WORKERS):
            socket = self.directory / f"ingest-{number}.socket"
            self.workers.append(self._glue(f"ingest-{number}", "ingest.py", socket, self.keys, *self.node_ports))
        self._start_nginx()

    def start_store(self) -> None:
        self.store = self._glue("store", "store.py", self._database_address, self.keys, *self.node_ports)

    async def make_stream(self, stream: jetstream.JetStream) -> bool:
        """Makes the stream and its consumer. Fails while the nodes have no leader."""
        await stream.api("STREAM.CREATE.EVENTS", STREAM)
        await stream.api("CONSUMER.DURABLE.CREATE.EVENTS.store", {"stream_name": "EVENTS", "config": CONSUMER})
        return True

    async def open_database(self) -> asyncpg.Connection:
        """Fails while PostgreSQL starts."""
        return await asyncpg.connect(self._database_address)

    async def make_tables(self) -> asyncpg.Connection:
        database = await self.open_database()
        await database.execute((HERE / "schema.sql").read_text())
        return database

    def probe(self) -> None:
        """What devices make of the bag server."""
        url = f"https://localhost:{self.port}/bags/dravik"
        public = self.directory / "framework" / "publicKey.der"
        run("telvora-bag", "probe", "--ca", self.keys / "servers.pem", "--public", public, url)

    def _publish_bags(self) -> None:
        key, bags = self.keys / "bag.pem", self.directory / "bags"
        (self.directory / "framework").mkdir()
        run("telvora-bag", "keygen", "--key", key, "--public", self.directory / "framework" / "publicKey.der")
        for share, version in (("stable", "1"), ("canary", "2")):
            (bags / share).mkdir(parents=True)
            bag = self.directory / f"{share}.json"
            bag.write_text(self._filled("bag.json", {"@VERSION@": version}))
            run("telvora-bag", "publish", "--key", key, bag, bags / share / "dravik")

    def _filled(self, name: str, more: dict[str, str] = {}) -> str:
        text = (HERE / name).read_text()
        for mark, value in {"@DIRECTORY@": str(self.directory), "@PORT@": str(self.port), **more}.items():
            text = text.replace(mark, value)
        return text

    def _start_nginx(self) -> None:
        (self.directory / "temporary").mkdir()
        (self.directory / "nginx.conf").write_text(self._filled("nginx.conf"))
        command = ("/usr/sbin/nginx", "-p", self.directory, "-c", "nginx.conf", "-e", "nginx.log")
        self.nginx = Process(self.directory / "nginx.log", *command)

    def _node(self, number: int, port: int, cluster_port: int, routes: str) -> Process:
        environment: dict[str, Any] = {
            "PORT": port,
            "CLUSTER_PORT": cluster_port,
            "STORE": self.directory / f"node-{number}",
            "CERTIFICATE": self.keys / "nats.pem",
            "KEY": self.keys / "nats.key",
            "AUTHORITY": self.keys / "servers.pem",
        }
        command = ("nats-server", "--config", HERE / "nats.conf", "--name", f"node-{number}", "--routes", routes)
        log = self.directory / f"node-{number}.log"
        return Process(log, *command, environment={name: str(value) for name, value in environment.items()})

    def _start_database(self) -> None:
        programs = max(pathlib.Path("/usr/lib/postgresql").glob("*/bin"), key=lambda path: int(path.parent.name))
        data = self.directory / "database"
        options = ("--username", "fleet", "--no-sync", "--no-locale", "--encoding", "UTF8")
        run(programs / "initdb", "--pgdata", data, *options)
        (data / "pg_hba.conf").write_text("local all all trust\n")  # the directory of the socket is private
        settings = ("--listen_addresses=", f"--unix_socket_directories={self.directory}")
        command = (programs / "postgres", "-D", data, *settings)
        self.database = Process(self.directory / "database.log", *command, stop_signal=signal.SIGINT)

    def _glue(self, name: str, program: str, *arguments: object) -> Process:
        return Process(self.directory / f"{name}.log", sys.executable, HERE / program, *arguments)
