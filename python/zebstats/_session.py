"""A connection and the thread that owns it.

A thread that waits inside the library cannot handle Python's signals, and the library binds
a connection to the thread that opens it. So each connection has a thread of its own, the owner,
which runs the calls that the caller submits. The caller waits for the results in Python, where
Ctrl-C and a timeout end the wait.

Only the thread that made the session may submit calls. If several could, each would wait for the
calls of the others, and a timeout of one would close the connection of all.

A wait that ends early abandons the session: another short-lived thread closes the connection, by
which the library wakes the owner. An open cannot be woken; it ends with the library's own timeout,
and the owner closes what it opened.
"""

import ctypes
import os
import queue
import signal
import threading
from typing import Any, Callable, Generic, List, Optional, TypeVar

from . import _library, codes
from ._text import decode
from .errors import ClosedError, ConnectError, WrongProcessError, WrongThreadError, make_error

T = TypeVar("T")

_MAX_MILLISECONDS = 2**31 - 1
# Signals that a thread raises by a fault of its own; to block them would hide the fault.
_FAULTS = {signal.SIGSEGV, signal.SIGBUS, signal.SIGFPE, signal.SIGILL, signal.SIGABRT}
# After these the library has removed the connection.
_REMOVED = (
    codes.ZEB_CONNECTION_LOST,
    codes.ZEB_TIMED_OUT,
    codes.ZEB_COMMUNICATION_FAILED,
    codes.ZEB_TOKEN_UNKNOWN,
)


class _Limits:
    """Keeps the library's timeout, of which a process has one, at the longest of all sessions.

    Shorter ones are up to those who wait for a session. The library's ends what they leave behind:
    the open of a connection that nobody waits for any more.
    """

    def __init__(self) -> None:
        self.clear()

    def clear(self) -> None:
        self._lock = threading.Lock()
        self._milliseconds: List[int] = []

    def add(self, milliseconds: int) -> None:
        with self._lock:
            self._milliseconds.append(milliseconds)
            self._apply()

    def remove(self, milliseconds: int) -> None:
        with self._lock:
            self._milliseconds.remove(milliseconds)
            if self._milliseconds:
                self._apply()

    def _apply(self) -> None:
        is_unlimited = 0 in self._milliseconds
        _library.set_timeout(0 if is_unlimited else max(self._milliseconds))


_limits = _Limits()
os.register_at_fork(after_in_child=_limits.clear)  # the child has none of the threads


class _Thread(threading.local):
    """Has another mark in each thread. Unlike the id of a thread, the mark of one that has ended
    is not given to a later one."""

    def __init__(self) -> None:
        self.mark = object()


_thread = _Thread()


class _Task(Generic[T]):
    """A call for the owner, and its result."""

    def __init__(self, call: Callable[[], T]) -> None:
        self._call = call
        self._result: List[T] = []
        self._failure: Optional[BaseException] = None
        self.done = threading.Lock()  # held until the result is there
        self.done.acquire()

    def run(self) -> None:
        try:
            self._result.append(self._call())
        except BaseException as failure:  # it belongs to the thread that waits
            self._failure = failure

    def result(self) -> T:
        if self._failure is not None:
            try:
                raise self._failure
            finally:
                self._failure = None  # its traceback refers to this frame
        return self._result[0]


class Session:
    """A connection that is not open yet. Its thread starts with the first call."""

    def __init__(self, what: str, timeout: Optional[float]) -> None:
        self.what = what
        self.timeout = timeout
        self.version = ""
        self.is_over = False  # no task is accepted any more
        self._process = os.getpid()
        self._caller = _thread.mark
        self._token = 0
        self._answer = ctypes.c_void_p()
        self._tasks: "queue.SimpleQueue[Optional[_Task[Any]]]" = queue.SimpleQueue()
        self._pending = 0  # tasks submitted and not finished
        # Guards is_over and _pending. A signal handler may close a gateway in the middle of
        # a submission, so the lock is one that its holder can take again.
        self._state = threading.RLock()
        # A close frees the answer: whoever reads the answer, or closes, holds this.
        self._reading = threading.Lock()
        self._ended = threading.Event()
        self._is_served = False

    # ---- For the thread that made the session --------------------------------------------------

    def run(self, call: Callable[[], T], late: int, timeout: Optional[float]) -> T:
        """Lets the owner run the call, and returns its result or raises its exception.

        If the timeout passes first, the session is abandoned and the code late is raised. Any
        other end of the wait, as by Ctrl-C, abandons it too.
        """
        if os.getpid() != self._process:
            raise WrongProcessError(codes.ZEB_OTHER_PROCESS, self.what)
        if _thread.mark is not self._caller:
            raise WrongThreadError(codes.ZEB_OTHER_THREAD, self.what)
        task = _Task(call)
        with self._state:
            if self.is_over:
                raise ClosedError(codes.ZEB_TOKEN_UNKNOWN, self.what)
            self._pending += 1
            self._tasks.put(task)
        limit = -1 if timeout is None else min(max(timeout, 0), threading.TIMEOUT_MAX)
        try:
            self._start()
            is_done = task.done.acquire(timeout=limit)
        except BaseException:
            self.abandon()
            raise
        if not is_done:
            self.abandon()
            raise make_error(late, self.what)
        return task.result()

    def _start(self) -> None:
        """Starts the owner, unless it has been started. Called where an exception abandons the
        session: Ctrl-C may end the wait for the start, but the thread must not live on for ever."""
        if not self._is_served:
            self._is_served = True
            name = f"zebstats {self.what}"
            threading.Thread(target=self._serve, name=name, daemon=True).start()

    # ---- For any thread ------------------------------------------------------------------------

    def end(self) -> None:
        """Lets the owner close the connection after the tasks that it has. Does not wait."""
        if os.getpid() != self._process:
            return  # no thread is there, and the lock may be held for ever
        with self._state:
            if not self.is_over:
                self.is_over = True
                self._tasks.put(None)

    def abandon(self) -> None:
        """Closes the connection at once, and ends the call on it. Does not wait: should the owner
        just be between two calls, the close would have to wait for the gateway."""
        self.end()
        threading.Thread(target=self._close, daemon=True).start()

    def close(self) -> None:
        """Closes the connection and waits for that, for as long as the timeout permits. Calls
        that other threads wait for fail."""
        if os.getpid() != self._process:
            self.is_over = True
            token, self._token = self._token, 0
            _library.close_gateway(token)  # in a child the library only forgets the connection
            return
        with self._state:
            was_over, is_busy = self.is_over, self._pending > 0
            self.end()
        if is_busy:
            self.abandon()
        elif not was_over:
            limit = self.timeout
            self._ended.wait(None if limit is None else min(limit, threading.TIMEOUT_MAX))

    # ---- For the owner -------------------------------------------------------------------------

    def open(self, host: str, port: int) -> None:
        rc, token, version = _library.open_gateway(host, port)
        if rc == codes.ZEB_CONNECT_TIMED_OUT:
            raise make_error(rc, self.what)
        if rc != codes.ZEB_OK:
            raise ConnectError(rc, self.what)
        self.version = decode(version)
        with self._reading:
            self._token = token

    def ask(self, query: Callable[..., int], text: Optional[bytes], read: "Reader") -> int:
        """Asks the gateway and reads the answer. Returns the code of the query, or the one that
        ended the walk."""
        texts = () if text is None else (text,)
        token = self._token
        rc = codes.ZEB_CONNECTION_LOST
        if token != 0:
            rc = query(token, *texts, ctypes.byref(self._answer))
        with self._reading:
            if rc in _REMOVED:
                self._token = 0
                self.end()
            if rc != codes.ZEB_OK:
                return rc
            if self._token == 0:
                return codes.ZEB_CONNECTION_LOST
            return read(self._answer)

    def _serve(self) -> None:
        signal.pthread_sigmask(signal.SIG_BLOCK, signal.valid_signals() - _FAULTS)
        limit = self.timeout
        milliseconds = 0 if limit is None else int(min(max(limit * 1000, 1), _MAX_MILLISECONDS))
        _limits.add(milliseconds)
        while True:
            task = self._tasks.get()
            if task is None:
                break
            task.run()
            with self._state:
                self._pending -= 1
            task.done.release()
            del task  # or the result would live until the next task
        self._close()
        _limits.remove(milliseconds)
        self._ended.set()

    def _close(self) -> None:
        with self._reading:
            token, self._token = self._token, 0
            if token != 0:
                _library.close_gateway(token)


Reader = Callable[[ctypes.c_void_p], int]
