# SPDX-License-Identifier: Apache-2.0
"""Python's values and those of telvora.h."""
from __future__ import annotations

from collections.abc import Mapping, Sequence
from datetime import datetime, timedelta, timezone
from typing import Any, Dict, Optional, Union

from telvora import keys
from telvora._library import Status, TelvoraError, ffi, lib

# A value of a report. A datetime without a time zone is local time.
Value = Union[bool, int, float, str, bytes, bytearray, memoryview, datetime, "Sequence[Value]", "Mapping[str, Value]"]
Dictionary = Mapping[str, Value]

_EPOCH = datetime(1970, 1, 1, tzinfo=timezone.utc)
_MOST_LEVELS = 16


def session_info(
    client_type: int,
    session_id: int,
    *,
    require_user_info: bool = True,
    batch: bool = False,
    client_version: Optional[int] = None,
    hierarchy: Optional[str] = None,
    level: int = 0,
) -> Dict[str, Value]:
    """The dictionary that describes a session.

    `client_type` selects the configuration. With `require_user_info` false, THE USER'S CONSENT IS NOT ASKED, and the
    configuration's conditions and filters are not applied: see the key's description in telvora/keys.h. With `batch`,
    reports are held until a flush. `hierarchy` is the token of the session's hierarchy; `level` is 0 at the top.
    """
    info: Dict[str, Value] = {
        keys.kTelvoraSessionInfoClientType: client_type,
        keys.kTelvoraSessionInfoSessionID: session_id,
        keys.kTelvoraSessionInfoRequireUserInfo: require_user_info,
        keys.kTelvoraSessionInfoBatchEvent: batch,
    }
    if client_version is not None:
        info[keys.kTelvoraSessionInfoClientVersion] = client_version
    if hierarchy is not None:
        token: Dict[str, Value] = {keys.kTelvoraHierarchyTokenTokenID: hierarchy, keys.kTelvoraHierarchyTokenLevel: level}
        info[keys.kTelvoraSessionInfoHierarchyToken] = token
    return info


def user_info(client_name: Optional[str] = None, service_name: Optional[str] = None) -> Dict[str, Value]:
    """The dictionary of the names by which a configuration selects an entry."""
    names = {keys.kTelvoraUserInfoClientName: client_name, keys.kTelvoraUserInfoServiceName: service_name}
    return {key: name for key, name in names.items() if name is not None}


def child_info(info: Dictionary, session_id: int) -> Optional[Dict[str, Any]]:
    """A copy of a session info for a session one level below; None if `info` has no hierarchy."""
    child = lib.telvora_child_info(value_of(info), session_id)
    return None if child == ffi.NULL else dict(python_value(owned(child)))


def owned(value: Any) -> Any:
    """Takes over a value that a function of telvora.h has made."""
    if value == ffi.NULL:
        raise MemoryError
    return ffi.gc(value, lib.telvora_value_free)


def text(content: str) -> bytes:
    encoded = content.encode()
    if b"\0" in encoded:
        raise ValueError("a text contains a zero byte")
    return encoded


def value_of(container: Union[Dictionary, Sequence[Value]], levels: int = _MOST_LEVELS) -> Any:
    """A dictionary or array of telvora.h with this content. Raises TypeError, ValueError or OverflowError."""
    if levels == 0:
        raise ValueError(f"more than {_MOST_LEVELS} levels of containers")
    if isinstance(container, Mapping):
        value = owned(lib.telvora_dictionary_new())
        for key, entry in container.items():
            _put(value, text(key), entry, levels)
        return value
    value = owned(lib.telvora_array_new())
    for element in container:
        _put(value, ffi.NULL, element, levels)
    return value


def optional_value_of(container: Optional[Dictionary]) -> Any:
    return ffi.NULL if container is None else value_of(container)


def _put(container: Any, key: Any, value: Value, levels: int) -> None:
    if isinstance(value, bool):
        status = lib.telvora_set_bool(container, key, value)
    elif isinstance(value, int):
        status = lib.telvora_set_int(container, key, value)
    elif isinstance(value, float):
        status = lib.telvora_set_double(container, key, value)
    elif isinstance(value, str):
        status = lib.telvora_set_string(container, key, text(value))
    elif isinstance(value, (bytes, bytearray, memoryview)):
        data = bytes(value)
        status = lib.telvora_set_data(container, key, data, len(data))
    elif isinstance(value, datetime):
        status = lib.telvora_set_date(container, key, value.timestamp())
    elif isinstance(value, (Mapping, Sequence)):
        status = lib.telvora_set_value(container, key, value_of(value, levels - 1))
    else:
        raise TypeError(f"a report can't contain a value of the type {type(value).__name__}")
    if status != Status.OK:
        raise TelvoraError(Status(status))


def python_value(value: Any) -> Any:
    """The content of a value of telvora.h; None for NULL. Dates are in UTC."""
    if value == ffi.NULL:
        return None
    kind = lib.telvora_value_type(value)
    count = lib.telvora_value_count(value)
    if kind == lib.TELVORA_TYPE_BOOL:
        return bool(lib.telvora_value_bool(value))
    if kind == lib.TELVORA_TYPE_INT:
        return int(lib.telvora_value_int(value))
    if kind == lib.TELVORA_TYPE_DOUBLE:
        return float(lib.telvora_value_double(value))
    if kind == lib.TELVORA_TYPE_STRING:
        return bytes(ffi.buffer(lib.telvora_value_string(value), count)).decode(errors="replace")
    if kind == lib.TELVORA_TYPE_DATA:
        return bytes(ffi.buffer(lib.telvora_value_data(value, ffi.NULL), count)) if count else b""
    if kind == lib.TELVORA_TYPE_DATE:
        return date(lib.telvora_value_double(value))
    elements = [python_value(lib.telvora_value_at(value, index)) for index in range(count)]
    if kind == lib.TELVORA_TYPE_ARRAY:
        return elements
    names = [ffi.string(lib.telvora_value_key_at(value, index)).decode(errors="replace") for index in range(count)]
    return dict(zip(names, elements))


def date(seconds: float) -> datetime:
    """A time in seconds since 1970, UTC. One beyond datetime's range is the nearest that it has."""
    try:
        return _EPOCH + timedelta(seconds=seconds)
    except (OverflowError, ValueError):
        return (datetime.max if seconds > 0 else datetime.min).replace(tzinfo=timezone.utc)
