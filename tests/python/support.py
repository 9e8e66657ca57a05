"""What the tests of the Python package share: a collector, a home, and hosts in processes of their own."""

import json
import os
import pathlib
import subprocess
import sys
import tempfile
import textwrap
import unittest
import urllib.parse
import urllib.request

PACKAGE = pathlib.Path(__file__).resolve().parents[2] / "bindings" / "python"
SECONDS = 60  # for a process to end


class Road(unittest.TestCase):
    """A test with a fresh home and a collector of its own."""

    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.place = pathlib.Path(directory.name)
        collector = subprocess.Popen([os.environ["KELVO_COLLECTOR"], "--port", "0"], stdout=subprocess.PIPE, text=True)
        self.addCleanup(collector.stdout.close)
        self.addCleanup(collector.wait)
        self.addCleanup(collector.terminate)
        self.url = collector.stdout.readline().split()[2]

    def start(self, code, *arguments, **environment):
        """Starts a host that runs `code`. A variable of None is left out."""
        own = {**os.environ, "PYTHONPATH": str(PACKAGE), "PYTHONDONTWRITEBYTECODE": "1",
               "PYTHONWARNINGS": "ignore::DeprecationWarning",  # newer versions warn of forks beside threads
               "KELVO_SERVER_BASE_URL": self.url,
               "KELVO_HOME": str(self.place / "home"), **environment}
        own = {name: value for name, value in own.items() if value is not None}
        script = self.place / "host.py"  # multiprocessing imports the main module again
        script.write_text("import json, os, sys, threading, time\nimport kelvo\n" + textwrap.dedent(code))
        return subprocess.Popen([sys.executable, str(script), *arguments], env=own, text=True, stdin=subprocess.PIPE,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE)

    def run_host(self, code, *arguments, errors="", **environment):
        """Runs a host, which must end with 0 and write `errors` to standard error. Returns its standard output."""
        host = self.start(code, *arguments, **environment)
        output, written = host.communicate(timeout=SECONDS)
        self.assertEqual((host.returncode, written), (0, written if errors is None else errors), written)
        return output

    def ask(self, where, **parameters):
        method = parameters.pop("method", "GET")
        query = "?" + urllib.parse.urlencode(parameters) if parameters else ""
        with urllib.request.urlopen(urllib.request.Request(self.url + where + query, method=method), timeout=SECONDS) as answer:
            return json.load(answer)

    def attributes(self, name, **parameters):
        """Returns the host's attributes of each event `name` that has arrived."""
        events = self.ask("/debug/events", name=name, limit=1000, **parameters)["events"]
        return [{key: value for key, value in event["attributes"].items() if not key.startswith("klv_")}
                for event in events]

    def counts(self):
        """Returns how often each of the host's events has arrived."""
        return {row["name"]: row["count"] for row in self.ask("/debug/counts")["byName"] if row["name"] != "klv_app_opened"}
