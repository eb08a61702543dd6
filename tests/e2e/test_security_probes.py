"""Security probes against the running binary: nothing before a completed login, nothing
outside the server home and the mounts (paths, names, mounts, symbolic links), data
connections only to the client's own host, three wrong Telnet passwords end the connection,
and the users file is never readable by others."""

import os
import socket
import stat
import time
import unittest

from hostile_support import (BINARY, GOODBYE, GREETING, TELNET_WELCOME, WAIT, Conn, DataListener,
                             Ftp, Server, long_line, raise_fd_limit)


def snapshot(top):
    """Every path below `top` with its size and modification time."""
    seen = {}
    for root, dirs, files in os.walk(top):
        for name in dirs + files:
            path = os.path.join(root, name)
            try:
                st = os.lstat(path)
            except OSError:
                continue
            seen[path] = (st.st_size, st.st_mtime_ns, stat.S_IFMT(st.st_mode))
    return seen


class Probes(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        raise_fd_limit(4096)
        cls.server = Server(start=False, files={"pub/known.txt": b"known\n",
                                                "private/secret.txt": b"admin only\n"})
        s = cls.server
        # Outside the home: a folder with a secret, reached by links from inside the home and
        # from inside a mount.
        cls.outside = os.path.join(s.dir, "outside")
        os.makedirs(cls.outside)
        with open(os.path.join(cls.outside, "secret.txt"), "wb") as f:
            f.write(b"outside the home\n")
        os.symlink(cls.outside, os.path.join(s.home, "link_out"))
        os.symlink(os.path.join(cls.outside, "secret.txt"), os.path.join(s.home, "file_out"))
        os.symlink(os.path.join(s.home, "pub"), os.path.join(s.home, "link_in"))
        cls.mounted = os.path.join(s.dir, "mounted")
        os.makedirs(cls.mounted)
        with open(os.path.join(cls.mounted, "m.txt"), "wb") as f:
            f.write(b"mounted\n")
        os.symlink(cls.outside, os.path.join(cls.mounted, "escape"))
        s.write_table("mounts", "%s|\\mnt\n" % cls.mounted)
        s.write_table("fpl.txt", "\\pub:d:root:root:111111111\n\\private:d:admin:admin:111000000\n"
                                 "\\mnt:d:root:root:111111111\n")
        s.start()
        cls.before_outside = snapshot(cls.outside)
        cls.before_start_dir = {p: v for p, v in snapshot(os.path.dirname(s.dir)).items()
                                if not p.startswith(s.dir + os.sep)}

    @classmethod
    def tearDownClass(cls):
        cls.server.close()

    def tearDown(self):
        self.assertTrue(self.server.alive())
        self.assertEqual(self.server.sanitizer_reports(), [])
        # Nothing outside the home changed, whatever a test tried.
        self.assertEqual(snapshot(self.outside), self.before_outside)

    def shell(self, user="demo", password="demo-pass"):
        t = Conn(self.server.telnet_port)
        self.assertEqual(t.read_until(b"login: "), TELNET_WELCOME)
        t.send(user + "\r\n")
        t.read_until(b"Password: ")
        t.send(password + "\r\n")
        t.read_until(b"# ")
        return t

    def say(self, t, line):
        t.send(line + "\r\n")
        out = t.read_until(b"# ")
        echo = line.encode("latin-1") + b"\r\n"
        self.assertTrue(out.startswith(echo), out)
        return out[len(echo):-2]

    # ---- before a login ----

    def test_nothing_before_a_completed_login(self):
        home_before = snapshot(self.server.home)
        lst = DataListener()
        try:
            for user_first in (False, True):
                c = Ftp(self.server.ftp_port)
                self.assertEqual(c.line(), GREETING)
                if user_first:  # a name alone grants nothing either
                    self.assertEqual(c.cmd("USER admin"), b"331 User ok need Password.\r\n")
                self.assertEqual(c.cmd("PORT " + lst.port_arg), b"200 Port Command OK.\r\n")
                expected = [
                    ("LIST", b"550 Permission denied\r\n"),
                    ("NLST pub", b"550 Permission denied\r\n"),
                    ("RETR known.txt", b"550 No such file or directory\r\n"),
                    ("STOR dropped.txt", b"550 No such file or directory\r\n"),
                    ("DELE known.txt", b"550 No such file or directory\r\n"),
                    ("CWD pub", b"550 pub; No such file or directory\r\n"),
                    ("CWD /", b"550 /; No such file or directory\r\n"),
                    ("MKD made", b'550 mkdir: Failed; No such file or directory "made"\r\n'),
                    ("MKD \\made", b'550 mkdir: Failed; No such file or directory "\\made"\r\n'),
                    ("RMD \\pub", b'550 rmdir: No such file or Directory ""\r\n'),
                    ("CDUP", b"250 CWD command successful\r\n"),
                    ("PWD", b'257 "/" is current directory.\r\n'),
                ]
                for command, reply in expected:
                    self.assertEqual(c.cmd(command), reply, command)
                c.send("QUIT\r\n")
                self.assertEqual(c.read_to_close(), GOODBYE)
            # No data connection was ever made.
            lst.sock.settimeout(0.5)
            with self.assertRaises(socket.timeout):
                lst.sock.accept()
        finally:
            lst.close()
        # Telnet: before the password every line is a login name.
        t = Conn(self.server.telnet_port)
        t.read_until(b"login: ")
        t.send("rm *\r\n")
        self.assertEqual(t.read_until(b"Password: "), b"rm *\r\nPassword: ")
        t.send("mkdir x\r\n")
        self.assertEqual(t.read_until(b"login: "), b"\r\nLogin incorrect\r\nlogin: ")
        t.close()
        self.assertEqual(snapshot(self.server.home), home_before)

    def test_login_limit_is_kept_and_given_back(self):
        first = Ftp(self.server.ftp_port)
        first.login("limited", "limited-pass")
        second = Ftp(self.server.ftp_port)
        self.assertEqual(second.line(), GREETING)
        second.cmd("USER limited")
        second.send("PASS limited-pass\r\n")
        self.assertEqual(second.read_to_close(),
                         b"421- limited - max (1) connections in use.\r\n550 Login incorrect\r\n")
        # Names given again and again on one connection count nothing.
        third = Ftp(self.server.ftp_port)
        self.assertEqual(third.line(), GREETING)
        for _ in range(5):
            self.assertEqual(third.cmd("USER limited"), b"331 User ok need Password.\r\n")
        first.send("QUIT\r\n")
        self.assertEqual(first.read_to_close(), GOODBYE)
        third.send("PASS limited-pass\r\n")
        self.assertEqual(third.read_until(b" user logged in.\r\n"),
                         b"230- 1 out of 1 allowed connections in use.\r\n"
                         b"230 limited user logged in.\r\n")
        third.close()

    def test_three_wrong_telnet_passwords_close_the_connection(self):
        for name in ("limited", "nobody"):
            mark = self.server.mark()
            t = Conn(self.server.telnet_port)
            self.assertEqual(t.read_until(b"login: "), TELNET_WELCOME)
            for attempt in range(3):
                t.send(name + "\r\n")
                self.assertEqual(t.read_until(b"Password: "), name.encode() + b"\r\nPassword: ")
                t.send("wrong-%d\r\n" % attempt)
                if attempt < 2:
                    self.assertEqual(t.read_until(b"login: "), b"\r\nLogin incorrect\r\nlogin: ")
            self.assertEqual(t.read_to_close(), b"\r\n")
            self.assertTrue(self.server.wait_log_match(r"^Telnet Close port \d+$", start=mark))
            failure = ("(%%i) Login failure for user (%s)" % name if name != "nobody"
                       else "(%i) Login failure for unknown user")
            lines = self.server.log_since(mark)
            self.assertEqual(sum(1 for l in lines if l.endswith(failure[4:])), 3, lines)
        # The failures did not touch the account's count: its one login still works.
        t = self.shell("limited", "limited-pass")
        t.send("exit\r\n")
        t.read_to_close()

    # ---- paths, names, mounts, links ----

    def test_links_out_of_the_home_are_not_in_the_tree(self):
        c = Ftp(self.server.ftp_port)
        c.login("admin", "admin-pass")
        lst = DataListener()
        c.port(lst)
        c.send("NLST\r\n")
        c.line()
        names = lst.receive_all().split(b"\r\n")
        self.assertEqual(c.line(), b"226 Transfer complete\r\n")
        lst.close()
        self.assertIn(b"link_in", names)  # a link that stays inside is followed
        self.assertNotIn(b"link_out", names)
        self.assertNotIn(b"file_out", names)
        self.assertEqual(c.cmd("CWD mnt"), b"250 CWD command successful\r\n")
        lst = DataListener()
        c.port(lst)
        c.send("NLST\r\n")
        c.line()
        names = lst.receive_all().split(b"\r\n")
        c.line()
        lst.close()
        self.assertIn(b"m.txt", names)
        self.assertNotIn(b"escape", names)
        for path in ("link_out", "\\link_out", "file_out", "\\mnt\\escape", "escape"):
            self.assertEqual(c.cmd("CWD " + path), b"550 %s; No such file or directory\r\n"
                             % path.encode())
        c.close()

    def test_ftp_paths_and_names_stay_inside(self):
        c = Ftp(self.server.ftp_port)
        c.login("admin", "admin-pass")
        for path in ("..", "../..", "/..", "\\..\\..", "../../..", "pub/../../.."):
            self.assertEqual(c.cmd("CWD " + path), b"250 CWD command successful\r\n")
            self.assertEqual(c.cmd("PWD"), b'257 "/" is current directory.\r\n')
        self.assertEqual(c.cmd("CWD pub"), b"250 CWD command successful\r\n")
        for name in ("../secret.txt", "..\\private\\secret.txt", "../outside/secret.txt",
                     "/etc/passwd", "..", "."):
            lst = DataListener()
            c.port(lst)
            self.assertEqual(c.cmd("RETR " + name), b"550 No such file or directory\r\n", name)
            lst.close()
        for name in ("../evil.txt", "..\\evil.txt", "a/b", "a\\b", "..", ".", "x:y",
                     "/tmp/evil.txt"):
            lst = DataListener()
            c.port(lst)
            self.assertEqual(c.cmd("STOR " + name), b"550 Permissions denied\r\n", name)
            lst.close()
        for word in ("..\\..\\..\\evil", "../../evil/x", "\\..\\..\\evil\\y"):
            c.cmd("MKD " + word)
        for word in ("..", "\\..", "../pub"):
            c.cmd("RMD " + word)
            c.cmd("DELE " + word)
        c.close()
        for path in ("evil.txt", "evil", "x:y"):
            self.assertFalse(os.path.exists(os.path.join(self.server.dir, path)), path)
            self.assertFalse(os.path.exists(os.path.join(os.path.dirname(self.server.dir), path)))
        self.assertTrue(os.path.isdir(os.path.join(self.server.home, "pub")))

    def test_shell_paths_and_names_stay_inside(self):
        t = self.shell("admin", "admin-pass")
        self.assertEqual(self.say(t, "cd \\..\\..\\.."), b"")
        self.assertEqual(self.say(t, "pwd"), b"\\\r\n")
        self.assertEqual(self.say(t, "cd link_out"), b"link_out: does not exist\r\n")
        self.assertEqual(self.say(t, "more \\link_out\\secret.txt"),
                         b"more failed: Permissions Denied\r\n")
        self.assertEqual(self.say(t, "more file_out"), b"more failed: Permissions Denied\r\n")
        self.assertEqual(self.say(t, "more ..\\..\\etc\\passwd"),
                         b"more failed: Permissions Denied\r\n")
        for line in ("cp \\pub\\known.txt ..\\..\\..", "cp \\pub\\known.txt \\mnt\\escape",
                     "mv \\pub\\known.txt \\mnt\\escape", "mkdir ..\\..\\evil",
                     "mkdir \\mnt\\escape\\evil", "rm \\mnt\\escape\\secret.txt",
                     "rm ..\\..\\outside\\secret.txt", "rmdir \\link_out",
                     "chmod 777 \\link_out\\", "cp \\link_out\\secret.txt \\pub",
                     "cp \\mnt\\escape \\pub"):
            self.say(t, line)
        self.assertTrue(os.path.exists(os.path.join(self.server.home, "pub", "known.txt")))
        self.assertFalse(os.path.exists(os.path.join(self.server.home, "pub", "secret.txt")))
        t.send("exit\r\n")
        t.read_to_close()

    # ---- data connections ----

    def test_data_connections_only_to_the_clients_own_host(self):
        c = Ftp(self.server.ftp_port)
        c.login("demo", "demo-pass")
        c.cmd("CWD pub")
        other = DataListener("127.0.0.2")
        try:
            mark = self.server.mark()
            c.port(other)
            c.send("RETR known.txt\r\n")
            self.assertEqual(c.line(), b"150 Opening ASCII mode data connection (6 bytes)\r\n")
            self.assertTrue(self.server.wait_log("Data Connection failed!", start=mark))
            other.sock.settimeout(1.0)
            with self.assertRaises(socket.timeout):
                other.sock.accept()
        finally:
            other.close()
        c.close()
        # A client on 127.0.0.2 cannot send the data to 127.0.0.1 either.
        s = socket.socket()
        s.bind(("127.0.0.2", 0))
        s.settimeout(WAIT)
        s.connect(("127.0.0.1", self.server.ftp_port))
        c = Ftp.__new__(Ftp)
        c.sock, c.buf, c.eof = s, b"", False
        c.login("demo", "demo-pass")
        here = DataListener("127.0.0.1")
        try:
            c.port(here)
            c.send("NLST\r\n")
            self.assertEqual(c.line(), b"150 Opening ASCII mode data connection\r\n")
            here.sock.settimeout(1.0)
            with self.assertRaises(socket.timeout):
                here.sock.accept()
        finally:
            here.close()
            c.close()

    # ---- the users file ----

    def test_users_file_is_never_readable_by_others(self):
        s = Server(start=False)
        try:
            users = os.path.join(s.dir, "users")
            os.chmod(users, 0o644)
            # A link left where the temporary file goes must not be written through.
            bait = os.path.join(s.dir, "bait")
            with open(bait, "w") as f:
                f.write("bait\n")
            os.chmod(bait, 0o644)
            os.symlink(bait, users + ".tmp")
            old_umask = os.umask(0)
            try:
                s.start()
            finally:
                os.umask(old_umask)
            # Already while it runs, not only once a shutdown has written it anew.
            self.assertEqual(stat.S_IMODE(os.stat(users).st_mode) & 0o077, 0)
            self.assertEqual(s.stop(), 0)
            st = os.lstat(users)
            self.assertTrue(stat.S_ISREG(st.st_mode))
            self.assertEqual(stat.S_IMODE(st.st_mode) & 0o077, 0, oct(st.st_mode))
            with open(bait) as f:
                self.assertEqual(f.read(), "bait\n")
            self.assertEqual(stat.S_IMODE(os.stat(bait).st_mode), 0o644)
            self.assertFalse(os.path.lexists(users + ".tmp"))
            self.assertIn(b"demo:101:", s.table("users"))
        finally:
            s.close()


if __name__ == "__main__":
    if not BINARY:
        raise SystemExit("ORVANE_BINARY is not set")
    unittest.main()
