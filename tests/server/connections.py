#!/usr/bin/env python3
"""Tests what connections cost and how many kelvo-server keeps.

usage: scripts/postgres exec --fast tests/server/connections.py PROGRAM [COUNT]: opens COUNT idle connections (4,000 without), or
as many as a process may open files. It takes thousands, because the server's own memory varies by 3 MB under load.
"""
import os
import pathlib
import re
import resource
import socket
import ssl
import subprocess
import sys
import tempfile
import time
import unittest

REQUEST = b"GET /v2/api/shop/sdk/enabled-status HTTP/1.1\r\nHost: localhost\r\n\r\n"
# Debian's own configuration forbids old versions to both sides, so it could hide that the server allows them.
PERMISSIVE = "openssl_conf = a\n[a]\nssl_conf = b\n[b]\nsystem_default = c\n[c]\nCipherString = DEFAULT@SECLEVEL=0\nMinProtocol = TLSv1\n"


class Server:
    def __init__(self, *flags, openssl=""):
        self.process = subprocess.Popen(
            [PROGRAM, "--listen", "127.0.0.1:0", "--admin", "127.0.0.1:0", "--per-address", "100000", *flags],
            stdout=subprocess.PIPE, text=True, env={**os.environ, **({"OPENSSL_CONF": openssl} if openssl else {})})
        self.port = int(re.search(r":(\d+)", self.process.stdout.readline())[1])

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.communicate()

    def connect(self, tls=None):
        plain = socket.create_connection(("127.0.0.1", self.port), 10)
        return tls.wrap_socket(plain, server_hostname="localhost") if tls else plain

    def bytes(self):
        """Returns the private memory of the process."""
        rollup = pathlib.Path(f"/proc/{self.process.pid}/smaps_rollup").read_text()
        return 1024 * sum(int(each) for each in re.findall(r"^Private_\w+: +(\d+)", rollup, re.MULTILINE))


def is_answered(connection):
    """Sends a request. Returns whether its whole answer arrives."""
    try:
        connection.sendall(REQUEST)
        answer = b""
        while not answer.endswith(b"}"):
            piece = connection.recv(4096)
            if not piece:
                return False
            answer += piece
        return answer.startswith(b"HTTP/1.1 ")
    except ConnectionError:
        return False


class Connections(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        subprocess.run([PROGRAM, "migrate"], check=True, stdout=subprocess.DEVNULL)
        cls.directory = tempfile.TemporaryDirectory()
        path = pathlib.Path(cls.directory.name)
        cls.openssl = path / "openssl.cnf"
        cls.openssl.write_text(PERMISSIVE)
        cls.pair = ("--tls-cert", str(path / "cert.pem"), "--tls-key", str(path / "key.pem"))
        subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-subj",
                        "/CN=localhost", "-out", cls.pair[1], "-keyout", cls.pair[3]], check=True, stderr=subprocess.DEVNULL)
        cls.tls = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
        cls.tls.check_hostname, cls.tls.verify_mode = False, ssl.CERT_NONE

    @classmethod
    def tearDownClass(cls):
        cls.directory.cleanup()

    def test_an_idle_connection_takes_10_kB_in_cleartext_and_90_kB_with_TLS(self):
        for name, flags, tls, most in (("cleartext", (), None, 10_000), ("TLS", self.pair, self.tls, 90_000)):
            with self.subTest(name), Server(*flags) as server:
                idle = []

                def open_idle_connections(count):
                    for _ in range(count):
                        idle.append(server.connect(tls))
                        self.assertTrue(is_answered(idle[-1]))
                    return server.bytes()

                before = open_idle_connections(100)  # the server has then made what it makes only once
                each = (open_idle_connections(COUNT) - before) / COUNT
                print(f"an idle connection: {each:.0f} bytes ({name})", file=sys.stderr)
                self.assertLess(each, most)
                for connection in idle:
                    connection.close()

    def test_TLS_begins_with_version_1_2(self):
        with Server(*self.pair, openssl=str(self.openssl)) as server:
            for version, is_good in ((ssl.TLSVersion.TLSv1_1, False), (ssl.TLSVersion.TLSv1_2, True), (ssl.TLSVersion.TLSv1_3, True)):
                context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
                context.check_hostname, context.verify_mode = False, ssl.CERT_NONE
                context.set_ciphers("DEFAULT@SECLEVEL=0")
                context.minimum_version = context.maximum_version = version
                with self.subTest(version):
                    try:
                        self.assertEqual(server.connect(context).version(), version.name.replace("_", "."))
                        self.assertTrue(is_good)
                    except (ssl.SSLError, ConnectionError):
                        self.assertFalse(is_good)

    def test_a_crowded_server_closes_idle_connections_and_no_busy_one(self):
        with Server("--connections", "4") as server:
            busy = server.connect()
            busy.sendall(REQUEST[:20])
            idle = [server.connect() for _ in range(3)]
            self.assertTrue(all(map(is_answered, idle)))
            end = time.monotonic() + 10
            while not is_answered(server.connect()):  # the first is refused, and makes room
                self.assertLess(time.monotonic(), end)
            self.assertLess(sum(map(is_answered, idle)), 3)
            busy.sendall(REQUEST[20:])
            self.assertTrue(busy.recv(100).startswith(b"HTTP/1.1 "))


if __name__ == "__main__":
    files = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (files, files))
    PROGRAM, COUNT = sys.argv[1], min(int((sys.argv[2:] or ["4000"])[0]), files - 200)
    unittest.main(verbosity=1, argv=sys.argv[:1], warnings="ignore")
