"""Tests the collector's page in a real browser, with events of real processes: test_page.py COLLECTOR KELVO_LOG"""

import json
import os
import pathlib
import re
import socket
import subprocess
import sys
import tempfile
import unittest
import urllib.request
from subprocess import DEVNULL, PIPE

from selenium.common import exceptions
from selenium.webdriver import ActionChains, Chrome, ChromeOptions, Keys
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.support.ui import WebDriverWait

COLLECTOR, KELVO_LOG = sys.argv[1:3]
MARKUP = "<script>window.harmed = 1</script><img src=x onerror='window.harmed = 2'>"
CHUNK = (pathlib.Path(__file__).parent / "chunk.template").read_text(encoding="utf-8")
# The page may replace or move an element after the test has found it.
NOT_YET = (exceptions.NoSuchElementException, exceptions.StaleElementReferenceException,
           exceptions.ElementNotInteractableException, exceptions.ElementClickInterceptedException)


def app(name, time, **attributes):
    return json.dumps({"name": name, "time": time, "additional_info": attributes})


class PageTest(unittest.TestCase):
    place = None  # where the element to click was at the last attempt

    @classmethod
    def setUpClass(cls):
        collector = cls.enterClassContext(subprocess.Popen([COLLECTOR, "--port", "0"], stdout=PIPE, text=True))
        cls.addClassCleanup(collector.terminate)
        cls.url = collector.stdout.readline().split()[2]
        options = ChromeOptions()
        options.arguments.extend(["--headless=new", "--no-sandbox", "--disable-dev-shm-usage", "--no-proxy-server",
                                  "--window-size=1280,1000"])
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        cls.browser = cls.enterClassContext(Chrome(service=Service("/usr/bin/chromedriver"), options=options))
        cls.script = cls.browser.execute_script

    def setUp(self):
        self.browser.get("about:blank")  # an open page would request data that the reset deletes
        self.ask("POST", "/debug/reset")
        self.ask("PUT", "/debug/expectations", "{}")
        self.see(1280, 1000)
        home = self.enterContext(tempfile.TemporaryDirectory())
        self.program = {"env": {**os.environ, "KELVO_HOME": home, "KELVO_SERVER_BASE_URL": self.url}, "text": True,
                        "args": [KELVO_LOG, "--app-id", "shop"], "stdout": DEVNULL, "stderr": DEVNULL}
        self.browser.get(self.url)
        # The welcome text appears once the first list of sessions has loaded and is empty.
        self.until(lambda: self.find("#welcome").is_displayed())
        self.assertEqual("Live", self.find("#connection").text)

    def tearDown(self):  # The browser also logs violations of the content security policy.
        self.assertEqual([], [entry["message"] for entry in self.browser.get_log("browser")])

    def ask(self, method, path, body=None, **headers):
        request = urllib.request.Request(self.url + path, body and body.encode(), headers, method=method)
        urllib.request.build_opener(urllib.request.ProxyHandler({})).open(request, timeout=20).close()

    def post(self, session, number, *events, screens=(), system=(), user=None, says=None, device="D1", **headers):
        screens = [{"navigation_id": "N", "name": name, "transition_time": start, "duration": duration}
                   for name, start, duration in screens]
        system = [{"name": name, "time": time} for name, time in system]
        users = json.dumps({"custom_user_id": user} if user else {})
        chunk = CHUNK % (json.dumps(session), json.dumps(device), json.dumps(f"{session}_{number}"), number, users,
                         json.dumps(says or {}), ",".join(events), json.dumps(screens), json.dumps(system))
        self.ask("POST", "/v2/api/shop/chunks", chunk, **headers)

    def until(self, condition):
        WebDriverWait(self.browser, 20, 0.05, NOT_YET).until(lambda _: condition())

    def find(self, css):
        return self.browser.find_element(By.CSS_SELECTOR, css)

    def click(self, css):
        self.until(lambda: self.clicked(css))

    def clicked(self, css):  # Clicks only if the element has not moved since the last attempt.
        element = self.find(css)
        before, self.place = self.place, element.rect
        if self.place != before or not element.is_enabled():
            return False
        element.click()
        return True

    def see(self, pixels, height):
        self.browser.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
            "width": pixels, "height": height, "deviceScaleFactor": 1, "mobile": False})

    def texts(self, css):  # One script call, because the page may change between two calls.
        return self.script("return [...document.querySelectorAll(arguments[0])].map((e) => e.textContent)", css)

    def until_events(self, *names):
        self.until(lambda: sorted(self.texts("#events .name")) == sorted(names))

    def data(self, css, *names):
        return [tuple(row) for row in self.script("return [...document.querySelectorAll(arguments[0])]"
                                                  ".map((e) => arguments[1].map((n) => e.dataset[n]))", css, names)]

    def test_events_of_a_running_process_appear_without_a_reload(self):
        self.script("window.same = true")
        with subprocess.Popen(**self.program, stdin=PIPE, bufsize=1) as process:
            process.stdin.write('{"call": "waitUntilReady", "seconds": 10}\n{"call": "didBecomeActive"}\n'
                                '{"name": "Purchase", "info": {"item": "book"}}\n{"call": "willResignActive"}\n')
            self.until(lambda: "Purchase" in self.texts("#events .name"))
            self.assertIn("item=book", " ".join(self.texts("#events .preview")))
            self.until(lambda: ("app", "Purchase") in self.data("#plot .glyph", "kind", "name"))
            self.post("other", 1, app("One", 1))  # selects this session; the first one then shows new events
            self.until_events("One")
            self.post("other", 2, app("Two", 2))
            self.until_events("One", "Two")
            self.click("#follow")
            process.stdin.write('{"name": "Refund"}\n')
        self.assertEqual(0, process.returncode)
        self.until(lambda: self.texts("#sessions .new"))
        self.click('#sessions [aria-selected="false"]')
        self.until(lambda: "Refund" in self.texts("#events .name"))
        self.assertEqual([], self.texts("#sessions .new"))
        self.assertTrue(self.script("return window.same"))

    def test_a_session_that_arrives_while_the_list_loads_stays(self):
        self.script("""
            const real = fetch;
            window.fetch = async (...request) => {
              const answer = await real(...request);
              if (request[0].includes("/debug/sessions")) await new Promise((resume) => { window.resume = resume; });
              return answer;
            };
            document.dispatchEvent(new Event("visibilitychange"));  // reopens the stream, which reloads the list""")
        self.until(lambda: self.script("return Boolean(window.resume)"))
        self.post("s", 1, app("One", 1))
        self.until_events("One")
        self.browser.execute_async_script("resume(); setTimeout(arguments[0], 300)")
        self.assertEqual(1, len(self.texts("#sessions [role=option]")))

    def test_the_plot_shows_screens_foreground_events_and_chunks_to_scale(self):
        self.post("s", 1, app("Open", 1), app("Buy", 5), app("Buy", 5), system=[("FOREGROUND", 0), ("BACKGROUND", 20)],
                  screens=[("Home", 0, 10), ("Basket", 10, 5.5)])
        self.post("s", 2, app("Buy", 40), system=[("FOREGROUND", 30)])
        self.until(lambda: self.data("#plot .chunk", "number", "time") == [("1", "20"), ("2", "40")])
        self.assertEqual([("Home", "0", "10"), ("Basket", "10", "5.5")],
                         self.data("#plot .screen rect", "name", "start", "duration"))
        self.assertEqual([("0", "20"), ("30", "60.5")], self.data("#plot .foreground", "start", "end"))
        self.assertEqual([("Open", "1", "1"), ("Buy", "5", "2"), ("Buy", "40", "1")],
                         self.data('#plot .glyph[data-kind="app"]', "name", "time", "count"))
        (begin, ten_seconds), (mark, width) = self.script(
            "return ['.screen rect', '#plot [data-name=Buy][data-time=\"40\"]'].map((css) =>"
            " { const place = document.querySelector(css).getBoundingClientRect(); return [place.x, place.width]; })")
        self.assertAlmostEqual(begin + 4 * ten_seconds, mark + width / 2, delta=2)

    def test_filters_by_kind_text_and_mark_and_shows_the_json_as_received(self):
        exact = '{"name":"Buy","time":3,"additional_info":{"item":"book", "id": 9007199254740993, "price":1.50}}'
        self.post("s", 1, app("Open", 1), exact, system=[("FOREGROUND", 0)])
        self.until_events("Open", "Buy", "FOREGROUND")
        self.click('#kinds [data-kind="system"]')
        self.until_events("FOREGROUND")
        self.click('#kinds [data-kind=""]')
        self.find("#event-text").send_keys("book")
        self.until_events("Buy")
        self.find("#event-text").send_keys(Keys.BACKSPACE * 4)
        self.until_events("Open", "Buy", "FOREGROUND")
        self.click('#plot [data-name="Buy"]')
        self.until_events("Buy")
        self.click(".event-head")
        self.until(lambda: self.texts("pre.json") == [exact])
        self.assertIn("9007199254740993", self.texts("#events .attributes .value"))

    def test_received_markup_stays_text_and_no_name_overflows_the_window(self):
        name = MARKUP + "Long" * 80
        self.ask("PUT", "/debug/expectations", json.dumps({name: {"attributes": {name: {"values": [MARKUP]}}}}))
        self.post(MARKUP, 1, app(name, 1, **{name: name}), screens=[(name, 0, -1)], user=name)
        for pixels in (400, 1280):
            self.see(pixels, 900)
            for tab, *marked in (("live", "#events .name", "#events dt", "#events .value", "pre.json",
                                 "#sessions .user"),
                                ("events", "#all-events .name", "#all-events .user", "#all-name option"),
                                ("quality", "#problems .message", "#problems .shown-event dt"),
                                ("expectations", "#expected .name", ".bad-events .faults", "#draft-name option"), ("aggregates", "#aggregates .name", "#aggregates .value"),
                                ("service",)):
                self.click(f"#tab-{tab}")
                unfold = "document.querySelectorAll('main [aria-expanded=false]').forEach((b) => b.click())"
                self.until(lambda all_marked=marked: self.script(unfold) or all(
                    any(MARKUP in text for text in self.texts(css)) for css in all_marked))
                self.assertEqual([False, []], self.script("""
                    const beyond = [...document.querySelectorAll("body *:not(svg *)")].filter((e) =>
                      e.checkVisibility() && e.getBoundingClientRect().right > innerWidth + 1);
                    return [document.body.scrollWidth > innerWidth, beyond.map((e) => e.id || e.className)]"""))
        self.assertEqual([None, "Kelvo collector", 0],
                         self.script("return [window.harmed ?? null, document.title, document.images.length]"))

    def test_what_a_device_says_is_shown_with_its_session_until_the_device_is_erased(self):
        self.post("stays", 1, app("Stays", 1), device="D2")
        self.post("gone", 1, app("One", 1), device="D3", says={"ledger": {"waiting": 9}}, **{"X-Kelvo-Erase": "secret"})
        self.post("gone", 4, app("Two", 2), device="D3", says={
            "evicted": {"events": 7, "chunks": 1},
            "ledger": {"stored": 20, "accepted": 1, "notForUpload": 3, "evictedForSpace": 7, "lost": 0}})
        self.until(lambda: self.texts(".account") == [
            "Evicted by the device: 7 events in 1 chunk. 1 chunk number of this session is not missing but evicted. "
            "When it sent chunk 4: 9 events of this device wait on it, 7 were evicted, none is lost. "
            "The device knows of 1 accepted event; the collector has 2."])
        self.click("#tab-quality")
        self.until(lambda: self.texts("#problems .message") == [
            "chunks 2 to 3 are missing, of which the device evicted 1"])
        self.click("#tab-aggregates")
        self.until(lambda: self.texts("#users .name") == ["D3", "D2"])
        self.ask("DELETE", "/v2/api/user?appId=shop&userId=D3", **{"X-Kelvo-Erase": "secret"})
        self.until(lambda: self.texts("#users .name") == ["D2"])
        self.assertEqual(["shop", "1 session, 2 chunks, 2 events, 2 requests deleted"],
                         self.texts("#erasures li > :not(.when)"))
        self.click("#tab-live")
        self.until(lambda: self.texts("#totals") == ["1 session · 1 chunk · 1 event"])
        self.until_events("Stays")
        self.assertEqual(1, len(self.texts("#sessions [role=option]")))

    def test_a_problem_opens_on_the_event_with_its_attribute_marked(self):
        self.post("s", 1, app("Buy", 1, price="3", klv_lt_count=1))
        self.post("s", 27, app("Buy", 2, price=4), app("Buy", 3, price=5), app("Buy", 3, price=5, klv_lt_count="2"))
        self.click("#tab-quality")
        self.until(lambda: self.data("#problems > li", "kind") == [
            ("attribute-type-changes",), ("suspected-duplicate",), ("missing-chunk",)])
        self.assertEqual("× 25", self.texts("#problems .times")[2])
        self.assertIn("(4 in event 2), but also a text (\"3\" in event 1)", self.texts("#problems .message")[0])
        self.click("#problems [data-kind=attribute-type-changes] button")
        self.until(lambda: self.texts("#problems .shown-event dt.marked, #problems .json .marked") == ["price", '"price":'])
        self.assertEqual(['"3"', "4"], self.texts("#problems .example .offence"))
        self.click("#problems .shown-event .whose button")
        self.until(lambda: self.texts("#events dt.marked, #events dd.marked .value") == ["price", "3"])
        self.click("#tab-quality")
        self.click(".checks summary")
        self.click("[data-check=suspected-duplicate]")
        self.until(lambda: self.data("#problems > li", "kind") == [("attribute-type-changes",), ("missing-chunk",)])
        self.until(lambda: self.texts("#problem-count") == ["2"])
        self.click("[data-check=suspected-duplicate]")
        self.until(lambda: len(self.texts("#problems > li")) == 3)

    def test_an_expectation_is_drafted_edited_and_judges_each_arrival(self):
        self.post("s", 1, app("Buy", 1, price=3, item="book", klv_lt_count=1))
        self.click("#tab-expectations")
        self.until(lambda: self.texts("#draft-name option") == ["Buy"])
        self.click("#draft")
        editor = self.find("#expectation-editor textarea")
        self.until(lambda: "price" in editor.get_attribute("value"))
        self.assertEqual({"Buy": {"attributes": {"item": {"type": "text", "values": ["book"]}, "price": {"type": "number"}},
                                  "others": True}}, json.loads(editor.get_attribute("value")))
        apply = "#expectation-editor .primary"
        for text, fault in (('{"Buy": {"attributes": {"price": "cents"}}}', "Buy.price: type is none of"),
                            ('{"Buy": {"attributes": {"price": {"max": 4}}}}', "")):
            editor.clear()
            editor.send_keys(text)
            self.click(apply)
            self.until(lambda f=fault: f in " ".join(self.texts("#expectation-editor .messages")))
        self.until(lambda: self.texts("#expected .verdict") == ["1 good", "0 bad"])
        self.assertEqual(["400"], re.findall(r"\b4\d\d\b", str(self.browser.get_log("browser"))))  # the refusal
        self.post("s", 2, app("Buy", 2, price=5))
        self.until(lambda: self.texts("#expected .verdict") == ["1 good", "1 bad"])
        self.click("#expected button")
        self.until(lambda: self.texts(".faults li") == ['"price" is 5, not at most 4'])
        self.click(".bad-events button")
        self.until(lambda: self.texts("#events dd.marked .value") == ["5"])
        self.ask("PUT", "/debug/expectations", '{"*": false}')
        self.click("#tab-expectations")
        self.until(lambda: (self.texts("#expected .name"), self.texts("#expected .verdict")) == (["Buy"], ["0 good", "2 bad"]))

    def test_all_events_are_listed_live_and_filtered_and_sessions_are_found_by_user(self):
        self.post("s1", 1, app("One", 1, item="book"), app("Two", 2), user="Ann")
        self.post("s2", 1, app("One", 1, item="pen"), system=[("FOREGROUND", 0)], user="Bob")
        self.click("#tab-events")
        names = lambda: sorted(self.texts("#all-events .name"))
        self.until(lambda: names() == ["FOREGROUND", "One", "One", "Two"])
        self.post("s3", 1, app("Three", 1))
        self.until(lambda: "Three" in names())
        for field, text, found in (("user", "bo", ["FOREGROUND", "One"]), ("text", "pen", ["One"]),
                                   ("kind", "App", ["One"]), ("name", "One", ["One"])):
            self.find(f"#all-{field}").send_keys(text)
            self.until(lambda f=found: names() == f)
        self.click("#all-clear")
        self.until(lambda: len(names()) == 5)
        self.click("#tab-live")
        self.find("#find-session").send_keys("ann")
        self.until(lambda: self.texts("#sessions .name") == ["Ann"])
        self.post("s4", 1, app("Four", 1), user="Joanna")
        self.until(lambda: self.texts("#sessions .name") == ["Joanna", "Ann"])

    def test_crowded_points_gather_into_bars_that_count_every_event_and_zooming_takes_them_apart(self):
        self.post("s", 1, *(app(f"Tick {i % 7}", i) for i in range(3000)), app("Alone", 4000))
        counted = "#plot [data-kind=app]"
        total = lambda: sum(int(number) for number, in self.data(counted, "count"))
        self.until(lambda: total() == 3001)
        self.assertLess(len(self.texts(counted)), 60)
        self.assertEqual([], self.script("""
            const boxes = [...document.querySelectorAll("#plot .gathered rect")].map((e) => e.getBoundingClientRect());
            return boxes.filter((a) => boxes.some((b) => a !== b && a.x < b.right && b.x < a.right)).map((a) => a.x)"""))
        for _ in range(8):
            before = total()
            self.click("#zoom-in")
            self.until(lambda b=before: total() < b)
        self.until(lambda: self.texts("#plot path.glyph") and not self.texts("#plot .gathered"))

    def test_open_records_scroll_only_their_own_pane(self):
        self.see(1280, 720)
        self.post("s", 1, app("One", 1))
        self.click("#session-head summary")
        self.script("document.querySelector('#events').scrollIntoView()")
        self.assertEqual([0, True], self.script("return [document.querySelector('.top').getBoundingClientRect().top,"
                                                " document.documentElement.scrollHeight <= innerHeight]"))

    def test_a_switch_holds_back_one_launch_and_the_next_one_delivers(self):
        self.click("#tab-service")
        self.until(lambda: self.find("#service textarea.code").get_attribute("value"))
        refuse = ".preset:first-child"  # uploads answer 503
        for css, state, status in ((refuse, "pressed=true", 3), (refuse, "pressed=false", 0),
                                   ("#enabled", "checked=false", 4), ("#enabled", "checked=true", 0)):
            self.click(css)
            self.until(lambda c=css, s=state: self.texts(f"{c}[aria-{s}]"))
            lines = '{"call": "waitUntilReady", "seconds": 10}\n{"name": "Launch %s"}' % state
            self.assertEqual(status, subprocess.run(**self.program, input=lines, timeout=60, check=False).returncode)
        self.find("#service textarea.code").send_keys(Keys.PAGE_DOWN, "x")
        self.assertIn("Not JSON", self.texts("#service .messages")[0])
        self.assertFalse(self.find("#service .editor .primary").is_enabled())
        self.click("#tab-aggregates")
        self.until(lambda: {"Launch pressed=true", "Launch pressed=false"} <= set(self.texts("#aggregates .name")))

    def test_the_keyboard_reaches_everything(self):
        self.post("s1", 1, app("One", 1))
        self.post("s2", 1, app("Two", 1))
        self.until_events("Two")

        def press(*keys):
            ActionChains(self.browser).send_keys(*keys).perform()
            return self.script("return document.activeElement.id || document.activeElement.className")

        self.assertEqual("tab-live", press(Keys.TAB))
        self.assertEqual(("tab-events", True), (press(Keys.ARROW_RIGHT), self.find("#panel-events").is_displayed()))
        self.assertEqual("sessions", press(Keys.HOME, *[Keys.TAB] * 4))
        press(Keys.ARROW_DOWN)
        self.until_events("One")
        passed = [""]
        while passed[-1] != "event-head" and len(passed) < 15:
            passed.append(press(Keys.TAB))
        self.assertIn("plot", passed)
        press(Keys.ENTER)
        self.until(lambda: self.texts("pre.json"))


class DocumentTest(unittest.TestCase):
    """Runs the test script that the document shows, line by line as printed, with its port replaced by a free one."""

    def test_the_documents_test_passes_for_a_correct_application_and_fails_for_a_faulty_one(self):
        document = (pathlib.Path(__file__).parents[2] / "docs/collector.md").read_text(encoding="utf-8")
        with socket.socket() as free:
            free.bind(("127.0.0.1", 0))
            port = free.getsockname()[1]
        script = document.split("```sh\n")[1].split("```")[0].replace("8299", str(port))
        place = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        path = ":".join([*(str(pathlib.Path(program).resolve().parent) for program in (COLLECTOR, KELVO_LOG)), os.environ["PATH"]])
        application, test = place / "my-application", place / "test"
        test.write_text(script)
        test.chmod(0o700)
        for info, works in (('{"item": "book", "price": 3}', True), ('{"item": "book", "price": -3}', False),
                            ('{"item": 7, "price": 3}', False), ('{"price": 3}', False)):
            application.write_text("#!/bin/sh\n" f"echo '{{\"name\": \"Purchase\", \"info\": {info}}}' | kelvo-log --app-id shop\n")
            application.chmod(0o700)
            run = subprocess.run([test], cwd=place, stdout=PIPE, stderr=PIPE, text=True, timeout=60, check=False,
                                 env={**os.environ, "PATH": path, "no_proxy": "127.0.0.1"})
            self.assertEqual(works, run.returncode == 0, run.stdout + run.stderr)


unittest.main(argv=sys.argv[:1], verbosity=2)
