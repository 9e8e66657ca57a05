"""Runs the host's callbacks on one daemon thread of this package, never on a thread of the library.

The library's threads only put a task into a queue. So a callback may do anything, also block, flush or raise, and the
interpreter can end while the library still has threads.
"""

import atexit
import os
import queue
import threading
from typing import Any, Callable, List, Optional, Tuple

from ._library import LEVELS, LogSink, library
from ._values import utf8

_END_SECONDS = 1.0  # the end of the interpreter waits for a callback at most so long
_MOST_WAITING = 10_000  # tasks of a callback that is slow; later ones are left out

_tasks: "queue.SimpleQueue[Optional[Tuple[Callable[..., object], Tuple[Any, ...]]]]" = queue.SimpleQueue()
_lock = threading.RLock()
_thread: Optional[threading.Thread] = None
_kept: List[Any] = []  # what the library calls: it keeps addresses only
_run_count = 0  # of tasks that have run


def _run() -> None:
    global _run_count
    while True:
        task = _tasks.get()
        if task is None:
            return
        function, arguments = task
        try:
            function(*arguments)
        except BaseException as error:  # also sys.exit, which would end this thread only
            line = f"a callback of the host has raised {type(error).__name__}: {error}"
            library.kelvo_write_log_line(LEVELS["error"], utf8(line.replace("\0", "")))
        _run_count += 1


def _end() -> None:
    """Lets no callback come any more. A thread of the library that entered a dead interpreter would end the process."""
    if any(isinstance(each, LogSink) for each in _kept):
        library.kelvo_set_log_sink(LogSink(0), None)  # the last lines go to standard error
    library.kelvo_stop_callbacks()
    _tasks.put(None)
    if _thread is not None:
        _thread.join(_END_SECONDS)


def add(function: Any) -> Any:
    """Returns `function`, a ctypes callback that calls `post`, for the library. Starts the thread, once."""
    global _thread
    with _lock:
        _kept.append(function)
        if _thread is None:
            _thread = threading.Thread(target=_run, name="kelvo.callbacks", daemon=True)
            _thread.start()
            atexit.register(_end)
    return function


def _renew_lock() -> None:
    """Runs in the child of a fork: a thread that only the parent has may hold the lock."""
    global _lock
    _lock = threading.RLock()


os.register_at_fork(after_in_child=_renew_lock)


def post(function: Callable[..., object], *arguments: Any) -> None:
    """Has the thread call `function`. Called on a thread of the library."""
    if _tasks.qsize() < _MOST_WAITING:
        _tasks.put((function, arguments))


def _finished(seconds: float) -> int:
    """Waits until all tasks that were posted before have run. Returns how many tasks have ever run."""
    counts: List[int] = []
    has_counted = threading.Event()

    def count() -> None:
        counts.append(_run_count)
        has_counted.set()

    _tasks.put((count, ()))
    if not has_counted.wait(seconds):
        raise RuntimeError(f"a callback is still at work after {seconds:g} seconds")
    return counts[0]


def settle(settle_library: Callable[[], object], seconds: float) -> None:
    """Waits until neither the library nor a callback has work, by calling `settle_library` as often as needed.

    Raises RuntimeError in a callback, and if the callbacks are still at work after `seconds`.
    """
    if is_current():
        raise RuntimeError("a callback must not wait for the library")
    if _thread is None:
        settle_library()
        return
    before = _finished(seconds)
    while True:
        settle_library()
        now = _finished(seconds)
        if now == before + 1:  # only the earlier count has run in between, so no callback gave the library new work
            return
        before = now


def is_current() -> bool:
    """Returns whether the calling thread is the one that runs the callbacks."""
    return _thread is not None and threading.get_ident() == _thread.ident
