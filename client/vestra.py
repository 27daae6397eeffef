"""Asks the recorder of a set for its system vitals.

    >>> import vestra
    >>> vestra.ask(['cpu_total', 'memory_available'], window=10)
    {'cpu_total': Figures(maximum=31.2, minimum=4.0, average=12.7, variance=40.1), 'memory_available': ...}
    >>> for answer in vestra.watch('temperature_average', window=0):
    ...     print(answer['temperature_average'].average)

This is libvestra-api.so.1 through ctypes; vestra_api(3) tells what the figures mean and what a question may cost.
"""
from __future__ import annotations

import ctypes
import operator
import time
from collections.abc import Iterable, Iterator
from typing import NamedTuple

__all__ = ['VITALS', 'UNITS', 'WINDOW_MAX', 'Client', 'Error', 'Figures', 'NoDaemon', 'Timeout', 'ask', 'watch']

#: Names of the vitals; the place of a name is its packet type.
VITALS = ('context_switches', 'running_processes', 'cpu_total', 'cpu_system', 'cpu_user', 'temperature_core0',
          'temperature_core1', 'temperature_core2', 'temperature_core3', 'temperature_average', 'io_wait',
          'memory_used', 'swap_used', 'load', 'memory_free', 'page_cache', 'memory_available')

#: The unit of each vital's maximum, minimum and average; empty: a number. Percentages are of all cores together.
UNITS = dict(zip(VITALS, ('1/s', '', '%', '%', '%', 'C', 'C', 'C', 'C', 'C', '%', '%', '%', '', 'KiB', 'KiB', 'KiB')))

#: Seconds that a window may reach back.
WINDOW_MAX = 180

Vital = str | int


class Figures(NamedTuple):
    """What the daemon knows of a vital in a window, in the unit of the vital (the variance in its square).

    Average and variance are NaN where the window has no sample. With window 0 maximum, minimum and average are the
    current value, and the variance is 0."""
    maximum: float
    minimum: float
    average: float
    variance: float


class Error(Exception):
    """The question was not answered. `result` is the library's result."""

    def __init__(self, result: int, text: str):
        super().__init__(text)
        self.result = result


class NoDaemon(Error):
    """No recorder is running, it ended meanwhile, or its segment may not be used."""


class Timeout(Error):
    """No answer in time."""


class _Request(ctypes.Structure):
    _fields_ = [('packet_type', ctypes.c_int32), ('window', ctypes.c_int32), ('maximum', ctypes.c_double),
                ('minimum', ctypes.c_double), ('average', ctypes.c_double), ('variance', ctypes.c_double),
                ('answer_type', ctypes.c_int32), ('padding', ctypes.c_int32)]


assert ctypes.sizeof(_Request) == 48  # the layout is fixed

_library = ctypes.CDLL('libvestra-api.so.1')
_library.vestra_api_open.restype = ctypes.c_void_p
_library.vestra_api_ask.argtypes = [ctypes.c_void_p, ctypes.c_void_p, ctypes.c_int, ctypes.c_int]
_library.vestra_api_close.argtypes = [ctypes.c_void_p]
_library.vestra_api_close.restype = None
_library.vestra_api_result_text.restype = ctypes.c_char_p
_NO_DAEMON, _TIMEOUT, _NO_MEMORY = -1, -2, -4
_QUESTIONS_KEPT = 64


def _packet_type(vital: Vital) -> int:
    if isinstance(vital, str):
        vital = VITALS.index(vital.replace('-', '_')) if vital.replace('-', '_') in VITALS else -1
    vital = operator.index(vital)
    if not 0 <= vital < len(VITALS):
        raise ValueError(f'no such vital: there are {", ".join(VITALS)}')
    return vital


class _Handle:
    """A handle of the library, which is closed when no client and no question refers to it any more."""
    value: int | None = None

    def __init__(self) -> None:
        self.value = _library.vestra_api_open()
        if not self.value:
            raise MemoryError('out of memory')

    def __del__(self, close=_library.vestra_api_close) -> None:
        close(self.value)


class Client:
    """A connection to the recorder. It may be opened before the recorder runs, and outlives its restarts.

    Any thread may ask, and a child process, too; questions of one client wait for each other. Use it in a `with`
    statement, or call close()."""

    # No lock: one that an interrupt (Ctrl-C) or a fork leaves locked would block every later call.
    def __init__(self) -> None:
        self._handle: _Handle | None = _Handle()
        self._questions: dict[tuple[tuple[int, ...], int], ctypes.Array] = {}  # that nobody is asking now

    def __enter__(self) -> Client:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def close(self) -> None:
        """Ends the connection, once the questions of other threads are answered; a second call does nothing."""
        self._handle = None

    def ask(self, vitals: Vital | Iterable[Vital] = VITALS, window: int = 60,
            timeout: float = 1.0) -> dict[str, Figures]:
        """Asks for one or more vitals, by name or packet type, over the last `window` seconds (0 to 180; 0: the current
        values), and waits at most `timeout` seconds; an interrupt (Ctrl-C) takes effect afterwards. Returns the figures
        by name, in the order asked, each name once.

        Raises TypeError, ValueError (no such vital, a window out of range, a closed client), NoDaemon, Timeout or Error
        (the daemon left a vital unanswered)."""
        wanted = (vitals,) if isinstance(vitals, (str, int)) else vitals
        types = tuple(dict.fromkeys(map(_packet_type, wanted)))
        window = operator.index(window)
        if not types or not 0 <= window <= WINDOW_MAX:
            raise ValueError(f'at least one vital, and a window of 0 to {WINDOW_MAX} s')
        handle = self._handle
        if handle is None:
            raise ValueError('the client is closed')
        # The entries of a question are kept: making them takes longer than to ask.
        question = self._questions.pop((types, window), None)
        if question is None:
            question = (_Request * len(types))(*((kind, window) for kind in types))
        milliseconds = int(min(max(timeout, 0), 0x7fffffff / 1000) * 1000)
        result = _library.vestra_api_ask(handle.value, question, len(types), milliseconds)
        if result != 0:
            text = _library.vestra_api_result_text(result).decode()
            if result == _NO_MEMORY:
                raise MemoryError(text)
            raise {_NO_DAEMON: NoDaemon, _TIMEOUT: Timeout}.get(result, Error)(result, text)
        figures = {VITALS[kind]: Figures(entry.maximum, entry.minimum, entry.average, entry.variance)
                   for kind, entry in zip(types, question)}
        if len(self._questions) >= _QUESTIONS_KEPT:
            self._questions.clear()
        self._questions[types, window] = question
        return figures

    def watch(self, vitals: Vital | Iterable[Vital] = VITALS, window: int = 60, interval: float = 1.0,
              timeout: float = 1.0) -> Iterator[dict[str, Figures]]:
        """Asks every `interval` seconds, for ever. A moment without an answer is left out, so that the recorder may be
        restarted meanwhile."""
        wanted = vitals if isinstance(vitals, (str, int)) else tuple(vitals)
        due = time.monotonic()
        while True:
            try:
                yield self.ask(wanted, window, timeout)
            except (NoDaemon, Timeout):
                pass
            due = max(due + interval, time.monotonic())
            time.sleep(max(due - time.monotonic(), 0))


_shared: Client | None = None


def ask(vitals: Vital | Iterable[Vital] = VITALS, window: int = 60, timeout: float = 1.0) -> dict[str, Figures]:
    """Client.ask with a client that the module opens once and keeps."""
    global _shared
    if _shared is None:
        _shared = Client()
    return _shared.ask(vitals, window, timeout)


def watch(vitals: Vital | Iterable[Vital] = VITALS, window: int = 60, interval: float = 1.0,
          timeout: float = 1.0) -> Iterator[dict[str, Figures]]:
    """Client.watch with a client of its own."""
    with Client() as client:
        yield from client.watch(vitals, window, interval, timeout)
