"""Security probes against the running binary: nothing before a completed login, nothing
outside the server home and the mounts (paths, names, mounts, symbolic links), data
connections only to the client's own host, login limits, three wrong Telnet passwords end the
connection, and the users file is never readable by others."""

import os
import stat
import unittest

from hostile_support import (GREETING, TELNET_WELCOME, USER_OK, Conn, DataListener, Ftp,
                             Server, login, main, raise_fd_limit, shell)


def snapshot(top):
    """Every path below `top` with its size, modification time and type."""
    seen = {}
    for root, dirs, files in os.walk(top):
        for name in dirs + files:
            st = os.lstat(os.path.join(root, name))
            seen[os.path.join(root, name)] = (st.st_size, st.st_mtime_ns, stat.S_IFMT(st.st_mode))
    return seen


class Probes(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        raise_fd_limit(4096)
        s = cls.server = Server(start=False, files={"pub/known.txt": b"known\n",
                                                    "private/secret.txt": b"admin only\n"})
        # Outside the home: a folder with a secret, reached by links from inside the home and
        # from inside a mount.
        cls.outside = os.path.join(s.dir, "outside")
        mounted = os.path.join(s.dir, "mounted")
        for folder, name, data in ((cls.outside, "secret.txt", b"outside the home\n"),
                                   (mounted, "m.txt", b"mounted\n")):
            os.makedirs(folder)
            with open(os.path.join(folder, name), "wb") as f:
                f.write(data)
        for target, link in ((cls.outside, "home/link_out"), (cls.outside, "mounted/escape"),
                             (os.path.join(cls.outside, "secret.txt"), "home/file_out"),
                             (os.path.join(s.home, "pub"), "home/link_in")):
            os.symlink(target, os.path.join(s.dir, link))
        s.write_table("mounts", "%s|\\mnt\n" % mounted)
        s.write_table("fpl.txt", "\\pub:d:root:root:111111111\n\\private:d:admin:admin:111000000\n"
                                 "\\mnt:d:root:root:111111111\n")
        s.start()
        cls.before_outside = snapshot(cls.outside)

    @classmethod
    def tearDownClass(cls):
        cls.server.close()

    def tearDown(self):
        self.assertTrue(self.server.alive())
        self.assertEqual(self.server.sanitizer_reports(), [])
        # Nothing outside the home changed, whatever a test tried.
        self.assertEqual(snapshot(self.outside), self.before_outside)

    # ---- before a login ----

    def test_nothing_before_a_completed_login(self):
        home_before = snapshot(self.server.home)
        lst = DataListener()
        try:
            for user_first in (False, True):
                c = Ftp(self.server.ftp_port)
                self.assertEqual(c.line(), GREETING)
                if user_first:  # a name alone grants nothing either
                    self.assertEqual(c.cmd("USER admin"), USER_OK)
                for command, reply in (
                        ("LIST", b"550 Permission denied"),
                        ("NLST pub", b"550 Permission denied"),
                        ("RETR known.txt", b"550 No such file or directory"),
                        ("STOR dropped.txt", b"550 No such file or directory"),
                        ("DELE known.txt", b"550 No such file or directory"),
                        ("CWD pub", b"550 pub; No such file or directory"),
                        ("CWD /", b"550 /; No such file or directory"),
                        ("MKD made", b'550 mkdir: Failed; No such file or directory "made"'),
                        ("MKD \\made", b'550 mkdir: Failed; No such file or directory "\\made"'),
                        ("RMD \\pub", b'550 rmdir: No such file or Directory ""'),
                        ("CDUP", b"250 CWD command successful"),
                        ("PWD", b'257 "/" is current directory.')):
                    c.port(lst)
                    self.assertEqual(c.cmd(command), reply + b"\r\n", command)
                c.quit()
            lst.assert_unused()
        finally:
            lst.close()
        # Telnet: before the password every line is a login name.
        t = Conn(self.server.telnet_port)
        t.read_until(b"login: ")
        self.assertEqual(t.say("rm *", until=b"Password: "), b"Password: ")
        t.send("mkdir x\r\n")
        self.assertEqual(t.read_until(b"login: "), b"\r\nLogin incorrect\r\nlogin: ")
        t.close()
        self.assertEqual(snapshot(self.server.home), home_before)

    def test_login_limit_is_kept_and_given_back(self):
        first = login(self.server, "limited", "limited-pass")
        second = Ftp(self.server.ftp_port)
        second.line()
        second.cmd("USER limited")
        second.send("PASS limited-pass\r\n")
        self.assertEqual(second.read_to_close(),
                         b"421- limited - max (1) connections in use.\r\n550 Login incorrect\r\n")
        # Names given again and again on one connection count nothing.
        third = Ftp(self.server.ftp_port)
        self.assertEqual(third.line(), GREETING)
        for _ in range(5):
            self.assertEqual(third.cmd("USER limited"), USER_OK)
        first.quit()
        third.send("PASS limited-pass\r\n")
        self.assertEqual(third.read_until(b" user logged in.\r\n"),
                         b"230- 1 out of 1 allowed connections in use.\r\n"
                         b"230 limited user logged in.\r\n")
        third.close()

    def test_three_wrong_telnet_passwords_close_the_connection(self):
        for name, failure in (("limited", ") Login failure for user (limited)"),
                              ("nobody", ") Login failure for unknown user")):
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
            lines = self.server.log_since(mark)
            self.assertEqual(sum(1 for l in lines if l.endswith(failure)), 3, lines)
        # The failures did not touch the account's count: its one login still works.
        t = shell(self.server, "limited", "limited-pass")
        t.send("exit\r\n")
        t.read_to_close()

    # ---- paths, names, mounts, links ----

    def test_links_out_of_the_home_are_not_in_the_tree(self):
        c = login(self.server, "admin", "admin-pass")
        names = c.transfer("NLST")[1].split(b"\r\n")
        self.assertIn(b"link_in", names)  # a link that stays inside is followed
        self.assertNotIn(b"link_out", names)
        self.assertNotIn(b"file_out", names)
        self.assertEqual(c.cmd("CWD mnt"), b"250 CWD command successful\r\n")
        names = c.transfer("NLST")[1].split(b"\r\n")
        self.assertIn(b"m.txt", names)
        self.assertNotIn(b"escape", names)
        for path in ("link_out", "\\link_out", "file_out", "\\mnt\\escape", "escape"):
            self.assertEqual(c.cmd("CWD " + path), b"550 %s; No such file or directory\r\n"
                             % path.encode())
        c.close()

    def test_ftp_paths_and_names_stay_inside(self):
        c = login(self.server, "admin", "admin-pass")
        for path in ("..", "../..", "/..", "\\..\\..", "pub/../../.."):
            self.assertEqual(c.cmd("CWD " + path), b"250 CWD command successful\r\n")
            self.assertEqual(c.cmd("PWD"), b'257 "/" is current directory.\r\n')
        self.assertEqual(c.cmd("CWD pub"), b"250 CWD command successful\r\n")
        lst = DataListener()
        for verb, names, reply in (
                ("RETR", ("../secret.txt", "..\\private\\secret.txt", "../outside/secret.txt",
                          "/etc/passwd", "..", "."), b"550 No such file or directory\r\n"),
                ("STOR", ("../evil.txt", "..\\evil.txt", "a/b", "a\\b", "..", ".", "x:y",
                          "/tmp/evil.txt"), b"550 Permissions denied\r\n")):
            for name in names:
                c.port(lst)
                self.assertEqual(c.cmd("%s %s" % (verb, name)), reply, name)
        lst.assert_unused(0.2)
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
        t = shell(self.server, "admin", "admin-pass")
        denied = b"more failed: Permissions Denied\r\n# "
        for line, reply in (("cd \\..\\..\\..", b"# "), ("pwd", b"\\\r\n# "),
                            ("cd link_out", b"link_out: does not exist\r\n# "),
                            ("more \\link_out\\secret.txt", denied), ("more file_out", denied),
                            ("more ..\\..\\etc\\passwd", denied)):
            self.assertEqual(t.say(line), reply, line)
        for line in ("cp \\pub\\known.txt ..\\..\\..", "cp \\pub\\known.txt \\mnt\\escape",
                     "mv \\pub\\known.txt \\mnt\\escape", "mkdir ..\\..\\evil",
                     "mkdir \\mnt\\escape\\evil", "rm \\mnt\\escape\\secret.txt",
                     "rm ..\\..\\outside\\secret.txt", "rmdir \\link_out",
                     "chmod 777 \\link_out\\", "cp \\link_out\\secret.txt \\pub",
                     "cp \\mnt\\escape \\pub"):
            t.say(line)
        self.assertTrue(os.path.exists(os.path.join(self.server.home, "pub", "known.txt")))
        self.assertFalse(os.path.exists(os.path.join(self.server.home, "pub", "secret.txt")))
        t.send("exit\r\n")
        t.read_to_close()

    # ---- data connections ----

    def test_data_connections_only_to_the_clients_own_host(self):
        c = login(self.server)
        c.cmd("CWD pub")
        other = DataListener("127.0.0.2")
        mark = self.server.mark()
        c.port(other)
        self.assertEqual(c.cmd("RETR known.txt"),
                         b"150 Opening ASCII mode data connection (6 bytes)\r\n")
        self.assertTrue(self.server.wait_log("Data Connection failed!", start=mark))
        other.assert_unused()
        other.close()
        c.close()
        # A client on 127.0.0.2 cannot send the data to 127.0.0.1 either.
        c = Ftp(self.server.ftp_port, source="127.0.0.2")
        c.login()
        here = DataListener("127.0.0.1")
        c.port(here)
        self.assertEqual(c.cmd("NLST"), b"150 Opening ASCII mode data connection\r\n")
        here.assert_unused()
        here.close()
        c.close()

    # ---- the users file ----

    def test_users_file_is_never_readable_by_others(self):
        s = Server(start=False)
        self.addCleanup(s.close)
        users, bait = os.path.join(s.dir, "users"), os.path.join(s.dir, "bait")
        os.chmod(users, 0o644)
        # A link left where the temporary file goes must not be written through.
        s.write_table("bait", "bait\n")
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
        self.assertEqual((s.table("bait"), stat.S_IMODE(os.stat(bait).st_mode)), (b"bait\n", 0o644))
        self.assertFalse(os.path.lexists(users + ".tmp"))
        self.assertIn(b"demo:101:", s.table("users"))

if __name__ == "__main__":
    main()
