#!/usr/bin/env python3
"""The long soak: SESSIONS simulated users (half FTP, half Telnet, maxusers SESSIONS) work
against the built server for SECONDS after a warm-up of the same load, every reply checked byte
for byte; then every session must be gone and the server back to its idle threads and
descriptors, with its memory near the warm-up figure. Prints the figures (see README.md).

    bench/soak.py [--binary build/orvane-server] [--sessions 256] [--seconds 600]
                  [--warmup 30] [--json]
"""

import argparse
import json
import os
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "tests", "e2e"))


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--binary", default=os.path.join(HERE, "..", "build", "orvane-server"))
    parser.add_argument("--sessions", type=int, default=256)
    parser.add_argument("--seconds", type=float, default=600)
    parser.add_argument("--warmup", type=float, default=30)
    parser.add_argument("--json", action="store_true", help="print the figures as JSON")
    args = parser.parse_args()
    os.environ["ORVANE_BINARY"] = os.path.abspath(args.binary)

    import hostile_support  # after ORVANE_BINARY is set

    figures, server = hostile_support.run_soak(args.sessions, args.seconds, args.warmup)
    try:
        figures["exit_status"] = server.stop(limit=120)
        figures["sanitizer_reports"] = server.sanitizer_reports()
    finally:
        server.close()
    if args.json:
        print(json.dumps(figures, indent=2, sort_keys=True))
    else:
        for key in sorted(figures):
            if key != "failures":
                print("%-18s %s" % (key, figures[key]))
        for failure in figures.get("failures", [])[:20]:
            print("FAILURE", failure)
        if figures.get("elapsed"):
            print("%-18s %.0f" % ("replies/s", figures["replies_checked"] / figures["elapsed"]))
            print("%-18s %.1f" % ("logins/s", figures["logins"] / figures["elapsed"]))
    ok = (not figures.get("failures") and figures.get("quiet") and
          figures.get("who_after") == ["admin"] and figures.get("exit_status") == 0 and
          not figures.get("sanitizer_reports"))
    print("RESULT", "ok" if ok else "FAILED")
    return 0 if ok else 1


if __name__ == "__main__":
    sys.exit(main())
