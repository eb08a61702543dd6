"""Shared pieces of the hostile-client, soak, fault and security tests: the built server in a
prepared start directory (with a look at its threads, descriptors and memory through /proc),
raw FTP and Telnet clients that check replies byte for byte, and the honest clients that keep
working beside whatever the tests throw at the server."""

import os
import random
import re
import resource
import select
import signal
import socket
import subprocess
import tempfile
import threading
import time

BINARY = os.environ.get("ORVANE_BINARY", "")
WAIT = 30.0  # seconds any single expectation may take (sanitizer builds are slow)

GREETING = b"220 Orvane Server (beta) written by Pel Varnholt and Kem Osterlo, ready.\r\n"
GOODBYE = (b"221-Orvane Server (beta) written by Pel Varnholt and Kem Osterlo\r\n"
           b"221 Connection closed.\r\n")
TELNET_WELCOME = (b"\xff\xfb\x01Orvane Server (beta) written by Pel Varnholt and Kem Osterlo"
                  b"\r\n\r\nlogin: ")
TELNET_FULL = b"Orvane Server (beta) written by Pel Varnholt and Kam Osterlo\r\n\r\nServer Full."

SANITIZER_MARKS = ("ERROR: AddressSanitizer", "ERROR: LeakSanitizer", "runtime error:",
                   "WARNING: ThreadSanitizer", "ERROR: ThreadSanitizer")

# name, password, uid, max logins, rights
DEFAULT_USERS = (
    ("demo", "demo-pass", 101, 400, 15),
    ("admin", "admin-pass", 10, 400, 15),
    ("honestf", "honest-ftp", 110, 5, 15),
    ("honestt", "honest-tel", 111, 5, 15),
    ("limited", "limited-pass", 112, 1, 12),
)


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def raise_fd_limit(want=8192):
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    if soft < want:
        resource.setrlimit(resource.RLIMIT_NOFILE, (min(want, hard), hard))


def encode_password(name, password):
    return subprocess.run([BINARY, "--encode-password", name, password], check=True,
                          capture_output=True, text=True, timeout=WAIT).stdout.strip()


def pattern_bytes(size, seed):
    """Deterministic file contents that no off-by-one can hide."""
    rnd = random.Random(seed)
    return rnd.randbytes(size)


def long_line(kind, flags, owner, group, size, name):
    """An FTP LIST line."""
    return ("%s%s     %-8.8s %s %10d Jan  1  1998 %s\r\n" % (
        kind, flags, owner, "%-8.8s" % group if group else "<none>  ", size, name)).encode()


def shell_line(kind, flags, owner, group, size, name):
    """A line of the shell's ls."""
    return ("%s%s     %-8.8s %s %10d %s\r\n" % (
        kind, flags, owner, "%-8.8s" % group if group else "<none>  ", size, name)).encode()


class Server:
    """The built binary, headless, in a temporary start directory with FTP and Telnet on free
    loopback ports. `files` maps paths below the home to bytes; `fpl` is the permission list
    (by default \\pub is open to all, \\private is the admin's alone)."""

    def __init__(self, maxusers=50, users=DEFAULT_USERS, files=None, dirs=(), fpl=None,
                 mounts="", groups="", motd=None, start=True, start_dir=None, home=None,
                 keep_log=True):
        self.tmp = tempfile.TemporaryDirectory(prefix="orvane-hostile-")
        self.dir = start_dir or self.tmp.name
        self.home = home or os.path.join(self.dir, "home")
        os.makedirs(os.path.join(self.home, "pub"), exist_ok=True)
        os.makedirs(os.path.join(self.home, "private"), exist_ok=True)
        for rel in dirs:
            os.makedirs(os.path.join(self.home, rel), exist_ok=True)
        for rel, data in (files or {}).items():
            path = os.path.join(self.home, rel)
            os.makedirs(os.path.dirname(path), exist_ok=True)
            with open(path, "wb") as f:
                f.write(data)
        self.ftp_port = free_port()
        self.telnet_port = free_port()
        self.maxusers = maxusers
        self.write_settings()
        # (An account without a password gets a stored form no password matches.)
        lines = ["%s:%d:%s:%d:%d:\\\n" % (name, uid, encode_password(name, pw) if pw else "x",
                                          limit, rights)
                 for name, pw, uid, limit, rights in users]
        self.write_table("users", "".join(lines))
        self.write_table("groups", groups)
        self.write_table("mounts", mounts)
        self.write_table("fpl.txt", fpl if fpl is not None else
                         "\\pub:d:root:root:111111111\n\\private:d:admin:admin:111000000\n")
        if motd is not None:
            self.write_table("motd.txt", motd)
        self.proc = None
        # A long run logs millions of lines: then only the first ones are kept (and counted).
        self.keep_log = keep_log
        if start:
            self.start()

    def write_settings(self):
        self.write_table("settings.ini",
                         "[Server_Settings]\nserverhome=%s\nmaxusers=%d\n[Services]\ntelnet=1\n"
                         "ftp=1\ntelnet_port=%d\nftp_port=%d\n" % (
                             self.home, self.maxusers, self.telnet_port, self.ftp_port))

    def write_table(self, name, text):
        with open(os.path.join(self.dir, name), "w") as f:
            f.write(text)

    def table(self, name):
        with open(os.path.join(self.dir, name), "rb") as f:
            return f.read()

    # ---- the process ----

    def start(self, preexec_fn=None):
        self.lines = []
        self.logged = 0
        self.reports = []
        self.cond = threading.Condition()
        self.proc = subprocess.Popen([BINARY, "--headless", "-C", self.dir],
                                     stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                     preexec_fn=preexec_fn)
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()
        if not self.wait_log("Ready..."):
            self.kill()
            raise RuntimeError("server did not start: %r" % self.lines[-20:])

    def _read(self):
        for raw in self.proc.stdout:
            line = raw.decode("latin-1").rstrip("\n")
            with self.cond:
                self.logged += 1
                if any(m in line for m in SANITIZER_MARKS):
                    self.reports.append(line)
                if self.keep_log or len(self.lines) < 1000 or self.reports:
                    self.lines.append(line)
                self.cond.notify_all()

    @property
    def pid(self):
        return self.proc.pid

    def alive(self):
        return self.proc is not None and self.proc.poll() is None

    def mark(self):
        """The index of the next log line, for wait_log(start=...)."""
        with self.cond:
            return len(self.lines)

    def wait_log(self, line, limit=WAIT, start=0):
        end = time.monotonic() + limit
        with self.cond:
            while line not in self.lines[start:]:
                left = end - time.monotonic()
                if left <= 0 or self.proc.poll() is not None:
                    return line in self.lines[start:]
                self.cond.wait(min(left, 0.5))
            return True

    def wait_log_match(self, regex, limit=WAIT, start=0):
        rx = re.compile(regex)
        end = time.monotonic() + limit
        with self.cond:
            while True:
                for l in self.lines[start:]:
                    if rx.search(l):
                        return l
                left = end - time.monotonic()
                if left <= 0 or self.proc.poll() is not None:
                    return None
                self.cond.wait(min(left, 0.5))

    def wait_thread_complete(self, command, thread, start=0, limit=WAIT):
        """Waits for the "(N) <thread> thread complete" line of the session that logged the
        command line `command` (as "(N) <command>") at `start` or later."""
        line = self.wait_log_match(r"^\(\d+\) %s$" % re.escape(command), limit, start)
        if not line:
            return False
        socket_number = line[1:line.index(")")]
        return self.wait_log("(%s) %s thread complete" % (socket_number, thread), limit, start)

    def log_since(self, start=0):
        with self.cond:
            return list(self.lines[start:])

    def sanitizer_reports(self):
        with self.cond:
            return list(self.reports)

    def fd_count(self):
        return len(os.listdir("/proc/%d/fd" % self.pid))

    def thread_count(self):
        return len(os.listdir("/proc/%d/task" % self.pid))

    def rss_kib(self):
        with open("/proc/%d/status" % self.pid) as f:
            for line in f:
                if line.startswith("VmRSS:"):
                    return int(line.split()[1])
        return 0

    def sanitized(self):
        """True for an ASan or TSan build (memory figures mean little there)."""
        try:
            with open("/proc/%d/maps" % self.pid) as f:
                maps = f.read()
        except OSError:
            return False
        return "libasan" in maps or "libtsan" in maps

    def wait_quiet(self, threads, fds, limit=WAIT):
        """Waits until the process is down to `threads` threads and `fds` descriptors."""
        end = time.monotonic() + limit
        while time.monotonic() < end:
            if self.thread_count() <= threads and self.fd_count() <= fds:
                return True
            time.sleep(0.2)
        return False

    def stop(self, limit=60):
        """The orderly shutdown; returns the exit status (None when it had to be killed)."""
        if self.proc is None:
            return None
        status = None
        if self.proc.poll() is None:
            self.proc.send_signal(signal.SIGTERM)
            try:
                status = self.proc.wait(timeout=limit)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()
        else:
            status = self.proc.returncode
        self.reader.join(timeout=10)
        self.proc.stdout.close()
        return status

    def kill(self):
        if self.proc is not None and self.proc.poll() is None:
            self.proc.kill()
            self.proc.wait()
        if self.proc is not None:
            self.reader.join(timeout=10)
            self.proc.stdout.close()

    def close(self):
        if self.proc is not None and self.proc.poll() is None:
            self.stop()
        self.tmp.cleanup()


# ---- raw clients ----

class Conn:
    """A loopback TCP connection with a receive buffer and time-outs."""

    def __init__(self, port, host="127.0.0.1", timeout=WAIT):
        self.sock = socket.create_connection((host, port), timeout=timeout)
        self.sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.buf = b""
        self.eof = False

    def _fill(self, timeout):
        r, _, _ = select.select([self.sock], [], [], max(timeout, 0))
        if not r:
            return False
        try:
            data = self.sock.recv(65536)
        except (ConnectionResetError, OSError):
            data = b""
        if not data:
            self.eof = True
            return False
        self.buf += data
        return True

    def read_until(self, text, limit=WAIT):
        if isinstance(text, str):
            text = text.encode("latin-1")
        end = time.monotonic() + limit
        while text not in self.buf:
            left = end - time.monotonic()
            if left <= 0 or self.eof:
                raise AssertionError("waited for %r; had %r" % (text, self.buf[-600:]))
            self._fill(left)
        cut = self.buf.index(text) + len(text)
        out, self.buf = self.buf[:cut], self.buf[cut:]
        return out

    def read_exact(self, n, limit=WAIT):
        end = time.monotonic() + limit
        while len(self.buf) < n:
            left = end - time.monotonic()
            if left <= 0 or self.eof:
                raise AssertionError("waited for %d bytes; had %r" % (n, self.buf[-600:]))
            self._fill(left)
        out, self.buf = self.buf[:n], self.buf[n:]
        return out

    def read_quiet(self, quiet=0.5, limit=WAIT):
        end = time.monotonic() + limit
        while time.monotonic() < end and self._fill(quiet):
            pass
        out, self.buf = self.buf, b""
        return out

    def read_to_close(self, limit=WAIT):
        """Everything up to the server's close; raises when it does not close in time."""
        end = time.monotonic() + limit
        while not self.eof:
            left = end - time.monotonic()
            if left <= 0:
                raise AssertionError("connection not closed; had %r" % self.buf[-600:])
            self._fill(left)
        out, self.buf = self.buf, b""
        return out

    def send(self, data):
        if isinstance(data, str):
            data = data.encode("latin-1")
        self.sock.sendall(data)

    def abort(self):
        """Vanishes: a reset instead of an orderly close."""
        try:
            self.sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, b"\x01\x00\x00\x00\x00\x00\x00\x00")
        except OSError:
            pass
        self.close()

    def close(self):
        try:
            self.sock.close()
        except OSError:
            pass


class DataListener:
    """The client side of an active-mode data connection."""

    def __init__(self, host="127.0.0.1"):
        self.sock = socket.socket()
        self.sock.bind((host, 0))
        self.sock.listen(4)
        self.sock.settimeout(WAIT)
        h = host.split(".")
        p = self.sock.getsockname()[1]
        self.port_arg = "%s,%s,%s,%s,%d,%d" % (h[0], h[1], h[2], h[3], p >> 8, p & 255)

    def accept(self, limit=WAIT):
        self.sock.settimeout(limit)
        conn, _ = self.sock.accept()
        conn.settimeout(limit)
        return conn

    def receive_all(self, limit=WAIT):
        conn = self.accept(limit)
        chunks = []
        with conn:
            while True:
                data = conn.recv(1 << 20)
                if not data:
                    break
                chunks.append(data)
        return b"".join(chunks)

    def close(self):
        self.sock.close()


class Ftp(Conn):
    def __init__(self, port, **kw):
        super().__init__(port, **kw)

    def line(self, limit=WAIT):
        return self.read_until(b"\r\n", limit)

    def cmd(self, text, limit=WAIT):
        self.send(text + "\r\n")
        return self.line(limit)

    def login(self, user, password):
        """The greeting, USER and PASS; returns the 230 block."""
        greeting = self.line()
        if greeting != GREETING:
            raise AssertionError("greeting %r" % greeting)
        reply = self.cmd("USER " + user)
        if reply != b"331 User ok need Password.\r\n":
            raise AssertionError("USER: %r" % reply)
        self.send("PASS %s\r\n" % password)
        return self.read_until(b" user logged in.\r\n")

    def port(self, listener):
        reply = self.cmd("PORT " + listener.port_arg)
        if reply != b"200 Port Command OK.\r\n":
            raise AssertionError("PORT: %r" % reply)


# ---- the honest clients ----

class HonestFtp(threading.Thread):
    """One long-lived FTP session that keeps doing a round of work and checks every byte:
    TYPE, CWD, PWD, RETR of a known file, STOR, LIST of what it stored, DELE. Failures are
    collected, not raised."""

    def __init__(self, server, known_name, known_data, user="honestf", password="honest-ftp",
                 tag="h", pause=0.05):
        super().__init__(daemon=True)
        self.server, self.known_name, self.known_data = server, known_name, known_data
        self.user, self.password, self.tag = user, password, tag
        # A pause between rounds keeps the rate of new data connections (and the ports left
        # in TIME_WAIT) at what a real client makes.
        self.pause = pause
        self.stop_event = threading.Event()
        self.failures = []
        self.rounds = 0
        self.ready = threading.Event()

    def expect(self, got, want, what):
        if got != want:
            raise AssertionError("%s: got %r, want %r" % (what, got, want))

    def run(self):
        try:
            ftp = Ftp(self.server.ftp_port)
            block = ftp.login(self.user, self.password)
            self.expect(block, b"230- 1 out of 5 allowed connections in use.\r\n"
                               b"230 %s user logged in.\r\n" % self.user.encode(), "login")
            self.expect(ftp.cmd("TYPE I"), b"200 TYPE set to I\r\n", "TYPE")
            self.expect(ftp.cmd("CWD pub"), b"250 CWD command successful\r\n", "CWD")
            self.ready.set()
            while not self.stop_event.is_set():
                self.round(ftp)
                self.rounds += 1
                self.stop_event.wait(self.pause)
            self.expect(ftp.cmd("QUIT") + ftp.read_to_close(), GOODBYE, "QUIT")
            ftp.close()
        except Exception as e:  # noqa: BLE001 - every failure is a finding to report
            self.failures.append("honest FTP after %d rounds: %s" % (self.rounds, e))
        finally:
            self.ready.set()

    def round(self, ftp):
        self.expect(ftp.cmd("PWD"), b'257 "/pub" is current directory.\r\n', "PWD")
        lst = DataListener()
        try:
            ftp.port(lst)
            ftp.send("RETR %s\r\n" % self.known_name)
            self.expect(ftp.line(), b"150 Opening BINARY mode data connection (%d bytes)\r\n" %
                        len(self.known_data), "RETR 150")
            data = lst.receive_all()
            self.expect(ftp.line(), b"226 Transfer complete\r\n", "RETR 226")
            if data != self.known_data:
                raise AssertionError("RETR data differ (%d bytes)" % len(data))
        finally:
            lst.close()
        name = "%s_%d.bin" % (self.tag, self.rounds)
        payload = pattern_bytes(3000 + self.rounds % 5000, self.rounds)
        lst = DataListener()
        try:
            ftp.port(lst)
            ftp.send("STOR %s\r\n" % name)
            self.expect(ftp.line(), b"150 Opening BINARY mode data connection\r\n", "STOR 150")
            conn = lst.accept()
            conn.sendall(payload)
            conn.close()
            self.expect(ftp.line(), b"226 Transfer complete\r\n", "STOR 226")
        finally:
            lst.close()
        with open(os.path.join(self.server.home, "pub", name), "rb") as f:
            if f.read() != payload:
                raise AssertionError("stored file differs")
        lst = DataListener()
        try:
            ftp.port(lst)
            ftp.send("LIST %s?\r\n" % name[:-1])  # a pattern lists the entry alone
            self.expect(ftp.line(), b"150 Opening BINARY mode data connection\r\n", "LIST 150")
            listing = lst.receive_all()
            self.expect(ftp.line(), b"226 Transfer complete\r\n", "LIST 226")
            self.expect(listing, long_line("-", "rwxrwxrwx", self.user, None, len(payload), name),
                        "LIST line")
        finally:
            lst.close()
        self.expect(ftp.cmd("DELE %s" % name), b"250 DELE command ok.\r\n", "DELE")

    def finish(self, limit=WAIT * 4):
        self.stop_event.set()
        self.join(limit)
        if self.is_alive():
            self.failures.append("honest FTP did not finish")


class HonestTelnet(threading.Thread):
    """One long-lived shell session doing pwd, ls of a known file, whoami, cd and mkdir/rmdir,
    checking every byte."""

    def __init__(self, server, known_name, known_size, user="honestt", password="honest-tel",
                 pause=0.02):
        super().__init__(daemon=True)
        self.server, self.known_name, self.known_size = server, known_name, known_size
        self.user, self.password = user, password
        self.pause = pause
        self.stop_event = threading.Event()
        self.failures = []
        self.rounds = 0
        self.ready = threading.Event()

    def expect(self, got, want, what):
        if got != want:
            raise AssertionError("%s: got %r, want %r" % (what, got, want))

    def line(self, t, text):
        t.send(text + "\r\n")
        return t.read_until(b"# ")

    def run(self):
        try:
            t = Conn(self.server.telnet_port)
            self.expect(t.read_until(b"login: "), TELNET_WELCOME, "welcome")
            t.send(self.user + "\r\n")
            self.expect(t.read_until(b"Password: "), self.user.encode() + b"\r\nPassword: ",
                        "name")
            t.send(self.password + "\r\n")
            self.expect(t.read_until(b"# "), b"\r\n%s - 1 out of 5 allowed connections in use."
                                             b"\r\n# " % self.user.encode(), "login")
            self.ready.set()
            while not self.stop_event.is_set():
                self.round(t)
                self.rounds += 1
                self.stop_event.wait(self.pause)
            t.send("exit\r\n")
            self.expect(t.read_to_close(), b"exit\r\n", "exit")
            t.close()
        except Exception as e:  # noqa: BLE001
            self.failures.append("honest Telnet after %d rounds: %s" % (self.rounds, e))
        finally:
            self.ready.set()

    def round(self, t):
        self.expect(self.line(t, "pwd"), b"pwd\r\n\\\r\n# ", "pwd")
        ls = "ls \\pub\\" + self.known_name
        self.expect(self.line(t, ls), ls.encode() + b"\r\n" + shell_line(
            "-", "rwxrwxrwx", "root", None, self.known_size, self.known_name) + b"# ", "ls")
        self.expect(self.line(t, "whoami"), b"whoami\r\n%s\r\n# " % self.user.encode(), "whoami")
        name = "t%d" % (self.rounds % 1000)
        self.expect(self.line(t, "mkdir \\pub\\" + name), b"mkdir \\pub\\%s\r\n# " % name.encode(),
                    "mkdir")
        self.expect(self.line(t, "cd \\pub\\" + name), b"cd \\pub\\%s\r\n# " % name.encode(), "cd")
        self.expect(self.line(t, "pwd"), b"pwd\r\n\\pub\\%s\r\n# " % name.encode(), "pwd there")
        self.expect(self.line(t, "cd \\"), b"cd \\\r\n# ", "cd back")
        self.expect(self.line(t, "rmdir \\pub\\" + name), b"rmdir \\pub\\%s\r\n# " % name.encode(),
                    "rmdir")

    def finish(self, limit=WAIT * 4):
        self.stop_event.set()
        self.join(limit)
        if self.is_alive():
            self.failures.append("honest Telnet did not finish")


# ---- the soak ----

SOAK_USERS = (("demo", "demo-pass", 101, 1000, 15), ("admin", "admin-pass", 10, 1000, 15))
SOAK_KNOWN = pattern_bytes(64 * 1024, 11)
SOAK_LINES = b"".join(b"soak line %04d\n" % i for i in range(60))


class SoakWorker(threading.Thread):
    """One simulated user that logs in, works and leaves, again and again, until the deadline:
    FTP sessions (PWD, CWD, TYPE, RETR, STOR, LIST, NLST, DELE, MKD, RMD) or shell sessions
    (pwd, ls, cd, whoami, mkdir, rmdir, more, help). Every reply is checked byte for byte
    (only the count of logins in use, which the other workers change, is read as a number)."""

    def __init__(self, server, index, kind, deadline, seed):
        super().__init__(daemon=True)
        self.server, self.index, self.kind, self.deadline = server, index, kind, deadline
        self.rnd = random.Random(seed)
        self.checked = 0  # replies received and found right
        self.sessions = 0
        self.bytes = 0
        self.failures = []
        self.counter = 0

    def ok(self, got, want, what):
        if got != want:
            raise AssertionError("%s: got %r, want %r" % (what, got[-300:], want[-300:]))
        self.checked += 1

    def run(self):
        while time.monotonic() < self.deadline and len(self.failures) < 3:
            try:
                if self.kind == "ftp":
                    self.ftp_session()
                else:
                    self.telnet_session()
                self.sessions += 1
            except Exception as e:  # noqa: BLE001
                self.failures.append("%s worker %d: %s" % (self.kind, self.index, e))
                time.sleep(0.5)

    def pause(self):
        time.sleep(self.rnd.uniform(0.01, 0.08))

    # -- FTP --

    def ftp_session(self):
        ftp = Ftp(self.server.ftp_port)
        try:
            self.ok(ftp.line(), GREETING, "greeting")
            self.ok(ftp.cmd("USER demo"), b"331 User ok need Password.\r\n", "USER")
            ftp.send("PASS demo-pass\r\n")
            block = ftp.read_until(b" user logged in.\r\n")
            self.ok(re.sub(rb"230- \d+ out", b"230- N out", block),
                    b"230- N out of 1000 allowed connections in use.\r\n"
                    b"230 demo user logged in.\r\n", "PASS")
            self.ok(ftp.cmd("TYPE I"), b"200 TYPE set to I\r\n", "TYPE")
            self.ok(ftp.cmd("CWD pub"), b"250 CWD command successful\r\n", "CWD")
            for _ in range(self.rnd.randrange(3, 12)):
                if time.monotonic() >= self.deadline:
                    break
                self.rnd.choice((self.ftp_retr, self.ftp_stor, self.ftp_list, self.ftp_dirs,
                                 self.ftp_pwd))(ftp)
                self.pause()
            ftp.send("QUIT\r\n")
            self.ok(ftp.read_to_close(), GOODBYE, "QUIT")
        finally:
            ftp.close()

    def data_command(self, ftp, line, opening, send=None):
        lst = DataListener()
        try:
            ftp.port(lst)
            self.checked += 1
            ftp.send(line + "\r\n")
            self.ok(ftp.line(), opening, line + " 150")
            if send is None:
                data = lst.receive_all()
            else:
                conn = lst.accept()
                conn.sendall(send)
                conn.close()
                data = None
            self.ok(ftp.line(), b"226 Transfer complete\r\n", line + " 226")
            return data
        finally:
            lst.close()

    def ftp_retr(self, ftp):
        data = self.data_command(ftp, "RETR known.bin", b"150 Opening BINARY mode data "
                                 b"connection (%d bytes)\r\n" % len(SOAK_KNOWN))
        self.ok(data, SOAK_KNOWN, "RETR data")
        self.bytes += len(data)

    def ftp_stor(self, ftp):
        self.counter += 1
        name = "f%d_%d.bin" % (self.index, self.counter)
        payload = pattern_bytes(self.rnd.randrange(1, 40000), self.counter)
        self.data_command(ftp, "STOR " + name, b"150 Opening BINARY mode data connection\r\n",
                          send=payload)
        self.bytes += len(payload)
        with open(os.path.join(self.server.home, "pub", name), "rb") as f:
            self.ok(f.read(), payload, "stored bytes")
        listing = self.data_command(ftp, "LIST %s?" % name[:-1],
                                    b"150 Opening BINARY mode data connection\r\n")
        self.ok(listing, long_line("-", "rwxrwxrwx", "demo", None, len(payload), name), "LIST")
        self.ok(ftp.cmd("DELE " + name), b"250 DELE command ok.\r\n", "DELE")

    def ftp_list(self, ftp):
        names = self.data_command(ftp, "NLST known.bi?",
                                  b"150 Opening BINARY mode data connection\r\n")
        self.ok(names, b"known.bin\r\n", "NLST")

    def ftp_dirs(self, ftp):
        self.counter += 1
        name = "d%d_%d" % (self.index, self.counter)
        self.ok(ftp.cmd("MKD " + name), b'257 "%s" directory created.\r\n' % name.encode(), "MKD")
        self.ok(ftp.cmd("CWD " + name), b"250 CWD command successful\r\n", "CWD in")
        self.ok(ftp.cmd("PWD"), b'257 "/pub/%s" is current directory.\r\n' % name.encode(),
                "PWD in")
        self.ok(ftp.cmd("CDUP"), b"250 CWD command successful\r\n", "CDUP")
        self.ok(ftp.cmd("RMD " + name), b"250 %s directory removed.\r\n" % name.encode(), "RMD")

    def ftp_pwd(self, ftp):
        self.ok(ftp.cmd("PWD"), b'257 "/pub" is current directory.\r\n', "PWD")
        self.ok(ftp.cmd("NOOP"), b"502 Command not implemented.\r\n", "NOOP")

    # -- Telnet --

    def say(self, t, line, want, what):
        t.send(line + "\r\n")
        self.ok(t.read_until(b"# "), line.encode() + b"\r\n" + want + b"# ", what)

    def telnet_session(self):
        t = Conn(self.server.telnet_port)
        try:
            self.ok(t.read_until(b"login: "), TELNET_WELCOME, "welcome")
            t.send("demo\r\n")
            self.ok(t.read_until(b"Password: "), b"demo\r\nPassword: ", "name")
            t.send("demo-pass\r\n")
            self.ok(re.sub(rb"demo - \d+ out", b"demo - N out", t.read_until(b"# ")),
                    b"\r\ndemo - N out of 1000 allowed connections in use.\r\n# ", "login")
            for _ in range(self.rnd.randrange(3, 12)):
                if time.monotonic() >= self.deadline:
                    break
                self.rnd.choice((self.sh_look, self.sh_dirs, self.sh_more, self.sh_help))(t)
                self.pause()
            t.send("exit\r\n")
            self.ok(t.read_to_close(), b"exit\r\n", "exit")
        finally:
            t.close()

    def sh_look(self, t):
        self.say(t, "pwd", b"\\\r\n", "pwd")
        self.say(t, "whoami", b"demo\r\n", "whoami")
        self.say(t, "ls \\pub\\known.bin", shell_line("-", "rwxrwxrwx", "root", None,
                                                      len(SOAK_KNOWN), "known.bin"), "ls")

    def sh_dirs(self, t):
        self.counter += 1
        name = "t%d_%d" % (self.index, self.counter)
        self.say(t, "mkdir \\pub\\" + name, b"", "mkdir")
        self.say(t, "cd \\pub\\" + name, b"", "cd")
        self.say(t, "pwd", b"\\pub\\%s\r\n" % name.encode(), "pwd")
        self.say(t, "cd ..", b"", "cd ..")
        self.say(t, "rmdir " + name, b"", "rmdir")
        self.say(t, "cd \\", b"", "cd \\")

    def sh_more(self, t):
        t.send("more \\pub\\lines.txt\r\n")
        page = b"".join(b"soak line %04d\r\n" % i for i in range(24))
        self.ok(t.read_until(b"-MORE-"), b"more \\pub\\lines.txt\r\n" + page + b"-MORE-", "more")
        t.send("q")
        self.ok(t.read_until(b"# "), b"# ", "more q")

    def sh_help(self, t):
        self.say(t, "help", b"Commands that work are:\r\n\r\n"
                 b"?        cp       ls       pwd      whoami\r\n"
                 b"cd       dir      man      rm\r\n"
                 b"chgrp    exit     mkdir    rmdir\r\n"
                 b"chmod    ftp      more     telnet\r\n"
                 b"chown    help     mv       who\r\n", "help")


def who_names(server):
    """The account names that a fresh shell session's `who` lists (itself included)."""
    t = Conn(server.telnet_port)
    t.read_until(b"login: ")
    t.send("admin\r\n")
    t.read_until(b"Password: ")
    t.send("admin-pass\r\n")
    t.read_until(b"# ")
    t.send("who\r\n")
    out = t.read_until(b"# ")
    t.send("exit\r\n")
    t.read_to_close()
    return [l.split(b" ")[0] for l in out.split(b"\r\n")[1:-1]]


def run_soak(sessions=256, seconds=60.0, warmup=10.0, report=print):
    """Runs `sessions` simulated users (half FTP, half Telnet) against a fresh server with
    maxusers equal to `sessions`, after a warm-up of the same load; returns the figures."""
    raise_fd_limit(sessions * 8 + 1024)
    server = Server(maxusers=sessions, users=SOAK_USERS, keep_log=False,
                    files={"pub/known.bin": SOAK_KNOWN, "pub/lines.txt": SOAK_LINES})
    figures = {"sessions": sessions, "seconds": seconds}
    try:
        idle_threads, idle_fds = server.thread_count(), server.fd_count()
        figures.update(idle_threads=idle_threads, idle_fds=idle_fds, rss_start_kib=server.rss_kib())

        def phase(duration, seed):
            deadline = time.monotonic() + duration
            workers = [SoakWorker(server, i, "ftp" if i % 2 == 0 else "telnet", deadline,
                                  seed * 100000 + i) for i in range(sessions)]
            peak = {"threads": 0, "fds": 0, "rss": 0}
            started = time.monotonic()
            for w in workers:
                w.start()
            while any(w.is_alive() for w in workers):
                time.sleep(1.0)
                if server.alive():
                    peak["threads"] = max(peak["threads"], server.thread_count())
                    peak["fds"] = max(peak["fds"], server.fd_count())
                    peak["rss"] = max(peak["rss"], server.rss_kib())
            for w in workers:
                w.join(WAIT)
            return workers, peak, time.monotonic() - started

        if warmup > 0:
            workers, _, _ = phase(warmup, 1)
            failures = [f for w in workers for f in w.failures]
            if failures:
                figures["failures"] = failures
                return figures, server
        server.wait_quiet(idle_threads, idle_fds)
        figures["rss_baseline_kib"] = server.rss_kib()
        cpu_before = process_cpu_seconds(server.pid)
        workers, peak, elapsed = phase(seconds, 2)
        figures["cpu_seconds"] = round(process_cpu_seconds(server.pid) - cpu_before, 1)
        figures.update(
            elapsed=round(elapsed, 1),
            replies_checked=sum(w.checked for w in workers),
            logins=sum(w.sessions for w in workers),
            ftp_logins=sum(w.sessions for w in workers if w.kind == "ftp"),
            telnet_logins=sum(w.sessions for w in workers if w.kind == "telnet"),
            mib_moved=round(sum(w.bytes for w in workers) / 1048576.0, 1),
            failures=[f for w in workers for f in w.failures],
            peak_threads=peak["threads"], peak_fds=peak["fds"], peak_rss_kib=peak["rss"])
        figures["quiet"] = server.wait_quiet(idle_threads, idle_fds, limit=60)
        figures.update(end_threads=server.thread_count(), end_fds=server.fd_count(),
                       rss_end_kib=server.rss_kib())
        figures["who_after"] = [n.decode() for n in who_names(server)]
        figures["sanitized"] = server.sanitized()
        figures["log_lines"] = server.logged
        return figures, server
    except BaseException:
        server.close()
        raise


def process_cpu_seconds(pid):
    with open("/proc/%d/stat" % pid) as f:
        fields = f.read().rsplit(")", 1)[1].split()
    ticks = os.sysconf("SC_CLK_TCK")
    return (int(fields[11]) + int(fields[12])) / ticks
