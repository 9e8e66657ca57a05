#!/usr/bin/env python3
"""production.py DOCUMENT OLD NEW: takes the administrator's road on this machine, which runs systemd and is nobody's: runs the
commands that DOCUMENT (docs/server.md) prints, and compares the tables with the ledgers of devices that send meanwhile.
OLD and NEW are packages of kelvo-server; OLD and its tools are installed. Run by scripts/try-fresh-machine."""

import json
import os
import pathlib
import re
import subprocess
import sys
import threading
import time

DOCUMENT, OLD, NEW = map(os.path.abspath, sys.argv[1:])
NAME = "analytics.example.com"
WORK = pathlib.Path("/srv/road")


def run(commands, **options):
    """Runs a script of commands. Returns its output. Ends the program if a command fails."""
    done = subprocess.run(["bash", "-euo", "pipefail", "-c", commands], text=True, stdout=subprocess.PIPE, **options)
    if done.returncode != 0:
        sys.exit(f"production: status {done.returncode} of:\n{commands}\n{done.stdout}")
    return done.stdout.strip()


def blocks():
    """Returns the blocks of commands and files in the document, without their indents."""
    text = pathlib.Path(DOCUMENT).read_text(encoding="utf-8")
    found = re.findall(r"^```\w+\n(.*?)^```", text, re.DOTALL | re.MULTILINE)
    for block in re.findall(r"(?<=\n\n)((?:(?: {4}| {7})[^ \n].*\n)(?:(?: {4}).*\n)*)", text):
        indent = len(block) - len(block.lstrip())
        found.append("".join(line[indent:] for line in block.splitlines(keepends=True)))
    return found


def printed(text):
    """Returns the only block that contains `text`."""
    found = [block for block in blocks() if text in block]
    if len(found) != 1:
        sys.exit(f"production: {len(found)} blocks of {DOCUMENT} have \"{text}\"")
    return found[0]


def follow(text, *changes):
    """Runs the block with `text`. Each change is a text to replace, and its replacement."""
    commands = printed(text)
    for before, after in changes:
        assert before in commands, f"{before} is not in:\n{commands}"
        commands = commands.replace(before, after)
    print(f"== {text}", flush=True)
    return run(commands, cwd="/srv", stderr=subprocess.STDOUT)


def ask(query, database="kelvo"):
    return run(f"sudo -u postgres psql -XAtq -d {database} -c \"$QUERY\"", cwd="/", env={**os.environ, "QUERY": query})


def expect(what, found, expected):
    if found != expected:
        sys.exit(f"production: {what}: {found} instead of {expected}")


def ready(*instances):
    for instance in instances:
        run(f"curl -fsS --retry 30 --retry-all-errors --retry-delay 1 http://127.0.0.1:829{instance}/readyz", stderr=subprocess.DEVNULL)


def serial(port):
    return run(f"openssl s_client -connect 127.0.0.1:{port} </dev/null 2>/dev/null | openssl x509 -noout -serial")


class Device(threading.Thread):
    """A home with an application of its own. It is launched again and again until `ends` is set and all is delivered."""

    ends = threading.Event()

    def __init__(self, number):
        super().__init__(daemon=True)
        self.app, self.home = f"fleet-{number}", WORK / str(number)
        self.launches, self.statuses = 0, {}

    def run(self):
        status = 3
        while status == 3 or not self.ends.is_set():
            self.launches += 1
            lines = [{"call": "waitUntilReady", "seconds": 10}]
            lines += [{"name": "Purchase", "info": {"launch": self.launches, "n": n}} for n in range(5)]
            environment = {**os.environ, "KELVO_SERVER_BASE_URL": f"https://{NAME}", "KELVO_HOME": str(self.home)}
            done = subprocess.run(["kelvo-log", "--app-id", self.app, "--delivery", "complete", "--wait", "2"], env=environment,
                                  input="\n".join(map(json.dumps, lines)), text=True, capture_output=True)
            status = done.returncode
            self.statuses[status] = self.statuses.get(status, 0) + 1
            if status not in (0, 3):
                print(f"{self.app}: {done.stderr}", flush=True)
                return

    def check(self):
        """Compares the ledger with the tables: each event of each launch is stored once."""
        expect(f"{self.app}: statuses", set(self.statuses) - {0, 3}, set())
        ledger = json.loads(run(f"kelvo-inspect --json {self.home}"))["ledger"]
        expect(f"{self.app}: faults and waiting", (ledger["faults"], ledger["waiting"]), ([], 0))
        expect(f"{self.app}: events stored", ask(f"SELECT count(*) FROM events WHERE app = '{self.app}'"), str(ledger["accepted"]))
        once = ask(f"SELECT count(*), count(DISTINCT (attributes ->> 'launch', attributes ->> 'n')) FROM events WHERE app = '{self.app}' "
                   f"AND name = 'Purchase'")
        expect(f"{self.app}: purchases", once, f"{5 * self.launches}|{5 * self.launches}")
        print(f"{self.app}: {self.launches} launches, by status {self.statuses}; ledger {ledger}, all stored once", flush=True)


def sent(steps):
    """Runs `steps` while devices send. Then compares."""
    Device.ends.clear()
    devices = [Device(f"{steps.__name__}-{number}") for number in range(4)]
    for device in devices:
        device.start()
    while ask("SELECT count(DISTINCT app) FROM events WHERE app LIKE 'fleet-%'") == "0":
        time.sleep(0.2)
    steps()
    Device.ends.set()
    for device in devices:
        device.join(180)
        device.check()


def tls_of_an_instance():
    follow("SupplementaryGroups=ssl-cert")
    ready(1)
    before = serial(443)
    renewed = printed("openssl req -x509").splitlines()[2:-1]
    run("cd /etc/letsencrypt\n" + "\n".join(renewed), stderr=subprocess.DEVNULL)
    run("\n".join(line for line in printed("SupplementaryGroups=ssl-cert").splitlines() if line.startswith("install")))
    expect("serial before a reload", serial(443), before)
    run("systemctl reload kelvo-server@1")
    for _ in range(50):
        if serial(443) != before:
            break
        time.sleep(0.1)
    else:
        sys.exit("production: a reload does not change the certificate")
    run(f"curl -fsS https://{NAME}/v2/api/shop/sdk/enabled-status")
    run("rm -r /etc/default/kelvo-server-1 /etc/systemd/system/kelvo-server@1.service.d && systemctl daemon-reload && "
        "systemctl restart kelvo-server@1")


def upgrade():
    follow("apt install ./kelvo-server_NEW", ("./kelvo-server_NEW_amd64.deb", f"-y {NEW}"))
    follow("systemctl restart kelvo-server@1\nuntil")
    ready(2)
    expect("version", run("dpkg-query -W -f '${Version}' kelvo-server"), run(f"dpkg-deb -f {NEW} Version"))
    run(f"apt install -y --allow-downgrades {OLD} 2>/dev/null")
    follow("systemctl restart kelvo-server@1\nuntil")
    ready(2)
    run("systemctl reload nginx")


def dump():
    follow("pg_dump --format=custom")
    follow("createdb --owner kelvo-server --encoding UTF8 --template template0 restored")
    ready(9)
    # A dump holds whole chunks only.
    expect("chunks without all their events", ask("SELECT (SELECT sum(events) FROM chunks) - (SELECT count(*) FROM events)", "restored"), "0")
    expect("rows in the dump", ask("SELECT count(*) > 0 FROM events", "restored"), "t")
    run("systemctl stop kelvo-server@9; rm /etc/default/kelvo-server-9")


def moment():
    follow("archive_mode = on")
    ready(1, 2)
    marks = []
    for mark in ("before", "after"):
        run(f"""echo '{{"name": "Mark", "info": {{"mark": "{mark}"}}}}' | KELVO_SERVER_BASE_URL=https://{NAME} KELVO_HOME={WORK}/mark \
kelvo-log --app-id marks --delivery complete --wait 5""")
        time.sleep(1)
        marks.append(ask("SELECT now()"))
        time.sleep(1)
    follow("recovery_target_action", ("2026-01-31 12:00:00+00", marks[0]))
    ready(1, 2)
    expect("marks after the return", ask("SELECT attributes ->> 'mark' FROM events WHERE app = 'marks' AND name = 'Mark'"), "before")


def main():
    run(f"rm -rf {WORK} && mkdir {WORK} && echo \"127.0.0.1 {NAME} $(hostname)\" >>/etc/hosts")
    follow("createuser kelvo-server")
    follow("systemctl enable --now")
    print(run("systemd-analyze verify --man=no kelvo-server@1.service 2>&1; systemd-analyze security --no-pager kelvo-server@1 | tail -1"))
    follow("kelvo-log --app-id shop")
    follow("pg_read_all_data")
    expect("what an analyst may do", run("sudo -u postgres psql -XAtq kelvo -c 'SET ROLE analyst' -c 'SELECT count(*) > 0 FROM events' "
                                         "-c 'DELETE FROM events' 2>&1 || true"), "t\nERROR:  permission denied for table events")
    follow("openssl req -x509")
    tls_of_an_instance()
    pathlib.Path("/etc/nginx/conf.d/kelvo.conf").write_text(printed("upstream kelvo {"))
    follow("worker_connections 40000")
    (pathlib.Path("/srv") / "config.json").write_text('{"enable": true, "service_paths": {}}')
    run("\n".join(line for line in printed("put config shop - ").splitlines() if "put config" in line or "put enabled" in line), cwd="/srv")
    expect("the document", json.loads(run(f"curl -fsS https://{NAME}/v2/api/shop/sdk/enabled-status")).get("enabled"), False)
    sent(upgrade)
    expect("requests that nginx could pass to no instance", run("grep -c '\" 50[0-9] ' /var/log/nginx/access.log || true"), "0")
    sent(dump)
    moment()
    print("The road is free.")


main()
