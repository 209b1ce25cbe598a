# SPDX-License-Identifier: Apache-2.0
"""Tests without a daemon."""
from __future__ import annotations

from typing import Any, Dict, List, Optional

from telvora._library import Status, TelvoraError, ffi, lib
from telvora._values import Dictionary, Value, optional_value_of, owned, python_value, text, value_of


class Recorder:
    """Replaces the daemon in the tests of a program; see "Recorders" in telvora.h.

    Stores the calls of the sessions that were made with it, and answers them.
    """

    def __init__(self) -> None:
        recorder = lib.telvora_recorder_new()
        if recorder == ffi.NULL:
            raise MemoryError
        self._recorder = ffi.gc(recorder, lib.telvora_recorder_free)

    def answer(
        self, operation: Optional[str], status: Status = Status.OK, value: Optional[Value] = None
    ) -> None:
        """Sets the answer to later calls of an operation, or of all operations if `operation` is None."""
        name = ffi.NULL if operation is None else text(operation)
        holder = value_of([] if value is None else [value])
        self._check(lib.telvora_recorder_answer(self._recorder, name, status, lib.telvora_value_at(holder, 0)))

    def deliver(
        self,
        category: int,
        type: int,
        payload: Optional[Dictionary] = None,
        session_info: Optional[Dictionary] = None,
        timestamp: float = 0,
    ) -> None:
        """Delivers a message to the handlers of the sessions. `timestamp` is in seconds since 1970."""
        info, content = optional_value_of(session_info), optional_value_of(payload)
        self._check(lib.telvora_recorder_deliver(self._recorder, info, timestamp, category, type, content))

    @property
    def calls(self) -> List[Dict[str, Any]]:
        """The stored calls, in the form that telvora.h describes."""
        count = lib.telvora_recorder_count(self._recorder)
        copies = (lib.telvora_recorder_call_copy(self._recorder, index) for index in range(count))
        return [python_value(owned(copy)) for copy in copies]

    def clear(self) -> None:
        """Removes all stored calls."""
        lib.telvora_recorder_clear(self._recorder)

    @staticmethod
    def _check(status: int) -> None:
        if status != Status.OK:
            raise TelvoraError(Status(status))
