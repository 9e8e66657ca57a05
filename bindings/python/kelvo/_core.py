"""Start, state, consent, delivery."""

import ctypes
import json
import logging
import os
import re
from typing import Any, Callable, Dict, Optional, Union

from . import _callbacks
from ._library import LEVELS, NONE, FlushResult as _FlushStruct, LogSink, Options, StateCallback, ledger_struct, library, taken_text
from ._types import FlushResult, Ledger, LedgerCounts, Outcome, State, Status
from ._values import text_argument, utf8

_DELIVERY = {None: 0, "classic": 1, "complete": 2}
_PYTHON_LEVELS = {1: logging.DEBUG, 2: logging.INFO, 3: logging.WARNING, 4: logging.ERROR}
_LONGEST_SECONDS = 1e6
_LedgerStruct = ledger_struct(LedgerCounts._fields)


def start(
    app_id: str,
    *,
    server: Optional[str] = None,
    ca_file: Union[str, "os.PathLike[str]", None] = None,
    home: Union[str, "os.PathLike[str]", None] = None,
    program_name: Optional[str] = None,
    user: Optional[str] = None,
    app_name: Optional[str] = None,
    app_version: Optional[str] = None,
    delivery: Optional[str] = None,
    log_level: str = "error",
    log_sink: Optional[Callable[[int, str], object]] = None,
    farewell: bool = False,
    consent_required: bool = False,
    send_ledger: bool = False,
    max_stored_days: Optional[int] = None,
    max_stored_bytes: Optional[int] = None,
    max_held_calls: Optional[int] = None,
    max_waiting_calls: Optional[int] = None,
    journal_bytes: Optional[int] = None,
) -> None:
    """Starts the library. Only the first start of a process counts. Returns before the start-up ends.

    `app_id` is the application's id at the service, and `server` its address (https, or http for this machine). The
    variables KELVO_SERVER_BASE_URL, KELVO_HOME and KELVO_LOG override `server`, `home` and `log_level`. None is the
    default everywhere; of a number, 0 means "no limit", "no held calls" or "no journal".

    `home` is the directory of all data, used by one process at a time: processes of a pool need one each. By default it
    is `${XDG_DATA_HOME:-~/.local/share}/kelvo/<program_name>`; `program_name` is the application's id unless given.
    `delivery` is "complete" (default) or "classic". `log_level` is "debug", "info", "warn", "error" or "off".

    `log_sink(level, line)` gets the log lines in place of standard error, with the levels of `logging`, on the thread of
    callbacks: `log_sink=logging.getLogger("kelvo").log`.
    """
    if app_id is None:
        raise TypeError("app_id must be str, not None")
    options = Options(
        size=ctypes.sizeof(Options),
        app_id=text_argument(app_id, "app_id"),
        server_base_url=text_argument(server, "server"),
        ca_file=os.fsencode(ca_file) if ca_file is not None else None,
        home=os.fsencode(home) if home is not None else None,
        user_identifier=text_argument(user, "user"),
        app_name=text_argument(app_name, "app_name"),
        app_version=text_argument(app_version, "app_version"),
        delivery=_choice(delivery, _DELIVERY, "delivery"),
        log_level=_choice(log_level, LEVELS, "log_level"),
        farewell=farewell,
        consent_required=consent_required,
        send_ledger=send_ledger,
        max_stored_days=_number(max_stored_days, "max_stored_days", none=0),
        max_held_calls=_number(max_held_calls, "max_held_calls"),
        max_waiting_calls=_number(max_waiting_calls, "max_waiting_calls"),
        max_stored_bytes=_number(max_stored_bytes, "max_stored_bytes"),
        journal_bytes=_number(journal_bytes, "journal_bytes"),
        program_name=_file_name(program_name if program_name is not None else app_id),
    )
    if log_sink is not None:
        sink = log_sink
        options.log_sink = _callbacks.add(LogSink(lambda level, line, _: _callbacks.post(
            sink, _PYTHON_LEVELS.get(level, logging.ERROR), line.decode(errors="replace"))))
    library.kelvo_start(ctypes.byref(options))


def on_ready(callback: Callable[[Status], object]) -> None:
    """Has `callback` called with the state of the library as soon as it is known, and again with each new one.

    Callbacks run one at a time on a thread of this package, which also ends with the interpreter. An exception from one
    is one ERROR line.
    """
    if not callable(callback):
        raise TypeError(f"callback must be callable, not {type(callback).__name__}")
    function = _callbacks.add(StateCallback(lambda state, reason, _: _callbacks.post(
        callback, Status(State(state), reason.decode(errors="replace")))))
    library.kelvo_on_ready(function, None)


def set_consent(granted: bool) -> None:
    """Applies the user's decision, and remembers it for later launches. A denial erases everything on this device."""
    if not isinstance(granted, bool):
        raise TypeError(f"granted must be bool, not {type(granted).__name__}")
    library.kelvo_set_consent(1 if granted else 2)


def consent() -> Optional[bool]:
    """Returns the user's decision: whether it was granted, None if it is undecided."""
    return {1: True, 2: False}.get(library.kelvo_get_consent())


def erase() -> None:
    """Erases everything on this device, asks the service to do so, too, and goes on as a new device. Returns at once."""
    library.kelvo_erase()


def describe_data() -> Dict[str, Dict[str, str]]:
    """Returns every kind of data that may be collected, with "what", "purpose", "stored" and "kept" of each."""
    data: Dict[str, Dict[str, str]] = json.loads(taken_text(library.kelvo_describe_data()) or "{}")
    return data


def device_id() -> Optional[str]:
    """Returns the id of this device, None until the start-up has it."""
    return taken_text(library.kelvo_get_device_id())


def flush(seconds: float = 3.0) -> FlushResult:
    """Posts everything that waits. Returns the result when the service has accepted all of it, or nothing more can
    follow, or `seconds` have passed.

    Blocks the calling thread only, a second longer at most. Ctrl-C has its effect afterwards. With 0 or less, the result
    is the state right after the cut.
    """
    result = _FlushStruct(size=ctypes.sizeof(_FlushStruct))
    outcome = library.kelvo_flush_and_wait(int(min(seconds, _LONGEST_SECONDS) * 1000), ctypes.byref(result))
    return FlushResult(Outcome(outcome), result.status, result.delivered_events, result.delivered_chunks,
                       result.waiting_events, result.waiting_chunks, result.reason.decode(errors="replace"))


def ledger() -> Ledger:
    """Returns what became of the events of this process, and of all since the installation or the last erasure."""
    both = [_LedgerStruct(size=ctypes.sizeof(_LedgerStruct)) for _ in range(2)]
    library.kelvo_get_ledger(ctypes.byref(both[0]), ctypes.byref(both[1]))
    return Ledger(*(LedgerCounts(*(getattr(each, name) for name in LedgerCounts._fields)) for each in both))


def _choice(value: Any, numbers: Dict[Any, int], what: str) -> int:
    if value not in numbers:
        raise ValueError(f"{what} must be one of {', '.join(str(each) for each in numbers)}, not {value!r}")
    return numbers[value]


def _number(value: Optional[int], what: str, none: int = NONE) -> int:
    """Returns the number for the library, in which 0 is the default, and `none` what the host's 0 means."""
    if value is None:
        return 0
    if value < 0:
        raise ValueError(f"{what} is negative: {value}")
    return value or none


def _file_name(name: str) -> bytes:
    """Returns `name` as the name of a file. Characters that it cannot have are percent-encoded."""
    if not name.strip("."):
        return name.replace(".", "%2E").encode()
    return re.sub(rb"[^-_.\w]", lambda match: b"%%%02X" % match.group()[0], utf8(name))
