"""Events, errors, screens and attributes."""

import contextvars
import traceback
from typing import Any, Mapping, Optional, Tuple, Union

from ._library import library
from ._values import json_text, text_argument

Attributes = Mapping[str, Any]

_FLATTEN = 1
_MOST_FRAMES = 20  # of a traceback, the innermost ones


def log(name: str, attributes: Optional[Attributes] = None, /, **more: Any) -> None:
    """Logs an event of the application: `log("Purchase", item="book", price=12.5)`.

    `attributes` has those whose names are no identifiers: `log("Purchase", {"unit price": 12.5}, item="book")`. Texts,
    bools, integers of 64 bits, finite floats, dicts and sequences of them stay what they are. A larger integer becomes a
    float. Dates, UUIDs and paths become text; decimals, and numbers of other libraries, become numbers; an enum becomes
    its value. Any other value is left out, with one WARN line. Returns at once, and may be called at any time, from any thread.
    """
    if attributes:
        more = {**attributes, **more}
    library.kelvo_log_app_event_json(
        text_argument(name, "name"), json_text(more, "log") if more else None, 0)


def log_event(name: str, attributes: Optional[Attributes] = None, *, flatten: bool = False,
              aggregate: bool = False) -> None:
    """As `log`, with options.

    With `flatten`, entries of a nested dict become attributes of their own, under keys joined by "_"; otherwise it
    becomes JSON text. An `aggregate` event is not stored: the session counts its name, and each value of each attribute.
    """
    function = library.kelvo_log_aggregate_event_json if aggregate else library.kelvo_log_app_event_json
    function(text_argument(name, "name"), _optional(attributes, "log_event"), _FLATTEN if flatten else 0)


def log_client_event(name: str, attributes: Optional[Attributes] = None, *, flatten: bool = False) -> None:
    """Logs an event for the plug-ins on this device: it is counted, but neither stored nor sent."""
    library.kelvo_log_client_event_json(
        text_argument(name, "name"), _optional(attributes, "log_client_event"), _FLATTEN if flatten else 0)


def report(error: Union[BaseException, str], attributes: Optional[Attributes] = None, /, **more: Any) -> None:
    """Reports an error in the host, which is stored and sent as an incident.

    Of an exception, the description is its type and text, and the attribute "traceback" has its innermost frames, the
    last one last: file, line and function, without source.
    """
    facts = {**(attributes or {}), **more}
    if isinstance(error, BaseException):
        frames = [f"{frame.f_code.co_filename}:{line} {frame.f_code.co_name}"
                  for frame, line in traceback.walk_tb(error.__traceback__)]
        facts.setdefault("traceback", "\n".join(frames[-_MOST_FRAMES:]))
        error = _described(error)
    library.kelvo_report_custom_error_json(text_argument(error, "error"), _optional(facts, "report"))


def set_user(identifier: str) -> None:
    """Sets the host's own id of its user."""
    library.kelvo_set_user_identifier(text_argument(identifier, "identifier"))


def set_user_attributes(attributes: Optional[Attributes] = None, /, **more: Any) -> None:
    """Adds attributes to the user, or replaces those of the same name. Later launches keep them."""
    library.kelvo_set_user_custom_info_json(json_text({**(attributes or {}), **more}, "set_user_attributes"))


def set_session_attributes(attributes: Optional[Attributes] = None, /, **more: Any) -> None:
    """Adds attributes to the current session, or replaces those of the same name."""
    library.kelvo_set_session_custom_info_json(json_text({**(attributes or {}), **more}, "set_session_attributes"))


class Screen:
    """A screen that was shown. As a context manager, it shows the screen around it again at the end of its block."""

    def __init__(self, name: str, title: Optional[str]) -> None:
        self._place = (text_argument(name, "name"), text_argument(title, "title"))
        self._around: Optional[_Place] = None
        library.kelvo_show(*self._place)

    def __enter__(self) -> "Screen":
        self._around = _shown.get()
        _shown.set(self._place)
        return self

    def __exit__(self, *_: object) -> None:
        _shown.set(self._around)
        if self._around is not None:
            library.kelvo_show(*self._around)


_Place = Tuple[Optional[bytes], Optional[bytes]]
# The screen of the innermost open block, of each thread and each asyncio task.
_shown: "contextvars.ContextVar[Optional[_Place]]" = contextvars.ContextVar("kelvo screen", default=None)


def screen(name: str, title: Optional[str] = None) -> Screen:
    """Reports that the user now sees the screen `name`.

    The library records a screen, with the seconds that it was shown, when the next screen appears or the application
    leaves the foreground. `with screen("Basket"):` shows the screen around it again at the end; without one around it,
    the stay goes on.
    """
    return Screen(name, title)


def log_screen(title: str) -> None:
    """Reports that the user now sees `title`, a named part of the screen that was shown last."""
    library.kelvo_log_screen(text_argument(title, "title"))


def did_become_active() -> None:
    """Reports that the application came to the foreground. A service is in the foreground as long as it runs."""
    library.kelvo_did_become_active()


def will_resign_active() -> None:
    """Reports that the application leaves the foreground. The library then sends all events of earlier calls."""
    library.kelvo_will_resign_active()


def _described(error: BaseException) -> str:
    kind = type(error)
    name = kind.__qualname__ if kind.__module__ in ("builtins", "__main__") else f"{kind.__module__}.{kind.__qualname__}"
    try:
        return f"{name}: {error}" if str(error) else name
    except Exception:  # of the host's class
        return name


def _optional(attributes: Optional[Attributes], call: str) -> Optional[bytes]:
    return json_text({**attributes}, call) if attributes else None
