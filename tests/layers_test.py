#!/usr/bin/env python3
"""The folders' include arrows point one way only: each folder may include its own headers and
those of the folders below it, never one above. Fails with the offending lines."""
import os
import re
import sys

# Each folder and the folders it may use (besides itself). app/ uses everything; admin/ only
# app's administration interface (and what that brings along).
MAY_USE = {
    "platform": set(),
    "core": {"platform"},
    "accounts": {"platform", "core"},
    "vfs": {"platform", "core", "accounts"},
    "ftpd": {"platform", "core", "accounts", "vfs"},
    "client": {"platform", "core", "accounts", "vfs"},
    "telnetd": {"platform", "core", "accounts", "vfs", "client"},
    "sshd": {"platform", "core", "accounts", "vfs", "client", "telnetd", "ftpd"},
    "app": {"platform", "core", "accounts", "vfs", "ftpd", "client", "telnetd", "sshd"},
}
INCLUDE = re.compile(r'^\s*#\s*include\s+"([a-z_]+)/', re.M)


def offences(root):
    found = []
    for folder, allowed in MAY_USE.items():
        path = os.path.join(root, folder)
        if not os.path.isdir(path):
            continue
        for name in sorted(os.listdir(path)):
            if not name.endswith((".cpp", ".hpp")):
                continue
            with open(os.path.join(path, name), encoding="utf-8") as f:
                text = f.read()
            for m in INCLUDE.finditer(text):
                target = m.group(1)
                if target != folder and target in MAY_USE and target not in allowed:
                    line = text.count("\n", 0, m.start()) + 1
                    found.append("%s/%s:%d includes %s/" % (folder, name, line, target))
    return found


def main():
    root = sys.argv[1] if len(sys.argv) > 1 else os.path.dirname(os.path.dirname(__file__))
    bad = offences(root)
    for line in bad:
        print(line)
    print("%d include(s) against the layers" % len(bad))
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main())
