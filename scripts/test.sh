#!/usr/bin/env bash
# Builds everything with warnings as errors and runs every test.
# Usage: scripts/test.sh [preset]   (ci by default; asan and tsan run the
# same tests under the sanitizers)
# With the ci preset it then builds the Debian package and checks it
# (scripts/package.sh --check): installed with apt-get, real Chromium and
# Firefox get their links through it, and it is removed again.
set -euo pipefail
cd "$(dirname "$0")/.."
preset="${1:-ci}"

scripts/install-deps.sh
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset" -j "$(nproc)"
# Most integration tests wait on the dispatcher's two-second shutdown: run more than the cores.
# The real-browser test runs once, against the installed package.
ctest --preset "$preset" -j "$(( $(nproc) * 2 ))" -LE real-browsers
if [[ "$preset" == ci ]]; then
  scripts/package.sh --check
fi
