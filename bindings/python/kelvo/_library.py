"""Finds the C library, loads it at the first call, and declares the functions and structs that this package uses."""

import ctypes
import glob
import os
import threading
from ctypes import POINTER, Structure, c_bool, c_char, c_char_p, c_int, c_int32, c_int64, c_size_t, c_uint32, c_uint64, c_void_p
from typing import Any, Callable, Dict, Optional, Tuple

NAME = "libkelvo-c.so.1"
TESTING_NAME = "libkelvo-c-testing.so.1"
NONE = 2**64 - 1  # a number in `Options`: no limit, no calls, or no journal
LEVELS = {"debug": 1, "info": 2, "warn": 3, "error": 4, "off": 5}

StateCallback = ctypes.CFUNCTYPE(None, c_int, c_char_p, c_void_p)
LogSink = ctypes.CFUNCTYPE(None, c_int, c_char_p, c_void_p)


class Options(Structure):
    _fields_ = [
        ("size", c_size_t),
        ("app_id", c_char_p),
        ("server_base_url", c_char_p),
        ("ca_file", c_char_p),
        ("home", c_char_p),
        ("user_identifier", c_char_p),
        ("app_name", c_char_p),
        ("app_version", c_char_p),
        ("delivery", c_int),
        ("log_level", c_int),
        ("log_sink", LogSink),
        ("log_context", c_void_p),
        ("farewell", c_bool),
        ("consent_required", c_bool),
        ("send_ledger", c_bool),
        ("max_stored_days", c_uint32),
        ("max_held_calls", c_uint64),
        ("max_waiting_calls", c_uint64),
        ("max_stored_bytes", c_uint64),
        ("journal_bytes", c_uint64),
        ("program_name", c_char_p),
    ]


class FlushResult(Structure):
    _fields_ = [
        ("size", c_size_t),
        ("outcome", c_int),
        ("status", c_int32),
        ("delivered_events", c_uint64),
        ("delivered_chunks", c_uint64),
        ("waiting_events", c_uint64),
        ("waiting_chunks", c_uint64),
        ("reason", c_char * 256),
    ]


def ledger_struct(counts: Tuple[str, ...]) -> Any:
    """Returns the struct of a ledger whose members are `counts`."""
    fields = [("size", c_size_t)] + [(count, c_uint64) for count in counts]
    return type("Ledger", (Structure,), {"_fields_": fields})


# Functions that only take or copy values keep the interpreter's lock. A function that releases it may wait for
# milliseconds until a busy thread gives it back. None of these functions calls back or waits.
_QUICK: Dict[str, Tuple[Any, ...]] = {
    "kelvo_log_app_event_json": (c_char_p, c_char_p, c_uint32),
    "kelvo_log_client_event_json": (c_char_p, c_char_p, c_uint32),
    "kelvo_log_aggregate_event_json": (c_char_p, c_char_p, c_uint32),
    "kelvo_report_custom_error_json": (c_char_p, c_char_p),
    "kelvo_set_user_custom_info_json": (c_char_p,),
    "kelvo_set_session_custom_info_json": (c_char_p,),
    "kelvo_set_user_identifier": (c_char_p,),
    "kelvo_log_screen": (c_char_p,),
    "kelvo_show": (c_char_p, c_char_p),
    "kelvo_did_become_active": (),
    "kelvo_will_resign_active": (),
    "kelvo_write_log_line": (c_int, c_char_p),
}
# Others may read a file, call back on this thread, or wait.
_SLOW: Dict[str, Tuple[Any, ...]] = {
    "kelvo_start": (POINTER(Options),),
    "kelvo_on_ready": (StateCallback, c_void_p),
    "kelvo_set_log_sink": (LogSink, c_void_p),
    "kelvo_stop_callbacks": (),
    "kelvo_set_consent": (c_int,),
    "kelvo_get_consent": (),
    "kelvo_erase": (),
    "kelvo_describe_data": (),
    "kelvo_get_device_id": (),
    "kelvo_flush_and_wait": (c_int64, POINTER(FlushResult)),
    "kelvo_get_ledger": (c_void_p, c_void_p),
    "kelvo_free": (c_void_p,),
}
_RESULTS: Dict[str, Any] = {
    "kelvo_get_consent": c_int,
    "kelvo_flush_and_wait": c_int,
    "kelvo_describe_data": c_void_p,
    "kelvo_get_device_id": c_void_p,
}


def _system_has(name: str) -> bool:
    """Returns whether the loader will find a library by its name. Loads nothing."""
    places = os.environ.get("LD_LIBRARY_PATH", "").replace(";", ":").split(":")
    places += ["/lib", "/usr/lib", "/lib64", "/usr/lib64"]
    if any(os.path.exists(os.path.join(place, name)) for place in places if place):
        return True
    try:
        with open("/etc/ld.so.cache", "rb") as cache:
            return name.encode() + b"\0" in cache.read()
    except OSError:
        return False


def find(name: str, variable: str, package: str) -> str:
    """Returns what to load: the file that the environment's `variable` names, else the one in this folder, else the
    system's, of the Debian package `package`.

    Raises ImportError if there is none. Loads nothing.
    """
    folder = os.path.dirname(os.path.abspath(__file__))
    beside = os.path.join(folder, name)
    given = os.environ.get(variable)
    if given:
        if os.path.exists(given):
            return os.path.abspath(given)
        raise ImportError(f"{variable} names no file: {given}")
    if os.path.exists(beside):
        return beside
    if _system_has(name):
        return name
    copied = f"{name} and libkelvo.so.*" if name == NAME else name
    raise ImportError(f"kelvo needs the library {name}: install the Debian package {package}, or copy {copied} into "
                      f"{folder}, or let {variable} name the file")


class Library:
    """The functions of the C library as attributes. The first use of one loads the library.

    A loaded library works at the end of the process, and does nothing in children that are forked later. So a program
    that imports this package and never calls it has no library.
    """

    def __init__(self) -> None:
        self._path = find(NAME, "KELVO_LIBRARY", "kelvo-c")
        self._of_kit: Dict[str, Tuple[Any, ...]] = {}
        self._results = _RESULTS
        self._lock = threading.RLock()  # a signal handler may call in the middle of loading
        # No thread may be in the middle of loading when the process forks.
        os.register_at_fork(before=self._lock.acquire, after_in_parent=self._lock.release,
                            after_in_child=self._lock.release)

    def __getattr__(self, name: str) -> Any:  # called for names that are not set yet
        if not name.startswith("kelvo_"):
            raise AttributeError(name)
        with self._lock:
            if name not in self.__dict__:
                self._load()
        return self.__dict__[name]

    def use_kit(self, functions: Dict[str, Tuple[Any, ...]], results: Dict[str, Any]) -> None:
        """Has the kit's library, which also has `functions`, loaded in place of the library.

        Raises RuntimeError if the library is loaded already, ImportError if there is no kit.
        """
        with self._lock:
            if "kelvo_start" in self.__dict__:
                raise RuntimeError(f"kelvo was called before kelvo.testing was imported, so this process has {NAME} "
                                   f"already: import kelvo.testing first, for example in conftest.py")
            self._path = find(TESTING_NAME, "KELVO_TESTING_LIBRARY", "kelvo-dev")
            self._of_kit = functions
            self._results = {**_RESULTS, **results}

    def _load(self) -> None:
        try:
            # The loader does not look beside a library for those that it needs. The kit's needs none of ours.
            if os.path.isabs(self._path) and not self._of_kit:
                for needed in glob.glob(os.path.join(glob.escape(os.path.dirname(self._path)), "libkelvo.so.*")):
                    ctypes.CDLL(needed)
            loaders: Tuple[Tuple[Callable[[str], Any], Dict[str, Tuple[Any, ...]]], ...] = (
                (ctypes.PyDLL, _QUICK), (ctypes.CDLL, {**_SLOW, **self._of_kit}))
            for load, functions in loaders:
                library = load(self._path)
                for name, arguments in functions.items():
                    function = getattr(library, name)
                    function.argtypes = arguments
                    function.restype = self._results.get(name)
                    setattr(self, name, function)
        except (OSError, AttributeError) as error:
            raise ImportError(f"kelvo cannot use {self._path}: {error}") from error


library = Library()


def taken_text(address: Optional[int]) -> Optional[str]:
    """Returns the text that a function of the library has returned, and releases it."""
    if address is None:
        return None
    try:
        return ctypes.string_at(address).decode(errors="replace")
    finally:
        library.kelvo_free(address)
