"""Client-side analytics for applications on Linux.

    import kelvo

    kelvo.start("my-app", server="https://analytics.example.com")
    kelvo.log("Purchase", item="book", price=12.5)
    with kelvo.screen("Basket"):
        ...
    kelvo.flush(2.0)

Every function may be called from any thread, at any time: before the start, after the service has switched collection
off, at exit. None but `flush` waits for the network or the disk. After `start`, a call that has returned survives a kill
of the process. What cannot be sent is sent at the next launch.

A TypeError or ValueError comes only for a certain mistake in the program, such as a name that is no text. Anything else
that the library cannot use costs one line of its log, never an exception.

A child of `os.fork`, or of `multiprocessing` with "fork", does nothing, if its parent has called this package. A child
that was started anew may start Kelvo with a home of its own.
"""

from ._core import consent, describe_data, device_id, erase, flush, ledger, on_ready, set_consent, start
from ._events import (Attributes, Screen, did_become_active, log, log_client_event, log_event, log_screen, report, screen,
                      set_session_attributes, set_user, set_user_attributes, will_resign_active)
from ._logging import LoggingHandler
from ._types import FlushResult, Ledger, LedgerCounts, Outcome, State, Status

__all__ = [
    "Attributes", "FlushResult", "Ledger", "LedgerCounts", "LoggingHandler", "Outcome", "Screen", "State", "Status",
    "consent", "describe_data", "device_id", "did_become_active", "erase", "flush", "ledger", "log", "log_client_event",
    "log_event", "log_screen", "on_ready", "report", "screen", "set_consent", "set_session_attributes", "set_user",
    "set_user_attributes", "start", "will_resign_active",
]
