#!/usr/bin/env bash
# Builds the benchmark programs (release with debug info) and prints their
# figures, then the click latency of the dispatcher as the package builds it
# (bench/click_latency.sh) and the racing deliveries between dispatchers
# (bench/racing_deliveries.sh). Extra arguments go to every benchmark program
# (e.g. --benchmark_filter=...).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake --preset default >/dev/null
cmake --build --preset default -j "$(nproc)"
for bench in build/default/bench/*_bench; do
  [[ -x "$bench" ]] || continue
  echo "== $(basename "$bench")"
  "$bench" "$@"
done
echo "== click latency"
bench/click_latency.sh
echo "== racing deliveries"
bench/racing_deliveries.sh
