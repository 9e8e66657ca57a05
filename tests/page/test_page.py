"""Tests the collector's page in a real browser, with events of real processes: test_page.py COLLECTOR KELVO_LOG"""

import json
import os
import pathlib
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
        home = self.enterContext(tempfile.TemporaryDirectory())
        self.program = {"env": {**os.environ, "KELVO_HOME": home, "KELVO_SERVER_BASE_URL": self.url}, "text": True,
                        "args": [KELVO_LOG, "--app-id", "shop"], "stdout": DEVNULL, "stderr": DEVNULL}
        self.browser.get(self.url)
        # The welcome text appears once the first list of sessions has loaded and is empty.
        self.until(lambda: self.find("#welcome").is_displayed())
        self.assertEqual("Live", self.find("#connection").text)

    def tearDown(self):  # The browser also logs violations of the content security policy.
        self.assertEqual([], [entry["message"] for entry in self.browser.get_log("browser")])

    def ask(self, method, path, body=None):
        request = urllib.request.Request(self.url + path, body and body.encode(), method=method)
        urllib.request.build_opener(urllib.request.ProxyHandler({})).open(request, timeout=20).close()

    def post(self, session, number, *events, screens=(), system=()):
        screens = [{"navigation_id": "N", "name": name, "transition_time": start, "duration": duration}
                   for name, start, duration in screens]
        system = [{"name": name, "time": time} for name, time in system]
        self.ask("POST", "/v2/api/shop/chunks", CHUNK % (json.dumps(session), json.dumps(f"{session}_{number}"), number,
                                                         ",".join(events), json.dumps(screens), json.dumps(system)))

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
        self.post(MARKUP, 1, app(name, 1, **{name: name}), screens=[(name, 0, -1)])
        for pixels in (400, 1280):
            self.browser.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
                "width": pixels, "height": 900, "deviceScaleFactor": 1, "mobile": False})
            for tab, *marked in (("live", "#events .name", "#events dt", "#events .value", "pre.json"),
                                ("quality", "#problems li"), ("aggregates", "#aggregates .name", "#aggregates .value"),
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

    def test_a_switch_holds_back_one_launch_and_the_next_one_delivers(self):
        self.click("#tab-service")
        self.until(lambda: self.find("textarea.code").get_attribute("value"))
        refuse = ".preset:first-child"  # uploads answer 503
        for css, state, status in ((refuse, "pressed=true", 3), (refuse, "pressed=false", 0),
                                   ("#enabled", "checked=false", 4), ("#enabled", "checked=true", 0)):
            self.click(css)
            self.until(lambda c=css, s=state: self.texts(f"{c}[aria-{s}]"))
            lines = '{"call": "waitUntilReady", "seconds": 10}\n{"name": "Launch %s"}' % state
            self.assertEqual(status, subprocess.run(**self.program, input=lines, timeout=60, check=False).returncode)
        self.find("textarea.code").send_keys(Keys.PAGE_DOWN, "x")
        self.assertIn("Not JSON", self.texts(".messages")[0])
        self.assertFalse(self.find(".editor .primary").is_enabled())
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
        self.assertEqual(("tab-quality", True), (press(Keys.ARROW_RIGHT), self.find("#panel-quality").is_displayed()))
        self.assertEqual("sessions", press(Keys.HOME, *[Keys.TAB] * 3))
        press(Keys.ARROW_DOWN)
        self.until_events("One")
        passed = [""]
        while passed[-1] != "event-head" and len(passed) < 15:
            passed.append(press(Keys.TAB))
        self.assertIn("plot", passed)
        press(Keys.ENTER)
        self.until(lambda: self.texts("pre.json"))


unittest.main(argv=sys.argv[:1], verbosity=2)
