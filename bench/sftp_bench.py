#!/usr/bin/env python3
"""SFTP speed and memory of Orvane Server's SSH service beside OpenSSH's sshd with its internal
SFTP server, measured in one run on one machine.

    python3 bench/sftp_bench.py [--build DIR] [--work DIR] [--quick] [--only orvane|sshd]

Both servers listen on 127.0.0.1, serve the same directory to the same account with the same
cipher and host key type, one server at a time, and OpenSSH's own `sftp` client (password given
by sshpass) runs the same workloads against each. Run as root (the account, a private sshd).
See README.md in this folder.
"""

import argparse
import os
import shutil
import subprocess
import sys
import tempfile
import threading
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import ftp_bench as fb  # noqa: E402  (the shared files, the account, the server processes)

CIPHER = "aes128-gcm@openssh.com"
STREAMS = 8
IDLE_SESSIONS = 50
ROUNDS = 3
WAIT = 300.0  # the longest one command may take
UPLOAD_PREFIX = "sftp-up."  # uploads, deleted after each run (not ftp_bench.py's "stor.")

FIGURES = [
    # key, label, unit, higher is better
    ("down", "download 1 GiB", "MB/s", True),
    ("up", "upload 1 GiB", "MB/s", True),
    ("pdown", "8 x 128 MiB downloads at once", "MB/s", True),
    ("pup", "8 x 128 MiB uploads at once", "MB/s", True),
    ("login", "login to first reply", "ms", False),
    ("mem", "PSS per idle session", "KiB", False),
]
CPU_FIGURES = [("down", "download"), ("up", "upload"), ("pdown", "8 downloads at once"),
               ("pup", "8 uploads at once")]


class Sshd(fb.ServerProcess):
    """A private sshd with its own host key, password logins and the internal SFTP server."""
    name = "sshd"
    banner = b"SSH-"
    port_20 = False

    def __init__(self, home, conf_dir):
        super().__init__(home, conf_dir, fb.Setup())
        key = os.path.join(conf_dir, "ssh_host_ed25519_key")
        if not os.path.exists(key):
            fb.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", key])
        self.conf = os.path.join(conf_dir, "sshd_config")
        with open(self.conf, "w") as f:
            f.write("\n".join([
                "Port %d" % self.port, "ListenAddress 127.0.0.1", "HostKey %s" % key,
                "PidFile %s/sshd.pid" % conf_dir,
                # The password checked against the system's shadow file, without PAM's
                # session modules: what a login costs is not one of the figures.
                "UsePAM no", "PasswordAuthentication yes", "KbdInteractiveAuthentication no",
                "PubkeyAuthentication no", "PermitRootLogin no", "UseDNS no",
                "StrictModes no", "Subsystem sftp internal-sftp", "Ciphers %s" % CIPHER,
                "MaxStartups 1000", "MaxSessions 10", "LogLevel ERROR", ""]))
        # sshd refuses to start without its privilege separation directory.
        os.makedirs("/run/sshd", mode=0o755, exist_ok=True)

    def command(self):
        return ["/usr/sbin/sshd", "-D", "-e", "-f", self.conf]


class OrvaneSsh(fb.Orvane):
    """Orvane Server with the SSH listener only (shell and SFTP)."""
    banner = b"SSH-"
    port_20 = False

    def __init__(self, home, conf_dir, binary):
        super().__init__(home, conf_dir, fb.Setup(), binary)
        with open(os.path.join(conf_dir, "settings.ini"), "w") as f:
            f.write("[Server_Settings]\nserverhome=%s\nmaxusers=%d\n[Services]\ntelnet=0\n"
                    "ftp=0\nssh=1\nssh_port=%d\n" % (home, fb.IDLE_MANY, self.port))


class Sftp:
    """One session of OpenSSH's `sftp` client, fed commands on its standard input. sftp echoes
    every command as "sftp> COMMAND" once it starts on it, so a command is over when the echo
    of the next one ("pwd", sent right behind it) arrives."""

    def __init__(self, port, cwd, user=fb.ACCOUNT, password=fb.PASSWORD):
        self.proc = subprocess.Popen(
            ["sshpass", "-p", password, "sftp", "-o", "BatchMode=no", "-b", "-",
             "-P", str(port), "-c", CIPHER, "-o", "StrictHostKeyChecking=no",
             "-o", "UserKnownHostsFile=/dev/null", "-o", "LogLevel=ERROR",
             "-o", "PubkeyAuthentication=no", "-o", "Compression=no",
             "%s@127.0.0.1" % user],
            cwd=cwd, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
            text=True, bufsize=1, start_new_session=True)
        self.lines = []
        self.cond = threading.Condition()
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()
        self.pwd_seen = 0

    def _read(self):
        for line in self.proc.stdout:
            with self.cond:
                self.lines.append(line.rstrip("\n"))
                self.cond.notify_all()
        with self.cond:
            self.lines.append(None)
            self.cond.notify_all()

    def send(self, *commands):
        """Sends the commands and a "pwd" behind them."""
        self.proc.stdin.write("".join(c + "\n" for c in commands) + "pwd\n")
        self.proc.stdin.flush()

    def wait_done(self, limit=WAIT):
        """Waits for the echo of the next "pwd" (the commands before it are over)."""
        end = time.monotonic() + limit
        with self.cond:
            while True:
                seen = [i for i, line in enumerate(self.lines) if line == "sftp> pwd"]
                if len(seen) > self.pwd_seen:  # (a failed command ends a batch: see below)
                    self.pwd_seen += 1
                    return
                if None in self.lines:
                    raise RuntimeError("sftp ended: %s" % self.proc.stderr.read().strip())
                left = end - time.monotonic()
                if left <= 0:
                    raise RuntimeError("sftp: no answer within %.0f s" % limit)
                self.cond.wait(left)

    def close(self):
        try:
            self.proc.stdin.close()
        except OSError:
            pass
        try:
            self.proc.wait(timeout=30)
        except subprocess.TimeoutExpired:
            os.killpg(self.proc.pid, 9)
            self.proc.wait(timeout=30)
        self.reader.join(timeout=10)
        self.proc.stdout.close()
        self.proc.stderr.close()


def open_sessions(port, home, count):
    """`count` logged-in sessions, opened a few at a time; returns them and the login times."""
    sessions, times = [], []
    try:
        for first in range(0, count, 8):
            batch = []
            for _ in range(min(8, count - first)):
                start = time.monotonic()
                s = Sftp(port, home)
                s.send()
                batch.append((s, start))
            for s, start in batch:
                sessions.append(s)
                s.wait_done(120)
                times.append((time.monotonic() - start) * 1e3)
    except Exception:
        for s in sessions:
            s.close()
        raise
    return sessions, times


def timed_commands(server, sessions, commands):
    """Sends each session its commands at once and returns the seconds until all are done and
    the server's CPU seconds meanwhile."""
    cpu = server.cpu_seconds()
    start = time.monotonic()
    for s, cmds in zip(sessions, commands):
        s.send(*cmds)
    for s in sessions:
        s.wait_done()
    return time.monotonic() - start, server.cpu_seconds() - cpu


def remove_uploads(home):
    for name in os.listdir(home):
        if name.startswith(UPLOAD_PREFIX):
            os.unlink(os.path.join(home, name))


def transfers(server, home, quick):
    """One round: the 1 GiB download and upload (`runs` + 1 times each, the first not counted)
    and the 8 streams both ways. Returns {key: [MB/s, ...]} and {key: [CPU s/GiB]}."""
    runs = 1 if quick else 3
    rates, cpu = {k: [] for k, *_ in CPU_FIGURES}, {k: [] for k, *_ in CPU_FIGURES}
    gib = fb.SIZE_BIG / (1 << 30)
    sessions, _ = open_sessions(server.port, home, STREAMS)
    try:
        for key, one in (("down", lambda i: ["get big.bin /dev/null"]),
                         ("up", lambda i: ["put big.bin sftp-up.%d" % i])):
            fb.log("  %s ..." % key)
            spent = 0.0
            for i in range(runs + 1):
                seconds, used = timed_commands(server, sessions[:1], [one(i)])
                remove_uploads(home)
                if i > 0:
                    rates[key].append(fb.SIZE_BIG / 1e6 / seconds)
                    spent += used
            cpu[key].append(spent / runs / gib)
        # Each stream moves two 64 MiB files: 1 GiB in all.
        files = [("par/p%02d" % i, "par/p%02d" % (i + STREAMS)) for i in range(STREAMS)]
        for key, cmds in (("pdown", [["get %s /dev/null" % a, "get %s /dev/null" % b]
                                     for a, b in files]),
                          ("pup", [["put %s sftp-up.%da" % (a, i), "put %s sftp-up.%db" % (b, i)]
                                   for i, (a, b) in enumerate(files)])):
            fb.log("  %s ..." % key)
            for _ in range(runs):
                seconds, used = timed_commands(server, sessions, cmds)
                remove_uploads(home)
                rates[key].append(STREAMS * 2 * fb.SIZE_PAR / 1e6 / seconds)
                cpu[key].append(used / (STREAMS * 2 * fb.SIZE_PAR / (1 << 30)))
    finally:
        for s in sessions:
            s.close()
        remove_uploads(home)
    return rates, cpu


def idle_memory(server, home, count):
    """PSS that `count` idle logged-in sessions add to the server, per session, and the login
    times (connect to the first reply) of those sessions."""
    time.sleep(1.0)
    base = server.pss_kib()
    sessions, logins = open_sessions(server.port, home, count)
    try:
        time.sleep(1.0)
        pss = server.pss_kib()
        processes = len(server.pids())
    finally:
        for s in sessions:
            s.close()
    note = ("%s: %d idle sessions: PSS %d KiB in %d processes (%d KiB before them); %.1f KiB "
            "per session above that" % (server.name, count, pss, processes, base,
                                        (pss - base) / count))
    return (pss - base) / count, logins, note


def cell(values):
    if not values:
        return "-"
    m = fb.median(values)
    text = "%.1f" % m if m >= 10 else "%.3f" % m
    if len(values) > 1 and min(values) != max(values):
        fmt = "%.0f-%.0f" if m >= 10 else "%.3f-%.3f"
        text += " (" + fmt % (min(values), max(values)) + ")"
    return text


def report(results, cpus, names, notes):
    width = 24
    fb.log("")
    head = "%-32s %5s" % ("figure (median, min-max)", "unit") + "".join(
        "%*s" % (width, n) for n in names) + "%10s" % "ratio"
    fb.log(head)
    fb.log("-" * len(head))
    for key, label, unit, higher in FIGURES:
        row = "%-32s %5s" % (label, unit)
        for n in names:
            row += "%*s" % (width, cell(results.get(n, {}).get(key)))
        ours = fb.median(results.get("Orvane", {}).get(key, []))
        theirs = fb.median(results.get("sshd", {}).get(key, []))
        if len(names) > 1 and ours == ours and theirs == theirs and theirs:
            r = ours / theirs
            ahead = r >= 1.0 if higher else r <= 1.0
            row += "%10s  %s" % ("%.2fx" % r, "ahead" if ahead else "behind")
        fb.log(row)
    fb.log("")
    fb.log("server CPU per GiB moved, s (median of the rounds, min-max):")
    for key, label in CPU_FIGURES:
        row = "%-38s" % label
        for n in names:
            row += "%*s" % (width, cell(cpus.get(n, {}).get(key)))
        fb.log(row)
    for n in notes:
        fb.log(n)


def main():
    here = os.path.dirname(os.path.abspath(__file__))
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    ap.add_argument("--build", default=os.path.join(os.path.dirname(here), "build"),
                    help="the CMake build folder (default: build/ beside bench/)")
    ap.add_argument("--work", default="/var/tmp/orvane-bench-ftp",
                    help="where the shared files are kept (the same as ftp_bench.py's)")
    ap.add_argument("--quick", action="store_true", help="one round, one run of each workload")
    ap.add_argument("--rounds", type=int, default=ROUNDS, help="rounds (default %d)" % ROUNDS)
    ap.add_argument("--only", choices=("orvane", "sshd"), help="measure one server only")
    ap.add_argument("--server", help="the Orvane binary to measure (default: BUILD/orvane-server)")
    args = ap.parse_args()
    if os.geteuid() != 0:
        sys.exit("needs root (the account, a private sshd)")
    for tool in ("sftp", "sshpass", "/usr/sbin/sshd"):
        if not shutil.which(tool):
            sys.exit("missing %s: ORVANE_BENCH_PEERS=1 scripts/install-deps.sh" % tool)
    binary = os.path.abspath(args.server or os.path.join(args.build, "orvane-server"))
    if args.only != "sshd" and not os.access(binary, os.X_OK):
        sys.exit("missing %s: build it first" % binary)

    work = os.path.abspath(args.work)
    home = os.path.join(work, "home")
    os.makedirs(home, exist_ok=True)
    os.chmod(work, 0o755)
    started = time.monotonic()
    fb.log("load average at start: %s" % fb.load_average())
    fb.log("preparing %s ..." % home)
    fb.prepare_home(home)
    remove_uploads(home)  # of a run that was cut short
    fb.ensure_account(home)
    conf_root = tempfile.mkdtemp(prefix="orvane-bench-sftp-", dir=work)
    os.chmod(conf_root, 0o755)
    servers = []
    if args.only != "sshd":
        servers.append(OrvaneSsh(home, os.path.join(conf_root, "orvane"), binary))
    if args.only != "orvane":
        servers.append(Sshd(home, os.path.join(conf_root, "sshd")))
    results = {s.name: {k: [] for k, *_ in FIGURES} for s in servers}
    cpus = {s.name: {k: [] for k, _ in CPU_FIGURES} for s in servers}
    notes = []
    try:
        # Rounds in alternating order, each figure the median of all of a server's runs: the
        # machine's state drifts, which would favour whichever server ran at a good moment.
        for round_no in range(1, 2 if args.quick else max(1, args.rounds) + 1):
            for server in (servers if round_no % 2 else list(reversed(servers))):
                fb.log("%s, round %d (load average %s) ..."
                       % (server.name, round_no, fb.load_average()))
                server.start()
                try:
                    rates, cpu = transfers(server, home, args.quick)
                    for key in rates:
                        results[server.name][key] += rates[key]
                        cpus[server.name][key] += cpu[key]
                    if round_no == 1:
                        fb.log("  idle sessions ...")
                        mem, logins, note = idle_memory(server, home, IDLE_SESSIONS)
                        results[server.name]["mem"].append(mem)
                        results[server.name]["login"] += logins
                        notes.append(note)
                except RuntimeError as e:
                    notes.append("%s: round %d failed, left out: %s" % (server.name, round_no, e))
                finally:
                    server.stop()
    finally:
        shutil.rmtree(conf_root, ignore_errors=True)
        remove_uploads(home)
    notes.append("cipher %s for both; every transfer figure is the median of all runs of the "
                 "rounds, from the command to its end (the login is not in it)" % CIPHER)
    notes.append("load average at end: %s; %.0f s in all"
                 % (fb.load_average(), time.monotonic() - started))
    report(results, cpus, [s.name for s in servers], notes)


if __name__ == "__main__":
    main()
