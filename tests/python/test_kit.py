"""The kit for the tests of a host in Python, as such tests use it: with pytest and its fixture."""

import datetime
import os
import pathlib
import time

import pytest

import kelvo
from kelvo.testing import Fault, Recorder

pytest_plugins = ["pytester"]


def run_checkout():
    kelvo.screen("Basket")
    kelvo.log("Purchase", item="book", price=12.5, day=datetime.date(2024, 2, 29))
    kelvo.screen("thanks", "Thank you")


def test_a_recorder_shows_what_a_host_does_and_what_arrives(kelvo_recorder):
    begin = kelvo_recorder.now()
    run_checkout()
    kelvo.report(ValueError("no paper"))
    assert kelvo_recorder.logged("Purchase", {"price": 12.5}, day=datetime.date(2024, 2, 29))
    assert not kelvo_recorder.logged("Purchase", price=13)
    assert kelvo_recorder.events() == ["Purchase", "ValueError: no paper"]
    assert kelvo_recorder.screens() == ["Basket", "Thank you"]
    purchase = kelvo_recorder.calls()[1]
    assert (purchase.kind, purchase.attributes["item"], purchase.time) == ("application event", "book", begin)
    kelvo_recorder.refuse_chunks(503, times=2)
    kelvo_recorder.advance(datetime.timedelta(minutes=31))
    assert kelvo_recorder.now() - begin == datetime.timedelta(minutes=31)
    kelvo_recorder.relaunch()
    assert [kelvo_recorder.delivered(name) for name in ("Purchase", "Thank you")] == [1, 1]
    assert sum("/chunks" in request for request in kelvo_recorder.requests()) > 3
    assert kelvo_recorder.chunks()[0]["chunk_meta"]["number"] == 1


def test_an_erasure_makes_a_new_device_and_empties_the_service(kelvo_recorder):
    kelvo.log("Old")
    kelvo_recorder.advance(30)
    assert kelvo_recorder.delivered("Old") == 1
    device = kelvo.device_id()
    kelvo.erase()
    kelvo.log("New")
    kelvo_recorder.advance(30)
    assert [kelvo_recorder.delivered(name) for name in ("Old", "New")] == [0, 1]
    assert kelvo.device_id() not in (device, None)


@pytest.mark.parametrize("fault, delivered", [
    (Fault.status(500), 0), (Fault.garbage(), 0), (Fault.cut(), 0), (Fault.silence(), 0), (Fault.lost_answer(), 1),
    (Fault.late(20), 1)])
def test_the_service_fails_as_a_test_wants(kelvo_recorder, fault, delivered):
    kelvo_recorder.fail("POST", fault)
    kelvo.log("Event")
    kelvo_recorder.advance(51)
    assert kelvo_recorder.delivered("Event") == delivered
    assert (kelvo.ledger().this_process.accepted == 0) == (fault not in (Fault.late(20), Fault.garbage()))
    kelvo_recorder.recover()
    kelvo_recorder.advance(600)
    assert kelvo_recorder.delivered("Event") == (0 if fault == Fault.garbage() else 1)


def test_the_documents_of_the_service_take_effect_at_the_next_launch(kelvo_recorder):
    kelvo_recorder.set_lists(client=["Client"], aggregate=["Rate"], ignored=["Debug"])
    kelvo_recorder.configure("max_fg_chunk_send_time", 300)
    for _ in range(2):  # the lists do not classify what is logged before they arrive
        kelvo_recorder.relaunch()
    for name in ("Plain", "Client", "Rate", "Rate", "Debug"):
        kelvo.log(name)
    kelvo_recorder.advance(299)
    assert kelvo_recorder.delivered("Plain") == 0
    kelvo_recorder.advance(1)
    assert [kelvo_recorder.delivered(name) for name in ("Plain", "Client", "Rate", "Debug")] == [1, 0, 2, 0]
    kelvo_recorder.set_enabled(False)
    kelvo_recorder.relaunch()
    kelvo.log("Disabled")
    assert not kelvo_recorder.logged("Disabled")


def test_recorders_wait_for_the_callbacks_of_the_host_and_leave_no_home():
    refusals = []

    def logs(status):
        kelvo.log("Ready", state=status.state.name)

    def waits(status):
        try:
            recorder.settle()
        except RuntimeError as error:
            refusals.append(str(error))

    for turn in range(1, 21):
        with Recorder(start=False) as recorder:
            kelvo.on_ready(lambda status: time.sleep(0.01) or kelvo.on_ready(logs))
            kelvo.on_ready(waits)
            kelvo.start("shop")
            assert recorder.logged("Ready", state="RUNNING")
            assert recorder.events() == ["Ready"]
            recorder.advance(30)
            assert recorder.delivered("Ready") == 1
            assert refusals == ["a callback must not wait for the library"] * turn
            home = pathlib.Path(recorder.home())
            with pytest.raises(RuntimeError, match="Another .*Recorder lives"):
                Recorder()
        assert not home.exists()
        with pytest.raises(RuntimeError, match="No recorder lives"):
            recorder.events()
        kelvo.log("Nobody collects this")


def test_a_forked_child_leaves_the_recorder_alone(kelvo_recorder):
    child = os.fork()
    if child == 0:
        kelvo_recorder.close()
        os._exit(0 if os.path.exists(kelvo_recorder.home()) else 1)
    assert os.waitpid(child, 0)[1] == 0
    kelvo.log("Event")
    kelvo_recorder.advance(30)
    assert kelvo_recorder.delivered("Event") == 1


def test_a_failed_test_shows_the_calls_of_the_host(pytester):
    pytester.makepyfile("""
        import kelvo
        def test_before():
            kelvo.log("Nobody collects this")
        def test_checkout(kelvo_recorder):
            kelvo.log("Purchase", price=12.5)
            assert kelvo_recorder.logged("Refund")
    """)
    result = pytester.runpytest_subprocess("-p", "pytest_kelvo")
    result.assert_outcomes(passed=1, failed=1)
    result.stdout.fnmatch_lines([
        'E  *assert <Expected event: Refund | The host has made 1 calls: | application event Purchase {"price":12.5}>',
        "*Kelvo: calls of the host*", "application event Purchase {'price': 12.5}"])


def test_a_kit_that_comes_too_late_or_is_missing_says_what_to_do(pytester, monkeypatch):
    pytester.makepyfile("""
        import kelvo
        kelvo.consent()
        def test_checkout(kelvo_recorder):
            pass
    """)
    result = pytester.runpytest_subprocess("-p", "pytest_kelvo")
    result.assert_outcomes(errors=1)
    result.stdout.fnmatch_lines(["*RuntimeError: kelvo was called before*import kelvo.testing first*conftest.py"])
    monkeypatch.setenv("KELVO_TESTING_LIBRARY", "/nowhere")
    pytester.makepyfile("def test_checkout(kelvo_recorder): pass")
    result = pytester.runpytest_subprocess("-p", "pytest_kelvo")
    result.stdout.fnmatch_lines(["*ImportError: KELVO_TESTING_LIBRARY names no file: /nowhere"])
