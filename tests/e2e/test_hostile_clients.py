"""Hostile clients against the running binary while two honest clients (one FTP, one Telnet
session) keep working beside them and check every byte: random and malformed commands,
overlong lines, binary garbage, IAC floods and unterminated subnegotiations, PORT to closed
ports and nonsense addresses, a download whose file is deleted under it, clients that vanish in
the middle of a transfer, a listing, a "-MORE-" page and a y/n question, and a thousand
connections at once beyond maxusers. At the end the server must be back to its idle threads,
descriptors and sessions, stop cleanly and have reported nothing to a sanitizer."""

import os
import random
import socket
import time
import unittest

from hostile_support import (COMPLETE, GOODBYE, GREETING, LINES, RESET, TELNET_FULL,
                             TELNET_WELCOME, USER_OK, WAIT, Conn, DataListener, Ftp, Server,
                             Worker, ftp_login, login, long_line, main, pattern_bytes,
                             raise_fd_limit, shell, wait_until, who_names)

KNOWN = pattern_bytes(300 * 1024, 7)
BIG = pattern_bytes(24 * 1024 * 1024, 8)
MAXUSERS = 60
PUB = b'257 "/pub" is current directory.\r\n'


class HostileClients(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        raise_fd_limit(8192)
        files = {"many/entry-with-a-long-name-%05d.txt" % i: b"" for i in range(3000)}
        files.update({"pub/known.bin": KNOWN, "pub/big.bin": BIG, "pub/lines.txt": LINES,
                      "qa/a1.txt": b"a1\n", "qa/a2.txt": b"a2\n", "qa/a3.txt": b"a3\n"})
        cls.server = Server(maxusers=MAXUSERS, files=files, dirs=("pub/inbox",))
        cls.idle = (cls.server.thread_count(), cls.server.fd_count())
        cls.honest = [Worker(cls.server, "ftp", "honestf", "honest-ftp", index=900),
                      Worker(cls.server, "telnet", "honestt", "honest-tel", index=901)]
        for w in cls.honest:
            w.start()
        for w in cls.honest:
            w.ready.wait(WAIT)

    @classmethod
    def tearDownClass(cls):
        for w in cls.honest:
            w.finish()
        cls.server.close()

    def setUp(self):
        self.rounds_before = [w.rounds for w in self.honest]

    def tearDown(self):
        # The honest clients kept going, byte for byte, while this test ran.
        failures = [f for w in self.honest for f in w.failures]
        if failures:
            print("\nserver log tail:\n" + "\n".join(self.server.log_since()[-60:]))
        self.assertEqual(failures, [])
        if not self.honest[0].stop_event.is_set():  # (the last test stops them and the server)
            for w, before in zip(self.honest, self.rounds_before):
                self.assertTrue(wait_until(lambda: w.rounds > before or w.failures),
                                "honest %s made no progress" % w.kind)
                self.assertEqual(w.failures, [])
            self.assertTrue(self.server.alive(), "the server died")
        self.assertEqual(self.server.sanitizer_reports(), [])

    def pub_session(self, folder="pub"):
        c = login(self.server)
        self.assertEqual(c.cmd("TYPE I"), b"200 TYPE set to I\r\n")
        self.assertEqual(c.cmd("CWD " + folder), b"250 CWD command successful\r\n")
        return c

    # ---- malformed input ----

    def test_01_random_and_malformed_commands(self):
        rnd = random.Random(1)
        verbs = ("USER PASS PORT TYPE LIST NLST RETR STOR CWD XCWD CDUP XCUP MKD RMD DELE PWD NOOP "
                 "ABOR PASV SITE user LiSt AAAAAAAAAAAAAAAA QUIT").split() + ["", " "]
        alphabet = [b"..", b"\\", b"/", b"*", b"?", b"\"", b" ", b"\x00", b"\xff", b"-l", b"%s%n",
                    b"pub", b"known.bin", b"127,0,0,1,0,1", b"\t", b"A" * 50, b"\r", b"\n"]
        received = b""
        for n in range(12):
            c = Ftp(self.server.ftp_port)
            if n % 2:
                c.login()
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
        # Every line the FTP service sent is one of its own.
        starts = (b"220 ", b"221-", b"221 ", b"421-", b"421 ", b"500 ", b"502 ", b"331 ",
                  b"550 ", b"230-", b"230 ", b"200 ", b"150 ", b"226 ", b"257 ", b"250 ",
                  b"Could not add file", b"Contact the system administrator.")
        self.assertEqual([l for l in received.split(b"\r\n")[:-1] if not l.startswith(starts)],
                         [])

    def test_02_overlong_lines(self):
        # The longest line that fits: 237 characters and CR LF in one read.
        c = login(self.server)
        c.send(b"NOOP " + b"x" * 232 + b"\r\n")
        self.assertEqual(c.line(), b"502 Command not implemented.\r\n")
        # 240 bytes without a line end: the newest session gets the notice, this one its end.
        overflow = b"421-Command buffer overflow, Kicked off\r\n"
        c.send(b"y" * 240)
        self.assertEqual(c.read_to_close(), overflow + GOODBYE)
        # Reached over two reads, counting what was buffered.
        # (Before a login a partial line is dispatched as an empty one.)
        c = Ftp(self.server.ftp_port)
        self.assertEqual(c.line(), GREETING)
        c.send(b"z" * 200)
        self.assertEqual(c.line(), b"500 Command not understood.\r\n")
        c.send(b"z" * 40)
        self.assertEqual(c.read_to_close(), overflow + GOODBYE)
        # The notice goes to the session accepted last, which stays usable.
        a, b = Ftp(self.server.ftp_port), Ftp(self.server.ftp_port)
        self.assertEqual(a.line() + b.line(), GREETING * 2)
        a.send(b"\x00" * 100 + b"q" * 4000)
        self.assertEqual(a.read_to_close(), GOODBYE)
        self.assertEqual(b.line(), overflow)
        self.assertEqual(b.cmd("USER demo"), USER_OK)
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
        for port in (self.server.ftp_port,) * 6 + (self.server.telnet_port,) * 6:
            c = Conn(port)
            for _ in range(20):
                try:
                    c.send(rnd.randbytes(rnd.randrange(1, 300)) + b"\r\n" * rnd.randrange(2))
                except OSError:
                    break
            c.read_quiet(0.2)
            c.abort()
        # Logged in: bytes no command is made of (high bytes and controls) give "not found".
        t = shell(self.server)
        junk = bytes(b for b in rnd.randbytes(4000) if b >= 0x80 and b != 0xFF)
        for i in range(0, len(junk), 100):
            t.send(junk[i:i + 100] + b"\r\n")
            t.read_until(b": not found\r\n# ")
        self.assertEqual(t.say("whoami"), b"demo\r\n# ")
        t.abort()

    def test_04_iac_floods_and_unterminated_subnegotiation(self):
        rnd = random.Random(4)
        answered = {b"\xff\xfe" + bytes([o]) for o in (24, 31, 32, 33, 34, 39)} | {
            b"\xff\xfb\x03", b"\xff\xfb\x05"}
        t = Conn(self.server.telnet_port)
        self.assertEqual(t.read_until(b"login: "), TELNET_WELCOME)
        # Option bytes that a read end leaves as typed characters must not end a line here.
        options = [b for b in range(256) if b not in (10, 13)]
        t.send(b"".join(bytes([255, rnd.choice([251, 252, 253, 254]), rnd.choice(options)])
                        for _ in range(40000)))
        replies = t.read_quiet(0.5)
        # Only whole option replies come back (a sequence cut by a read end may also leave its
        # last bytes as typed, echoed characters; the flood is all option bytes).
        self.assertTrue(replies, "no option replies")
        self.assertLessEqual({replies[i:i + 3] for i in range(0, len(replies) - 2, 3)
                              if replies[i] == 255}, answered)
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
        # A single option sent one byte at a time, split over reads.
        for b in (255, 251, 24):
            t.send(bytes([b]))
            time.sleep(0.05)
        t.send(b"\x7f" * 10 + b"whoami\r\n")
        self.assertTrue(t.read_until(b"# ").endswith(b"demo\r\n# "))
        t.abort()

    # ---- data connections ----

    def test_05_port_to_closed_ports_and_nonsense(self):
        c = self.pub_session()
        with socket.socket() as s:
            s.bind(("127.0.0.1", 0))
            closed = s.getsockname()[1]
        for command, opening in (
                ("RETR known.bin", b"150 Opening BINARY mode data connection (%d bytes)\r\n"
                 % len(KNOWN)),
                ("STOR never.bin", b"150 Opening BINARY mode data connection\r\n")):
            self.assertEqual(c.cmd("PORT 127,0,0,1,%d,%d" % (closed >> 8, closed & 255)),
                             b"200 Port Command OK.\r\n")
            mark = self.server.mark()
            self.assertEqual(c.cmd(command), opening)
            self.assertTrue(self.server.wait_log("Data Connection failed!", start=mark))
            self.assertTrue(self.server.wait_thread_complete(command, command[:4], mark))
            self.assertEqual(c.cmd("PWD"), PUB)
        self.assertFalse(os.path.exists(os.path.join(self.server.home, "pub", "never.bin")))
        for arg in ("10,255,255,1,0,21", "a,b,c,d,e,f", "127,0,0,1", "0,0,0,0,0,0"):
            self.assertEqual(c.cmd("PORT " + arg), b"200 Port Command OK.\r\n")
            mark = self.server.mark()
            self.assertEqual(c.cmd("NLST"), b"150 Opening BINARY mode data connection\r\n")
            # (A line sent while the command runs would be dropped, as documented.)
            self.assertTrue(self.server.wait_thread_complete("NLST", "NLST", mark))
            self.assertEqual(c.cmd("PWD"), PUB)
        c.abort()

    def test_06_retr_of_a_file_while_it_is_deleted(self):
        reader = self.pub_session()
        opening = b"150 Opening BINARY mode data connection (%d bytes)\r\n" % len(BIG)
        lst = DataListener()
        reader.port(lst)
        self.assertEqual(reader.cmd("RETR big.bin"), opening)
        data_conn = lst.accept()
        chunks = [data_conn.recv(1024)]  # then nothing is read for a while: the sender waits
        # While it is being sent, neither service lets the file go...
        other = self.pub_session()
        refused = b"550 Permissions denied (delete failed)\r\n"
        self.assertEqual(other.cmd("DELE big.bin"), refused)
        t = shell(self.server)
        self.assertEqual(t.say("rm \\pub\\big.bin"), b"rm: File Busy\r\n# ")
        # ...but the host can: the transfer still delivers every byte.
        os.unlink(os.path.join(self.server.home, "pub", "big.bin"))
        chunks += iter(lambda: data_conn.recv(1 << 20), b"")
        data_conn.close()
        lst.close()
        self.assertEqual(reader.line(), COMPLETE)
        self.assertTrue(b"".join(chunks) == BIG, "downloaded data differ")
        # The tree still names it; a download now moves nothing and says that it failed.
        self.assertEqual(reader.transfer("RETR big.bin"),
                         (opening, b"", b"451 Transfer aborted: the file could not be read\r\n"))
        self.assertEqual(other.cmd("DELE big.bin"), refused)
        with open(os.path.join(self.server.home, "pub", "big.bin"), "wb") as f:
            f.write(BIG)  # back for the tests that follow
        for conn in (reader, other, t):
            conn.abort()

    def vanish(self, command, data_action, folder="pub", hold=0.0, reset_data=True,
               limit=WAIT):
        """Starts `command` in a fresh session, does `data_action` on the data connection, then
        resets the control connection and, `hold` seconds later, the data connection (or leaves
        it open); waits for the thread's end."""
        c = self.pub_session(folder)
        lst = DataListener()
        c.port(lst)
        mark = self.server.mark()
        c.send(command + "\r\n")
        c.line()
        d = lst.accept()
        data_action(d)
        c.abort()
        if reset_data:
            time.sleep(hold)
            d.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, RESET)
            d.close()
        done = self.server.wait_thread_complete(command, command[:4], mark, limit)
        d.close()
        lst.close()
        return done

    def test_07_clients_that_vanish_mid_transfer(self):
        self.assertTrue(self.vanish("RETR big.bin", lambda d: d.recv(4096)))
        # Upload: half a file, then gone. An incomplete upload is stored neither on the disk
        # nor in the tree, and leaves no temporary file behind.
        before = set(os.listdir(os.path.join(self.server.home, "pub")))
        self.assertTrue(self.vanish("STOR half.bin", lambda d: d.sendall(BIG[:3 << 20])))
        # (Another test's upload may still land meanwhile: only this one's traces count.)
        added = set(os.listdir(os.path.join(self.server.home, "pub"))) - before
        self.assertEqual([n for n in added if n == "half.bin" or n.startswith(".")], [])
        c = self.pub_session()
        self.assertNotIn(b"half.bin", c.transfer("LIST")[1])
        c.close()
        # The control connection gone, the data connection left open and unread: the transfer
        # ends at once instead of holding a thread (and a descriptor) for minutes.
        self.assertTrue(self.vanish("RETR big.bin", lambda d: d.recv(1024), reset_data=False,
                                    limit=10),
                        "the download went on for a client that had gone")

    def test_08_clients_that_vanish_mid_listing(self):
        for hold in (0.0, 1.0):
            self.assertTrue(self.vanish("LIST", lambda d: d.recv(100), "many", hold))

    def test_09_client_that_vanishes_at_more(self):
        t = shell(self.server)
        mark = self.server.mark()
        self.assertEqual(t.say("more \\pub\\lines.txt", until=b"-MORE-"),
                         b"".join(b"line %03d\r\n" % i for i in range(24)) + b"-MORE-")
        t.abort()
        self.assertTrue(self.server.wait_log("(-1) Ghost user thread started", start=mark))
        self.assertTrue(self.server.wait_log_match(r"^\(-?\d+\) more thread complete$",
                                                   start=mark))
        self.assertTrue(self.server.wait_log("(-1) Ghost user AutoKill thread complete",
                                             start=mark))

    def test_09b_key_flood_at_more(self):
        t = shell(self.server)
        t.say("more \\pub\\lines.txt", until=b"-MORE-")
        # The first key ends the pager; the rest is type-ahead, which keeps the line's limit.
        t.send(b"Q" * 60000)
        t.read_until(b"# ")
        time.sleep(0.5)
        t.send(b"\r\n")
        out = t.read_until(b": not found\r\n# ")
        self.assertNotIn(b"Q" * 241, out)
        self.assertIn(b"Q" * 240 + b": not found\r\n# ", out)
        self.assertEqual(t.say("whoami"), b"demo\r\n# ")
        t.abort()

    def test_10_client_that_vanishes_at_a_yes_no_question(self):
        t = shell(self.server, "admin", "admin-pass")
        t.say("cd \\pub\\inbox")
        ftp_login(t, self.server.ftp_port, "demo", "demo-pass")
        for line in ("hash off", "cd qa"):
            t.say(line, until=b"ftp> ")
        mark = self.server.mark()
        t.say("mget *", until=b" [y/n]? ")
        t.abort()
        self.assertTrue(self.server.wait_log("(-1) Ghost user thread started", start=mark))
        self.assertTrue(self.server.wait_log("Outgoing FTP connection logged off", WAIT * 2, mark))
        self.assertTrue(self.server.wait_log("(-1) Ghost user AutoKill thread complete",
                                             start=mark))

    # ---- load ----

    def test_11_thousand_connections_beyond_maxusers(self):
        # Telnet: the few that fit get the welcome, every other one the refusal and a close.
        conns = [Conn(self.server.telnet_port) for _ in range(1000)]
        welcomed = 0
        for c in conns:
            end = time.monotonic() + WAIT
            while time.monotonic() < end and not (c.buf.endswith(b"login: ") or c.eof):
                c._fill(end - time.monotonic())
            if c.buf == TELNET_WELCOME:
                welcomed += 1
            else:
                self.assertEqual(c.read_to_close(), TELNET_FULL)
        self.assertLessEqual(welcomed, MAXUSERS)
        for c in conns:
            c.abort()
        # FTP greets everybody and refuses at login once the server is over its limit.
        conns = [Ftp(self.server.ftp_port) for _ in range(1000)]
        for c in conns:
            self.assertEqual(c.line(), GREETING)
        for c in conns[:50]:
            self.assertEqual(c.cmd("USER demo"), USER_OK)
            c.send(b"PASS demo-pass\r\n")
            self.assertEqual(c.read_to_close(),
                             b"421 Max server connections, Connection closed.\r\n" + GOODBYE)
        for c in conns:
            c.abort()
        # Everything goes back to idle (the honest sessions and this check excepted).
        self.assertTrue(self.server.wait_quiet(self.idle[0] + 4, self.idle[1] + 12),
                        (self.server.thread_count(), self.server.fd_count()))

    # ---- afterwards ----

    def test_99_sessions_threads_and_descriptors_back(self):
        self.assertEqual(who_names(self.server), ["admin", "honestf", "honestt"])
        for w in self.honest:
            w.finish()
            self.assertGreater(w.rounds, 0)
        self.assertTrue(self.server.wait_quiet(*self.idle),
                        (self.server.thread_count(), self.server.fd_count(), self.idle))
        self.assertEqual(self.server.stop(), 0)


if __name__ == "__main__":
    main()
