"""Shared pieces of the outgoing-client end-to-end tests: the built server in a prepared start
directory, a raw-socket Telnet session into its shell, and real peers on loopback (Debian's
pyftpdlib FTP server, socat). Run directly, it checks the open texts that need no peer."""

import os
import select
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest

BINARY = os.environ.get("ORVANE_BINARY", "")
PYTHON = "/usr/bin/python3"
WAIT = 20.0  # seconds any single expectation may take


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def wait_port(port, limit=WAIT):
    end = time.monotonic() + limit
    while time.monotonic() < end:
        try:
            with socket.create_connection(("127.0.0.1", port), timeout=1):
                return True
        except OSError:
            time.sleep(0.05)
    return False


class OrvaneServer:
    """The built binary, headless, in a temporary start directory."""

    def __init__(self, users=(("admin", "admin-pass", 10, 15), ("demo", "demo-pass", 101, 15)),
                 files=None):
        self.tmp = tempfile.TemporaryDirectory(prefix="orvane-client-e2e-")
        self.dir = self.tmp.name
        self.home = os.path.join(self.dir, "home")
        os.makedirs(self.home)
        for rel, data in (files or {}).items():
            path = os.path.join(self.home, rel)
            os.makedirs(os.path.dirname(path), exist_ok=True)
            with open(path, "wb") as f:
                f.write(data)
        self.ftp_port = free_port()
        self.telnet_port = free_port()
        with open(os.path.join(self.dir, "settings.ini"), "w") as f:
            f.write(
                "[Server_Settings]\nserverhome=%s\nmaxusers=20\n[Services]\ntelnet=1\nftp=1\n"
                "telnet_port=%d\nftp_port=%d\n" % (self.home, self.telnet_port, self.ftp_port)
            )
        lines = []
        for name, password, uid, rights in users:
            encoded = subprocess.run(
                [BINARY, "--encode-password", name, password],
                check=True, capture_output=True, text=True, timeout=WAIT,
            ).stdout.strip()
            lines.append("%s:%d:%s:4:%d:\\\n" % (name, uid, encoded, rights))
        with open(os.path.join(self.dir, "users"), "w") as f:
            f.writelines(lines)
        self.lines = []
        self.cond = threading.Condition()
        self.proc = subprocess.Popen(
            [BINARY, "--headless", "-C", self.dir],
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
        )
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()
        if not self.wait_log("Ready..."):
            self.stop()
            raise RuntimeError("server did not start: %r" % self.lines)

    def _read(self):
        for raw in self.proc.stdout:
            with self.cond:
                self.lines.append(raw.decode("latin-1").rstrip("\n"))
                self.cond.notify_all()

    def wait_log(self, line, limit=WAIT, start=0):
        """Waits until `line` (exactly) has been logged at index `start` or later."""
        end = time.monotonic() + limit
        with self.cond:
            while True:
                if line in self.lines[start:]:
                    return True
                left = end - time.monotonic()
                if left <= 0 or self.proc.poll() is not None:
                    return line in self.lines[start:]
                self.cond.wait(left)

    def log_text(self):
        with self.cond:
            return "\n".join(self.lines)

    def stop(self):
        if self.proc.poll() is None:
            self.proc.send_signal(signal.SIGTERM)
            try:
                self.proc.wait(timeout=WAIT)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()
        self.reader.join(timeout=5)
        self.proc.stdout.close()
        self.tmp.cleanup()


class Session:
    """A raw-socket Telnet session into the shell (the server offers ECHO; we answer nothing)."""

    def __init__(self, port):
        self.sock = socket.create_connection(("127.0.0.1", port), timeout=WAIT)
        self.buf = b""

    def _fill(self, timeout):
        r, _, _ = select.select([self.sock], [], [], timeout)
        if not r:
            return False
        data = self.sock.recv(65536)
        if not data:
            raise EOFError("connection closed; had %r" % self.buf[-400:])
        self.buf += data
        return True

    def read_until(self, text, limit=WAIT):
        if isinstance(text, str):
            text = text.encode("latin-1")
        end = time.monotonic() + limit
        while text not in self.buf:
            left = end - time.monotonic()
            if left <= 0:
                raise AssertionError("timed out waiting for %r; had %r" % (text, self.buf[-600:]))
            self._fill(left)
        cut = self.buf.index(text) + len(text)
        out, self.buf = self.buf[:cut], self.buf[cut:]
        return out

    def read_quiet(self, quiet=0.5):
        while self._fill(quiet):
            pass
        out, self.buf = self.buf, b""
        return out

    def send(self, text):
        if isinstance(text, str):
            text = text.encode("latin-1")
        self.sock.sendall(text)

    def login(self, name="admin", password="admin-pass"):
        self.read_until("login: ")
        self.send(name + "\r\n")
        self.read_until("Password: ")
        self.send(password + "\r\n")
        return self.read_until("# ")

    def line(self, text, until="ftp> "):
        """Types a line; returns what followed its echo up to `until`."""
        self.send(text + "\r\n")
        self.read_until(text + "\r\n")
        return self.read_until(until)

    def close(self):
        try:
            self.sock.close()
        except OSError:
            pass


PYFTPD_SCRIPT = r"""
import logging, sys
from pyftpdlib.authorizers import DummyAuthorizer
from pyftpdlib.handlers import FTPHandler
from pyftpdlib.servers import FTPServer
logging.basicConfig(level=logging.WARNING)
from pyftpdlib.handlers import ThrottledDTPHandler
port, root, limit = int(sys.argv[1]), sys.argv[2], int(sys.argv[3])
auth = DummyAuthorizer()
auth.add_user("remote", "remote-pass", root, perm="elradfmwMT")
FTPHandler.authorizer = auth
FTPHandler.banner = "pyftpdlib ready."
if limit:
    ThrottledDTPHandler.read_limit = limit
    ThrottledDTPHandler.write_limit = limit
    FTPHandler.dtp_handler = ThrottledDTPHandler
server = FTPServer(("127.0.0.1", port), FTPHandler)
server.serve_forever()
"""


class PyFtpd:
    """Debian's pyftpdlib on a free loopback port, serving `root` to remote/remote-pass."""

    def __init__(self, root, bytes_per_second=0):
        self.port = free_port()
        self.proc = subprocess.Popen(
            [PYTHON, "-c", PYFTPD_SCRIPT, str(self.port), root, str(bytes_per_second)],
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
        )
        if not wait_port(self.port):
            self.stop()
            raise RuntimeError("pyftpdlib did not start")

    def stop(self):
        if self.proc.poll() is None:
            self.proc.terminate()
            try:
                self.proc.wait(timeout=WAIT)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()


def established_to(port):
    """Established loopback TCP connections whose remote end is `port` (from /proc/net/tcp)."""
    count = 0
    with open("/proc/net/tcp") as f:
        next(f)
        for row in f:
            fields = row.split()
            if fields[3] == "01" and int(fields[2].split(":")[1], 16) == port:
                count += 1
    return count


def wait_until(predicate, limit=WAIT):
    end = time.monotonic() + limit
    while time.monotonic() < end:
        if predicate():
            return True
        time.sleep(0.1)
    return predicate()


def ftp_login(session, port, user="remote", password="remote-pass"):
    """From the shell prompt: `ftp 127.0.0.1 PORT` and the login dialogue; returns the text."""
    out = session.line("ftp 127.0.0.1 %d" % port, until="): ")
    session.send(user + "\r\n")
    out += session.read_until("Password: ")
    session.send(password + "\r\n")
    out += session.read_until("ftp> ")
    return out


class OpenTexts(unittest.TestCase):
    """The open threads' texts that need no peer."""

    @classmethod
    def setUpClass(cls):
        cls.server = OrvaneServer()

    @classmethod
    def tearDownClass(cls):
        cls.server.stop()

    def setUp(self):
        self.s = Session(self.server.telnet_port)
        self.s.login()

    def tearDown(self):
        self.s.close()

    def test_telnet_refused_prints_both_prompts(self):
        port = free_port()
        out = self.s.line("telnet 127.0.0.1 %d" % port, until="# ")
        self.assertEqual(out, b"Connecting to 127.0.0.1 ...\r\nConnection refused\r\nftp> # ")

    def test_telnet_unknown_host_does_not_connect(self):
        out = self.s.line("telnet no-such-host.invalid", until="# ")
        self.assertEqual(out, b"Looking up (no-such-host.invalid)...\r\nDNS failed!\r\n# ")

    def test_ftp_unknown_host_goes_on_to_refused(self):
        out = self.s.line("ftp no-such-host.invalid 2")
        self.assertEqual(
            out, b"Looking up (no-such-host.invalid)...\r\nDNS failed!\r\nConnection refused\r\nftp> "
        )
        self.assertEqual(self.s.line("bye", until="# "), b"# ")

    def test_ftp_without_host_and_the_not_connected_table(self):
        self.assertEqual(self.s.line("ftp"), b"ftp> ")
        for word in ("dir", "cd x", "get a", "put a", "user x", "close", "quote x"):
            self.assertEqual(self.s.line(word), b"Not connected.\r\nftp> ", word)
        for word in ("ldir", "lpwd", "prompt", "mget *", "mput *", "ftp", "more x", "nosuch"):
            self.assertEqual(self.s.line(word), b"?Invalid command\r\nftp> ", word)
        self.assertEqual(self.s.line("tick 100"), b"Defaulting to minimum size of 2048 bytes\r\nftp> ")
        self.assertEqual(self.s.line("hash 4096"), b"Ticksize set to 4096 bytes\r\nftp> ")
        self.assertEqual(self.s.line("hash on"), b"ftp> ")
        self.assertEqual(self.s.line("lcd nowhere"), b"nowhere: does not exist\r\nftp> ")
        self.assertEqual(self.s.line("lcd \\"), b"Local directory now: \\\r\nftp> ")
        self.assertEqual(
            self.s.line("?"),
            b"Commands are:\r\n\r\n?\r\n"
            b"ascii    dir      lcd      more     quit \r\n"
            b"bin      exit     ldir     mput    *qoute\r\n"
            b"bye      ftp      lpwd     open     rmdir \r\n"
            b"cd       get      ls       prompt   tick  \r\n"
            b"close    hash     mget     put      user  \r\n"
            b"delete\t\thelp     mkdir    pwd            \r\nftp> ",
        )
        self.assertEqual(self.s.line("quit", until="# "), b"# ")


if __name__ == "__main__":
    unittest.main()
