# SPDX-License-Identifier: Apache-2.0
"""Processes that the example starts, kills and ends, and the processor time that they take."""
from __future__ import annotations

import os
import pathlib
import signal
import socket
import subprocess
from collections.abc import Mapping
from typing import Optional

CLOCK_TICKS = os.sysconf("SC_CLK_TCK")


class Process:
    """A program with its descendants, in a process group of its own. Its output goes to LOG."""

    def __init__(
        self,
        log: pathlib.Path,
        *arguments: object,
        environment: Mapping[str, str] = {},
        stop_signal: int = signal.SIGTERM,
    ) -> None:
        self._log = log
        self._arguments = [str(argument) for argument in arguments]
        self._stop_signal = stop_signal
        self._environment = {**os.environ, **environment}
        self._child: Optional[subprocess.Popen[bytes]] = None
        self.start()

    def start(self) -> None:
        with self._log.open("ab") as log:
            self._child = subprocess.Popen(
                self._arguments,
                env=self._environment,
                process_group=0,
                stdin=subprocess.DEVNULL,
                stdout=log,
                stderr=log,
            )

    @property
    def has_ended(self) -> bool:
        return self._child is None or self._child.poll() is not None

    def kill(self) -> None:
        """Ends the group without notice (SIGKILL)."""
        self.send(signal.SIGKILL)
        self.wait()

    def interrupt(self) -> None:
        if self._child is not None and not self.has_ended:
            self._child.send_signal(self._stop_signal)

    def wait(self, seconds: float = 120) -> int:
        assert self._child is not None
        return self._child.wait(seconds)

    def end(self) -> None:
        """Ends the group, with notice if it heeds that."""
        self.interrupt()
        try:
            self.wait(10)
        except subprocess.TimeoutExpired:
            pass
        self.kill()

    def seconds(self) -> float:
        """Processor time of the program and its descendants."""
        assert self._child is not None
        return _seconds_of(self._child.pid, _children())

    def send(self, number: int) -> None:
        """Signals the group."""
        assert self._child is not None
        try:
            os.killpg(self._child.pid, number)
        except ProcessLookupError:
            pass


def _stat(process: int) -> list[str]:
    """The fields of /proc/PID/stat from the state on; empty if the process has ended."""
    try:
        return pathlib.Path(f"/proc/{process}/stat").read_text().rpartition(")")[2].split()
    except OSError:
        return []


def _children() -> dict[int, list[int]]:
    children: dict[int, list[int]] = {}
    for entry in pathlib.Path("/proc").iterdir():
        if entry.name.isdigit() and (fields := _stat(int(entry.name))):
            children.setdefault(int(fields[1]), []).append(int(entry.name))
    return children


def _seconds_of(process: int, children: Mapping[int, list[int]]) -> float:
    fields = _stat(process)
    own = sum(map(int, fields[11:15])) / CLOCK_TICKS  # with the children that it has waited for
    return own + sum(_seconds_of(child, children) for child in children.get(process, []))


def free_ports(number: int) -> list[int]:
    """Ports of 127.0.0.1 on which no process listens."""
    sockets = [socket.create_server(("127.0.0.1", 0)) for _ in range(number)]
    ports = [one.getsockname()[1] for one in sockets]
    for one in sockets:
        one.close()
    return ports
