"""SFTP over the SSH listener with real clients: OpenSSH's sftp in batch mode and scp, and
paramiko's SFTPClient. Transfers arrive whole, and the permission rules of the FTP and shell
tests hold here too: no read without r, no write without w, nothing outside the home and the
mounts, no host link followed out."""

import hashlib
import os
import stat
import subprocess
import time
import unittest

import paramiko

from hostile_support import WAIT, ClientTestCase, Server, main, pattern_bytes

BIG = pattern_bytes(3 * 1024 * 1024 + 17, 11)
FILES = {"pub/hello.txt": b"Hello\n", "pub/big.bin": BIG, "pub/docs/readme.txt": b"read me\n",
         "private/secret.txt": b"secret\n"}
SSH_OPTS = ["-o", "StrictHostKeyChecking=no", "-o", "UserKnownHostsFile=/dev/null",
            "-o", "PreferredAuthentications=password", "-o", "PubkeyAuthentication=no",
            "-o", "BatchMode=no", "-o", "LogLevel=ERROR"]


def sftp_batch(server, commands, user="demo", password="demo-pass", cwd=None):
    """Runs OpenSSH's sftp with a batch of commands; a failing command ends the batch."""
    # The options come before -b, whose "BatchMode yes" would otherwise rule out passwords.
    return subprocess.run(["sshpass", "-p", password, "sftp"] + SSH_OPTS +
                          ["-b", "-", "-P", str(server.ssh_port), "%s@127.0.0.1" % user],
                          input="\n".join(commands).encode() + b"\n", cwd=cwd,
                          capture_output=True, timeout=WAIT * 4)


def scp(server, *args, password="demo-pass"):
    return subprocess.run(["sshpass", "-p", password, "scp", "-q", "-P", str(server.ssh_port)] +
                          SSH_OPTS + list(args), capture_output=True, timeout=WAIT * 4)


def paramiko_client(server, user="demo", password="demo-pass"):
    transport = paramiko.Transport(("127.0.0.1", server.ssh_port))
    transport.banner_timeout = WAIT
    transport.connect(username=user, password=password)
    return transport, paramiko.SFTPClient.from_transport(transport)


def hang_up(transport, client):
    """Closes the SFTP channel, then the connection. What a test checks is the work before;
    once seen in CI, the connection was already gone when the channel's close was sent."""
    try:
        client.close()
    except EOFError:
        pass
    transport.close()


def digest(path):
    h = hashlib.sha256()
    with open(path, "rb") as f:
        for block in iter(lambda: f.read(1 << 20), b""):
            h.update(block)
    return h.hexdigest()


class SftpClients(ClientTestCase):
    @classmethod
    def make_server(cls):
        server = Server(files=dict(FILES), ssh=True, start=False,
                        dirs=("pub/up",))
        outside = os.path.join(server.dir, "outside")
        os.makedirs(outside)
        with open(os.path.join(outside, "m.txt"), "wb") as f:
            f.write(b"mounted\n")
        with open(os.path.join(server.dir, "escape.txt"), "wb") as f:
            f.write(b"outside the home\n")
        # A link in the home that leads out of it: the scan leaves it out of the tree.
        os.symlink(os.path.join(server.dir, "escape.txt"), os.path.join(server.home, "pub",
                                                                          "link.txt"))
        server.write_table("mounts", "%s|\\mnt\n" % outside)
        server.write_table("fpl.txt", "\\pub:d:root:root:111111111\n"
                           "\\pub\\up:d:root:root:111111111\n"
                           "\\private:d:admin:admin:111000000\n"
                           "\\private\\secret.txt:-:admin:admin:110000000\n"
                           "\\pub\\hello.txt:-:admin:admin:110100100\n")
        server.start()
        return server

    @classmethod
    def tearDownClass(cls):
        # An orderly stop with every session over: a sanitizer build reports leaks then.
        status = cls.server.stop()
        reports = cls.server.sanitizer_reports()
        super().tearDownClass()
        if status != 0 or reports:
            raise AssertionError("shutdown status %r, sanitizer reports %r" % (status, reports))

    def test_batch_put_get_mkdir_rename_chmod_rm(self):
        data = pattern_bytes(200000, 3)
        self.local("put.bin", data)
        r = sftp_batch(self.server, ["cd /pub/up", "put put.bin", "mkdir made",
                                     "rename put.bin made/moved.bin", "chmod 600 made/moved.bin",
                                     "get made/moved.bin back.bin", "ls -l made",
                                     "rm made/moved.bin", "rmdir made"], cwd=self.work.name)
        self.assertEqual(r.returncode, 0, r.stderr + r.stdout)
        with open(self.local("back.bin"), "rb") as f:
            self.assertEqual(f.read(), data)
        self.assertIn(b"-rw-------", r.stdout)  # the node's flags, as listings show them
        self.assertFalse(os.path.exists(os.path.join(self.server.home, "pub/up/made")))

    def test_scp_both_ways(self):
        data = pattern_bytes(1000003, 5)
        src = self.local("scp.bin", data)
        r = scp(self.server, src, "demo@127.0.0.1:/pub/up/scp.bin")
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertEqual(self.home("pub", "up", "scp.bin"), data)
        r = scp(self.server, "demo@127.0.0.1:/pub/big.bin", self.local("big.bin"))
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertEqual(digest(self.local("big.bin")), hashlib.sha256(BIG).hexdigest())

    def test_paramiko_operations(self):
        transport, c = paramiko_client(self.server)
        try:
            self.assertEqual(c.normalize("."), "/")
            names = sorted(c.listdir("/pub"))
            self.assertIn("hello.txt", names)
            self.assertNotIn("link.txt", names)
            st = c.stat("/pub/big.bin")
            self.assertEqual(st.st_size, len(BIG))
            self.assertTrue(stat.S_ISDIR(c.stat("/pub/docs").st_mode))
            with c.open("/pub/up/p.txt", "wb") as f:
                f.write(b"one two three")
            with c.open("/pub/up/p.txt", "r+") as f:
                f.seek(4)
                f.write(b"TWO")
            self.assertEqual(self.home("pub", "up", "p.txt"), b"one TWO three")
            with c.open("/pub/up/p.txt", "ab") as f:
                f.write(b"!")
            self.assertEqual(self.home("pub", "up", "p.txt"), b"one TWO three!")
            c.utime("/pub/up/p.txt", (1000000000, 1200000000))
            self.assertEqual(c.stat("/pub/up/p.txt").st_mtime, 1200000000)
            c.chmod("/pub/up/p.txt", 0o640)
            self.assertEqual(c.stat("/pub/up/p.txt").st_mode & 0o777, 0o640)
            c.rename("/pub/up/p.txt", "/pub/up/q.txt")
            with self.assertRaises(IOError):
                c.rename("/pub/up/q.txt", "/pub/hello.txt")  # never replaces
            with c.open("/mnt/m.txt") as f:
                self.assertEqual(f.read(), b"mounted\n")
            c.remove("/pub/up/q.txt")
            with self.assertRaises(IOError):
                c.symlink("/pub/hello.txt", "/pub/up/l")
        finally:
            hang_up(transport, c)

    def test_permission_rules(self):
        transport, c = paramiko_client(self.server)
        try:
            denied = [
                ("read without r", lambda: c.open("/private/secret.txt").read()),
                ("list without r", lambda: c.listdir("/private")),
                ("stat in an unreadable dir", lambda: c.stat("/private/secret.txt")),
                ("write without w", lambda: c.open("/private/new.txt", "wb").close()),
                ("overwrite without w", lambda: c.open("/pub/hello.txt", "wb").close()),
                ("chmod of another's file", lambda: c.chmod("/pub/hello.txt", 0o777)),
                ("remove a mount point", lambda: c.rmdir("/mnt")),
                ("out of the home", lambda: c.open("/../../escape.txt").read()),
                ("a host link", lambda: c.open("/pub/link.txt").read()),
            ]
            for what, op in denied:
                with self.subTest(what):
                    with self.assertRaises(IOError):
                        op()
            self.assertEqual(c.normalize("/../.."), "/")
        finally:
            hang_up(transport, c)
        self.assertEqual(self.home("pub", "hello.txt"), b"Hello\n")
        self.assertFalse(os.path.exists(os.path.join(self.server.home, "private", "new.txt")))

    def test_broken_upload_keeps_the_old_file(self):
        transport, c = paramiko_client(self.server)
        try:
            with c.open("/pub/up/keep.txt", "wb") as f:
                f.write(b"old contents")
            f = c.open("/pub/up/keep.txt", "wb")
            f.write(b"new but never finished" * 1000)
            f.flush()
        finally:
            transport.close()  # the session ends with the handle open
        # The server notices the end and throws the staged bytes away.
        up = os.path.join(self.server.home, "pub", "up")
        for _ in range(int(WAIT * 10)):
            if not [n for n in os.listdir(up) if n.startswith(".")]:
                break
            time.sleep(0.1)
        self.assertEqual(self.home("pub", "up", "keep.txt"), b"old contents")


    def test_bad_packets_end_the_subsystem_cleanly(self):
        for junk in (b"\xff\xff\xff\xff", b"\x00\x00\x00\x05\x01\x00\x00\x00\x03"
                     b"\x00\x00\x00\x05\x66\x00\x00\x00\x01",
                     b"\x00\x00\x00\x08\x11\x00\x00\x00\x01\x00\x00\x00"):
            with self.subTest(junk=junk):
                transport = paramiko.Transport(("127.0.0.1", self.server.ssh_port))
                try:
                    transport.connect(username="demo", password="demo-pass")
                    channel = transport.open_session(timeout=WAIT)
                    channel.invoke_subsystem("sftp")
                    channel.sendall(junk)
                    channel.settimeout(WAIT)
                    while channel.recv(4096):
                        pass  # a version reply at most, then the end
                    self.assertTrue(channel.exit_status_ready() or channel.closed)
                finally:
                    transport.close()
        self.assertTrue(self.server.alive())
        transport, c = paramiko_client(self.server)
        c.stat("/pub")
        transport.close()


class SftpLarge(unittest.TestCase):
    def test_100_mib_round_trip_is_byte_identical(self):
        server = Server(ssh=True)
        try:
            work = os.path.join(server.dir, "work")
            os.makedirs(work)
            src = os.path.join(work, "big.bin")
            with open(src, "wb") as f:
                for i in range(100):
                    f.write(pattern_bytes(1 << 20, i))
            r = sftp_batch(server, ["put big.bin /pub/big.bin", "get /pub/big.bin back.bin"],
                           cwd=work)
            self.assertEqual(r.returncode, 0, r.stderr)
            self.assertEqual(digest(os.path.join(server.home, "pub", "big.bin")), digest(src))
            self.assertEqual(digest(os.path.join(work, "back.bin")), digest(src))
        finally:
            server.close()


if __name__ == "__main__":
    main()
