"""The shell's `telnet` relay against socat and against this server's own Telnet service, and
users who vanish during a relay or a transfer (their outgoing connections must close)."""

import os
import subprocess
import time
import unittest

from test_client_common import (
    WAIT, OrvaneServer, PyFtpd, Session, established_to, free_port, ftp_login, wait_port,
    wait_until,
)


class Socat:
    """One socat listener on loopback serving a single connection with `target`."""

    def __init__(self, target):
        self.port = free_port()
        self.proc = subprocess.Popen(
            ["socat", "TCP-LISTEN:%d,bind=127.0.0.1,reuseaddr" % self.port, target],
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
        )
        # Probing the port would use up the single connection: wait for the listener instead.
        if not wait_until(lambda: self._listening(), WAIT):
            self.stop()
            raise RuntimeError("socat did not start")

    def _listening(self):
        with open("/proc/net/tcp") as f:
            next(f)
            return any(
                row.split()[3] == "0A" and int(row.split()[1].split(":")[1], 16) == self.port
                for row in f
            )

    def stop(self):
        if self.proc.poll() is None:
            self.proc.terminate()
            try:
                self.proc.wait(timeout=WAIT)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()


class Relay(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.server = OrvaneServer()

    @classmethod
    def tearDownClass(cls):
        cls.server.stop()

    def setUp(self):
        self.s = Session(self.server.telnet_port)
        self.s.login()
        self.peers = []

    def tearDown(self):
        self.s.close()
        for peer in self.peers:
            peer.stop()

    def socat(self, target):
        peer = Socat(target)
        self.peers.append(peer)
        return peer

    def test_bytes_pass_unchanged_both_ways_until_the_host_closes(self):
        peer = self.socat("EXEC:head -c 16")
        self.assertEqual(
            self.s.line("telnet 127.0.0.1 %d" % peer.port, until="...\r\n"),
            b"Connecting to 127.0.0.1 ...\r\n",
        )
        payload = b"abc\r\n\xff\xfb\x01\x00\x03\x7f\x1bxyz!"  # option bytes, NUL, Ctrl-C, DEL
        self.assertEqual(len(payload), 16)
        self.s.send(payload)
        self.assertEqual(self.s.read_until(b"xyz!"), payload)
        self.assertEqual(self.s.read_until("# "), b"# ")
        self.assertEqual(self.s.line("whoami", until="# "), b"admin\r\n# ")

    def test_a_slow_user_gets_the_host_bytes_in_order(self):
        data = os.urandom(6 * 1024 * 1024)
        path = os.path.join(self.server.dir, "blob")
        with open(path, "wb") as f:
            f.write(data)
        peer = self.socat("OPEN:%s,rdonly" % path)
        self.s.send("telnet 127.0.0.1 %d\r\n" % peer.port)
        self.s.read_until("Connecting to 127.0.0.1 ...\r\n")
        time.sleep(2)  # let the server's sends to us fall behind
        got = self.s.read_until(data[-64:], limit=60)
        self.assertTrue(got == data, "relayed bytes differ (%d of %d)" % (len(got), len(data)))
        self.assertEqual(self.s.read_until("# "), b"# ")

    def test_relay_into_our_own_telnet_service(self):
        self.s.send("telnet 127.0.0.1 %d\r\n" % self.server.telnet_port)
        self.s.read_until("Connecting to 127.0.0.1 ...\r\n")
        self.assertEqual(
            self.s.read_until("login: "),
            b"\xff\xfb\x01Orvane Server (beta) written by Pel Varnholt and Kem Osterlo\r\n\r\nlogin: ",
        )
        self.s.send("demo\r\n")
        self.s.read_until("Password: ")
        self.s.send("demo-pass\r\n")
        self.s.read_until("# ")
        self.assertEqual(self.s.line("whoami", until="# "), b"demo\r\n# ")
        # `exit` ends the inner session; its close brings the outer shell's prompt.
        self.assertEqual(self.s.line("exit", until="# "), b"# ")
        self.assertEqual(self.s.line("whoami", until="# "), b"admin\r\n# ")


class Ghosts(unittest.TestCase):
    """A user whose Telnet connection drops leaves no outgoing connection open."""

    def setUp(self):
        self.server = OrvaneServer()

    def tearDown(self):
        self.server.stop()

    def assert_slot_freed(self, start):
        self.assertTrue(
            self.server.wait_log("(-1) Ghost user AutoKill thread complete", start=start),
            self.server.log_text(),
        )
        s = Session(self.server.telnet_port)
        try:
            s.login()
            who = s.line("who", until="# ")
            self.assertEqual(who.count(b"\r\n"), 1, who)
        finally:
            s.close()

    def test_user_gone_during_a_relay(self):
        peer = Socat("EXEC:cat")
        try:
            s = Session(self.server.telnet_port)
            s.login()
            s.line("telnet 127.0.0.1 %d" % peer.port, until="...\r\n")
            s.send("ping\r\n")
            s.read_until("ping\r\n")
            self.assertEqual(established_to(peer.port), 1)
            start = len(self.server.lines)
            s.close()
            self.assertTrue(
                self.server.wait_log("Outgoing Telnet connection logged off", start=start)
            )
            self.assertTrue(wait_until(lambda: established_to(peer.port) == 0))
            self.assert_slot_freed(start)
        finally:
            peer.stop()

    def test_user_gone_during_a_get(self):
        root = os.path.join(self.server.dir, "remote")
        os.makedirs(root)
        size = 1536 * 1024
        with open(os.path.join(root, "slow.bin"), "wb") as f:
            f.write(b"s" * size)
        ftpd = PyFtpd(root, bytes_per_second=512 * 1024)
        try:
            s = Session(self.server.telnet_port)
            s.login()
            ftp_login(s, ftpd.port)
            s.line("bin")
            s.send("get slow.bin\r\n")
            s.read_until("Transfer starting.\r\n")
            start = len(self.server.lines)
            s.close()
            self.assertTrue(self.server.wait_log("Outgoing FTP connection logged off", start=start))
            self.assertTrue(wait_until(lambda: established_to(ftpd.port) == 0))
            self.assert_slot_freed(start)
            # The transfer itself ran to its end.
            self.assertEqual(os.path.getsize(os.path.join(self.server.home, "slow.bin")), size)
        finally:
            ftpd.stop()

    def test_user_gone_at_the_password_question(self):
        ftpd = PyFtpd(self.server.dir)
        try:
            s = Session(self.server.telnet_port)
            s.login()
            s.line("ftp 127.0.0.1 %d" % ftpd.port, until="): ")
            s.send("remote\r\n")
            s.read_until("Password: ")
            start = len(self.server.lines)
            s.close()
            self.assertTrue(self.server.wait_log("Outgoing FTP connection logged off", start=start))
            self.assertTrue(wait_until(lambda: established_to(ftpd.port) == 0))
            self.assert_slot_freed(start)
        finally:
            ftpd.stop()


if __name__ == "__main__":
    unittest.main()
