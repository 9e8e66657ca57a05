"""Each call of the package, against the real library and a collector."""

import unittest

from support import Road


class Calls(Road):
    def test_each_arrives_as_it_was_made(self):
        device = self.run_host("""
            import logging
            kelvo.start("shop", user="u-1", app_name="Shop", app_version="1.2")
            kelvo.did_become_active()
            kelvo.set_user_attributes({"favourite colour": "blue"}, plan="gold")
            kelvo.set_session_attributes(entrance="search")
            kelvo.log("Purchase", {"unit price": 12.5, "item": "replaced"}, item="book")
            kelvo.log("Purchase")
            kelvo.log_event("Order", {"to": {"city": "Bern"}}, flatten=True)
            kelvo.log_event("Scroll", {"page": "home"}, aggregate=True)
            kelvo.log_client_event("Hint")
            with kelvo.screen("Shop"):
                with kelvo.screen("Basket", "Your basket"):
                    kelvo.log_screen("Coupon")
            log = logging.getLogger("shop")
            log.addHandler(kelvo.LoggingHandler())
            try:
                raise ValueError("no stock")
            except ValueError as error:
                kelvo.report(error, {"order id": 7})
                log.exception("cannot order %s", "a pen")
            log.error("Out of %s", "paper")
            log.warning("not an error")
            kelvo.will_resign_active()
            result = kelvo.flush(20)
            assert result.delivered and result.reason == "" and result.waiting_events == 0, result
            assert kelvo.ledger().this_process.accepted == result.delivered_events
            assert kelvo.consent() is True and "what" in kelvo.describe_data()["device_info.hardware_model"]
            print(kelvo.device_id())
        """).strip()
        counts = self.counts()
        self.assertEqual({name: counts.get(name) for name in ("Purchase", "Order", "Scroll", "Hint")},
                         {"Purchase": 2, "Order": 1, "Scroll": 1, "Hint": None})
        self.assertEqual(self.attributes("Purchase"), [{"unit price": 12.5, "item": "book"}, {}])
        self.assertEqual(self.attributes("Order"), [{"to_city": "Bern"}])
        screens = self.ask("/debug/events", kind="navigation")["events"]
        self.assertEqual([screen["name"] for screen in screens], ["Shop", "Your basket", "Coupon", "Shop"])
        errors = [event["attributes"] for event in self.ask("/debug/events", kind="observation")["events"]]
        self.assertEqual([(error.get("error_message"), error.get("message"), "traceback" in error) for error in errors],
                         [("ValueError: no stock", None, True), ("ValueError: no stock", "cannot order a pen", True),
                          ("Out of paper", None, False)])
        self.assertEqual(errors[0]["order id"], 7)
        session = self.ask("/debug/sessions")["sessions"][0]
        self.assertEqual([session[key] for key in ("application", "user", "app_name", "app_version", "device")],
                         ["shop", "u-1", "Shop", "1.2", device])
        records = str(self.ask("/debug/session", id=session["id"]))
        for text in ("'favourite colour': 'blue'", "'plan': 'gold'", "'entrance': 'search'"):
            self.assertIn(text, records)

    def test_values_become_json_or_are_left_out_with_one_line(self):
        self.run_host("""
            import collections, datetime, decimal, enum, fractions, pathlib, uuid
            Size = enum.Enum("Size", {"LARGE": "large"})
            endless = {}
            endless["itself"] = endless
            kelvo.start("shop", log_level="warn")
            kelvo.log("Odd \\udcff", {
                "text": "Zürich \\U0001f4d6", "zero": "a\\0b", "surrogate": "\\udcff", "bool": False, "small": -2**63,
                "big": 2**64 - 1, "float": 0.1, "decimal": decimal.Decimal("12.5"), "fraction": fractions.Fraction(1, 4),
                "enum": Size.LARGE, "day": datetime.date(2024, 2, 29), "path": pathlib.PurePath("/a"),
                "uuid": uuid.UUID(int=1), "list": (1, "b"), "map": collections.UserDict(a=1), 7: "key", "null": None})
            kelvo.log("Rest", {"nan": float("nan"), "huge": 10**400, "bytes": b"x", "object": object(),
                               "endless": endless, ("a", 1): "pair", "good": 1})
            kelvo.log("Huge", huge=10**400, wide=2**64, good=1)
            assert kelvo.flush(20).delivered
        """, errors=None)
        self.assertEqual(self.attributes("Odd \ufffd"), [{
            "text": "Zürich \U0001f4d6", "zero": "a\0b", "surrogate": "\ufffd", "bool": False, "small": -2**63,
            "big": 2**64 - 1, "float": 0.1, "decimal": 12.5, "fraction": 0.25, "enum": "large", "day": "2024-02-29",
            "path": "/a", "uuid": "00000000-0000-0000-0000-000000000001", "list": [1, "b"], "map": '{"a":1}',
            "7": "key"}])
        self.assertEqual(self.attributes("Rest"), [{"('a', 1)": "pair", "good": 1}])
        self.assertEqual(self.attributes("Huge"), [{"wide": 2.0**64, "good": 1}])

    def test_a_certain_mistake_raises_and_nothing_else_does(self):
        self.run_host("""
            mistakes = {
                TypeError: [lambda: kelvo.log(7), lambda: kelvo.log("a", 7), lambda: kelvo.log(), lambda: kelvo.start(None),
                            lambda: kelvo.start(b"shop"), lambda: kelvo.start("shop", srever="https://a"),
                            lambda: kelvo.on_ready(7), lambda: kelvo.flush("soon"), lambda: kelvo.report(7),
                            lambda: kelvo.screen(7), lambda: kelvo.set_consent("yes")],
                ValueError: [lambda: kelvo.start("shop", delivery="some"), lambda: kelvo.start("shop", log_level="loud"),
                             lambda: kelvo.start("shop", max_stored_days=-1), lambda: kelvo.flush(float("nan"))]}
            for kind, calls in mistakes.items():
                for number, call in enumerate(calls):
                    try:
                        call()
                    except kind:
                        continue
                    assert False, (kind, number)
            kelvo.start("shop", log_level="off")
            for call in (lambda: kelvo.log(None), lambda: kelvo.screen(None), lambda: kelvo.start("again")):
                call()
            kelvo.log("Good", {})
            assert kelvo.flush(float("inf")).delivered
        """)
        self.assertEqual(self.counts(), {"Good": 1})

    def test_options_reach_the_library(self):
        """The last member of each struct has its place, so all of them have."""
        own = self.place / "own"
        output = self.run_host("""
            kelvo.start("shop", home=sys.argv[1], program_name="pen", farewell=True, send_ledger=True, journal_bytes=0)
            assert kelvo.flush(20).delivered
        """, str(own), KELVO_HOME=None, XDG_RUNTIME_DIR=None)
        self.assertEqual(output, "KelvoiOSSDK finalizer\n")
        self.assertEqual([file.name for file in (own / "Library" / "Preferences").iterdir()], ["pen.plist"])
        self.assertFalse((own / "Library" / "com.kelvo.journal").exists())
        session = self.ask("/debug/sessions")["sessions"][0]["id"]
        self.assertIsNotNone(self.ask("/debug/session", id=session)["ledger"])


if __name__ == "__main__":
    unittest.main()
