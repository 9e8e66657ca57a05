"""The plug-in for pytest: the fixture `kelvo_recorder`. It loads nothing in a run in which no test uses that fixture."""

from typing import TYPE_CHECKING, Any, Generator, Iterator

import pytest

if TYPE_CHECKING:
    from kelvo.testing import Recorder


@pytest.fixture
def kelvo_recorder() -> Iterator["Recorder"]:
    """A `kelvo.testing.Recorder` that has started the library. If the test fails, its report has the host's calls."""
    from kelvo.testing import Recorder

    with Recorder() as recorder:
        yield recorder


def pytest_collection_finish(session: pytest.Session) -> None:
    """Has the library for tests loaded, before an earlier test calls `kelvo`."""
    if any("kelvo_recorder" in getattr(item, "fixturenames", ()) for item in session.items):
        try:
            import kelvo.testing  # noqa: F401
        except (ImportError, RuntimeError):
            pass  # the fixture says why


@pytest.hookimpl(hookwrapper=True)  # type: ignore[misc]  # pluggy has no types
def pytest_runtest_makereport(item: pytest.Item) -> Generator[None, Any, None]:
    report = (yield).get_result()
    recorder = getattr(item, "funcargs", {}).get("kelvo_recorder")
    if recorder is not None and report.when == "call" and report.failed:
        try:
            report.sections.append(("Kelvo: calls of the host", str(recorder)))
        except RuntimeError as error:  # the test has closed it, or a callback hangs
            report.sections.append(("Kelvo", str(error)))
