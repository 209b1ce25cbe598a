# SPDX-License-Identifier: Apache-2.0
"""Sessions."""
from __future__ import annotations

import atexit
import enum
import itertools
import logging
import os
import time
from collections.abc import Callable, Sequence
from concurrent.futures import Future
from datetime import datetime
from types import TracebackType
from typing import Any, List, NamedTuple, Optional, Type, TypeVar
from weakref import WeakValueDictionary

from telvora._library import BackendError, Status, TelvoraError, ffi, lib, text_of
from telvora._recorder import Recorder
from telvora._values import Dictionary, Value, date, optional_value_of, python_value, text, value_of

Result = TypeVar("Result")

# A wait returns this often to the interpreter, which then handles signals such as that of Control-C.
_WAIT_SLICE_SECONDS = 0.1
# As much as the library grants at exit(3).
_EXIT_SECONDS = 0.25


class Message(NamedTuple):
    """A copy of a report of this session or of one below it in its hierarchy; see telvora_message_handler."""

    session_info: Optional[dict[str, Any]]  # of the session that sent the report
    timestamp: datetime
    category: int
    type: int
    payload: Optional[dict[str, Any]]  # merged with that session's user info

    @property
    def is_end_marker(self) -> bool:
        """Whether no more reports follow."""
        return self.session_info is None and self.payload is None and self.category == 0 and self.type == 0


class ConnectionEvent(enum.IntEnum):
    LOST = 1
    RESTORED = 2


class ConnectionChange(NamedTuple):
    """See telvora_connection_handler."""

    event: ConnectionEvent
    lost_calls: int  # since the session was made
    reason: str  # describes a loss, for people


class Session:
    """One connection to the daemon; see "Sessions" in telvora.h.

    An operation returns at once, with a future of the answer: `result(seconds)` waits for it,
    `asyncio.wrap_future()` makes it awaitable, and `add_done_callback()` has it called on the library's thread. An
    answer that is not wanted need not be taken. If the daemon is absent or the call fails otherwise, the future has a
    TelvoraError; no operation raises that. An argument that can't be sent raises TypeError, ValueError or
    OverflowError, and a file that can't be opened OSError.

    Sessions may be used by several threads. Handlers run on the library's thread, must not wait for answers, and the
    exceptions that they raise are logged by the logger "telvora". At the end of a `with` block the session waits up to
    10 seconds for its answers, and is closed. A session that is not referenced any more is closed without a wait; at
    the interpreter's exit, those that are left wait for 250 ms together.
    """

    def __init__(
        self,
        *,
        socket_path: Optional[str] = None,
        recorder: Optional[Recorder] = None,
        on_message: Optional[Callable[[Message], object]] = None,
        on_connection: Optional[Callable[[ConnectionChange], object]] = None,
    ) -> None:
        if _exiting:
            raise TelvoraError(Status.EXITING)
        self._on_message = on_message
        self._on_connection = on_connection
        number = next(_numbers)
        path = ffi.NULL if socket_path is None else ffi.new("char[]", text(socket_path))
        context = ffi.cast("void*", number)
        options = {
            "size": ffi.sizeof("telvora_session_options"),
            "socket_path": path,
            "recorder": ffi.NULL if recorder is None else recorder._recorder,
            "on_message": ffi.NULL if on_message is None else _on_message,
            "message_context": context,
            "on_connection": ffi.NULL if on_connection is None else _on_connection,
            "connection_context": context,
        }
        session = lib.telvora_session_new(ffi.new("telvora_session_options*", options))
        if session == ffi.NULL:
            raise MemoryError
        # Freed with its last reference: a thread within a call has one, too.
        self._session: Any = ffi.gc(session, lib.telvora_session_free)
        _sessions[number] = self

    def __enter__(self) -> Session:
        return self

    def __exit__(
        self, kind: Optional[Type[BaseException]], error: Optional[BaseException], trace: Optional[TracebackType]
    ) -> None:
        self.close()

    def close(self, timeout: float = 10) -> None:
        """Waits for the answers, at most `timeout` seconds, and ends the session. Raises no failure of a call."""
        try:
            self.wait(timeout)
        except (TelvoraError, TimeoutError):
            pass
        finally:
            self._session = None

    def set_info(
        self, info: Dictionary, user_info: Optional[Dictionary] = None, frameworks: Sequence[str] = ()
    ) -> Future[None]:
        """Sets the identity of the session; see session_info() and user_info()."""
        names = [ffi.new("char[]", text(name)) for name in frameworks]
        arguments = (value_of(info), optional_value_of(user_info), ffi.new("char*[]", names), len(names))
        return self._call(lib.telvora_session_set_info, *arguments)

    def start(self) -> Future[Optional[List[str]]]:
        """Configures the session. The names of the backends that report or are sampled out; None: there is no
        configuration for the client type."""
        return self._call(lib.telvora_session_start)

    def fetch_states(self, user_info: Optional[Dictionary] = None) -> Future[Optional[List[str]]]:
        """Sets new user info, or withdraws it; see telvora.h. Answers as start()."""
        return self._call(lib.telvora_session_fetch_states, optional_value_of(user_info))

    def fetch_display_url(self) -> Future[str]:
        return self._call(lib.telvora_session_fetch_display_url)

    def send(self, category: int, type: int, payload: Optional[Dictionary] = None) -> Future[Optional[str]]:
        """Sends a report. The text that a backend has posted, for people; None if the report is held."""
        return self._call(lib.telvora_session_send, category, type, optional_value_of(payload))

    def send_dictionary(self, message: Dictionary) -> Future[Optional[str]]:
        """Sends a report with the keys kTelvoraMessageParameters..., one of which is a flag."""
        return self._call(lib.telvora_session_send_dictionary, value_of(message))

    def flush(self) -> Future[Optional[str]]:
        """Makes the backends send the reports that they hold. The future has a BackendError if one failed, or, with
        the code -1, if they held no reports."""
        return self._call(lib.telvora_session_flush)

    def finish(self) -> Future[Optional[str]]:
        """Sends the finish message. Does not flush, and does not end the session."""
        return self._call(lib.telvora_session_finish)

    def upload_file(self, path: str | os.PathLike[str]) -> Future[bool]:
        """Uploads a file, which the daemon may remove then. Whether a backend uploaded it."""
        return self._call(lib.telvora_session_upload_file, os.fsencode(path), path=path)

    def upload_log_data(self, records: Sequence[Value]) -> Future[bool]:
        """Uploads log records. Whether a backend uploaded them; the future may have a BackendError."""
        return self._call(lib.telvora_session_upload_log_data, value_of(records))

    def send_single(
        self,
        info: Dictionary,
        user_info: Optional[Dictionary],
        category: int,
        type: int,
        payload: Optional[Dictionary] = None,
    ) -> Future[str]:
        """Sends one report without a configuration of the session: "finished" or "storebag not available"."""
        arguments = (value_of(info), optional_value_of(user_info), category, type, optional_value_of(payload))
        return self._call(lib.telvora_session_send_single, *arguments)

    def wait(self, timeout: Optional[float] = None) -> None:
        """Waits until all calls are answered, at most `timeout` seconds. Raises TimeoutError, or a TelvoraError for
        the first call that has failed since the last wait."""
        session = self._session
        if session is None:
            raise TelvoraError(Status.CLOSED)
        deadline = None if timeout is None else time.monotonic() + timeout
        status = Status.TIMEOUT
        while status == Status.TIMEOUT:
            rest = _WAIT_SLICE_SECONDS if deadline is None else max(deadline - time.monotonic(), 0)
            status = Status(lib.telvora_session_wait(session, int(min(rest, _WAIT_SLICE_SECONDS) * 1000)))
            if status == Status.TIMEOUT and rest == 0:
                raise TimeoutError("calls of the session have no answer yet")
        if status != Status.OK:
            raise TelvoraError(status)

    @property
    def lost_calls(self) -> int:
        """The number of calls whose answers were lost with a connection; 0 if the session is closed."""
        session = self._session
        return 0 if session is None else int(lib.telvora_session_lost_calls(session))

    def _call(self, operation: Any, *arguments: Any, path: Any = None) -> Future[Any]:
        future: Future[Any] = Future()
        future.set_running_or_notify_cancel()  # a call can't be cancelled
        session = self._session
        if session is None:
            future.set_exception(TelvoraError(Status.CLOSED))
            return future
        number = next(_numbers)
        _calls[number] = future
        try:
            status = Status(operation(session, *arguments, _on_answer, ffi.cast("void*", number)))
            if status == Status.OK:
                return future
            error = ffi.errno
        except BaseException:  # an argument that cffi does not convert
            del _calls[number]
            raise
        del _calls[number]
        if status == Status.INVALID:
            raise ValueError(text_of(lib.telvora_status_text(status)))
        if status == Status.FILE:
            raise OSError(error, os.strerror(error), os.fspath(path))
        future.set_exception(TelvoraError(status))
        return future


# Contexts of callbacks are numbers, so that a late callback finds no object instead of a freed one.
_numbers = itertools.count(1)
_calls: dict[int, Future[Any]] = {}
_sessions: WeakValueDictionary[int, Session] = WeakValueDictionary()
_exiting = False


def _log_exception(kind: Type[BaseException], error: BaseException, trace: TracebackType) -> None:
    logging.getLogger("telvora").error("A handler of a session raised an exception", exc_info=(kind, error, trace))


def _number(context: Any) -> int:
    return int(ffi.cast("uintptr_t", context))


# cffi lets no exception of these functions leave into C.


@ffi.callback("telvora_completion", onerror=_log_exception)  # type: ignore[misc]
def _on_answer(context: Any, answer: Any) -> None:
    future = _calls.pop(_number(context))
    try:
        future.set_result(_result(answer))
    except Exception as error:
        future.set_exception(error)


def _result(answer: Any) -> Any:
    status = Status(lib.telvora_answer_status(answer))
    if status != Status.OK:
        raise TelvoraError(status, text_of(lib.telvora_answer_message(answer)))
    domain, code, description = ffi.new("char const**"), ffi.new("int32_t*"), ffi.new("char const**")
    if lib.telvora_answer_error(answer, domain, code, description):
        raise BackendError(text_of(domain[0]), code[0], text_of(description[0]))
    return python_value(lib.telvora_answer_value(answer))


@ffi.callback("telvora_message_handler", onerror=_log_exception)  # type: ignore[misc]
def _on_message(context: Any, info: Any, timestamp: float, category: int, type: int, payload: Any) -> None:
    session = _sessions.get(_number(context))
    if session is not None and session._on_message is not None:
        session._on_message(Message(python_value(info), date(timestamp), category, type, python_value(payload)))


@ffi.callback("telvora_connection_handler", onerror=_log_exception)  # type: ignore[misc]
def _on_connection(context: Any, event: int, lost_calls: int, reason: Any) -> None:
    session = _sessions.get(_number(context))
    if session is not None and session._on_connection is not None:
        session._on_connection(ConnectionChange(ConnectionEvent(event), lost_calls, text_of(reason)))


# The library's thread must not call into an interpreter that ends.
@atexit.register
def _close_all() -> None:
    global _exiting
    _exiting = True
    deadline = time.monotonic() + _EXIT_SECONDS
    for session in list(_sessions.values()):
        session.close(max(deadline - time.monotonic(), 0))
