#!/usr/bin/env bash
# Takes the desktop screenshots for the README: starts a demo server with the window under a
# virtual X display (Xvfb), opens every dialog with sample data and writes PNG files into docs/.
# Usage: scripts/screenshots.sh [build-folder]   (default build/, built here when needed)
set -euo pipefail
cd "$(dirname "$0")/.."
dir="${1:-build}"
tool="$dir/tests/admin/orvane_screenshots"
if [ ! -x "$tool" ]; then
  cmake -S . -B "$dir" -G Ninja -DORVANE_DESKTOP=ON >/dev/null
  ninja -C "$dir" orvane_screenshots
fi
command -v xvfb-run >/dev/null || { echo "xvfb-run is needed (Debian package xvfb)" >&2; exit 1; }
mkdir -p docs
# The same look everywhere: Qt's own style on a plain X server, no desktop settings.
export QT_QPA_PLATFORM=xcb QT_STYLE_OVERRIDE=Fusion XDG_RUNTIME_DIR="${XDG_RUNTIME_DIR:-$(mktemp -d)}"
xvfb-run -a -s "-screen 0 1280x900x24" "$tool" docs
