"""Faults against the running binary: a disk that fills up during STOR, a host directory
removed behind the server's back, tables that cannot be written at shutdown, and SIGKILL in
the middle of the shutdown (the tables on disk are always either the old or the new complete
version). The unmount under a running download is tested in-process
(tests/security/unmount_download_test.cpp): only the desktop can remove a mount at run time."""

import os
import random
import resource
import shutil
import signal
import subprocess
import time
import unittest

from hostile_support import (BINARY, GOODBYE, WAIT, Conn, DataListener, Ftp, Server, long_line,
                             pattern_bytes)


def is_root():
    return os.geteuid() == 0


def mount_tmpfs(path, size):
    os.makedirs(path, exist_ok=True)
    subprocess.run(["mount", "-t", "tmpfs", "-o", "size=%s" % size, "tmpfs", path], check=True,
                   timeout=WAIT)


def umount(path):
    subprocess.run(["umount", "-l", path], timeout=WAIT)


class FullDisk(unittest.TestCase):
    def setUp(self):
        if not is_root():
            self.skipTest("needs root to mount a small tmpfs (CI runs as root)")
        self.server = Server(start=False, files={"pub/keep.bin": pattern_bytes(5000, 1)})
        self.small = os.path.join(self.server.home, "small")
        try:
            mount_tmpfs(self.small, "1m")
        except (subprocess.CalledProcessError, OSError) as e:
            self.server.close()
            self.skipTest("cannot mount a tmpfs here: %s" % e)
        self.server.write_table("fpl.txt", "\\pub:d:root:root:111111111\n"
                                           "\\small:d:root:root:111111111\n")
        self.server.start()

    def tearDown(self):
        status = self.server.stop()
        umount(self.small)
        self.server.close()
        self.assertEqual(status, 0)

    def stor(self, ftp, name, data):
        lst = DataListener()
        try:
            ftp.port(lst)
            ftp.send("STOR %s\r\n" % name)
            self.assertEqual(ftp.line(), b"150 Opening BINARY mode data connection\r\n")
            conn = lst.accept()
            sent = True
            try:
                conn.sendall(data)
            except OSError:
                sent = False  # the server gave up on the upload
            conn.close()
            return sent, ftp.line()
        finally:
            lst.close()

    def listed_size(self, ftp, name):
        lst = DataListener()
        try:
            ftp.port(lst)
            ftp.send("LIST %s?\r\n" % name[:-1])
            ftp.line()
            line = lst.receive_all()
            self.assertEqual(ftp.line(), b"226 Transfer complete\r\n")
            return int(line.split()[3]) if line else None
        finally:
            lst.close()

    def test_a_full_disk_during_stor(self):
        ftp = Ftp(self.server.ftp_port)
        ftp.login("demo", "demo-pass")
        ftp.cmd("TYPE I")
        self.assertEqual(ftp.cmd("CWD small"), b"250 CWD command successful\r\n")
        big = pattern_bytes(3 * 1024 * 1024, 2)
        sent, reply = self.stor(ftp, "big.bin", big)
        path = os.path.join(self.small, "big.bin")
        on_disk = os.path.getsize(path) if os.path.exists(path) else None
        # The upload did not fit. The client must not be told that it was stored.
        self.assertLess(on_disk or 0, len(big))
        self.assertNotEqual(reply, b"226 Transfer complete\r\n",
                            "a truncated upload was reported complete")
        # The tree does not claim more than the disk holds.
        if on_disk is not None:
            self.assertEqual(self.listed_size(ftp, "big.bin"), on_disk)
        # The session and the server go on: space is freed and an upload fits again.
        self.assertEqual(ftp.cmd("PWD"), b'257 "/small" is current directory.\r\n')
        if on_disk is not None:
            self.assertEqual(ftp.cmd("DELE big.bin"), b"250 DELE command ok.\r\n")
        small = pattern_bytes(100 * 1024, 3)
        self.assertEqual(self.stor(ftp, "fits.bin", small), (True, b"226 Transfer complete\r\n"))
        with open(os.path.join(self.small, "fits.bin"), "rb") as f:
            self.assertTrue(f.read() == small)
        ftp.send("QUIT\r\n")
        self.assertEqual(ftp.read_to_close(), GOODBYE)
        self.assertEqual(self.server.sanitizer_reports(), [])


class FileSizeLimit(unittest.TestCase):
    """The same write failure without root: the process runs under a file-size limit, where a
    write past it fails (and, unless the server ignores the signal, SIGXFSZ would kill it)."""

    def test_an_upload_past_the_file_size_limit(self):
        server = Server(start=False)
        try:
            limit = 2 * 1024 * 1024
            server.start(preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE,
                                                               (limit, limit)))
            ftp = Ftp(server.ftp_port)
            ftp.login("demo", "demo-pass")
            ftp.cmd("TYPE I")
            ftp.cmd("CWD pub")
            lst = DataListener()
            ftp.port(lst)
            ftp.send("STOR huge.bin\r\n")
            self.assertEqual(ftp.line(), b"150 Opening BINARY mode data connection\r\n")
            conn = lst.accept()
            try:
                conn.sendall(pattern_bytes(3 * limit, 4))
            except OSError:
                pass
            conn.close()
            lst.close()
            reply = ftp.line()
            self.assertTrue(server.alive(), "the server died at the file-size limit")
            self.assertNotEqual(reply, b"226 Transfer complete\r\n",
                                "a truncated upload was reported complete")
            self.assertEqual(ftp.cmd("PWD"), b'257 "/pub" is current directory.\r\n')
            ftp.send("QUIT\r\n")
            self.assertEqual(ftp.read_to_close(), GOODBYE)
            self.assertEqual(server.stop(), 0)
            self.assertEqual(server.sanitizer_reports(), [])
        finally:
            server.close()


class DirectoryRemovedBehindTheServersBack(unittest.TestCase):
    def test_commands_in_a_vanished_directory(self):
        server = Server(files={"pub/gone/sub/f.txt": b"file\n", "pub/gone/g.txt": b"g\n"},
                        dirs=("pub/gone/empty",))
        try:
            ftp = Ftp(server.ftp_port)
            ftp.login("demo", "demo-pass")
            self.assertEqual(ftp.cmd("CWD pub\\gone\\sub"), b"250 CWD command successful\r\n")
            t = Conn(server.telnet_port)
            t.read_until(b"login: ")
            t.send("demo\r\n")
            t.read_until(b"Password: ")
            t.send("demo-pass\r\n")
            t.read_until(b"# ")
            t.send("cd \\pub\\gone\r\n")
            t.read_until(b"# ")
            shutil.rmtree(os.path.join(server.home, "pub", "gone"))

            self.assertEqual(ftp.cmd("PWD"), b'257 "/pub/gone/sub" is current directory.\r\n')
            lst = DataListener()
            ftp.port(lst)
            ftp.send("RETR f.txt\r\n")
            self.assertEqual(ftp.line(), b"150 Opening ASCII mode data connection (5 bytes)\r\n")
            self.assertEqual(lst.receive_all(), b"")
            self.assertEqual(ftp.line(), b"226 Transfer complete\r\n")
            lst.close()
            lst = DataListener()
            ftp.port(lst)
            ftp.send("STOR new.txt\r\n")
            self.assertEqual(ftp.line(), b"150 Opening ASCII mode data connection\r\n")
            conn = lst.accept()
            try:
                conn.sendall(b"data\n")
            except OSError:
                pass
            conn.close()
            lst.close()
            self.assertEqual(ftp.line(), b"226 Transfer complete\r\n")
            self.assertEqual(ftp.cmd("MKD d"), b"550 mkdir: Permissions Denied\r\n")
            self.assertEqual(ftp.cmd("DELE f.txt"), b"550 Permissions denied (delete failed)\r\n")
            self.assertEqual(ftp.cmd("CDUP"), b"250 CWD command successful\r\n")
            self.assertEqual(ftp.cmd("RMD sub"), b'550 rmdir: Failed to remove directory "";'
                                                 b' Not Empty\r\n')
            self.assertEqual(ftp.cmd("RMD empty"), b'550 rmdir: Failed to remove directory '
                                                   b'"empty"; in Use\r\n')
            self.assertFalse(os.path.exists(os.path.join(server.home, "pub", "gone")),
                             "something recreated the removed directory")

            for line, reply in (
                    ("ls", None),
                    ("cd sub", b""),
                    ("more f.txt", b"more failed: Permissions Denied\r\n"),
                    ("mkdir x", b'mkdir: Failed; No such file or directory "x"\r\n'),
                    ("rm f.txt", b'rm: Failed to remove file "f.txt"; in Use or Directory\r\n'),
                    ("cp f.txt \\pub", b'cp: Copy File failed "f.txt"\r\n'),
                    ("mv f.txt \\pub", b'mv: Move File failed "f.txt"; Destination in Use\r\n')):
                t.send(line + "\r\n")
                out = t.read_until(b"# ")
                self.assertTrue(out.startswith(line.encode() + b"\r\n"), out)
                if reply is not None:
                    self.assertEqual(out[len(line) + 2:-2], reply, line)
            self.assertFalse(os.path.exists(os.path.join(server.home, "pub", "gone")))
            self.assertFalse(os.path.exists(os.path.join(server.home, "pub", "f.txt")))
            t.send("exit\r\n")
            t.read_to_close()
            ftp.send("QUIT\r\n")
            self.assertEqual(ftp.read_to_close(), GOODBYE)
            self.assertEqual(server.stop(), 0)
            self.assertEqual(server.sanitizer_reports(), [])
        finally:
            server.close()


def tables(start_dir):
    out = {}
    for name in ("users", "groups", "mounts", "fpl.txt"):
        path = os.path.join(start_dir, name)
        with open(path, "rb") as f:
            out[name] = f.read()
    return out


class TablesAtShutdown(unittest.TestCase):
    def make_server(self):
        users = [("u%04d" % i, None, 101 + i, 2, 15) for i in range(300)]
        users.append(("demo", "demo-pass", 101 + 400, 5, 15))
        files = {"pub/d%02d/f%04d.txt" % (i % 40, i): b"x" for i in range(6000)}
        server = Server(start=False, users=users, files=files,
                        groups="".join("g%03d:%d:u0001:u0002\n" % (i, 200 + i)
                                       for i in range(50)))
        real = os.path.join(server.dir, "real")
        os.makedirs(real)
        server.write_table("mounts", "%s|\\m1\n%s|\\pub\\m2\n" % (real, real))
        return server

    def test_tables_that_cannot_be_written_keep_their_old_version(self):
        server = self.make_server()
        try:
            old = tables(server.dir)
            server.start()
            # The start directory becomes unwritable (as root only a read-only mount stops us).
            ro = None
            if is_root():
                ro = server.dir
                try:
                    subprocess.run(["mount", "--bind", server.dir, server.dir], check=True)
                    subprocess.run(["mount", "-o", "remount,bind,ro", server.dir], check=True)
                except (subprocess.CalledProcessError, OSError) as e:
                    subprocess.run(["umount", server.dir])
                    self.skipTest("cannot make a read-only bind mount here: %s" % e)
            else:
                os.chmod(server.dir, 0o555)
            try:
                self.assertEqual(server.stop(), 0)
                self.assertEqual(tables(server.dir), old)
                self.assertEqual([n for n in os.listdir(server.dir) if n.endswith(".tmp")], [])
            finally:
                if ro:
                    subprocess.run(["umount", ro])
                else:
                    os.chmod(server.dir, 0o755)
            self.assertEqual(server.sanitizer_reports(), [])
        finally:
            server.close()

    def test_sigkill_during_shutdown_leaves_old_or_new_tables(self):
        server = self.make_server()
        try:
            old = tables(server.dir)
            # The new versions: what one orderly start and stop writes.
            server.start()
            self.assertEqual(server.stop(), 0)
            new = tables(server.dir)
            self.assertNotEqual(new["users"], old["users"])  # the order reverses each cycle
            rnd = random.Random(5)
            seen_new = 0
            for trial in range(12):
                for name, content in old.items():
                    with open(os.path.join(server.dir, name), "wb") as f:
                        f.write(content)
                server.start()
                server.proc.send_signal(signal.SIGTERM)
                time.sleep(rnd.uniform(0, 0.15))
                server.proc.kill()
                server.proc.wait()
                server.reader.join(timeout=10)
                server.proc.stdout.close()
                now = tables(server.dir)
                for name in now:
                    self.assertIn(now[name], (old[name], new[name]),
                                  "%s is neither the old nor the new version (trial %d)"
                                  % (name, trial))
                    seen_new += now[name] == new[name]
            # And the server starts from whatever was left.
            server.start()
            self.assertEqual(server.stop(), 0)
            self.assertEqual(server.sanitizer_reports(), [])
        finally:
            server.close()


if __name__ == "__main__":
    if not BINARY:
        raise SystemExit("ORVANE_BINARY is not set")
    unittest.main()
