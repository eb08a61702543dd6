#!/usr/bin/env python3
"""FTP speed and memory of Orvane Server, and with --peers side by side with the FTP servers
people would otherwise install, measured in one run on one machine.

    python3 bench/ftp_bench.py [--build DIR] [--work DIR] [--peers] [--quick]

Every server serves the same directory on 127.0.0.1 to the same account, one server at a
time (all of them connect their data connections from local port 20), and the same load
client (ftp_load, built with the project) runs the same active-mode workloads against each.
See README.md in this folder.
"""

import argparse
import os
import pwd
import re
import shutil
import signal
import socket
import statistics
import subprocess
import sys
import tempfile
import threading
import time

ACCOUNT = "orvbench"
PASSWORD = "Bench-pass-42"
SIZE_BIG = 1 << 30
SIZE_PAR = 64 << 20
PAR_CLIENTS = 32
LIST_FILES = 10000
LOGIN_CLIENTS = 8
IDLE_SESSIONS = 200
IDLE_MANY = 10000
PEER_PACKAGES = {"vsftpd": ["vsftpd"], "proftpd": ["proftpd-core", "proftpd-mod-crypto"],
                 "pure-ftpd": ["pure-ftpd"]}
# What the peers' binaries need beside themselves; they are unpacked, not installed, because
# Debian lets only one FTP server package be installed at a time.
PEER_LIBRARIES = ["libwrap0", "libhiredis0.14", "libmemcached11", "libmemcachedutil2",
                  "libpcre2-posix3", "libsodium23", "libcap2", "libpam-modules"]
WAIT = 60.0
# The passive ports every server is given (away from the servers' own defaults, which tests
# running beside a benchmark may use).
PASSIVE_PORTS = (40000, 40999)
# FTPS: one protocol version and one cipher for all servers, which the load client also pins.
TLS_VERSION = "1.2"
TLS_CIPHER = "ECDHE-RSA-AES128-GCM-SHA256"
ROUNDS = 3  # rounds of the transfer workloads when peers are measured

# The anchors (best peer per figure, measured earlier on this kind of machine). Shown
# beside a run without --peers only, as a rough guide: figures drift, ratios need one run.
ANCHOR_BEST = {"retr": 1990.0, "stor": 1138.0, "par": 1858.0, "logins": 83.0, "list": 36.0,
               "mem": 412.0}

FIGURES = [
    # key, label, unit, higher is better, goal (ratio to the best peer)
    ("retr", "RETR 1 GiB from page cache", "MB/s", True, 1.0),
    ("stor", "STOR 1 GiB to disk", "MB/s", True, 1.0),
    ("par", "32 x 64 MiB RETR at once", "MB/s", True, 1.0),
    ("logins", "logins/s, 8 clients", "1/s", True, 10.0),
    ("list", "LIST of 10,000 files", "ms", False, 0.5),
    ("mem", "PSS per idle session", "KiB", False, 0.1),
]


def log(text):
    print(text, flush=True)


def run(cmd, **kw):
    return subprocess.run(cmd, check=True, timeout=kw.pop("timeout", 600), **kw)


def load_average():
    with open("/proc/loadavg") as f:
        return " ".join(f.read().split()[:3])


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def wait_port(port, proc, limit=WAIT, banner=b"220"):
    """Waits until the server on `port` greets with `banner`."""
    end = time.monotonic() + limit
    while time.monotonic() < end:
        if proc.poll() is not None:
            raise RuntimeError("server exited with status %s" % proc.returncode)
        try:
            with socket.create_connection(("127.0.0.1", port), timeout=2) as s:
                s.settimeout(5)
                if s.recv(4).startswith(banner):
                    return
        except OSError:
            pass
        time.sleep(0.1)
    raise RuntimeError("server did not answer on port %d" % port)


# ---------------------------------------------------------------------------------------------
# The shared files


def wait_port_20(limit=120.0):
    """Waits until local port 20 can be bound again. Data connections that a server made from
    port 20 without SO_REUSEADDR block every later bind to it while they sit in TIME_WAIT (about
    a minute), and the next server's data connections would fail."""
    end = time.monotonic() + limit
    waited = False
    while True:
        probe = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        probe.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        try:
            probe.bind(("", 20))
            return
        except OSError:
            if time.monotonic() > end:
                log("  port 20 still taken after %.0f s; starting anyway" % limit)
                return
            if not waited:
                log("  waiting for port 20 to be free ...")
                waited = True
            time.sleep(1.0)
        finally:
            probe.close()


def write_file(path, size, seed):
    if os.path.exists(path) and os.path.getsize(path) == size:
        return
    block = (bytes(range(256)) * 4096)[seed % 256:] + bytes(range(256))[: seed % 256]
    with open(path + ".part", "wb") as f:
        left = size
        while left > 0:
            f.write(block[: min(left, len(block))])
            left -= len(block)
    os.rename(path + ".part", path)


def prepare_home(home):
    """big.bin, par/p00..p31, many/ with 10,000 files; kept between runs."""
    os.makedirs(os.path.join(home, "par"), exist_ok=True)
    os.makedirs(os.path.join(home, "many"), exist_ok=True)
    write_file(os.path.join(home, "big.bin"), SIZE_BIG, 1)
    for i in range(PAR_CLIENTS):
        write_file(os.path.join(home, "par", "p%02d" % i), SIZE_PAR, i + 2)
    many = os.path.join(home, "many")
    if len(os.listdir(many)) != LIST_FILES:
        for i in range(LIST_FILES):
            with open(os.path.join(many, "file%05d.dat" % i), "wb") as f:
                f.write(b"x" * (i % 4000))
    for name in os.listdir(home):
        if name.startswith("stor."):
            os.unlink(os.path.join(home, name))
    # Into the page cache, as the RETR figures promise.
    for path in [os.path.join(home, "big.bin")] + [os.path.join(home, "par", "p%02d" % i)
                                                   for i in range(PAR_CLIENTS)]:
        with open(path, "rb") as f:
            while f.read(1 << 24):
                pass


def ensure_account(home):
    """The local system account the peers authenticate; its password goes through the
    system's own hashing as any account's does."""
    try:
        pwd.getpwnam(ACCOUNT)
    except KeyError:
        run(["useradd", "--no-create-home", "--home-dir", home, "--shell", "/bin/sh", ACCOUNT])
    run(["usermod", "--home", home, ACCOUNT], capture_output=True)
    run(["chpasswd"], input=("%s:%s\n" % (ACCOUNT, PASSWORD)).encode())
    entry = pwd.getpwnam(ACCOUNT)
    for root, dirs, files in os.walk(home):
        for name in dirs + files + ["."]:
            os.lchown(os.path.join(root, name), entry.pw_uid, entry.pw_gid)
    return entry


def unpack_peers(work):
    """Debian's packages of the three peers, unpacked under work/peers (their libraries are
    installed normally)."""
    missing = [p for p in PEER_LIBRARIES
               if subprocess.run(["dpkg", "-s", p], capture_output=True).returncode != 0]
    if missing:
        log("installing %s ..." % " ".join(missing))
        env = dict(os.environ, DEBIAN_FRONTEND="noninteractive")
        if subprocess.run(["apt-get", "install", "-y", "-q", "--no-install-recommends"] + missing,
                          env=env, capture_output=True).returncode != 0:
            run(["apt-get", "update", "-q"], env=env, capture_output=True)
            run(["apt-get", "install", "-y", "-q", "--no-install-recommends"] + missing, env=env,
                capture_output=True)
    roots = {}
    debs = os.path.join(work, "debs")
    os.makedirs(debs, exist_ok=True)
    os.chmod(debs, 0o777)
    for name, packages in PEER_PACKAGES.items():
        root = os.path.join(work, "peers", name)
        os.makedirs(root, exist_ok=True)
        for package in packages:  # proftpd's TLS module comes in a package of its own
            marker = os.path.join(root, ".unpacked-" + package)
            if os.path.exists(marker):
                continue
            found = [f for f in os.listdir(debs) if f.startswith(package + "_")]
            if not found:
                log("downloading %s ..." % package)
                run(["apt-get", "download", package], cwd=debs, capture_output=True)
                found = [f for f in os.listdir(debs) if f.startswith(package + "_")]
            run(["dpkg-deb", "-x", os.path.join(debs, sorted(found)[-1]), root])
            open(marker, "w").close()
        roots[name] = root
    return roots


# ---------------------------------------------------------------------------------------------
# The servers


CPU_GROUPS = "/sys/fs/cgroup/cpuacct"


def make_cpu_group(name):
    """A CPU accounting group (cgroup v1 cpuacct) for one server's processes, or None where
    there is none to be had (then the processes are summed as they are found)."""
    path = os.path.join(CPU_GROUPS, "orvane-bench-%d-%s" % (os.getpid(), name))
    try:
        os.makedirs(path, exist_ok=True)
        return path
    except OSError:
        return None


def remove_cpu_group(path):
    if path:
        try:
            os.rmdir(path)
        except OSError:
            pass


class Setup:
    """What every server of a run is configured for: passive mode (a port range), FTPS (the
    certificate and key files) or neither."""

    def __init__(self, passive=False, tls=None):
        self.passive = passive
        self.tls = tls  # (certificate, key) or None


def make_certificate(work):
    """A self-signed RSA certificate that all servers present; made once."""
    folder = os.path.join(work, "tls")
    cert, key = os.path.join(folder, "cert.pem"), os.path.join(folder, "key.pem")
    if not (os.path.exists(cert) and os.path.exists(key)):
        os.makedirs(folder, exist_ok=True)
        run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "3650",
             "-subj", "/CN=127.0.0.1", "-keyout", key, "-out", cert], capture_output=True)
    os.chmod(key, 0o600)
    return cert, key


class ServerProcess:
    name = ""
    banner = b"220"  # how the server's greeting starts
    port_20 = True  # whether it makes data connections from port 20

    def __init__(self, home, conf_dir, setup):
        self.home = home
        self.dir = conf_dir
        self.setup = setup
        self.port = free_port()
        self.proc = None
        self.cgroup = None
        os.makedirs(conf_dir, exist_ok=True)

    def command(self):
        raise NotImplementedError

    def start(self):
        if self.port_20:
            wait_port_20()
        self.out = open(os.path.join(self.dir, "output.log"), "wb")
        self.cgroup = make_cpu_group(self.name)
        procs = os.path.join(self.cgroup, "cgroup.procs") if self.cgroup else None

        def enter_group():
            # Before exec, so that every process the server forks is counted from its start.
            if procs:
                with open(procs, "w") as f:
                    f.write(str(os.getpid()))

        # A server that does not come up (on a loaded machine, now and then one of the peers
        # exits at once) gets two more tries before the run gives up on it.
        for attempt in range(3):
            self.proc = subprocess.Popen(self.command(), cwd=self.dir, stdout=self.out,
                                         stderr=subprocess.STDOUT, start_new_session=True,
                                         preexec_fn=enter_group)
            try:
                wait_port(self.port, self.proc, banner=self.banner)
                return
            except RuntimeError:
                if attempt == 2:
                    raise
                log("  %s did not start, trying again ..." % self.name)
                self.kill_group()
                if self.port_20:
                    wait_port_20()

    def pids(self):
        """The server's processes: the one started and everything below it."""
        children = {}
        for entry in os.listdir("/proc"):
            if not entry.isdigit():
                continue
            try:
                with open("/proc/%s/stat" % entry) as f:
                    ppid = int(f.read().rsplit(")", 1)[1].split()[1])
            except (OSError, IndexError, ValueError):
                continue
            children.setdefault(ppid, []).append(int(entry))
        out, todo = [], [self.proc.pid]
        while todo:
            pid = todo.pop()
            out.append(pid)
            todo.extend(children.get(pid, []))
        return out

    def cpu_seconds(self):
        """CPU time of the server's processes. From the server's CPU accounting group where
        there is one: it holds every process the server forked, also the session processes
        whose parent ignores SIGCHLD (their time is never added to a parent's, so without
        the group a forking server's sessions would look free). Otherwise the processes
        alive now, with that of the sessions they have reaped."""
        if self.cgroup:
            try:
                with open(os.path.join(self.cgroup, "cpuacct.usage")) as f:
                    return int(f.read()) / 1e9
            except (OSError, ValueError):
                pass
        ticks = 0
        for pid in self.pids():
            try:
                with open("/proc/%d/stat" % pid) as f:
                    fields = f.read().rsplit(")", 1)[1].split()
                ticks += sum(int(x) for x in fields[11:15])  # utime stime cutime cstime
            except (OSError, IndexError, ValueError):
                pass
        return ticks / os.sysconf("SC_CLK_TCK")

    def pss_kib(self):
        total = 0
        for pid in self.pids():
            try:
                with open("/proc/%d/smaps_rollup" % pid) as f:
                    for line in f:
                        if line.startswith("Pss:"):
                            total += int(line.split()[1])
            except OSError:
                pass
        return total

    def kill_group(self):
        try:
            os.killpg(self.proc.pid, signal.SIGKILL)
        except (ProcessLookupError, PermissionError):
            pass
        self.proc.wait(timeout=30)

    def stop(self):
        if self.proc and self.proc.poll() is None:
            try:
                os.killpg(self.proc.pid, signal.SIGTERM)
            except ProcessLookupError:
                pass
            try:
                self.proc.wait(timeout=30)
            except subprocess.TimeoutExpired:
                os.killpg(self.proc.pid, signal.SIGKILL)
                self.proc.wait(timeout=30)
        # Forked sessions of a peer may outlive their master for a moment.
        end = time.monotonic() + 10
        while time.monotonic() < end:
            try:
                os.killpg(self.proc.pid, 0)
            except (ProcessLookupError, PermissionError):
                break
            try:
                os.killpg(self.proc.pid, signal.SIGKILL)
            except ProcessLookupError:
                break
            time.sleep(0.1)
        self.out.close()
        remove_cpu_group(self.cgroup)


class Orvane(ServerProcess):
    name = "Orvane"

    def __init__(self, home, conf_dir, setup, binary):
        super().__init__(home, conf_dir, setup)
        self.binary = binary
        with open(os.path.join(conf_dir, "settings.ini"), "w") as f:
            f.write("[Server_Settings]\nserverhome=%s\nmaxusers=%d\n[Services]\ntelnet=0\n"
                    "ftp=1\nftp_port=%d\n" % (home, IDLE_MANY, self.port))
            # Without extension keys the server speaks the classic command set; passive mode
            # and FTPS come with the newer one, which then also serves the active-mode runs.
            if setup.passive or setup.tls:
                f.write("[Extensions]\nftp_modern=1\npassive_ports=%d-%d\n" % PASSIVE_PORTS)
            if setup.tls:
                for name, path in zip(("cert.pem", "key.pem"), setup.tls):
                    shutil.copy(path, os.path.join(conf_dir, name))
                f.write("ftps=1\ntls_certificate=cert.pem\ntls_private_key=key.pem\n")
        encoded = run([binary, "--encode-password", ACCOUNT, PASSWORD], capture_output=True,
                      text=True).stdout.strip()
        with open(os.path.join(conf_dir, "users"), "w") as f:
            f.write("%s:101:%s:%d:4:\\\n" % (ACCOUNT, encoded, IDLE_MANY))
        # The home is open to the account: it downloads, lists and stores there.
        with open(os.path.join(conf_dir, "fpl.txt"), "w") as f:
            f.write("\\:d:root:root:111111111\n")
        for stale in ("groups", "mounts", "debug.txt", "motd.txt"):
            if os.path.exists(os.path.join(conf_dir, stale)):
                os.unlink(os.path.join(conf_dir, stale))

    def command(self):
        return [self.binary, "--headless", "-C", self.dir]

    def start(self):
        # The start directory is the one the tables are written back to: start from scratch.
        super().start()


class Vsftpd(ServerProcess):
    name = "vsftpd"

    def __init__(self, home, conf_dir, setup, root):
        super().__init__(home, conf_dir, setup)
        self.root = root
        empty = os.path.join(conf_dir, "empty")
        os.makedirs(empty, exist_ok=True)
        conf = os.path.join(conf_dir, "vsftpd.conf")
        with open(conf, "w") as f:
            f.write("\n".join([
                "listen=YES", "listen_address=127.0.0.1", "listen_port=%d" % self.port,
                "background=NO", "anonymous_enable=NO", "local_enable=YES", "write_enable=YES",
                "local_umask=022", "connect_from_port_20=YES", "seccomp_sandbox=NO",
                "isolate=NO", "isolate_network=NO", "max_clients=0", "max_per_ip=0",
                # No service file of its own: PAM's "other" service, the system's common-auth.
                "pam_service_name=orvbench-vsftpd", "secure_chroot_dir=%s" % empty,
                "xferlog_enable=NO", "dirmessage_enable=NO", "tcp_wrappers=NO",
                "userlist_enable=NO", "chroot_local_user=NO",
                "pasv_enable=%s" % ("YES" if setup.passive else "NO"),
                "pasv_min_port=%d" % PASSIVE_PORTS[0], "pasv_max_port=%d" % PASSIVE_PORTS[1]]
                + (["ssl_enable=YES", "rsa_cert_file=%s" % setup.tls[0],
                    "rsa_private_key_file=%s" % setup.tls[1], "ssl_ciphers=%s" % TLS_CIPHER,
                    "force_local_logins_ssl=YES", "force_local_data_ssl=YES",
                    "require_ssl_reuse=YES", "ssl_request_cert=NO", "allow_anon_ssl=NO"]
                   if setup.tls else []) + [""]))
        os.chmod(conf, 0o600)
        self.conf = conf

    def command(self):
        return [os.path.join(self.root, "usr/sbin/vsftpd"), self.conf]


class Proftpd(ServerProcess):
    name = "proftpd"

    def __init__(self, home, conf_dir, setup, root):
        super().__init__(home, conf_dir, setup)
        self.root = root
        conf = os.path.join(conf_dir, "proftpd.conf")
        os.chmod(conf_dir, 0o755)
        with open(conf, "w") as f:
            f.write("\n".join([
                'ServerName "bench"', "ServerType standalone", "DefaultServer on",
                "Port %d" % self.port, "DefaultAddress 127.0.0.1", "SocketBindTight on",
                "UseIPv6 off", "User nobody", "Group nogroup", "Umask 022",
                "MaxInstances 12000", "PidFile %s/proftpd.pid" % conf_dir,
                "ScoreboardFile %s/proftpd.scoreboard" % conf_dir, "DelayTable none",
                "WtmpLog off", "UseReverseDNS off", "<IfModule mod_ident.c>",
                "IdentLookups off", "</IfModule>", "RequireValidShell off",
                "AuthOrder mod_auth_unix.c", "AllowOverwrite on", "TransferLog none",
                "SystemLog %s/system.log" % conf_dir, "UseSendfile on",
                "ModulePath %s/usr/lib/proftpd" % root,
                "PassivePorts %d %d" % PASSIVE_PORTS]
                # The data connections must resume the control connection's TLS session (the
                # module's default), as for the other servers.
                + (["LoadModule mod_tls.c", "TLSEngine on", "TLSRequired on",
                    "TLSRSACertificateFile %s" % setup.tls[0],
                    "TLSRSACertificateKeyFile %s" % setup.tls[1],
                    "TLSProtocol TLSv%s" % TLS_VERSION, "TLSCipherSuite %s" % TLS_CIPHER,
                    "TLSVerifyClient off"] if setup.tls else []) + [""]))
        self.conf = conf

    def command(self):
        return [os.path.join(self.root, "usr/sbin/proftpd"), "--nodaemon", "--config",
                self.conf]


class PureFtpd(ServerProcess):
    name = "pure-ftpd"

    def __init__(self, home, conf_dir, setup, root):
        super().__init__(home, conf_dir, setup)
        self.root = root

    def command(self):
        return [os.path.join(self.root, "usr/sbin/pure-ftpd"),
                "--passiveportrange", "%d:%d" % PASSIVE_PORTS,
                "--bind", "127.0.0.1,%d" % self.port, "--dontresolve", "--noanonymous",
                "--login", "unix", "--maxclientsnumber", str(IDLE_MANY + 100),
                "--maxclientsperip", str(IDLE_MANY + 100), "--syslogfacility", "none"]


# ---------------------------------------------------------------------------------------------
# The workloads


class Load:
    """The load client against one server, in one data connection mode ("active" or
    "passive"), under TLS when the server's setup has it."""

    def __init__(self, binary, server, mode="active"):
        self.binary = binary
        self.server = server
        self.env = dict(os.environ, FTP_LOAD_PASSIVE="1" if mode == "passive" else "0")
        if server.setup.tls:
            self.env.update(FTP_LOAD_TLS="1", FTP_LOAD_TLS_VERSION=TLS_VERSION,
                            FTP_LOAD_CIPHERS=TLS_CIPHER)

    def base(self):
        return [self.binary, str(self.server.port), ACCOUNT, PASSWORD]

    def values(self, args, key, on_ready=None, timeout=600):
        """Runs one workload and returns its `key` values. With `on_ready`, the client waits
        once its sessions are logged in; on_ready() is called then and the work starts."""
        env = dict(self.env, FTP_LOAD_SYNC="1") if on_ready else self.env
        proc = subprocess.Popen(self.base() + args, stdin=subprocess.PIPE,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                                env=env)
        timer = threading.Timer(timeout, proc.kill)
        timer.start()
        try:
            lines = []
            for line in proc.stdout:
                if on_ready and line.strip() == "ready":
                    on_ready()
                    proc.stdin.write("\n")
                    proc.stdin.flush()
                else:
                    lines.append(line)
            err = proc.stderr.read()
            status = proc.wait()
        finally:
            timer.cancel()
        if status != 0:
            raise RuntimeError("%s %s failed: %s" % (self.server.name, " ".join(args),
                                                     err.strip()))
        self.client_cpu = sum(float(line.split()[1]) for line in lines
                              if line.startswith("client_cpu_seconds "))
        return [float(line.split()[1]) for line in lines if line.startswith(key + " ")]

    def idle(self, count, settle=1.0):
        """Holds `count` logged-in sessions and returns the server's PSS meanwhile."""
        proc = subprocess.Popen(self.base() + ["idle", str(count)], stdin=subprocess.PIPE,
                                stdout=subprocess.PIPE, text=True, env=self.env)
        try:
            opened = None
            end = time.monotonic() + 300
            while time.monotonic() < end:
                line = proc.stdout.readline()
                if not line:
                    raise RuntimeError("idle sessions failed (status %s)" % proc.wait())
                if line.startswith("idle_open_seconds"):
                    opened = float(line.split()[1])
                    break
            time.sleep(settle)
            pss = self.server.pss_kib()
            processes = len(self.server.pids())
        finally:
            try:
                proc.stdin.write("\n")
                proc.stdin.close()
            except OSError:
                pass
            proc.wait(timeout=120)
        return pss, processes, opened


def median(values):
    return statistics.median(values) if values else float("nan")


def fd_count(pid):
    try:
        return len(os.listdir("/proc/%d/fd" % pid))
    except OSError:
        return -1


def spent_since(server, before):
    """The server's CPU seconds since `before`, once a peer's session processes have ended and
    been reaped after the client."""
    time.sleep(1.0)
    return server.cpu_seconds() - before


def timed(server, load, cpu, key, units, args, value_key):
    """Runs one workload and returns its `value_key` values; sets cpu[key] and
    cpu["client " + key] to the server's and the client's CPU seconds per unit. The server's
    time counts from the moment the client's sessions are logged in: the peers spend a tenth of
    a second or more of CPU on a login."""
    before = []
    values = load.values(args, value_key, lambda: before.append(server.cpu_seconds()))
    cpu[key] = [spent_since(server, before[0]) / units]
    cpu["client " + key] = [load.client_cpu / units]
    return values


def transfers(server, load, home, quick):
    """One round of the transfer workloads: RETR of big.bin, STOR of 1 GiB (each `runs` + 1
    times, the first not counted: it may be the first in a while to take fresh pages for the
    page cache, which costs far more on this virtual machine than reusing them) and 32 RETRs at
    once. Returns the rates ({key: [MB/s, ...]}) and the CPU seconds per GiB of the server
    (from the moment its sessions are logged in) and of the client ({key: s, "client " + key:
    s})."""
    runs = 1 if quick else 5
    par_runs = 1 if quick else 3
    big = os.path.join(home, "big.bin")
    workloads = [
        ("retr", runs + 1, ["retr", "big.bin", str(SIZE_BIG), str(runs + 1)], "retr_mbps"),
        ("stor", runs + 1, ["stor", big, "stor", str(runs + 1), home], "stor_mbps"),
        ("par", par_runs * PAR_CLIENTS * SIZE_PAR / SIZE_BIG,
         ["par", "par", "p", str(PAR_CLIENTS), str(SIZE_PAR), str(par_runs)], "par_mbps"),
    ]
    rates, cpu = {}, {}
    for key, gib, args, value_key in workloads:
        log("  %s ..." % key)
        values = timed(server, load, cpu, key, gib, args, value_key)
        rates[key] = values if key == "par" else values[1:]
    for name in os.listdir(home):  # uploads left by a client that failed half-way
        if name.startswith("stor."):
            os.unlink(os.path.join(home, name))
    return rates, cpu


RUN_LABELS = [("retr", "RETR"), ("stor", "STOR"), ("par", "32 x 64 MiB"),
              ("logins", "login rounds"), ("list", "LIST")]


def one_round(server, load, home, quick, parts):
    """One round of a server's workloads in one mode: logins and LIST when `parts` names them,
    then the transfers. Returns the values of every run ({key: [...]}) and the CPU seconds per
    unit of the server and the client ({key: [s], "client " + key: [s]})."""
    runs, cpu = {}, {}
    if "logins" in parts:
        log("  logins ...")
        seconds = 2 if quick else 5
        before = server.cpu_seconds()
        rate = median(load.values(["logins", str(LOGIN_CLIENTS), str(seconds)],
                                  "logins_per_s"))
        runs["logins"] = [rate]
        logins = max(1.0, rate * seconds)
        cpu["logins"] = [spent_since(server, before) / logins * 1e3]
        cpu["client logins"] = [load.client_cpu / logins * 1e3]
    if "list" in parts:
        log("  list ...")
        count = 3 if quick else 15
        lists = timed(server, load, cpu, "list", count / 1e3, ["list", "many", str(count)],
                      "list_ms")
        runs["list"] = lists[1:] if len(lists) > 1 else lists  # the first warms the caches
    more_runs, more_cpu = transfers(server, load, home, quick)
    runs.update(more_runs)
    cpu.update(more_cpu)
    return runs, cpu


def measure(server, load, home, quick, extra, parts):
    """The figures of one server in its first round, and the CPU time it spent on each
    workload per unit of work (which the machine's other load does not change much). `parts`
    names the workloads besides the transfers: "logins", "list", "idle"."""
    res, notes = {"spread": {}}, []
    res["runs"], cpu = one_round(server, load, home, quick, parts)
    if "idle" not in parts:
        return res, cpu, notes
    log("  idle sessions ...")
    base = server.pss_kib()
    pss, processes, _ = load.idle(IDLE_SESSIONS)
    # Per session: what the sessions add to the idle server (the table's row and this note
    # give the same figure).
    res["mem"] = (pss - base) / IDLE_SESSIONS
    notes.append("%s: %d idle sessions: PSS %d KiB in %d processes (%d KiB before them); "
                 "%.1f KiB per session above that" % (server.name, IDLE_SESSIONS, pss,
                                                      processes, base, res["mem"]))
    if extra:
        # Everything of the previous sessions must be gone before all 10,000 places are used.
        resting = None
        end = time.monotonic() + 30
        while time.monotonic() < end:
            now = fd_count(server.proc.pid)
            if now == resting:
                break
            resting = now
            time.sleep(0.5)
        log("  %d idle sessions ..." % IDLE_MANY)
        pss, processes, opened = load.idle(IDLE_MANY, settle=2.0)
        res["many"] = (pss - base) / IDLE_MANY
        notes.append("%s: %d idle sessions held by one process: PSS %.1f MiB, %.1f KiB per "
                     "session with the idle server (%.1f KiB above it), opened in %.1f s"
                     % (server.name, IDLE_MANY, pss / 1024.0, pss / IDLE_MANY,
                        res["many"], opened))
    return res, cpu, notes


def tree_build(build, work, quick):
    binary = os.path.join(build, "bench", "tree_build")
    out = run([binary, os.path.join(work, "tree"), "3" if quick else "5"], capture_output=True,
              text=True, timeout=900).stdout
    m = re.search(r"build / find\s+([\d.]+)", out)
    return (float(m.group(1)) if m else float("nan")), out


# ---------------------------------------------------------------------------------------------


def ratio_text(ours, best, higher):
    if not best or best != best or ours != ours:
        return "", None
    r = ours / best
    return "%.2fx" % r, r


def cell(value, spread=None):
    """A figure as its median and, where there were several runs, their range."""
    if value is None:
        return "-"
    text = "%.1f" % value if value >= 10 else "%.3f" % value
    if spread and spread[0] != spread[1]:
        fmt = "%.0f-%.0f" if value >= 10 else "%.3f-%.3f"
        text += " (" + fmt % spread + ")"
    return text


def best_peer(results, peers, key, higher):
    """The peer with the best median of `key`, and that median."""
    have = [(results[p][key], p) for p in peers if key in results.get(p, {})]
    if not have:
        return None, None
    value, name = (max if higher else min)(have)
    return name, value


def report(results, peers, notes, title, anchors):
    """The table of one data connection mode: every figure of every server, and Orvane's
    ratio to the best peer (without peers, to the anchors when given)."""
    names = ["Orvane"] + peers
    width = 22
    head = "%-28s %5s " % ("figure (median, min-max)", "unit") + "".join(
        "%*s" % (width, n) for n in names)
    if peers:
        head += "%11s %7s %7s" % ("best peer", "ratio", "goal")
    else:
        head += "%11s %7s %7s" % ("anchor", "ratio", "goal")
    log("")
    log(title)
    log(head)
    log("-" * len(head))
    verdicts = []
    for key, label, unit, higher, goal in FIGURES:
        if key not in results["Orvane"]:
            continue
        row = "%-28s %5s " % (label, unit)
        for n in names:
            r = results.get(n, {})
            row += "%*s" % (width, cell(r.get(key), r.get("spread", {}).get(key)))
        ours = results["Orvane"][key]
        if peers:
            who, best = best_peer(results, peers, key, higher)
        elif anchors:
            best = ANCHOR_BEST[key]
            who = "%.1f" % best
        else:
            who, best = None, None
        text, r = ratio_text(ours, best, higher)
        ok = r is not None and (r >= goal if higher else r <= goal)
        goal_text = ("%s%.1fx" % (">=" if higher else "<=", goal))
        row += "%11s %7s %7s" % (who or "-", text, goal_text)
        if peers:
            row += "  %s" % ("met" if ok else "MISSED")
        verdicts.append((label, ok))
        log(row)
    for n in notes:
        log(n)
    return verdicts


CPU_FIGURES = [("retr", "RETR", "s/GiB"), ("stor", "STOR", "s/GiB"),
               ("par", "32 x 64 MiB RETR", "s/GiB"),
               ("logins", "login", "ms"), ("list", "LIST of 10,000", "ms")]
# The figure whose best peer the CPU time is compared with, and the goal for that ratio.
CPU_GOALS = {"retr": ("retr", 0.8), "stor": ("stor", 0.8), "par": ("par", 0.8)}


# The figures compared between the data connection modes of one server.
MODE_FIGURES = [(key, label, higher) for key, label, _, higher, _ in FIGURES if key != "mem"]
MODE_GOAL = 0.95


def report_modes(results, names, modes):
    """Each server's figures of the second mode as a share of those of the first, as speeds
    (for LIST, whose figure is a time, the inverse): 1.00x is as fast."""
    first, second = modes[0], modes[1]
    log("")
    log("%s against %s, the same server: %s speed / %s speed (median against median; goal "
        "for Orvane >= %.2fx)" % (second, first, second, first, MODE_GOAL))
    width = 14
    head = "%-28s" % "figure" + "".join("%*s" % (width, n) for n in names)
    log(head)
    log("-" * len(head))
    for key, label, higher in MODE_FIGURES:
        if key not in results[first].get("Orvane", {}):
            continue
        row = "%-28s" % label
        for n in names:
            a = results[first].get(n, {}).get(key)
            b = results[second].get(n, {}).get(key)
            if not a or not b or a != a or b != b:
                row += "%*s" % (width, "-")
                continue
            r = b / a if higher else a / b
            mark = "" if n != "Orvane" else (" ok" if r >= MODE_GOAL else " LOW")
            row += "%*s" % (width, "%.2fx%s" % (r, mark))
        log(row)


def report_cpu(cpus, names, results, title=""):
    log("")
    if title:
        log(title)
    log("CPU time per unit of work, of the server and of the load client against it (median "
        "of the rounds, min-max; less affected by the machine's other load than the rates). "
        "The ratio compares Orvane's server time with that of the peer with the best rate:")
    width = 22
    head = "%-28s %5s " % ("workload", "unit") + "".join("%*s" % (width, n) for n in names)
    peers = names[1:]
    if peers:
        head += "%11s %7s %7s" % ("best peer", "ratio", "goal")
    log(head)
    log("-" * len(head))
    for key, label, unit in CPU_FIGURES:
        for who, k in (("server", key), ("client", "client " + key)):
            if not any(k in cpus.get(n, {}) for n in names):
                continue
            row = "%-28s %5s " % ("%s, %s" % (label, who), unit)
            for n in names:
                v = cpus.get(n, {}).get(k)
                row += "%*s" % (width, cell(median(v), (min(v), max(v))) if v else "-")
            if peers and who == "server" and key in CPU_GOALS and k in cpus.get("Orvane", {}):
                figure, goal = CPU_GOALS[key]
                best, _ = best_peer(results, peers, figure, True)
                if best and cpus.get(best, {}).get(k):
                    ratio = median(cpus["Orvane"][k]) / median(cpus[best][k])
                    row += "%11s %6.2fx %7s  %s" % (best, ratio, "<=%.1fx" % goal,
                                                    "met" if ratio <= goal else "MISSED")
            log(row)


def main():
    here = os.path.dirname(os.path.abspath(__file__))
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    ap.add_argument("--build", default=os.path.join(os.path.dirname(here), "build"),
                    help="the CMake build folder (default: build/ beside bench/)")
    ap.add_argument("--work", default="/var/tmp/orvane-bench-ftp",
                    help="where the shared files, configurations and peers are kept")
    ap.add_argument("--peers", action="store_true",
                    help="also unpack, start and measure vsftpd, proftpd and pure-ftpd")
    ap.add_argument("--quick", action="store_true", help="one run of each workload")
    ap.add_argument("--server", help="the Orvane binary to measure (default: BUILD/orvane-server)")
    ap.add_argument("--modes", default=None,
                    help="data connection modes, in order: active, passive or active,passive "
                         "(default: active; passive with --tls)")
    ap.add_argument("--passive", action="store_true", help="the same as --modes active,passive")
    ap.add_argument("--tls", action="store_true",
                    help="FTPS (AUTH TLS, PROT P): the transfers and idle sessions under TLS; "
                         "the peers are vsftpd and proftpd")
    args = ap.parse_args()
    if args.passive:
        args.modes = "active,passive"
    modes = (args.modes or ("passive" if args.tls else "active")).split(",")
    if any(m not in ("active", "passive") for m in modes) or len(set(modes)) != len(modes):
        sys.exit("--modes: active, passive or both, each once")

    args.build = os.path.abspath(args.build)
    binary = os.path.abspath(args.server or os.path.join(args.build, "orvane-server"))
    load_binary = os.path.join(args.build, "bench", "ftp_load")
    for path in (binary, load_binary):
        if not os.access(path, os.X_OK):
            sys.exit("missing %s: build it first (ninja -C %s orvane-server ftp_load tree_build)"
                     % (path, args.build))
    if args.peers and os.geteuid() != 0:
        sys.exit("--peers needs root (packages, the account, port 20)")

    work = os.path.abspath(args.work)
    home = os.path.join(work, "home")
    os.makedirs(home, exist_ok=True)
    os.chmod(work, 0o755)
    started = time.monotonic()
    log("load average at start: %s" % load_average())
    log("preparing %s ..." % home)
    prepare_home(home)
    roots = {}
    if args.peers:
        ensure_account(home)
        roots = unpack_peers(work)
    setup = Setup(passive="passive" in modes, tls=make_certificate(work) if args.tls else None)
    # Under TLS only the transfers and the idle sessions are measured; in the clear, also
    # logins and LIST, in every mode; the idle sessions once per server, in the first mode.
    parts = set() if args.tls else {"logins", "list"}
    extra_for_orvane = not args.tls  # the 10,000 idle sessions

    conf_root = tempfile.mkdtemp(prefix="orvane-bench-conf-", dir=work)
    os.chmod(conf_root, 0o755)
    results = {m: {} for m in modes}
    cpus = {m: {} for m in modes}
    notes = []
    try:
        servers = [Orvane(home, os.path.join(conf_root, "orvane"), setup, binary)]
        if args.peers:
            servers += [Vsftpd(home, os.path.join(conf_root, "vsftpd"), setup, roots["vsftpd"]),
                        Proftpd(home, os.path.join(conf_root, "proftpd"), setup,
                                roots["proftpd"])]
            if not args.tls:
                servers.append(PureFtpd(home, os.path.join(conf_root, "pure-ftpd"), setup,
                                        roots["pure-ftpd"]))
        for server in servers:
            server.start()
            try:
                for k, mode in enumerate(modes):
                    log("%s, %s mode (load average %s) ..."
                        % (server.name, mode, load_average()))
                    more = parts | ({"idle"} if k == 0 else set())
                    res, cpu, n = measure(server, Load(load_binary, server, mode), home,
                                          args.quick,
                                          extra_for_orvane and k == 0 and
                                          server.name == "Orvane", more)
                    results[mode][server.name], cpus[mode][server.name] = res, cpu
                    notes += n
                for mode in modes[1:]:  # the idle sessions do not depend on the mode
                    for key in ("mem", "many"):
                        if key in results[modes[0]][server.name]:
                            results[mode][server.name][key] = results[modes[0]][server.name][key]
            finally:
                server.stop()
        # The machine's state drifts during a run (other load, and uploads get cheaper as more
        # of its memory has been used once), which favours whichever server happens to run at a
        # good moment. So with peers every workload but the idle sessions runs in ROUNDS rounds,
        # every other one in the reverse order (of the servers and of the modes), and each
        # figure is the median of all of a server's runs; the CPU figures are the median of the
        # rounds.
        if len(servers) > 1:
            for round_no in range(2, ROUNDS + 1):
                backwards = round_no % 2 == 0
                for server in (reversed(servers) if backwards else servers):
                    name = server.name
                    try:
                        server.start()
                        for mode in (reversed(modes) if backwards else modes):
                            log("%s, %s mode, round %d (load average %s) ..."
                                % (name, mode, round_no, load_average()))
                            rates, more = one_round(server, Load(load_binary, server, mode),
                                                    home, args.quick, parts)
                            for key, values in rates.items():
                                results[mode][name]["runs"][key] += values
                            for key, value in more.items():
                                cpus[mode][name][key] += value
                    except RuntimeError as e:
                        # A server that fails now keeps its other rounds rather than costing
                        # the whole run.
                        notes.append("%s: round %d failed, left out: %s"
                                     % (name, round_no, e))
                        continue
                    finally:
                        server.stop()
        for mode in modes:
            for name in results[mode]:
                runs = results[mode][name]["runs"]
                for key, values in runs.items():
                    results[mode][name][key] = median(values)
                    results[mode][name]["spread"][key] = (min(values), max(values))
                notes.append("%s, %s mode: medians of %s" % (name, mode, ", ".join(
                    "%d %s" % (len(runs[k]), label) for k, label in RUN_LABELS if k in runs)))
    finally:
        shutil.rmtree(conf_root, ignore_errors=True)

    if args.tls:
        pass  # the start-up tree build has nothing to do with FTPS
    elif os.access(os.path.join(args.build, "bench", "tree_build"), os.X_OK):
        log("tree build ...")
        ratio, _ = tree_build(args.build, work, args.quick)
        notes.append("start-up tree build of 100,000 files / find walk: %.2fx (goal <=2.0x)"
                     % ratio)
    else:
        notes.append("tree build: %s/bench/tree_build is not built" % args.build)
    notes.append("load average at end: %s; %.0f s in all" % (load_average(),
                                                             time.monotonic() - started))
    names = [s.name for s in servers]
    kind = "FTPS (TLS %s, %s)" % (TLS_VERSION, TLS_CIPHER) if args.tls else "FTP"
    for k, mode in enumerate(modes):
        last = k == len(modes) - 1
        report(results[mode], names[1:], notes if last else [],
               "%s, %s mode:" % (kind, mode), anchors=not args.tls and mode == "active")
    if len(modes) > 1:
        report_modes(results, names, modes)
    for mode in modes:
        report_cpu(cpus[mode], names, results[mode], "%s, %s mode:" % (kind, mode))

if __name__ == "__main__":
    main()
