"""Shared pieces of the FTP end-to-end tests: the built server, headless, in a prepared start
directory that can be stopped and started again. Run directly, it checks the greeting and
QUIT with a plain socket."""

import os
import signal
import socket
import subprocess
import tempfile
import threading
import time
import unittest

BINARY = os.environ.get("ORVANE_BINARY", "")
WAIT = 20.0  # seconds any single expectation may take

GREETING = b"220 Orvane Server (beta) written by Pel Varnholt and Kem Osterlo, ready.\r\n"
GOODBYE = (b"221-Orvane Server (beta) written by Pel Varnholt and Kem Osterlo\r\n"
           b"221 Connection closed.\r\n")


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


class FtpServerProcess:
    """The built binary with FTP on a free loopback port. `pub` in the home is open to all;
    `files` maps paths below the home to their bytes."""

    def __init__(self, files=None, motd=None, users=None):
        self.tmp = tempfile.TemporaryDirectory(prefix="orvane-ftp-e2e-")
        self.dir = self.tmp.name
        self.home = os.path.join(self.dir, "home")
        os.makedirs(os.path.join(self.home, "pub"))
        for rel, data in (files or {}).items():
            path = os.path.join(self.home, rel)
            os.makedirs(os.path.dirname(path), exist_ok=True)
            with open(path, "wb") as f:
                f.write(data)
        self.port = free_port()
        with open(os.path.join(self.dir, "settings.ini"), "w") as f:
            f.write("[Server_Settings]\nserverhome=%s\nmaxusers=20\n[Services]\ntelnet=0\n"
                    "ftp=1\nftp_port=%d\n" % (self.home, self.port))
        lines = []
        for name, password, uid in users or (("demo", "demo-pass", 101),
                                             ("admin", "admin-pass", 10)):
            encoded = subprocess.run([BINARY, "--encode-password", name, password], check=True,
                                     capture_output=True, text=True, timeout=WAIT).stdout.strip()
            lines.append("%s:%d:%s:5:15:\\\n" % (name, uid, encoded))
        with open(os.path.join(self.dir, "users"), "w") as f:
            f.writelines(lines)
        with open(os.path.join(self.dir, "fpl.txt"), "w") as f:
            f.write("\\pub:d:root:root:111111111\n")
        if motd is not None:
            with open(os.path.join(self.dir, "motd.txt"), "w") as f:
                f.write(motd)
        self.proc = None
        self.start()

    def start(self):
        self.lines = []
        self.cond = threading.Condition()
        self.proc = subprocess.Popen([BINARY, "--headless", "-C", self.dir],
                                     stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
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

    def wait_log(self, line, limit=WAIT):
        end = time.monotonic() + limit
        with self.cond:
            while line not in self.lines:
                left = end - time.monotonic()
                if left <= 0 or self.proc.poll() is not None:
                    return line in self.lines
                self.cond.wait(left)
            return True

    def log_matches(self, predicate):
        with self.cond:
            return any(predicate(l) for l in self.lines)

    def stop(self):
        """The orderly shutdown; returns the exit status."""
        status = None
        if self.proc and self.proc.poll() is None:
            self.proc.send_signal(signal.SIGTERM)
            try:
                status = self.proc.wait(timeout=WAIT)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()
        elif self.proc:
            status = self.proc.returncode
        if self.proc:
            self.reader.join(timeout=5)
            self.proc.stdout.close()
        return status

    def close(self):
        self.stop()
        self.tmp.cleanup()


class GreetingTest(unittest.TestCase):
    def test_greeting_and_quit(self):
        server = FtpServerProcess()
        try:
            with socket.create_connection(("127.0.0.1", server.port), timeout=WAIT) as s:
                data = b""
                while not data.endswith(b"\r\n"):
                    data += s.recv(4096)
                self.assertEqual(data, GREETING)
                s.sendall(b"QUIT\r\n")
                data = b""
                while True:
                    chunk = s.recv(4096)
                    if not chunk:
                        break
                    data += chunk
                self.assertEqual(data, GOODBYE)
        finally:
            server.close()


if __name__ == "__main__":
    if not BINARY:
        raise SystemExit("ORVANE_BINARY is not set")
    unittest.main()
