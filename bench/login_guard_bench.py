#!/usr/bin/env python3
"""Password guesses per second that one address gets over FTP and over Telnet, with the
brute-force defence off and on, and how long an honest login from another loopback address
(127.0.0.2) takes meanwhile.

    python3 bench/login_guard_bench.py [--build DIR] [--seconds N] [--attackers N]

Each run starts the built server in a temporary start directory. The attacker (127.0.0.1) runs
N threads that connect, name the account and send wrong passwords as fast as the server answers
(FTP: one password per connection, as a failed login closes it; Telnet: up to three). Every
second an honest client logs in from 127.0.0.2 with the right password. See README.md here.
"""

import argparse
import os
import socket
import statistics
import subprocess
import sys
import tempfile
import threading
import time

ACCOUNT, PASSWORD = "victim", "Right-pass-7"
DEFENCE = ("[Extensions]\nlogin_delay_ms=1000\nban_after=5\nban_seconds=60\n"
           "max_per_address=10\nauth_log=1\n")
WAIT = 10.0


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


class Client:
    def __init__(self, port, source):
        self.sock = socket.create_connection(("127.0.0.1", port), WAIT, (source, 0))
        self.buf = b""

    def until(self, text):
        while text not in self.buf:
            data = self.sock.recv(4096)
            if not data:
                raise EOFError
            self.buf += data
        cut = self.buf.index(text) + len(text)
        out, self.buf = self.buf[:cut], self.buf[cut:]
        return out

    def send(self, text):
        self.sock.sendall(text.encode() + b"\r\n")

    def close(self):
        self.sock.close()


def ftp_attempts(port, guess):
    """One connection's guesses; yields once per password answered."""
    c = Client(port, "127.0.0.1")
    try:
        c.until(b"ready.\r\n")
        c.send("USER " + ACCOUNT)
        c.until(b"\r\n")
        c.send("PASS " + guess())
        c.until(b"\r\n")
        yield
    finally:
        c.close()


def telnet_attempts(port, guess):
    c = Client(port, "127.0.0.1")
    try:
        c.until(b"login: ")
        for _ in range(3):
            c.send(ACCOUNT)
            c.until(b"Password: ")
            c.send(guess())
            c.until(b"Login incorrect\r\nlogin: ")
            yield
    except EOFError:
        pass  # the third wrong password closes the connection (or a refusal at once)
    finally:
        c.close()


def honest_login(service, port):
    began = time.monotonic()
    c = Client(port, "127.0.0.2")
    try:
        if service == "FTP":
            c.until(b"ready.\r\n")
            c.send("USER " + ACCOUNT)
            c.until(b"\r\n")
            c.send("PASS " + PASSWORD)
            c.until(b" user logged in.\r\n")
        else:
            c.until(b"login: ")
            c.send(ACCOUNT)
            c.until(b"Password: ")
            c.send(PASSWORD)
            c.until(b"# ")
        return time.monotonic() - began
    finally:
        c.close()


def start_server(binary, d, defence):
    """The server on free ports; picks others when a port was taken meanwhile."""
    for _ in range(3):
        ftp_port, telnet_port = free_port(), free_port()
        with open(os.path.join(d, "settings.ini"), "w") as f:
            f.write("[Server_Settings]\nserverhome=%s/home\nmaxusers=1000\n[Services]\n"
                    "ftp=1\ntelnet=1\nftp_port=%d\ntelnet_port=%d\n%s" % (
                        d, ftp_port, telnet_port, DEFENCE if defence else ""))
        log_path = os.environ.get("ORVANE_BENCH_LOG", os.path.join(d, "server.log"))
        with open(log_path, "w") as log:
            proc = subprocess.Popen([binary, "--headless", "-C", d], stdout=log,
                                    stderr=subprocess.STDOUT)
        deadline = time.monotonic() + WAIT
        text = ""
        while "Ready..." not in text and time.monotonic() < deadline:
            time.sleep(0.05)
            with open(log_path) as f:
                text = f.read()
        if "Ready..." in text and " - Bind error" not in text:
            return proc, ftp_port, telnet_port
        proc.terminate()
        proc.wait(timeout=30)
    raise RuntimeError("the server did not start: " + text[-500:])


def measure(binary, service, defence, seconds, attackers):
    with tempfile.TemporaryDirectory(prefix="orvane-guard-bench-") as d:
        os.makedirs(os.path.join(d, "home"))
        stored = subprocess.run([binary, "--encode-password", ACCOUNT, PASSWORD], check=True,
                                capture_output=True, text=True, cwd=d).stdout.strip()
        with open(os.path.join(d, "users"), "w") as f:
            f.write("%s:101:%s:100:15:\\\n" % (ACCOUNT, stored))
        proc, ftp_port, telnet_port = start_server(binary, d, defence)
        try:
            port = ftp_port if service == "FTP" else telnet_port
            attempts = telnet_attempts if service == "Telnet" else ftp_attempts
            counts = [0] * attackers
            refused = [0] * attackers
            stop = time.monotonic() + seconds
            n = iter(range(10 ** 9))

            def attack(i):
                while time.monotonic() < stop:
                    answered = 0
                    try:
                        for _ in attempts(port, lambda: "guess-%d" % next(n)):
                            answered += 1
                    except (OSError, EOFError):
                        pass
                    counts[i] += answered
                    refused[i] += answered == 0

            threads = [threading.Thread(target=attack, args=(i,)) for i in range(attackers)]
            for t in threads:
                t.start()
            honest = []
            while time.monotonic() < stop:
                time.sleep(1.0)
                try:
                    honest.append(honest_login(service, port))
                except (OSError, EOFError):
                    honest.append(None)
            for t in threads:
                t.join()
            return sum(counts), sum(refused), honest
        finally:
            proc.terminate()
            proc.wait(timeout=30)


def main():
    here = os.path.dirname(os.path.abspath(__file__))
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    ap.add_argument("--build", default=os.path.join(os.path.dirname(here), "build"))
    ap.add_argument("--seconds", type=float, default=20.0)
    ap.add_argument("--attackers", type=int, default=8)
    ap.add_argument("--services", nargs="+", default=["FTP", "Telnet"])
    ap.add_argument("--defence", nargs="+", default=["off", "on"])
    args = ap.parse_args()
    binary = os.path.join(args.build, "orvane-server")
    print("%-7s %-8s %9s %10s %9s %11s %12s" % ("service", "defence", "guesses", "guesses/s",
                                                 "refused", "honest ok", "honest ms"))
    for service in args.services:
        for defence in args.defence:
            guesses, refused, honest = measure(binary, service, defence == "on", args.seconds,
                                               args.attackers)
            ok = [h for h in honest if h is not None]
            print("%-7s %-8s %9d %10.2f %9d %7d/%-3d %5.0f/%-6.0f" % (
                service, defence, guesses, guesses / args.seconds, refused,
                len(ok), len(honest), statistics.median(ok) * 1000 if ok else 0,
                max(ok) * 1000 if ok else 0))
            sys.stdout.flush()
    print("(honest ms: median/max of one login a second from 127.0.0.2)")


if __name__ == "__main__":
    main()
