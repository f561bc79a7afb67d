"""Reads the statistics of transaction gateways.

    import zebstats

    with zebstats.connect("gw:2980", timeout=5) as gateway:
        for stat in gateway.stats(groups=["LINK"]):
            print(stat.id, stat.value, stat.number)

Everything that a call returns is a copy in plain Python objects, which nothing invalidates. A
failure of the gateway or the library is a zebstats.Error. A gateway belongs to the thread that
connected it: each thread connects its own, and any thread may close it. The protocol is clear text
without credentials: use it only on networks that are trusted.
"""

import os
from typing import Optional, Union

from . import _library, codes
from ._gateway import DEFAULT_PORT, DEFAULT_TIMEOUT, Gateway, Stat, connect
from ._library import describe, library_version
from .errors import (
    Answer,
    ArgumentError,
    ClosedError,
    ConnectError,
    ConnectionLostError,
    Error,
    QueryError,
    Refusal,
    RefusedError,
    TimeoutError,
    WrongProcessError,
    WrongThreadError,
    make_error,
)

__version__ = "1.3.0"

__all__ = [
    "DEFAULT_PORT",
    "DEFAULT_TIMEOUT",
    "Answer",
    "ArgumentError",
    "ClosedError",
    "ConnectError",
    "ConnectionLostError",
    "Error",
    "Gateway",
    "QueryError",
    "Refusal",
    "RefusedError",
    "Stat",
    "TimeoutError",
    "WrongProcessError",
    "WrongThreadError",
    "codes",
    "connect",
    "describe",
    "library_version",
    "set_trace",
]


def set_trace(level: int, path: Union[None, str, "os.PathLike[str]"] = None) -> None:
    """Sets the library's trace level, from 0 (nothing) to 5, and its destination: the trace is
    appended to the file; None is standard error. Raises ArgumentError if the level is out of range
    or the file cannot be opened."""
    if not 0 <= level <= 5:
        raise make_error(codes.ZEB_TRACE_LEVEL_INVALID, f"trace level {level}")
    name = None if path is None else os.fsencode(path)
    if level == 0:  # before the destination changes: a trace that is on writes a first line to it
        _library.set_trace_level(0)
    # At a NUL the library would take the name to end, and open another file.
    if (name and b"\0" in name) or _library.set_trace_file(name) != codes.ZEB_OK:
        raise make_error(codes.ZEB_TRACE_FILE_FAILED, ascii(path))
    _library.set_trace_level(level)
