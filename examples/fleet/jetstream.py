# SPDX-License-Identifier: Apache-2.0
"""A client of NATS JetStream, as small as the ingest and the store need it (Debian has no client for Python).

The protocol: https://docs.nats.io/reference/reference-protocols/nats-protocol
"""
from __future__ import annotations

import asyncio
import contextlib
import itertools
import json
import os
import random
import secrets
import ssl
from collections.abc import AsyncIterator, Mapping, Sequence
from typing import Any, NamedTuple, Optional

OPTIONS = {"verbose": False, "pedantic": False, "tls_required": True, "headers": True, "no_responders": True}
PULLED = ".pulled.messages"
SILENCE = 15  # seconds after which a server counts as lost; more than ping_interval of nats.conf


class Message(NamedTuple):
    reply: str  # the subject of the acknowledgement
    header: bytes
    body: bytes

    @property
    def status(self) -> bytes:
        """The server's code if this is its own answer, such as 503 for a stream without a leader; else empty."""
        line = self.header.partition(b"\r\n")[0]
        return line.removeprefix(b"NATS/1.0").strip()

    def field(self, name: str) -> str:
        lines = self.header.decode().split("\r\n")
        return next((line[len(name) + 1 :].strip() for line in lines if line.startswith(name + ":")), "")


def context(directory: str | os.PathLike[str], name: str) -> ssl.SSLContext:
    """TLS with the servers' authority and the certificate `name` in this directory."""
    tls = ssl.create_default_context(cafile=f"{directory}/servers.pem")
    tls.load_cert_chain(f"{directory}/{name}.pem", f"{directory}/{name}.key")
    return tls


class JetStream:
    """A connection to one of the servers at these ports. All operations raise ConnectionError or TimeoutError."""

    def __init__(self, ports: Sequence[int], tls: ssl.SSLContext) -> None:
        self._ports = random.sample(ports, len(ports))
        self._tls = tls
        self._inbox = "_INBOX." + secrets.token_hex(8)
        self._numbers = itertools.count()
        # By inbox. The messages of fetch() come with the stream's subject, by a subscription of their own.
        self._answers: dict[str, asyncio.Queue[Optional[Message]]] = {PULLED: asyncio.Queue()}
        self._writer: Optional[asyncio.StreamWriter] = None
        self._task = asyncio.create_task(self._run())

    async def api(self, operation: str, request: Mapping[str, Any] = {}, seconds: float = 5) -> dict[str, Any]:
        """Calls $JS.API.`operation`."""
        return self._answer(await self._request(f"$JS.API.{operation}", json.dumps(request).encode(), {}, seconds))

    async def publish(self, subject: str, body: bytes, headers: Mapping[str, str], seconds: float = 5) -> None:
        """Returns when a quorum of the stream's replicas has the message."""
        if self._answer(await self._request(subject, body, headers, seconds)).get("seq", 0) == 0:
            raise ConnectionError("not committed")

    async def fetch(self, stream: str, consumer: str, most: int, seconds: float) -> list[Message]:
        """Waits for messages, which the caller acknowledges. One call at a time."""
        messages: list[Message] = []
        request = {"batch": most, "expires": int(seconds * 1e9)}
        self._send(f"$JS.API.CONSUMER.MSG.NEXT.{stream}.{consumer}", json.dumps(request).encode(), self._inbox + PULLED)
        while len(messages) < most:
            message = await self._next(self._answers[PULLED], seconds + 1)
            if message.status:  # there are no more, or the consumer has no leader
                break
            messages.append(message)
        return messages

    def acknowledge(self, message: Message) -> None:
        self._send(message.reply, b"+ACK")

    async def _request(self, subject: str, body: bytes, headers: Mapping[str, str], seconds: float) -> Message:
        async with self._answers_to() as (inbox, answers):
            self._send(subject, body, inbox, headers)
            return await self._next(answers, seconds)

    @staticmethod
    def _answer(message: Message) -> dict[str, Any]:
        answer = json.loads(message.body or b"{}")
        if message.status or "error" in answer:
            raise ConnectionError(message.status.decode() or answer["error"]["description"])
        return dict(answer)

    @contextlib.asynccontextmanager
    async def _answers_to(self) -> AsyncIterator[tuple[str, asyncio.Queue[Optional[Message]]]]:
        inbox = f"{self._inbox}.{next(self._numbers)}"
        answers = self._answers[inbox] = asyncio.Queue()
        try:
            yield inbox, answers
        finally:
            del self._answers[inbox]

    @staticmethod
    async def _next(answers: asyncio.Queue[Optional[Message]], seconds: float) -> Message:
        message = await asyncio.wait_for(answers.get(), seconds)
        if message is None:
            raise ConnectionError("the connection has ended")
        return message

    def _send(self, subject: str, body: bytes, reply: str = "", headers: Mapping[str, str] = {}) -> None:
        if self._writer is None:
            raise ConnectionError("no server")
        lines = "".join(f"{name}: {value}\r\n" for name, value in headers.items())
        header = f"NATS/1.0\r\n{lines}\r\n".encode() if headers else b""
        sizes = f"{len(header)} {len(header) + len(body)}" if headers else str(len(body))
        verb = "HPUB" if headers else "PUB"
        self._writer.write(f"{verb} {subject} {reply} {sizes}\r\n".encode() + header + body + b"\r\n")

    async def _run(self) -> None:
        for port in itertools.cycle(self._ports):
            with contextlib.suppress(OSError, EOFError, ValueError):
                await self._serve(port)
            self._writer = None
            for answers in self._answers.values():
                answers.put_nowait(None)
            await asyncio.sleep(0.2)

    async def _serve(self, port: int) -> None:
        async with asyncio.timeout(SILENCE):
            reader, writer = await asyncio.open_connection("127.0.0.1", port)
        with contextlib.closing(writer):
            async with asyncio.timeout(SILENCE):
                await reader.readline()  # INFO
                await writer.start_tls(self._tls, server_hostname="localhost")
            writer.write(f"CONNECT {json.dumps(OPTIONS)}\r\nSUB {self._inbox}.* 1\r\n".encode())
            writer.write(f"SUB {self._inbox}{PULLED} 2\r\nPING\r\n".encode())
            while line := await self._line(reader):
                verb, *words = line.decode().split()
                if verb == "PING":
                    writer.write(b"PONG\r\n")
                elif verb == "PONG":  # the answer to the first PING: the subscriptions count
                    self._writer = writer
                elif verb in ("MSG", "HMSG"):
                    await self._deliver(reader, words, has_header=verb == "HMSG")

    @staticmethod
    async def _line(reader: asyncio.StreamReader) -> bytes:
        async with asyncio.timeout(SILENCE):
            return await reader.readline()

    async def _deliver(self, reader: asyncio.StreamReader, words: list[str], has_header: bool) -> None:
        subject, subscription, *reply_and_sizes = words
        header = int(words[-2]) if has_header else 0
        reply = reply_and_sizes[0] if len(reply_and_sizes) > 1 + has_header else ""
        content = (await reader.readexactly(int(words[-1]) + 2))[:-2]
        if answers := self._answers.get(subject if subscription == "1" else PULLED):
            answers.put_nowait(Message(reply, content[:header], content[header:]))
