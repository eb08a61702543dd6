"""Python's ftplib in active mode against the built server: a whole session, a 100 MiB binary
round trip, and uploads that keep their owner across a restart (fpl.txt)."""

import ftplib
import hashlib
import io
import os
import sys
import tempfile
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from test_ftp_common import BINARY, WAIT, FtpServerProcess  # noqa: E402


def connect(server, name="demo", password="demo-pass"):
    ftp = ftplib.FTP()
    ftp.connect("127.0.0.1", server.port, timeout=WAIT)
    ftp.set_pasv(False)
    ftp.login(name, password)
    return ftp


class FtplibSessionTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.server = FtpServerProcess(files={"pub/hello.txt": b"Hello\r\n",
                                             "pub/docs/readme.txt": b"read me\n"},
                                      motd="Welcome to the test server.\n")

    @classmethod
    def tearDownClass(cls):
        cls.server.close()

    def test_login_message(self):
        ftp = ftplib.FTP()
        ftp.connect("127.0.0.1", self.server.port, timeout=WAIT)
        self.assertEqual(ftp.getwelcome(), "220 Orvane Server (beta) written by Pel Varnholt "
                                           "and Kem Osterlo, ready.")
        reply = ftp.login("demo", "demo-pass")
        self.assertEqual(reply, "230-Welcome to the test server.\n"
                                "230- 1 out of 5 allowed connections in use.\n"
                                "230 demo user logged in.")
        ftp.quit()

    def test_whole_session(self):
        ftp = connect(self.server)
        self.assertEqual(ftp.pwd(), "/")
        ftp.cwd("pub")
        self.assertEqual(ftp.pwd(), "/pub")
        self.assertEqual(sorted(ftp.nlst()), ["docs", "hello.txt"])
        lines = []
        ftp.retrlines("LIST", lines.append)
        self.assertIn("-rwxrwxrwx     root     <none>            7 Jan  1  1998 hello.txt",
                      lines)
        got = io.BytesIO()
        ftp.retrbinary("RETR hello.txt", got.write)
        self.assertEqual(got.getvalue(), b"Hello\r\n")

        self.assertEqual(ftp.mkd("made"), "made")
        ftp.cwd("made")
        ftp.storbinary("STOR new.bin", io.BytesIO(b"\x00\x01binary\xff" * 1000))
        ftp.storlines("STOR text.txt", io.BytesIO(b"one\ntwo\n"))
        self.assertEqual(sorted(ftp.nlst()), ["new.bin", "text.txt"])
        got = io.BytesIO()
        ftp.retrbinary("RETR new.bin", got.write)
        self.assertEqual(got.getvalue(), b"\x00\x01binary\xff" * 1000)
        self.assertEqual(ftp.delete("new.bin"), "250 DELE command ok.")
        self.assertEqual(ftp.delete("text.txt"), "250 DELE command ok.")
        with self.assertRaises(ftplib.error_perm):
            ftp.delete("text.txt")
        ftp.cwd("..")
        self.assertEqual(ftp.rmd("made"), "250 made directory removed.")
        self.assertFalse(os.path.exists(os.path.join(self.server.home, "pub", "made")))
        with self.assertRaises(ftplib.error_perm) as caught:
            ftp.cwd("/nowhere")
        self.assertEqual(str(caught.exception), "550 /nowhere; No such file or directory")
        self.assertEqual(ftp.sendcmd("CDUP"), "250 CWD command successful")
        self.assertEqual(ftp.quit(), "221-Orvane Server (beta) written by Pel Varnholt and Kem "
                                     "Osterlo\n221 Connection closed.")


class FtplibBigFileTest(unittest.TestCase):
    def test_100_mib_round_trip(self):
        server = FtpServerProcess()
        work = tempfile.TemporaryDirectory(prefix="orvane-ftp-big-")
        try:
            source = os.path.join(work.name, "source.bin")
            digest = hashlib.sha256()
            with open(source, "wb") as f:
                for _ in range(100):
                    block = os.urandom(1 << 20)
                    digest.update(block)
                    f.write(block)
            ftp = connect(server)
            ftp.cwd("pub")
            with open(source, "rb") as f:
                self.assertEqual(ftp.storbinary("STOR big.bin", f, blocksize=1 << 20),
                                 "226 Transfer complete")
            back = hashlib.sha256()
            count = [0]

            def take(chunk):
                back.update(chunk)
                count[0] += len(chunk)

            self.assertEqual(ftp.retrbinary("RETR big.bin", take, blocksize=1 << 20),
                             "226 Transfer complete")
            self.assertEqual(count[0], 100 << 20)
            self.assertEqual(back.hexdigest(), digest.hexdigest())
            with open(os.path.join(server.home, "pub", "big.bin"), "rb") as f:
                on_disk = hashlib.sha256()
                for block in iter(lambda: f.read(1 << 20), b""):
                    on_disk.update(block)
            self.assertEqual(on_disk.hexdigest(), digest.hexdigest())
            ftp.quit()
            self.assertTrue(server.log_matches(lambda l: l.endswith(" 104857600 bytes received in")
                                               or " 104857600 bytes received in " in l))
        finally:
            server.close()
            work.cleanup()


class FtplibRestartTest(unittest.TestCase):
    def test_uploads_keep_owner_and_flags_across_a_restart(self):
        server = FtpServerProcess()
        try:
            ftp = connect(server)
            ftp.cwd("pub")
            ftp.storbinary("STOR kept.txt", io.BytesIO(b"kept\n"))
            ftp.mkd("folder")
            ftp.quit()
            self.assertEqual(server.stop(), 0)
            with open(os.path.join(server.dir, "fpl.txt")) as f:
                fpl = f.read().splitlines()
            self.assertIn("\\pub\\kept.txt:-:demo:demo:111111111", fpl)
            self.assertIn("\\pub\\folder:d:demo:demo:111111111", fpl)

            server.start()
            ftp = connect(server, "admin", "admin-pass")
            ftp.cwd("pub")
            lines = []
            ftp.retrlines("LIST", lines.append)
            self.assertIn("-rwxrwxrwx     demo     <none>            5 Jan  1  1998 kept.txt",
                          lines)
            self.assertIn("drwxrwxrwx     demo     <none>            0 Jan  1  1998 folder",
                          lines)
            ftp.quit()
        finally:
            server.close()


if __name__ == "__main__":
    if not BINARY:
        raise SystemExit("ORVANE_BINARY is not set")
    unittest.main()
