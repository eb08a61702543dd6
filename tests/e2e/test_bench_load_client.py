"""The benchmarks' FTP load client (bench/ftp_load) against the built server, in active and in
passive mode: a figure is only worth something if the client really moved every byte, read
every listing line and notices a transfer that came up short, in the clear and over TLS.
Skipped when ftp_load is not built beside the server."""

import os
import random
import subprocess
import unittest

from hostile_support import BINARY, WAIT, Server, main, pattern_bytes

LOAD = os.path.join(os.path.dirname(BINARY), "bench", "ftp_load")
SOURCE = pattern_bytes(3 * 1024 * 1024 + 17, 11)  # more than the client's 1 MiB block
MANY = 37
PAR = 4
FILES = {"pub/big.bin": SOURCE}
FILES.update({"pub/many/f%02d" % i: b"x" * i for i in range(MANY)})
FILES.update({"pub/par/p%02d" % i: pattern_bytes(200000, i) for i in range(PAR)})


@unittest.skipUnless(os.access(LOAD, os.X_OK), "bench/ftp_load is not built")
class LoadClient(unittest.TestCase):
    tls = False

    @classmethod
    def setUpClass(cls):
        low = random.randrange(30000, 39000)
        keys = {"ftp_modern": 1, "passive_ports": "%d-%d" % (low, low + 99)}
        if cls.tls:
            keys.update(ftps=1, tls_certificate="cert.pem", tls_private_key="key.pem")
        cls.server = Server(files=dict(FILES), extensions=keys, start=False)
        if cls.tls:
            subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days",
                            "2", "-subj", "/CN=127.0.0.1", "-keyout", "key.pem", "-out",
                            "cert.pem"], cwd=cls.server.dir, check=True, capture_output=True)
            os.chmod(os.path.join(cls.server.dir, "key.pem"), 0o600)
        cls.server.start()
        cls.source = os.path.join(cls.server.dir, "source.bin")
        with open(cls.source, "wb") as f:
            f.write(SOURCE)

    @classmethod
    def tearDownClass(cls):
        cls.server.close()

    def load(self, mode, *args):
        env = dict(os.environ, FTP_LOAD_PASSIVE="1" if mode == "passive" else "0",
                   FTP_LOAD_TLS="1" if self.tls else "0",
                   FTP_LOAD_CIPHERS="ECDHE-RSA-AES128-GCM-SHA256")
        return subprocess.run([LOAD, str(self.server.ftp_port), "demo", "demo-pass"] +
                              [str(a) for a in args], env=env, capture_output=True, text=True,
                              timeout=WAIT * 4)

    def values(self, result, key):
        self.assertEqual(result.returncode, 0, result.stderr)
        return [float(line.split()[1]) for line in result.stdout.splitlines()
                if line.startswith(key + " ")]

    def test_every_workload_moves_all_bytes_in_both_modes(self):
        for mode in ("active", "passive"):
            with self.subTest(mode=mode):
                self.assertEqual(len(self.values(
                    self.load(mode, "retr", "pub/big.bin", len(SOURCE), 2), "retr_mbps")), 2)
                self.assertEqual(self.values(self.load(mode, "list", "pub/many", 2),
                                             "list_lines"), [MANY, MANY])
                self.assertEqual(len(self.values(
                    self.load(mode, "par", "pub/par", "p", PAR, 200000, 2), "par_mbps")), 2)
                # The upload repeats the source's first MiB up to the source's size; the
                # folder named for clean-up is not where it lands, so the file stays.
                name = "pub/up-%s-%d" % (mode, self.tls)
                self.assertEqual(len(self.values(
                    self.load(mode, "stor", self.source, name, 1, self.server.dir),
                    "stor_mbps")), 1)
                with open(os.path.join(self.server.home, name + ".0"), "rb") as f:
                    stored = f.read()
                block = SOURCE[: 1 << 20]
                self.assertEqual(len(stored), len(SOURCE))
                self.assertEqual(stored, (block * 4)[: len(SOURCE)])

    def test_a_short_or_refused_transfer_fails_the_run(self):
        for mode in ("active", "passive"):
            with self.subTest(mode=mode):
                short = self.load(mode, "retr", "pub/big.bin", len(SOURCE) + 1, 1)
                self.assertEqual(short.returncode, 1)
                self.assertIn("bytes, not", short.stderr)
                missing = self.load(mode, "retr", "pub/none.bin", 1, 1)
                self.assertEqual(missing.returncode, 1)
                self.assertIn("RETR pub/none.bin", missing.stderr)


class LoadClientOverTls(LoadClient):
    """The same with AUTH TLS and protected data connections, each of which the server lets
    through only when it resumes the control connection's TLS session."""
    tls = True


if __name__ == "__main__":
    main()
