"""The brute-force defence and hashed passwords, end to end with the built binary: bans per
address (while another loopback address logs in at once), the pause before a failed login's
reply, the per-address connection limit, the auth log line a fail2ban filter matches, and
passwords stored as salted hashes (set with --encode-password, upgraded at login)."""

import os
import re
import shutil
import subprocess
import time
import unittest

from hostile_support import (BINARY, GREETING, TELNET_WELCOME, USER_OK, Conn, Ftp, Server,
                             expect, main)

SOURCE = os.environ.get("ORVANE_SOURCE_DIR", os.path.join(os.path.dirname(__file__), "..", ".."))
AUTH_LINE = re.compile(r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ Login failure from (\S+) service "
                       r"(FTP|Telnet) user \((.*)\)$")


class GuardServer(Server):
    """A server whose settings.ini has these [Extensions] lines ("key=value" each)."""

    def __init__(self, extensions, **kw):
        keys = dict(line.split("=", 1) for line in extensions.splitlines() if line)
        super().__init__(extensions=keys, **kw)


def ftp_guess(port, password, source="127.0.0.1", user="demo"):
    """One FTP login attempt; returns its reply to PASS and the seconds it took."""
    ftp = Ftp(port, source)
    try:
        expect(ftp.line(), GREETING, "greeting")
        expect(ftp.cmd("USER " + user), USER_OK, "USER")
        began = time.monotonic()
        reply = ftp.cmd("PASS " + password)
        return reply, time.monotonic() - began
    finally:
        ftp.close()


def refused_at_accept(port, source="127.0.0.1"):
    conn = Conn(port, source)
    try:
        return conn.read_to_close(limit=10) == b""
    finally:
        conn.close()


def telnet_login_start(port, user, source="127.0.0.1"):
    t = Conn(port, source)
    expect(t.read_until(b"login: "), TELNET_WELCOME, "welcome")
    t.send(user + "\r\n")
    t.read_until(b"Password: ")
    return t


class Bans(unittest.TestCase):
    def test_ban_shuts_out_one_address_only_and_repeat_bans_double(self):
        s = GuardServer("ban_after=3\nban_seconds=2\nauth_log=1\n")
        try:
            early = telnet_login_start(s.telnet_port, "demo")  # connected before the ban
            for _ in range(3):
                reply, _ = ftp_guess(s.ftp_port, "wrong")
                expect(reply, b"550 Login incorrect\r\n", "failed PASS")
            self.assertTrue(s.wait_log("Address 127.0.0.1 banned for 2 seconds after 3 failed "
                                       "logins (ban 1)"))
            self.assertTrue(refused_at_accept(s.ftp_port))
            self.assertTrue(refused_at_accept(s.telnet_port))
            # A session opened before the ban gets nowhere even with the right password.
            early.send("demo-pass\r\n")
            expect(early.read_until(b"login: "), b"\r\nLogin incorrect\r\nlogin: ", "banned")
            early.close()
            # Another address is not touched: it logs in at once.
            began = time.monotonic()
            ftp = Ftp(s.ftp_port, "127.0.0.2")
            ftp.login()
            self.assertLess(time.monotonic() - began, 1.0)
            ftp.quit()

            self.assertTrue(s.wait_log_match(r"^Ban on address 127\.0\.0\.1 ended "
                                             r"\(2 connections refused\)$"))
            ftp = Ftp(s.ftp_port)
            ftp.login()
            ftp.quit()
            # The next ban, earned over Telnet's three tries, lasts twice as long.
            t = telnet_login_start(s.telnet_port, "nobody")
            for _ in range(2):
                t.send("x\r\n")
                t.read_until(b"login: ")
                t.send("nobody\r\n")
                t.read_until(b"Password: ")
            t.send("x\r\n")
            t.read_to_close()
            self.assertTrue(s.wait_log("Address 127.0.0.1 banned for 4 seconds after 3 failed "
                                       "logins (ban 2)"))

            auth = [m.groups() for m in map(AUTH_LINE.match, s.log_since()) if m]
            self.assertEqual(auth[:4], [("127.0.0.1", "FTP", "demo")] * 3 +
                             [("127.0.0.1", "Telnet", "demo")])
            self.assertEqual(auth[-1], ("127.0.0.1", "Telnet", "nobody"))
            # The described line stays beside the new one.
            self.assertTrue(s.wait_log_match(r"^\(\d+\) Login failure for unknown user$"))
            if shutil.which("fail2ban-regex"):
                out = subprocess.run(
                    ["fail2ban-regex", os.path.join(s.dir, "debug.txt"),
                     os.path.join(SOURCE, "packaging", "fail2ban", "orvane.conf")],
                    capture_output=True, text=True, timeout=60).stdout
                self.assertIn("%d matched" % len(auth), out)
            self.assertEqual(s.stop(), 0)
        finally:
            s.close()

    def test_connection_limit_per_address(self):
        s = GuardServer("max_per_address=2\n")
        try:
            held = [Ftp(s.ftp_port) for _ in range(2)]
            for c in held:
                expect(c.line(), GREETING, "greeting")
            self.assertTrue(refused_at_accept(s.ftp_port))
            self.assertTrue(refused_at_accept(s.telnet_port))  # counted across services
            other = Ftp(s.ftp_port, "127.0.0.2")
            other.login()
            held[0].quit()
            again = Ftp(s.ftp_port)
            again.login()
            self.assertEqual(sum("holds 2 connections" in l for l in s.log_since()), 1,
                             s.log_since())
            for c in (held[1], again, other):
                c.close()
            self.assertEqual(s.stop(), 0)
        finally:
            s.close()


class Pause(unittest.TestCase):
    def test_failed_reply_waits_without_holding_up_others(self):
        s = GuardServer("login_delay_ms=1500\n")
        try:
            slow = Ftp(s.ftp_port)
            expect(slow.line(), GREETING, "greeting")
            slow.cmd("USER demo")
            began = time.monotonic()
            slow.send("PASS wrong\r\nNOOP\r\n")
            # Meanwhile another login from the same address goes through at once.
            quick = Ftp(s.ftp_port)
            quick.login()
            self.assertLess(time.monotonic() - began, 1.0)
            quick.quit()
            expect(slow.read_to_close(), b"550 Login incorrect\r\n", "delayed 550")
            self.assertGreater(time.monotonic() - began, 1.4)

            t = telnet_login_start(s.telnet_port, "demo")
            began = time.monotonic()
            t.send("nope\r\n")
            expect(t.read_until(b"login: "), b"\r\nLogin incorrect\r\nlogin: ", "telnet")
            self.assertGreater(time.monotonic() - began, 1.4)
            t.send("demo\r\n")
            t.read_until(b"Password: ")
            t.send("demo-pass\r\n")
            t.read_until(b"# ")
            t.close()
            self.assertEqual(s.stop(), 0)
        finally:
            s.close()

    def test_without_keys_nothing_changes(self):
        s = Server()
        try:
            reply, took = ftp_guess(s.ftp_port, "wrong")
            expect(reply, b"550 Login incorrect\r\n", "550")
            self.assertLess(took, 1.0)
            for _ in range(5):
                ftp_guess(s.ftp_port, "wrong")
            ftp = Ftp(s.ftp_port)
            ftp.login()
            ftp.quit()
            self.assertFalse([l for l in s.log_since() if "Login failure from" in l or
                              "banned" in l or l.startswith("Settings:")])
            self.assertEqual(s.stop(), 0)
        finally:
            s.close()


class Hashes(unittest.TestCase):
    def test_hashed_passwords_and_upgrade_at_login(self):
        s = GuardServer("password_hash=1\n", users=(), start=False)
        try:
            hashed = subprocess.run([BINARY, "-C", s.dir, "--encode-password", "anna", "an na!"],
                                    check=True, capture_output=True, text=True).stdout
            self.assertRegex(hashed, r"^\$y\$[^:\s]{40,}\n$")
            classic = subprocess.run([BINARY, "--encode-password", "bob", "bob-pw"], check=True,
                                     capture_output=True, text=True, cwd="/").stdout.strip()
            self.assertLessEqual(len(classic), 31)
            s.write_table("users", "anna:101:%s:3:15:\\\nbob:102:%s:3:15:\\\n" % (
                hashed.strip(), classic))
            s.start()
            ftp = Ftp(s.ftp_port)
            ftp.login("anna", "an na!")
            ftp.quit()
            reply, _ = ftp_guess(s.ftp_port, "an na?", user="anna")
            expect(reply, b"550 Login incorrect\r\n", "wrong password")
            t = telnet_login_start(s.telnet_port, "anna")
            t.send("an na!\r\n")
            t.read_until(b"anna - 1 out of 3 allowed connections in use.\r\n# ")
            t.close()
            # The classic form is replaced by a hash at bob's next login.
            ftp = Ftp(s.ftp_port)
            ftp.login("bob", "bob-pw")
            ftp.quit()
            self.assertTrue(s.wait_log("Password of user (bob) is now stored as a hash"))
            self.assertEqual(s.stop(), 0)
            users = s.table("users").decode()
            self.assertNotIn(classic, users)
            self.assertEqual(len(re.findall(r"^\w+:10\d:\$y\$", users, re.M)), 2)
            s.start()
            ftp = Ftp(s.ftp_port)
            ftp.login("bob", "bob-pw")
            ftp.quit()
            self.assertEqual(s.stop(), 0)
        finally:
            s.close()


if __name__ == "__main__":
    main()
