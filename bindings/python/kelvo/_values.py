"""Turns texts and attributes into what the C library takes."""

import datetime
import decimal
import enum
import json.encoder
import math
import numbers
import os
import re
import uuid
from collections.abc import Mapping, Sequence, Set
from typing import Any, Callable, List, Optional

from ._library import LEVELS, library

_DEEPEST = 64  # the library leaves out what is nested deeper
# An integer that no number of the library can hold, not even roughly. It would cost all attributes.
_MOST_DIGITS = 309
_TOO_LARGE = re.compile(r"\d{309}")


def utf8(text: str) -> bytes:
    """Returns UTF-8. A lone surrogate, as in a file name with odd bytes, becomes U+FFFD."""
    try:
        return text.encode()
    except UnicodeEncodeError:
        return text.encode("utf-16", "surrogatepass").decode("utf-16", "replace").encode()


def text_argument(value: Optional[str], what: str) -> Optional[bytes]:
    """Returns the argument for the library, None for None. Raises TypeError if `value` is something else."""
    if isinstance(value, str):
        return utf8(value)
    if value is None:
        return None
    raise TypeError(f"{what} must be str, not {type(value).__name__}")


def _converted(value: Any) -> Any:
    """Returns a value that JSON has for one that it has not. Raises TypeError if there is none."""
    if isinstance(value, enum.Enum):
        return value.value
    if isinstance(value, (datetime.date, datetime.time)):
        return value.isoformat()
    if isinstance(value, (uuid.UUID, os.PathLike)):
        return str(value)
    if isinstance(value, numbers.Integral):
        return int(value)
    if isinstance(value, (numbers.Real, decimal.Decimal)):
        return float(value)
    if isinstance(value, Mapping):
        return dict(value)
    if isinstance(value, (Set, Sequence)) and not isinstance(value, (bytes, bytearray, memoryview)):
        return list(value)
    raise TypeError(f"a value of type {type(value).__name__}")


def _make_encoder() -> Callable[[Any], str]:
    encoder = json.JSONEncoder(ensure_ascii=False, allow_nan=False, check_circular=False, separators=(",", ":"),
                               default=_converted)
    try:
        # What `encoder.encode` would make anew for each call.
        quick: Any = json.encoder.c_make_encoder(  # type: ignore[attr-defined]
            None, _converted, json.encoder.encode_basestring, None, ":", ",", False, False, False)  # type: ignore[attr-defined]
        quick({"a": 1.5}, 0)
    except Exception:  # this interpreter has none, or another one
        return encoder.encode
    return lambda value: "".join(quick(value, 0))


_encode = _make_encoder()


def _cleaned(value: Any, path: str, depth: int, problems: List[str]) -> Any:
    """Returns `value` with only what the library can carry.

    Adds what it leaves out to `problems`, and returns None in its place: the library removes nulls.
    """
    if value is None or isinstance(value, (str, bool)):
        return value
    problem = None
    if depth > _DEEPEST:
        problem = "nested too deep"
    elif isinstance(value, dict):
        return {str(key): _cleaned(each, f"{path}.{key}" if path else str(key), depth + 1, problems)
                for key, each in value.items()}
    elif isinstance(value, (list, tuple)):
        return [_cleaned(each, path, depth + 1, problems) for each in value]
    elif isinstance(value, float):
        if math.isfinite(value):
            return value
        problem = "not a finite number"
    elif isinstance(value, int):
        if -(2**63) <= value < 2**64:
            return value
        try:
            return float(value)
        except OverflowError:
            problem = "too large"
    else:
        try:
            return _cleaned(_converted(value), path, depth + 1, problems)
        except Exception as error:  # also one of the value's own
            problem = str(error)
    problems.append(f"{path} ({problem})")
    return None


def json_text(attributes: Any, call: str) -> bytes:
    """Returns `attributes` as JSON. Values that JSON cannot carry are left out, with one WARN line that names `call`."""
    try:
        text = _encode(attributes)
        if len(text) < _MOST_DIGITS or _TOO_LARGE.search(text) is None:
            return text.encode()
    except Exception:
        pass  # rare: look at each value
    problems: List[str] = []
    cleaned = _cleaned(attributes, "", 0, problems)
    if problems:
        line = f"{call}: attributes are left out: {', '.join(problems)}"
        library.kelvo_write_log_line(LEVELS["warn"], utf8(line.replace("\0", "")))
    return utf8(_encode(cleaned))
