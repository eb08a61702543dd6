#!/usr/bin/env bash
# Installs what is missing, builds, and runs the whole test suite (unit, protocol and
# end-to-end tests with real clients). Extra arguments go to ctest.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
scripts/build.sh build
ctest --test-dir build --output-on-failure -j2 "$@"
