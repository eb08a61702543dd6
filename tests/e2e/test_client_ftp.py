"""The shell's `ftp` client against a real FTP server (Debian's pyftpdlib) and against this
server's own FTP service, driven through a raw-socket Telnet session."""

import os
import re
import unittest

from test_client_common import OrvaneServer, PyFtpd, Session, ftp_login, free_port

TEN_MIB = bytes(range(256)) * (10 * 1024 * 1024 // 256)


class PyftpdlibPeer(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.server = OrvaneServer(
            files={
                "outbox/big.bin": TEN_MIB[::-1],
                "outbox/one.up": b"first upload\n",
                "outbox/two.up": b"second upload\n",
                "outbox/skip.txt": b"not matched\n",
            }
        )
        cls.remote_root = os.path.join(cls.server.dir, "remote")
        os.makedirs(os.path.join(cls.remote_root, "sub"))
        with open(os.path.join(cls.remote_root, "big.bin"), "wb") as f:
            f.write(TEN_MIB)
        for name in ("alpha", "beta", "gamma.txt"):
            with open(os.path.join(cls.remote_root, "sub", name), "wb") as f:
                f.write(name.encode() * 3)
        with open(os.path.join(cls.remote_root, "lines.txt"), "wb") as f:
            f.write(b"".join(b"line %02d\n" % i for i in range(1, 31)))
        cls.ftpd = PyFtpd(cls.remote_root)

    @classmethod
    def tearDownClass(cls):
        cls.ftpd.stop()
        cls.server.stop()

    def setUp(self):
        self.s = Session(self.server.telnet_port)
        self.s.login()

    def tearDown(self):
        self.s.close()

    def connect(self):
        return ftp_login(self.s, self.ftpd.port)

    def home(self, *parts):
        return os.path.join(self.server.home, *parts)

    def remote(self, *parts):
        return os.path.join(self.remote_root, *parts)

    def test_login_dialogue_listing_and_leaving(self):
        out = self.s.line("ftp 127.0.0.1 %d" % self.ftpd.port, until="): ")
        self.assertEqual(out, b"Connecting to 127.0.0.1 ...\r\n220 pyftpdlib ready.\r\nUser (admin): ")
        self.s.send("remote\r\n")
        self.assertEqual(
            self.s.read_until("Password: "), b"remote\r\n331 Username ok, send password.\r\nPassword: "
        )
        self.s.send("remote-pass\r\n")
        self.assertEqual(
            self.s.read_until("ftp> "),
            b"\r\n\r230 Login successful.\r\n200 Type set to: ASCII.\r\nftp> ",
        )
        listing = self.s.line("dir")
        self.assertIn(b"big.bin\r\n", listing)
        self.assertTrue(listing.endswith(b"226 ASCII Transfer complete.\r\nftp> "), listing)
        names = self.s.line("ls sub")
        self.assertIn(b"alpha\r\nbeta\r\ngamma.txt\r\n", names)
        self.assertEqual(self.s.line("pwd"), b'257 "/" is the current directory.\r\nftp> ')
        self.assertEqual(self.s.line("open x"), b"Already connected close first\r\nftp> ")
        self.assertEqual(self.s.line("quote NOOP"), b"Not Programmed Yet!\r\nftp> ")
        # The local side is the shell's view of the tree.
        self.assertEqual(self.s.line("lpwd"), b"\\\r\nftp> ")
        self.assertIn(b" big.bin\r\n", self.s.line("ldir outbox\\"))
        self.assertEqual(self.s.line("close", until="# "), b"221 Goodbye.\r\n# ")
        self.assertTrue(self.server.wait_log("Ready..."))

    def test_refused_login_stays_in_the_client(self):
        out = ftp_login(self.s, self.ftpd.port, password="wrong")
        self.assertTrue(out.endswith(b"\r530 Authentication failed.\r\nftp> "), out)
        # Still connected: `user` starts the dialogue again.
        self.s.send("user remote\r\n")
        self.s.read_until("Password: ")
        self.s.send("remote-pass\r\n")
        self.assertTrue(self.s.read_until("ftp> ").endswith(b"200 Type set to: ASCII.\r\nftp> "))
        self.assertEqual(self.s.line("bye", until="# "), b"221 Goodbye.\r\n# ")

    def test_remote_directory_commands(self):
        self.connect()
        self.assertEqual(self.s.line("mkdir made"), b'257 "/made" directory created.\r\nftp> ')
        self.assertTrue(os.path.isdir(self.remote("made")))
        self.assertEqual(self.s.line("cd made"), b'250 "/made" is the current directory.\r\nftp> ')
        self.assertEqual(self.s.line("cd"), b"ftp> ")  # nothing is sent without a name
        self.assertEqual(self.s.line("cd .."), b'250 "/" is the current directory.\r\nftp> ')
        self.assertEqual(self.s.line("rmdir made"), b"250 Directory removed.\r\nftp> ")
        self.assertFalse(os.path.exists(self.remote("made")))
        with open(self.remote("victim"), "wb") as f:
            f.write(b"x")
        self.assertEqual(self.s.line("delete victim"), b"250 File removed.\r\nftp> ")
        self.assertFalse(os.path.exists(self.remote("victim")))
        self.assertTrue(self.s.line("delete victim").startswith(b"550 "))
        self.s.line("bye", until="# ")

    def test_binary_get_and_put_of_ten_mib(self):
        self.connect()
        self.assertEqual(self.s.line("bin"), b"200 Type set to: Binary.\r\nftp> ")
        self.assertEqual(self.s.line("hash off"), b"ftp> ")
        out = self.s.line("get big.bin got.bin")
        self.assertRegex(
            out,
            rb"^200 Active data connection established.\r\n1(25|50) [^\r]*\r\n"
            rb"\(\d+\) 10485760 bytes received in \d+\.\d\d seconds \(\d+\.\d\d Kbytes/sec\)\r\n"
            rb"226 Transfer complete.\r\nftp> $",
        )
        with open(self.home("got.bin"), "rb") as f:
            self.assertTrue(f.read() == TEN_MIB, "received file differs")
        out = self.s.line("put outbox\\big.bin stored.bin")
        self.assertRegex(out, rb"\(\d+\) 10485760 bytes sent in [\d.]+ seconds")
        self.assertTrue(out.endswith(b"226 Transfer complete.\r\nftp> "), out)
        with open(self.remote("stored.bin"), "rb") as f:
            self.assertTrue(f.read() == TEN_MIB[::-1], "stored file differs")
        self.s.line("bye", until="# ")
        # The received file is part of the tree: the shell lists it with its size, owned by
        # the user, rwxr-xr-x.
        listing = self.s.line("ls got.bin", until="# ")
        self.assertIn(b"-rwxr-xr-x     admin    <none>     10485760 got.bin\r\n", listing)

    def test_hash_marks_every_tick(self):
        self.connect()
        self.s.line("bin")
        self.s.line("hash 4096")
        out = self.s.line("get sub/alpha")
        self.assertIn(b"\rbytes transfered: 15\r\n", out)
        with open(self.home("alpha"), "rb") as f:
            self.assertEqual(f.read(), b"alphaalphaalpha")
        with open(self.remote("tick.bin"), "wb") as f:
            f.write(b"t" * (4096 * 5 + 100))
        out = self.s.line("get tick.bin")
        marks = re.findall(rb"\rbytes transfered: (\d+)", out)
        self.assertEqual([int(m) for m in marks], [4096, 8192, 12288, 16384, 20480, 20580])
        self.assertIn(b"\rbytes transfered: 20580\r\n", out)
        self.s.line("bye", until="# ")

    def test_mget_and_mput_with_and_without_prompting(self):
        self.connect()
        self.s.line("hash off")
        self.s.line("cd sub")
        self.s.line("lcd \\")
        self.s.send("mget .\r\n")
        self.s.read_until("mget .\r\n")
        self.assertIn(b"Searching for . ...\r\n", self.s.read_until("Search Complete.\r\n"))
        self.s.read_until("get alpha [y/n]? ")
        self.s.send("y\r\n")
        self.s.read_until("get beta [y/n]? ")
        self.s.send("n\r\n")
        self.s.read_until("get gamma.txt [y/n]? ")
        self.s.send("Y\r\n")
        self.s.read_until("ftp> ")
        self.assertTrue(os.path.exists(self.home("gamma.txt")))
        self.assertFalse(os.path.exists(self.home("beta")))
        self.assertEqual(self.s.line("prompt"), b"Prompting OFF\r\nftp> ")
        out = self.s.line("mget . outbox")
        self.assertNotIn(b"[y/n]", out)
        for name in ("alpha", "beta", "gamma.txt"):
            with open(self.home("outbox", name), "rb") as f:
                self.assertEqual(f.read(), name.encode() * 3)
        self.assertEqual(self.s.line("prompt"), b"Prompting ON\r\nftp> ")
        # The files come in the order of the directory's children: answer by name.
        self.s.send("mput outbox\\*.up\r\n")
        for _ in range(2):
            asked = self.s.read_until(" [y/n]? ")
            self.s.send("y\r\n" if asked.endswith(b"put two.up [y/n]? ") else "n\r\n")
        self.s.read_until("ftp> ")
        self.assertFalse(os.path.exists(self.remote("sub", "one.up")))
        with open(self.remote("sub", "two.up"), "rb") as f:
            self.assertEqual(f.read(), b"second upload\n")
        self.s.line("prompt")
        self.s.line("mput outbox\\*.up")
        self.assertTrue(os.path.exists(self.remote("sub", "one.up")))
        self.assertEqual(
            self.s.line("mput outbox\\*.none"), b"mput: outbox\\*.none: No files matched your criteria\r\nftp> "
        )
        self.s.line("bye", until="# ")

    def test_more_pages_a_remote_file(self):
        self.connect()
        self.s.line("hash off")
        self.s.send("more lines.txt\r\n")
        self.s.read_until("Search Complete.\r\n")
        page = self.s.read_until("-MORE-")
        self.assertEqual(page, b"".join(b"line %02d\r\r\n" % i for i in range(1, 24)) + b"-MORE-")
        self.s.send("\n")
        self.assertEqual(self.s.read_until("-MORE-"), b"\b\b\b\b\b\b      \b\b\b\b\b\bline 24\r\r\n-MORE-")
        self.s.send(" ")
        rest = self.s.read_until("ftp> ")
        self.assertEqual(
            rest,
            b"\b\b\b\b\b\b      \b\b\b\b\b\b"
            + b"".join(b"line %02d\r\r\n" % i for i in range(25, 31))
            + b"ftp> ",
        )
        self.assertEqual(self.s.line("more *.txt"), b"Wildcards not Allowedftp> ")
        self.s.line("bye", until="# ")

    def test_local_side_refusals(self):
        self.connect()
        self.assertEqual(
            self.s.line("get big.bin nowhere\\x"), b"Destination directory doesn't exist: nowhere\r\nftp> "
        )
        self.assertEqual(self.s.line("get big.bin .."), b"local file: permission denied\r\nftp> ")
        # An ordinary user may not create files where the tree does not let them write.
        other = Session(self.server.telnet_port)
        try:
            other.login("demo", "demo-pass")
            ftp_login(other, self.ftpd.port)
            self.assertEqual(other.line("get big.bin"), b"local file: permission denied\r\nftp> ")
            other.line("bye", until="# ")
        finally:
            other.close()
        self.assertFalse(os.path.exists(self.home("big.bin")))
        self.assertEqual(self.s.line("put not-in-tree"), b"Error opening local file\r\nftp> ")
        self.assertEqual(self.s.line("get"), b"GET: missing filename\r\nftp> ")
        self.assertEqual(self.s.line("put"), b"PUT: missing filename\r\nftp> ")
        self.assertEqual(self.s.line("mget"), b"MGET: missing filename\r\nftp> ")
        self.assertEqual(self.s.line("mput"), b"MPUT: missing filename or wildcard\r\nftp> ")
        # A refused RETR leaves an existing local file as it was.
        with open(self.home("keep.txt"), "wb") as f:
            f.write(b"precious")
        self.s.line("bye", until="# ")
        self.s.line("ls keep.txt", until="# ")  # make sure it exists for the shell too
        self.connect()
        out = self.s.line("get no-such-file keep.txt")
        self.assertIn(b"550 ", out)
        with open(self.home("keep.txt"), "rb") as f:
            self.assertEqual(f.read(), b"precious")
        self.s.line("bye", until="# ")

    def test_server_that_closes_returns_to_the_shell(self):
        ftpd = PyFtpd(self.remote_root)
        try:
            ftp_login(self.s, ftpd.port)
        finally:
            ftpd.stop()
        self.assertEqual(self.s.read_until("# "), b"\r\n# ")
        self.assertTrue(self.server.wait_log("Ready..."))
        self.assertRegex(self.server.log_text(), r"\(\d+\) recieved close on ftp_control\(\d+\)!")
        self.assertEqual(self.s.line("whoami", until="# "), b"admin\r\n# ")


class OwnFtpService(unittest.TestCase):
    """A shell user's client against the same server's FTP service."""

    def test_get_and_put_through_our_own_ftp_port(self):
        server = OrvaneServer(files={"pub/hello.txt": b"hello from home\n"})
        s = Session(server.telnet_port)
        try:
            s.login()
            out = ftp_login(s, server.ftp_port, user="admin", password="admin-pass")
            self.assertTrue(out.endswith(b"ftp> "), out)
            s.line("bin")
            s.line("hash off")
            s.line("cd pub")
            listing = s.line("dir")
            self.assertIn(b"hello.txt\r\n", listing)
            self.assertTrue(
                listing.endswith(b"226 ASCII Transfer complete.\r\n200 TYPE set to I\r\nftp> "), listing
            )
            out = s.line("get hello.txt copy.txt")
            self.assertIn(b"226 Transfer complete.\r\n", out)
            with open(os.path.join(server.home, "copy.txt"), "rb") as f:
                self.assertEqual(f.read(), b"hello from home\n")
            out = s.line("put copy.txt back.txt")
            self.assertIn(b"226 Transfer complete.\r\n", out)
            with open(os.path.join(server.home, "pub", "back.txt"), "rb") as f:
                self.assertEqual(f.read(), b"hello from home\n")
            s.line("bye", until="# ")
        finally:
            s.close()
            server.stop()


if __name__ == "__main__":
    unittest.main()
