"""Shared pieces of the end-to-end tests: the built server in a prepared start directory (with a
look at its threads, descriptors and memory through /proc), raw FTP and Telnet clients that
check replies byte for byte, real peers for the shell's own clients (pyftpdlib, socat), and the
simulated users of the soak, which also serve as the honest clients beside hostile ones."""

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
import unittest

BINARY = os.environ.get("ORVANE_BINARY", "")
PYTHON = "/usr/bin/python3"
WAIT = 30.0  # seconds any single expectation may take (sanitizer builds are slow)

BANNER = b"Orvane Server (beta) written by Pel Varnholt and Kem Osterlo"
GREETING = b"220 " + BANNER + b", ready.\r\n"
GOODBYE = b"221-" + BANNER + b"\r\n221 Connection closed.\r\n"
TELNET_WELCOME = b"\xff\xfb\x01" + BANNER + b"\r\n\r\nlogin: "
TELNET_FULL = b"Orvane Server (beta) written by Pel Varnholt and Kam Osterlo\r\n\r\nServer Full."
USER_OK = b"331 User ok need Password.\r\n"
COMPLETE = b"226 Transfer complete\r\n"
OPENING = b"150 Opening BINARY mode data connection\r\n"
RESET = b"\x01\x00\x00\x00\x00\x00\x00\x00"  # SO_LINGER on, 0 s: close() sends a reset

SANITIZER_MARKS = ("ERROR: AddressSanitizer", "ERROR: LeakSanitizer", "runtime error:",
                   "WARNING: ThreadSanitizer", "ERROR: ThreadSanitizer")

# name, password, uid, max logins, rights
DEFAULT_USERS = (("demo", "demo-pass", 101, 400, 15), ("admin", "admin-pass", 10, 400, 15),
                 ("honestf", "honest-ftp", 110, 5, 15), ("honestt", "honest-tel", 111, 5, 15),
                 ("limited", "limited-pass", 112, 1, 12))
DEFAULT_FPL = "\\pub:d:root:root:111111111\n\\private:d:admin:admin:111000000\n"
LINES = b"".join(b"line %03d\n" % i for i in range(100))


def main():
    """Runs the calling script's tests."""
    if not BINARY:
        raise SystemExit("ORVANE_BINARY is not set")
    unittest.main(module="__main__")


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def raise_fd_limit(want=8192):
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    if soft < want:
        resource.setrlimit(resource.RLIMIT_NOFILE, (min(want, hard), hard))


def pattern_bytes(size, seed):
    """Deterministic file contents that no off-by-one can hide."""
    return random.Random(seed).randbytes(size)


def long_line(kind, flags, owner, group, size, name, date=True):
    """A line of FTP's LIST (with the date) or of the shell's ls (without)."""
    return ("%s%s     %-8.8s %s %10d %s%s\r\n" % (
        kind, flags, owner, "%-8.8s" % group if group else "<none>  ", size,
        "Jan  1  1998 " if date else "", name)).encode()


def expect(got, want, what):
    if got != want:
        raise AssertionError("%s: got %r, want %r" % (what, got[-300:], want[-300:]))


def wait_until(predicate, limit=WAIT):
    end = time.monotonic() + limit
    while not predicate():
        if time.monotonic() > end:
            return False
        time.sleep(0.1)
    return True


def tcp_count(port, state, remote=True):
    """Loopback TCP sockets in `state` ("01" established, "0A" listening) whose remote (or
    local) port is `port`, from /proc/net/tcp."""
    with open("/proc/net/tcp") as f:
        rows = [r.split() for r in list(f)[1:]]
    return sum(1 for r in rows
               if r[3] == state and int(r[2 if remote else 1].split(":")[1], 16) == port)


def end_process(proc, limit=WAIT, sig=signal.SIGTERM):
    """Signals `proc` and waits; kills it when it does not end in time. Returns its status
    (None when it had to be killed)."""
    if proc.poll() is not None:
        return proc.returncode
    proc.send_signal(sig)
    try:
        return proc.wait(timeout=limit)
    except subprocess.TimeoutExpired:
        proc.kill()
        proc.wait()
        return None


class Server:
    """The built binary, headless, in a temporary start directory with FTP and Telnet on free
    loopback ports. `files` maps paths below the home to bytes; `fpl` is the permission list
    (by default \\pub is open to all, \\private is the admin's alone)."""

    def __init__(self, maxusers=50, users=DEFAULT_USERS, files=None, dirs=(), fpl=DEFAULT_FPL,
                 mounts="", groups="", motd=None, start=True, keep_log=True, extensions=None,
                 ssh=False):
        self.tmp = tempfile.TemporaryDirectory(prefix="orvane-e2e-")
        self.dir = self.tmp.name
        self.home = os.path.join(self.dir, "home")
        for rel in ("pub", "private") + tuple(dirs):
            os.makedirs(os.path.join(self.home, rel), exist_ok=True)
        for rel, data in (files or {}).items():
            os.makedirs(os.path.dirname(os.path.join(self.home, rel)), exist_ok=True)
            with open(os.path.join(self.home, rel), "wb") as f:
                f.write(data)
        self.maxusers = maxusers
        # Keys of the [Extensions] section (name -> value); none by default.
        self.extensions = dict(extensions or {})
        # The SSH listener ([Services] ssh=1 on ssh_port), off by default.
        self.ssh = ssh
        self.new_ports()
        # (An account without a password gets a stored form no password matches.)
        self.write_table("users", "".join("%s:%d:%s:%d:%d:\\\n" % (
            name, uid, pw and subprocess.run([BINARY, "--encode-password", name, pw], check=True,
                                             capture_output=True, text=True).stdout.strip() or "x",
            limit, rights) for name, pw, uid, limit, rights in users))
        for name, text in (("groups", groups), ("mounts", mounts), ("fpl.txt", fpl),
                           ("motd.txt", motd)):
            if text is not None:
                self.write_table(name, text)
        self.proc = None
        # A long run logs millions of lines: then only the first ones are kept (and counted).
        self.keep_log = keep_log
        if start:
            self.start()

    def new_ports(self):
        self.ftp_port, self.telnet_port = free_port(), free_port()
        self.ssh_port = free_port() if self.ssh else 0
        self.write_table("settings.ini", "[Server_Settings]\nserverhome=%s\nmaxusers=%d\n"
                         "[Services]\ntelnet=1\nftp=1\ntelnet_port=%d\nftp_port=%d\n" % (
                             self.home, self.maxusers, self.telnet_port, self.ftp_port) +
                         ("ssh=1\nssh_port=%d\n" % self.ssh_port if self.ssh else "") +
                         "".join(["[Extensions]\n"] * bool(self.extensions)) +
                         "".join("%s=%s\n" % kv for kv in self.extensions.items()))

    def write_table(self, name, text):
        with open(os.path.join(self.dir, name), "w") as f:
            f.write(text)

    def table(self, name):
        with open(os.path.join(self.dir, name), "rb") as f:
            return f.read()

    # ---- the process ----

    def start(self, preexec_fn=None, attempts=3):
        self.lines, self.logged, self.reports = [], 0, []
        self.cond = threading.Condition()
        self.proc = subprocess.Popen([BINARY, "--headless", "-C", self.dir],
                                     stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                     preexec_fn=preexec_fn)
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()
        if not self.wait_log("Ready..."):
            self.stop(sig=signal.SIGKILL)
            raise RuntimeError("server did not start: %r" % self.lines[-20:])
        if attempts > 1 and self.wait_log_match(" - Bind error ", 0):
            # Another process took a port between its choice and the bind.
            self.stop()
            self.new_ports()
            self.start(preexec_fn, attempts - 1)

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

    def alive(self):
        return self.proc is not None and self.proc.poll() is None

    def mark(self):
        """The index of the next log line, for the `start` of the waits below."""
        with self.cond:
            return len(self.lines)

    def wait_log_match(self, regex, limit=WAIT, start=0):
        """The first line at `start` or later that matches `regex`, or None after `limit`."""
        rx = re.compile(regex)
        end = time.monotonic() + limit
        with self.cond:
            while True:
                for line in self.lines[start:]:
                    if rx.search(line):
                        return line
                left = end - time.monotonic()
                if left <= 0 or self.proc.poll() is not None:
                    return None
                self.cond.wait(min(left, 0.5))

    def wait_log(self, line, limit=WAIT, start=0):
        return self.wait_log_match("^%s$" % re.escape(line), limit, start) is not None

    def wait_thread_complete(self, command, thread, start=0, limit=WAIT):
        """Waits for the "(N) <thread> thread complete" line of the session that logged the
        command line `command` (as "(N) <command>") at `start` or later."""
        line = self.wait_log_match(r"^\(\d+\) %s$" % re.escape(command), limit, start) or "()"
        return self.wait_log("%s %s thread complete" % (line[:line.index(")") + 1], thread),
                             limit, start)

    def log_since(self, start=0):
        with self.cond:
            return list(self.lines[start:])

    def sanitizer_reports(self):
        with self.cond:
            return list(self.reports)

    def proc_file(self, name):
        with open("/proc/%d/%s" % (self.proc.pid, name)) as f:
            return f.read()

    def fd_count(self):
        return len(os.listdir("/proc/%d/fd" % self.proc.pid))

    def thread_count(self):
        return len(os.listdir("/proc/%d/task" % self.proc.pid))

    def rss_kib(self):
        return int(re.search(r"VmRSS:\s*(\d+)", self.proc_file("status")).group(1))

    def cpu_seconds(self):
        fields = self.proc_file("stat").rsplit(")", 1)[1].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    def sanitized(self):
        """True for an ASan or TSan build (memory figures mean little there)."""
        return re.search("libasan|libtsan", self.proc_file("maps")) is not None

    def wait_quiet(self, threads, fds, limit=WAIT):
        """Waits until the process is down to `threads` threads and `fds` descriptors."""
        return wait_until(lambda: self.thread_count() <= threads and self.fd_count() <= fds,
                          limit)

    def stop(self, limit=60, sig=signal.SIGTERM):
        """The orderly shutdown (or with SIGKILL none); returns the exit status (None when it
        had to be killed)."""
        if self.proc is None or self.proc.stdout.closed:
            return self.proc and self.proc.returncode
        status = end_process(self.proc, limit, sig)
        self.reader.join(timeout=10)
        self.proc.stdout.close()
        return status

    def close(self):
        self.stop()
        self.tmp.cleanup()


# ---- raw clients ----

class Conn:
    """A loopback TCP connection with a receive buffer and time-outs."""

    def __init__(self, port, source="127.0.0.1"):
        self.sock = socket.socket()
        self.sock.settimeout(WAIT)
        self.sock.bind((source, 0))
        self.sock.connect(("127.0.0.1", port))
        self.sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.buf = b""
        self.eof = False

    def _fill(self, timeout):
        r, _, _ = select.select([self.sock], [], [], max(timeout, 0))
        if not r:
            return False
        try:
            data = self.sock.recv(65536)
        except OSError:
            data = b""
        if not data:
            self.eof = True
            return False
        self.buf += data
        return True

    def _read(self, done, cut, what, limit):
        end = time.monotonic() + limit
        while not done():
            left = end - time.monotonic()
            if left <= 0 or self.eof:
                raise AssertionError("waited for %s; had %r" % (what, self.buf[-600:]))
            self._fill(left)
        out, self.buf = self.buf[:cut()], self.buf[cut():]
        return out

    def read_until(self, text, limit=WAIT):
        if isinstance(text, str):
            text = text.encode("latin-1")
        return self._read(lambda: text in self.buf,
                          lambda: self.buf.index(text) + len(text), repr(text), limit)

    def read_to_close(self, limit=WAIT):
        """Everything up to the server's close; raises when it does not close in time."""
        return self._read(lambda: self.eof, lambda: len(self.buf), "the close", limit)

    def read_quiet(self, quiet=0.5, limit=WAIT):
        end = time.monotonic() + limit
        while time.monotonic() < end and self._fill(quiet):
            pass
        out, self.buf = self.buf, b""
        return out

    def send(self, data):
        self.sock.sendall(data.encode("latin-1") if isinstance(data, str) else data)

    def say(self, line, until=b"# "):
        """Types a line; checks its echo and returns what follows up to `until`."""
        self.send(line + "\r\n")
        echo = line.encode("latin-1") + b"\r\n"
        expect(self._read(lambda: len(self.buf) >= len(echo), lambda: len(echo), "echo", WAIT),
               echo, "echo")
        return self.read_until(until)

    def abort(self):
        """Vanishes: a reset instead of an orderly close."""
        try:
            self.sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, RESET)
        except OSError:
            pass
        self.close()

    def close(self):
        self.sock.close()


class ClientTestCase(unittest.TestCase):
    """Real clients against one server for the whole class: make_server() builds it, and each
    test has a work folder for the client's local files."""

    @classmethod
    def make_server(cls):
        raise NotImplementedError

    @classmethod
    def setUpClass(cls):
        cls.server = cls.make_server()
        cls.work = tempfile.TemporaryDirectory(prefix="orvane-clients-")

    @classmethod
    def tearDownClass(cls):
        cls.server.close()
        cls.work.cleanup()

    def local(self, name, data=None):
        path = os.path.join(self.work.name, name)
        if data is not None:
            with open(path, "wb") as f:
                f.write(data)
        return path

    def home(self, *parts):
        with open(os.path.join(self.server.home, *parts), "rb") as f:
            return f.read()


def shell(server, user="demo", password="demo-pass"):
    """A logged-in Telnet session at its first prompt."""
    t = Conn(server.telnet_port)
    for want, reply in ((TELNET_WELCOME, user), (user.encode() + b"\r\nPassword: ", password)):
        expect(t.read_until(want[-7:]), want, "Telnet login")
        t.send(reply + "\r\n")
    t.read_until(b"# ")
    return t


class DataListener:
    """The client side of an active-mode data connection."""

    def __init__(self, host="127.0.0.1"):
        self.sock = socket.socket()
        self.sock.bind((host, 0))
        self.sock.listen(4)
        p = self.sock.getsockname()[1]
        self.port_arg = "%s,%d,%d" % (host.replace(".", ","), p >> 8, p & 255)

    def accept(self, limit=WAIT):
        self.sock.settimeout(limit)
        conn, _ = self.sock.accept()
        conn.settimeout(limit)
        return conn

    def assert_unused(self, wait=1.0):
        """Raises when the server connected here."""
        self.sock.settimeout(wait)
        try:
            self.sock.accept()[0].close()
        except socket.timeout:
            return
        raise AssertionError("the server opened a data connection it must not open")

    def close(self):
        self.sock.close()


class Ftp(Conn):
    def line(self, limit=WAIT):
        return self.read_until(b"\r\n", limit)

    def cmd(self, text, limit=WAIT):
        self.send(text + "\r\n")
        return self.line(limit)

    def login(self, user="demo", password="demo-pass"):
        """The greeting, USER and PASS; returns the 230 block."""
        expect(self.line(), GREETING, "greeting")
        expect(self.cmd("USER " + user), USER_OK, "USER")
        self.send("PASS %s\r\n" % password)
        return self.read_until(b" user logged in.\r\n")

    def port(self, listener):
        expect(self.cmd("PORT " + listener.port_arg), b"200 Port Command OK.\r\n", "PORT")

    def transfer(self, command, send=None):
        """PORT, then `command` over an active data connection that sends `send` (an upload)
        or receives everything. Returns the 150 line, the data received (for an upload
        whether all of it could be sent) and the line after the transfer."""
        lst = DataListener()
        try:
            self.port(lst)
            self.send(command + "\r\n")
            opening = self.line()
            with lst.accept() as conn:
                if send is None:
                    data = b"".join(iter(lambda: conn.recv(1 << 20), b""))
                else:
                    try:
                        conn.sendall(send)
                        data = True
                    except OSError:
                        data = False  # the server gave up on the upload
            return opening, data, self.line()
        finally:
            lst.close()

    def quit(self):
        self.send("QUIT\r\n")
        expect(self.read_to_close(), GOODBYE, "QUIT")


def login(server, user="demo", password="demo-pass"):
    ftp = Ftp(server.ftp_port)
    ftp.login(user, password)
    return ftp


# ---- real peers of the shell's clients ----

PYFTPD_SCRIPT = r"""
import sys
from pyftpdlib.authorizers import DummyAuthorizer
from pyftpdlib.handlers import FTPHandler, ThrottledDTPHandler
from pyftpdlib.servers import FTPServer
port, root, limit = int(sys.argv[1]), sys.argv[2], int(sys.argv[3])
auth = DummyAuthorizer()
auth.add_user("remote", "remote-pass", root, perm="elradfmwMT")
FTPHandler.authorizer = auth
FTPHandler.banner = "pyftpdlib ready."
if limit:
    ThrottledDTPHandler.read_limit = ThrottledDTPHandler.write_limit = limit
    FTPHandler.dtp_handler = ThrottledDTPHandler
FTPServer(("127.0.0.1", port), FTPHandler).serve_forever()
"""


class Peer:
    """A real program serving one loopback port, made by `argv(port)`. It is up once the port
    listens (a probe would use up socat's single connection); when it cannot bind the free port
    it was given (another process took it meanwhile) it gets another one."""

    def __init__(self, argv):
        for _ in range(5):
            self.port = free_port()
            self.proc = subprocess.Popen(argv(self.port), stdout=subprocess.DEVNULL,
                                         stderr=subprocess.DEVNULL)
            if wait_until(lambda: tcp_count(self.port, "0A", False) or
                          self.proc.poll() is not None) and self.proc.poll() is None:
                return
            end_process(self.proc)
        raise RuntimeError("%s did not start" % argv(0)[0])

    @classmethod
    def pyftpd(cls, root, bytes_per_second=0):
        """Debian's pyftpdlib serving `root` to remote/remote-pass."""
        return cls(lambda port: [PYTHON, "-c", PYFTPD_SCRIPT, str(port), root,
                                 str(bytes_per_second)])

    @classmethod
    def socat(cls, target):
        """socat serving a single connection with `target`."""
        return cls(lambda port: ["socat", "TCP-LISTEN:%d,bind=127.0.0.1,reuseaddr" % port,
                                 target])

    def stop(self):
        end_process(self.proc)


def ftp_login(t, port, user="remote", password="remote-pass"):
    """From the shell prompt: `ftp 127.0.0.1 PORT` and the login dialogue; returns the text."""
    out = t.say("ftp 127.0.0.1 %d" % port, until="): ")
    t.send(user + "\r\n")
    out += t.read_until("Password: ")
    t.send(password + "\r\n")
    return out + t.read_until("ftp> ")


def who_names(server):
    """The account names that a fresh shell session's `who` lists (itself, admin, included)."""
    t = shell(server, "admin", "admin-pass")
    out = t.say("who")
    t.send("exit\r\n")
    t.read_to_close()
    return sorted(l.split(b" ")[0].decode() for l in out.split(b"\r\n")[:-1])


# ---- simulated users ----

class Worker(threading.Thread):
    """A simulated user that checks every reply byte for byte (only the counts of logins, which
    other users change, are read as numbers). With a `deadline` (the soak) it logs in, does a
    few random actions and leaves, again and again; without one (an honest client beside
    hostile ones) it stays in one session doing every action in turn until finish(). The home
    must hold pub/known.bin and pub/lines.txt."""

    def __init__(self, server, kind, user, password, index=0, deadline=None, seed=0, pause=0.05):
        super().__init__(daemon=True)
        self.server, self.kind, self.user, self.password = server, kind, user, password
        self.index, self.deadline, self.pause = index, deadline, pause
        self.rnd = random.Random(seed)
        with open(os.path.join(server.home, "pub", "known.bin"), "rb") as f:
            self.known = f.read()
        with open(os.path.join(server.home, "pub", "lines.txt"), "rb") as f:
            self.page = b"".join(l + b"\r\n" for l in f.read().split(b"\n")[:24])
        self.checked = self.sessions = self.bytes = self.counter = self.rounds = 0
        self.failures = []
        self.ready, self.stop_event = threading.Event(), threading.Event()

    def ok(self, got, want, what):
        expect(got, want, what)
        self.checked += 1

    def run(self):
        session = self.ftp_session if self.kind == "ftp" else self.telnet_session
        while len(self.failures) < 3:
            try:
                session()
                self.sessions += 1
            except Exception as e:  # noqa: BLE001 - every failure is a finding to report
                self.failures.append("%s %s after %d replies: %s" % (
                    self.kind, self.user, self.checked, e))
                time.sleep(0.5)
            if self.deadline is None or time.monotonic() >= self.deadline:
                break
        self.ready.set()

    def work(self, conn, actions):
        if self.deadline is None:
            self.ready.set()
            while not self.stop_event.is_set():
                for action in actions:
                    action(conn)
                self.rounds += 1
                # A pause keeps the rate of new data connections (and ports left in
                # TIME_WAIT) at what a real client makes.
                self.stop_event.wait(self.pause)
            return
        for _ in range(self.rnd.randrange(3, 12)):
            if time.monotonic() >= self.deadline:
                break
            self.rnd.choice(actions)(conn)
            time.sleep(self.rnd.uniform(0.01, 0.08))

    def finish(self, limit=WAIT * 4):
        self.stop_event.set()
        self.join(limit)
        if self.is_alive():
            self.failures.append("%s %s did not finish" % (self.kind, self.user))

    # -- FTP --

    def ftp_session(self):
        ftp = Ftp(self.server.ftp_port)
        try:
            block = re.sub(rb"\d+ out of \d+", b"N out of M", ftp.login(self.user, self.password))
            self.ok(block, b"230- N out of M allowed connections in use.\r\n"
                    b"230 %s user logged in.\r\n" % self.user.encode(), "PASS")
            self.ok(ftp.cmd("TYPE I"), b"200 TYPE set to I\r\n", "TYPE")
            self.ok(ftp.cmd("CWD pub"), b"250 CWD command successful\r\n", "CWD")
            self.work(ftp, (self.ftp_pwd, self.ftp_retr, self.ftp_stor, self.ftp_nlst,
                            self.ftp_dirs))
            ftp.send("QUIT\r\n")
            self.ok(ftp.read_to_close(), GOODBYE, "QUIT")
        finally:
            ftp.close()

    def data(self, ftp, command, opening, send=None):
        got, data, end = ftp.transfer(command, send)
        self.ok(got, opening, command + " 150")
        self.ok(end, COMPLETE, command + " 226")
        return data

    def ftp_retr(self, ftp):
        data = self.data(ftp, "RETR known.bin", b"150 Opening BINARY mode data connection "
                         b"(%d bytes)\r\n" % len(self.known))
        self.ok(data, self.known, "RETR data")
        self.bytes += len(data)

    def ftp_stor(self, ftp):
        self.counter += 1
        name = "f%d_%d.bin" % (self.index, self.counter)
        payload = pattern_bytes(self.rnd.randrange(1, 40000), self.counter)
        self.data(ftp, "STOR " + name, OPENING, send=payload)
        self.bytes += len(payload)
        with open(os.path.join(self.server.home, "pub", name), "rb") as f:
            self.ok(f.read(), payload, "stored bytes")
        listing = self.data(ftp, "LIST %s?" % name[:-1], OPENING)  # a pattern: the entry alone
        self.ok(listing, long_line("-", "rwxrwxrwx", self.user, None, len(payload), name), "LIST")
        self.ok(ftp.cmd("DELE " + name), b"250 DELE command ok.\r\n", "DELE")

    def ftp_nlst(self, ftp):
        self.ok(self.data(ftp, "NLST known.bi?", OPENING), b"known.bin\r\n", "NLST")

    def ftp_dirs(self, ftp):
        self.counter += 1
        name = "d%d_%d" % (self.index, self.counter)
        for line, want in (("MKD " + name, '257 "%s" directory created.' % name),
                           ("CWD " + name, "250 CWD command successful"),
                           ("PWD", '257 "/pub/%s" is current directory.' % name),
                           ("CDUP", "250 CWD command successful"),
                           ("RMD " + name, "250 %s directory removed." % name)):
            self.ok(ftp.cmd(line), want.encode() + b"\r\n", line)

    def ftp_pwd(self, ftp):
        self.ok(ftp.cmd("PWD"), b'257 "/pub" is current directory.\r\n', "PWD")
        self.ok(ftp.cmd("NOOP"), b"502 Command not implemented.\r\n", "NOOP")

    # -- Telnet --

    def telnet_session(self):
        t = Conn(self.server.telnet_port)
        try:
            self.ok(t.read_until(b"login: "), TELNET_WELCOME, "welcome")
            t.send(self.user + "\r\n")
            self.ok(t.read_until(b"Password: "), self.user.encode() + b"\r\nPassword: ", "name")
            t.send(self.password + "\r\n")
            self.ok(re.sub(rb"\d+ out of \d+", b"N out of M", t.read_until(b"# ")),
                    b"\r\n%s - N out of M allowed connections in use.\r\n# " % self.user.encode(),
                    "login")
            self.work(t, (self.sh_look, self.sh_dirs, self.sh_more, self.sh_help))
            t.send("exit\r\n")
            self.ok(t.read_to_close(), b"exit\r\n", "exit")
        finally:
            t.close()

    def say(self, t, line, want):
        self.ok(t.say(line), want + b"# ", line)

    def sh_look(self, t):
        self.say(t, "pwd", b"\\\r\n")
        self.say(t, "whoami", self.user.encode() + b"\r\n")
        self.say(t, "ls \\pub\\known.bin", long_line("-", "rwxrwxrwx", "root", None,
                                                     len(self.known), "known.bin", date=False))

    def sh_dirs(self, t):
        self.counter += 1
        name = "t%d_%d" % (self.index, self.counter)
        for line in ("mkdir \\pub\\" + name, "cd \\pub\\" + name):
            self.say(t, line, b"")
        self.say(t, "pwd", b"\\pub\\%s\r\n" % name.encode())
        for line in ("cd ..", "rmdir " + name, "cd \\"):
            self.say(t, line, b"")

    def sh_more(self, t):
        t.send("more \\pub\\lines.txt\r\n")
        self.ok(t.read_until(b"-MORE-"), b"more \\pub\\lines.txt\r\n" + self.page + b"-MORE-",
                "more")
        t.send("q")
        self.ok(t.read_until(b"# "), b"# ", "more q")

    def sh_help(self, t):
        self.say(t, "help", b"Commands that work are:\r\n\r\n"
                 b"?        cp       ls       pwd      whoami\r\ncd       dir      man      rm\r\n"
                 b"chgrp    exit     mkdir    rmdir\r\nchmod    ftp      more     telnet\r\n"
                 b"chown    help     mv       who\r\n")


# ---- the soak ----

SOAK_USERS = (("demo", "demo-pass", 101, 1000, 15), ("admin", "admin-pass", 10, 1000, 15))


def run_soak(sessions=256, seconds=60.0, warmup=10.0):
    """Runs `sessions` simulated users (half FTP, half Telnet) against a fresh server with
    maxusers equal to `sessions`, after a warm-up of the same load; returns the figures and the
    server (still running)."""
    raise_fd_limit(sessions * 8 + 1024)
    server = Server(maxusers=sessions, users=SOAK_USERS, keep_log=False,
                    files={"pub/known.bin": pattern_bytes(64 * 1024, 11), "pub/lines.txt": LINES})
    try:
        idle = (server.thread_count(), server.fd_count())
        figures = dict(sessions=sessions, seconds=seconds, idle_threads=idle[0], idle_fds=idle[1],
                       rss_start_kib=server.rss_kib(), peak_threads=0, peak_fds=0, peak_rss_kib=0)

        def phase(duration, seed):
            deadline = time.monotonic() + duration
            workers = [Worker(server, ("ftp", "telnet")[i % 2], "demo", "demo-pass", i, deadline,
                              seed * 100000 + i) for i in range(sessions)]
            for w in workers:
                w.start()
            while any(w.is_alive() for w in workers):
                time.sleep(1.0)
                for key, value in (("peak_threads", server.thread_count()),
                                   ("peak_fds", server.fd_count()),
                                   ("peak_rss_kib", server.rss_kib())):
                    figures[key] = max(figures[key], value)
            figures["failures"] = [f for w in workers for f in w.failures]
            return workers

        if warmup > 0 and phase(warmup, 1) and figures["failures"]:
            return figures, server
        server.wait_quiet(*idle)
        figures.update(rss_baseline_kib=server.rss_kib(), peak_threads=0, peak_fds=0,
                       peak_rss_kib=0)
        started, cpu_before = time.monotonic(), server.cpu_seconds()
        workers = phase(seconds, 2)
        figures.update(
            elapsed=round(time.monotonic() - started, 1),
            cpu_seconds=round(server.cpu_seconds() - cpu_before, 1),
            replies_checked=sum(w.checked for w in workers),
            logins=sum(w.sessions for w in workers),
            ftp_logins=sum(w.sessions for w in workers if w.kind == "ftp"),
            telnet_logins=sum(w.sessions for w in workers if w.kind == "telnet"),
            mib_moved=round(sum(w.bytes for w in workers) / 1048576.0, 1),
            quiet=server.wait_quiet(*idle, limit=60))
        figures.update(end_threads=server.thread_count(), end_fds=server.fd_count(),
                       rss_end_kib=server.rss_kib(), who_after=who_names(server),
                       sanitized=server.sanitized(), log_lines=server.logged)
        return figures, server
    except BaseException:
        server.close()
        raise
