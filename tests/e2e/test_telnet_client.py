"""End-to-end test of the Telnet shell with Debian's real `telnet` client, driven through tmux:
log in, make a directory, copy a file into it, list it, page a file and leave."""

import os
import shutil
import socket
import subprocess
import tempfile
import threading
import time
import unittest

BINARY = os.environ.get("ORVANE_BINARY", "")
WAIT = 20.0  # seconds any single expectation may take


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


class Server:
    """The built binary, headless, in a temporary start directory."""

    def __init__(self):
        self.tmp = tempfile.TemporaryDirectory(prefix="orvane-telnet-e2e-")
        self.dir = self.tmp.name
        self.home = os.path.join(self.dir, "home")
        os.makedirs(os.path.join(self.home, "pub"))
        with open(os.path.join(self.home, "pub", "hello.txt"), "w") as f:
            f.write("Hello from the server\n")
        with open(os.path.join(self.home, "numbers.txt"), "w") as f:
            f.write("".join("number %d\n" % i for i in range(1, 41)))
        self.telnet_port = free_port()
        with open(os.path.join(self.dir, "settings.ini"), "w") as f:
            f.write(
                "[Server_Settings]\nserverhome=%s\nmaxusers=10\n[Services]\ntelnet=1\nftp=0\n"
                "telnet_port=%d\nftp_port=%d\n" % (self.home, self.telnet_port, free_port())
            )
        encoded = subprocess.run(
            [BINARY, "--encode-password", "demo", "demo-pass"],
            check=True, capture_output=True, text=True, timeout=WAIT,
        ).stdout.strip()
        with open(os.path.join(self.dir, "users"), "w") as f:
            f.write("demo:101:%s:4:15:\\\n" % encoded)
        with open(os.path.join(self.dir, "fpl.txt"), "w") as f:
            f.write("\\:d:root:root:111111111\n")
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

    def wait_log(self, line, limit=WAIT):
        with self.cond:
            return self.cond.wait_for(lambda: line in self.lines, timeout=limit)

    def stop(self):
        if self.proc.poll() is None:
            self.proc.terminate()
            try:
                self.proc.wait(timeout=WAIT)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()
        self.reader.join(timeout=WAIT)
        self.proc.stdout.close()
        self.tmp.cleanup()


class Tmux:
    """A terminal running one program, on a tmux server of its own."""

    def __init__(self, command):
        self.socket = "orvane-e2e-%d" % os.getpid()
        self._tmux("new-session", "-d", "-s", "t", "-x", "132", "-y", "50", command)
        # Keep the screen readable after the client has ended.
        self._tmux("set-option", "-t", "t", "remain-on-exit", "on")

    def _tmux(self, *args):
        return subprocess.run(["tmux", "-L", self.socket] + list(args), check=True,
                              capture_output=True, text=True, timeout=WAIT).stdout

    def screen(self):
        return self._tmux("capture-pane", "-p", "-t", "t", "-S", "-200")

    def prompts(self):
        """Lines that begin with the shell prompt (tmux drops the blank after it)."""
        return sum(1 for line in self.screen().splitlines() if line.startswith("#"))

    def wait_for_prompt(self, count, limit=WAIT):
        end = time.monotonic() + limit
        while time.monotonic() < end:
            if self.prompts() >= count:
                return self.screen()
            time.sleep(0.1)
        raise AssertionError("no prompt %d; screen:\n%s" % (count, self.screen()))

    def wait_for(self, text, limit=WAIT, count=1):
        end = time.monotonic() + limit
        while time.monotonic() < end:
            shown = self.screen()
            if shown.count(text) >= count:
                return shown
            time.sleep(0.1)
        raise AssertionError("%r not shown; screen:\n%s" % (text, self.screen()))

    def type_line(self, text):
        self._tmux("send-keys", "-t", "t", "-l", text)
        self._tmux("send-keys", "-t", "t", "Enter")

    def keys(self, *keys):
        self._tmux("send-keys", "-t", "t", *keys)

    def close(self):
        subprocess.run(["tmux", "-L", self.socket, "kill-server"], capture_output=True,
                       timeout=WAIT)


@unittest.skipUnless(BINARY and shutil.which("telnet") and shutil.which("tmux"),
                     "needs ORVANE_BINARY, telnet and tmux")
class TelnetClientTest(unittest.TestCase):
    def setUp(self):
        self.server = Server()
        self.addCleanup(self.server.stop)
        self.term = Tmux("telnet 127.0.0.1 %d" % self.server.telnet_port)
        self.addCleanup(self.term.close)

    def login(self):
        self.term.wait_for("login:")
        self.term.type_line("demo")
        self.term.wait_for("Password:")
        self.term.type_line("demo-pass")
        shown = self.term.wait_for_prompt(1)
        self.assertIn("demo - 1 out of 4 allowed connections in use.", shown)
        self.assertNotIn("demo-pass", shown)

    def run_line(self, line):
        """Types a line and waits for the prompt after it; returns the screen."""
        prompts = self.term.prompts()
        self.term.type_line(line)
        return self.term.wait_for_prompt(prompts + 1)

    def test_login_mkdir_copy_and_list(self):
        self.login()
        self.run_line("mkdir work")
        self.run_line("cp pub\\hello.txt work")
        shown = self.run_line("ls work\\")
        self.assertIn("hello.txt", shown)
        self.assertRegex(shown, r"-rwxrwxrwx +root +<none> +22 hello.txt")
        with open(os.path.join(self.server.home, "work", "hello.txt")) as f:
            self.assertEqual(f.read(), "Hello from the server\n")
        shown = self.run_line("pwd")
        self.assertIn("\n\\\n", shown)
        self.term.type_line("exit")
        self.term.wait_for("Connection closed by foreign host.")
        self.assertTrue(any(l.endswith(") Telnet Close port") for l in self.server.lines))

    def test_more_pages_and_quits(self):
        self.login()
        self.term.type_line("more numbers.txt")
        self.term.wait_for("-MORE-")
        shown = self.term.screen()
        self.assertIn("number 24", shown)
        self.assertNotIn("number 25", shown)
        # The client sends whole lines: a space and Enter reach the pager as one space key.
        self.term.type_line(" ")
        self.term.wait_for("number 40")
        self.term.wait_for_prompt(2)
        self.run_line("help")
        self.assertIn("chown    help     mv       who", self.term.screen())


if __name__ == "__main__":
    unittest.main()
