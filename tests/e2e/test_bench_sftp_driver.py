"""The SFTP benchmark's driver of OpenSSH's sftp client (bench/sftp_bench.py) against the built
server: its figures are only right if a command is really over when the driver says so, and a
failed command must stop a run rather than count as a fast one. Skipped without sftp and
sshpass."""

import os
import shutil
import sys
import tempfile
import unittest

from hostile_support import WAIT, Server, main, pattern_bytes

sys.path.insert(0, os.path.join(os.environ.get("ORVANE_SOURCE_DIR", ""), "bench"))
import sftp_bench  # noqa: E402

BIG = pattern_bytes(12 * 1024 * 1024 + 5, 3)


@unittest.skipUnless(shutil.which("sftp") and shutil.which("sshpass"), "no sftp or sshpass")
class SftpDriver(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.server = Server(files={"pub/big.bin": BIG}, ssh=True)
        cls.work = tempfile.TemporaryDirectory(prefix="orvane-sftp-driver-")

    @classmethod
    def tearDownClass(cls):
        cls.server.close()
        cls.work.cleanup()

    def session(self):
        s = sftp_bench.Sftp(self.server.ssh_port, self.work.name, "demo", "demo-pass")
        self.addCleanup(s.close)
        s.send()
        s.wait_done(WAIT)  # logged in
        return s

    def test_a_transfer_is_complete_when_its_wait_returns(self):
        s = self.session()
        local = os.path.join(self.work.name, "down.bin")
        for command, path in (("get pub/big.bin down.bin", local),
                              ("put down.bin pub/up.bin",
                               os.path.join(self.server.home, "pub", "up.bin"))):
            with self.subTest(command=command):
                s.send(command)
                s.wait_done(WAIT)
                with open(path, "rb") as f:
                    self.assertEqual(f.read(), BIG)
        # Several commands behind one another end with the last of them.
        s.send("get pub/big.bin a.bin", "get pub/big.bin b.bin")
        s.wait_done(WAIT)
        for name in ("a.bin", "b.bin"):
            self.assertEqual(os.path.getsize(os.path.join(self.work.name, name)), len(BIG))

    def test_a_failed_command_stops_the_run(self):
        s = self.session()
        s.send("get pub/none.bin none.bin")
        with self.assertRaises(RuntimeError):
            s.wait_done(WAIT)


if __name__ == "__main__":
    main()
