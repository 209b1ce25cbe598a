# SPDX-License-Identifier: Apache-2.0
"""libtelvora, and its failures."""
from __future__ import annotations

import enum
from typing import Any

from telvora import _interface

ffi: Any = _interface.ffi
# The soname, whose symbols keep their meaning. The dynamic linker finds the file.
lib: Any = ffi.dlopen("libtelvora.so.1")


class Status(enum.IntEnum):
    """The result of an operation: telvora_status of telvora.h, which describes each."""

    OK = 0
    INVALID = 1
    UNAVAILABLE = 2
    LOST = 3
    BUSY = 4
    REFUSED = 5
    FILE = 6
    RESOURCES = 7
    FORKED = 8
    EXITING = 9
    TIMEOUT = 10
    CLOSED = 11


class TelvoraError(Exception):
    """A call that was not sent, not answered, or answered with an error."""

    def __init__(self, status: Status, message: str = "") -> None:
        super().__init__(message or text_of(lib.telvora_status_text(status)))
        self.status = status


class BackendError(TelvoraError):
    """The error of a backend in the answer to a flush or an upload of log data."""

    def __init__(self, domain: str, code: int, description: str) -> None:
        super().__init__(Status.OK, f"{description} ({domain} {code})")
        self.domain = domain
        self.code = code  # -1: a condition in the daemon, such as "Nothing to flush"; else the server's HTTP status
        self.description = description


def text_of(text: Any) -> str:
    """The text at a pointer that is not NULL."""
    content: bytes = ffi.string(text)
    return content.decode(errors="replace")


def version() -> str:
    """The version of libtelvora."""
    return text_of(lib.telvora_version())
