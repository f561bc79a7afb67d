"""Loads libzebstats.so.1 and declares its calls.

Calls that can wait for a gateway or a lock go through `waiting`, which lets other Python threads
run meanwhile. The others go through `quick`, which keeps the interpreter's lock: giving it up and
taking it back for each entry of an answer would cost more than reading the entry, and a busy
thread could delay every single step.
"""

import ctypes
import os
from typing import Any, Tuple, Type, TypeVar

_NAME = "libzebstats.so.1"

Loader = TypeVar("Loader", bound=ctypes.CDLL)


def _load(loader: Type[Loader]) -> Loader:
    path = os.environ.get("ZEBSTATS_LIBRARY") or _NAME
    try:
        return loader(path)
    except OSError as failure:
        raise ImportError(
            f"the zebstats library cannot be loaded ({failure}); install the package libzebstats1, "
            f"or set the environment variable ZEBSTATS_LIBRARY to the path of {_NAME}",
            name="zebstats",
            path=path,
        ) from None


waiting = _load(ctypes.CDLL)
quick = _load(ctypes.PyDLL)
_libc = ctypes.CDLL(None)


class StatData(ctypes.Structure):
    """One statistic. The texts lie in the answer and are not NUL-terminated."""

    _fields_ = [
        ("contentMarker", ctypes.c_char * 8),
        ("queryElementPtr", ctypes.c_void_p),
        ("queryElementLen", ctypes.c_int),
        ("queryElementRC", ctypes.c_int),
        ("statIdLen", ctypes.c_int),
        ("statIdPtr", ctypes.c_void_p),
        ("statValueLen", ctypes.c_int),
        ("statValuePtr", ctypes.c_void_p),
    ]


class IdData(ctypes.Structure):
    """One statistic id or resource group id."""

    _fields_ = [
        ("contentMarker", ctypes.c_char * 8),
        ("queryElementPtr", ctypes.c_void_p),
        ("queryElementLen", ctypes.c_int),
        ("queryElementRC", ctypes.c_int),
        ("idLen", ctypes.c_int),
        ("idPtr", ctypes.c_void_p),
    ]


def _declare(library: ctypes.CDLL, name: str, *arguments: Any, result: Any = ctypes.c_int) -> Any:
    try:
        call = getattr(library, name)
    except AttributeError:
        raise ImportError(
            f"{library._name} has no {name}(); install libzebstats1, version 1.2.0 or later",
            name="zebstats",
            path=library._name,
        ) from None
    call.argtypes = arguments
    call.restype = result
    return call


_pointer = ctypes.c_void_p
_text = ctypes.c_char_p

open_connection = _declare(
    waiting, "openRemoteGatewayConnection", _text, ctypes.c_int, _pointer, _pointer
)
close_connection = _declare(waiting, "closeGatewayConnection", _pointer)

get_stats = _declare(waiting, "getStats", _pointer, _pointer)
get_stats_by_id = _declare(waiting, "getStatsByStatId", _pointer, _text, _pointer)
get_stats_by_group = _declare(waiting, "getStatsByStatGroupId", _pointer, _text, _pointer)
get_ids = _declare(waiting, "getStatIds", _pointer, _pointer)
get_ids_by_group = _declare(waiting, "getStatIdsByStatGroupId", _pointer, _text, _pointer)
get_groups = _declare(waiting, "getResourceGroupIds", _pointer, _pointer)

first_stat = _declare(quick, "getFirstStat", _pointer, _pointer)
next_stat = _declare(quick, "getNextStat", _pointer, _pointer)
first_id = _declare(quick, "getFirstId", _pointer, _pointer)
next_id = _declare(quick, "getNextId", _pointer, _pointer)

set_timeout = _declare(quick, "setAPITimeout", ctypes.c_int)
set_trace_level = _declare(quick, "setAPITraceLevel", ctypes.c_int)
set_trace_file = _declare(quick, "setAPITraceFile", _text)
_code_text = _declare(quick, "getAPICodeText", ctypes.c_int, result=_text)
_version = _declare(quick, "getStatsAPIVersion", _pointer)
_free = _libc.free
_free.argtypes = (_pointer,)
_free.restype = None


def describe(code: int) -> str:
    """Returns the English text of a code, without a full stop."""
    text: bytes = _code_text(code)
    return text.decode()


def library_version() -> str:
    """Returns the version of the interface that the loaded library has, like 1_1_0_1."""
    version = ctypes.c_char_p()
    _version(ctypes.byref(version))
    return (version.value or b"").decode()


def open_gateway(host: str, port: int) -> Tuple[int, int, bytes]:
    """Opens a connection; returns the code, the token and the gateway's protocol version."""
    token, version = _pointer(), _pointer()
    rc: int = open_connection(host.encode(), port, ctypes.byref(token), ctypes.byref(version))
    text = ctypes.string_at(version.value) if version.value else b""
    _free(version)
    return rc, token.value or 0, text


def close_gateway(token: int) -> None:
    """Closes a connection. That it is closed already is no failure."""
    close_connection(ctypes.byref(_pointer(token)))
