"""Hostile clients against the running binary while two honest clients (one FTP, one Telnet
session) keep working beside them and check every byte: random and malformed commands,
overlong lines, binary garbage, IAC floods and unterminated subnegotiations, PORT to closed
ports and to other hosts, a download whose file is deleted under it, clients that vanish in the
middle of a transfer, a listing, a "-MORE-" page and a y/n question, and a thousand connections
at once beyond maxusers. At the end the server must be back to its idle threads, descriptors
and sessions, stop cleanly and have reported nothing to a sanitizer."""

import os
import random
import socket
import threading
import time
import unittest

from hostile_support import (BINARY, GOODBYE, GREETING, TELNET_FULL, TELNET_WELCOME, WAIT, Conn,
                             DataListener, Ftp, HonestFtp, HonestTelnet, Server, long_line,
                             pattern_bytes, raise_fd_limit)

KNOWN = pattern_bytes(300 * 1024, 7)
BIG = pattern_bytes(24 * 1024 * 1024, 8)
MAXUSERS = 60

# Every line the FTP service may send starts with one of these.
FTP_LINE_STARTS = (b"220 ", b"221-", b"221 ", b"421-", b"421 ", b"500 ", b"502 ", b"331 ",
                   b"550 ", b"230-", b"230 ", b"200 ", b"150 ", b"226 ", b"257 ", b"250 ",
                   b"Could not add file", b"Contact the system administrator.")


def ftp_lines_ok(data):
    lines = data.split(b"\r\n")
    return all(l.startswith(FTP_LINE_STARTS) for l in lines[:-1]), lines


class HostileClients(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        raise_fd_limit(8192)
        files = {"pub/known.bin": KNOWN, "pub/big.bin": BIG,
                 "pub/lines.txt": b"".join(b"line %03d\n" % i for i in range(100)),
                 "qa/a1.txt": b"a1\n", "qa/a2.txt": b"a2\n", "qa/a3.txt": b"a3\n"}
        for i in range(3000):
            files["many/entry-with-a-long-name-%05d.txt" % i] = b""
        cls.server = Server(maxusers=MAXUSERS, files=files, dirs=("pub/inbox",))
        cls.idle_threads = cls.server.thread_count()
        cls.idle_fds = cls.server.fd_count()
        cls.ftp = HonestFtp(cls.server, "known.bin", KNOWN)
        cls.tel = HonestTelnet(cls.server, "known.bin", len(KNOWN))
        cls.ftp.start()
        cls.tel.start()
        cls.ftp.ready.wait(WAIT)
        cls.tel.ready.wait(WAIT)

    @classmethod
    def tearDownClass(cls):
        cls.ftp.finish()
        cls.tel.finish()
        cls.server.close()

    def setUp(self):
        self.rounds_before = (self.ftp.rounds, self.tel.rounds)
        self.started = time.monotonic()

    def tearDown(self):
        if os.environ.get("ORVANE_TEST_TIMES"):
            print(" [%.1fs]" % (time.monotonic() - self.started), end=" ", flush=True)
        if self.ftp.failures or self.tel.failures:
            print("\nserver log tail:\n" + "\n".join(self.server.log_since()[-60:]))
        # The honest clients kept going, byte for byte, while this test ran.
        self.assertEqual(self.ftp.failures + self.tel.failures, [])
        if self.ftp.stop_event.is_set():
            return  # the last test has stopped them and the server
        end = time.monotonic() + WAIT
        while (self.ftp.rounds <= self.rounds_before[0] or
               self.tel.rounds <= self.rounds_before[1]) and time.monotonic() < end:
            time.sleep(0.1)
        if self.ftp.rounds <= self.rounds_before[0]:
            print("\nserver log tail:\n" + "\n".join(self.server.log_since()[-80:]))
        self.assertGreater(self.ftp.rounds, self.rounds_before[0], "honest FTP made no progress")
        self.assertGreater(self.tel.rounds, self.rounds_before[1], "honest Telnet made no progress")
        self.assertTrue(self.server.alive(), "the server died")
        self.assertEqual(self.server.sanitizer_reports(), [])

    def login(self, user="demo", password="demo-pass"):
        ftp = Ftp(self.server.ftp_port)
        ftp.login(user, password)
        return ftp

    def shell(self, user="demo", password="demo-pass"):
        t = Conn(self.server.telnet_port)
        self.assertEqual(t.read_until(b"login: "), TELNET_WELCOME)
        t.send(user + "\r\n")
        t.read_until(b"Password: ")
        t.send(password + "\r\n")
        t.read_until(b"# ")
        return t

    # ---- malformed input ----

    def test_01_random_and_malformed_commands(self):
        rnd = random.Random(1)
        verbs = ["USER", "PASS", "PORT", "TYPE", "LIST", "NLST", "RETR", "STOR", "CWD", "XCWD",
                 "CDUP", "XCUP", "MKD", "RMD", "DELE", "PWD", "NOOP", "ABOR", "PASV", "SITE",
                 "user", "LiSt", "AAAAAAAAAAAAAAAA", "", " ", "QUIT"]
        alphabet = [b"..", b"\\", b"/", b"*", b"?", b"\"", b" ", b"\x00", b"\xff", b"-l", b"%s%n",
                    b"pub", b"known.bin", b"127,0,0,1,0,1", b"\t", b"A" * 50, b"\r", b"\n"]
        received = b""
        for n in range(12):
            c = Ftp(self.server.ftp_port)
            if n % 2:
                c.login("demo", "demo-pass")
            for _ in range(25):
                line = rnd.choice(verbs).encode()
                for _ in range(rnd.randrange(4)):
                    line += b" " + b"".join(rnd.choice(alphabet) for _ in range(rnd.randrange(4)))
                try:
                    c.send(line[:200] + b"\r\n")
                except OSError:
                    break
                received += c.read_quiet(0.05)
                if c.eof:
                    break
            received += c.read_quiet(0.2)
            c.abort()
        ok, lines = ftp_lines_ok(received)
        self.assertTrue(ok, [l for l in lines if not l.startswith(
            (b"220", b"221", b"421", b"500", b"502", b"331", b"550", b"230", b"200", b"150",
             b"226", b"257", b"250"))][:5])

    def test_02_overlong_lines(self):
        # The longest line that fits: 237 characters and CR LF in one read.
        c = self.login()
        c.send(b"NOOP " + b"x" * 232 + b"\r\n")
        self.assertEqual(c.line(), b"502 Command not implemented.\r\n")
        # 240 bytes without a line end: the newest session gets the notice, this one its end.
        c.send(b"y" * 240)
        self.assertEqual(c.read_to_close(), b"421-Command buffer overflow, Kicked off\r\n" + GOODBYE)
        # Reached over two reads, counting what was buffered.
        # (Before a login a partial line is dispatched as an empty one.)
        c = Ftp(self.server.ftp_port)
        self.assertEqual(c.line(), GREETING)
        c.send(b"z" * 200)
        self.assertEqual(c.line(), b"500 Command not understood.\r\n")
        c.send(b"z" * 40)
        self.assertEqual(c.read_to_close(), b"421-Command buffer overflow, Kicked off\r\n" + GOODBYE)
        # The notice goes to the session accepted last, which stays usable.
        a = Ftp(self.server.ftp_port)
        self.assertEqual(a.line(), GREETING)
        b = Ftp(self.server.ftp_port)
        self.assertEqual(b.line(), GREETING)
        a.send(b"\x00" * 100 + b"q" * 4000)
        self.assertEqual(a.read_to_close(), GOODBYE)
        self.assertEqual(b.line(), b"421-Command buffer overflow, Kicked off\r\n")
        self.assertEqual(b.cmd("USER demo"), b"331 User ok need Password.\r\n")
        b.close()
        # A megabyte flood ends the session at its first read.
        f = Ftp(self.server.ftp_port)
        f.line()
        try:
            f.send(b"F" * (1 << 20))
        except OSError:
            pass
        f.read_to_close()
        # Telnet: characters past 240 are dropped, the line still ends.
        t = Conn(self.server.telnet_port)
        t.read_until(b"login: ")
        t.send(b"n" * 300 + b"\r\n")
        self.assertEqual(t.read_until(b"Password: "), b"n" * 240 + b"\r\nPassword: ")
        t.close()

    def test_03_binary_garbage(self):
        rnd = random.Random(3)
        for _ in range(6):
            c = Conn(self.server.ftp_port)
            for _ in range(20):
                chunk = rnd.randbytes(rnd.randrange(1, 200))
                if rnd.random() < 0.5:
                    chunk += b"\r\n"
                try:
                    c.send(chunk)
                except OSError:
                    break
            c.read_quiet(0.2)
            c.abort()
        for _ in range(6):
            t = Conn(self.server.telnet_port)
            t.read_until(b"login: ")
            for _ in range(20):
                try:
                    t.send(rnd.randbytes(rnd.randrange(1, 300)))
                except OSError:
                    break
            t.read_quiet(0.2)
            t.abort()
        # Logged in: bytes no command is made of (high bytes and controls) give "not found".
        t = self.shell()
        junk = bytes(b for b in rnd.randbytes(4000) if b >= 0x80 and b != 0xFF)
        for i in range(0, len(junk), 100):
            t.send(junk[i:i + 100] + b"\r\n")
            t.read_until(b": not found\r\n# ")
        t.send("whoami\r\n")
        self.assertEqual(t.read_until(b"# "), b"whoami\r\ndemo\r\n# ")
        t.abort()

    def test_04_iac_floods_and_unterminated_subnegotiation(self):
        rnd = random.Random(4)
        answered = {(251, 24): b"\xff\xfe\x18", (251, 31): b"\xff\xfe\x1f",
                    (251, 32): b"\xff\xfe\x20", (251, 33): b"\xff\xfe\x21",
                    (251, 34): b"\xff\xfe\x22", (251, 39): b"\xff\xfe\x27",
                    (253, 3): b"\xff\xfb\x03", (253, 5): b"\xff\xfb\x05"}
        t = Conn(self.server.telnet_port)
        self.assertEqual(t.read_until(b"login: "), TELNET_WELCOME)
        # Option bytes that a read end leaves as typed characters must not end a line here.
        options = [b for b in range(256) if b not in (10, 13)]
        flood = b"".join(bytes([255, rnd.choice([251, 252, 253, 254]), rnd.choice(options)])
                         for _ in range(40000))
        t.send(flood)
        replies = t.read_quiet(0.5)
        # Only whole option replies come back (a sequence cut by a read end may also leave its
        # last bytes as typed, echoed characters; the flood is all option bytes).
        self.assertTrue(replies, "no option replies")
        self.assertLessEqual(set(replies[i:i + 3] for i in range(0, len(replies) - 2, 3)
                                 if replies[i] == 255), set(answered.values()))
        # Erase whatever the flood left on the line, then log in normally.
        t.send(b"\x7f" * 300 + b"demo\r\n")
        self.assertTrue(t.read_until(b"Password: ").endswith(b"demo\r\nPassword: "))
        t.send(b"demo-pass\r\n")
        t.read_until(b"# ")
        # A subnegotiation that never ends: its bytes are only typed characters.
        t.send(bytes([255, 250, 24, 0]) + b"x" * 5000)
        time.sleep(0.3)
        t.send(b"\x7f" * 300 + b"pwd\r\n")
        self.assertTrue(t.read_until(b"# ").endswith(b"pwd\r\n\\\r\n# "))
        # Single-byte options sent one IAC at a time, split over reads.
        for b in (255, 251, 24):
            t.send(bytes([b]))
            time.sleep(0.05)
        t.send(b"\x7f" * 10 + b"whoami\r\n")
        self.assertTrue(t.read_until(b"# ").endswith(b"demo\r\n# "))
        t.abort()

    # ---- data connections ----

    def test_05_port_to_closed_ports_and_other_hosts(self):
        c = self.login()
        self.assertEqual(c.cmd("TYPE I"), b"200 TYPE set to I\r\n")
        self.assertEqual(c.cmd("CWD pub"), b"250 CWD command successful\r\n")
        with socket.socket() as s:
            s.bind(("127.0.0.1", 0))
            closed = s.getsockname()[1]
        mark = self.server.mark()
        self.assertEqual(c.cmd("PORT 127,0,0,1,%d,%d" % (closed >> 8, closed & 255)),
                         b"200 Port Command OK.\r\n")
        c.send("RETR known.bin\r\n")
        self.assertEqual(c.line(), b"150 Opening BINARY mode data connection (%d bytes)\r\n" %
                         len(KNOWN))
        self.assertTrue(self.server.wait_log("Data Connection failed!", start=mark))
        self.assertTrue(self.server.wait_thread_complete("RETR known.bin", "RETR", mark))
        self.assertEqual(c.cmd("PWD"), b'257 "/pub" is current directory.\r\n')
        # STOR to a closed port leaves nothing behind.
        mark = self.server.mark()
        c.send("STOR never.bin\r\n")
        self.assertEqual(c.line(), b"150 Opening BINARY mode data connection\r\n")
        self.assertTrue(self.server.wait_thread_complete("STOR never.bin", "STOR", mark))
        self.assertEqual(c.cmd("PWD"), b'257 "/pub" is current directory.\r\n')
        self.assertFalse(os.path.exists(os.path.join(self.server.home, "pub", "never.bin")))
        # Another host (127.0.0.2 answers on this machine): refused without connecting.
        other = DataListener("127.0.0.2")
        try:
            mark = self.server.mark()
            c.port(other)
            c.send("LIST\r\n")
            self.assertEqual(c.line(), b"150 Opening BINARY mode data connection\r\n")
            self.assertTrue(self.server.wait_log("Data Connection failed!", start=mark))
            other.sock.settimeout(1.0)
            with self.assertRaises(socket.timeout):
                other.sock.accept()
        finally:
            other.close()
        for arg in ("10,255,255,1,0,21", "a,b,c,d,e,f", "127,0,0,1", "0,0,0,0,0,0", ",,,,,",
                    "127,0,0,2,1,1"):
            self.assertEqual(c.cmd("PORT " + arg), b"200 Port Command OK.\r\n")
            mark = self.server.mark()
            c.send("NLST\r\n")
            self.assertEqual(c.line(), b"150 Opening BINARY mode data connection\r\n")
            # (A line sent while the command runs would be dropped, as documented.)
            self.assertTrue(self.server.wait_thread_complete("NLST", "NLST", mark))
            self.assertEqual(c.cmd("PWD"), b'257 "/pub" is current directory.\r\n')
        c.abort()

    def test_06_retr_of_a_file_while_it_is_deleted(self):
        reader = self.login()
        reader.cmd("TYPE I")
        reader.cmd("CWD pub")
        lst = DataListener()
        reader.port(lst)
        reader.send("RETR big.bin\r\n")
        self.assertEqual(reader.line(), b"150 Opening BINARY mode data connection (%d bytes)\r\n"
                         % len(BIG))
        data_conn = lst.accept()
        first = data_conn.recv(1024)  # then nothing is read for a while: the sender waits
        # While it is being sent, neither service lets the file go...
        other = self.login()
        other.cmd("CWD pub")
        self.assertEqual(other.cmd("DELE big.bin"), b"550 Permissions denied (delete failed)\r\n")
        t = self.shell()
        t.send("rm \\pub\\big.bin\r\n")
        self.assertEqual(t.read_until(b"# "), b"rm \\pub\\big.bin\r\nrm: File Busy\r\n# ")
        # ...but the host can: the transfer still delivers every byte.
        os.unlink(os.path.join(self.server.home, "pub", "big.bin"))
        chunks = [first]
        while True:
            d = data_conn.recv(1 << 20)
            if not d:
                break
            chunks.append(d)
        data_conn.close()
        lst.close()
        self.assertEqual(reader.line(), b"226 Transfer complete\r\n")
        self.assertTrue(b"".join(chunks) == BIG, "downloaded data differ")
        # The tree still names it; a download now moves nothing and still ends with 226.
        lst = DataListener()
        reader.port(lst)
        reader.send("RETR big.bin\r\n")
        self.assertEqual(reader.line(), b"150 Opening BINARY mode data connection (%d bytes)\r\n"
                         % len(BIG))
        self.assertEqual(lst.receive_all(), b"")
        self.assertEqual(reader.line(), b"226 Transfer complete\r\n")
        lst.close()
        self.assertEqual(other.cmd("DELE big.bin"), b"550 Permissions denied (delete failed)\r\n")
        with open(os.path.join(self.server.home, "pub", "big.bin"), "wb") as f:
            f.write(BIG)  # back for the tests that follow
        for conn in (reader, other, t):
            conn.abort()

    def test_07_clients_that_vanish_mid_transfer(self):
        # Download: both connections reset after the first bytes.
        c = self.login()
        c.cmd("TYPE I")
        c.cmd("CWD pub")
        lst = DataListener()
        c.port(lst)
        mark = self.server.mark()
        c.send("RETR big.bin\r\n")
        c.line()
        d = lst.accept()
        d.recv(4096)
        d.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, b"\x01\x00\x00\x00\x00\x00\x00\x00")
        d.close()
        c.abort()
        lst.close()
        self.assertTrue(self.server.wait_thread_complete("RETR big.bin", "RETR", mark))
        # Upload: half a file, then gone. What arrived is on the disk and in the tree alike.
        c = self.login()
        c.cmd("TYPE I")
        c.cmd("CWD pub")
        lst = DataListener()
        c.port(lst)
        mark = self.server.mark()
        c.send("STOR half.bin\r\n")
        c.line()
        d = lst.accept()
        d.sendall(BIG[:3 * 1024 * 1024])
        d.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, b"\x01\x00\x00\x00\x00\x00\x00\x00")
        d.close()
        c.abort()
        lst.close()
        self.assertTrue(self.server.wait_thread_complete("STOR half.bin", "STOR", mark))
        on_disk = os.path.getsize(os.path.join(self.server.home, "pub", "half.bin"))
        c = self.login()
        c.cmd("CWD pub")
        lst = DataListener()
        c.port(lst)
        c.send("LIST half.bi?\r\n")
        c.line()
        self.assertEqual(lst.receive_all(), long_line("-", "rwxrwxrwx", "demo", None, on_disk,
                                                      "half.bin"))
        self.assertEqual(c.line(), b"226 Transfer complete\r\n")
        lst.close()
        self.assertEqual(c.cmd("DELE half.bin"), b"250 DELE command ok.\r\n")
        # The control connection gone, the data connection left open and unread: the transfer
        # ends at once instead of holding a thread (and a descriptor) for minutes.
        c.cmd("TYPE I")
        lst = DataListener()
        c.port(lst)
        mark = self.server.mark()
        c.send("RETR big.bin\r\n")
        c.line()
        d = lst.accept()
        d.recv(1024)
        c.abort()
        self.assertTrue(self.server.wait_thread_complete("RETR big.bin", "RETR", mark, limit=10),
                        "the download went on for a client that had gone")
        d.close()
        lst.close()

    def test_08_clients_that_vanish_mid_listing(self):
        for stop_reading_only in (False, True):
            c = self.login()
            c.cmd("CWD many")
            lst = DataListener()
            c.port(lst)
            mark = self.server.mark()
            c.send("LIST\r\n")
            c.line()
            d = lst.accept()
            d.recv(100)
            c.abort()
            if stop_reading_only:
                # The data connection stays open and unread until the test gives up on it.
                time.sleep(1.0)
            d.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, b"\x01\x00\x00\x00\x00\x00\x00\x00")
            d.close()
            lst.close()
            self.assertTrue(self.server.wait_thread_complete("LIST", "LIST", mark))

    def test_09_client_that_vanishes_at_more(self):
        t = self.shell()
        mark = self.server.mark()
        t.send("more \\pub\\lines.txt\r\n")
        page = t.read_until(b"-MORE-")
        self.assertEqual(page, b"more \\pub\\lines.txt\r\n" +
                         b"".join(b"line %03d\r\n" % i for i in range(24)) + b"-MORE-")
        t.abort()
        self.assertTrue(self.server.wait_log("(-1) Ghost user thread started", start=mark))
        self.assertTrue(self.server.wait_log_match(r"^\(-?\d+\) more thread complete$",
                                                   start=mark))
        self.assertTrue(self.server.wait_log("(-1) Ghost user AutoKill thread complete",
                                             start=mark))

    def test_09b_key_flood_at_more(self):
        t = self.shell()
        t.send("more \\pub\\lines.txt\r\n")
        t.read_until(b"-MORE-")
        # The first key ends the pager; the rest is type-ahead, which keeps the line's limit.
        t.send(b"Q" * 60000)
        t.read_until(b"# ")
        time.sleep(0.5)
        t.send(b"\r\n")
        out = t.read_until(b": not found\r\n# ")
        self.assertNotIn(b"Q" * 241, out)
        self.assertIn(b"Q" * 240 + b": not found\r\n# ", out)
        t.send(b"whoami\r\n")
        self.assertEqual(t.read_until(b"# "), b"whoami\r\ndemo\r\n# ")
        t.abort()

    def test_10_client_that_vanishes_at_a_yes_no_question(self):
        t = self.shell("admin", "admin-pass")
        t.send("cd \\pub\\inbox\r\n")
        t.read_until(b"# ")
        t.send("ftp 127.0.0.1 %d\r\n" % self.server.ftp_port)
        t.read_until(b"User (admin): ")
        t.send("demo\r\n")
        t.read_until(b"Password: ")
        t.send("demo-pass\r\n")
        t.read_until(b"ftp> ")
        t.send("hash off\r\n")
        t.read_until(b"ftp> ")
        t.send("cd qa\r\n")
        t.read_until(b"ftp> ")
        mark = self.server.mark()
        t.send("mget *\r\n")
        t.read_until(b" [y/n]? ")
        t.abort()
        self.assertTrue(self.server.wait_log("(-1) Ghost user thread started", start=mark))
        self.assertTrue(self.server.wait_log("Outgoing FTP connection logged off", start=mark,
                                             limit=WAIT * 2))
        self.assertTrue(self.server.wait_log("(-1) Ghost user AutoKill thread complete",
                                             start=mark))

    # ---- load ----

    def test_11_thousand_connections_beyond_maxusers(self):
        # Telnet: the few that fit get the welcome, every other one the refusal and a close.
        conns = [Conn(self.server.telnet_port) for _ in range(1000)]
        welcomed = refused = 0
        for c in conns:
            data = b""
            end = time.monotonic() + WAIT
            while time.monotonic() < end and not (data.endswith(b"login: ") or c.eof):
                c._fill(end - time.monotonic())
                data = c.buf
            if data == TELNET_WELCOME:
                welcomed += 1
            else:
                self.assertEqual(data, TELNET_FULL)
                self.assertTrue(c.eof or c.read_to_close() == b"")
                refused += 1
        self.assertEqual(welcomed + refused, 1000)
        self.assertLessEqual(welcomed, MAXUSERS)
        self.assertGreaterEqual(refused, 1000 - MAXUSERS)
        for c in conns:
            c.abort()
        # FTP greets everybody and refuses at login once the server is over its limit.
        conns = [Ftp(self.server.ftp_port) for _ in range(1000)]
        for c in conns:
            self.assertEqual(c.line(), GREETING)
        for c in conns[:50]:
            c.send(b"USER demo\r\n")
            self.assertEqual(c.line(), b"331 User ok need Password.\r\n")
            c.send(b"PASS demo-pass\r\n")
            self.assertEqual(c.read_to_close(),
                             b"421 Max server connections, Connection closed.\r\n" + GOODBYE)
        for c in conns:
            c.abort()
        # Everything goes back to idle (the honest sessions and this check excepted).
        self.assertTrue(self.server.wait_quiet(self.idle_threads + 4, self.idle_fds + 12),
                        (self.server.thread_count(), self.server.fd_count()))

    # ---- afterwards ----

    def test_99_sessions_threads_and_descriptors_back(self):
        t = self.shell()
        t.send("who\r\n")
        who = t.read_until(b"# ")
        names = sorted(l.split(b" ")[0] for l in who.split(b"\r\n")[1:-1])
        self.assertEqual(names, [b"demo", b"honestf", b"honestt"], who)
        t.send("exit\r\n")
        t.read_to_close()
        self.ftp.finish()
        self.tel.finish()
        self.assertGreater(self.ftp.rounds, 0)
        self.assertGreater(self.tel.rounds, 0)
        self.assertTrue(self.server.wait_quiet(self.idle_threads, self.idle_fds),
                        (self.server.thread_count(), self.server.fd_count(), self.idle_threads,
                         self.idle_fds))
        self.assertEqual(self.server.stop(), 0)
        self.assertEqual(self.server.sanitizer_reports(), [])


if __name__ == "__main__":
    if not BINARY:
        raise SystemExit("ORVANE_BINARY is not set")
    unittest.main()
