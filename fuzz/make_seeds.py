#!/usr/bin/env python3
"""Writes the seed corpora in fuzz/corpus/<target>/ (run once; the results are committed).

The session and byte-level targets read their input through FuzzedDataProvider: integers
(the choice of session, the size of each read, the input state) come from the end of the
input and the bytes of each read from the front. `Provider` builds inputs in that layout, so
that each seed replays a realistic conversation."""

import os
import shutil

HERE = os.path.dirname(os.path.abspath(__file__))
CORPUS = os.path.join(HERE, "corpus")

IAC, WILL, WONT, DO, DONT, SB, SE, IP = 255, 251, 252, 253, 254, 250, 240, 244


class Provider:
    def __init__(self):
        self.front = bytearray()
        self.back = []  # in the order they are consumed

    def integer(self, value, lo, hi):
        span, count, offset = hi - lo, 0, 0
        while offset < 64 and (span >> offset) > 0:
            count += 1
            offset += 8
        r = value - lo
        for i in range(count):
            self.back.append((r >> (8 * (count - 1 - i))) & 0xFF)

    def boolean(self, value):
        self.integer(1 if value else 0, 0, 255)

    def take(self, data):
        self.front += data

    def bytes(self):
        return bytes(self.front) + bytes(reversed(self.back))


def ftp_session(reads):
    """reads: (session, bytes) pairs, one read event each."""
    p = Provider()
    for session, data in reads:
        p.boolean(session == 1)
        p.integer(len(data), 1, 4096)
        p.take(data)
    return p.bytes()


def telnet_session(reads):
    p = Provider()
    for data in reads:
        p.integer(len(data), 1, 4096)
        p.take(data)
    return p.bytes()


TELNET_STATES = [1, 2, 3, 5, 6, 7, 8, 9, 10, 11, 12, 23, 25, 28]


def telnet_input(reads):
    p = Provider()
    for state, data in reads:
        p.integer(TELNET_STATES.index(state), 0, len(TELNET_STATES) - 1)
        p.integer(len(data), 1, 600)
        p.take(data)
    return p.bytes()


def random_length_string(text):
    # ConsumeRandomLengthString: a backslash is doubled; "\" and another byte end the string.
    return text.replace(b"\\", b"\\\\") + b"\\x"


def lines(*items):
    return [(0, (item + "\r\n").encode("latin-1")) for item in items]


def seeds():
    out = {}

    login = lines("USER fuzz", "PASS fuzz-pass")
    out["fuzz_ftp_session"] = {
        "login_and_everything": ftp_session(login + lines(
            "PWD", "CWD sub", "XPWD", "CDUP", "CDUP", "TYPE I", "TYPE a", "TYPE i", "TYPE A N",
            "PORT 127,0,0,1,4,1", "LIST", "NLST -l", "LIST *.txt", "LIST nothing*", "RETR readme.txt",
            "STOR new.txt", "MKD newdir", "XMKD \\pub\\x", "RMD sub", "XRMD newdir",
            "DELE a.b.txt", "XCUP", "NOOP", "SYST", "PASV", "QUIT")),
        "admin_private": ftp_session(lines("user admin", "pass admin-pass", "CWD \\private",
                                           "LIST", "RETR secret.txt", "CWD /mnt", "LIST -la",
                                           "RETR m.txt", "STOR m.txt", "DELE m.txt", "CWD ..")),
        "before_login": ftp_session(lines("LIST", "RETR readme.txt", "STOR x", "CWD pub",
                                          "MKD x", "DELE top.txt", "PASS fuzz-pass")),
        "wrong_password": ftp_session(lines("USER fuzz", "PASS nope")),
        "no_rights": ftp_session(lines("USER mallory", "PASS mallory-pass")),
        "unknown_user": ftp_session(lines("USER nobody", "PASS x")),
        "login_limit": ftp_session(login + [(1, b"USER fuzz\r\n"), (1, b"PASS fuzz-pass\r\n"),
                                            (0, b"USER fuzz\r\n"), (0, b"PASS fuzz-pass\r\n")]),
        "two_lines_one_read": ftp_session([(0, b"USER fuzz\r\nPASS fuzz-pass\r\n"), (0, b"\r\n"),
                                           (0, b"PWD\r"), (0, b"\n")]),
        "overflow": ftp_session([(0, b"USER fuzz\r\n"), (0, b"A" * 120), (0, b"B" * 120)]),
        "partial_in_login": ftp_session([(0, b"US"), (0, b"ER fuzz\r\n"), (0, b"PA")]),
        "paths": ftp_session(login + lines("CWD ..\\..\\..", "CWD /../..", "RETR ../top.txt",
                                           "STOR ../evil", "STOR a\\b", "STOR ..", "MKD ..\\..\\x",
                                           "MKD a/../../x", "RMD \\", "DELE ..",
                                           "CWD \"sub\"", "MKD \"two words\"")),
        "long_verb": ftp_session(lines("ABCDEFGHIJKLMNOP x", "PORT " + "9" * 30)),
    }

    shell_login = [b"fuzz\r\n", b"fuzz-pass\r\n"]
    commands = ["ls", "dir -l", "ls -l \\pub", "ls \\private", "ls *.txt", "cd sub", "cd ..",
                "cd \\", "cd /", "cd", "cd \\private", "cd top.txt", "pwd", "whoami", "who",
                "help", "?", "man", "Help", "mkdir x", "mkdir \\pub\\y", "mkdir ..", "rmdir sub",
                "rmdir \\", "rm a.b.txt", "rm *.txt", "rm \\private\\*", "mv readme.txt sub",
                "mv *.txt \\", "cp *.txt sub", "cp \\pub \\mnt", "cp", "mv", "chmod 755 readme.txt",
                "chmod 7 *", "chmod 0755 a.b.txt", "chmod u+x readme.txt", "chmod 8 readme.txt",
                "chmod -R 644 sub\\", "chown admin readme.txt", "chown nobody x",
                "chgrp staff *", "chgrp -x nogroup \\pub\\", "more readme.txt", "more *",
                "ftp", "ftp 127.0.0.1", "telnet localhost", "  ls", "\"quoted word\"",
                "exit"]
    out["fuzz_telnet_session"] = {
        "shell_commands": telnet_session(shell_login + [(c + "\r\n").encode() for c in commands]),
        "admin_shell": telnet_session([b"admin\r\n", b"admin-pass\r\n", b"cd \\private\r\n",
                                       b"ls\r\n", b"chown fuzz secret.txt\r\n", b"rm *\r\n",
                                       b"cd \\mnt\r\n", b"cp m.txt \\pub\r\n", b"exit\r\n"]),
        "three_failures": telnet_session([b"fuzz\r\n", b"x\r\n", b"fuzz\r\n", b"y\r\n",
                                          b"nobody\r\n", b"z\r\n"]),
        "editing": telnet_session([b"fu\x08\x08fuzz\r", b"\nfuzz-pass\r", b"\n",
                                   b"lx\x7fs\r\n", b"\x1b[A\r\n", b"\x03pwd\r\n", b"\r\n",
                                   b"pw", b"d\r"]),
        "options": telnet_session([bytes([IAC, WILL, 24, IAC, WILL, 31, IAC, DO, 3, IAC, DO, 5,
                                          IAC, DO, 1, IAC, SB, 24, 0]) + b"fuzz\r\n",
                                   bytes([IAC, WONT, 1]) + b"fuzz-pass\r\n",
                                   bytes([IAC, SB, 31, 0, 80, 0, 24]) + b"ls\r\n",
                                   bytes([IAC, IP, IAC]) + b"\r\n"]),
        "long_line": telnet_session(shell_login + [b"x" * 300 + b"\r\n", b"\r" * 250 + b"\n"]),
        "type_ahead": telnet_session(shell_login + [b"ls\r\npwd\r\nwho\r\nwhoami\r\n"]),
    }

    out["fuzz_telnet_input"] = {
        "login": telnet_input([(1, b"fuzz\r\n"), (2, b"secret\r\n"), (3, b"ls -l\r\n")]),
        "editing": telnet_input([(3, b"ab\x08\x7f\x1bc\r"), (3, b"\n"), (3, b"x" * 250 + b"\r\n")]),
        "interrupt": telnet_input([(10, b"typed ahead\x03rest"), (12, b"more\r\n"),
                                   (10, bytes([IAC, IP]) + b"x")]),
        "question": telnet_input([(25, b"maybe yes\r\n"), (25, b"\r\n"), (25, b"N\r")]),
        "pager": telnet_input([(28, b" "), (28, b"q\r\n"), (28, b"\x03"), (28, b"\n"),
                               (28, bytes([IAC, IP]))]),
        "transfer": telnet_input([(23, b"ls\x08\r\n"), (23, bytes([IAC, WILL, 24])),
                                  (23, b"\x03")]),
        "options": telnet_input([(1, bytes([IAC, WILL, 24, IAC, WILL, 31, IAC, WILL, 32, IAC,
                                            WILL, 33, IAC, WILL, 34, IAC, WILL, 39, IAC, DO, 3,
                                            IAC, DO, 5, IAC, DO, 1, IAC, DONT, 1, IAC])),
                                 (6, bytes([IAC, SB, 24, 1, IAC, SE]) + b"pw\r\n")]),
    }

    out["fuzz_shell_words"] = {
        "chmod": random_length_string(b"chmod 755 \\pub\\*.txt") + random_length_string(b"*.txt"),
        "quoted": random_length_string(b'cp "two words" "\\pub\\sub" rest') +
        random_length_string(b"a*.b?"),
        "paths": random_length_string(b"ls ..\\..\\pub\\sub\\..\\readme.txt / \\ . .. //x") +
        random_length_string(b"*.*") + b"a.b.txt",
        "modes": random_length_string(b"chmod u+x 0755 7 55 8 ugo=rwx x") +
        random_length_string(b"755"),
        "long": random_length_string(b"abcdefghijklmnopq rest") + random_length_string(b"*"),
    }

    out["fuzz_ftp_parse"] = {
        "port": b"PORT 127,0,0,1,4,1\r\n",
        "port_wide": b"port 1,2,3,4,5,6,7,8\r\nPORT ,,,,,\r\n",
        "type": b"TYPE A N\r\nTYPE a\r\n",
        "list": b"LIST -la \"my dir\"\r\n",
        "lines": b"USER x\r\nPASS y\nNOOP\r\r\n\r\nQUIT",
    }

    out["fuzz_settings_ini"] = {
        "full": b"[Server_Settings]\nserverhome=/srv/ftp/\nmaxusers=20\n[Services]\ntelnet=1\n"
                b"ftp=1\ntelnet_port=2323\nftp_port=2121\n",
        "odd": b"; comment\n[ services ]\r\nFTP = 2\nftp_port=\"21\"\n[Server_Settings\n"
               b"serverhome=\\\nmaxusers=99999\nmaxusers=1\n",
        "empty": b"",
    }

    out["fuzz_users_file"] = {
        "users": b"anna:101:stored:2:15:\\pub\nroot:10:x:5:4:\\\nplace:65535:p:1:0:\\\n",
        "short": b"onlyname\nname:12\n::::::\n",
        "crlf": b"bob:-5:pw:-1:99999:\\a:b:c\r\n",
        "long": b"x" * 40 + b":1:" + b"p" * 40 + b":1:15:" + b"h" * 300 + b"\n",
    }

    out["fuzz_groups_file"] = {
        "groups": b"staff:101:anna:bob\nempty:102\nwho:103:nobody:anna\n",
        "odd": b"staff:101:anna:anna\n:5:bob\nstaff:9:carl\nnoid\n" + b"g" * 50 + b":1:carl\n",
    }

    out["fuzz_mounts_file"] = {
        "mounts": b"real1|\\m1\nreal2|pub\\m2\n",
        "odd": b"real1|\\pub\\sub\\..\\x\nreal2|\\\nouter|\\y\nhome|\\loop\nreal1/|\\c.txt\\x\n"
               b"real2|\\..\\..\\up\nnobar\nreal1|\\m1\nreal1|\\m1\n",
    }

    out["fuzz_fpl_file"] = {
        "fpl": b"\\:d:root:root:111101101\n\\pub:d:anna:anna:111111111:staff\n"
               b"\\pub\\a.txt:-:anna:bob:110100100\n\\pub\\m1:d::root:1110000\n",
        "odd": b"\\pub\\..\\c.txt:-:x:y:999999999:g\n\\nothere:-:a:b:111\n\\pub:d\n"
               b"pub\\sub:d:" + b"u" * 40 + b":u:1\n\\link_out\\secret.txt:-:a:a:111111111\n",
    }
    return out


def main():
    for target, files in seeds().items():
        folder = os.path.join(CORPUS, target)
        shutil.rmtree(folder, ignore_errors=True)
        os.makedirs(folder)
        for name, data in files.items():
            with open(os.path.join(folder, name), "wb") as f:
                f.write(data)


if __name__ == "__main__":
    main()
