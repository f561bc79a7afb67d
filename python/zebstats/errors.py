"""What this package raises: one class for each kind of failure, all of them Error."""

import builtins
from typing import Any, Dict, Generic, List, NamedTuple, Tuple, Type, TypeVar

from . import codes
from ._library import describe

T = TypeVar("T")


class Error(Exception):
    """Base of all failures.

    code    the code of the library, one of zebstats.codes
    text    the library's text for it
    """

    _advice = ""  # what to do instead, for the message

    def __init__(self, code: int, what: str = "") -> None:
        self.code = code
        self.text = describe(code)
        self._what = what
        prefix = f"{what}: " if what else ""
        suffix = f"; {self._advice}" if self._advice else ""
        super().__init__(f"{prefix}{self.text} ({code}){suffix}")

    def __reduce__(self) -> Tuple[Any, ...]:
        return type(self), (self.code, self._what)


class ConnectError(Error, builtins.ConnectionError):
    """No connection could be opened: refused, unreachable, unknown host, or not a gateway."""


class TimeoutError(Error, builtins.TimeoutError):
    """The gateway did not answer in time. Its connection is closed."""


class ConnectionLostError(Error, builtins.ConnectionError):
    """The connection was lost or was closed during the call, or the gateway sent something that is
    no answer. The connection is closed."""


class ClosedError(Error):
    """The gateway is used after its connection was closed or lost: connect again."""


class QueryError(Error):
    """The gateway's answer cannot be used. The connection stays open."""


class ArgumentError(Error, ValueError):
    """An argument is outside what the library accepts; nothing was sent."""


class WrongThreadError(Error):
    """The gateway was connected by another thread. Each thread must connect a gateway of its own;
    any thread may close one."""

    _advice = "open one connection for each thread"


class WrongProcessError(Error):
    """The gateway was connected before a fork. The child must connect a gateway of its own."""

    _advice = "open one connection for each process"


class Refusal(NamedTuple):
    """An element of a query that the gateway could not answer."""

    element: str  # the statistic id or group; empty for a query of everything
    code: int  # the gateway's own code, negative


class Answer(List[T], Generic[T]):
    """The entries of an answer, as a list that also knows what the gateway refused."""

    def __init__(self, entries: "List[T]", refused: "List[Refusal]") -> None:
        super().__init__(entries)
        self.refused = refused


class RefusedError(QueryError):
    """The gateway refused elements of a query, as it does with an id that it does not have.

    code     the gateway's own code for the first of them
    answer   what it did answer; answer.refused lists what it refused
    """

    def __init__(self, what: str, answer: "Answer[Any]") -> None:
        first = answer.refused[0]
        self.code = first.code
        element = repr(first.element) if first.element else "the query of everything"
        more = f" and {len(answer.refused) - 1} more" if len(answer.refused) > 1 else ""
        self.text = f"the gateway refused {element}{more}"
        self.answer = answer
        self._what = what
        Exception.__init__(self, f"{what}: {self.text} (its code {first.code})")

    def __reduce__(self) -> Tuple[Any, ...]:
        return type(self), (self._what, self.answer)


_CLASSES: Dict[Type[Error], List[int]] = {
    ConnectError: [
        codes.ZEB_CONNECT_FAILED,
        codes.ZEB_CONNECT_REFUSED,
        codes.ZEB_NETWORK_UNREACHABLE,
        codes.ZEB_HOST_UNKNOWN,
        codes.ZEB_TOKEN_LIST_CORRUPT,
    ],
    TimeoutError: [codes.ZEB_CONNECT_TIMED_OUT, codes.ZEB_TIMED_OUT],
    ConnectionLostError: [codes.ZEB_CONNECTION_LOST, codes.ZEB_COMMUNICATION_FAILED],
    ClosedError: [codes.ZEB_TOKEN_NULL, codes.ZEB_TOKEN_UNKNOWN, codes.ZEB_NO_RESULT_SET_BUFFER],
    QueryError: [codes.ZEB_WRONG_CONTENT, codes.ZEB_QUERY_TOO_LONG],
    ArgumentError: [
        codes.ZEB_PORT_INVALID,
        codes.ZEB_HOST_NULL,
        codes.ZEB_TIMEOUT_INVALID,
        codes.ZEB_QUERY_NULL,
        codes.ZEB_TRACE_LEVEL_INVALID,
        codes.ZEB_TRACE_FILE_FAILED,
    ],
    WrongThreadError: [codes.ZEB_OTHER_THREAD],
    WrongProcessError: [codes.ZEB_OTHER_PROCESS],
}
_CLASS_OF = {code: family for family, members in _CLASSES.items() for code in members}


def make_error(code: int, what: str) -> Error:
    """Returns the exception for a code that a call has returned."""
    return _CLASS_OF.get(code, Error)(code, what)
