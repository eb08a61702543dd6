"""The admin command line (`orvane-server -C DIR admin ...`) against a running server (over its
admin socket) and a stopped one (on the tables under the instance lock), SIGHUP, and a fault
test: SIGKILL at random moments during a stream of admin changes and uploads loses nothing
older than about a second and a half, and leaves every table readable."""

import os
import random
import re
import signal
import socket
import stat
import struct
import subprocess
import threading
import time
import unittest

from hostile_support import (BINARY, COMPLETE, WAIT, Ftp, GREETING, USER_OK, Server, login,
                             main)


def admin(server, *args, password=None):
    """Runs the command line; returns (exit status, standard output, standard error)."""
    p = subprocess.run([BINARY, "-C", server.dir, "admin"] + list(args), timeout=WAIT,
                       input=(password + "\n") if password is not None else "",
                       capture_output=True, text=True)
    return p.returncode, p.stdout, p.stderr


def try_login(server, user, password):
    """The reply to PASS: True for a login, False for a refusal."""
    ftp = Ftp(server.ftp_port)
    try:
        assert ftp.line() == GREETING
        assert ftp.cmd("USER " + user) == USER_OK
        ftp.send("PASS %s\r\n" % password)
        reply = ftp.line()
        while reply.startswith(b"230-"):
            reply = ftp.line()
        return reply.startswith(b"230 ")
    finally:
        ftp.close()


class AgainstARunningServer(unittest.TestCase):
    def setUp(self):
        self.server = Server()
        self.addCleanup(self.server.close)

    def test_the_socket_is_the_owners_alone(self):
        st = os.stat(os.path.join(self.server.dir, "orvane.sock"))
        self.assertTrue(stat.S_ISSOCK(st.st_mode))
        self.assertEqual(stat.S_IMODE(st.st_mode), 0o600)

    def test_every_command_with_its_texts_and_log_lines(self):
        s = self.server
        real = os.path.join(s.dir, "real")
        os.makedirs(real)
        mark = s.mark()
        for args, password, want in (
                (("user", "add", "carol", "--rights", "ftp-in"), "carol-pw",
                 (0, "Added User (carol)\n", "")),
                (("user", "add", "carol"), "x", (1, "", "User (carol) already exists\n")),
                (("user", "add", "dave"), "", (1, "", "Invalid password pick a different one!\n")),
                (("user", "set", "carol", "--max-logins", "3", "--home", "\\pub"), None,
                 (0, "Updated User (carol)\n", "")),
                (("user", "passwd", "carol"), "carol-new", (0, "Updated User (carol)\n", "")),
                (("group", "add", "staff", "carol"), None,
                 (0, "Added Group (staff)\nAdded User (carol) to Group (staff).\n", "")),
                (("group", "members", "staff", "--set", "demo"), None,
                 (0, "Added User (demo) to Group (staff).\n"
                     "Removed User (carol) from Group (staff).\n", "")),
                (("group", "list"), None, (0, "staff gid=101 members=demo\n", "")),
                (("group", "del", "nope"), None,
                 (1, "", "*** Could not find Group (nope) for delete! ***\n")),
                (("mount", "add", real, "\\pub\\real"), None,
                 (0, "Single Mount thread started\n", "")),
                (("mount", "add", real, "\\pub"), None,
                 (1, "", "The \"as\" directory must not exist because it will be created "
                         "during the mount.\n")),
                (("settings", "set", "maxusers=21abc"), None,
                 (1, "", "Max Users must be between 0 and 256\n")),
                # (The test's ports lie above the dialog's 32000.)
                (("settings", "set", "maxusers=40"), None,
                 (1, "", "Telnet Port be between 1 and 32000\n")),
                (("settings", "get", "maxusers"), None, (0, "50\n", "")),
                (("user", "del", "carol"), None, (0, "Deleted User (carol)\n", "")),
                (("user", "del", "carol"), None, (1, "", "No such user (carol)\n")),
        ):
            self.assertEqual(admin(s, *args, password=password), want, args)
        self.assertTrue(s.wait_log("Single mount thread complete!"))
        self.assertEqual(admin(s, "mount", "list"), (0, "%s - > \\pub\\real\n" % real, ""))
        self.assertEqual(admin(s, "mount", "del", "/pub/real"),
                         (0, "Remove Mount thread started\n", ""))
        self.assertTrue(s.wait_log("Remove mount thread Complete."))
        logged = s.log_since(mark)
        for line in ("Added User (carol)", "Updated User (carol)", "Added Group (staff)",
                     "Removed User (carol) from Group (staff).", "Deleted User (carol)",
                     "*** Could not find Group (nope) for delete! ***"):
            self.assertIn(line, logged)
        self.assertNotIn("carol-new", "\n".join(logged))

        ftp = login(s)
        status, out, _ = admin(s, "who")
        self.assertEqual(status, 0)
        self.assertRegex(out, r"^\(\d+\) FTP demo 127\.0\.0\.1\n$")
        ftp.quit()
        # No password on standard input: refused before anything is sent.
        self.assertEqual(admin(s, "user", "add", "erin")[0], 2)
        self.assertEqual(admin(s, "bogus")[0], 2)

    def test_a_user_changed_while_logging_in(self):
        s = self.server
        stop, answers = threading.Event(), []

        def logins():
            while not stop.is_set():
                answers.append(try_login(s, "demo", "demo-pass"))

        t = threading.Thread(target=logins)
        t.start()
        try:
            for i in range(12):
                pw = "demo-pass" if i % 2 else "other-pass"
                self.assertEqual(admin(s, "user", "passwd", "demo", password=pw)[0], 0)
                self.assertEqual(admin(s, "user", "set", "demo",
                                       "--rights", "15" if i % 3 else "ftp-in")[0], 0)
        finally:
            stop.set()
            t.join(WAIT)
        self.assertTrue(answers)
        self.assertTrue(s.alive())
        # The last change holds: demo-pass (i = 11), and the other one is refused.
        self.assertTrue(try_login(s, "demo", "demo-pass"))
        self.assertFalse(try_login(s, "demo", "other-pass"))

    def test_garbage_on_the_socket_gets_an_error(self):
        s = self.server
        path = os.path.join(s.dir, "orvane.sock")
        for payload in (b"", b"\x00\x00\x00\x05hello", struct.pack(">I", 1 << 30),
                        b"\x00\x00\x00\x13orvane-admin 1\x00\x00who", os.urandom(3000)):
            c = socket.socket(socket.AF_UNIX)
            c.settimeout(WAIT)
            c.connect(path)
            c.sendall(payload)
            c.shutdown(socket.SHUT_WR)
            reply = b"".join(iter(lambda: c.recv(4096), b""))
            c.close()
            self.assertIn(b"could not be read", reply, payload[:20])
        # A client that says nothing is let go, and the next one is served.
        idle = socket.socket(socket.AF_UNIX)
        idle.connect(path)
        self.assertEqual(admin(s, "group", "list"), (0, "", ""))
        idle.close()
        self.assertTrue(s.alive())

    def test_sighup_applies_settings_ini_and_never_ends_the_process(self):
        s = self.server
        old_ftp = s.ftp_port
        mark = s.mark()
        s.new_ports()  # settings.ini now names other ports
        s.proc.send_signal(signal.SIGHUP)
        self.assertTrue(s.wait_log("  FTP - Ok.  port %d" % s.ftp_port, start=mark))
        self.assertTrue(s.wait_log("  Telnet - Ok.  port %d" % s.telnet_port, start=mark))
        self.assertEqual(s.log_since(mark)[:3], ["Settings reloaded", "  Telnet - Disabled",
                                                 "  Telnet - Ok.  port %d" % s.telnet_port])
        self.assertTrue(try_login(s, "demo", "demo-pass"))
        with self.assertRaises(OSError):
            socket.create_connection(("127.0.0.1", old_ftp), timeout=2).close()
        mark = s.mark()
        for _ in range(3):
            s.proc.send_signal(signal.SIGHUP)
            time.sleep(0.2)
        self.assertTrue(s.wait_log("Settings reloaded", start=mark))
        time.sleep(0.5)
        self.assertTrue(s.alive())
        self.assertEqual(admin(s, "reload")[0], 0)
        self.assertEqual(s.stop(), 0)


class AgainstAStoppedServer(unittest.TestCase):
    def test_the_tables_are_edited_and_the_next_start_has_them(self):
        s = Server(start=False)
        self.addCleanup(s.close)
        real = os.path.join(s.dir, "real")
        os.makedirs(real)
        self.assertEqual(admin(s, "user", "add", "frank", "--rights", "ftp-in",
                               password="frank-pw"), (0, "Added User (frank)\n", ""))
        self.assertEqual(admin(s, "group", "add", "crew", "frank", "demo")[0], 0)
        self.assertEqual(admin(s, "mount", "add", real, "\\pub\\real"), (0, "", ""))
        self.assertEqual(admin(s, "user", "add", "frank", password="x"),
                         (1, "", "User (frank) already exists\n"))
        self.assertEqual(admin(s, "who")[0], 1)
        self.assertEqual(admin(s, "settings", "set", "maxusers=7", "telnet_port=2323",
                               "ftp_port=2121"), (0, "", ""))
        self.assertEqual(admin(s, "settings", "get"), (0, "serverhome=%s\nmaxusers=7\n"
                         "telnet=1\ntelnet_port=2323\nftp=1\nftp_port=2121\n" % s.home, ""))
        s.new_ports()
        self.assertEqual(os.stat(os.path.join(s.dir, "users")).st_mode & 0o777, 0o600)
        self.assertIn("frank:102:", s.table("users").decode())
        self.assertIn(b"crew:101:", s.table("groups"))
        self.assertEqual(s.table("mounts"), ("%s|\\pub\\real\n" % real).encode())
        # Nothing a command did not change is rewritten.
        self.assertEqual(s.table("fpl.txt").decode(),
                         "\\pub:d:root:root:111111111\n\\private:d:admin:admin:111000000\n")
        s.start()
        self.assertTrue(try_login(s, "frank", "frank-pw"))
        self.assertTrue(s.wait_log("Single mount thread complete!", limit=1) or
                        s.wait_log("  Mounting %s  - > \\pub\\real" % real))
        self.assertIn("frank uid=102 max_logins=1 rights=ftp-in home=\\ groups=crew",
                      admin(s, "user", "list")[1].splitlines())
        self.assertEqual(s.stop(), 0)


def parse_tables(folder):
    """Every table read as the server reads it, or an assertion naming the bad line."""
    def lines(name):
        path = os.path.join(folder, name)
        if not os.path.exists(path):
            return []
        with open(path, "rb") as f:
            data = f.read()
        assert data == b"" or data.endswith(b"\n"), "%s is cut short" % name
        return data.decode("latin-1").splitlines()
    for line in lines("users"):
        fields = line.split(":", 5)
        assert len(fields) == 6 and re.fullmatch(r"-?\d+", fields[1]), line
    for line in lines("groups"):
        assert re.fullmatch(r"[^:]+:\d+(:[^:]+)*", line), line
    for line in lines("mounts"):
        assert "|" in line, line
    fpl = lines("fpl.txt")
    for line in fpl:
        assert len(line.split(":")) >= 5, line
    return fpl


class KilledMidStream(unittest.TestCase):
    """Uploads and admin changes run while the server is killed at a random moment. Every
    change that completed more than 1.5 s before the kill is in the tables."""

    def test_nothing_older_than_a_second_and_a_half_is_lost(self):
        s = Server(start=False)
        self.addCleanup(s.close)
        rnd = random.Random(11)
        serial = [0]
        for round_ in range(3):
            s.start()
            stop = threading.Event()
            uploads, groups = [], []

            def upload_loop():
                try:
                    ftp = login(s)
                    ftp.cmd("TYPE I")
                    ftp.cmd("CWD pub")
                    while not stop.is_set():
                        serial[0] += 1
                        name = "up%04d.bin" % serial[0]
                        if ftp.transfer("STOR " + name, b"x" * 1000)[2] == COMPLETE:
                            uploads.append((time.monotonic(), name))
                except (OSError, AssertionError):
                    pass  # the server was killed

            def admin_loop():
                while not stop.is_set():
                    serial[0] += 1
                    name = "g%04d" % serial[0]
                    try:
                        status = admin(s, "group", "add", name, "demo")[0]
                    except subprocess.TimeoutExpired:
                        return
                    if status == 0:
                        groups.append((time.monotonic(), name))

            threads = [threading.Thread(target=upload_loop), threading.Thread(target=admin_loop)]
            for t in threads:
                t.start()
            time.sleep(rnd.uniform(2.0, 4.0))
            s.stop(sig=signal.SIGKILL)
            killed = time.monotonic()
            stop.set()
            for t in threads:
                t.join(WAIT)
            fpl = "\n".join(parse_tables(s.dir))
            with open(os.path.join(s.dir, "groups")) as f:
                group_names = {line.split(":")[0] for line in f}
            old = killed - 1.5
            self.assertTrue([u for u in uploads if u[0] < old], "no upload old enough")
            for when, name in uploads:
                if when < old:
                    self.assertIn("\\pub\\%s:-:demo:demo:" % name, fpl, "round %d" % round_)
            for when, name in groups:
                if when < old:
                    self.assertIn(name, group_names, "round %d" % round_)
        # And the server starts from what was left.
        s.start()
        self.assertEqual(s.stop(), 0)
        self.assertEqual(s.sanitizer_reports(), [])


if __name__ == "__main__":
    main()
