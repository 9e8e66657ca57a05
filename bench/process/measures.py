"""Starts the programs of bench/process and returns their figures: dictionaries from a name to a number."""

import os
import pathlib
import signal
import sqlite3
import subprocess
import tempfile
import threading
import time

NEVER_DURING_A_RUN = 3600  # seconds between two chunks of the timer
STARTS = 11  # of a program, for the median time to its main function
SAMPLING = 0.005  # seconds
WARM_UP = 200  # events that each host logs first
BURST = 50000  # events of the part `durable`
# The names of the measured events (bench/Attributes.h). The library's own events have others.
NAMES = ("Search", "Open Item", "Add To Cart", "Remove", "Checkout", "Pay", "Purchase", "Share Item", "Log In", "Rate", "Scroll",
         "Log Out")
LOG_LINE = b"Logging app event for event"


def loaded_bytes(program):
    """Returns the size of the program's code, constants and data."""
    output = subprocess.run(["size", program], capture_output=True, text=True, check=True).stdout
    text, data = output.splitlines()[1].split()[:2]
    return int(text) + int(data)


class Service:
    """A service for the measured hosts: the collector, or the light one."""

    def __init__(self, *command):
        self.process = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        self.url = self.process.stdout.readline().split()[-1]

    def end(self):
        self.process.kill()
        self.process.wait()


class Home:
    """A new home for hosts, and a runtime directory in memory beside it, where the journal is."""

    def __init__(self, chunk_interval=NEVER_DURING_A_RUN, on_disk=False):
        self.directory = tempfile.TemporaryDirectory(prefix="kelvo-bench-")
        self.runtime = tempfile.TemporaryDirectory(prefix="kelvo-bench-", dir="/dev/shm")
        self.path = pathlib.Path(self.directory.name)
        self.variables = {"KELVO_HOME": str(self.path), "XDG_RUNTIME_DIR": "" if on_disk else self.runtime.name}
        (self.path / "Library").mkdir(mode=0o700)
        (self.path / "Library/com.kelvo.SDK.config.json").write_text(
            f'{{"enable":true,"max_fg_chunk_send_time":{chunk_interval}}}', encoding="utf-8")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.directory.cleanup()
        self.runtime.cleanup()

    def lifetime_count(self):
        """Returns how many of the measured events the database has ever stored."""
        with sqlite3.connect(self.path / "Documents/kelvo-db/v1.0.0/com.kelvo.sessions.sqlite") as database:
            names = ",".join("?" * len(NAMES))
            return database.execute(f"select coalesce(sum(count), 0) from lifetime_events where name in ({names})", NAMES).fetchone()[0]


def figures_in(text):
    return {key: float(value) for key, value in (line.split() for line in text.splitlines())}


def memory_of(process):
    """Returns, in MB, the private memory that a process has written, and all of its private memory as if no other process used
    its libraries. Shared mappings, the journal's among them, are in neither."""
    written = whole = 0
    private = False
    for line in pathlib.Path(f"/proc/{process}/smaps").read_text(encoding="utf-8").splitlines():
        words = line.split()
        if not words[0].endswith(":"):
            private = words[1].endswith("p")
        elif private and words[0] == "Rss:":
            whole += int(words[1])
        elif private and words[0] == "Anonymous:":
            written += int(words[1])
    return {"written": written * 1024 / 1e6, "whole": whole * 1024 / 1e6}


class Build:
    """The programs of one build directory, and the services that its hosts talk to."""

    def __init__(self, directory):
        self.programs = pathlib.Path(directory) / "bench/process"
        self.collector = Service(pathlib.Path(directory) / "tools/kelvo-collector/kelvo-collector", "--port", "0")
        self.sink = Service(self.programs / "kelvo-bench-sink")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.collector.end()
        self.sink.end()

    def start(self, home, program, *arguments, service=None, stderr=subprocess.DEVNULL, **variables):
        url = {"KELVO_SERVER_BASE_URL": (service or self.sink).url}
        return subprocess.Popen([self.programs / f"kelvo-bench-{program}", *arguments], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                stderr=stderr, env={**os.environ, **home.variables, **url, **variables})

    def run(self, home, program, *arguments, **options):
        process = self.start(home, program, *arguments, **options)
        output, _ = process.communicate()
        if process.returncode != 0:
            raise RuntimeError(f"kelvo-bench-{program} {' '.join(arguments)} ended with status {process.returncode}")
        return figures_in(output.decode())

    def host(self, part, rules, **options):
        with Home() as home:
            return self.run(home, "host", part, rules, **options)

    def paced_on_disk(self, rules):
        with Home(on_disk=True) as home:
            return self.run(home, "host", "paced", rules)

    def foreground(self, rules):
        with Home(chunk_interval=1) as home:
            return self.run(home, "host", "foreground", rules)

    def chunk_to_collector(self, rules):
        return self.host("chunk", rules, service=self.collector)

    def with_peak(self, home, program, *arguments, **options):
        """As `run`, with one figure more: `peak`, the most private memory that the program has written, in MB."""
        process = self.start(home, program, *arguments, **options)
        peak = 0
        while process.poll() is None:
            try:
                rollup = pathlib.Path(f"/proc/{process.pid}/smaps_rollup").read_text(encoding="utf-8")
            except OSError:
                break  # it has just ended
            peak = max([peak] + [int(line.split()[1]) for line in rollup.splitlines() if line.startswith("Anonymous:")])
            time.sleep(SAMPLING)
        output, _ = process.communicate()
        return {**figures_in(output.decode()), "peak": peak * 1024 / 1e6}

    def peak(self, rules):
        with Home() as home:
            return self.with_peak(home, "host", "durable", rules)

    def idle(self, rules):
        """Returns the memory of an idle host, `whole` without that of a program without the library, and its threads."""
        with Home() as home:
            figures, memory = [], []
            for program in (["host", "idle", rules], ["bare", "wait"]):
                process = self.start(home, *program)
                lines = [process.stdout.readline().decode() for _ in range(2 if program[0] == "host" else 1)]
                figures.append(figures_in("".join(lines)))
                memory.append(memory_of(process.pid))
                process.communicate()
            return {**figures[0], **memory[0], "whole": memory[0]["whole"] - memory[1]["whole"]}

    def log_lines(self, rules):
        """Returns how many lines of the part `durable` this program reads, which does nothing but read."""
        with Home() as home:
            process = self.start(home, "host", "durable", rules, stderr=subprocess.PIPE, KELVO_LOG="info")
            found = []
            reader = threading.Thread(target=lambda: found.append(process.stderr.read().count(LOG_LINE)))
            reader.start()
            process.wait()
            reader.join()
            return {"written": found[0], "made": WARM_UP + BURST}

    def kept(self, part, rules):
        """Returns how many of 1,000 calls before a kill the next launch has."""
        with Home() as home:
            process = self.start(home, "host", part, rules)
            process.communicate()
            if process.returncode != -signal.SIGKILL:
                raise RuntimeError(f"the host of {part} was not killed")
            self.run(home, "host", "relaunch", rules)
            return {"calls": home.lifetime_count() - WARM_UP}

    def first_chunk(self, rules):
        """Returns the milliseconds from the start of a process, its loading included, to its first accepted chunk."""
        with Home() as home:
            start = time.clock_gettime(time.CLOCK_MONOTONIC)
            return {"milliseconds": (self.run(home, "host", "first-chunk", rules)["at"] - start) * 1e3}

    def until_main(self, program):
        """Returns the median of the milliseconds from the start of a process to its main function."""
        with Home() as home:
            environment = {**os.environ, **home.variables}
            path = str(self.programs / f"kelvo-bench-{program}")
            times = []
            for _ in range(STARTS):
                reader, writer = os.pipe()
                start = time.clock_gettime(time.CLOCK_MONOTONIC)
                process = os.posix_spawn(path, [path], environment, file_actions=[
                    (os.POSIX_SPAWN_DUP2, writer, 1), (os.POSIX_SPAWN_OPEN, 2, os.devnull, os.O_WRONLY, 0)])
                os.close(writer)
                with os.fdopen(reader) as output:
                    times.append(figures_in(output.readline())["main"] - start)
                os.waitpid(process, 0)
            return {"milliseconds": sorted(times)[STARTS // 2] * 1e3}

    def static_size(self):
        """Returns the text and data of a static host in kB."""
        return {"kilobytes": loaded_bytes(self.programs / "kelvo-bench-minimal-static") / 1e3}

    def limit(self, part):
        with Home() as home:
            return self.run(home, "limits", part)
