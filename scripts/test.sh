#!/usr/bin/env bash
# Builds everything with warnings as errors and runs every test.
# Usage: scripts/test.sh [preset]   (ci by default; asan and tsan run the
# same tests under the sanitizers)
set -euo pipefail
cd "$(dirname "$0")/.."
preset="${1:-ci}"

scripts/install-deps.sh
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset" -j "$(nproc)"
# Most integration tests wait on the dispatcher's two-second shutdown: run more than the cores.
ctest --preset "$preset" -j "$(( $(nproc) * 2 ))"
