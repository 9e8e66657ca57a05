"""The kit for the tests of a host. Import it before the first call of `kelvo`: it has the library for tests loaded in place
of the real one. That is the same library, but without a network, and with a clock that only the test moves.

    from kelvo.testing import Recorder

    def test_checkout():
        with Recorder() as recorder:
            run_checkout()
            assert recorder.logged("Purchase", price=12.5)
            assert recorder.screens() == ["Basket", "Thank you"]
            recorder.refuse_chunks(503, times=2)
            recorder.advance(timedelta(minutes=31))
            recorder.relaunch()
            assert recorder.delivered("Purchase") == 1

With pytest, the fixture `kelvo_recorder` is such a recorder, and a failed test shows the calls. Without a recorder, nothing
is collected.
"""

import datetime
import json
import os
from ctypes import c_bool, c_char_p, c_double, c_int, c_int64, c_uint32, c_void_p
from typing import Any, Dict, Iterable, List, NamedTuple, Optional, Union

from . import _callbacks
from ._events import Attributes
from ._library import library, taken_text
from ._values import json_text, text_argument

__all__ = ["Call", "Fault", "Logged", "Recorder"]

_LONGEST_WORK_SECONDS = 60.0
_MOST_CALLS_IN_TEXT = 20

library.use_kit(
    {
        "kelvo_testing_begin": (c_void_p,),
        "kelvo_testing_begin_not_started": (),
        "kelvo_testing_end": (),
        "kelvo_testing_message": (),
        "kelvo_testing_logged": (c_char_p, c_char_p),
        "kelvo_testing_events": (),
        "kelvo_testing_screens": (),
        "kelvo_testing_calls": (),
        "kelvo_testing_delivered": (c_char_p,),
        "kelvo_testing_requests": (),
        "kelvo_testing_chunks": (),
        "kelvo_testing_home": (),
        "kelvo_testing_advance": (c_double,),
        "kelvo_testing_now": (),
        "kelvo_testing_settle": (),
        "kelvo_testing_relaunch": (),
        "kelvo_testing_fail": (c_char_p, c_int, c_double, c_uint32),
        "kelvo_testing_recover": (),
        "kelvo_testing_set_enabled": (c_bool,),
        "kelvo_testing_set_lists": (c_char_p, c_char_p, c_char_p),
        "kelvo_testing_configure": (c_char_p, c_char_p),
    },
    {
        **{f"kelvo_testing_{name}": c_bool for name in (
            "begin", "begin_not_started", "end", "logged", "advance", "settle", "relaunch", "fail", "recover", "set_enabled",
            "set_lists", "configure")},
        **{f"kelvo_testing_{name}": c_void_p for name in ("events", "screens", "calls", "requests", "chunks", "home")},
        "kelvo_testing_message": c_char_p,
        "kelvo_testing_delivered": c_int64,
        "kelvo_testing_now": c_double,
    })


class Call(NamedTuple):
    """A call of the host."""

    kind: str  # "application event", "client event", "aggregate event", "custom error", "screen shown" ...
    name: str  # of the event or the screen, the text of the error, the user's id; may be empty
    attributes: Dict[str, Any]  # as the host gave them, without nulls and empty values
    time: datetime.datetime  # of the recorder's clock
    refused: str  # why the library did not take the call; empty if it did

    def __str__(self) -> str:
        parts = [self.kind, self.name, str(self.attributes) if self.attributes else "",
                 f"(refused: {self.refused})" if self.refused else ""]
        return " ".join(part for part in parts if part)


class Logged:
    """Whether the host has made a call. If it has not, `message` lists what it did, and so does the text that a failed
    assertion shows."""

    def __init__(self, is_true: bool, message: str) -> None:
        self._is_true = is_true
        self.message = message

    def __bool__(self) -> bool:
        return self._is_true

    def __repr__(self) -> str:
        return f"<{' | '.join(line.strip() for line in self.message.splitlines())}>"


class Fault(NamedTuple):
    """What the service does in place of its normal answer."""

    kind: int
    number: float = 0.0

    @classmethod
    def status(cls, status: int) -> "Fault":
        """Answers with this status, and keeps nothing."""
        return cls(0, status)

    @classmethod
    def garbage(cls) -> "Fault":
        """Answers 200 with a body that is not JSON, and keeps nothing."""
        return cls(1)

    @classmethod
    def cut(cls) -> "Fault":
        """Ends the connection before an answer, and keeps nothing."""
        return cls(2)

    @classmethod
    def lost_answer(cls) -> "Fault":
        """Keeps what was sent, and ends the connection before the answer."""
        return cls(3)

    @classmethod
    def late(cls, time: Union[datetime.timedelta, float]) -> "Fault":
        """Answers normally, after so much time (seconds) of the recorder's clock. The library waits 30 seconds."""
        return cls(4, _seconds(time))

    @classmethod
    def silence(cls) -> "Fault":
        """Never answers, and keeps nothing."""
        return cls(5)


class Recorder:
    """Runs the library for one test: a fresh home in a temporary directory (in TMPDIR, else /dev/shm), a service in this
    process, and a clock that begins at noon of 1 January 2026 (UTC). Its end leaves no thread, no file and no state behind.

    One recorder lives at a time. Call its methods on the thread that made it, and not in a callback. They wait for the
    library's work under way and for the callbacks of the host, so a test needs no sleep. They raise RuntimeError for a
    wrong use, and if that work does not end within a minute.
    """

    def __init__(self, *, start: bool = True) -> None:
        """Starts the library under the id "test", with the default options, and waits until it is ready. With
        `start=False`, leaves the start to the code under test."""
        begun = library.kelvo_testing_begin(None) if start else library.kelvo_testing_begin_not_started()
        _check(begun)
        self._owner: Optional[int] = os.getpid()

    def close(self) -> None:
        """Ends the library and the recorder. A second call does nothing, nor does one in a forked child."""
        if self._owner == os.getpid():
            self._owner = None
            try:
                self.settle()
            finally:
                _check(library.kelvo_testing_end())

    def __enter__(self) -> "Recorder":
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    # What the host has done, and what has arrived.

    def logged(self, name: str, attributes: Optional[Attributes] = None, /, **more: Any) -> Logged:
        """Returns whether the host has logged an event or an error of this name with at least these attributes."""
        self.settle()
        expected = {**(attributes or {}), **more}
        is_true = library.kelvo_testing_logged(text_argument(name, "name"), json_text(expected, "logged"))
        return Logged(is_true, f"The host has logged {name} {expected or ''}".rstrip() if is_true else _message())

    def events(self) -> List[str]:
        """Returns the names of the events and the errors that the host has logged, in order."""
        return self._list(library.kelvo_testing_events)

    def screens(self) -> List[str]:
        """Returns the names of the screens that were shown, in order: their titles, else their names."""
        return self._list(library.kelvo_testing_screens)

    def calls(self) -> List[Call]:
        """Returns all calls of the host that carry data, of all launches, in order."""
        return [Call(call["kind"], call["name"], call["attributes"], _moment(call["time"]), call["refused"])
                for call in self._list(library.kelvo_testing_calls)]

    def delivered(self, name: str) -> int:
        """Returns how many events of this name the service has accepted: application events, errors (by their text),
        FOREGROUND and BACKGROUND, screens, and the counts of aggregates."""
        self.settle()
        count: int = library.kelvo_testing_delivered(text_argument(name, "name"))
        _check(count >= 0)
        return count

    def requests(self) -> List[str]:
        """Returns the requests that arrived at the service, as "METHOD /path?query", in order."""
        return self._list(library.kelvo_testing_requests)

    def chunks(self) -> List[Dict[str, Any]]:
        """Returns the chunks that the service has accepted, each once, in the order of their arrival."""
        return self._list(library.kelvo_testing_chunks)

    def home(self) -> str:
        """Returns the path of the home."""
        return _text(library.kelvo_testing_home())

    def __str__(self) -> str:
        """Returns the latest calls of the host, one line each."""
        calls = self.calls()
        left_out = max(len(calls) - _MOST_CALLS_IN_TEXT, 0)
        lines = [f"... ({left_out} earlier ones)"] if left_out else []
        return "\n".join(lines + [str(call) for call in calls[left_out:]]) or "no calls that carry data"

    # Time and launches.

    def advance(self, time: Union[datetime.timedelta, float]) -> None:
        """Moves the clock by `time` (seconds). What becomes due meanwhile happens in order, each at its own time."""
        self.settle()
        _check(library.kelvo_testing_advance(_seconds(time)))
        self.settle()

    def now(self) -> datetime.datetime:
        """Returns the time of the recorder's clock."""
        return _moment(library.kelvo_testing_now())

    def settle(self) -> None:
        """Waits until the library has done all its work but timers, and the host its callbacks."""
        _callbacks.settle(lambda: _check(library.kelvo_testing_settle()), _LONGEST_WORK_SECONDS)

    def relaunch(self) -> None:
        """Ends the use of the library as an exit does, and begins the next launch, a second later, in the same home. The
        library starts again if the recorder has started it."""
        self.settle()
        _check(library.kelvo_testing_relaunch())
        self.settle()

    # The service. Without faults, it accepts everything that is valid.

    def refuse_chunks(self, status: int, times: int = 0) -> None:
        """Answers the next `times` uploads of chunks with this status; all of them if `times` is 0."""
        self.fail("/chunks", Fault.status(status), times)

    def fail(self, part: str, fault: Fault, times: int = 0) -> None:
        """The next `times` requests that contain `part` in "METHOD /path?query" meet the fault; all of them if `times` is 0.
        It replaces the earlier fault of the same `part`; of several that match, the latest counts."""
        _check(library.kelvo_testing_fail(text_argument(part, "part"), fault.kind, fault.number, times))

    def recover(self) -> None:
        """Ends all faults."""
        _check(library.kelvo_testing_recover())

    def set_enabled(self, enabled: bool) -> None:
        """Switches collection on or off for the application. The library sees it at its next launch."""
        _check(library.kelvo_testing_set_enabled(enabled))

    def set_lists(self, *, client: Iterable[str] = (), aggregate: Iterable[str] = (), ignored: Iterable[str] = ()) -> None:
        """Sets the lists of event names. The library sees them at its next launch."""
        _check(library.kelvo_testing_set_lists(*(json.dumps(list(each)).encode() for each in (client, aggregate, ignored))))

    def configure(self, key: str, value: Any) -> None:
        """Sets one member of the configuration, such as "max_fg_chunk_send_time". The library sees it at its next launch."""
        _check(library.kelvo_testing_configure(text_argument(key, "key"), json.dumps(value).encode()))

    def _list(self, function: Any) -> List[Any]:
        self.settle()
        elements: List[Any] = json.loads(_text(function()))
        return elements


def _message() -> str:
    message: bytes = library.kelvo_testing_message()
    return message.decode(errors="replace")


def _check(is_done: bool) -> None:
    if not is_done:
        raise RuntimeError(_message())


def _text(address: Optional[int]) -> str:
    """Returns the text that a function of the kit has returned. Raises RuntimeError if there is none."""
    text = taken_text(address)
    if text is None:
        raise RuntimeError(_message())
    return text


def _seconds(time: Union[datetime.timedelta, float]) -> float:
    return time.total_seconds() if isinstance(time, datetime.timedelta) else time


def _moment(seconds: float) -> datetime.datetime:
    return datetime.datetime.fromtimestamp(seconds, datetime.timezone.utc)
