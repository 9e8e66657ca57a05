"""The values that this package returns."""

import enum
from typing import NamedTuple


class State(enum.IntEnum):
    """What the library does at present."""

    UNKNOWN = -1  # a state of a later version
    RUNNING = 0
    WAITING_FOR_CONSENT = 1
    CONSENT_DENIED = 2
    DISABLED_BY_SERVICE = 3
    SWITCHED_OFF_HERE = 4
    HOME_IN_USE = 5
    FAILED = 6

    @classmethod
    def _missing_(cls, value: object) -> "State":
        return cls.UNKNOWN


class Status(NamedTuple):
    state: State
    reason: str  # one sentence for people, never empty


class Outcome(enum.IntEnum):
    """How a flush ended."""

    UNKNOWN = -1  # an outcome of a later version
    DELIVERED = 0
    DEADLINE = 1
    NO_SERVICE = 2
    REFUSED = 3
    NOT_COLLECTING = 4
    INSIDE_CALLBACK = 5

    @classmethod
    def _missing_(cls, value: object) -> "Outcome":
        return cls.UNKNOWN


class FlushResult(NamedTuple):
    outcome: Outcome
    status: int  # the HTTP status of the latest refusal, else 0
    delivered_events: int
    delivered_chunks: int
    waiting_events: int
    waiting_chunks: int
    reason: str  # one sentence for people; empty if all was delivered

    @property
    def delivered(self) -> bool:
        """Whether the service has accepted everything."""
        return self.outcome is Outcome.DELIVERED


class LedgerCounts(NamedTuple):
    """What became of events. Each logged event is in exactly one of the places from `refused_nameless` to `not_stored`."""

    logged: int
    refused_nameless: int
    refused_uncleanable: int
    refused_disabled: int
    refused_terminated: int
    refused_storm: int
    held: int
    dropped_before_consent: int
    ignored: int
    counted: int
    for_plugins: int
    waiting_in_memory: int
    rescued: int
    stored: int
    not_stored: int
    # Of the stored events:
    not_for_upload: int
    sent: int
    accepted: int
    waiting: int
    evicted_for_space: int
    evicted_for_age: int
    lost: int


class Ledger(NamedTuple):
    this_process: LedgerCounts
    since_installation: LedgerCounts
