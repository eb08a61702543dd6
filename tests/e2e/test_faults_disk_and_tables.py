"""Faults against the running binary: a disk that fills up during STOR (a small tmpfs as root,
a file-size limit otherwise), a host directory removed behind the server's back, tables that
cannot be written at shutdown, and SIGKILL in the middle of the shutdown (the tables on disk are
always either the old or the new complete version). The unmount under a running download is
tested in-process (tests/security/unmount_download_test.cpp): only the desktop can remove a
mount at run time."""

import os
import random
import resource
import shutil
import signal
import subprocess
import time
import unittest

from hostile_support import (COMPLETE, OPENING, WAIT, Server, login, long_line, main,
                             pattern_bytes, shell)

TABLES = ("users", "groups", "mounts", "fpl.txt")


class WriteFailures(unittest.TestCase):
    """An upload that cannot be written to its end is not reported complete, the tree does not
    claim more than the disk holds, and the session and the server go on."""

    def check_upload(self, server, folder, path):
        ftp = login(server)
        ftp.cmd("TYPE I")
        self.assertEqual(ftp.cmd("CWD " + folder), b"250 CWD command successful\r\n")
        big = pattern_bytes(3 * 1024 * 1024, 2)
        opening, _, reply = ftp.transfer("STOR big.bin", big)
        self.assertEqual(opening, OPENING)
        self.assertTrue(server.alive(), "the server died at the write failure")
        self.assertNotEqual(reply, COMPLETE, "a truncated upload was reported complete")
        on_disk = os.path.getsize(path) if os.path.exists(path) else None
        self.assertLess(on_disk or 0, len(big))
        if on_disk is not None:
            self.assertEqual(ftp.transfer("LIST big.bi?")[1], long_line(
                "-", "rwxrwxrwx", "demo", None, on_disk, "big.bin"))
            self.assertEqual(ftp.cmd("DELE big.bin"), b"250 DELE command ok.\r\n")
        self.assertEqual(ftp.cmd("PWD"), b'257 "/%s" is current directory.\r\n' % folder.encode())
        small = pattern_bytes(100 * 1024, 3)
        self.assertEqual(ftp.transfer("STOR fits.bin", small), (OPENING, True, COMPLETE))
        with open(os.path.join(os.path.dirname(path), "fits.bin"), "rb") as f:
            self.assertTrue(f.read() == small)
        ftp.quit()
        self.assertEqual(server.stop(), 0)
        self.assertEqual(server.sanitizer_reports(), [])

    def test_a_full_disk_during_stor(self):
        if os.geteuid() != 0:
            self.skipTest("needs root to mount a small tmpfs (CI runs as root)")
        server = Server(start=False, fpl="\\pub:d:root:root:111111111\n"
                                         "\\small:d:root:root:111111111\n")
        small = os.path.join(server.home, "small")
        os.makedirs(small)
        try:
            subprocess.run(["mount", "-t", "tmpfs", "-o", "size=1m", "tmpfs", small], check=True,
                           timeout=WAIT, capture_output=True)
        except (subprocess.CalledProcessError, OSError) as e:
            server.close()
            self.skipTest("cannot mount a tmpfs here: %s" % e)
        try:
            server.start()
            self.check_upload(server, "small", os.path.join(small, "big.bin"))
        finally:
            server.stop()
            subprocess.run(["umount", "-l", small], timeout=WAIT)
            server.close()

    def test_an_upload_past_the_file_size_limit(self):
        # A write past the limit fails (and, unless the server ignores the signal, SIGXFSZ
        # would kill it).
        server = Server(start=False)
        limit = 2 * 1024 * 1024
        try:
            server.start(preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE,
                                                               (limit, limit)))
            self.check_upload(server, "pub", os.path.join(server.home, "pub", "big.bin"))
        finally:
            server.close()


class DirectoryRemovedBehindTheServersBack(unittest.TestCase):
    def test_commands_in_a_vanished_directory(self):
        server = Server(files={"pub/gone/sub/f.txt": b"file\n", "pub/gone/g.txt": b"g\n"},
                        dirs=("pub/gone/empty",))
        try:
            ftp = login(server)
            self.assertEqual(ftp.cmd("CWD pub\\gone\\sub"), b"250 CWD command successful\r\n")
            t = shell(server)
            t.say("cd \\pub\\gone")
            shutil.rmtree(os.path.join(server.home, "pub", "gone"))

            self.assertEqual(ftp.cmd("PWD"), b'257 "/pub/gone/sub" is current directory.\r\n')
            # Neither transfer can move its file, and neither is reported complete.
            self.assertEqual(ftp.transfer("RETR f.txt"), (
                b"150 Opening ASCII mode data connection (5 bytes)\r\n", b"",
                b"451 Transfer aborted: the file could not be read\r\n"))
            self.assertEqual(ftp.transfer("STOR new.txt", b"data\n")[::2], (
                b"150 Opening ASCII mode data connection\r\n",
                b"452 Transfer aborted: the file could not be written\r\n"))
            for line, reply in (
                    ("MKD d", b"550 mkdir: Permissions Denied"),
                    ("DELE f.txt", b"550 Permissions denied (delete failed)"),
                    ("CDUP", b"250 CWD command successful"),
                    ("RMD sub", b'550 rmdir: Failed to remove directory ""; Not Empty'),
                    ("RMD empty", b'550 rmdir: Failed to remove directory "empty"; in Use')):
                self.assertEqual(ftp.cmd(line), reply + b"\r\n", line)
            for line, reply in (
                    ("ls", None),
                    ("cd sub", b""),
                    ("more f.txt", b"more failed: Permissions Denied\r\n"),
                    ("mkdir x", b'mkdir: Failed; No such file or directory "x"\r\n'),
                    ("rm f.txt", b'rm: Failed to remove file "f.txt"; in Use or Directory\r\n'),
                    ("cp f.txt \\pub", b'cp: Copy File failed "f.txt"\r\n'),
                    ("mv f.txt \\pub", b'mv: Move File failed "f.txt"; Destination in Use\r\n')):
                out = t.say(line)
                if reply is not None:
                    self.assertEqual(out, reply + b"# ", line)
            self.assertFalse(os.path.exists(os.path.join(server.home, "pub", "gone")),
                             "something recreated the removed directory")
            self.assertFalse(os.path.exists(os.path.join(server.home, "pub", "f.txt")))
            t.send("exit\r\n")
            t.read_to_close()
            ftp.quit()
            self.assertEqual(server.stop(), 0)
            self.assertEqual(server.sanitizer_reports(), [])
        finally:
            server.close()


class TablesAtShutdown(unittest.TestCase):
    def setUp(self):
        users = [("u%04d" % i, None, 101 + i, 2, 15) for i in range(300)]
        users.append(("demo", "demo-pass", 101 + 400, 5, 15))
        files = {"pub/d%02d/f%04d.txt" % (i % 40, i): b"x" for i in range(6000)}
        self.server = Server(start=False, users=users, files=files, groups="".join(
            "g%03d:%d:u0001:u0002\n" % (i, 200 + i) for i in range(50)))
        real = os.path.join(self.server.dir, "real")
        os.makedirs(real)
        self.server.write_table("mounts", "%s|\\m1\n%s|\\pub\\m2\n" % (real, real))
        self.addCleanup(self.server.close)

    def tables(self):
        return {name: self.server.table(name) for name in TABLES}

    def test_tables_that_cannot_be_written_keep_their_old_version(self):
        server, old = self.server, self.tables()
        server.start()
        # The start directory becomes unwritable (as root only a read-only mount stops us).
        if os.geteuid() == 0:
            try:
                subprocess.run(["mount", "--bind", server.dir, server.dir], check=True)
                self.addCleanup(subprocess.run, ["umount", server.dir])
                subprocess.run(["mount", "-o", "remount,bind,ro", server.dir], check=True)
            except (subprocess.CalledProcessError, OSError) as e:
                self.skipTest("cannot make a read-only bind mount here: %s" % e)
        else:
            os.chmod(server.dir, 0o555)
            self.addCleanup(os.chmod, server.dir, 0o755)
        mark = server.mark()
        self.assertEqual(server.stop(), 0)
        self.assertEqual(self.tables(), old)
        self.assertEqual([n for n in os.listdir(server.dir) if n.endswith(".tmp")], [])
        # Each table that could not be written says so, once, in the order they are written.
        failed = [line for line in server.log_since(mark) if line.startswith("**** Unable")]
        self.assertEqual([line.split()[4] for line in failed], list(TABLES))
        for line in failed:
            self.assertRegex(line, r"^\*\*\*\* Unable to write \S+ \(.+\) \*\*\*\*$")
        self.assertEqual(server.sanitizer_reports(), [])

    def test_sigkill_during_shutdown_leaves_old_or_new_tables(self):
        server, old = self.server, self.tables()
        # The new versions: what one orderly start and stop writes.
        server.start()
        self.assertEqual(server.stop(), 0)
        new = self.tables()
        self.assertNotEqual(new["users"], old["users"])  # the order reverses each cycle
        rnd = random.Random(5)
        for trial in range(12):
            for name, content in old.items():
                with open(os.path.join(server.dir, name), "wb") as f:
                    f.write(content)
            server.start()
            server.proc.send_signal(signal.SIGTERM)
            time.sleep(rnd.uniform(0, 0.15))
            server.stop(sig=signal.SIGKILL)
            for name, now in self.tables().items():
                self.assertIn(now, (old[name], new[name]), "%s is neither the old nor the new "
                              "version (trial %d)" % (name, trial))
        # And the server starts from whatever was left.
        server.start()
        self.assertEqual(server.stop(), 0)
        self.assertEqual(server.sanitizer_reports(), [])


if __name__ == "__main__":
    main()
