"""The shell's own clients, driven through a raw Telnet session: `ftp` against a real FTP
server (Debian's pyftpdlib), against this server's own FTP service and against nothing at all;
the `telnet` relay against socat and against this server's own Telnet service; and users who
vanish during a relay or a transfer (their outgoing connections must close)."""

import os
import re
import time
import unittest

from hostile_support import (TELNET_WELCOME, Peer, Server, free_port, ftp_login, long_line,
                             main, shell, tcp_count, wait_until, who_names)

TEN_MIB = bytes(range(256)) * (10 * 1024 * 1024 // 256)
PROMPT = b"ftp> "


def open_relay(test, target):
    """`telnet` from the test's shell session to socat serving `target`, once it relays."""
    peer = Peer.socat(target)
    test.addCleanup(peer.stop)
    mark = test.server.mark()
    test.assertEqual(test.s.say("telnet 127.0.0.1 %d" % peer.port, until="...\r\n"),
                     b"Connecting to 127.0.0.1 ...\r\n")
    test.assertTrue(test.server.wait_log_match(
        r"^\(\d+\) Outgoing Telnet open thread complete$", start=mark))
    return peer


class ShellClients(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.server = Server(files={"outbox/big.bin": TEN_MIB[::-1], "outbox/one.up": b"one\n",
                                   "outbox/two.up": b"two\n", "outbox/skip.txt": b"no\n",
                                   "pub/hello.txt": b"hello from home\n"})
        cls.root = os.path.join(cls.server.dir, "remote")
        for rel, data in [("big.bin", TEN_MIB), ("tick.bin", b"t" * (4096 * 5 + 100)),
                          ("lines.txt", b"".join(b"line %02d\n" % i for i in range(1, 31)))] + [
                ("sub/" + n, n.encode() * 3) for n in ("alpha", "beta", "gamma.txt")]:
            os.makedirs(os.path.dirname(os.path.join(cls.root, rel)), exist_ok=True)
            with open(os.path.join(cls.root, rel), "wb") as f:
                f.write(data)
        cls.ftpd = Peer.pyftpd(cls.root)

    @classmethod
    def tearDownClass(cls):
        cls.ftpd.stop()
        cls.server.close()

    def setUp(self):
        self.s = shell(self.server, "admin", "admin-pass")
        self.addCleanup(self.s.close)

    def connect(self, *lines):
        ftp_login(self.s, self.ftpd.port)
        for line in lines:
            self.do(line)

    def do(self, line, until=PROMPT):
        return self.s.say(line, until)

    def table(self, rows):
        for line, reply in rows:
            self.assertEqual(self.do(line), reply + PROMPT, line)

    def path(self, *parts):
        return os.path.join(self.server.dir, *parts)

    def read(self, *parts):
        with open(self.path(*parts), "rb") as f:
            return f.read()

    def test_without_a_peer(self):
        self.assertEqual(self.do("ftp no-such-host.invalid 2"), b"Looking up (no-such-host."
                         b"invalid)...\r\nDNS failed!\r\nConnection refused\r\nftp> ")
        self.table([(w, b"Not connected.\r\n") for w in
                    ("dir", "cd x", "get a", "put a", "user x", "close", "quote x")] +
                   [(w, b"?Invalid command\r\n") for w in
                    ("ldir", "lpwd", "prompt", "mget *", "ftp", "nosuch")] + [
            ("tick 100", b"Defaulting to minimum size of 2048 bytes\r\n"),
            ("hash 4096", b"Ticksize set to 4096 bytes\r\n"), ("hash on", b""),
            ("lcd nowhere", b"nowhere: does not exist\r\n"),
            ("lcd \\", b"Local directory now: \\\r\n"),
            ("?", b"Commands are:\r\n\r\n?\r\n"
                  b"ascii    dir      lcd      more     quit \r\n"
                  b"bin      exit     ldir     mput    *qoute\r\n"
                  b"bye      ftp      lpwd     open     rmdir \r\n"
                  b"cd       get      ls       prompt   tick  \r\n"
                  b"close    hash     mget     put      user  \r\n"
                  b"delete\t\thelp     mkdir    pwd            \r\n")])
        self.assertEqual(self.do("quit", b"# "), b"# ")
        self.assertEqual(self.do("ftp"), PROMPT)
        self.assertEqual(self.do("bye", b"# "), b"# ")
        self.assertEqual(self.s.say("telnet 127.0.0.1 %d" % free_port()),
                         b"Connecting to 127.0.0.1 ...\r\nConnection refused\r\nftp> # ")
        self.assertEqual(self.s.say("telnet no-such-host.invalid"),
                         b"Looking up (no-such-host.invalid)...\r\nDNS failed!\r\n# ")

    def test_login_dialogue_commands_and_leaving(self):
        self.assertEqual(self.do("ftp 127.0.0.1 %d" % self.ftpd.port, b"): "),
                         b"Connecting to 127.0.0.1 ...\r\n220 pyftpdlib ready.\r\nUser (admin): ")
        self.s.send("remote\r\n")
        self.assertEqual(self.s.read_until("Password: "),
                         b"remote\r\n331 Username ok, send password.\r\nPassword: ")
        self.s.send("wrong\r\n")
        self.assertEqual(self.s.read_until(PROMPT), b"\r\n\r530 Authentication failed.\r\nftp> ")
        # Still connected: `user` starts the dialogue again.
        self.assertEqual(self.do("user remote", b"Password: "),
                         b"331 Username ok, send password.\r\nPassword: ")
        self.s.send("remote-pass\r\n")
        self.assertEqual(self.s.read_until(PROMPT),
                         b"\r\n\r230 Login successful.\r\n200 Type set to: ASCII.\r\nftp> ")
        listing = self.do("dir")
        self.assertIn(b"big.bin\r\n", listing)
        self.assertTrue(listing.endswith(b"226 ASCII Transfer complete.\r\nftp> "), listing)
        self.assertIn(b"alpha\r\nbeta\r\ngamma.txt\r\n", self.do("ls sub"))
        self.table([("pwd", b'257 "/" is the current directory.\r\n'),
                    ("open x", b"Already connected close first\r\n"),
                    ("quote NOOP", b"Not Programmed Yet!\r\n"),
                    ("lpwd", b"\\\r\n"),  # the local side is the shell's view of the tree
                    ("mkdir made", b'257 "/made" directory created.\r\n'),
                    ("cd made", b'250 "/made" is the current directory.\r\n'),
                    ("cd", b""),  # nothing is sent without a name
                    ("cd ..", b'250 "/" is the current directory.\r\n'),
                    ("rmdir made", b"250 Directory removed.\r\n")])
        self.assertIn(b" big.bin\r\n", self.do("ldir outbox\\"))
        self.assertFalse(os.path.exists(self.path("remote", "made")))
        self.assertEqual(self.do("close", b"# "), b"221 Goodbye.\r\n# ")

    def test_binary_transfers_with_hash_marks(self):
        self.connect()
        self.assertEqual(self.do("bin"), b"200 Type set to: Binary.\r\n" + PROMPT)
        self.do("hash 4096")
        marks = re.findall(rb"\rbytes transfered: (\d+)", self.do("get tick.bin"))
        self.assertEqual([int(m) for m in marks], [4096, 8192, 12288, 16384, 20480, 20580])
        self.do("hash off")
        self.assertRegex(
            self.do("get big.bin got.bin"),
            rb"^200 Active data connection established.\r\n1(25|50) [^\r]*\r\n"
            rb"\(\d+\) 10485760 bytes received in \d+\.\d\d seconds \(\d+\.\d\d Kbytes/sec\)\r\n"
            rb"226 Transfer complete.\r\nftp> $")
        self.assertTrue(self.read("home", "got.bin") == TEN_MIB, "received file differs")
        out = self.do("put outbox\\big.bin stored.bin")
        self.assertRegex(out, rb"\(\d+\) 10485760 bytes sent in [\d.]+ seconds")
        self.assertTrue(out.endswith(b"226 Transfer complete.\r\nftp> "), out)
        self.assertTrue(self.read("remote", "stored.bin") == TEN_MIB[::-1], "stored file differs")
        with open(self.path("remote", "victim"), "wb") as f:
            f.write(b"x")
        self.table([("delete victim", b"250 File removed.\r\n")])
        self.assertTrue(self.do("delete victim").startswith(b"550 "))
        self.do("bye", b"# ")
        # The received file is part of the tree, owned by the user, whose name is its group too.
        self.assertEqual(self.s.say("ls got.bin"), long_line(
            "-", "rwxr-xr-x", "admin", "admin", 10485760, "got.bin", date=False) + b"# ")

    def test_mget_and_mput_with_and_without_prompting(self):
        self.connect("hash off", "cd sub")
        self.assertIn(b"Searching for . ...\r\n", self.do("mget .", b"Search Complete.\r\n"))
        for name, answer in (("alpha", "y"), ("beta", "n"), ("gamma.txt", "Y")):
            self.s.read_until("get %s [y/n]? " % name)
            self.s.send(answer + "\r\n")
        self.s.read_until(PROMPT)
        self.assertTrue(os.path.exists(self.path("home", "gamma.txt")))
        self.assertFalse(os.path.exists(self.path("home", "beta")))
        self.table([("prompt", b"Prompting OFF\r\n")])
        self.assertNotIn(b"[y/n]", self.do("mget . outbox"))
        for name in ("alpha", "beta", "gamma.txt"):
            self.assertEqual(self.read("home", "outbox", name), name.encode() * 3)
        self.table([("prompt", b"Prompting ON\r\n")])
        # The files come in the order of the directory's children: answer by name.
        self.s.send("mput outbox\\*.up\r\n")
        for _ in range(2):
            asked = self.s.read_until(" [y/n]? ")
            self.s.send("y\r\n" if asked.endswith(b"put two.up [y/n]? ") else "n\r\n")
        self.s.read_until(PROMPT)
        self.assertFalse(os.path.exists(self.path("remote", "sub", "one.up")))
        self.assertEqual(self.read("remote", "sub", "two.up"), b"two\n")
        for line in ("prompt", "mput outbox\\*.up"):
            self.do(line)
        self.assertTrue(os.path.exists(self.path("remote", "sub", "one.up")))
        self.table([("mput outbox\\*.none",
                     b"mput: outbox\\*.none: No files matched your criteria\r\n")])
        self.do("bye", b"# ")

    def test_more_pages_a_remote_file(self):
        self.connect("hash off")
        self.do("more lines.txt", "Search Complete.\r\n")
        self.assertEqual(self.s.read_until("-MORE-"),
                         b"".join(b"line %02d\r\r\n" % i for i in range(1, 24)) + b"-MORE-")
        erase = b"\b\b\b\b\b\b      \b\b\b\b\b\b"
        self.s.send("\n")
        self.assertEqual(self.s.read_until("-MORE-"), erase + b"line 24\r\r\n-MORE-")
        self.s.send(" ")
        self.assertEqual(self.s.read_until(PROMPT), erase + b"".join(
            b"line %02d\r\r\n" % i for i in range(25, 31)) + PROMPT)
        self.assertEqual(self.do("more *.txt"), b"Wildcards not Allowedftp> ")
        self.do("bye", b"# ")

    def test_local_side_refusals(self):
        with open(self.path("home", "keep.txt"), "wb") as f:
            f.write(b"precious")
        self.s.say("ls keep.txt")  # (the shell's tree picks it up)
        self.connect()
        self.table([("get big.bin nowhere\\x", b"Destination directory doesn't exist: nowhere\r\n"),
                    ("get big.bin ..", b"local file: permission denied\r\n"),
                    ("put not-in-tree", b"Error opening local file\r\n"),
                    ("get", b"GET: missing filename\r\n"), ("put", b"PUT: missing filename\r\n"),
                    ("mget", b"MGET: missing filename\r\n"),
                    ("mput", b"MPUT: missing filename or wildcard\r\n")])
        # A refused RETR leaves an existing local file as it was.
        self.assertIn(b"550 ", self.do("get no-such-file keep.txt"))
        self.assertEqual(self.read("home", "keep.txt"), b"precious")
        self.do("bye", b"# ")
        # An ordinary user may not create files where the tree does not let them write.
        other = shell(self.server)
        self.addCleanup(other.close)
        ftp_login(other, self.ftpd.port)
        self.assertEqual(other.say("get big.bin", PROMPT), b"local file: permission denied\r\n"
                         + PROMPT)
        self.assertFalse(os.path.exists(self.path("home", "big.bin")))

    def test_server_that_closes_returns_to_the_shell(self):
        ftpd = Peer.pyftpd(self.root)
        mark = self.server.mark()
        try:
            ftp_login(self.s, ftpd.port)
        finally:
            ftpd.stop()
        self.assertEqual(self.s.read_until("# "), b"\r\n# ")
        self.assertTrue(self.server.wait_log_match(
            r"^\(\d+\) recieved close on ftp_control\(\d+\)!$", start=mark))
        self.assertEqual(self.s.say("whoami"), b"admin\r\n# ")

    def test_get_and_put_through_our_own_ftp_port(self):
        ftp_login(self.s, self.server.ftp_port, "admin", "admin-pass")
        for line in ("bin", "hash off", "cd pub"):
            self.do(line)
        listing = self.do("dir")
        self.assertIn(b"hello.txt\r\n", listing)
        self.assertTrue(listing.endswith(
            b"226 ASCII Transfer complete.\r\n200 TYPE set to I\r\nftp> "), listing)
        for line, path in (("get hello.txt copy.txt", ("home", "copy.txt")),
                           ("put copy.txt back.txt", ("home", "pub", "back.txt"))):
            self.assertIn(b"226 Transfer complete.\r\n", self.do(line))
            self.assertEqual(self.read(*path), b"hello from home\n")
        self.do("bye", b"# ")

    def test_bytes_pass_unchanged_both_ways_until_the_host_closes(self):
        open_relay(self, "EXEC:head -c 16")
        payload = b"abc\r\n\xff\xfb\x01\x00\x03\x7f\x1bxyz!"  # option bytes, NUL, Ctrl-C, DEL
        self.s.send(payload)
        self.assertEqual(self.s.read_until(b"xyz!"), payload)
        self.assertEqual(self.s.read_until("# "), b"# ")
        self.assertEqual(self.s.say("whoami"), b"admin\r\n# ")

    def test_a_slow_user_gets_the_host_bytes_in_order(self):
        data = os.urandom(6 * 1024 * 1024)
        path = os.path.join(self.server.dir, "blob")
        with open(path, "wb") as f:
            f.write(data)
        open_relay(self, "OPEN:%s,rdonly" % path)
        time.sleep(2)  # not reading: the server's sends to us fall behind
        got = self.s.read_until(data[-64:], limit=60)
        self.assertTrue(got == data, "relayed bytes differ (%d of %d)" % (len(got), len(data)))
        self.assertEqual(self.s.read_until("# "), b"# ")

    def test_relay_into_our_own_telnet_service(self):
        self.assertEqual(self.s.say("telnet 127.0.0.1 %d" % self.server.telnet_port, "login: "),
                         b"Connecting to 127.0.0.1 ...\r\n" + TELNET_WELCOME)
        self.s.send("demo\r\n")
        self.s.read_until("Password: ")
        self.s.send("demo-pass\r\n")
        self.s.read_until("# ")
        self.assertEqual(self.s.say("whoami"), b"demo\r\n# ")
        # `exit` ends the inner session; its close brings the outer shell's prompt.
        self.assertEqual(self.s.say("exit"), b"# ")
        self.assertEqual(self.s.say("whoami"), b"admin\r\n# ")


class Ghosts(unittest.TestCase):
    """A user whose Telnet connection drops leaves no outgoing connection open."""

    def setUp(self):
        self.server = Server()
        self.addCleanup(self.server.close)
        self.s = shell(self.server, "admin", "admin-pass")

    def vanish(self, peer, gone_line):
        self.addCleanup(peer.stop)
        mark = self.server.mark()
        self.s.close()
        self.assertTrue(self.server.wait_log(gone_line, start=mark))
        self.assertTrue(wait_until(lambda: tcp_count(peer.port, "01") == 0))
        self.assertTrue(self.server.wait_log("(-1) Ghost user AutoKill thread complete",
                                             start=mark), self.server.log_since(mark))
        self.assertEqual(who_names(self.server), ["admin"])

    def test_user_gone_during_a_relay(self):
        peer = open_relay(self, "EXEC:cat")
        self.s.send("ping\r\n")
        self.s.read_until("ping\r\n")
        self.assertEqual(tcp_count(peer.port, "01"), 1)
        self.vanish(peer, "Outgoing Telnet connection logged off")

    def test_user_gone_during_a_get(self):
        self.server.write_table("slow.bin", "s" * (1536 * 1024))
        ftpd = Peer.pyftpd(self.server.dir, bytes_per_second=512 * 1024)
        ftp_login(self.s, ftpd.port)
        self.s.say("bin", "ftp> ")
        self.s.say("get slow.bin", "Transfer starting.\r\n")
        self.vanish(ftpd, "Outgoing FTP connection logged off")
        # The transfer itself ran to its end.
        self.assertEqual(os.path.getsize(os.path.join(self.server.home, "slow.bin")), 1536 * 1024)

    def test_user_gone_at_the_password_question(self):
        ftpd = Peer.pyftpd(self.server.dir)
        self.s.say("ftp 127.0.0.1 %d" % ftpd.port, until="): ")
        self.s.send("remote\r\n")
        self.s.read_until("Password: ")
        self.vanish(ftpd, "Outgoing FTP connection logged off")


if __name__ == "__main__":
    main()
