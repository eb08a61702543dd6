"""The Debian package: built with CPack from the build folder, installed with dpkg, the server
started as its systemd unit starts it (as user orvane, from /var/lib/orvane, settings from
/etc/orvane), an FTP login, then a purge. Needs root; skipped otherwise."""

import glob
import os
import pwd
import shutil
import signal
import socket
import subprocess
import tempfile
import time
import unittest

from hostile_support import BINARY, WAIT, Ftp, Server, free_port, main

BUILD = os.path.dirname(BINARY)
STATE = "/var/lib/orvane"
SETTINGS = "/etc/orvane/settings.ini"


def run(*argv, check=True):
    return subprocess.run(argv, capture_output=True, text=True, timeout=300, check=check)


def installed(name):
    r = run("dpkg-query", "-W", "-f=${Status}", name, check=False)
    return "install ok installed" in r.stdout


@unittest.skipUnless(os.geteuid() == 0, "installing a package needs root")
@unittest.skipUnless(shutil.which("dpkg") and shutil.which("cpack"), "needs dpkg and cpack")
class Package(unittest.TestCase):
    def setUp(self):
        if installed("orvane") or os.path.exists(STATE):
            self.skipTest("orvane is installed on this machine already; not touching it")
        if not os.path.exists(os.path.join(BUILD, "CPackConfig.cmake")):
            self.skipTest("no CPack configuration in " + BUILD)
        self.tmp = tempfile.TemporaryDirectory(prefix="orvane-pkg-")
        self.addCleanup(self.tmp.cleanup)

    def test_install_run_as_the_unit_does_and_purge(self):
        run("cpack", "-G", "DEB", "-B", self.tmp.name, "--config",
            os.path.join(BUILD, "CPackConfig.cmake"))
        debs = glob.glob(os.path.join(self.tmp.name, "orvane_*.deb"))
        self.assertEqual(len(debs), 1, os.listdir(self.tmp.name))
        if shutil.which("lintian"):
            # Errors and warnings fail, except the one about closing an archive bug that a
            # package outside Debian's archive has none to close.
            tags = [t for t in run("lintian", debs[0], check=False).stdout.splitlines()
                    if t[:2] in ("E:", "W:") and "initial-upload-closes-no-bugs" not in t]
            self.assertEqual(tags, [])
        self.addCleanup(run, "dpkg", "--purge", "orvane", check=False)
        run("dpkg", "-i", debs[0])

        user = pwd.getpwnam("orvane")
        st = os.stat(STATE)
        self.assertEqual((st.st_uid, st.st_mode & 0o777), (user.pw_uid, 0o750))
        self.assertEqual(os.readlink(os.path.join(STATE, "settings.ini")), SETTINGS)
        unit = "/lib/systemd/system/orvane.service"
        self.assertTrue(os.path.exists(unit))
        if shutil.which("systemd-analyze"):
            r = run("systemd-analyze", "verify", unit, check=False)
            self.assertEqual(r.returncode, 0, r.stderr)
        with open(SETTINGS) as f:
            packaged = f.read()
        for key in ("ftp_modern=1", "live_tree=1", "ban_after=", "auth_log=1", "password_hash=1"):
            self.assertIn(key, packaged)

        # Free ports for the test, in the file the administrator edits.
        ftp_port, telnet_port = free_port(), free_port()
        with open(SETTINGS, "w") as f:
            f.write(packaged.replace("ftp_port=21", "ftp_port=%d" % ftp_port)
                    .replace("telnet_port=23", "telnet_port=%d" % telnet_port))
        stored = run("/usr/bin/orvane-server", "-C", STATE, "--encode-password", "pkg",
                     "pkg-pass").stdout.strip()
        self.assertTrue(stored.startswith("$y$"), stored)
        users = os.path.join(STATE, "users")
        with open(users, "w") as f:
            f.write("pkg:101:%s:2:15:\\\n" % stored)
        os.chown(users, user.pw_uid, user.pw_gid)
        os.chmod(users, 0o600)

        # As the unit starts it: user and group orvane, no other groups, in the start directory.
        proc = subprocess.Popen(["/usr/bin/orvane-server", "--headless", "-C", STATE], cwd=STATE,
                                user="orvane", group="orvane", extra_groups=[],
                                stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        try:
            lines = []
            deadline = time.monotonic() + WAIT
            while time.monotonic() < deadline and "Ready..." not in lines:
                line = proc.stdout.readline()
                if not line:
                    break
                lines.append(line.decode("latin-1").rstrip("\n"))
            self.assertIn("  FTP - Ok.  port %d" % ftp_port, lines)
            ftp = Ftp(ftp_port)
            block = ftp.login("pkg", "pkg-pass")
            self.assertTrue(block.endswith(b"230 pkg user logged in.\r\n"), block)
            ftp.quit()
        finally:
            proc.send_signal(signal.SIGTERM)
            self.assertEqual(proc.wait(timeout=WAIT), 0)
            proc.stdout.close()
        self.assertEqual(os.stat(os.path.join(STATE, "debug.txt")).st_uid, user.pw_uid)

        run("dpkg", "--purge", "orvane")
        self.assertFalse(installed("orvane"))
        self.assertFalse(os.path.exists(STATE))
        self.assertFalse(os.path.exists(SETTINGS))


class Notify(unittest.TestCase):
    """What a notify-type unit hears from the server: ready after start-up, then stopping."""

    def test_ready_then_stopping(self):
        with tempfile.TemporaryDirectory(prefix="orvane-notify-") as d:
            path = os.path.join(d, "notify")
            sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
            sock.bind(path)
            sock.settimeout(WAIT)
            os.environ["NOTIFY_SOCKET"] = path
            try:
                s = Server()
            finally:
                del os.environ["NOTIFY_SOCKET"]
            try:
                self.assertIn(b"READY=1", sock.recv(4096))
                self.assertEqual(s.stop(), 0)
                self.assertIn(b"STOPPING=1", sock.recv(4096))
            finally:
                s.close()
                sock.close()


if __name__ == "__main__":
    main()
