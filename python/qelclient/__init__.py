"""A component of the feature daemon in Python, for tests and tools.

    import qelclient

    def take(change, reply):
        print(change)
        if change.code == 13:
            reply.text = "no such hardware"
            return qelclient.Answer.REFUSED

    with qelclient.Client("Voice", take) as client:
        client.run(timeout=60)
        client.shutdown("good night")

The module is libqelclient's C interface (qelclient.h has all of it), called by ctypes: it needs Python 3.9 or newer
and the shared library, libqelclient.so.0, which is looked for as the dynamic linker does. QEL_CLIENT_LIBRARY in the
environment names another file.

Times are in seconds; None: no limit; 0: what is there, without waiting. Errors are raised as Error. There is one open
client in a process, used by one thread at a time; stop() may be called from any thread. Callbacks run inside the calls
that handle messages; from there only features(), state and stop() may be called. Signals are handled while run() waits,
and within a tenth of a second in the other calls.
"""

from __future__ import annotations

import ctypes
import enum
import math
import os
import select
import time
from dataclasses import dataclass
from types import TracebackType
from typing import Any, Callable, Iterable, List, NamedTuple, Optional, Type

__all__ = ["Answer", "Change", "Client", "Error", "Feature", "Kind", "Reply", "State", "version"]

_TEXT_SIZE = 501
_ETIMEDOUT = -5
_ENODAEMON = -4
_ESTOPPED = -6
_SLICE = 0.1  # seconds between looks for signals


class Kind(enum.IntEnum):
    """What a change means for this component, given what it holds."""

    ENABLE = 1  # take the feature up: code, data
    MODIFY = 2  # a feature held changes: code, data so far, new_data
    DISABLE = 3  # a feature held is withdrawn: code, data so far
    OVERDUE = 4  # the daemon gave up waiting for the answer, and takes none any more


class Answer(enum.IntEnum):
    """What a callback returns; None counts as OK."""

    OK = 0
    REFUSED = 1
    NO_REPLY = 2  # say nothing: the daemon counts the answer as overdue after 10 seconds


class State(enum.IntEnum):
    """How far the client has come, each including the ones before it."""

    SEEKING = 0
    ANNOUNCED = 1
    FETCHED = 2
    MONITORING = 3


class Feature(NamedTuple):
    """A feature held. Both numbers have 32 bits."""

    code: int
    data: int


@dataclass(frozen=True)
class Change:
    """What the callback is called for."""

    kind: Kind
    code: int
    data: int
    new_data: int  # of MODIFY, else 0
    fetched: bool  # found by fetching or comparing: the daemon awaits no answer


@dataclass
class Reply:
    """What goes to the daemon's log with the answer, cut at 500 bytes of UTF-8."""

    text: str = ""


NotifyFunction = Callable[[Change, Reply], Optional[Answer]]
TraceFunction = Callable[[bool, bytes], None]


class Error(Exception):
    """A call of the library that failed; `code` is one of QEL_E... of qelclient.h."""

    def __init__(self, code: int) -> None:
        super().__init__(_library().qel_strerror(code).decode())
        self.code = code


class _Pair(ctypes.Structure):
    _fields_ = [("code", ctypes.c_uint32), ("data", ctypes.c_uint32)]


class _Notification(ctypes.Structure):
    _fields_ = [
        ("size", ctypes.c_uint32),
        ("kind", ctypes.c_int),
        ("code", ctypes.c_uint32),
        ("data", ctypes.c_uint32),
        ("new_data", ctypes.c_uint32),
        ("fetched", ctypes.c_int),
    ]


_NotifyPointer = ctypes.CFUNCTYPE(
    ctypes.c_int, ctypes.c_void_p, ctypes.POINTER(_Notification), ctypes.POINTER(ctypes.c_char)
)
_TracePointer = ctypes.CFUNCTYPE(
    None, ctypes.c_void_p, ctypes.c_int, ctypes.POINTER(ctypes.c_uint8), ctypes.c_size_t
)


class _Options(ctypes.Structure):
    _fields_ = [
        ("size", ctypes.c_uint32),
        ("answer_timeout_ms", ctypes.c_uint32),
        ("notify", _NotifyPointer),
        ("trace", _TracePointer),
        ("user", ctypes.c_void_p),
        ("notify_unchanged", ctypes.c_int),
        ("reserved", ctypes.c_int),
    ]


# Result and arguments of each function, as qelclient.h has them.
_CLIENT = ctypes.c_void_p
_FUNCTIONS = {
    "qel_open": (ctypes.c_int, [ctypes.c_char_p, ctypes.POINTER(_Options), ctypes.POINTER(_CLIENT)]),
    "qel_hold": (ctypes.c_int, [_CLIENT, ctypes.c_uint32, ctypes.c_uint32]),
    "qel_announce": (ctypes.c_int, [_CLIENT, ctypes.c_int]),
    "qel_fetch": (ctypes.c_int, [_CLIENT, ctypes.c_int]),
    "qel_monitor": (ctypes.c_int, [_CLIENT, ctypes.c_int]),
    "qel_wait": (ctypes.c_int, [_CLIENT, ctypes.c_int]),
    "qel_run": (ctypes.c_int, [_CLIENT, ctypes.c_int]),
    "qel_fd": (ctypes.c_int, [_CLIENT]),
    "qel_dispatch": (ctypes.c_int, [_CLIENT, ctypes.POINTER(ctypes.c_int)]),
    "qel_stop": (None, [_CLIENT]),
    "qel_shutdown": (ctypes.c_int, [_CLIENT, ctypes.c_char_p]),
    "qel_close": (None, [_CLIENT]),
    "qel_features": (ctypes.c_int, [_CLIENT, ctypes.POINTER(_Pair), ctypes.c_size_t]),
    "qel_state": (ctypes.c_int, [_CLIENT]),
    "qel_version": (ctypes.c_char_p, []),
    "qel_strerror": (ctypes.c_char_p, [ctypes.c_int]),
}
_loaded: Optional[ctypes.CDLL] = None


def _library() -> ctypes.CDLL:
    """Loads the library when it is first wanted. OSError: it is not there."""
    global _loaded
    if _loaded is None:
        library = ctypes.CDLL(os.environ.get("QEL_CLIENT_LIBRARY") or "libqelclient.so.0")
        for name, (result, arguments) in _FUNCTIONS.items():
            function = getattr(library, name)
            function.restype = result
            function.argtypes = arguments
        _loaded = library
    return _loaded


def version() -> str:
    """Of the library."""
    return str(_library().qel_version().decode())


def _checked(result: int) -> int:
    if result < 0:
        raise Error(result)
    return result


class Client:
    """A component. Opened by its creation, to be closed by close() or as a context."""

    def __init__(
        self,
        name: str,
        notify: Optional[NotifyFunction] = None,
        *,
        held: Iterable[Feature] = (),
        trace: Optional[TraceFunction] = None,
        answer_timeout: float = 0,
        notify_unchanged: bool = False,
    ) -> None:
        """`name` has 1 to 16 characters. `notify` is called for every change; without it everything is accepted. What
        it raises is raised by the call that is under way, which ends, and the change counts as refused. `held`: what
        the component holds from an earlier run. `trace` sees every message, sent (True) or received. `answer_timeout`: how
        long an answer of the daemon may take at least; 0: the default of a minute."""
        self._client = _CLIENT()
        self._notify = notify
        self._trace = trace
        self._raised: Optional[BaseException] = None
        # Kept here, since the library calls them for as long as it is open.
        self._options = _Options(size=ctypes.sizeof(_Options))
        self._options.answer_timeout_ms = round(answer_timeout * 1000)
        self._options.notify = _NotifyPointer(self._on_notify) if notify else _NotifyPointer()
        self._options.trace = _TracePointer(self._on_trace) if trace else _TracePointer()
        self._options.notify_unchanged = int(notify_unchanged)
        _checked(_library().qel_open(name.encode(), ctypes.byref(self._options), ctypes.byref(self._client)))
        try:
            for code, data in held:
                _checked(_library().qel_hold(self._client, code, data))
        except BaseException:
            self.close()
            raise

    def __enter__(self) -> Client:
        return self

    def __exit__(
        self,
        kind: Optional[Type[BaseException]],
        value: Optional[BaseException],
        traceback: Optional[TracebackType],
    ) -> None:
        self.close()

    def close(self) -> None:
        """Tells the daemon nothing: call shutdown() before. Harmless if it is closed."""
        client, self._client = self._client, _CLIENT()
        _library().qel_close(client)

    # Each brings the client up to a state, and keeps it there. Raises Error where that is not reached in time; the
    # next call goes on from there.

    def announce(self, timeout: Optional[float] = None) -> None:
        self._until("qel_announce", timeout)

    def fetch(self, timeout: Optional[float] = None) -> List[Feature]:
        """Fetches the list, and returns what is held then. After a complete fetch, the next call fetches anew."""
        self._until("qel_fetch", timeout)
        return self.features()

    def monitor(self, timeout: Optional[float] = None) -> None:
        self._until("qel_monitor", timeout)

    def wait(self, timeout: Optional[float] = None) -> int:
        """Handles messages until there was a change or the time is up. Returns how many changes were handled."""
        end = _end(timeout)
        count = 0
        while count == 0:
            left = end - time.monotonic()
            count = self._checked(_library().qel_wait(self._client, _milliseconds(min(left, _SLICE))))
            if left <= _SLICE:
                break
        return count

    def run(self, timeout: Optional[float] = None) -> None:
        """Announces, fetches, monitors, and keeps that up until stop() or until the time is up. Raises Error only if
        the component was not monitoring at any time during the call."""
        end = _end(timeout)
        came_up = False
        while True:
            try:
                following = self.dispatch()
            except Error as error:
                if error.code == _ESTOPPED and came_up:
                    return
                raise
            came_up = came_up or self.state == State.MONITORING
            left = end - time.monotonic()
            if left <= 0:
                break
            self._sleep(min(left, following))
        if not came_up:
            self._checked(_library().qel_run(self._client, 0))  # which says why

    def fileno(self) -> int:
        """For select and asyncio: readable when dispatch() has something to do."""
        return _checked(_library().qel_fd(self._client))

    def dispatch(self) -> float:
        """Does what is there to be done, as run() does, without waiting. To be called when fileno() is readable, and
        after so many seconds as it returns."""
        following = ctypes.c_int()
        self._checked(_library().qel_dispatch(self._client, ctypes.byref(following)))
        return following.value / 1000

    def stop(self) -> None:
        """Ends the call under way, or else the next one. Any thread."""
        _library().qel_stop(self._client)

    def shutdown(self, text: str = "") -> bool:
        """Tells the daemon that the component is leaving. False: there is no daemon that knows it."""
        result = _library().qel_shutdown(self._client, text.encode())
        if result == _ENODAEMON:
            return False
        self._checked(result)
        return True

    def features(self) -> List[Feature]:
        """What is held, in order."""
        count = _checked(_library().qel_features(self._client, None, 0))
        pairs = (_Pair * count)()
        _checked(_library().qel_features(self._client, pairs, count))
        return [Feature(pair.code, pair.data) for pair in pairs]

    @property
    def state(self) -> State:
        return State(_checked(_library().qel_state(self._client)))

    def _until(self, function: str, timeout: Optional[float]) -> None:
        end = _end(timeout)
        while True:
            left = end - time.monotonic()
            result = getattr(_library(), function)(self._client, _milliseconds(min(left, _SLICE)))
            if result not in (_ENODAEMON, _ETIMEDOUT) or left <= _SLICE:
                self._checked(result)
                return
            self._checked(0)

    # In select, Python handles signals at once. A platform without a descriptor has only the time.
    def _sleep(self, seconds: float) -> None:
        fd = _library().qel_fd(self._client)
        select.select([fd] if fd >= 0 else [], [], [], seconds)

    # What a callback has raised goes before the result of the call that it was in.
    def _checked(self, result: int) -> int:
        raised, self._raised = self._raised, None
        if raised is not None:
            raise raised
        return _checked(result)

    def _on_notify(self, _user: object, pointer: Any, text: Any) -> int:
        try:
            said = pointer.contents
            change = Change(Kind(said.kind), said.code, said.data, said.new_data, said.fetched != 0)
            reply = Reply()
            answer = self._notify(change, reply) if self._notify else None
            words = reply.text.encode()[: _TEXT_SIZE - 1].decode(errors="ignore").encode()  # whole characters
            ctypes.memmove(text, words + b"\0", len(words) + 1)
            return int(Answer.OK if answer is None else answer)
        except BaseException as raised:
            self._raised = self._raised or raised
            return int(Answer.REFUSED)

    def _on_trace(self, _user: object, sent: int, body: Any, length: int) -> None:
        try:
            if self._trace:
                self._trace(sent != 0, ctypes.string_at(body, length))
        except BaseException as raised:
            self._raised = self._raised or raised


# By the monotonic clock.
def _end(timeout: Optional[float]) -> float:
    return float("inf") if timeout is None else time.monotonic() + timeout


def _milliseconds(seconds: float) -> int:
    return max(0, math.ceil(seconds * 1000))
