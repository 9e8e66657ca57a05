"""Kills, forks, interpreters that end, and threads, against the real library and a collector."""

import signal
import unittest

from support import Road


class Loading(Road):
    def test_a_program_that_never_calls_has_no_library(self):
        self.assertEqual(self.run_host("print('libkelvo' in open('/proc/self/maps').read())"), "False\n")
        self.assertFalse((self.place / "home").exists())

    def test_a_missing_library_is_an_import_error_that_says_what_to_do(self):
        for given, reason in ((str(self.place / "none.so"), "KELVO_LIBRARY names no file"), (None, "install the Debian package")):
            host = self.start("", KELVO_LIBRARY=given, LD_LIBRARY_PATH=None)
            errors = host.communicate(timeout=60)[1]
            self.assertEqual(host.returncode, 1)
            self.assertRegex(errors.splitlines()[-1], f"^ImportError: .*{reason}")

    def test_the_home_is_that_of_the_application_and_keeps_the_device(self):
        code = """
            kelvo.start("shop:eu", server=os.environ["SERVICE"])
            kelvo.flush(20)
            assert kelvo.device_id()
            print(kelvo.device_id())
        """
        (self.place / "Info.plist").write_text("<plist version='1.0'><dict><key>CFBundleIdentifier</key>"
                                               "<string>com.example.shop</string></dict></plist>")
        for bundle, name in ((None, "shop%3Aeu"), (str(self.place), "com.example.shop")):
            own = {"KELVO_HOME": None, "XDG_DATA_HOME": str(self.place / "data"), "KELVO_SERVER_BASE_URL": None,
                   "SERVICE": self.url, "KELVO_BUNDLE": bundle}
            self.assertEqual(self.run_host(code, **own), self.run_host(code, **own))
            preferences = self.place / "data" / "kelvo" / name / "Library" / "Preferences"
            self.assertEqual([file.name for file in preferences.iterdir()], [name + ".plist"])


class Kill(Road):
    def test_loses_no_call_that_has_returned(self):
        host = self.start("""
            ready = threading.Event()
            kelvo.on_ready(lambda status: status.state is kelvo.State.RUNNING and ready.set())
            kelvo.start("shop")
            assert ready.wait(30)
            for number in range(500):
                kelvo.log("Call", number=number)
            print("logged", flush=True)
            time.sleep(60)
        """)
        self.assertEqual(host.stdout.readline(), "logged\n")
        host.send_signal(signal.SIGKILL)
        host.communicate()
        self.run_host("kelvo.start('shop'); assert kelvo.flush(30).delivered")
        self.assertEqual(sorted(each["number"] for each in self.attributes("Call")), list(range(500)))


class Fork(Road):
    def test_a_child_does_nothing_and_the_parent_goes_on(self):
        output = self.run_host("""
            kelvo.on_ready(lambda status: None)
            kelvo.start("shop", log_sink=lambda level, line: None)
            kelvo.log("Parent", turn=1)
            for way in ("exit", "_exit", "raise"):
                child = os.fork()
                if child == 0:
                    kelvo.start("shop")
                    kelvo.on_ready(print)
                    kelvo.log("Child", way=way)
                    with kelvo.screen("Child"):
                        kelvo.report("Child")
                    begin = time.monotonic()
                    assert kelvo.flush(30).outcome is kelvo.Outcome.NOT_COLLECTING
                    assert time.monotonic() - begin < 5 and kelvo.ledger().this_process.logged == 0
                    if way == "_exit":
                        os._exit(0)
                    sys.exit(0)
                assert os.waitpid(child, 0)[1] == 0, way
            kelvo.log("Parent", turn=2)
            assert kelvo.flush(30).delivered
        """)
        self.assertEqual(output, "")
        self.assertEqual(self.counts(), {"Parent": 2})

    def test_a_child_of_a_process_that_never_called_may_start(self):
        self.run_host("""
            child = os.fork()
            if child == 0:
                kelvo.start("shop")
                kelvo.log("Worker")
                sys.exit(0 if kelvo.flush(30).delivered else 1)
            assert os.waitpid(child, 0)[1] == 0
        """)
        self.assertEqual(self.counts(), {"Worker": 1})

    def test_multiprocessing(self):
        for method in ("fork", "spawn", "forkserver"):
            with self.subTest(method):
                self.ask("/debug/reset", method="POST")
                self.run_host("""
                    import multiprocessing
                    def work(number):
                        kelvo.start("shop", home=os.environ["OWN_HOMES"] + str(number))
                        kelvo.log("Child", number=number)
                        kelvo.flush(30)
                        return number
                    if __name__ == "__main__":
                        kelvo.start("shop", home=os.environ["OWN_HOMES"] + "parent")
                        kelvo.log("Parent")
                        with multiprocessing.get_context(sys.argv[1]).Pool(2, maxtasksperchild=1) as pool:
                            assert pool.map(work, range(4), chunksize=1) == list(range(4))
                        assert kelvo.flush(30).delivered
                """, method, KELVO_HOME=None, OWN_HOMES=str(self.place / method))
                children = [] if method == "fork" else [{"number": number} for number in range(4)]
                self.assertEqual(sorted(self.attributes("Child"), key=str), children)
                self.assertEqual(len(self.attributes("Parent")), 1)


class Threads(Road):
    def test_a_flush_leaves_the_interpreter_to_others(self):
        self.ask("/debug/answer", path="/chunks", mode="hang", method="PUT")
        self.run_host("""
            lines, turns, done = [], 0, threading.Event()
            kelvo.start("shop", log_level="debug", log_sink=lambda level, line: lines.append(line))
            kelvo.log("Waiting")
            def flush():
                assert kelvo.flush(2).outcome is kelvo.Outcome.DEADLINE
                done.set()
            threading.Thread(target=flush).start()
            while not done.wait(0.01):
                turns += 1
                kelvo.log("Turn")
            assert turns > 20 and len(lines) > 20, (turns, len(lines))
        """, errors=None)

    def test_callbacks_may_do_anything(self):
        self.run_host("""
            import logging
            states, lines, flushed = [], [], threading.Event()
            def ready(status):
                states.append((status.state, bool(status.reason), threading.current_thread().name))
                kelvo.log("Called")
                if status.state is kelvo.State.RUNNING:
                    assert kelvo.flush(20).delivered
                    flushed.set()
                raise ValueError("of the host") if len(states) == 1 else SystemExit("of the host")
            logging.getLogger().addHandler(kelvo.LoggingHandler())
            def sink(level, line):
                lines.append((level, line))
                logging.log(level, line)
            kelvo.on_ready(ready)
            kelvo.start("shop", consent_required=True, log_sink=sink)
            kelvo.log("Held")
            assert kelvo.consent() is None and not kelvo.flush(5).delivered
            kelvo.set_consent(True)
            assert flushed.wait(30) and kelvo.consent() is True
            assert states == [(kelvo.State.WAITING_FOR_CONSENT, True, "kelvo.callbacks"),
                              (kelvo.State.RUNNING, True, "kelvo.callbacks")], states
            while len(lines) < 2:
                time.sleep(0.01)
            assert all(level == logging.ERROR and ": of the host" in line for level, line in lines), lines
            kelvo.set_consent(False)
            assert kelvo.consent() is False
        """)

    def test_the_interpreter_ends_in_the_middle_of_everything(self):
        code = """
            import random
            def busy():
                while True:
                    kelvo.log("Busy", number=1)
                    kelvo.report(ValueError("busy"))
            def flushing():
                while True:
                    kelvo.flush(0.01)
            kelvo.start("shop", log_level="debug", log_sink=lambda level, line: time.sleep(0.0001))
            for _ in range(50):
                kelvo.on_ready(lambda status: kelvo.log(status.reason))
            for work in (busy, flushing):
                threading.Thread(target=work, daemon=True).start()
            threading.Thread(target=time.sleep, args=(0.05,)).start()
            time.sleep(random.random() / 5)
            if sys.argv[1] == "thread":
                threading.Thread(target=sys.exit).start()
            elif sys.argv[1] == "exit":
                sys.exit(0)
            kelvo.set_consent(False)  # tells all callbacks, while the interpreter ends
        """
        for way in ("return", "exit", "thread") * 4:
            host = self.start(code, way, KELVO_HOME=str(self.place / way))
            output, errors = host.communicate(timeout=30)
            self.assertEqual((host.returncode, output), (0, ""), errors[-2000:])


if __name__ == "__main__":
    unittest.main()
