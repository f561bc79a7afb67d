"""Reads the statistics of transaction gateways.

    import zebstats

    with zebstats.connect("gw:2980", timeout=5) as gateway:
        for stat in gateway.stats(groups=["LINK"]):
            print(stat.id, stat.value, stat.number)

Everything that a call returns is a copy in plain Python objects, which nothing invalidates. All
failures are zebstats.Error. The protocol is clear text without credentials: use it only on networks
that are trusted.
"""

from typing import Optional

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
    "codes",
    "connect",
    "describe",
    "library_version",
    "set_trace",
]


def set_trace(level: int, path: Optional[str] = None) -> None:
    """Sets the library's trace level, from 0 (nothing) to 5, and its destination: the file is
    appended to; None is standard error."""
    rc = _library.set_trace_file(None if path is None else path.encode())
    if rc == codes.ZEB_OK:
        rc = _library.set_trace_level(level)
    if rc != codes.ZEB_OK:
        raise make_error(rc, path or "trace")
