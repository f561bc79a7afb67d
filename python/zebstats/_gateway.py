"""Gateways: connecting, asking, and reading answers into Python objects."""

import ctypes
import functools
import re
import socket
import time
import warnings
from types import TracebackType
from typing import (
    Any,
    Callable,
    Iterable,
    List,
    NamedTuple,
    NoReturn,
    Optional,
    Tuple,
    Type,
    TypeVar,
    Union,
)

from . import _library, codes
from ._library import IdData, StatData
from ._session import Session
from ._text import decode, encode, parse_float, parse_integer
from .errors import (
    Answer,
    ArgumentError,
    ConnectError,
    Error,
    QueryError,
    Refusal,
    RefusedError,
    TimeoutError,
    make_error,
)

DEFAULT_PORT = 2980
DEFAULT_TIMEOUT = 10.0

T = TypeVar("T")
Names = Union[None, str, bytes, Iterable[Union[str, bytes]]]
_Query = Callable[..., int]

_ADDRESS = re.compile(
    r"(?:\[([^\[\]]+)\]|([^\[\]:]+))(?::([0-9]{1,5}))?"  # [IPV6] or HOST, maybe with a port
    r"|([^\[\]:]*:[^\[\]]*:[^\[\]]*)"  # IPV6
)


class Stat(NamedTuple):
    """One statistic: plain Python values, valid for ever."""

    id: str
    value: str
    element: str  # the id or group that was asked for; empty if everything was
    raw: bytes  # the bytes of the value; they differ from it only if they are not text

    @property
    def number(self) -> Union[int, float, None]:
        """The value as int, or else as float; None if it is no finite decimal number."""
        integer = parse_integer(self.value)
        return parse_float(self.value) if integer is None else integer

    def as_int(self) -> int:
        """Returns the value as int; raises ValueError unless it is an integer."""
        number = parse_integer(self.value)
        if number is None:
            raise ValueError(f"{self.id!r} is not an integer: {self.value!r}")
        return number

    def as_float(self) -> float:
        """Returns the value as float; raises ValueError unless it is a finite number."""
        number = parse_float(self.value)
        if number is None:
            raise ValueError(f"{self.id!r} is not a number: {self.value!r}")
        return number


# ---- Reading answers ----------------------------------------------------------------------------


class _StatWalk:
    """Copies the statistics of answers."""

    def __init__(self) -> None:
        self.entries: List[Stat] = []
        self.refused: List[Refusal] = []

    def read(self, answer: ctypes.c_void_p, element: Optional[str]) -> int:
        """Walks the answer. Its entries get the element if one is given, otherwise their own.
        Returns the code that ended the walk; ZEB_OK is its normal end."""
        data = StatData()
        record = ctypes.byref(data)
        string_at, next_stat, add = ctypes.string_at, _library.next_stat, self.entries.append
        known, name = None, ""
        rc: int = _library.first_stat(answer, record)
        while rc == codes.ZEB_OK:
            if data.queryElementPtr != known:  # all entries of an element share its text
                known = data.queryElementPtr
                name = decode(string_at(known, data.queryElementLen))
            if data.queryElementRC < 0:
                self.refused.append(Refusal(name, data.queryElementRC))
            else:
                raw = string_at(data.statValuePtr, data.statValueLen)
                id = decode(string_at(data.statIdPtr, data.statIdLen))
                add(Stat(id, decode(raw), name if element is None else element, raw))
            rc = next_stat(answer, record)
        return codes.ZEB_OK if rc == codes.ZEB_END_OF_RESULTS else rc


class _IdWalk:
    """Copies the ids of answers, as bytes: they may be asked for, and need not be text."""

    def __init__(self) -> None:
        self.entries: List[bytes] = []
        self.refused: List[Refusal] = []

    def read(self, answer: ctypes.c_void_p, element: Optional[str]) -> int:
        data = IdData()
        record = ctypes.byref(data)
        rc: int = _library.first_id(answer, record)
        while rc == codes.ZEB_OK:
            if data.queryElementRC < 0:
                name = decode(ctypes.string_at(data.queryElementPtr, data.queryElementLen))
                self.refused.append(Refusal(name, data.queryElementRC))
            else:
                self.entries.append(ctypes.string_at(data.idPtr, data.idLen))
            rc = _library.next_id(answer, record)
        return codes.ZEB_OK if rc == codes.ZEB_END_OF_RESULTS else rc


_Walk = Union[_StatWalk, _IdWalk]


class _Questions:
    """What is asked of a gateway. All of it runs in the thread that owns the connection.

    An answer has a maximum size. A query that exceeds it is split: everything into groups, several
    elements into halves, and a single group into the ids of its statistics.
    """

    def __init__(self, session: Session) -> None:
        self._session = session

    def groups(self) -> _IdWalk:
        walk = _IdWalk()
        if not self._ask(_library.get_groups, None, walk, None):
            raise self._too_large("the groups")
        return walk

    def ids(self, groups: Optional[List[bytes]]) -> _IdWalk:
        walk = _IdWalk()
        self._collect(_library.get_ids, _library.get_ids_by_group, groups, walk)
        return walk

    def stats(self, groups: Optional[List[bytes]]) -> _StatWalk:
        walk = _StatWalk()
        self._collect(_library.get_stats, _library.get_stats_by_group, groups, walk)
        return walk

    def stats_by_id(self, ids: List[bytes]) -> _StatWalk:
        walk = _StatWalk()
        self._collect_elements(_library.get_stats_by_id, ids, walk, None)
        return walk

    def _collect(
        self, all_query: _Query, group_query: _Query, groups: Optional[List[bytes]], walk: _Walk
    ) -> None:
        if groups is not None:
            self._collect_elements(group_query, groups, walk, None)
        elif not self._ask(all_query, None, walk, None):
            self._collect_parts(group_query, self.groups(), walk, "", "everything")

    def _collect_elements(
        self, query: _Query, elements: List[bytes], walk: _Walk, element: Optional[str]
    ) -> None:
        # The library would take the query to end at a NUL, which has two bytes on the wire.
        text = b":".join(elements).replace(b"\0", b"\xc0\x80")
        if not elements or self._ask(query, text, walk, element):
            return
        if len(elements) > 1:
            half = len(elements) // 2
            self._collect_elements(query, elements[:half], walk, element)
            self._collect_elements(query, elements[half:], walk, element)
            return
        what = repr(decode(elements[0]))
        if query is not _library.get_stats_by_group:
            raise self._too_large(what)
        name = decode(elements[0]) if element is None else element
        self._collect_parts(_library.get_stats_by_id, self.ids(elements), walk, name, what)

    def _collect_parts(
        self, query: _Query, parts: _IdWalk, walk: _Walk, element: str, what: str
    ) -> None:
        """Asks for the parts of what is too large."""
        if not parts.entries and not parts.refused:
            raise self._too_large(what)  # an empty answer would be wrong
        walk.refused += parts.refused
        self._collect_elements(query, parts.entries, walk, element)

    def _too_large(self, what: str) -> Error:
        reason = f"{self._session.what}: the answer with {what} is too large or damaged"
        return make_error(codes.ZEB_WRONG_CONTENT, reason)

    def _ask(
        self, query: _Query, text: Optional[bytes], walk: _Walk, element: Optional[str]
    ) -> bool:
        """Asks, and adds the answer to the walk. Returns false if question or answer is too large;
        the walk is as before then."""
        had, had_refused = len(walk.entries), len(walk.refused)
        rc = self._session.ask(query, text, lambda answer: walk.read(answer, element))
        if rc == codes.ZEB_OK:
            return True
        del walk.entries[had:], walk.refused[had_refused:]
        if rc in (codes.ZEB_WRONG_CONTENT, codes.ZEB_QUERY_TOO_LONG):
            return False
        raise make_error(rc, self._session.what)


def _encode_names(names: Names) -> Optional[List[bytes]]:
    if names is None:
        return None
    encoded = [encode(name) for name in ([names] if isinstance(names, (str, bytes)) else names)]
    for name in encoded:
        if not name or b":" in name or b"\0" in name:
            raise ValueError(f"not an id: {decode(name)!r}; pass several ids as a list")
    return encoded


# ---- Gateways -----------------------------------------------------------------------------------


class Gateway:
    """An open connection to a gateway; connect() makes one.

    It belongs to the thread that connected it: in other threads its queries raise WrongThreadError.
    Any thread may close it, which ends a query that waits, and read its properties.

    Each call ends within the timeout, and Ctrl-C ends it at once; either closes the connection,
    because an answer may still be on its way. A gateway whose connection is closed or lost raises
    ClosedError: connect again.
    """

    def __init__(self, address: str, session: Session) -> None:
        self.address = address
        self._session = session
        self._questions = _Questions(session)

    @property
    def version(self) -> str:
        """The gateway's protocol version; empty if it is not known."""
        return self._session.version

    @property
    def timeout(self) -> Optional[float]:
        """The seconds after which a call ends; None: never."""
        return self._session.timeout

    @property
    def is_open(self) -> bool:
        """Whether the connection has been neither closed nor, as far as calls have shown, lost."""
        return not self._session.is_over

    def stats(
        self, ids: Names = None, groups: Names = None, partial: bool = False
    ) -> "Answer[Stat]":
        """Returns the statistics with the given ids, those of the given groups, or all.

        An answer that is too large for one query of the protocol is asked for in pieces, which are
        then not of the same moment. If the gateway refuses an element, RefusedError is raised,
        which has the rest as its answer; with partial the rest is returned, and its `refused`
        lists what was refused.
        """
        if ids is not None and groups is not None:
            raise TypeError("stats() takes ids or groups, not both")
        wanted = _encode_names(ids if ids is not None else groups)
        if ids is not None:
            walk = self._run(lambda: self._questions.stats_by_id(wanted or []))
        else:
            walk = self._run(lambda: self._questions.stats(wanted))
        return self._finish(walk.entries, walk.refused, partial)

    def ids(self, groups: Names = None, partial: bool = False) -> "Answer[str]":
        """Returns the ids of the statistics of the given groups, or of all; refusals as above."""
        wanted = _encode_names(groups)
        walk = self._run(lambda: self._questions.ids(wanted))
        return self._finish([decode(id) for id in walk.entries], walk.refused, partial)

    def groups(self) -> "Answer[str]":
        """Returns the ids of the resource groups."""
        walk = self._run(self._questions.groups)
        return self._finish([decode(id) for id in walk.entries], walk.refused, False)

    def close(self) -> None:
        """Closes the connection, if it is open. Any thread may call this: a query that waits then
        fails with ConnectionLostError."""
        self._session.close()

    def __enter__(self) -> "Gateway":
        return self

    def __exit__(
        self,
        kind: Optional[Type[BaseException]],
        value: Optional[BaseException],
        traceback: Optional[TracebackType],
    ) -> None:
        self.close()

    def __reduce__(self) -> NoReturn:
        # The end of a copy would close the connection of the original.
        raise TypeError("a gateway can be neither copied nor pickled; connect another one")

    def __del__(self) -> None:
        if hasattr(self, "_session") and self.is_open:  # it lacks one if __init__ has failed
            unclosed = f"unclosed {self!r}"
            self._session.end()  # first, because the warning may be an exception
            warnings.warn(unclosed, ResourceWarning, source=self)

    def __repr__(self) -> str:
        return f"<zebstats.Gateway {self.address} {'open' if self.is_open else 'closed'}>"

    def _run(self, call: Callable[[], T]) -> T:
        return self._session.run(call, codes.ZEB_TIMED_OUT, self.timeout)

    def _finish(self, entries: List[T], refused: List[Refusal], partial: bool) -> "Answer[T]":
        answer = Answer(entries, refused)
        if refused and not partial:
            raise RefusedError(self.address, answer)
        return answer


# ---- Connecting ---------------------------------------------------------------------------------


def parse_address(address: str) -> Tuple[str, int]:
    """Splits HOST, HOST:PORT, [IPV6], [IPV6]:PORT or IPV6 into host and port."""
    match = _ADDRESS.fullmatch(address)
    ipv6 = match and (match[1] or match[4])
    if match is None or (ipv6 and not _is_numeric(ipv6.split("%")[0], socket.AF_INET6)):
        raise ValueError(
            f"not an address: {address!r}; write it like gw, gw:2980, [::1] or [::1]:2980"
        )
    port = int(match[3] or DEFAULT_PORT)
    if not 1 <= port <= 65535:
        raise ArgumentError(codes.ZEB_PORT_INVALID, address)
    return ipv6 or match[2], port


def _is_numeric(host: str, family: int) -> bool:
    try:
        socket.inet_pton(family, host)
    except (OSError, ValueError):  # a text with a NUL is a ValueError
        return False
    return True


def connect(address: str, timeout: Optional[float] = DEFAULT_TIMEOUT) -> Gateway:
    """Connects to the gateway at HOST, HOST:PORT, [IPV6] or [IPV6]:PORT; the default port is 2980.

    The timeout, in seconds, holds for this gateway: for connecting as a whole, including the
    resolution of the name, and then for every call. None waits for ever. All addresses of a name
    are tried in turn; each gets an equal share of the time that is left.

    The library itself has one timeout for the process. This package sets it, whenever it opens or
    closes a connection, to the longest timeout of its gateways: a host that also calls the library
    in another way must not rely on a value of its own. When an open ends early, by its timeout or
    Ctrl-C, its thread ends in the background, at the latest after that longest timeout; if there is
    a gateway without a timeout, only once the peer answers or hangs up.

    Raises ConnectError, TimeoutError, or ValueError for an argument that is not valid.
    """
    host, port = parse_address(address)
    if timeout is not None and not timeout > 0:
        what = f"the timeout must be more than 0 or None, not {timeout}"
        raise ArgumentError(codes.ZEB_TIMEOUT_INVALID, what)
    deadline = None if timeout is None else time.monotonic() + timeout
    session = Session(address, timeout)
    try:
        resolve = functools.partial(_resolve, address, host, port)
        addresses = session.run(resolve, codes.ZEB_CONNECT_TIMED_OUT, timeout)
        for left in range(len(addresses), 0, -1):
            share = None if deadline is None else (deadline - time.monotonic()) / left
            call = functools.partial(session.open, addresses[-left], port)
            try:
                session.run(call, codes.ZEB_CONNECT_TIMED_OUT, share)
                break
            except (ConnectError, TimeoutError) as failure:
                session.end()
                if left > 1:
                    session = Session(address, timeout)
                elif len(addresses) > 1:
                    what = f"{address} (tried {', '.join(addresses)})"
                    raise type(failure)(failure.code, what) from None
                else:
                    raise
        return Gateway(address, session)
    except BaseException:  # such as Ctrl-C
        session.end()
        raise


def _resolve(address: str, host: str, port: int) -> List[str]:
    """Returns the numeric addresses of a host. One that is numeric already does not go through the
    resolver, whose locks another thread may have held when this process was forked."""
    if _is_numeric(host, socket.AF_INET) or _is_numeric(host, socket.AF_INET6):
        return [host]
    try:
        found = socket.getaddrinfo(host, port, type=socket.SOCK_STREAM)
        numeric = socket.NI_NUMERICHOST | socket.NI_NUMERICSERV
        names = [socket.getnameinfo(entry[4], numeric)[0] for entry in found]
    except (OSError, ValueError) as failure:  # a name that cannot be encoded is a ValueError
        raise ConnectError(codes.ZEB_HOST_UNKNOWN, address) from failure
    return list(dict.fromkeys(names))
