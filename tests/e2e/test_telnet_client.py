"""The Telnet shell with Debian's real `telnet` client, driven through tmux: log in, make a
directory, copy a file into it, list it, page a file and leave."""

import os
import shutil
import subprocess
import time
import unittest

from hostile_support import BINARY, WAIT, Server, main


class Tmux:
    """A terminal running one program, on a tmux server of its own."""

    def __init__(self, command):
        self.socket = "orvane-e2e-%d" % os.getpid()
        self.tmux("new-session", "-d", "-s", "t", "-x", "132", "-y", "50", command)
        self.tmux("set-option", "-t", "t", "remain-on-exit", "on")  # keep the last screen

    def tmux(self, *args):
        return subprocess.run(["tmux", "-L", self.socket] + list(args), check=True,
                              capture_output=True, text=True, timeout=WAIT).stdout

    def screen(self):
        return self.tmux("capture-pane", "-p", "-t", "t", "-S", "-200")

    def wait_for(self, shown, what):
        """Waits until `shown(screen)` holds; returns the screen."""
        end = time.monotonic() + WAIT
        while not shown(self.screen()):
            if time.monotonic() > end:
                raise AssertionError("no %s; screen:\n%s" % (what, self.screen()))
            time.sleep(0.1)
        return self.screen()

    def wait_text(self, text):
        return self.wait_for(lambda s: text in s, repr(text))

    def prompts(self, screen=None):
        """Lines that begin with the shell prompt (tmux drops the blank after it)."""
        return sum(1 for l in (screen or self.screen()).splitlines() if l.startswith("#"))

    def run_line(self, text):
        """Types a line and waits for the prompt after it; returns the screen."""
        count = self.prompts()
        self.type_line(text)
        return self.wait_for(lambda s: self.prompts(s) > count, "prompt %d" % (count + 1))

    def type_line(self, text):
        self.tmux("send-keys", "-t", "t", "-l", text)
        self.tmux("send-keys", "-t", "t", "Enter")

    def close(self):
        subprocess.run(["tmux", "-L", self.socket, "kill-server"], capture_output=True,
                       timeout=WAIT)


@unittest.skipUnless(BINARY and shutil.which("telnet") and shutil.which("tmux"),
                     "needs ORVANE_BINARY, telnet and tmux")
class TelnetClientTest(unittest.TestCase):
    def test_login_copy_list_page_and_leave(self):
        server = Server(fpl="\\:d:root:root:111111111\n", files={
            "pub/hello.txt": b"Hello from the server\n",
            "numbers.txt": b"".join(b"number %d\n" % i for i in range(1, 61))})
        self.addCleanup(server.close)
        term = Tmux("telnet 127.0.0.1 %d" % server.telnet_port)
        self.addCleanup(term.close)
        term.wait_text("login:")
        term.type_line("demo")
        term.wait_text("Password:")
        term.type_line("demo-pass")
        shown = term.wait_for(term.prompts, "first prompt")
        self.assertIn("demo - 1 out of 400 allowed connections in use.", shown)
        self.assertNotIn("demo-pass", shown)
        term.run_line("mkdir work")
        term.run_line("cp pub\\hello.txt work")
        self.assertRegex(term.run_line("ls work\\"), r"-rwxrwxrwx +root +<none> +22 hello.txt")
        with open(os.path.join(server.home, "work", "hello.txt"), "rb") as f:
            self.assertEqual(f.read(), b"Hello from the server\n")
        self.assertIn("\n\\\n", term.run_line("pwd"))
        term.type_line("more numbers.txt")
        shown = term.wait_text("-MORE-")
        self.assertIn("number 24", shown)
        self.assertNotIn("number 25", shown)
        # The client sends whole lines, and every key of them counts: the space shows a page,
        # the Enter after it one more line.
        term.type_line(" ")
        shown = term.wait_text("number 49")
        self.assertNotIn("number 50", shown)
        term.type_line("q")
        term.wait_for(lambda s: s.rstrip().endswith("-MORE-#"), "prompt after more")
        # The Enter after "q" waits as a typed-ahead line feed; an empty line completes it.
        term.run_line("")
        term.type_line("exit")
        term.wait_text("Connection closed by foreign host.")
        self.assertTrue(server.wait_log_match(r"\) Telnet Close port$"))


if __name__ == "__main__":
    main()
